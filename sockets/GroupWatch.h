// The thread that looks after the memberships of all group sockets.
#ifndef SOCKETS_GROUPWATCH_H
#define SOCKETS_GROUPWATCH_H

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "Descriptor.h"
#include "GroupSocket.h"

namespace zaqsockets {

// When to look at what interfaces there are. Changes come in groups, like a link and its addresses,
// and are looked at together, a moment after the first; and then a few times more, since routes
// follow later. Thread safety: one thread.
class LookSchedule {
  public:
    // Something has changed.
    void Notice();
    // Look once more than that.
    void Repeat();

    // Has the moment come? True once for each; Finish follows.
    bool IsDue();
    // Where looking takes long, it is done less often.
    void Finish();
    bool IsPending() const { return m_Due.has_value(); }
    int Timeout_ms() const;  // for poll()

  private:
    using Clock = std::chrono::steady_clock;

    // The first look comes at once: something may have changed since the first socket was opened.
    std::optional<Clock::time_point> m_Due = Clock::now();
    Clock::time_point m_Began{};  // the latest look
    Clock::duration m_Rest{};     // at least, before the next one
    int m_Looks = 1;              // left
};

// Listens to rtnetlink(7) and renews memberships, so that the receive thread never waits for the
// kernel's lock of all networking. The kernel keeps a membership by the interface's number, and an
// interface that is deleted and made again has another one.
//
// It exists while there are group sockets in its network namespace, that of the first one; sockets
// of other ones are left alone. Where the system refuses rtnetlink it does not exist.
//
// Thread safety: the static functions may be called from any thread. A watch belongs to its own
// thread, but for what is marked.
class GroupWatch {
  public:
    // With g_Lock held. False, with nothing changed, when there are no means for it.
    static bool Add(const std::shared_ptr<Group>& group, ReceiveSocket& socket);
    // With g_Lock held. The socket is not touched any more.
    static void Remove(Group& group);
    // Without g_Lock: ends the thread when there is no group left.
    static void EndIfUnused();
    // With g_Lock held, in a child of fork(), which does not have the thread.
    static void Forget();

  private:
    static bool Start();
    static void* Run(void* watch);
    void Run();
    void TakeMessages();
    void Leave(uint32_t interface);
    void Look();
    static bool Replace(Group& group, const Descriptor& renewed, const Descriptor& old);
    std::vector<std::shared_ptr<Group>> Groups() const;
    void Wake() const;

    // Fixed after the start.
    pthread_t m_Thread{};
    Descriptor m_Messages;
    Descriptor m_Wakeup;
    uint64_t m_Network = 0;

    LookSchedule m_Schedule;

    // Set once, by whoever joins the thread then.
    std::atomic<bool> m_Stop{false};

    // Guarded by g_Lock.
    std::vector<std::shared_ptr<Group>> m_Groups;
};

}  // namespace zaqsockets

#endif
