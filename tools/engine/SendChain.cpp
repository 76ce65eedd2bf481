#include "engine/SendChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "ConstantRate.h"
#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

// The buffer is filled that far ahead, once in every interval.
constexpr auto kLead = 140ms;
constexpr auto kInterval = 40ms;
constexpr auto kShortInterval = 20ms;  // where the channel sends what it is fed at once
constexpr auto kLeastInterval = 2ms;

constexpr size_t kChunkBytes = size_t{64} * 1024;
constexpr int kMostChunks = 32;  // at a time, before the other streams have their turn
constexpr uint32_t kFileRing = 512 * 1024;
constexpr uint32_t kPipeRing = 1024 * 1024;

// Early or late by less is not worth a change of the rate, and is more than a constant rate is.
constexpr ts::Time kTolerance = 20ms;
constexpr ts::Time kSettled = 5ms;
constexpr double kRaise = 1.25;
// Later than that, what was to be sent cannot be made up for.
constexpr ts::Time kLost = 500ms;
constexpr uint32_t kMostEmptyLooks = 5;

constexpr auto kRetry = 500ms;
constexpr auto kReportAfter = 1s;       // of an outage
constexpr auto kFirstReportAfter = 3s;  // of an output that does not begin
constexpr auto kMeasurement = 1s;       // of the bitrate
constexpr auto kLastDatagram = 1s;      // for it to be counted

// A channel takes a look at this many bytes before it sends the first datagram.
constexpr uint64_t kDetectionBytes = 2048;

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

SendChain::SendChain(const SendJob& job, uint32_t channel, ModuleOnDemand& module,
                     std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      url_(parseStreamUrl(job.url)),
      number_(channel),
      module_(module),
      patience_(patience),
      isMadeConstant_(job.shaping.constant || (url_.rtp && !job.shaping.asIs && !job.bitrate_bps)),
      follows_(!job.bitrate_bps && !url_.rtp && !isMadeConstant_) {
    checkDestination(url_);
}

std::string SendChain::inputName() const {
    return source_ ? source_->name() : fmt::format("'{}'", job_.input);
}

void SendChain::cancel() {
    if (channel_)
        channel_->cancel();
}

std::optional<Chain::Clock::time_point> SendChain::run(Clock::time_point now) {
    if (!source_ && !openInput(now))
        return retry_;
    if (!shaper_ && !prepareShaper())
        return now + kInterval;
    busy_ = false;
    if (!channel_) {
        read(streamTime(now), streamTime(now));
        if (!shaper_->rate())
            return busy_ ? now : now + kInterval;
        if (now < retry_ || !startChannel(now))
            return retry_;
    }
    watch(now);
    if (downSince_) {
        stayDown(now);
        return now + (handed_ == 0 ? kLeastInterval : kInterval);
    }
    feed(now);
    if (inputOver_ && !shaper_->next())
        return drain(now);
    return nextLook(now);
}

bool SendChain::openInput(Clock::time_point now) {
    try {
        source_.emplace(job_.input, job_.loop);
        return true;
    } catch (const Failure& failure) {
        if (patience_)
            throw;
        if (!std::exchange(downReported_, true))
            events_.push_back(fmt::format("{}; trying on", failure.what()));
        retry_ = now + kRetry;
        return false;
    }
}

bool SendChain::prepareShaper() {
    if (!source_->findFirstPacket())
        return false;
    payload_ = kPacketsPerDatagram * source_->packetSize();
    excerpt_.emplace(source_->packetSize(), job_.bitrate_bps, job_.start.value_or(0ms),
                     job_.duration);
    if (isMadeConstant_) {
        ts::ConstantRate::Options options;
        options.rate_bps = job_.shaping.rate_bps;
        options.delay = job_.shaping.delay.value_or(whole(options.delay));
        shaper_ = std::make_unique<ts::ConstantRate>(
            source_->packetSize(), source_->isFile() ? ts::InputKind::kFile : ts::InputKind::kLive,
            options);
    } else {
        auto ownPace =
            std::make_unique<ts::OwnPace>(source_->packetSize(), job_.bitrate_bps, url_.rtp);
        ownPace_ = ownPace.get();
        shaper_ = std::move(ownPace);
    }
    return true;
}

void SendChain::read(ts::Time now, ts::Time until) {
    for (int chunks = 0; !inputOver_ && shaper_->needsInput(until); ++chunks) {
        if (chunks == kMostChunks) {
            busy_ = true;
            return;
        }
        const auto packets = source_->take(kChunkBytes);
        if (packets.empty() && source_->ended())
            endInput();
        if (packets.empty() && source_->isDry())
            return;
        const bool begun = excerpt_->begun();
        const auto [skipped, kept] = excerpt_->add(packets);
        if (!begun && excerpt_->begun())
            source_->loopFrom(packets.size() - skipped);
        if (kept > 0)
            shaper_->push(packets.subspan(skipped, kept), now);
        if (excerpt_->over())
            endInput();
    }
    if (!shaper_->rate() && (inputOver_ || !shaper_->needsInput(until)))
        throw Failure(fmt::format("{} has no PCRs to tell its rate by; give it with --bitrate",
                                  source_->name()));
}

void SendChain::endInput() {
    if (!excerpt_->begun() && !excerpt_->timeIsKnown())
        throw Failure(
            fmt::format("{} has no PCRs to tell its time by; give --bitrate", source_->name()));
    if (!excerpt_->begun())
        throw Failure(fmt::format("{} ends after {:.1f} s, before the start at {:.1f} s",
                                  source_->name(), seconds(excerpt_->passed()),
                                  seconds(job_.start.value_or(0ms))));
    shaper_->finish();
    inputOver_ = true;
}

// A channel that varies needs room for its fastest moments.
bool SendChain::startChannel(Clock::time_point now) {
    const uint32_t ring = !follows_ ? 0 : source_->isFile() ? kFileRing : kPipeRing;
    rate_bps_ = *shaper_->rate();
    HostModule& module = module_.get();
    try {
        const auto url = addresses_.poll(url_);
        if (url) {
            channel_ =
                std::make_unique<SendChannel>(module, number_, sendConfig(*url), rate_bps_, ring);
            return true;
        }
        goDown(now, fmt::format("the address of {} is not known yet", url_.text));
        retry_ = now + kInterval;
    } catch (const Failure& failure) {
        if (patience_ && now - started_ > *patience_)
            throw;
        goDown(now, failure.what());
        retry_ = now + kRetry;
    }
    return false;
}

// The output works when its socket is open, and when something has left since it did not.
void SendChain::watch(Clock::time_point now) {
    const QXV_RTP_Statistics then = std::exchange(state_, channel_->statistics());
    if (state_.Cancelled != 0)
        throw Failure(fmt::format("the channel to {} stopped after about {} bytes of {}", url_.text,
                                  state_.Datagrams * payload_, source_->name()));
    everWorked_ = everWorked_ || state_.Datagrams > 0;
    if (state_.SocketOpen == 0)
        goDown(now, fmt::format("no socket could be opened to send to {}; is {}", url_.text,
                                url_.localAddress.empty()
                                    ? "there a route to it?"
                                    : url_.localAddress + " an address of this machine?"));
    else if (state_.SendFailures > then.SendFailures && state_.Datagrams == then.Datagrams)
        goDown(now, fmt::format("the datagrams cannot be sent to {}; is there a route to it?",
                                url_.text));
    else if (downSince_ && (handed_ == 0 || state_.Datagrams > then.Datagrams))
        comeBack(now);
}

void SendChain::goDown(Clock::time_point now, const std::string& why) {
    if (!downSince_)
        downSince_ = now;
    const auto time = now - *downSince_;
    if (!everWorked_ && patience_ && time > *patience_)
        throw Failure(why);
    if (downReported_ || time < (everWorked_ ? kReportAfter : kFirstReportAfter))
        return;
    downReported_ = true;
    events_.push_back(why + " Trying on.");
}

// What comes from a pipe meanwhile is late for ever. Where sockets open but nothing leaves, a
// datagram of null packets finds out whether that has changed.
void SendChain::stayDown(Clock::time_point now) {
    if (state_.SocketOpen != 0 && state_.BufferedBytes < payload_ && now >= retry_) {
        handNullPackets(kPacketsPerDatagram);
        retry_ = now + kRetry;
    }
    if (handed_ == 0 || source_->isFile())
        return;
    read(streamTime(now), streamTime(now));
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    while (const size_t size = shaper_->pull(data, streamTime(now)))
        dropped_ += size / payload_;
}

void SendChain::comeBack(Clock::time_point now) {
    const auto time = now - *std::exchange(downSince_, std::nullopt);
    if (std::exchange(downReported_, false))
        events_.push_back(
            fmt::format("sending to {} goes on after {}{}", url_.text, formatTime(whole(time)),
                        dropped_ == 0 ? "" : fmt::format("; {} datagrams were lost", dropped_)));
    dropped_ = 0;
    // The channel would make up for all of the time.
    if (handed_ > 0 && time > kLost)
        changeBitrate(rate_bps_);
    resync(now);
}

ts::Time SendChain::lead() const {
    return varies() ? ts::Time(kShortInterval) + kSettled : ts::Time(kLead);
}

ts::Time SendChain::timeOf(uint64_t bytes) const {
    return ts::Time(std::llround(static_cast<double>(bytes) * 8e9 / rate_bps_));
}

// What is next is due when the buffer is empty.
void SendChain::resync(Clock::time_point now) {
    if (const auto next = shaper_->next())
        shift_ = now.time_since_epoch() + (varies() ? 0ms : timeOf(state_.BufferedBytes)) - *next;
    emptyLooks_ = 0;
}

void SendChain::changeBitrate(double bitrate_bps) {
    rate_bps_ = static_cast<uint32_t>(std::llround(std::clamp(bitrate_bps, 1.0, 4294967295.0)));
    channel_->setBitrate(rate_bps_);
}

void SendChain::feed(Clock::time_point now) {
    const ts::Time until = streamTime(now) + lead();
    read(streamTime(now), until);
    keepUp(now);
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    const uint64_t before = handed_;
    for (size_t size = 1; size > 0;) {
        const size_t room = state_.FreeBytes - (handed_ - before);
        size = shaper_->pull(std::span(data).first(std::min(room, data.size())),
                             streamTime(now) + lead());
        hand(std::span(data).first(size));
    }
    state_.FreeBytes -= static_cast<uint32_t>(handed_ - before);
    state_.BufferedBytes += static_cast<uint32_t>(handed_ - before);
    if (const auto next = shaper_->next()) {
        lasts_ = now + (*next - streamTime(now));
        if (follows_)
            steer(*next - streamTime(now));
    }
    tellNeed();
}

void SendChain::tellNeed() {
    if (needTold_ || !isMadeConstant_)
        return;
    const ts::ShaperStatus status = shaper_->status();
    needTold_ = status.rateNeeded_bps != 0;
    if (needTold_)
        events_.push_back(fmt::format("{} comes late at {}; --cbr {} would have done",
                                      source_->name(), formatBitrate(status.rate_bps),
                                      status.rateNeeded_bps));
}

// The rate at which what is in the buffer is gone when what follows is due. A new one begins the
// wait for the next datagram anew, so it takes an error of more than two datagrams.
void SendChain::steer(ts::Time left) {
    if (state_.BufferedBytes < payload_)
        return;
    const double stream_bps = shaper_->rate().value_or(rate_bps_);
    const auto datagram = ts::Time(std::llround(static_cast<double>(payload_) * 8e9 / stream_bps));
    const ts::Time error = timeOf(state_.BufferedBytes) - left;
    if (std::chrono::abs(error) > kTolerance + 2 * datagram) {
        const auto time = std::max(left, lead() / 4);
        changeBitrate(static_cast<double>(state_.BufferedBytes) * 8.0 / seconds(time));
        catchingUp_ = true;
        ++changes_;
    } else if (catchingUp_ && std::chrono::abs(error) < kSettled + datagram) {
        changeBitrate(stream_bps);
        catchingUp_ = false;
        ++changes_;
    }
}

// Looks for what steering does not mend: input that came too late, a channel that is too slow for
// the stream, or one whose clock was set.
void SendChain::keepUp(Clock::time_point now) {
    const bool isEmpty = state_.BufferedBytes < payload_;
    emptyLooks_ = isEmpty && now + kInterval < lasts_ ? emptyLooks_ + 1 : 0;
    const auto next = shaper_->next();
    const bool late = next && streamTime(now) - *next > kLost;
    if (late && varies() && !isEmpty) {
        changeBitrate(rate_bps_ * kRaise);
        ++changes_;
    } else if ((late && (!isEmpty || !url_.rtp)) || (emptyLooks_ > kMostEmptyLooks && !varies())) {
        changeBitrate(rate_bps_);
    } else if (!late) {
        return;
    }
    resync(now);
}

void SendChain::hand(std::span<const uint8_t> data) {
    // A refusal means that the channel is cancelled; watch() tells.
    if (channel_->send(data))
        handed_ += data.size();
}

void SendChain::handNullPackets(size_t packets) {
    std::vector<uint8_t> padding;
    appendNullPackets(padding, source_->packetSize(), packets);
    hand(padding);
}

// The last datagram is counted a moment after it was taken from the buffer.
std::optional<Chain::Clock::time_point> SendChain::drain(Clock::time_point now) {
    while (handed_ < kDetectionBytes)
        handNullPackets(kPacketsPerDatagram);
    const uint64_t expected = handed_ / payload_;
    if (state_.Datagrams >= expected) {
        cancel();
        return std::nullopt;
    }
    if (state_.BufferedBytes >= payload_)
        drainedAt_ = now;
    else if (now - drainedAt_ > kLastDatagram)
        throw Failure(fmt::format("{} of {} datagrams could not be sent to {}",
                                  expected - state_.Datagrams, expected, url_.text));
    return now +
           std::clamp<Clock::duration>(timeOf(state_.BufferedBytes) / 2, kLeastInterval, kInterval);
}

Chain::Clock::time_point SendChain::nextLook(Clock::time_point now) const {
    if (busy_)
        return now;
    // A buffer that is small for the rate is filled more often.
    const ts::Time ring = timeOf(uint64_t{state_.BufferedBytes} + state_.FreeBytes);
    const auto interval = varies() ? kShortInterval : kInterval;
    return now + std::clamp<Clock::duration>(ring / 4, kLeastInterval, interval);
}

std::string SendChain::describe(Clock::time_point now) {
    if (!channel_)
        return "opening";
    const uint64_t datagrams = channel_->datagrams();
    const auto time = now - measuredAt_;
    if (time >= kMeasurement) {
        measured_bps_ = static_cast<uint32_t>(
            static_cast<double>((datagrams - measuredDatagrams_) * payload_) * 8.0 / seconds(time));
        measuredDatagrams_ = datagrams;
        measuredAt_ = now;
    }
    return fmt::format("{}  {}  asked {}  measured {}{}", formatTime(whole(now - started_)),
                       formatBytes(datagrams * payload_),
                       varies() ? "its own pace" : formatBitrate(rate_bps_),
                       formatBitrate(measured_bps_), downReported_ ? "  DOWN" : "");
}

std::string SendChain::summary() const {
    if (!channel_)
        return {};
    const uint64_t datagrams = channel_->datagrams();
    return fmt::format(
        "sent {} in {} to {}: {} datagrams at {}", formatBytes(datagrams * payload_),
        formatTime(whole(Clock::now() - started_)), url_.text, datagrams,
        changes_ == 0 && !varies()
            ? formatBitrate(rate_bps_)
            : fmt::format("the stream's own pace, {} changes of the rate", changes_));
}

std::vector<std::string> SendChain::warnings() const {
    std::vector<std::string> warnings;
    if (changes_ > 0 && url_.rtp)
        warnings.push_back(
            fmt::format("{}: its rate rose too far: sequence numbers to {} began anew, {} in all",
                        inputName(), url_.text, changes_));
    if (source_ && source_->skippedBytes() > 0)
        warnings.push_back(fmt::format("{}: {} bytes in {} places are no packets: skipped",
                                       inputName(), source_->skippedBytes(),
                                       source_->skippedPlaces()));
    return warnings;
}
