#include "engine/Runner.h"

#include <algorithm>

namespace {

constexpr std::chrono::milliseconds kGrid{20};
constexpr std::chrono::milliseconds kSoon{5};

// A little earlier than asked for, where that is a time which the chains share.
Runner::Clock::time_point shared(Runner::Clock::time_point due, Runner::Clock::time_point now) {
    const auto rounded = due - due.time_since_epoch() % kGrid;
    return rounded > now ? rounded : due;
}

}  // namespace

void Runner::step(Entry& entry, Clock::time_point now) {
    try {
        const auto next = entry.chain->run(now);
        entry.ended = !next;
        entry.due = shared(next.value_or(now), now);
    } catch (const std::exception&) {
        entry.ended = true;
        entry.failure = std::current_exception();
    }
}

void Runner::run(const std::function<bool()>& attend) {
    while (!stop_.requested()) {
        const auto now = Clock::now();
        for (Entry& entry : entries_)
            if (!entry.ended && entry.due <= now)
                step(entry, now);
        auto next = attend() ? now + kSoon : Clock::time_point::max();
        for (const Entry& entry : entries_)
            if (!entry.ended)
                next = std::min(next, entry.due);
        if (next == Clock::time_point::max())
            return;
        stop_.await(next - Clock::now());
    }
}
