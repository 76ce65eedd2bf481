// Which interfaces there are, listed anew when they may have changed.
#ifndef TOOLS_MEDIA_NETWORKWATCH_H
#define TOOLS_MEDIA_NETWORKWATCH_H

#include <chrono>
#include <cstdint>

#include "Descriptor.h"
#include "Interfaces.h"

// A socket loses its membership in a group when the interface is deleted, and rtnetlink(7) tells
// that something has happened. Routes follow later than links and addresses do, so the watch looks
// several times after a change. Where the system refuses rtnetlink, there are no looks.
//
// Thread safety: one thread uses it.
class NetworkWatch {
  public:
    using Clock = std::chrono::steady_clock;

    NetworkWatch();

    // Looks again if that is due, once for all who call at the same time. Returns the number of
    // looks so far: where it differs from the last one that a user has seen, memberships have to be
    // renewed.
    uint64_t look(Clock::time_point now);

    const zaqsockets::InterfaceList& interfaces() const { return interfaces_; }

  private:
    bool takeMessages();

    const zaqsockets::Descriptor messages_;
    zaqsockets::InterfaceList interfaces_;
    uint64_t looks_ = 0;
    int left_ = 0;
    Clock::time_point now_{};
    Clock::time_point next_{};
};

#endif
