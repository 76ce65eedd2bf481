// Notices that interfaces or their addresses have come, gone or changed.
#ifndef SOCKETS_INTERFACEWATCH_H
#define SOCKETS_INTERFACEWATCH_H

#include <chrono>
#include <cstdint>
#include <optional>

#include "Descriptor.h"

namespace zaqsockets {

// Thread safety: one thread.
class InterfaceWatch {
  public:
    // Where the system refuses its messages (rtnetlink(7)), changes are not noticed.
    InterfaceWatch();

    int Number() const { return m_Messages.Number(); }  // readable when there is news; or -1

    // Takes the news, up to an interface that is gone from this network: its number, or 0 when there is
    // none.
    uint32_t Take();

    // There is something to look at. Changes come in groups, like a link and its addresses, and are
    // looked at together, a moment after the first; and then a few times more, since the routes follow
    // later.
    void Notice();

    // Has the moment come to look at them? True once for each; Finish follows.
    bool IsDue();
    // They have been looked at. Where that takes long, it is done less often.
    void Finish();
    bool IsPending() const { return m_Due.has_value(); }
    // To look once more than that; before Finish.
    void Repeat();

    // How long to wait for other things that may take `timeout_ms`, or -1 for ever.
    int Limit(int timeout_ms) const;

  private:
    using Clock = std::chrono::steady_clock;

    Descriptor m_Messages;
    std::optional<Clock::time_point> m_Due;
    Clock::time_point m_Began{};  // the latest look
    Clock::duration m_Rest{};     // at least, before the next one
    int m_Looks = 1;              // left
};

}  // namespace zaqsockets

#endif
