// One stream's way through the tool, which a Runner keeps going.
#ifndef TOOLS_ENGINE_CHAIN_H
#define TOOLS_ENGINE_CHAIN_H

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/StreamState.h"

class Chain {
  public:
    using Clock = std::chrono::steady_clock;

    Chain() = default;
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    virtual ~Chain() = default;

    // Does what is to be done by now, without waiting for anything, and returns when there will be
    // more; none when the chain has ended. Throws Failure when it cannot go on.
    virtual std::optional<Clock::time_point> run(Clock::time_point now) = 0;

    // Stops sending. While no socket can be opened, a channel takes up to a second to end from then
    // on: who ends several of them cancels all of them first.
    virtual void cancel() = 0;

    // What has happened since the last call, for the user to know.
    std::vector<std::string> takeEvents() { return std::exchange(events_, {}); }

    virtual std::string name() const = 0;
    virtual std::string describe(Clock::time_point now) = 0;  // how far it has come
    virtual std::string summary() const = 0;                  // empty = nothing was sent
    virtual std::vector<std::string> warnings() const = 0;    // for the end

    // None: it has no end of its own, and a signal ends it well. Else what the signal cuts short.
    virtual std::optional<std::string> unfinished() const = 0;

    // For other processes to see.
    virtual StreamState state(Clock::time_point /*now*/) const { return {}; }

  protected:
    std::vector<std::string> events_;
};

#endif
