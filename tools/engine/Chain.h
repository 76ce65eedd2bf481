// One stream's way through the tool, which a Runner keeps going.
#ifndef TOOLS_ENGINE_CHAIN_H
#define TOOLS_ENGINE_CHAIN_H

#include <chrono>
#include <optional>

class Chain {
  public:
    using Clock = std::chrono::steady_clock;

    virtual ~Chain() = default;

    // Does what is to be done by now, without waiting for anything, and returns when there will be
    // more; none when the chain has ended. Throws Failure when it cannot go on.
    virtual std::optional<Clock::time_point> run(Clock::time_point now) = 0;
};

#endif
