#include "ConstantRate.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <cmath>

#include "Parity.h"

namespace ts {

namespace {

constexpr Ticks kMillisecond = kTicksPerSecond / 1000;

// What the rate is told by. A live stream is held up by that much, for good.
constexpr Ticks kMeasureFile = 2 * kTicksPerSecond;
constexpr Ticks kMeasureLive = 1 * kTicksPerSecond;
// With a rate given, it is only to be seen whether the stream has it already.
constexpr Ticks kMeasureGiven = kTicksPerSecond / 4;
constexpr size_t kEnoughIntervals = 4;
constexpr size_t kMostMeasured = 65'536;  // packets
constexpr double kSameRate = 20e-6;
// A file that begins constant, and needs more than so much of that rate later on, is shaped from
// the beginning.
constexpr double kToleratedRise = 1.01;
constexpr uint32_t kAnyRate = 1'000'000;

constexpr Ticks kMostLate = 2 * kTicksPerSecond;
constexpr Ticks kPublishing = kTicksPerSecond;

// Where there is room for it (ETSI TR 101 290, 5.2.2; longer than that: kLongestPcrGap).
constexpr Ticks kPcrGap = 40 * kMillisecond;

// By more than that, a clock has jumped.
constexpr int64_t kClockJump = 50 * kMillisecond;
// Less is what the even spread of packets between PCRs is off.
constexpr int64_t kClockSlack = 20 * kMillisecond;
constexpr int64_t kClockMeanTime = 10 * kTicksPerSecond;
constexpr int64_t kClockSteerTime = 100 * kTicksPerSecond;
constexpr int64_t kClockMostSteering_ppm = 100;
constexpr int kSteeringBits = 16;

uint64_t modulo(Ticks ticks) {
    constexpr auto kModulus = static_cast<Ticks>(kPcrModulus);
    return static_cast<uint64_t>((ticks % kModulus + kModulus) % kModulus);
}

int64_t difference(uint64_t a, uint64_t b) {
    const uint64_t ahead = (a + kPcrModulus - b) % kPcrModulus;
    return ahead < kPcrModulus / 2
               ? static_cast<int64_t>(ahead)
               : static_cast<int64_t>(ahead) - static_cast<int64_t>(kPcrModulus);
}

Ticks delayOf(Time delay) {
    return std::clamp<Ticks>(delay.count() * 27 / 1000, 0, kTicksPerSecond);
}

}  // namespace

ConstantRate::ConstantRate(size_t packetSize, InputKind kind, const Options& options)
    : packetSize_(packetSize),
      kind_(kind),
      options_(options),
      delay_(delayOf(options.delay)),
      times_(packetSize, kind, options.latency),
      busy_(packetSize) {
    if (options.rate_bps)
        times_.assumeRate(*options.rate_bps);
}

void ConstantRate::push(std::span<const uint8_t> packets, Time arrival) {
    times_.push(packets, arrival);
    for (; packets.size() >= packetSize_; packets = packets.subspan(packetSize_)) {
        if (!rate_)
            check_.add(packets.data());
        else if (untouched_ && !check_.keeps(packets.data()))
            beginShaping();
    }
    if (!rate_ && measured())
        decide(arrival);
}

void ConstantRate::finish() {
    finished_ = true;
    if (!rate_) {
        times_.finish();
        decide(times_.toTime(0));
    }
    times_.finish();
}

bool ConstantRate::measured() const {
    if (options_.rate_bps && check_.intervals() >= kEnoughIntervals)
        return true;
    const Ticks length = options_.rate_bps           ? kMeasureGiven
                         : kind_ == InputKind::kLive ? kMeasureLive
                                                     : kMeasureFile;
    return (!times_.empty() && times_.knownTo() - times_.time() >= length) ||
           times_.size() + times_.untimed() >= kMostMeasured;
}

void ConstantRate::decide(Time now) {
    times_.settle(now);
    const auto constant = check_.settle(packetSize_);
    const auto given = options_.rate_bps;
    untouched_ = constant && (given ? std::abs(*constant / *given - 1.0) <= kSameRate
                                    : options_.least_bps <= *constant * kToleratedRise);
    if (given) {
        rate_ = given;
    } else if (untouched_) {
        rate_ = static_cast<uint32_t>(std::clamp(std::round(*constant), 1.0, double{UINT32_MAX}));
    } else if (times_.rate() && !times_.empty()) {
        LeastRate least(packetSize_);
        for (size_t i = 0; i < times_.size(); ++i) {
            if (ts_get_pid(times_.bytes(i)) != kNullPid)
                least.add(times_.bytes(i), times_.time(i));
        }
        rate_ = roundUpRate(
            std::max<double>({static_cast<double>(least.find(delay_)), least.mean(times_.knownTo()),
                              static_cast<double>(options_.least_bps)}));
    } else if (kind_ == InputKind::kLive) {
        // Too little came for a rate, and nothing follows.
        rate_ = kAnyRate;
        untouched_ = true;
    } else {
        failed_ = true;
        return;
    }
    if (kind_ == InputKind::kLive && !times_.empty())
        times_.putOff(std::max<Ticks>(times_.toTicks(now) - times_.time(), 0));
    if (!untouched_)
        beginShaping();
}

void ConstantRate::beginShaping() {
    if (std::exchange(untouched_, false))
        ++ownCuts_;
    slot_.reset();
}

// Whether what goes into the next datagram is known.
bool ConstantRate::canFill() const {
    if (kind_ == InputKind::kLive || finished_)
        return slot_ || !times_.empty();
    constexpr auto kSlots = static_cast<Ticks>(kPacketsPerDatagram);
    return slot_ ? times_.knownTo() > slot_->time() + kSlots * (slot_->length() + 1)
                 : !times_.empty();
}

bool ConstantRate::needsInput(Time until) const {
    if (finished_ || failed_)
        return false;
    if (!rate_ || !times_.started())
        return true;
    const Ticks end = times_.toTicks(until);
    if (untouched_)
        return times_.wholeTo() <= end;
    constexpr auto kSlots = static_cast<Ticks>(kPacketsPerDatagram);
    return times_.knownTo() <= end + (slot_ ? kSlots * (slot_->length() + 1) : 0);
}

size_t ConstantRate::pull(std::span<uint8_t> datagrams, Time until) {
    const size_t datagramBytes = kPacketsPerDatagram * packetSize_;
    times_.settle(until);
    if (!rate_ && !failed_ && measured())
        decide(until);
    if (!rate_)
        return 0;
    const Ticks end = times_.toTicks(until);
    size_t written = 0;
    while (datagrams.size() - written >= datagramBytes) {
        uint8_t* const datagram = datagrams.data() + written;
        const size_t bytes = untouched_ ? pullUntouched(datagram, end) : pullShaped(datagram, end);
        if (bytes == 0)
            break;
        written += bytes;
    }
    return written;
}

size_t ConstantRate::pullUntouched(uint8_t* datagram, Ticks until) {
    if (!times_.hasDatagram() || times_.time() > until) {
        if (!times_.hasDatagram() && times_.nextDue() <= until)
            times_.starve(times_.nextDue());
        return 0;
    }
    times_.takeDatagram(datagram);
    return kPacketsPerDatagram * packetSize_;
}

size_t ConstantRate::pullShaped(uint8_t* datagram, Ticks until) {
    skipNulls();
    if (isOver()) {
        if (wasLate_)
            publishNeed();
        return 0;
    }
    if (!slot_ && !times_.empty()) {
        slot_.emplace(packetSize_, *rate_);
        slot_->begin(times_.time());
    }
    if (!slot_ || slot_->time() > until)
        return 0;
    if (!canFill()) {
        times_.starve(slot_->time());
        return 0;
    }
    for (size_t i = 0; i < kPacketsPerDatagram; ++i, datagram += packetSize_) {
        if (!takePacket(datagram)) {
            writeNullPacket(datagram, packetSize_);
            ++added_;
        }
        slot_->advance();
    }
    return kPacketsPerDatagram * packetSize_;
}

void ConstantRate::skipNulls() {
    while (!times_.empty() && ts_get_pid(times_.bytes()) == kNullPid)
        times_.pop();
}

// False: nothing is due for this slot.
bool ConstantRate::takePacket(uint8_t* slot) {
    skipNulls();
    dropLate();
    const bool due = !times_.empty() && times_.time() <= slot_->time();
    if (putPcr(slot, due))
        return true;
    if (!due)
        return false;
    const Ticks own = times_.time();
    noteWait(own, slot_->time() - own);
    std::copy_n(times_.bytes(), packetSize_, slot);
    times_.pop();
    credit_ = std::min(credit_ + 1, kMostPcrCredit);
    stamp(slot, own);
    return true;
}

// `due`: another packet is, which has to wait for this one, but not so that it is late.
bool ConstantRate::putPcr(uint8_t* slot, bool due) {
    const Ticks now = slot_->time();
    if (due && (credit_ < kPacketsPerPcr || now + slot_->length() - times_.time() > delay_))
        return false;
    Clock* const clock = clockToShow(due);
    if (clock == nullptr)
        return false;
    steer(*clock);
    clock->shown = now;
    writePcrPacket(slot, packetSize_, clock->pid, clock->counter,
                   modulo(now + static_cast<Ticks>(clock->offset)));
    credit_ -= due ? kPacketsPerPcr : 0;
    ++added_;
    return true;
}

// Of those whose PCRs would be too far apart, if there was none in this slot, the one that waits
// longest.
ConstantRate::Clock* ConstantRate::clockToShow(bool due) {
    const Ticks now = slot_->time();
    Clock* found = nullptr;
    for (Clock* const clock : listed_) {
        const Ticks sinceSource = now - clock->lastTime;
        if (now + slot_->length() - clock->shown <= (due ? kLongestPcrGap : kPcrGap) ||
            sinceSource > kClockSilence ||
            (due && sinceSource - (times_.time() - clock->lastOwn) <= kPcrTrifle))
            continue;
        if (found == nullptr || clock->shown < found->shown)
            found = clock;
    }
    return found;
}

// In place of one that has fallen silent, if there are too many.
void ConstantRate::list(Clock& clock) {
    if (listed_.size() < kMostPcrPids) {
        listed_.push_back(&clock);
    } else {
        const auto silent = std::find_if(listed_.begin(), listed_.end(), [&](const Clock* other) {
            return slot_->time() - other->lastTime > kClockSilence;
        });
        if (silent == listed_.end())
            return;
        (*silent)->listed = false;
        *silent = &clock;
    }
    clock.listed = true;
}

void ConstantRate::noteWait(Ticks own, Ticks wait) {
    meanWait_ += (wait - meanWait_) / 64;
    if (wait <= slot_->length() && !wasLate_)
        busy_.clear();
    busy_.add(times_.bytes(), own);
    // Packets wait for the beginning of a slot in any case.
    const bool late = wait > std::max(delay_, kFinestDelay) + slot_->length();
    if (late && !late_)
        lateSince_ = slot_->time();
    wasLate_ = wasLate_ || (late_ && (!late || slot_->time() - lateSince_ > kMostLate));
    // That takes long, and a stream may be late for a moment again and again.
    if (wasLate_ && slot_->time() - publishedAt_ > kPublishing)
        publishNeed();
    late_ = late;
}

void ConstantRate::publishNeed() {
    const uint32_t least = std::max(busy_.find(delay_), *rate_ + 1);
    needed_bps_ = std::max(needed_bps_, roundUpRate(least));
    lateSince_ = publishedAt_ = slot_->time();
    wasLate_ = false;
}

void ConstantRate::dropLate() {
    if (times_.empty() || slot_->time() - times_.time() <= delay_ + kMostLate)
        return;
    while (!times_.empty() && times_.time() < slot_->time() - delay_) {
        if (ts_get_pid(times_.bytes()) != kNullPid) {
            busy_.add(times_.bytes(), times_.time());
            ++dropped_;
        }
        times_.pop();
    }
    publishNeed();
    skipNulls();
}

// What a packet that leaves means for the clock of its PID.
void ConstantRate::stamp(uint8_t* packet, Ticks own) {
    const auto pcr = readPcr(packet);
    const uint16_t pid = ts_get_pid(packet);
    const auto [found, isNew] =
        pcr ? clocks_.try_emplace(pid) : std::pair(clocks_.find(pid), false);
    if (found == clocks_.end())
        return;
    Clock& clock = found->second;
    if (!ts_get_transporterror(packet))
        clock.counter = ts_get_cc(packet);
    if (pcr)
        restamp(packet, *pcr, clock, isNew, own);
    else if (hasAdaptationFlags(packet) && tsaf_has_discontinuity(packet))
        clock.lastTime = slot_->time() - kClockSilence - 1;  // a new one is about to begin
}

void ConstantRate::restamp(uint8_t* packet, const Pcr& pcr, Clock& clock, bool isNew, Ticks own) {
    clock.pid = pcr.pid;
    if (!clock.listed)
        list(clock);
    const uint64_t wanted = modulo(static_cast<Ticks>(pcr.ticks) - own - delay_);
    const bool continues = !isNew && pcrStep(clock.lastPcr, pcr);
    const uint64_t cuts = ownCuts_ + times_.cuts();
    const bool cut = cuts != clock.cuts;
    const int64_t error = difference(wanted, clock.offset);
    if (!continues || cut || std::abs(error) > kClockJump) {
        clock.offset = wanted;
        clock.meanError = clock.steering = 0;
    } else {
        const Ticks elapsed = std::clamp<Ticks>(slot_->time() - clock.lastTime, 0, kTicksPerSecond);
        clock.meanError += (error - clock.meanError) * elapsed / kClockMeanTime;
        steer(clock);
    }
    clock.lastPcr = pcr.ticks;
    clock.lastOwn = own;
    clock.lastTime = clock.shown = slot_->time();
    clock.cuts = cuts;
    writePcr(packet, modulo(slot_->time() + static_cast<Ticks>(clock.offset)), cut);
    if (packetSize_ == kPacketWithParityBytes)
        writeParity(packet);
}

// Moves the offset after what the source says, so slowly that no PCR is off by it.
void ConstantRate::steer(Clock& clock) const {
    const Ticks elapsed = std::clamp<Ticks>(slot_->time() - clock.shown, 0, kTicksPerSecond);
    const int64_t beyond = clock.meanError - std::clamp(clock.meanError, -kClockSlack, kClockSlack);
    const int64_t most = (elapsed << kSteeringBits) * kClockMostSteering_ppm / 1'000'000;
    clock.steering += std::clamp(
        (beyond << kSteeringBits) / (kClockSteerTime / kMillisecond) * elapsed / kMillisecond,
        -most, most);
    const int64_t ticks = clock.steering >> kSteeringBits;
    clock.steering -= ticks << kSteeringBits;
    clock.meanError -= ticks;
    clock.offset = modulo(static_cast<Ticks>(clock.offset) + ticks);
}

std::optional<Time> ConstantRate::next() const {
    if (!rate_)
        return std::nullopt;
    if (untouched_) {
        return times_.hasDatagram() ? std::optional(times_.toTime(times_.time())) : std::nullopt;
    }
    if (isOver() || !canFill())
        return std::nullopt;
    return times_.toTime(slot_ ? slot_->time() : times_.time());
}

std::optional<uint32_t> ConstantRate::rate() const {
    return rate_;
}

ShaperStatus ConstantRate::status() const {
    ShaperStatus status;
    status.rateKnown = rate_.has_value();
    status.rate_bps = rate_.value_or(0);
    status.rateNeeded_bps = needed_bps_;
    status.delay = TimedPackets::toDuration(meanWait_);
    status.breaks = times_.cuts();
    status.added = added_;
    status.dropped = dropped_;
    status.untouched = untouched_;
    return status;
}

}  // namespace ts
