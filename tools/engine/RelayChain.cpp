#include "engine/RelayChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kInputBytes = size_t{256} * 1024;
constexpr int kMostChunks = 32;    // at a time, before the outputs have their turn
constexpr auto kPause = 500ms;     // what is left of a datagram then leaves
constexpr auto kSilence = 3s;      // until it is reported
constexpr auto kSocketGrace = 3s;  // until a socket that is missing is reported

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace

RelayChain::RelayChain(const RelayJob& job, ModuleOnDemand& module, SocketMeans& means,
                       std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      patience_(patience),
      input_(makeInput(job.from, module, means)),
      data_(kInputBytes) {
    std::vector<ChannelNumber> numbers;  // in the order of the outputs
    numbers.reserve(job_.to.size());
    for (size_t i = 0; i < job_.to.size(); ++i)
        numbers.push_back(module.sendNumber());
    for (const bool rtp : {false, true}) {
        RelayBranch branch(job_, rtp, events_);
        bool used = false;
        for (size_t i = 0; i < job_.to.size(); ++i) {
            const StreamUrl url = parseStreamUrl(job_.to[i]);
            if (url.rtp != rtp)
                continue;
            branch.add(url, std::move(numbers[i]), module);
            used = true;
        }
        if (used)
            branches_.push_back(std::move(branch));
    }
}

void RelayChain::cancel() {
    for (RelayBranch& branch : branches_)
        branch.cancel();
}

std::optional<Chain::Clock::time_point> RelayChain::run(Clock::time_point now) {
    const auto inputDue = input_->attend(now);
    takeInput(now);
    watchInput(now);
    auto next = inputDue;
    for (RelayBranch& branch : branches_)
        next = std::min(next, branch.run(now));
    checkPatience(now);
    return next;
}

void RelayChain::watchInput(Clock::time_point now) {
    for (std::string& event : input_->takeEvents())
        events_.push_back(std::move(event));
    socketOpen_ = input_->statistics().SocketOpen != 0;
    if (socketOpen_) {
        socketSeen_ = now;
        if (std::exchange(socketReported_, false))
            events_.push_back(fmt::format("{} is received again", job_.from));
    } else if (now - socketSeen_ > kSocketGrace && !std::exchange(socketReported_, true)) {
        const std::string trouble = input_->trouble();
        events_.push_back(
            fmt::format("{}{} Trying again.", trouble, trouble.ends_with('?') ? "" : "."));
    }
    if (socketOpen_ && now - lastData_ > kSilence && !std::exchange(silenceReported_, true))
        events_.push_back(fmt::format("nothing arrives from {}{}", job_.from,
                                      bytes_ == 0 ? " yet" : " any more"));
    if (now - lastData_ > kPause)
        for (RelayBranch& branch : branches_)
            branch.pause();
}

void RelayChain::takeInput(Clock::time_point now) {
    for (int chunks = 0; chunks < kMostChunks; ++chunks) {
        const size_t taken = input_->receive(std::span(data_).subspan(kept_));
        if (taken == 0)
            return;
        bytes_ += taken;
        if (std::exchange(silenceReported_, false))
            events_.push_back(fmt::format("{} arrives {}after {}", job_.from,
                                          bytes_ == taken ? "" : "again ",
                                          formatTime(whole(now - lastData_))));
        lastData_ = now;
        kept_ += taken;
        sift(now);
    }
}

// Whole packets only: a channel under RTP cancels itself where one does not begin where it should.
void RelayChain::sift(Clock::time_point now) {
    std::span<const uint8_t> data(data_.data(), kept_);
    for (;;) {
        const PacketSieve::Run run = sieve_.next(data, false);
        if (run.skip + run.length == 0)
            break;
        if (run.length > 0)
            for (RelayBranch& branch : branches_)
                branch.push(data.subspan(run.skip, run.length), sieve_.packetSize(), now);
        data = data.subspan(run.skip + run.length);
    }
    kept_ = data.size();
    std::copy(data.begin(), data.end(), data_.begin());
}

void RelayChain::checkPatience(Clock::time_point now) {
    std::string trouble;
    for (const RelayBranch& branch : branches_) {
        trouble = branch.trouble();
        outputOpened_ = outputOpened_ || trouble.empty();
    }
    inputOpened_ = inputOpened_ || socketOpen_;
    if (!patience_ || now - started_ < *patience_)
        return;
    if (!inputOpened_)
        throw Failure(input_->trouble());
    if (!outputOpened_)
        throw Failure(trouble);
}

std::string RelayChain::figures() const {
    RelayBranch::Figures all;
    for (const RelayBranch& branch : branches_) {
        const RelayBranch::Figures figures = branch.figures();
        all.stream = figures.stream;
        all.buffered = std::max(all.buffered, figures.buffered);
        all.dropped += figures.dropped;
        all.rateChanges += figures.rateChanges;
        all.down += figures.down;
    }
    const bool rtp = input_->isRtp();
    const auto repairs = input_->repairs();
    return fmt::format("{} {} {}, {}delay {} + {} ms, {}, {} of rate, {}, {} dropped{}",
                       formatBytes(bytes_), rtp ? "rtp" : "raw", formatBitrate(all.stream.rate_bps),
                       repairs ? describeRepairs(*repairs) + ", " : "",
                       whole(all.stream.delay).count(), whole(all.buffered).count(),
                       counted(all.stream.breaks, "break"), counted(all.rateChanges, "change"),
                       counted(sieve_.continuityErrors(), "continuity error"),
                       counted(all.dropped, "datagram"),
                       all.down > 0 ? fmt::format(", {} DOWN", counted(all.down, "output")) : "");
}

std::string RelayChain::describe(Clock::time_point now) {
    return fmt::format("{}  {}", formatTime(whole(now - started_)), figures());
}

std::string RelayChain::summary() const {
    return fmt::format("relayed {} in {}: {}", job_.from,
                       formatTime(whole(Clock::now() - started_)), figures());
}

std::vector<std::string> RelayChain::warnings() const {
    const auto repairs = input_->repairs();
    std::vector<std::string> lines = repairs ? describePaths(*repairs) : std::vector<std::string>();
    if (sieve_.skippedBytes() > 0)
        lines.push_back(fmt::format("{}: skipped {} bytes ({}) that are not TS packets", job_.from,
                                    sieve_.skippedBytes(), counted(sieve_.gaps(), "gap")));
    return lines;
}

StreamState RelayChain::state(Clock::time_point now) const {
    StreamState state{"relay", job_.from, std::chrono::duration<double>(now - started_).count(),
                      bytes_, input_->measuredBitrate()};
    state.inputs.push_back(stateOf(*input_, job_.from, now - lastData_));
    state.inputs.back().continuityErrors = sieve_.continuityErrors();
    for (const RelayBranch& branch : branches_)
        branch.addStates(state.outputs);
    return state;
}
