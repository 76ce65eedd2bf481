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
constexpr ts::Time kLead = 140ms;
constexpr ts::Time kShortLead = 25ms;  // where the channel sends what it is fed at once
constexpr auto kInterval = 40ms;
constexpr auto kShortInterval = 20ms;
constexpr auto kLeastInterval = 2ms;

constexpr size_t kChunkBytes = size_t{64} * 1024;
constexpr int kMostChunks = 32;  // at a time, before the other streams have their turn
constexpr uint64_t kMostScanned = uint64_t{128} * 1024 * 1024;  // bytes, for the rate
constexpr uint32_t kFileRing = 512 * 1024;
constexpr uint32_t kPipeRing = 1024 * 1024;

// Later than that, what was to be sent cannot be made up for.
constexpr ts::Time kLost = 500ms;
// A new ceiling begins the sequence numbers of RTP anew, which a moment's lateness is not worth.
constexpr ts::Time kLateUnderCeiling = 100ms;
// What is appended to a file in larger parts would else leave in bursts.
constexpr ts::Time kLateFollower = 60ms;
constexpr uint32_t kMostEmptyLooks = 5;

constexpr auto kRetry = 500ms;
constexpr auto kMeasurement = 1s;   // of the bitrate
constexpr auto kLastDatagram = 1s;  // for it to be counted

std::chrono::milliseconds whole(std::chrono::nanoseconds time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

SendChain::SendChain(const SendJob& job, ModuleOnDemand& module,
                     std::optional<std::chrono::milliseconds> patience)
    : job_(job),
      url_(parseStreamUrl(job.url)),
      patience_(patience),
      isMadeConstant_(isMadeConstant(job.shaping, url_.rtp, job.bitrate_bps)),
      follows_(!job.bitrate_bps && !url_.rtp && !isMadeConstant_),
      output_(url_, module.sendNumber(), module, patience, job.announcing, events_) {}

std::string SendChain::name() const {
    return fmt::format("{} -> {}", job_.input, job_.url);
}

std::optional<Chain::Clock::time_point> SendChain::run(Clock::time_point now) {
    if (!source_ && !openInput(now))
        return retry_;
    busy_ = false;
    if (!shaper_ && !prepareShaper())
        return busy_ ? now : now + kInterval;
    if (!output_.isStarted()) {
        read(streamTime(now), streamTime(now));
        if (!shaper_->rate())
            return busy_ ? now : now + kInterval;
        // A channel that varies needs room for its fastest moments.
        const uint32_t ring = !follows_ ? 0 : source_->isFile() ? kFileRing : kPipeRing;
        if (!output_.start(now, *shaper_->rate(), ring))
            return output_.retry();
    }
    switch (output_.watch(now)) {
        case ChannelOutput::Look::kStopped:
            throw Failure(fmt::format("the channel to {} stopped after about {} bytes of {}",
                                      url_.text, output_.state().Datagrams * output_.payload(),
                                      source_->name()));
        case ChannelOutput::Look::kDown:
            stayDown(now);
            return now + (output_.handed() == 0 ? kLeastInterval : kInterval);
        case ChannelOutput::Look::kCameBack:
            resync(now);
            break;
        case ChannelOutput::Look::kWorks:
            break;
    }
    feed(now);
    if (inputOver_ && !shaper_->next())
        return drain(now);
    return nextLook(now);
}

bool SendChain::openInput(Clock::time_point now) {
    try {
        source_.emplace(job_.input, job_.loop, job_.follow);
        return true;
    } catch (const Failure& failure) {
        if (patience_)
            throw;
        if (!std::exchange(inputReported_, true))
            events_.push_back(fmt::format("{}; trying again", failure.what()));
        retry_ = now + kRetry;
        return false;
    }
}

bool SendChain::prepareShaper() {
    if (!source_->findFirstPacket() || !scanAhead())
        return false;
    output_.setPacketSize(source_->packetSize());
    excerpt_.emplace(source_->packetSize(), job_.bitrate_bps, job_.start.value_or(0ms),
                     job_.duration);
    if (isMadeConstant_) {
        ts::ConstantRate::Options options;
        options.rate_bps = job_.shaping.rate_bps;
        options.least_bps = leastRate_bps_;
        options.delay = job_.shaping.delay.value_or(whole(options.delay));
        shaper_ = std::make_unique<ts::ConstantRate>(
            source_->packetSize(),
            source_->isFile() && !job_.follow ? ts::InputKind::kFile : ts::InputKind::kLive,
            options);
    } else {
        auto ownPace =
            std::make_unique<ts::OwnPace>(source_->packetSize(), job_.bitrate_bps, url_.rtp);
        ownPace_ = ownPace.get();
        shaper_ = std::move(ownPace);
    }
    return true;
}

// The first seconds of a file may be quieter than what follows. True: the scan is over, or there is
// no need for one.
bool SendChain::scanAhead() {
    if (!isMadeConstant_ || job_.shaping.rate_bps || !source_->isFile() || job_.input == "-")
        return true;
    if (!scan_) {
        const ts::ConstantRate::Options defaults;
        scan_.emplace(job_, source_->packetSize(),
                      job_.shaping.delay.value_or(whole(defaults.delay)));
    }
    for (int chunks = 0; !scan_->done; ++chunks) {
        if (chunks == kMostChunks) {
            busy_ = true;
            return false;
        }
        scan_->begun = scan_->begun || scan_->source.findFirstPacket();
        if (!scan_->begun)
            return false;
        const auto packets = scan_->source.take(kChunkBytes);
        if (packets.empty() && !scan_->source.ended())
            return false;
        const auto [skipped, kept] = scan_->excerpt.add(packets);
        scan_->bytes += kept;
        scan_->done = !scan_->rate.push(packets.subspan(skipped, kept)) || packets.empty() ||
                      scan_->excerpt.over() || scan_->bytes >= kMostScanned;
    }
    leastRate_bps_ = scan_->rate.find();
    scan_.reset();
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
        count(packets.subspan(skipped, kept));
        if (kept > 0)
            shaper_->push(packets.subspan(skipped, kept), now);
        if (excerpt_->over())
            endInput();
    }
    if (!shaper_->rate() && (inputOver_ || !shaper_->needsInput(until)))
        throw Failure(fmt::format("{} has no PCRs that tell its rate; give it with --bitrate",
                                  source_->name()));
}

// Where a loop begins anew, counters jump, which is no fault of the file.
void SendChain::count(std::span<const uint8_t> packets) {
    if (loops_ != source_->loops())
        continuity_.restart();
    loops_ = source_->loops();
    for (; !packets.empty(); packets = packets.subspan(source_->packetSize()))
        continuity_.add(packets.data());
}

void SendChain::endInput() {
    if (!excerpt_->begun() && !excerpt_->timeIsKnown())
        throw Failure(
            fmt::format("{} has no PCRs that tell its time; give --bitrate", source_->name()));
    if (!excerpt_->begun())
        throw Failure(fmt::format("{} ends after {:.1f} s, before the start at {:.1f} s",
                                  source_->name(), seconds(excerpt_->passed()),
                                  seconds(job_.start.value_or(0ms))));
    shaper_->finish();
    inputOver_ = true;
}

// What comes from a pipe meanwhile is late for ever.
void SendChain::stayDown(Clock::time_point now) {
    output_.probe(now);
    if (output_.handed() == 0 || source_->isFile())
        return;
    read(streamTime(now), streamTime(now));
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    while (const size_t size = shaper_->pull(data, streamTime(now)))
        output_.countLost(size / output_.payload());
}

ts::Time SendChain::lead() const {
    return varies() ? kShortLead : kLead;
}

// What is next is due when the buffer is empty.
void SendChain::resync(Clock::time_point now) {
    if (const auto next = shaper_->next())
        shift_ = now.time_since_epoch() + (varies() ? ts::Time(0) : output_.buffered()) - *next;
    emptyLooks_ = 0;
}

void SendChain::feed(Clock::time_point now) {
    const ts::Time until = streamTime(now) + lead();
    read(streamTime(now), until);
    keepUp(now);
    std::array<uint8_t, kChunkBytes> data;  // NOLINT(*-member-init): written before it is read
    for (size_t size = 1; size > 0;) {
        const auto due = shaper_->next();
        size = shaper_->pull(std::span(data).first(std::min(output_.room(), data.size())),
                             streamTime(now) + lead());
        output_.hand(std::span(data).first(size));
        // The next one may be far off: a datagram of a slow stream lasts longer than the lead.
        if (size > 0)
            lasts_ = now + (due && size == output_.payload() ? *due - streamTime(now) : lead());
    }
    const auto next = shaper_->next();
    if (!next)  // what follows has yet to come
        lasts_ = std::min(lasts_, now + output_.buffered());
    if (next && follows_)
        output_.steer(*next - streamTime(now), shaper_->rate().value_or(output_.rate()));
    if (isMadeConstant_)
        if (const auto event = need_.tell(source_->name(), shaper_->status(), now))
            events_.push_back(*event);
}

// Looks for what steering does not mend: input that came too late, a channel that is too slow for
// the stream, or one whose clock was set.
void SendChain::keepUp(Clock::time_point now) {
    const bool isEmpty = output_.isEmpty();
    emptyLooks_ = isEmpty && now + kInterval < lasts_ ? emptyLooks_ + 1 : 0;
    const auto next = shaper_->next();
    const ts::Time lateness = next ? streamTime(now) - *next : ts::Time(0);
    if (varies() && !isEmpty && *shaper_->rate() > output_.rate() && lateness > kLateUnderCeiling) {
        // It catches up.
        output_.setRate(*shaper_->rate());
        output_.countRateChange();
        return;
    }
    const bool late = lateness > (job_.follow && !url_.rtp ? kLateFollower : kLost);
    if ((late && (!isEmpty || !url_.rtp)) || (emptyLooks_ > kMostEmptyLooks && !varies()))
        output_.setRate(output_.rate());
    else if (!late)
        return;
    resync(now);
}

// The last datagram is counted a moment after it was taken from the buffer.
std::optional<Chain::Clock::time_point> SendChain::drain(Clock::time_point now) {
    output_.handEnough();
    const uint64_t expected = output_.handed() / output_.payload();
    const uint64_t sent = output_.state().Datagrams;
    if (sent >= expected) {
        cancel();
        return std::nullopt;
    }
    if (!output_.isEmpty())
        drainedAt_ = now;
    else if (now - drainedAt_ > kLastDatagram)
        throw Failure(fmt::format("{} of {} datagrams could not be sent to {}", expected - sent,
                                  expected, url_.text));
    return now + std::clamp<Clock::duration>(output_.buffered() / 2, kLeastInterval, kInterval);
}

Chain::Clock::time_point SendChain::nextLook(Clock::time_point now) const {
    if (busy_)
        return now;
    // A buffer that is small for the rate is filled more often.
    const ts::Time ring =
        output_.timeOf(uint64_t{output_.state().BufferedBytes} + output_.state().FreeBytes);
    const auto interval = varies() ? kShortInterval : kInterval;
    return now + std::clamp<Clock::duration>(ring / 4, kLeastInterval, interval);
}

std::string SendChain::describe(Clock::time_point now) {
    if (!output_.isStarted())
        return "opening";
    const uint64_t datagrams = output_.datagrams();
    const auto time = now - measuredAt_;
    if (time >= kMeasurement) {
        measured_bps_ = static_cast<uint32_t>(
            static_cast<double>((datagrams - measuredDatagrams_) * output_.payload()) * 8.0 /
            seconds(time));
        measuredDatagrams_ = datagrams;
        measuredAt_ = now;
    }
    return fmt::format("{}  {}  asked {}  measured {}{}", formatTime(whole(now - started_)),
                       formatBytes(datagrams * output_.payload()),
                       varies() ? "its own pace" : formatBitrate(output_.rate()),
                       formatBitrate(measured_bps_), output_.isReportedDown() ? "  DOWN" : "");
}

std::string SendChain::summary() const {
    if (!output_.isStarted())
        return {};
    const uint64_t datagrams = output_.datagrams();
    return fmt::format("sent {} in {} to {}: {} at {}", formatBytes(datagrams * output_.payload()),
                       formatTime(whole(Clock::now() - started_)), url_.text,
                       counted(datagrams, "datagram"),
                       output_.rateChanges() == 0 && !varies()
                           ? formatBitrate(output_.rate())
                           : fmt::format("the stream's own pace, {} of rate",
                                         counted(output_.rateChanges(), "change")));
}

std::vector<std::string> SendChain::warnings() const {
    std::vector<std::string> warnings;
    if (isMadeConstant_ && shaper_)
        if (const auto last = need_.tell(inputName(), shaper_->status()))
            warnings.push_back(*last);
    if (output_.rateChanges() > 0 && url_.rtp)
        warnings.push_back(
            fmt::format("{}: its rate rose too far: sequence numbers to {} began anew, {} in all",
                        inputName(), url_.text, output_.rateChanges()));
    if (source_ && source_->skippedBytes() > 0)
        warnings.push_back(fmt::format("{}: skipped {} bytes ({}) that are not TS packets",
                                       inputName(), source_->skippedBytes(),
                                       counted(source_->skippedPlaces(), "gap")));
    return warnings;
}

std::string SendChain::inputName() const {
    return source_ ? source_->name() : fmt::format("'{}'", job_.input);
}

// A loop, or a file that is followed, has no other end than a signal, unless it was given one.
std::optional<std::string> SendChain::unfinished() const {
    return job_.loop || job_.follow ? std::nullopt : std::optional("the end of " + inputName());
}

StreamState SendChain::state(Clock::time_point now) const {
    StreamState state{"send", name(), seconds(now - started_)};
    InputState input;
    input.url = job_.input;
    input.health = !source_ ? InputHealth::kNoSocket : InputHealth::kOnAir;
    OutputState output = output_.outputState();
    if (output.works)
        state.bitrate_bps = output_.rate();
    input.continuityErrors = continuity_.errors();
    if (shaper_)
        state.packetsDropped = shaper_->status().dropped;
    state.bytes = input.bytes = output.datagrams * output_.payload();
    input.bitrate_bps = state.bitrate_bps;
    state.inputs.push_back(std::move(input));
    state.outputs.push_back(std::move(output));
    return state;
}
