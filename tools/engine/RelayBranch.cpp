#include "engine/RelayBranch.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "ConstantRate.h"
#include "Pacer.h"
#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr ts::Time kLongestLead = 60ms;
constexpr ts::Time kJitter = 150ms;  // that a relay smooths, beside what an input waits
constexpr int kTurnsPerLead = 3;
constexpr auto kLeastInterval = 1ms;
constexpr auto kEnding = 5s;       // of a stream whose packets had another size
constexpr auto kDraining = 1s;     // of the rings behind it
constexpr auto kStarting = 200ms;  // of channels, their sockets included
constexpr size_t kMostWaiting = size_t{16} * 1024 * 1024;  // bytes, until they are
constexpr auto kLook = 1s;
constexpr auto kLookOfVarying = 200ms;  // whose ceiling may be far too low from one moment on
constexpr auto kReport = 10s;

constexpr uint32_t kRing = 2 * 1024 * 1024;
constexpr uint32_t kRateToBeginWith_bps = 10'000'000;  // as long as nothing has come
constexpr size_t kChunkBytes = size_t{64} * 1024;

// A ceiling's distance from the stream's rate: clocks, and the steering of a stream's pace, or a
// rate that is measured over a moment.
constexpr double kClockHeadroom = 1.0002;
constexpr double kHeadroom = 1.01;
constexpr double kRaise = 1.25;     // a rate that varies should not make a raise of every peak
constexpr double kSameRate = 0.02;  // less is not worth a new schedule
// More in the ring than there should be: the stream has become faster, or the clock by which
// channels send was set back.
constexpr ts::Time kBacklog = 250ms;

ts::Time longestWaitOf(const RelayJob& job) {
    ts::Time longest = longestWait(parsePaths(job.from));
    for (const std::string& other : job.failover.others)
        if (isStreamUrl(other))
            longest = std::max<ts::Time>(longest, longestWait(parsePaths(other)));
    return longest;
}

}  // namespace

RelayBranch::RelayBranch(const RelayJob& job, bool rtp, std::vector<std::string>& events)
    : job_(job),
      rtp_(rtp),
      isMadeConstant_(isMadeConstant(job.shaping, rtp, job.bitrate_bps)),
      varies_(!isMadeConstant_ && !job.bitrate_bps),
      window_(longestWaitOf(job)),
      events_(events) {}

void RelayBranch::add(const StreamUrl& url, ChannelNumber number, ModuleOnDemand& module) {
    outputs_.emplace_back(url, std::move(number), module, job_.announcing, events_);
}

void RelayBranch::makeShaper() {
    if (isMadeConstant_) {
        ts::ConstantRate::Options options;
        options.rate_bps = job_.shaping.rate_bps;
        options.latency = std::max(options.latency, window_ + kJitter);
        options.delay = job_.shaping.delay.value_or(
            std::chrono::duration_cast<std::chrono::milliseconds>(options.delay));
        shaper_ = std::make_unique<ts::ConstantRate>(packetSize_, ts::InputKind::kLive, options);
    } else {
        ts::Pacer::Options options;
        options.rate_bps = job_.bitrate_bps;
        options.latency = std::max(options.latency, window_ + kJitter);
        shaper_ = std::make_unique<ts::Pacer>(packetSize_, ts::InputKind::kLive, options);
    }
    rateSettled_ = false;
    need_ = {};
}

void RelayBranch::push(std::span<const uint8_t> packets, size_t packetSize, Clock::time_point now) {
    if (state_ == State::kSending && packetSize == packetSize_)
        return take(packets, now);
    wait(packets, packetSize, now);
    if (state_ == State::kSending)
        takeWaiting();
}

void RelayBranch::take(std::span<const uint8_t> packets, Clock::time_point arrival) {
    if (!shaper_)
        makeShaper();
    shaper_->push(packets, arrival.time_since_epoch());
}

void RelayBranch::wait(std::span<const uint8_t> packets, size_t packetSize,
                       Clock::time_point arrival) {
    if (packets.size() > kMostWaiting - waitingBytes_) {
        for (Output& output : outputs_)
            output.dropped += packets.size() / (packetSize * kPacketsPerDatagram);
        return;
    }
    waitingBytes_ += packets.size();
    waiting_.push_back({packetSize, arrival, {packets.begin(), packets.end()}});
}

// Up to the next change of the packet size.
void RelayBranch::takeWaiting() {
    while (!waiting_.empty()) {
        const Waiting& next = waiting_.front();
        if (packetSize_ == 0) {
            packetSize_ = next.packetSize;
            for (Output& output : outputs_)
                output.channel.setPacketSize(packetSize_);
        } else if (next.packetSize != packetSize_) {
            if (shaper_)
                shaper_->finish();
            return enter(State::kEnding, kEnding);
        }
        take(next.packets, next.arrival);
        waitingBytes_ -= next.packets.size();
        waiting_.pop_front();
    }
}

void RelayBranch::pause() {
    if (shaper_ && state_ == State::kSending &&
        (!isMadeConstant_ || shaper_->status().untouched || !shaper_->rate())) {
        shaper_->finish();
        release();
    }
}

// Hands over all that is left of what has been finished, due or not.
void RelayBranch::release() {
    settleRate();
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    while (const size_t size = shaper_->pull(data, ts::Time::max()))
        hand(std::span(data).first(size));
    packetsDropped_ += shaper_->status().dropped;
    shaper_.reset();
    for (Output& output : outputs_)
        if (output.works && output.channel.handed() > 0)
            output.channel.handEnough();
}

void RelayBranch::enter(State state, Clock::duration longest) {
    state_ = state;
    stateEnds_ = Clock::now() + longest;
}

void RelayBranch::advance(Clock::time_point now) {
    const bool over = now >= stateEnds_;
    const auto all = [this](auto&& holds) {
        return std::all_of(outputs_.begin(), outputs_.end(), holds);
    };
    if (state_ == State::kEnding && (over || !shaper_ || !shaper_->next())) {
        if (shaper_)
            release();
        enter(State::kDraining, kDraining);
    } else if (state_ == State::kDraining && (over || all([](const Output& output) {
                                                  return output.channel.allHasLeft() ||
                                                         !output.works;
                                              }))) {
        endChannels();
        enter(State::kStarting, kStarting);
    } else if (state_ == State::kStarting &&
               (over || all([](const Output& output) { return output.works || !output.worked; }))) {
        state_ = State::kSending;
        takeWaiting();
    }
}

void RelayBranch::endChannels() {
    packetSize_ = waiting_.front().packetSize;
    for (Output& output : outputs_) {
        rateChanges_ += output.channel.rateChanges();
        output.worked = std::exchange(output.works, false);
        output.channel.end();
        output.channel.setPacketSize(packetSize_);
    }
}

RelayBranch::Clock::time_point RelayBranch::run(Clock::time_point now) {
    for (Output& output : outputs_)
        attend(output, now);
    if (shaper_)
        feed(now);
    if (state_ != State::kSending)
        advance(now);
    if (now >= nextLook_) {
        nextLook_ = now + (varies_ ? kLookOfVarying : kLook);
        for (Output& output : outputs_)
            lookBack(output, now);
        nextReport_ = now >= nextReport_ ? now + kReport : nextReport_;
    }
    if (state_ == State::kDraining || state_ == State::kStarting)
        return now + kLeastInterval;
    const auto next = shaper_ ? shaper_->next() : std::nullopt;
    const auto latest = now + lead() / kTurnsPerLead;
    if (!next || pace_ != Pace::kCeiling)
        return latest;
    return std::clamp(Clock::time_point(*next), now + kLeastInterval, latest);
}

void RelayBranch::attend(Output& output, Clock::time_point now) {
    ChannelOutput& channel = output.channel;
    if (!channel.isStarted()) {
        const auto rate = shaper_ && rateSettled_ ? wantedRate() : kRateToBeginWith_bps;
        output.works = false;
        output.lookedAt = 0;
        if (!channel.start(now, static_cast<uint32_t>(rate), kRing))
            return;
    }
    switch (channel.watch(now)) {
        case ChannelOutput::Look::kStopped:
            events_.push_back(fmt::format("the channel to {} has stopped; starting it again",
                                          channel.url().text));
            rateChanges_ += channel.rateChanges();
            channel.end();
            output.works = false;
            break;
        case ChannelOutput::Look::kDown:
            output.works = false;
            channel.probe(now);
            break;
        case ChannelOutput::Look::kCameBack:
        case ChannelOutput::Look::kWorks:
            output.works = true;
            break;
    }
}

// At which the channels are to run.
double RelayBranch::wantedRate() const {
    const double rate_bps = shaper_->rate().value_or(kRateToBeginWith_bps);
    const double headroom = isMadeConstant_ ? kClockHeadroom : kHeadroom;
    return std::min(pace_ == Pace::kCeiling ? rate_bps * headroom : rate_bps, 4294967295.0);
}

void RelayBranch::settleRate() {
    if (rateSettled_ || !shaper_->rate())
        return;
    rateSettled_ = true;
    if (isMadeConstant_ && !shaper_->status().untouched)
        pace_ = Pace::kExact;
    else
        pace_ = rtp_ ? Pace::kCeiling : Pace::kSteered;
    const double wanted_bps = wantedRate();
    for (Output& output : outputs_) {
        ChannelOutput& channel = output.channel;
        const bool same = std::abs(channel.rate() - wanted_bps) < channel.rate() * kSameRate;
        if (!channel.isStarted() || (channel.handed() > 0 && pace_ != Pace::kExact && same) ||
            channel.rate() == static_cast<uint32_t>(wanted_bps))
            continue;
        channel.setRate(wanted_bps);
        if (channel.handed() > 0)
            channel.countRateChange();
    }
}

// How far ahead channels are fed that have the stream's rate: by no more than half of the ring.
ts::Time RelayBranch::lead() const {
    if (!shaper_ || !shaper_->rate())
        return kLongestLead;
    const auto half = std::llround(kRing * 8e9 / 2.0 / *shaper_->rate());
    return std::min(kLongestLead, ts::Time(half));
}

void RelayBranch::feed(Clock::time_point now) {
    settleRate();
    const ts::Time time = now.time_since_epoch();
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    while (const size_t size =
               shaper_->pull(data, time + (pace_ == Pace::kCeiling ? ts::Time(0) : lead())))
        hand(std::span(data).first(size));
    settleRate();
    for (Output& output : outputs_)
        if (output.works && rateSettled_)
            keepUp(output, now);
    if (const auto event = need_.tell(job_.from, shaper_->status(), now))
        events_.push_back(*event);
}

void RelayBranch::hand(std::span<const uint8_t> datagrams) {
    for (Output& output : outputs_) {
        ChannelOutput& channel = output.channel;
        const size_t payload = channel.payload();
        const size_t room = output.works ? channel.room() / payload * payload : 0;
        const size_t taken = std::min(room, datagrams.size());
        channel.hand(datagrams.first(taken));
        const size_t lost = (datagrams.size() - taken) / payload;
        output.dropped += lost;
        if (!output.works) {  // which is told when it works again
            channel.countLost(lost);
            output.droppedReported += lost;
        }
    }
}

// Looks whether the ring holds what is not due yet, and no more.
void RelayBranch::keepUp(Output& output, Clock::time_point now) {
    ChannelOutput& channel = output.channel;
    output.leastBuffered = std::min(output.leastBuffered, channel.buffered());
    const auto next = shaper_->next();
    if (!next || pace_ == Pace::kCeiling)
        return;
    const ts::Time left = *next - now.time_since_epoch();
    if (pace_ == Pace::kSteered || channel.isCatchingUp() || channel.buffered() - left > kBacklog)
        channel.steer(left, shaper_->rate().value_or(channel.rate()));
}

// Once in each interval.
void RelayBranch::lookBack(Output& output, Clock::time_point now) {
    ChannelOutput& channel = output.channel;
    const std::chrono::duration<double> length = varies_ ? kLookOfVarying : kLook;
    const auto recent_bps =
        static_cast<double>((channel.handed() - output.lookedAt) * 8) / length.count();
    output.lookedAt = channel.handed();
    if (std::exchange(output.leastBuffered, channel.buffered()) > kBacklog && output.works &&
        shaper_ && rateSettled_ && pace_ == Pace::kCeiling) {
        channel.setRate(std::max<double>(channel.rate(), recent_bps) *
                        (varies_ ? kRaise : kHeadroom));
        channel.countRateChange();
    }
    if (output.dropped == output.droppedReported || now < nextReport_ || !output.works)
        return;
    events_.push_back(fmt::format("dropped {} to {}, {} in all",
                                  counted(output.dropped - output.droppedReported, "datagram"),
                                  channel.url().text, output.dropped));
    output.droppedReported = output.dropped;
}

void RelayBranch::cancel() {
    for (Output& output : outputs_)
        output.channel.cancel();
}

std::string RelayBranch::trouble() const {
    for (const Output& output : outputs_)
        if (!output.channel.isDown())
            return {};
    return outputs_.front().channel.trouble();
}

RelayBranch::Figures RelayBranch::figures() const {
    Figures figures;
    if (shaper_)
        figures.stream = shaper_->status();
    figures.stream.dropped += packetsDropped_;
    figures.rateChanges = rateChanges_;
    for (const Output& output : outputs_) {
        if (output.works)
            figures.buffered = std::max(figures.buffered, output.channel.buffered());
        figures.dropped += output.dropped;
        figures.rateChanges += output.channel.rateChanges();
        figures.down += output.channel.isReportedDown() ? 1 : 0;
    }
    return figures;
}

void RelayBranch::addStates(std::vector<OutputState>& outputs) const {
    for (const Output& output : outputs_) {
        outputs.push_back(output.channel.outputState());
        outputs.back().datagramsDropped = output.dropped;
    }
}
