// What goes wrong in a command with several channels, each of which goes on without the others.
#ifndef TOOLS_COMMANDS_FAILURES_H
#define TOOLS_COMMANDS_FAILURES_H

#include <fmt/format.h>

#include <string>

#include "base/Errors.h"
#include "terminal/Progress.h"

// The only channel's failure is the command's. Of several, each is told when it happens.
//
// Thread safety: one thread uses it.
class Failures {
  public:
    Failures(size_t channels, Progress& progress) : channels_(channels), progress_(progress) {}

    void setChannels(size_t channels) { channels_ = channels; }

    void add(const std::string& text) {
        ++count_;
        last_ = text;
        if (channels_ > 1)
            progress_.warn(text);
    }

    // Throws Failure if there was one; `things` is the plural of what has failed.
    void conclude(const std::string& things) const {
        if (count_ > 0)
            throw Failure(channels_ > 1
                              ? fmt::format("{} of {} {} failed", count_, channels_, things)
                              : last_);
    }

  private:
    size_t channels_;
    Progress& progress_;
    size_t count_ = 0;
    std::string last_;
};

#endif
