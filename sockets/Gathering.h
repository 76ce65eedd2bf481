// Decides how long the receive thread lets datagrams gather before it takes them.
#ifndef SOCKETS_GATHERING_H
#define SOCKETS_GATHERING_H

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace zaqsockets {

// Waking up costs more than taking what has arrived. So while messages come steadily, the thread
// does not wake up for each of them, or for each burst that a sender makes once a millisecond, but
// sleeps for up to 4 ms; whoever reads what the callbacks store polls, too. Where they come rarely,
// or all of a sudden, they are taken at once. Thread safety: one thread.
class Gathering {
  public:
    using Duration = std::chrono::microseconds;

    // What one socket got since the latest pause, measured by the share of its buffer that this
    // filled.
    class Share {
      public:
        // The buffer's size, as the kernel counts; 0 when it is not known.
        explicit Share(uint32_t bufferBytes) : m_BufferBytes(bufferBytes) {}

      private:
        friend class Gathering;
        const uint32_t m_BufferBytes;
        uint32_t m_Pause = 0;  // the number of that pause
        uint64_t m_Bytes = 0;
    };

    // The socket got a message of this length.
    void Count(Share& share, unsigned int length) {
        // What the kernel counts for a datagram of up to an Ethernet frame's size.
        constexpr uint64_t kFrameBytes = 1500;
        constexpr uint64_t kCountedBytes = 2304;
        ++m_Messages;
        if (share.m_Pause != m_Pauses)
            share.m_Bytes = 0;
        share.m_Pause = m_Pauses;
        share.m_Bytes += (length / kFrameBytes + 1) * kCountedBytes;
        const double filled =
            share.m_BufferBytes == 0 ? 1 : double(share.m_Bytes) / share.m_BufferBytes;
        m_Fullest = std::max(m_Fullest, filled);
    }

    // How long to sleep after a round in which all that had arrived was taken; 0 = not at all.
    Duration Pause() {
        const auto now = std::chrono::steady_clock::now();
        ++m_Wakeups;
        if (now - m_WindowStart >= kWindow) {
            // A window that took longer contains a time in which nothing came.
            m_Gather = now - m_WindowStart < 2 * kWindow && m_Messages >= kLeastMessages &&
                       (m_Gather || m_Wakeups >= kLeastWakeups);
            m_WindowStart = now;
            m_Messages = m_Wakeups = 0;
        }
        const Duration ticks = m_Gather ? Ticks(std::chrono::duration_cast<Duration>(now - m_Slept))
                                        : Duration::zero();
        m_Fullest = 0;
        m_Slept = now;
        ++m_Pauses;
        return ticks == Duration::zero() ? ticks : UntilTick(ticks);
    }

  private:
    static constexpr std::chrono::milliseconds kWindow{16};
    static constexpr uint32_t kLeastMessages = 32;  // a train of datagrams counts as one
    static constexpr uint32_t kLeastWakeups = 12;
    static constexpr Duration kTick{1000};
    static constexpr Duration kLongest{4 * kTick};

    // As many as fill a quarter of the fullest socket's buffer at the rate of the time since the
    // latest pause. So the rate may rise to the fourfold meanwhile without a loss.
    Duration Ticks(Duration elapsed) const {
        constexpr double kMostFilled = 0.25;
        if (elapsed > kLongest + kWindow)
            return Duration::zero();  // nothing came for a while
        const double allowed = double(elapsed.count()) * kMostFilled / std::max(m_Fullest, 1e-9);
        const auto ticks = static_cast<int64_t>(allowed / double(kTick.count()));
        return std::min(ticks * kTick, kLongest);
    }

    // Ends with a millisecond of the clock, as the sleeps of others do that send and receive by the
    // millisecond: so one timer interrupt wakes them all. A thread that had to wait for others must
    // not be due before them next time: its timer would then be programmed anew, and theirs, too.
    // So an eighth of the lateness stays.
    static Duration UntilTick(Duration ticks) {
        const auto clock = std::chrono::system_clock::now().time_since_epoch();
        const Duration late = std::chrono::duration_cast<Duration>(clock) % kTick;
        return ticks - late + late / 8;
    }

    std::chrono::steady_clock::time_point m_WindowStart = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point m_Slept = m_WindowStart;  // began the latest pause
    uint32_t m_Pauses = 0;
    uint32_t m_Wakeups = 0;  // in this window, as m_Messages
    uint32_t m_Messages = 0;
    double m_Fullest = 0;  // since the latest pause
    bool m_Gather = false;
};

}  // namespace zaqsockets

#endif
