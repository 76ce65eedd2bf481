#include "engine/ReceiveChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kRetryInterval = 1s;
constexpr auto kSocketGrace = 3s;    // until a service reports that no socket can be opened
constexpr auto kReopenGrace = 2s;    // while a socket is replaced
constexpr auto kOverrunPause = 10s;  // without loss, until an overrun counts as over
constexpr auto kLastWrites = 1s;     // for an output that takes nothing when the end has come
constexpr auto kFiguresInterval = 500ms;
constexpr uint32_t kLongestDatagram = 65535;

}  // namespace

ReceiveChain::ReceiveChain(const ReceiveJob& job, ModuleOnDemand& module,
                           std::optional<Clock::duration> patience, Report report)
    : job_(job),
      module_(module),
      patience_(patience),
      report_(std::move(report)),
      output_(job.output, Rotation{job.rotateBytes, job.rotateTime}) {}

void ReceiveChain::goesOn(Outage& outage, const std::string& what, Clock::duration grace) {
    if (!outage.since)
        outage.since = now_;
    if (now_ - *outage.since >= grace && !std::exchange(outage.isReported, true))
        report_(what);
}

void ReceiveChain::isOver(Outage& outage, const std::string& what) {
    if (outage.isReported)
        report_(what);
    outage = {};
}

void ReceiveChain::open() {
    try {
        if (!output_.open())
            return;
        isOver(outputOutage_, fmt::format("{} is written again", output_.name()));
        state_ = State::kConnecting;
    } catch (const Failure& failure) {
        if (patience_)
            end(failure.what());
        else
            outputFails(failure.what());
    }
}

void ReceiveChain::outputFails(const std::string& what) {
    goesOn(outputOutage_, what + "; trying again");
    retry_ = now_ + kRetryInterval;
}

void ReceiveChain::attend() {
    inputDue_ = input_->attend(now_);
    for (const std::string& event : input_->takeEvents())
        report_(event);
}

void ReceiveChain::connect(CollectingMeans& means) {
    if (!input_)
        input_ = makeInput(job_.url, module_, means.sockets);
    attend();
    if (input_->statistics().SocketOpen == 0)
        return awaitSocket(input_->trouble());
    isOver(socketOutage_, fmt::format("{} is received", job_.url));
    opened_ = closed_ = lastData_ = now_;
    state_ = State::kReceiving;
}

void ReceiveChain::awaitSocket(const std::string& what) {
    if (patience_) {
        if (now_ - socketOutage_.since.value_or(now_) > *patience_)
            throw Failure(what);
        goesOn(socketOutage_, what, Clock::duration::max());
    } else {
        goesOn(socketOutage_, what + "; trying again", kSocketGrace);
    }
}

void ReceiveChain::serve(CollectingMeans& means, const char* stop) {
    now_ = Clock::now();
    stop_ = stop != nullptr ? stop : ownStop_.load();
    pipeIsFull_ = false;
    filled_ = 0.0;
    try {
        step(means);
    } catch (const std::exception& failure) {
        end(failure.what());
    }
}

void ReceiveChain::step(CollectingMeans& means) {
    if (state_ == State::kOpening && now_ >= retry_)
        open();
    if (state_ == State::kConnecting)
        connect(means);
    if (state_ < State::kReceiving && stop_ != nullptr)
        throw Failure(fmt::format("nothing came from {}", job_.url));
    if (state_ == State::kReceiving) {
        attend();
        const QXV_RTP_Statistics statistics = input_->statistics();
        watch(statistics);
        move(statistics.BufferedBytes, means.space);
        if (isDone()) {
            // What goes on coming does not belong to the recording; there may be no end to it.
            input_->finish();
            rest_ = input_->statistics().BufferedBytes;
            closed_ = now_;
            endBy_ = now_ + kLastWrites;
            state_ = State::kEnding;
        }
    }
    if (state_ == State::kEnding)
        finish(means.space);
    publish();
}

void ReceiveChain::watch(const QXV_RTP_Statistics& statistics) {
    datagrams_ = statistics.Datagrams;
    if (const uint64_t now = input_->arrived(); std::exchange(arrived_, now) != now) {
        lastData_ = closed_ = now_;
        if (firstData_ == Clock::time_point())
            firstData_ = now_;
    }
    if (statistics.SocketOpen == 0)
        goesOn(socketOutage_, fmt::format("{} has no socket; trying again", job_.url),
               kReopenGrace);
    else
        isOver(socketOutage_, fmt::format("{} is received again", job_.url));
    const uint64_t lost = statistics.DatagramsDropped - dropped_;
    dropped_ = statistics.DatagramsDropped;
    // Others are dropped for what they are.
    if (lost > 0 && statistics.FreeBytes < kLongestDatagram) {
        overrunDatagrams_ += lost;
        lastOverrun_ = now_;
        goesOn(overrun_, fmt::format("{} takes too little: datagrams from {} are dropped",
                                     output_.name(), job_.url));
    } else if (now_ - lastOverrun_ > kOverrunPause) {
        isOver(overrun_,
               fmt::format("{} takes all again; {} dropped so far from {}", output_.name(),
                           counted(overrunDatagrams_, "datagram"), job_.url));
    }
    filled_ = statistics.BufferedBytes / (statistics.BufferedBytes + statistics.FreeBytes + 1.0);
}

bool ReceiveChain::isDone() const {
    return isComplete() || stop_ != nullptr ||
           (job_.duration && now_ - opened_ >= *job_.duration) ||
           (job_.idleTimeout && now_ - lastData_ >= *job_.idleTimeout);
}

// Moves so many bytes from the input to the output; returns how many of them are left.
size_t ReceiveChain::move(size_t bytes, std::span<uint8_t> space) {
    if (!flush())
        return bytes;
    while (bytes > 0 && keptPackets_ == 0 && !isComplete()) {
        std::copy(kept_.begin(), kept_.end(), space.begin());
        const auto room = space.subspan(kept_.size());
        size_t most = std::min(bytes, room.size());
        if (job_.bytes)
            most = std::min<uint64_t>(most, *job_.bytes - written_ + kPacketWithParityBytes);
        const size_t taken = input_->receive(room.first(most));
        if (taken == 0)
            break;
        bytes -= taken;
        write(space.first(kept_.size() + taken), false);
    }
    return bytes;
}

// False while the output has no room.
bool ReceiveChain::flush() {
    if (keptPackets_ == 0)
        return true;
    if (state_ == State::kReceiving && now_ < retry_)
        return false;
    const size_t taken = put(std::span(kept_).first(keptPackets_));
    kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(taken));
    keptPackets_ -= taken;
    return keptPackets_ == 0;
}

// Writes the packets in the data, which begins with what was kept, and keeps the rest.
void ReceiveChain::write(std::span<const uint8_t> data, bool ended) {
    for (;;) {
        const PacketSieve::Run run = sieve_.next(data, ended);
        data = data.subspan(run.skip);
        auto packets = data.first(run.length);
        if (job_.bytes)
            packets = packets.first(std::min<uint64_t>(run.length, *job_.bytes - written_));
        const size_t taken = packets.empty() ? 0 : put(packets);
        keptPackets_ = packets.size() - taken;
        if (packets.size() < run.length)
            data = packets;  // what is behind them is not wanted
        data = data.subspan(taken);
        if (keptPackets_ > 0 || run.skip + run.length == 0)
            break;
    }
    kept_.assign(data.begin(), data.end());
}

// Returns how many bytes the output took.
size_t ReceiveChain::put(std::span<const uint8_t> packets) {
    size_t taken = 0;
    try {
        taken = output_.write(packets, sieve_.packetSize());
        pipeIsFull_ = taken < packets.size() && !output_.isRegular();
    } catch (const OutputFailure& failure) {
        if (failure.readerHasGone && (patience_ || output_.isStandardOutput()))
            throw;
        if (failure.dataIsLost) {
            lost_ = failure.what();
            report_(lost_);
        } else {
            outputFails(failure.what());
        }
    } catch (const Failure& failure) {
        outputFails(failure.what());
    }
    written_ += taken;
    if (taken > 0)
        isOver(outputOutage_, fmt::format("{} is written again", output_.name()));
    if (taken < packets.size())
        filled_ = 0.0;
    return taken;
}

void ReceiveChain::finish(std::span<uint8_t> space) {
    rest_ = move(rest_, space);
    if (isComplete())
        rest_ = 0;
    if (rest_ == 0 && keptPackets_ == 0)
        write(std::exchange(kept_, {}), true);
    if (rest_ == 0 && kept_.empty())
        return conclude();
    if (now_ < endBy_)
        return;
    throw Failure(fmt::format("{} did not take the last {} bytes from {}{}", output_.name(),
                              rest_ + kept_.size(), job_.url,
                              stop_ != nullptr ? fmt::format(" after {}", stop_) : ""));
}

void ReceiveChain::conclude() {
    const QXV_RTP_Statistics statistics = input_->statistics();
    datagrams_ = statistics.Datagrams;
    output_.close();
    if (job_.bytes && written_ < *job_.bytes)
        throw Failure(
            fmt::format("only {} of {} bytes came from {}", written_, *job_.bytes, job_.url));
    if (written_ == 0)
        throw Failure(sieve_.skippedBytes() == 0
                          ? fmt::format("nothing came from {}", job_.url)
                          : fmt::format("only bytes that are not TS packets came from {}: {}",
                                        job_.url, sieve_.skippedBytes()));
    if (overrunDatagrams_ > 0)
        throw Failure(fmt::format("dropped {} from {}, since {} took too little",
                                  counted(overrunDatagrams_, "datagram"), job_.url,
                                  output_.name()));
    end(lost_);
}

void ReceiveChain::end(const std::string& error) {
    error_ = error;
    state_ = State::kEnded;
    try {
        output_.close();
    } catch (const Failure& failure) {
        error_ += fmt::format("{}{}", error_.empty() ? "" : "; ", failure.what());
    }
    nextFigures_ = {};
    publish();
    if (input_)
        repairs_ = input_->repairs();
    input_.reset();
    figures_.ended.store(true, std::memory_order_release);
}

void ReceiveChain::publish() {
    if (now_ < nextFigures_)
        return;
    nextFigures_ = now_ + kFiguresInterval;
    show();
    if (!input_)
        return;
    figures_.bytes = written_;
    figures_.continuityErrors = sieve_.continuityErrors();
    figures_.bitrate_bps = hasEnded() ? 0 : input_->measuredBitrate();
    figures_.rtp = input_->isRtp();
}

void ReceiveChain::show() {
    StreamState state{"receive", job_.url};
    state.seconds = std::chrono::duration<double>(now_ - began_).count();
    if (input_) {
        const bool receives = state_ == State::kReceiving;
        state.inputs.push_back(stateOf(*input_, job_.url, now_ - (receives ? lastData_ : began_)));
        InputState& input = state.inputs.back();
        state.bytes = input.bytes;
        state.bitrate_bps = input.bitrate_bps;
        input.continuityErrors = sieve_.continuityErrors();
    } else {
        state.inputs.push_back({job_.url});
    }
    state.outputs.push_back({job_.output, state_ > State::kOpening && !outputOutage_.since,
                             datagrams_, overrunDatagrams_});
    const std::lock_guard lock(lock_);
    shown_ = std::move(state);
}

ReceiveChain::Clock::time_point ReceiveChain::due() const {
    auto due = Clock::time_point::max();
    if (state_ != State::kReceiving)
        return due;
    due = inputDue_;
    if (job_.duration)
        due = std::min(due, opened_ + *job_.duration);
    if (job_.idleTimeout)
        due = std::min(due, lastData_ + *job_.idleTimeout);
    return due;
}
