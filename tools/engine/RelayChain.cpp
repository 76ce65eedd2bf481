#include "engine/RelayChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kInputBytes = size_t{256} * 1024;
constexpr int kMostChunks = 32;  // at a time, before the outputs have their turn
constexpr auto kPause = 500ms;   // what is left of a datagram then leaves
constexpr auto kSilence = 3s;    // until it is reported
constexpr auto kRetry = 1s;
constexpr auto kSocketGrace = 3s;  // until a socket that is missing is reported

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace

RelayChain::RelayChain(const RelayJob& job, ModuleOnDemand& module,
                       std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      url_(parseStreamUrl(job.from)),
      number_(module.receiveNumber()),
      module_(module),
      patience_(patience),
      data_(kInputBytes) {
    std::vector<ChannelNumber> numbers;  // in the order of the outputs
    for (size_t i = 0; i < job_.to.size(); ++i)
        numbers.push_back(module.sendNumber());
    for (const bool rtp : {false, true}) {
        RelayBranch branch(job_, rtp, events_);
        bool used = false;
        for (size_t i = 0; i < job_.to.size(); ++i) {
            const StreamUrl url = parseStreamUrl(job_.to[i]);
            if (url.rtp != rtp)
                continue;
            branch.add(url, std::move(numbers[i]), module_);
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
    if (!channel_ && now >= retry_)
        openInput(now);
    if (channel_)
        takeInput(now);
    watchInput(now);
    auto next = Clock::time_point::max();
    for (RelayBranch& branch : branches_)
        next = std::min(next, branch.run(now));
    checkPatience(now);
    return next;
}

void RelayChain::openInput(Clock::time_point now) {
    retry_ = now + kRetry;
    try {
        if (const auto url = address_.poll(url_))
            channel_.emplace(module_.get(), number_.value(), receiveConfig(*url));
        else
            trouble_ = fmt::format("the address of {} has not been found yet", url_.text);
    } catch (const Failure& failure) {
        trouble_ = failure.what();
    }
}

void RelayChain::watchInput(Clock::time_point now) {
    socketOpen_ = channel_ && channel_->socketIsOpen();
    if (channel_ && !socketOpen_)
        trouble_ = noSocket(url_).what();
    if (socketOpen_) {
        socketSeen_ = now;
        if (std::exchange(socketReported_, false))
            events_.push_back(fmt::format("{} is received again", url_.text));
    } else if (now - socketSeen_ > kSocketGrace && !std::exchange(socketReported_, true)) {
        events_.push_back(
            fmt::format("{}{} Trying again.", trouble_, trouble_.ends_with('?') ? "" : "."));
    }
    if (socketOpen_ && now - lastData_ > kSilence && !std::exchange(silenceReported_, true))
        events_.push_back(fmt::format("nothing arrives from {}{}", url_.text,
                                      bytes_ == 0 ? " yet" : " any more"));
    if (now - lastData_ > kPause)
        for (RelayBranch& branch : branches_)
            branch.pause();
}

void RelayChain::takeInput(Clock::time_point now) {
    for (int chunks = 0; chunks < kMostChunks; ++chunks) {
        const size_t taken = channel_->receive(std::span(data_).subspan(kept_));
        if (taken == 0)
            return;
        bytes_ += taken;
        if (std::exchange(silenceReported_, false))
            events_.push_back(fmt::format("{} arrives {}after {}", url_.text,
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
        throw Failure(trouble_);
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
    const bool rtp = channel_ && channel_->isRtp();
    return fmt::format("{} {} {}, delay {} + {} ms, {}, {} of rate, {}, {} dropped{}",
                       formatBytes(bytes_), rtp ? "rtp" : "raw", formatBitrate(all.stream.rate_bps),
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
    if (sieve_.skippedBytes() == 0)
        return {};
    return {fmt::format("{}: skipped {} bytes ({}) that are not TS packets", job_.from,
                        sieve_.skippedBytes(), counted(sieve_.gaps(), "gap"))};
}
