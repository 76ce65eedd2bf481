#include "engine/ChannelOutput.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kRetry = 500ms;
constexpr auto kAddressRetry = 40ms;
constexpr auto kReportAfter = 1s;       // of an outage
constexpr auto kFirstReportAfter = 3s;  // of an output that does not begin
// After a longer outage the channel would make up for all of the time.
constexpr auto kLongOutage = 500ms;

// Early or late by less is not worth a change of the rate, and is more than a constant rate is.
constexpr ts::Time kTolerance = 20ms;
constexpr ts::Time kSettled = 5ms;
constexpr ts::Time kShortestSteering = 35ms;

// A channel takes a look at this many bytes before it sends the first datagram.
constexpr uint64_t kDetectionBytes = 2048;

}  // namespace

ChannelOutput::ChannelOutput(const StreamUrl& url, ChannelNumber number, ModuleOnDemand& module,
                             std::optional<std::chrono::milliseconds> patience,
                             Announcing announcing, std::vector<std::string>& events)
    : url_(url),
      number_(std::move(number)),
      module_(module),
      patience_(patience),
      announcing_(std::move(announcing)),
      events_(events) {
    checkDestination(url_);
    setPacketSize(kPacketBytes);
}

void ChannelOutput::setPacketSize(size_t bytes) {
    packetSize_ = bytes;
    payload_ = kPacketsPerDatagram * bytes;
}

bool ChannelOutput::start(Clock::time_point now, uint32_t rate_bps, uint32_t ringBytes) {
    if (now < retry_ || (ending_.valid() && ending_.wait_for(0s) != std::future_status::ready))
        return false;
    if (!begun_)  // however long the input took to come
        begun_ = downSince_ = now;
    rate_bps_ = rate_bps;
    handed_ = rateChanges_ = 0;
    HostModule& module = module_.get();
    try {
        const auto url = addresses_.poll(url_);
        if (url) {
            channel_ = std::make_unique<SendChannel>(module, number_.value(), sendConfig(*url),
                                                     rate_bps_, ringBytes);
            state_ = {};
            if (url_.rtp && announcing_ != Announcing() && !announcement_)
                announcement_.emplace(*url, announcing_, events_);
            return true;
        }
        goDown(now, fmt::format("the address of {} has not been found yet", url_.text));
        retry_ = now + kAddressRetry;
    } catch (const std::runtime_error& failure) {
        // An address that a name has now may not fit the rest of the URL, and a later one may.
        const bool isUsage = dynamic_cast<const UsageError*>(&failure) != nullptr;
        if (patience_ && (isUsage || now - *begun_ > *patience_))
            throw;
        goDown(now, failure.what());
        retry_ = now + kRetry;
    }
    return false;
}

// The output works when its socket is open, and when something has left since it did not.
ChannelOutput::Look ChannelOutput::watch(Clock::time_point now) {
    const QXV_RTP_Statistics then = std::exchange(state_, channel_->statistics());
    if (announcement_)
        announcement_->run(now);
    if (state_.Cancelled != 0)
        return Look::kStopped;
    everWorked_ = everWorked_ || state_.Datagrams > 0;
    if (state_.SocketOpen == 0) {
        goDown(now, fmt::format("no socket could be opened to send to {}; is {}", url_.text,
                                url_.localAddress.empty()
                                    ? "there a route to it?"
                                    : url_.localAddress + " an address of this machine?"));
    } else if (state_.SendFailures > then.SendFailures && state_.Datagrams == then.Datagrams) {
        goDown(now, fmt::format("the datagrams cannot be sent to {}; is there a route to it?",
                                url_.text));
    } else if (downSince_ && (handed_ == 0 || state_.Datagrams > then.Datagrams)) {
        comeBack(now);
        return Look::kCameBack;
    }
    return downSince_ ? Look::kDown : Look::kWorks;
}

void ChannelOutput::goDown(Clock::time_point now, const std::string& why) {
    if (!downSince_)
        downSince_ = now;
    trouble_ = why;
    const auto time = now - *downSince_;
    if (!everWorked_ && patience_ && time > *patience_)
        throw Failure(why);
    if (downReported_ || time < (everWorked_ ? kReportAfter : kFirstReportAfter))
        return;
    downReported_ = true;
    events_.push_back(fmt::format("{}{} Trying again.", why, why.ends_with('?') ? "" : "."));
}

void ChannelOutput::comeBack(Clock::time_point now) {
    const auto time = now - *std::exchange(downSince_, std::nullopt);
    if (std::exchange(downReported_, false))
        events_.push_back(fmt::format(
            "sending to {} goes on after {}{}", url_.text,
            formatTime(std::chrono::duration_cast<std::chrono::milliseconds>(time)),
            lost_ == 0 ? "" : fmt::format("; {} were lost", counted(lost_, "datagram"))));
    lostBefore_ += std::exchange(lost_, 0);
    if (handed_ > 0 && time > kLongOutage)
        setRate(rate_bps_);
}

void ChannelOutput::probe(Clock::time_point now) {
    if (state_.SocketOpen == 0 || !isEmpty() || now < retry_)
        return;
    handNullPackets();
    retry_ = now + kRetry;
}

void ChannelOutput::hand(std::span<const uint8_t> data) {
    // A refusal means that the channel is cancelled; watch() tells.
    if (data.empty() || !channel_->send(data))
        return;
    handed_ += data.size();
    state_.FreeBytes -= static_cast<uint32_t>(data.size());
    state_.BufferedBytes += static_cast<uint32_t>(data.size());
}

// Hands over one datagram of null packets.
void ChannelOutput::handNullPackets() {
    std::vector<uint8_t> padding;
    appendNullPackets(padding, packetSize_, kPacketsPerDatagram);
    hand(padding);
}

void ChannelOutput::handEnough() {
    for (uint64_t at = handed_; at < kDetectionBytes; at += payload_)
        handNullPackets();
}

void ChannelOutput::setRate(double bitrate_bps) {
    rate_bps_ = static_cast<uint32_t>(std::llround(std::clamp(bitrate_bps, 1.0, 4294967295.0)));
    channel_->setBitrate(rate_bps_);
}

ts::Time ChannelOutput::timeOf(uint64_t bytes) const {
    return ts::Time(std::llround(static_cast<double>(bytes) * 8e9 / rate_bps_));
}

// A new rate begins the wait for the next datagram anew, so it takes an error of more than two
// datagrams.
void ChannelOutput::steer(ts::Time left, double stream_bps) {
    if (isEmpty())
        return;
    const auto atStreamRate = [stream_bps](uint64_t bytes) {
        return ts::Time(std::llround(static_cast<double>(bytes) * 8e9 / stream_bps));
    };
    const ts::Time datagram = atStreamRate(payload_);
    const ts::Time error = buffered() - left;
    if (std::chrono::abs(error) > kTolerance + 2 * datagram) {
        const std::chrono::duration<double> time = std::max(left, kShortestSteering);
        setRate(static_cast<double>(state_.BufferedBytes) * 8.0 / time.count());
        catchingUp_ = true;
    } else if (catchingUp_ &&
               std::chrono::abs(atStreamRate(state_.BufferedBytes) - left) < kSettled + datagram) {
        setRate(stream_bps);
        catchingUp_ = false;
    } else {
        return;
    }
    ++rateChanges_;
}

void ChannelOutput::cancel() {
    announcement_.reset();
    if (channel_)
        channel_->cancel();
}

// A channel whose socket is not open takes up to a second to end, for which nobody waits here.
void ChannelOutput::end() {
    if (!channel_)
        return;
    channel_->cancel();
    if (state_.SocketOpen != 0)
        channel_.reset();
    else
        ending_ = std::async(std::launch::async,
                             [channel = std::move(channel_)]() mutable { channel.reset(); });
}

OutputState ChannelOutput::outputState() const {
    return {url_.text, isStarted() && !isDown(), datagrams(), lostBefore_ + lost_,
            state_.SendFailures};
}
