#include "engine/Sending.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kChunkPackets = 16 * kPacketsPerDatagram;
constexpr auto kPollInterval = 2ms;
constexpr auto kSourceWait = 20ms;
constexpr auto kFeedInterval = 1ms;
constexpr auto kReportInterval = 250ms;
constexpr auto kMeasurement = 1s;   // of the bitrate
constexpr auto kLastDatagram = 1s;  // for it to be counted
// With an empty buffer, the input is late, and the pace begins anew; with data in it for as long,
// the channel needs a higher rate.
constexpr auto kMostLate = 1s;
constexpr auto kPatience = 3s;  // with a socket that does not open, or datagrams that do not leave

// A channel takes a look at this many bytes before it sends the first datagram.
constexpr size_t kDetectionBytes = 2048;

}  // namespace

Sending::Sending(PacedStream& stream, HostModule& module, uint32_t channel, const StreamUrl& url,
                 bool followsStream, StopSignal& stop, Report report)
    : stream_(stream),
      url_(url),
      followsStream_(followsStream),
      stop_(stop),
      report_(std::move(report)),
      payload_(kPacketsPerDatagram * stream.source().packetSize()),
      channel_(module, channel, sendConfig(url), stream.bitrate()),
      schedule_(stream.bitrate(), payload_) {}

std::chrono::milliseconds Sending::elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started_);
}

uint64_t Sending::takenBytes() const {
    return handed_ - std::min<uint64_t>(handed_, channel_.bufferedBytes());
}

uint64_t Sending::sentDatagrams() const {
    return channel_.datagrams();
}

std::string Sending::summary() const {
    const uint64_t datagrams = sentDatagrams();
    return fmt::format(
        "sent {} in {} to {}: {} datagrams at {}", formatBytes(datagrams * payload_),
        formatTime(elapsed()), url_.text, datagrams,
        changes_ == 0 && !pace_
            ? formatBitrate(stream_.bitrate())
            : fmt::format("the stream's own pace, {} changes of the rate", changes_));
}

bool Sending::waitForSocket() {
    while (!channel_.socketIsOpen()) {
        if (!attend())
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

bool Sending::feed() {
    const size_t chunk = kChunkPackets * stream_.source().packetSize();
    while (!stream_.ended()) {
        if (!attend())
            return false;
        const bool paced = followsStream_ && url_.rtp && stream_.varies();
        const size_t wanted = paced ? due(chunk) : chunk;
        if (wanted == 0 || channel_.freeBytes() < wanted)
            std::this_thread::sleep_for(paced ? kFeedInterval : kPollInterval);
        else
            hand(stream_.take(wanted, kSourceWait));
    }
    return true;
}

// The channel's rate is a ceiling only, and what it is handed leaves at once: the pace is that of
// the feeding. What lies in the buffer when that begins is still to leave.
size_t Sending::due(size_t chunk) {
    const auto now = Clock::now();
    if (!pace_) {
        pace_ = stream_.stretch(takenBytes());
        if (!pace_)
            return chunk;
        schedule_.lateness(takenBytes(), *pace_, now);
    }
    if (const auto next = stream_.stretch(handed_))
        pace_ = next;
    const auto late = schedule_.lateness(handed_, *pace_, now);
    const bool empty = channel_.bufferedBytes() < payload_;
    // What held us up, or the socket, is not the channel's rate.
    if (late <= kMostLate || empty || !channel_.socketIsOpen() || now - looked_ > kMostLate)
        keptUp_ = now;
    looked_ = now;
    if (empty && late > kMostLate) {
        schedule_.restart();
    } else if (now - keptUp_ > kMostLate) {
        changeBitrate(stream_.raise());
        schedule_.restart();
        keptUp_ = now;
    }
    if (late.count() < 0)
        return 0;
    return payload_ - handed_ % payload_;
}

// Only whole datagrams leave, and none before the channel has seen enough to tell the packet size:
// null packets make up for what is missing.
bool Sending::pad() {
    std::vector<uint8_t> padding;
    while ((handed_ + padding.size()) % payload_ != 0 || handed_ + padding.size() < kDetectionBytes)
        appendNullPackets(padding, stream_.source().packetSize(), 1);
    while (channel_.freeBytes() < padding.size()) {
        if (!attend())
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    hand(padding);
    return true;
}

bool Sending::drain() {
    while (channel_.bufferedBytes() >= payload_) {
        if (!attend())
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

// The last datagram is counted a moment after it was taken from the buffer.
bool Sending::confirm() {
    const uint64_t expected = handed_ / payload_;
    const auto deadline = Clock::now() + kLastDatagram;
    while (sentDatagrams() < expected && Clock::now() < deadline)
        std::this_thread::sleep_for(kPollInterval);
    const uint64_t sent = sentDatagrams();
    if (sent < expected)
        throw Failure(fmt::format("{} of {} datagrams could not be sent to {}", expected - sent,
                                  expected, url_.text));
    return true;
}

void Sending::hand(std::span<const uint8_t> data) {
    // A refusal means that the channel is cancelled; attend() tells why.
    if (channel_.send(data))
        handed_ += data.size();
}

// What has to be looked after all the time. False when a signal asks for the end.
bool Sending::attend() {
    if (channel_.isCancelled())
        throw Failure(fmt::format("the channel to {} stopped after about {} bytes of {}", url_.text,
                                  sentDatagrams() * payload_, stream_.source().name()));
    watchSocket();
    watchDatagrams();
    if (followsStream_)
        followStream();
    reportProgress();
    return !stop_.requested();
}

void Sending::watchSocket() {
    if (channel_.socketIsOpen())
        socketSeen_ = Clock::now();
    else if (Clock::now() - socketSeen_ > kPatience)
        throw Failure(fmt::format(
            "no socket could be opened to send to {}{}", url_.text,
            url_.localAddress.empty()
                ? "; is there a route to it?"
                : fmt::format("; is {} an address of this machine?", url_.localAddress)));
}

// A datagram that could not be sent has left the buffer, but is not counted.
void Sending::watchDatagrams() {
    const uint64_t taken = takenBytes() / payload_;
    const uint64_t sent = sentDatagrams();
    if (sent != sentSeen_) {
        sentSeen_ = sent;
        takenThen_ = taken;
        sentTime_ = Clock::now();
    } else if (taken <= takenThen_ + 1) {
        sentTime_ = Clock::now();
    } else if (Clock::now() - sentTime_ > kPatience) {
        throw Failure(
            fmt::format("the datagrams cannot be sent to {}; is there a route to it?", url_.text));
    }
}

void Sending::followStream() {
    const uint64_t taken = takenBytes();
    const auto stretch = stream_.stretch(taken);
    if (url_.rtp)
        return;  // feeding follows it; what has left is only to be forgotten
    const auto change = stretch ? schedule_.change(taken, *stretch, Clock::now()) : std::nullopt;
    if (change)
        changeBitrate(*change);
}

void Sending::changeBitrate(uint32_t bitrate_bps) {
    channel_.setBitrate(bitrate_bps);
    ++changes_;
}

void Sending::reportProgress() {
    if (Clock::now() < reportDue_)
        return;
    reportDue_ = Clock::now() + kReportInterval;
    measureRate();
    report_(fmt::format("{}  {}  asked {}  measured {}", formatTime(elapsed()),
                        formatBytes(sentDatagrams() * payload_),
                        pace_ ? "its own pace" : formatBitrate(schedule_.bitrate()),
                        formatBitrate(measured_bps_)));
}

void Sending::measureRate() {
    const auto now = Clock::now();
    const std::chrono::duration<double> time = now - measuredAt_;
    if (time < kMeasurement)
        return;
    const uint64_t bytes = sentDatagrams() * payload_;
    measured_bps_ =
        static_cast<uint32_t>(static_cast<double>(bytes - measuredBytes_) * 8.0 / time.count());
    measuredBytes_ = bytes;
    measuredAt_ = now;
}
