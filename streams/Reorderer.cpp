#include "Reorderer.h"

#include <algorithm>
#include <bit>

namespace ts {

namespace {

using namespace std::chrono_literals;

constexpr Time kShortestSilence = 20ms;
constexpr Time kRawSilence = 300ms;
constexpr Time kAlive = 1s;
// Where the stream has brought nothing for so long, even what looks like copies may be a new one.
constexpr Time kStuck = 1s;
// Beyond the window, until a number is missing on a path.
constexpr Time kSettling = 100ms;
// A single number so far ahead, while those below still come, belongs to nothing.
constexpr int64_t kFarAhead = 32;
// Leaves room for what waits at 350 Mbit/s in datagrams of seven packets, as far as 16 bits allow.
constexpr int64_t kNumbersPerMillisecond = 32;
// What seems to be a longer loss is a sequence that goes back.
constexpr uint16_t kFurthestLoss = 49152;
constexpr size_t kFewestSlots = 4096, kMostSlots = 32768;
constexpr size_t kLeastMemory = size_t{256} << 10;
// In ticks of 90 kHz. Copies may have been stamped apart; but where a sender was restarted, or has
// stopped for a while and then gone on with its numbers, the same number means another moment. Some
// senders begin with the same timestamp each time, so the payload has to be the same, too.
constexpr int32_t kSameMoment = 4500;
constexpr int64_t kLongestLook = 64;  // for the neighbours of a number

int32_t ticksBetween(uint32_t from, uint32_t to) {
    return static_cast<int32_t>(to - from);
}

bool isSameMoment(uint32_t a, uint32_t b) {
    const int32_t ticks = ticksBetween(a, b);
    return ticks <= kSameMoment && ticks >= -kSameMoment;
}

template <typename Datagram>
bool isCopy(const SequenceBuffer::Slot& slot, const Datagram& datagram, uint64_t digest) {
    return isSameMoment(slot.timestamp, datagram.timestamp) && slot.digest == digest;
}

size_t slotsFor(Time window) {
    const int64_t waiting = window / 1ms * kNumbersPerMillisecond;
    return std::clamp(std::bit_ceil(static_cast<size_t>(2 * waiting)), kFewestSlots, kMostSlots);
}

}  // namespace

Reorderer::Reorderer(const Options& options)
    : ownWindow_(std::clamp(options.window, Time(0), kLongestWindow)),
      window_(ownWindow_),
      pool_(std::max(options.memory, kLeastMemory)),
      current_(slotsFor(window_), pool_),
      other_(slotsFor(window_), pool_) {}

void Reorderer::allowFor(Time repair) {
    window_ = std::clamp(repair, ownWindow_, kLongestWindow);
}

Time Reorderer::silence() const {
    return std::max(ownWindow_, kShortestSilence);
}

void Reorderer::push(std::span<const uint8_t> datagram, Time arrival, size_t path,
                     const Sink& sink) {
    release(arrival, sink);
    const auto rtp = readRtp(datagram);
    if (path < kMostPaths) {
        ++paths_[path].report.received;
        paths_[path].last = arrival;
    } else if (!rtp || !current_.begun()) {
        return;
    }
    if (!rtp) {
        pushRaw(datagram, arrival, path, sink);
        return;
    }
    counts_.received += path < kMostPaths ? 1 : 0;
    if (!current_.begun()) {
        begin(current_.begin(*rtp), arrival);
        begins_ = true;
    }
    const int64_t number = SequenceBuffer::numberOf(rtp->sequence, next_);
    if (rtp->ssrc != current_.ssrc() || continuesOther(*rtp))
        pushStray(*rtp, arrival, path, sink);
    else if (number < next_)
        pushOld(number, *rtp, arrival, path, sink);
    else
        pushNew(number, *rtp, arrival, path, sink);
}

// A sender that was restarted comes to the numbers at which the stream has ended.
bool Reorderer::continuesOther(const RtpDatagram& datagram) const {
    return evidence_ >= 2 && datagram.ssrc == other_.ssrc() &&
           datagram.sequence == static_cast<uint16_t>(other_.highest() + 1);
}

void Reorderer::pushRaw(std::span<const uint8_t> datagram, Time arrival, size_t path,
                        const Sink& sink) {
    if (path != rawPath_ && rawLast_ && arrival - *rawLast_ < kRawSilence) {
        ++counts_.rawExtra;
        return;
    }
    rawPath_ = path;
    rawLast_ = arrival;
    ++counts_.raw;
    sink({.payload = datagram, .arrival = arrival, .rtp = false});
}

void Reorderer::pushNew(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path,
                        const Sink& sink) {
    // So much waits that the window has to be shorter. Anything else this far ahead is astray.
    while (number - next_ >= current_.reach() && current_.held() > 0 &&
           number - current_.highest() < current_.reach() / 2)
        giveUpTo(current_.lowest(next_).number, sink);
    if (number - next_ >= current_.reach()) {
        pushStray(datagram, arrival, path, sink);
        return;
    }
    if (SequenceBuffer::Slot* const slot = current_.find(number)) {
        if (!isCopy(*slot, datagram, digestOf(datagram.payload))) {
            pushStray(datagram, arrival, path, sink);
            return;
        }
        noteBrought(number, path);
        noteCopy(*slot, arrival, path);
        return;
    }
    if (number < current_.highest() && !fitsBetween(number, datagram.timestamp)) {
        pushStray(datagram, arrival, path, sink);
        return;
    }
    noteFresh(number, arrival, path);
    while (number > next_ && !current_.hold(number, datagram, arrival, path)) {
        if (other_.held() > 0)
            dropOther();
        else
            giveUpTo(current_.held() > 0 ? std::min(number, current_.lowest(next_).number) : number,
                     sink);
    }
    if (number == next_) {
        deliver(datagram.payload, current_.note(number, datagram, arrival, path), sink);
        deliverRun(sink);
    }
    release(arrival, sink);
}

// It would fill a gap. Does its timestamp lie between those beside it?
bool Reorderer::fitsBetween(int64_t number, uint32_t timestamp) {
    const auto isHeld = [&](int64_t other) {
        const SequenceBuffer::Slot* const slot = current_.find(other);
        return slot != nullptr && slot->held;
    };
    int64_t below = number - 1, above = number + 1;
    while (below >= next_ && number - below < kLongestLook && !isHeld(below))
        --below;
    while (above < current_.highest() && above - number < kLongestLook && !isHeld(above))
        ++above;
    if (!isHeld(above) || (below >= next_ && !isHeld(below)))
        return true;
    const uint32_t from = below < next_ ? timestamp_ : current_.find(below)->timestamp;
    const int32_t span = ticksBetween(from, current_.find(above)->timestamp);
    const int32_t step = ticksBetween(from, timestamp);
    return span < 0 || (step >= -kSameMoment && step <= span + kSameMoment);
}

void Reorderer::pushOld(int64_t number, const RtpDatagram& datagram, Time arrival, size_t path,
                        const Sink& sink) {
    const bool remembered = number >= std::max(first_, next_ - current_.reach());
    SequenceBuffer::Slot* const slot = remembered ? current_.find(number) : nullptr;
    // What comes late was sent before what has been delivered.
    const bool fits = slot != nullptr ? isCopy(*slot, datagram, digestOf(datagram.payload))
                                      : ticksBetween(timestamp_, datagram.timestamp) <= kSameMoment;
    if (!remembered || !fits || arrival - fresh_ >= kStuck) {
        pushStray(datagram, arrival, path, sink);
        return;
    }
    noteBrought(number, path);
    if (slot != nullptr) {
        noteCopy(*slot, arrival, path);
        return;
    }
    if (path == kRepaired)
        return;
    ++counts_.late;
    current_.note(number, datagram, arrival, path);
}

void Reorderer::pushStray(const RtpDatagram& datagram, Time arrival, size_t path,
                          const Sink& sink) {
    if (path == kRepaired)
        return;
    int64_t number = SequenceBuffer::numberOf(datagram.sequence, other_.highest());
    const bool belongs = other_.begun() && datagram.ssrc == other_.ssrc() &&
                         std::abs(number - other_.highest()) < other_.reach();
    if (!belongs && other_.begun() && arrival - otherLast_ < silence()) {
        ++counts_.strays;
        return;
    }
    if (!belongs || number - otherFirst_ >= other_.reach() ||
        other_.highest() - number >= other_.reach() / 2) {
        dropOther();
        number = otherFirst_ = other_.begin(datagram);
    }
    if (SequenceBuffer::Slot* const slot = other_.find(number)) {
        noteCopy(*slot, arrival, path);
        return;
    }
    if (!other_.hold(number, datagram, arrival, path)) {
        ++counts_.strays;
        return;
    }
    otherFirst_ = std::min(otherFirst_, number);
    otherLast_ = arrival;
    ++evidence_;
    if (mayTakeOver(arrival)) {
        takeOver(sink);
        release(arrival, sink);
    }
}

void Reorderer::noteBrought(int64_t number, size_t path) {
    if (path >= kMostPaths)
        return;
    Path& brought = paths_[path];
    if (!brought.joined)
        brought.joined = number;
    brought.highest = std::max(brought.highest.value_or(number), number);
}

// The path has brought what the stream lacked.
void Reorderer::noteFresh(int64_t number, Time arrival, size_t path) {
    fresh_ = arrival;
    evidence_ = 0;
    if (path == kRepaired)
        ++counts_.repaired;
    else if (paths_[path].highest.value_or(number) > number)
        ++counts_.reordered;
    noteBrought(number, path);
    // The slot may be that of a number that is not counted yet.
    settleTo(number - 2 * current_.reach() + 1);
}

void Reorderer::noteCopy(SequenceBuffer::Slot& slot, Time arrival, size_t path) {
    if (path == kRepaired)
        return;
    const auto bit = static_cast<uint8_t>(1U << path);
    if ((slot.sources & bit) != 0) {
        ++counts_.duplicates;
        return;
    }
    slot.sources |= bit;
    if (slot.first == kRepaired)
        return;
    PathReport& behind = paths_[path].report;
    behind.skew = arrival - slot.arrival;
    behind.greatestSkew = std::max(behind.greatestSkew, behind.skew);
    paths_[slot.first].report.skew = Time(0);
}

// It is taken from `slot`, or would have been.
void Reorderer::deliver(std::span<const uint8_t> payload, const SequenceBuffer::Slot& slot,
                        const Sink& sink) {
    ++next_;
    ++counts_.delivered;
    timestamp_ = slot.timestamp;
    arrival_ = slot.arrival;
    const Delivery delivery{payload, slot.arrival, missing_, begins_};
    missing_ = 0;
    begins_ = false;
    sink(delivery);
}

// What waits and has nothing missing in front of it any more.
void Reorderer::deliverRun(const Sink& sink) {
    while (current_.held() > 0) {
        SequenceBuffer::Slot* const slot = current_.find(next_);
        if (slot == nullptr || !slot->held)
            return;
        deliver(slot->payload, *slot, sink);
        current_.letGo(*slot);
    }
}

void Reorderer::giveUpTo(int64_t number, const Sink& sink) {
    const auto missing = static_cast<uint64_t>(number - next_);
    counts_.lost += missing;
    missing_ += missing;
    next_ = number;
    deliverRun(sink);
}

// It is alone, far ahead, and those that came after it have lower numbers.
bool Reorderer::isAstray(const SequenceBuffer::Slot& slot) const {
    return current_.held() == 1 && slot.number - next_ > kFarAhead &&
           current_.order() - slot.order >= 2;
}

void Reorderer::releaseDue(Time now, const Sink& sink) {
    while (current_.held() > 0 && current_.earliest().arrival + window_ <= now) {
        SequenceBuffer::Slot& slot = current_.lowest(next_);
        if (isAstray(slot)) {
            ++counts_.strays;
            current_.forget(slot);
            for (Path& path : paths_)
                path.highest.reset();
        } else {
            giveUpTo(slot.number, sink);
        }
    }
}

void Reorderer::release(Time now, const Sink& sink) {
    releaseDue(now, sink);
    if (mayTakeOver(now)) {
        takeOver(sink);
        releaseDue(now, sink);
    }
    settle(now);
}

std::optional<Time> Reorderer::next() const {
    std::optional<Time> due;
    if (current_.held() > 0)
        due = current_.earliest().arrival + window_;
    if (evidence_ >= 2)
        due = std::min(due.value_or(Time::max()), fresh_ + silence());
    return due;
}

void Reorderer::finish(const Sink& sink) {
    const auto deliverAll = [&] {
        while (current_.held() > 0)
            giveUpTo(current_.lowest(next_).number, sink);
    };
    deliverAll();
    if (evidence_ >= 2) {
        takeOver(sink);
        deliverAll();
    }
    dropOther();
}

bool Reorderer::mayTakeOver(Time now) const {
    return evidence_ >= 2 && now - fresh_ >= silence();
}

void Reorderer::dropOther() {
    counts_.strays += other_.held();
    other_.clear();
    evidence_ = 0;
}

// The number in the other sequence of what was delivered last, as far as its payload tells.
int64_t Reorderer::findSaid() {
    const int64_t earliest = std::max(first_, next_ - kLongestLook);
    for (int64_t number = next_ - 1; number >= earliest; --number) {
        const SequenceBuffer::Slot* const said = current_.find(number);
        size_t found = 0;
        int64_t last = -1;
        for (int64_t again = otherFirst_; said != nullptr && again <= other_.highest(); ++again) {
            const SequenceBuffer::Slot* const slot = other_.find(again);
            if (slot == nullptr || !slot->held || slot->digest != said->digest)
                continue;
            last = again;
            ++found;
        }
        if (found == 1)  // null packets are in many
            return last;
    }
    return -1;
}

// The other sequence becomes the stream. What came long before the end of this one was beside it.
void Reorderer::takeOver(const Sink& sink) {
    while (current_.held() > 0)
        giveUpTo(current_.lowest(next_).number, sink);
    settleTo(next_);
    while (other_.earliest().arrival < fresh_ - silence()) {
        ++counts_.strays;
        other_.letGo(other_.lowest(other_.earliest().number));
    }
    // The same stream with other numbers, as of another sender, does not say again what was said.
    const int64_t said = findSaid();
    for (int64_t number = otherFirst_; number <= said && other_.held() > 1; ++number) {
        SequenceBuffer::Slot* const slot = other_.find(number);
        if (slot == nullptr || !slot->held)
            continue;
        ++counts_.strays;
        other_.letGo(*slot);
    }
    const SequenceBuffer::Slot& first = other_.lowest(otherFirst_);
    const auto step = static_cast<uint16_t>(first.number - next_);
    if (other_.ssrc() != current_.ssrc()) {
        ++counts_.ssrcChanges;
        begins_ = true;
    } else if (step < kFurthestLoss &&
               timestampsGoOn(timestamp_, first.timestamp, first.arrival - arrival_)) {
        counts_.lost += step;
        missing_ += step;
        for (Path& path : paths_)
            path.report.lost += path.joined ? step : 0;
    } else {
        ++counts_.restarts;
        begins_ = true;
    }
    evidence_ = 0;
    std::swap(current_, other_);
    other_.clear();
    begin(first.number, otherLast_);
    deliverRun(sink);
}

void Reorderer::begin(int64_t number, Time arrival) {
    first_ = next_ = settled_ = mark_ = number;
    marked_ = fresh_ = arrival;
    for (Path& path : paths_) {
        // A path that was there before has to bring everything.
        if (path.joined)
            path.joined = number;
        path.highest.reset();
    }
}

// Counts what the paths did not bring, when each has had the time to.
void Reorderer::settle(Time now) {
    if (now - marked_ < window_ + kSettling)
        return;
    settleTo(mark_);
    mark_ = next_;
    marked_ = now;
}

void Reorderer::settleTo(int64_t number) {
    for (; settled_ < number; ++settled_) {
        const SequenceBuffer::Slot* const slot = current_.find(settled_);
        const unsigned sources = slot == nullptr ? 0U : slot->sources;
        for (size_t i = 0; i < kMostPaths; ++i) {
            Path& path = paths_[i];
            if ((sources >> i & 1U) != 0 || !path.joined || *path.joined > settled_)
                continue;
            ++path.report.lost;
            path.report.saved += (sources & ~(1U << kRepaired)) != 0 ? 1 : 0;
        }
    }
}

PathReport Reorderer::path(size_t path, Time now) const {
    PathReport report = paths_[path].report;
    report.alive = paths_[path].last && now - *paths_[path].last < kAlive;
    return report;
}

}  // namespace ts
