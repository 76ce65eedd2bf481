// Decides how long the receive thread lets datagrams gather before it takes them.
#ifndef SOCKETS_GATHERING_H
#define SOCKETS_GATHERING_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <utility>

namespace zaqsockets {

// Waking up costs more than taking what has arrived. So while messages come steadily, the thread
// does not wake up for each of them, or for each burst that a sender makes once a millisecond, but
// sleeps for up to 4 ms; whoever reads what the callbacks store polls, too. Where they come rarely,
// or all of a sudden, they are taken at once. Thread safety: one thread.
class Gathering {
  public:
    using Duration = std::chrono::microseconds;

    // What one socket got in a window, by the share of its buffer that this would fill.
    struct Share {
        uint32_t BufferBytes = 0;  // as the kernel counts; 0 when it is not known
        uint32_t Window = 0;       // the window's number
        uint64_t Bytes = 0;
    };

    // The socket got a message of this length.
    void Count(Share& share, unsigned int length) {
        // What the kernel counts for a datagram of up to an Ethernet frame's size.
        constexpr uint64_t kFrameBytes = 1500;
        constexpr uint64_t kCountedBytes = 2304;
        ++m_Messages;
        if (std::exchange(share.Window, m_Window) != m_Window)
            share.Bytes = 0;
        share.Bytes += (length / kFrameBytes + 1) * kCountedBytes;
        m_Fullest = std::max(m_Fullest, double(share.Bytes) / (share.BufferBytes + 1.0));
    }

    // How long to sleep after a round in which all that had arrived was taken; 0 = not at all.
    Duration Pause() {
        constexpr double kMostFilled = 0.125;
        const auto now = std::chrono::steady_clock::now();
        const auto window = std::chrono::duration_cast<Duration>(now - m_WindowStart);
        ++m_Wakeups;
        if (window >= kWindow) {
            // A window that took longer contains a time in which nothing came.
            const bool steady = window < 2 * kWindow && m_Messages >= kLeastMessages &&
                                (m_Ticks > 0 || m_Wakeups >= kLeastWakeups);
            // As many as fill an eighth of the fullest buffer: the rate may rise to the eightfold.
            const double ticks = double(window / kTick) * kMostFilled / m_Fullest;
            m_Ticks = steady ? static_cast<int>(std::min(ticks, kMostTicks)) : 0;
            m_UsuallyFullest = m_Fullest;
            m_WindowStart = now;
            ++m_Window;
            m_Messages = m_Wakeups = 0;
            m_Fullest = 0;
        } else if (m_Fullest > 2 * m_UsuallyFullest) {
            m_Ticks = 0;  // more comes than before
        }
        return m_Ticks > 0 ? UntilTick(m_Ticks * kTick) : Duration::zero();
    }

  private:
    static constexpr std::chrono::milliseconds kWindow{16};
    static constexpr uint32_t kLeastMessages = 32;  // a train of datagrams counts as one
    static constexpr uint32_t kLeastWakeups = 12;
    static constexpr Duration kTick{1000};
    static constexpr double kMostTicks = 4;

    // Ends with a millisecond of the clock, as the sleeps of others do that send and receive by the
    // millisecond: so one timer interrupt wakes them all. A thread that had to wait for others must
    // not be due before them next time, or the timer would be programmed once more for each. So an
    // eighth of the lateness stays.
    static Duration UntilTick(Duration ticks) {
        const auto clock = std::chrono::system_clock::now().time_since_epoch();
        const Duration late = std::chrono::duration_cast<Duration>(clock) % kTick;
        return ticks - late + late / 8;
    }

    int m_Ticks = 0;              // to sleep between rounds
    double m_UsuallyFullest = 0;  // m_Fullest at the end of the last window
    // Of the present window.
    std::chrono::steady_clock::time_point m_WindowStart = std::chrono::steady_clock::now();
    uint32_t m_Window = 1;  // its number
    uint32_t m_Wakeups = 0;
    uint32_t m_Messages = 0;
    double m_Fullest = 0;
};

}  // namespace zaqsockets

#endif
