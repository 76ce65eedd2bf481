#include "Selector.h"

#include <algorithm>
#include <utility>

namespace ts {

namespace {

constexpr Time kSteady = std::chrono::seconds(1);
// For the first input to come, before another one is used.
constexpr Time kBeginning = std::chrono::seconds(1);

}  // namespace

Selector::Selector(size_t inputs, const Options& options) : options_(options), inputs_(inputs) {}

void Selector::note(size_t input, Health health, Time heard) {
    Input& noted = inputs_[input];
    if (noted.health == Health::kNone)
        noted.signalSince = heard;
    if (noted.health != Health::kWell)
        noted.wellSince = heard;
    noted.health = health;
    noted.heard = heard;
}

int Selector::rank(size_t input) const {
    const Health health = inputs_[input].health;
    if (health == Health::kNone)
        return 0;
    if (isLastResort(input))
        return 1;
    return health == Health::kIll ? 2 : 3;
}

// The first of those that are best; none has a signal: none.
std::optional<size_t> Selector::best() const {
    size_t best = 0;
    for (size_t i = 1; i < inputs_.size(); ++i)
        if (rank(i) > rank(best))
            best = i;
    return rank(best) > 0 ? std::optional(best) : std::nullopt;
}

// The first one that has been well for so long, in front of `end`.
std::optional<size_t> Selector::wellFor(size_t end, Time time) const {
    for (size_t i = 0; i < end; ++i)
        if (rank(i) == 3 && inputs_[i].heard - inputs_[i].wellSince >= time)
            return i;
    return std::nullopt;
}

Selector::Choice Selector::use(size_t input, Reason reason) {
    switches_ += current_ ? 1 : 0;
    return {std::exchange(current_, input), input, reason};
}

std::optional<Selector::Choice> Selector::begin(Time now) {
    begun_ = begun_.value_or(now);
    const auto input = best();
    if (!input || (*input > 0 && now - *begun_ < kBeginning))
        return std::nullopt;
    return use(*input, Reason::kBegin);
}

std::optional<Selector::Choice> Selector::choose(Time now) {
    if (!current_)
        return begin(now);
    const size_t current = *current_;
    if (rank(current) == 0) {
        const auto other = best();
        return other ? std::optional(use(*other, Reason::kNoSignal)) : std::nullopt;
    }
    if (isLastResort(current)) {
        const Time calm = std::min(options_.returnAfter.value_or(kSteady), kSteady);
        const auto other = best();
        if (other != current && inputs_[*other].heard - inputs_[*other].signalSince >= calm)
            return use(*other, Reason::kReturn);
        return std::nullopt;
    }
    if (rank(current) == 2)
        if (const auto other = wellFor(inputs_.size(), kSteady))
            return use(*other, Reason::kIll);
    if (options_.returnAfter)
        if (const auto preferred = wellFor(current, *options_.returnAfter))
            return use(*preferred, Reason::kReturn);
    return std::nullopt;
}

}  // namespace ts
