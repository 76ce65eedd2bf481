// What the channels and streams of this machine did in the last hour, second by second.
#ifndef TOOLS_PAGE_HISTORY_H
#define TOOLS_PAGE_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// One second, or the sum of several. NaN = not known.
struct HistoryPoint {
    static constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
    float bitrate_bps = kNone;  // the mean
    float jitter_ms = kNone;    // the largest
    float errors = kNone;       // in all
};

// Seconds are those of a clock that never goes back.
//
// Thread safety: one thread adds, any thread reads.
class History {
  public:
    static constexpr int64_t kSeconds = 3600;
    // More than that are there only where hosts come and go; the oldest give way then. A whole hour
    // of all of them takes 22 MB.
    static constexpr size_t kMostSeries = 512;

    void add(const std::string& series, int64_t second, const HistoryPoint& point);
    // Drops what has had no point for an hour.
    void expire(int64_t now);

    struct Excerpt {
        int64_t begin = 0;  // of the first point
        int64_t interval = 1;
        std::vector<HistoryPoint> points;
    };
    // The hour that ends with `now` in so many points at most; empty if there is no such series.
    Excerpt read(const std::string& series, int64_t now, size_t mostPoints) const;

    size_t size() const;

  private:
    class Series {
      public:
        void add(int64_t second, const HistoryPoint& point);
        HistoryPoint at(int64_t second) const;
        int64_t last() const { return last_; }

      private:
        void put(int64_t second, const HistoryPoint& point);

        std::vector<HistoryPoint> points_;  // a ring, once it has an hour
        int64_t begin_ = 0;                 // of the first place
        int64_t last_ = 0;
    };

    mutable std::mutex mutex_;  // guards all
    std::map<std::string, Series> series_;
};

#endif
