#include "engine/RelayChain.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "engine/SlateInput.h"
#include "engine/SocketInput.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kInputBytes = size_t{256} * 1024;
constexpr auto kPause = 500ms;    // what is left of a datagram then leaves
constexpr ts::Time kTurn = 50ms;  // inputs are looked at more often

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace

RelayChain::RelayChain(const RelayJob& job, ModuleOnDemand& module, SocketMeans& means,
                       std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      patience_(patience),
      selector_(
          1 + job.failover.others.size(),
          {.returnAfter = job.failover.returnAfter,
           .lastResort = !job.failover.others.empty() && !isStreamUrl(job.failover.others.back())}),
      buffer_(kInputBytes) {
    addSource(job_.from, means);
    for (const std::string& other : job_.failover.others)
        addSource(other, means);
    if (sources_.size() == 1) {
        onAir_ = &sources_.front();
        onAir_->setOnAir(true);
    }
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

void RelayChain::addSource(const std::string& name, SocketMeans& means) {
    std::unique_ptr<StreamInput> input;
    if (isStreamUrl(name))
        input = std::make_unique<SocketInput>(parsePaths(name), means);
    else
        input = std::make_unique<SlateInput>(name, job_.bitrate_bps);
    const auto patience = job_.failover.others.empty()
                              ? std::nullopt
                              : std::optional<ts::Time>(job_.failover.within - kTurn);
    sources_.emplace_back(name, std::move(input), patience, events_);
}

void RelayChain::cancel() {
    for (RelayBranch& branch : branches_)
        branch.cancel();
}

std::optional<Chain::Clock::time_point> RelayChain::run(Clock::time_point now) {
    auto next = Clock::time_point::max();
    for (RelaySource& source : sources_)
        next = std::min(next, source.run(now, buffer_, [&](auto packets, size_t packetSize) {
            push(source, packets, packetSize, now);
        }));
    if (sources_.size() > 1)
        select(now);
    if (now - lastData_ > kPause)
        for (RelayBranch& branch : branches_)
            branch.pause();
    for (RelayBranch& branch : branches_)
        next = std::min(next, branch.run(now));
    checkPatience(now);
    return next;
}

void RelayChain::push(RelaySource& source, std::span<const uint8_t> packets, size_t packetSize,
                      Clock::time_point now) {
    if (&source != onAir_)
        return;
    lastData_ = now;
    bytes_ += packets.size();
    if (sources_.size() > 1)
        packets = splicer_.join(packets, packetSize);
    for (RelayBranch& branch : branches_)
        branch.push(packets, packetSize, now);
}

// What has come in this turn is still of the input that was on air before: a cut lies between two
// packets.
void RelayChain::select(Clock::time_point now) {
    for (size_t i = 0; RelaySource & source : sources_)
        selector_.note(i++, source.health(), source.heard(now));
    const auto choice = selector_.choose(now.time_since_epoch());
    if (!choice)
        return;
    tell(*choice);
    if (onAir_ != nullptr)
        onAir_->setOnAir(false);
    onAir_ = &source(choice->input);
    onAir_->setOnAir(true);
    splicer_.cut();
}

void RelayChain::tell(const ts::Selector::Choice& choice) {
    const std::string& name = source(choice.input).name();
    std::string why;
    switch (choice.reason) {
        case ts::Selector::Reason::kBegin:
            if (choice.input == 0)
                return;
            why = fmt::format(": nothing has come from {}", job_.from);
            break;
        case ts::Selector::Reason::kNoSignal:
            why = fmt::format(": {} has no signal", source(*choice.before).name());
            break;
        case ts::Selector::Reason::kIll: {
            const RelaySource& before = source(*choice.before);
            why = fmt::format(": {} is faulty ({})", before.name(), ts::info(before.fault()).name);
            break;
        }
        case ts::Selector::Reason::kReturn:
            why = fmt::format(" instead of {}", source(*choice.before).name());
    }
    events_.push_back(fmt::format("{} is on air{}", name, why));
}

void RelayChain::checkPatience(Clock::time_point now) {
    std::string trouble;
    for (const RelayBranch& branch : branches_) {
        trouble = branch.trouble();
        outputOpened_ = outputOpened_ || trouble.empty();
    }
    for (const RelaySource& source : sources_)
        inputOpened_ = inputOpened_ || source.isOpen();
    if (!patience_ || now - started_ < *patience_)
        return;
    if (!inputOpened_)
        throw Failure(sources_.front().trouble());
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
    uint64_t errors = 0;
    for (const RelaySource& source : sources_)
        errors += source.continuityErrors();
    const bool rtp = onAir_ != nullptr && onAir_->input().isRtp();
    const auto repairs = onAir_ != nullptr ? onAir_->input().repairs() : std::nullopt;
    return fmt::format("{} {} {}, {}delay {} + {} ms, {}, {} of rate, {}, {} dropped{}",
                       formatBytes(bytes_), rtp ? "rtp" : "raw", formatBitrate(all.stream.rate_bps),
                       repairs ? describeRepairs(*repairs) + ", " : "",
                       whole(all.stream.delay).count(), whole(all.buffered).count(),
                       counted(all.stream.breaks, "break"), counted(all.rateChanges, "change"),
                       counted(errors, "continuity error"), counted(all.dropped, "datagram"),
                       all.down > 0 ? fmt::format(", {} DOWN", counted(all.down, "output")) : "") +
           (sources_.size() == 1 ? ""
                                 : fmt::format(", {} is on air, {} of input",
                                               onAir_ == nullptr ? "nothing" : onAir_->name(),
                                               counted(selector_.switches(), "change")));
}

std::string RelayChain::describe(Clock::time_point now) {
    return fmt::format("{}  {}", formatTime(whole(now - started_)), figures());
}

std::string RelayChain::summary() const {
    return fmt::format("relayed {} in {}: {}", job_.from,
                       formatTime(whole(Clock::now() - started_)), figures());
}

std::vector<std::string> RelayChain::warnings() const {
    std::vector<std::string> lines;
    for (const RelaySource& source : sources_)
        for (std::string& line : source.warnings())
            lines.push_back(std::move(line));
    return lines;
}

StreamState RelayChain::state(Clock::time_point now) const {
    StreamState state{"relay", job_.from, std::chrono::duration<double>(now - started_).count(),
                      bytes_, onAir_ != nullptr ? onAir_->input().measuredBitrate() : 0};
    for (const RelaySource& source : sources_)
        state.inputs.push_back(source.state(now));
    for (const RelayBranch& branch : branches_) {
        branch.addStates(state.outputs);
        state.packetsDropped += branch.figures().stream.dropped;
    }
    state.switches = selector_.switches();
    return state;
}
