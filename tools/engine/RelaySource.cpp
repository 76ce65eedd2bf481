#include "engine/RelaySource.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr int kMostChunks = 32;    // at a time, before the outputs have their turn
constexpr auto kSilence = 3s;      // until it is reported
constexpr auto kSocketGrace = 3s;  // until a socket that is missing is reported
constexpr auto kLook = 100ms;      // at what is missing

}  // namespace

RelaySource::RelaySource(std::string name, std::unique_ptr<StreamInput> input,
                         std::optional<ts::Time> patience, std::vector<std::string>& events)
    : name_(std::move(name)),
      isFile_(!isStreamUrl(name_)),
      input_(std::move(input)),
      health_(patience ? std::make_unique<ts::StreamHealth>(*patience) : nullptr),
      events_(events) {}

void RelaySource::setOnAir(bool onAir) {
    onAir_ = onAir;
    input_->setOnAir(onAir);
}

ts::Health RelaySource::health() const {
    if (isFile_)
        return open_ ? ts::Health::kWell : ts::Health::kNone;
    return health_->state();
}

InputState RelaySource::state(Clock::time_point now) const {
    InputState state = stateOf(*input_, name_, isFile_ ? Clock::duration(0) : now - lastData_);
    state.bytes = bytes_;
    state.continuityErrors = sieve_.continuityErrors();
    if (!onAir_ && state.health == InputHealth::kOnAir)
        state.health = beside(now);
    return state;
}

// Its state while another input is on air, if it has had data within the last second.
InputHealth RelaySource::beside(Clock::time_point now) const {
    if (health() == ts::Health::kWell)
        return InputHealth::kStandby;
    const bool isSilent = bytes_ == 0 || lastData_.time_since_epoch() == heard(now);
    return health() == ts::Health::kNone && isSilent ? InputHealth::kNoSignal
                                                     : InputHealth::kFaulty;
}

RelaySource::Clock::time_point RelaySource::run(Clock::time_point now, std::span<uint8_t> buffer,
                                                const Sink& sink) {
    const auto due = input_->attend(now);
    take(now, buffer, sink);
    watch(now);
    if (!health_ || isFile_)
        return due;
    health_->tick(now.time_since_epoch());
    return std::min<Clock::time_point>(due, now + kLook);
}

void RelaySource::watch(Clock::time_point now) {
    for (std::string& event : input_->takeEvents())
        events_.push_back(std::move(event));
    const bool wasOpen = std::exchange(open_, input_->statistics().SocketOpen != 0);
    if (open_) {
        opened_ = wasOpen ? opened_ : now;
        openSeen_ = now;
        if (std::exchange(closedReported_, false))
            events_.push_back(isFile_ ? fmt::format("'{}' can be read again", name_)
                                      : fmt::format("{} is received again", name_));
    } else if (now - openSeen_ > kSocketGrace && !std::exchange(closedReported_, true)) {
        const std::string trouble = input_->trouble();
        events_.push_back(
            fmt::format("{}{} Trying again.", trouble, trouble.ends_with('?') ? "" : "."));
    }
    if (open_ && !isFile_ && now - std::max(lastData_, opened_) > kSilence &&
        !std::exchange(silenceReported_, true))
        events_.push_back(
            fmt::format("nothing arrives from {}{}", name_, bytes_ == 0 ? " yet" : " any more"));
}

void RelaySource::take(Clock::time_point now, std::span<uint8_t> buffer, const Sink& sink) {
    size_t kept = rest_.size();
    std::copy(rest_.begin(), rest_.end(), buffer.begin());
    for (int chunks = 0; chunks < kMostChunks; ++chunks) {
        const size_t taken = input_->receive(buffer.subspan(kept));
        if (taken == 0)
            break;
        bytes_ += taken;
        if (std::exchange(silenceReported_, false))
            events_.push_back(fmt::format(
                "{} arrives {}after {}", name_, bytes_ == taken ? "" : "again ",
                formatTime(
                    std::chrono::duration_cast<std::chrono::milliseconds>(now - lastData_))));
        lastData_ = now;
        if (health_)
            health_->push(buffer.subspan(kept, taken), now.time_since_epoch());
        kept = sift(buffer.first(kept + taken), sink);
    }
    rest_.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(kept));
}

// Whole packets only: a channel under RTP cancels itself where one does not begin where it should.
// What is left of the data is moved to its beginning.
size_t RelaySource::sift(std::span<uint8_t> data, const Sink& sink) {
    std::span<const uint8_t> rest = data;
    for (;;) {
        const PacketSieve::Run run = sieve_.next(rest, false);
        if (run.skip + run.length == 0)
            break;
        if (run.length > 0)
            sink(rest.subspan(run.skip, run.length), sieve_.packetSize());
        rest = rest.subspan(run.skip + run.length);
    }
    std::copy(rest.begin(), rest.end(), data.begin());
    return rest.size();
}

std::vector<std::string> RelaySource::warnings() const {
    const auto repairs = input_->repairs();
    std::vector<std::string> lines = repairs ? describePaths(*repairs) : std::vector<std::string>();
    if (sieve_.skippedBytes() > 0)
        lines.push_back(fmt::format("{}: skipped {} bytes ({}) that are not TS packets", name_,
                                    sieve_.skippedBytes(), counted(sieve_.gaps(), "gap")));
    return lines;
}
