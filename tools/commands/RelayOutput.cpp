#include "commands/RelayOutput.h"

#include <fmt/format.h>

#include <algorithm>

#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

// A ring that is large enough for any rate: what may wait in it is limited by time.
constexpr uint32_t kRingBitrate_bps = 200'000'000;
constexpr auto kMostBuffered = 1500ms;
constexpr uint64_t kLeastBytes = uint64_t{16} * kPacketsPerDatagram * kPacketWithParityBytes;

constexpr double kHeadroom = 1.01;  // clocks, steering, and a rate measured over a moment
constexpr double kSameRate = 0.02;  // less is not worth a new schedule
constexpr double kRaise = 1.25;     // a rate that varies should not make a raise of every peak
constexpr auto kBacklog = 250ms;

constexpr auto kLook = 1s;
constexpr auto kReport = 10s;

}  // namespace

RelayOutput::RelayOutput(HostModule& module, uint32_t number, const StreamUrl& url, bool fixedRate,
                         Progress& progress)
    : module_(module), number_(number), url_(url), fixedRate_(fixedRate), progress_(progress) {
    start();
}

void RelayOutput::start() {
    channel_ = std::make_unique<SendChannel>(module_, number_, sendConfig(url_), kRingBitrate_bps);
    handed_ = 0;
    ceiling_bps_ = 0;
}

void RelayOutput::restart() {
    if (channel_ == nullptr)
        return;
    // The thread of a channel that has cancelled itself sleeps for no socket.
    if (channel_->socketIsOpen() || channel_->isCancelled()) {
        channel_.reset();
        start();
        return;
    }
    ending_ = std::async(std::launch::async,
                         [channel = std::move(channel_)]() mutable { channel.reset(); });
}

void RelayOutput::cancel() {
    if (channel_ != nullptr)
        channel_->cancel();
}

void RelayOutput::setStreamRate(uint32_t bitrate_bps) {
    if (channel_ == nullptr)
        return;
    const double wanted = bitrate_bps * kHeadroom;
    if (ceiling_bps_ == 0 || wanted > ceiling_bps_ * (1.0 + kSameRate) ||
        wanted < ceiling_bps_ * (1.0 - kSameRate))
        setCeiling(static_cast<uint64_t>(wanted));
}

void RelayOutput::setCeiling(uint64_t bitrate_bps) {
    ceiling_bps_ = static_cast<uint32_t>(std::clamp<uint64_t>(bitrate_bps, 1, UINT32_MAX));
    channel_->setBitrate(ceiling_bps_);
    rateChanges_ += handed_ > 0 ? 1 : 0;
}

uint64_t RelayOutput::bytesIn(std::chrono::milliseconds time) const {
    return std::max(uint64_t{ceiling_bps_} / 8 * static_cast<uint64_t>(time.count()) / 1000,
                    kLeastBytes);
}

void RelayOutput::hand(std::span<const uint8_t> datagram) {
    handedBytes_ += datagram.size();
    if (channel_ == nullptr ||
        channel_->bufferedBytes() + datagram.size() > bytesIn(kMostBuffered) ||
        channel_->freeBytes() < datagram.size() || !channel_->send(datagram))
        ++dropped_;
    else
        ++handed_;
}

void RelayOutput::attend(Clock::time_point now) {
    if (channel_ == nullptr && ending_.wait_for(0s) == std::future_status::ready)
        start();
    if (channel_ == nullptr)
        return;
    watchSocket(now);
    leastBuffered_ = std::min<uint64_t>(leastBuffered_, channel_->bufferedBytes());
    if (now >= nextLook_) {
        nextLook_ = now + kLook;
        watchBacklog();
        handedBytes_ = 0;
        leastBuffered_ = channel_->bufferedBytes();
    }
    if (now >= nextReport_ && dropped_ != droppedReported_) {
        nextReport_ = now + kReport;
        reportDrops();
    }
}

void RelayOutput::watchSocket(Clock::time_point now) {
    if (channel_->socketIsOpen()) {
        if (lossReported_)
            progress_.warn(fmt::format("there is a socket to send to {} again", url_.text));
        socketSeen_ = now;
        everOpen_ = true;
        lossReported_ = false;
    } else if (now - socketSeen_ > kSocketPatience && !lossReported_) {
        const auto text = fmt::format("no socket could be opened to send to {}", url_.text);
        if (!everOpen_)
            throw Failure(text +
                          "; is there a route to it, or the local address not this machine's?");
        progress_.warn(text + "; trying on");
        lossReported_ = true;
    }
}

// What has stayed in the buffer for all of the time cannot go: the stream has become faster, or the
// clock by which channels send was set back. A new rate mends both. A channel that has cancelled
// itself has to be started again.
void RelayOutput::watchBacklog() {
    if (channel_->isCancelled()) {
        progress_.warn(fmt::format("the channel to {} has stopped; starting it again", url_.text));
        restart();
    } else if (ceiling_bps_ != 0 && everOpen_ && !lossReported_ &&
               leastBuffered_ > bytesIn(kBacklog)) {
        const auto most = std::max<uint64_t>(ceiling_bps_, handedBytes_ * 8);
        setCeiling(fixedRate_ ? ceiling_bps_
                              : static_cast<uint64_t>(static_cast<double>(most) * kRaise));
    }
}

void RelayOutput::reportDrops() {
    progress_.warn(fmt::format("dropped {} to {}, {} in all",
                               counted(dropped_ - droppedReported_, "datagram"), url_.text,
                               dropped_));
    droppedReported_ = dropped_;
}

bool RelayOutput::drained() const {
    return channel_ == nullptr || channel_->bufferedBytes() < kPacketsPerDatagram * kPacketBytes;
}

uint32_t RelayOutput::buffered_ms() const {
    if (ceiling_bps_ == 0 || channel_ == nullptr)
        return 0;
    return static_cast<uint32_t>(uint64_t{channel_->bufferedBytes()} * 8000 / ceiling_bps_);
}
