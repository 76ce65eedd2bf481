// One thread for all chains.
#ifndef TOOLS_ENGINE_RUNNER_H
#define TOOLS_ENGINE_RUNNER_H

#include <exception>
#include <functional>
#include <vector>

#include "base/StopSignal.h"
#include "engine/Chain.h"

// Runs each chain when it is due. Times that are far enough are rounded to those that all chains
// share, so that one wake-up serves all.
class Runner {
  public:
    using Clock = Chain::Clock;

    explicit Runner(StopSignal& stop) : stop_(stop) {}

    // The chain must outlive run(), or be removed before its end.
    void add(Chain& chain) { entries_.push_back({&chain, Clock::now(), false, nullptr}); }

    // Returns when all chains have ended, or a stop is requested. `attend` is called after each
    // round, on this thread, and may add and remove chains. While it returns true, it is called
    // again soon, even if there is no chain.
    void run(const std::function<bool()>& attend);

    // By the order in which the chains were added; those behind move up.
    void remove(size_t chain) {
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(chain));
    }
    bool ended(size_t chain) const { return entries_[chain].ended; }
    const std::exception_ptr& failure(size_t chain) const { return entries_[chain].failure; }

  private:
    struct Entry {
        Chain* chain;
        Clock::time_point due;
        bool ended;
        std::exception_ptr failure;  // null = none
    };
    static void step(Entry& entry, Clock::time_point now);

    StopSignal& stop_;
    std::vector<Entry> entries_;
};

#endif
