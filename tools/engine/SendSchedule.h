// Keeps a send channel to the time of the stream that it sends.
#ifndef TOOLS_ENGINE_SENDSCHEDULE_H
#define TOOLS_ENGINE_SENDSCHEDULE_H

#include <chrono>
#include <cstdint>
#include <optional>

#include "engine/PacedStream.h"

// A change of the bitrate works on what leaves from that moment on. So it is asked for when the
// first byte of a stretch is about to leave, not when it is handed to the channel, and aims at the
// time at which the stretch has to be over. Whatever an earlier change lost is made up for in that
// way.
class SendSchedule {
  public:
    using Clock = std::chrono::steady_clock;

    SendSchedule(uint32_t bitrate_bps, size_t datagramBytes)
        : bitrate_bps_(bitrate_bps), datagramBytes_(datagramBytes) {}

    // To be asked often: the bitrate to change to now, if there is need for a change. `sent` bytes
    // have left the buffer, and the next ones belong to the stretch.
    std::optional<uint32_t> change(uint64_t sent, const PacedStream::Stretch& stretch,
                                   Clock::time_point now);

    // For a channel that is fed at the stream's pace: how late the byte is at this moment, below 0
    // if early. The first that is asked about is in time, and so is the first after restart().
    std::chrono::duration<double> lateness(uint64_t byte, const PacedStream::Stretch& stretch,
                                           Clock::time_point now);
    void restart() { origin_.reset(); }

    uint32_t bitrate() const { return bitrate_bps_; }

  private:
    uint32_t bitrate_bps_;
    size_t datagramBytes_;
    std::optional<Clock::time_point> origin_;  // when the stream's time 0 was
    uint64_t settled_ = 0;                     // the end of the stretch looked at last
};

#endif
