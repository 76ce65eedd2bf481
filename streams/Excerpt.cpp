#include "Excerpt.h"

using std::chrono::nanoseconds;

Excerpt::Excerpt(size_t packetSize, std::optional<uint32_t> bitrate_bps, nanoseconds start,
                 std::optional<nanoseconds> duration)
    : packetSize_(packetSize),
      bitrate_bps_(bitrate_bps),
      start_(start),
      duration_(duration),
      time_(packetSize, bitrate_bps),
      begun_(start == nanoseconds(0)) {}

Excerpt::Part Excerpt::add(std::span<const uint8_t> packets) {
    if (begun_ && !duration_)
        return {0, packets.size()};
    size_t skipped = 0;
    for (size_t at = 0; at < packets.size(); at += packetSize_) {
        passed_ = time_.add(packets.data() + at);
        if (!begun_) {
            if (passed_ < start_) {
                skipped = at + packetSize_;
                continue;
            }
            begun_ = true;
            time_ = StreamTime(packetSize_, bitrate_bps_);
            passed_ = time_.add(packets.data() + at);
        }
        if (duration_ && passed_ >= *duration_) {
            over_ = true;
            return {skipped, at - skipped};
        }
    }
    return {skipped, packets.size() - skipped};
}
