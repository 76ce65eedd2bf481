// The hour of the page's history: a ring of seconds.
#include <gtest/gtest.h>

#include <cmath>

#include "page/History.h"

namespace {

// The rates of the hour that ends at `now`, or of its last `seconds`; -1 = not known.
std::vector<int> Rates(const History& history, int64_t now, size_t points, size_t seconds) {
    const History::Excerpt hour = history.read("a", now, points);
    EXPECT_EQ(hour.begin + hour.interval * static_cast<int64_t>(hour.points.size()),
              now - now % hour.interval);
    std::vector<int> rates;
    for (const HistoryPoint& point : hour.points)
        rates.push_back(std::isnan(point.bitrate_bps) ? -1 : static_cast<int>(point.bitrate_bps));
    const size_t count = seconds / static_cast<size_t>(hour.interval);
    return {rates.end() - static_cast<std::ptrdiff_t>(count), rates.end()};
}

void Add(History& history, int64_t second, float rate, float errors = 0) {
    history.add("a", second, {rate, rate / 10, errors});
}

TEST(History, HoldsTheLastHourWithItsGapsWhateverWentBefore) {
    History history;
    for (int64_t second = 1; second <= 9000; ++second)  // the ring goes round twice and a half
        if (second % 5 != 0)
            Add(history, second, static_cast<float>(second));
    const std::vector<int> hour = Rates(history, 9000, 3600, 3600);
    for (size_t i = 0; i < hour.size(); ++i) {
        const int second = 5400 + static_cast<int>(i);
        EXPECT_EQ(hour[i], second % 5 == 0 || second == 5400 ? -1 : second);
    }
    // A clock that goes back changes nothing.
    Add(history, 8999, 1);
    Add(history, 8000, 1);
    EXPECT_EQ(Rates(history, 9000, 3600, 3600), hour);
    // A gap within the hour, and one that is longer.
    Add(history, 9003, 7);
    EXPECT_EQ(Rates(history, 9004, 3600, 6), (std::vector<int>{8998, 8999, -1, -1, -1, 7}));
    Add(history, 9003 + 3600, 8);
    EXPECT_EQ(Rates(history, 9004 + 3600, 3600, 3600), [] {
        std::vector<int> rates(3600, -1);
        rates.back() = 8;
        return rates;
    }());
}

TEST(History, SumsUpWholeIntervalsAndForgetsWhatIsOver) {
    History history;
    for (int64_t second = 7201; second <= 7260; ++second)
        Add(history, second, second < 7230 ? 100 : 300, 2);
    const History::Excerpt hour = history.read("a", 7260, 60);
    ASSERT_EQ(hour.points.size(), 60u);
    EXPECT_EQ(hour.interval, 60);
    EXPECT_NEAR(hour.points.back().bitrate_bps, 202, 1);  // the mean
    EXPECT_EQ(hour.points.back().jitter_ms, 30);          // the largest
    EXPECT_EQ(hour.points.back().errors, 2 * 59);         // of seconds 7201 to 7259
    EXPECT_TRUE(std::isnan(hour.points[58].bitrate_bps));
    EXPECT_TRUE(history.read("b", 7260, 60).points.empty());

    history.expire(7260 + 3599);
    EXPECT_EQ(history.size(), 1u);
    history.expire(7260 + 3600);
    EXPECT_EQ(history.size(), 0u);
    // Where too many come, the one that was silent longest gives way.
    for (size_t i = 0; i <= History::kMostSeries; ++i)
        history.add(std::to_string(i), 8000 + static_cast<int64_t>(i), {});
    EXPECT_EQ(history.size(), History::kMostSeries);
    EXPECT_TRUE(history.read("0", 9000, 60).points.empty());
    EXPECT_FALSE(history.read("1", 9000, 60).points.empty());
}

}  // namespace
