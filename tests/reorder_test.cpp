// RTP in order, of one path or of several, in virtual time: beside a model that sorts what came.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Reorderer.h"
#include "StreamSupport.h"

using namespace std::chrono_literals;
using ts::Reorderer;
using ts::Time;

namespace {

constexpr Time kNever = Time::max() / 2;

struct Header {
    uint16_t sequence = 0;
    uint32_t timestamp = 0;
    uint32_t ssrc = 1;
};

// What it carries is one packet, with the mark in it.
std::string Datagram(const Header& header, uint32_t mark) {
    return RtpHeader(header.sequence, header.timestamp, header.ssrc) + "\x47" + BigEndian(mark, 4) +
           std::string(183, '\x47');
}

uint32_t MarkOf(std::span<const uint8_t> payload) {
    return uint32_t{payload[1]} << 24 | uint32_t{payload[2]} << 16 | uint32_t{payload[3]} << 8 |
           payload[4];
}

struct Arrival {
    Time time;
    size_t path;
    Header header;
    uint32_t mark;
};

struct Delivered {
    uint32_t mark;
    Time time;
    uint64_t missing;
    bool operator==(const Delivered&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Delivered& delivered) {
    return out << delivered.mark << " at " << delivered.time.count() << ", missing "
               << delivered.missing;
}

class Player {
  public:
    explicit Player(const Reorderer::Options& options) : reorderer(options) {}

    void Play(std::vector<Arrival> arrivals) {
        std::stable_sort(arrivals.begin(), arrivals.end(),
                         [](const Arrival& a, const Arrival& b) { return a.time < b.time; });
        for (const Arrival& arrival : arrivals) {
            PassTo(arrival.time);
            reorderer.push(BytesOf(Datagram(arrival.header, arrival.mark)), now, arrival.path,
                           sink);
        }
    }
    void PassTo(Time time) {
        for (auto due = reorderer.next(); due && *due <= time; due = reorderer.next()) {
            ASSERT_GE(*due, now) << "what is due is due since a while";
            now = *due;
            reorderer.release(now, sink);
        }
        now = time;
        reorderer.release(now, sink);
    }
    std::vector<uint32_t> Marks() const {
        std::vector<uint32_t> marks;
        for (const Delivered& each : delivered)
            marks.push_back(each.mark);
        return marks;
    }

    Reorderer reorderer;
    Time now{0};
    std::vector<Delivered> delivered;
    std::vector<Time> begins;
    const Reorderer::Sink sink = [this](const Reorderer::Delivery& delivery) {
        delivered.push_back({MarkOf(delivery.payload), now, delivery.missing});
        if (delivery.begins)
            begins.push_back(now);
    };
};

constexpr Time kInterval = 1ms;

Header HeaderOf(uint32_t index, uint16_t first = 65'000, uint32_t ssrc = 1, uint32_t stamp = 0) {
    return {static_cast<uint16_t>(first + index), stamp + index * 90, ssrc};
}

std::vector<Arrival> Sent(uint32_t from, uint32_t count, Time at, uint16_t first = 65'000,
                          uint32_t ssrc = 1, uint32_t stamp = 0, size_t path = 0) {
    std::vector<Arrival> arrivals;
    for (uint32_t i = from; i < from + count; ++i)
        arrivals.push_back({at + (i - from) * kInterval, path, HeaderOf(i, first, ssrc, stamp), i});
    return arrivals;
}

template <typename Element>
std::vector<Element> operator+(std::vector<Element> a, const std::vector<Element>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<uint32_t> Range(uint32_t from, uint32_t to) {
    std::vector<uint32_t> marks;
    for (uint32_t i = from; i < to; ++i)
        marks.push_back(i);
    return marks;
}

struct Channel {
    double loss = 0.0;
    uint32_t burst = 1;
    double reordered = 0.0;  // these are delayed by up to `jitter`
    Time jitter = 0ms;
    double doubled = 0.0;
    Time skew = 0ms;
    Time down = kNever, up = kNever;
};

struct Scenario {
    const char* name;
    Time window;
    std::vector<Channel> paths;
    uint32_t count = 5000;
};

std::vector<Arrival> Impair(const Scenario& scenario, uint32_t seed) {
    std::mt19937 random(seed);
    const auto chance = [&](double share) {
        return std::uniform_real_distribution<>(0.0, 1.0)(random) < share;
    };
    std::vector<Arrival> arrivals;
    for (size_t path = 0; path < scenario.paths.size(); ++path) {
        const Channel& channel = scenario.paths[path];
        uint32_t losing = 0;
        for (uint32_t i = 0; i < scenario.count; ++i) {
            Time time = i * kInterval + channel.skew;
            if (losing == 0 && chance(channel.loss / channel.burst))
                losing = channel.burst;
            const bool lost = losing > 0 || (time >= channel.down && time < channel.up);
            losing -= losing > 0 ? 1 : 0;
            if (lost)
                continue;
            const auto delay = [&] {
                return std::uniform_int_distribution<int64_t>(0, channel.jitter.count())(random) *
                       1ns;
            };
            if (chance(channel.reordered))
                time += delay();
            arrivals.push_back({time, path, HeaderOf(i), i});
            if (chance(channel.doubled))
                arrivals.push_back({time + delay(), path, HeaderOf(i), i});
        }
    }
    return arrivals;
}

struct Expected {
    std::vector<Delivered> delivered;
    std::vector<ts::PathReport> paths;
    uint64_t lost = 0;
};

// A number is given up when a higher one has waited for the window, and everything leaves as soon
// as nothing in front of it is left open.
Expected Model(const Scenario& scenario, std::vector<Arrival> arrivals) {
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.time < b.time; });
    std::vector<Time> came(scenario.count, kNever);
    std::vector<std::vector<bool>> brought(scenario.paths.size(),
                                           std::vector<bool>(scenario.count));
    std::vector<uint32_t> joined(scenario.paths.size(), scenario.count);
    for (const Arrival& arrival : arrivals) {
        came[arrival.mark] = std::min(came[arrival.mark], arrival.time);
        brought[arrival.path][arrival.mark] = true;
        if (arrival.mark >= arrivals[0].mark)
            joined[arrival.path] = std::min(joined[arrival.path], arrival.mark);
    }
    std::vector<Time> deadline(scenario.count, kNever);
    for (uint32_t i = scenario.count - 1; i > 0; --i)
        deadline[i - 1] = std::min(deadline[i], came[i] + scenario.window);
    Expected expected;
    Time open = 0s;
    uint64_t missing = 0;
    for (uint32_t i = arrivals[0].mark; i < scenario.count; ++i) {
        if (came[i] < deadline[i] || (i == arrivals[0].mark)) {
            open = std::max(open, came[i]);
            expected.delivered.push_back({i, open, missing});
            expected.lost += missing;
            missing = 0;
        } else {
            open = std::max(open, std::min(deadline[i], kNever));
            ++missing;
        }
    }
    for (size_t path = 0; path < scenario.paths.size(); ++path) {
        ts::PathReport report;
        for (uint32_t i = joined[path]; i <= expected.delivered.back().mark; ++i) {
            if (brought[path][i])
                continue;
            ++report.lost;
            report.saved += std::any_of(brought.begin(), brought.end(),
                                        [&](const auto& other) { return other[i]; });
        }
        expected.paths.push_back(report);
    }
    return expected;
}

TEST(Reorderer, DeliversWhatCameWithinTheWindowInOrderOnceAndNoLaterThanItMust) {
    const Channel clean, bad{.loss = 0.05, .reordered = 0.2, .jitter = 45ms, .doubled = 0.05};
    const Scenario scenarios[] = {
        {"clean", 50ms, {clean}, 20'000},
        {"loss", 50ms, {{.loss = 0.05}}},
        {"bursts", 50ms, {{.loss = 0.05, .burst = 10}}},
        {"reordering", 50ms, {{.reordered = 0.2, .jitter = 45ms}}},
        {"beyond the window", 20ms, {{.loss = 0.01, .reordered = 0.1, .jitter = 40ms}}},
        {"no window", 0ms, {{.loss = 0.01, .reordered = 0.1, .jitter = 10ms, .doubled = 0.1}}},
        {"duplicates", 50ms, {{.jitter = 30ms, .doubled = 0.5}}},
        {"all", 50ms, {bad}, 20'000},
        {"a second", 1s, {{.loss = 0.01, .reordered = 0.5, .jitter = 900ms}}},
        {"two paths", 50ms, {bad, bad}},
        {"skew", 50ms, {{.loss = 0.1}, {.loss = 0.1, .skew = 49ms}}},
        {"skew beyond the window", 50ms, {{.loss = 0.1}, {.skew = 80ms}}},
        {"four paths", 100ms, {bad, {.loss = 0.5, .skew = 50ms}, {.loss = 0.9}, bad}},
        {"down", 50ms, {{.down = 1s, .up = 2s}, {.skew = 30ms, .down = 3s, .up = 4s}}},
        {"both down", 50ms, {{.down = 1s, .up = 2s}, {.skew = 30ms, .down = 1500ms, .up = 3s}}},
    };
    for (const Scenario& scenario : scenarios) {
        for (uint32_t seed = 1; seed <= 5; ++seed) {
            SCOPED_TRACE(testing::Message() << scenario.name << " " << seed);
            const auto arrivals = Impair(scenario, seed);
            const Expected expected = Model(scenario, arrivals);
            Player player({.window = scenario.window});
            player.Play(arrivals);
            player.PassTo(player.now + 5s);
            player.PassTo(player.now + 5s);
            ASSERT_EQ(player.delivered, expected.delivered);
            const ts::RepairCounts& counts = player.reorderer.counts();
            EXPECT_EQ(counts.received, arrivals.size());
            EXPECT_EQ(counts.delivered, expected.delivered.size());
            EXPECT_EQ(counts.lost, expected.lost);
            EXPECT_EQ(counts.restarts + counts.ssrcChanges, 0U);
            EXPECT_EQ(player.begins.size(), 1U);
            for (size_t path = 0; path < scenario.paths.size(); ++path) {
                const ts::PathReport report = player.reorderer.path(path, player.now);
                EXPECT_EQ(report.lost, expected.paths[path].lost) << path;
                EXPECT_EQ(report.saved, expected.paths[path].saved) << path;
                EXPECT_FALSE(report.alive);
            }
        }
    }
}

struct Turn {
    const char* name;
    std::vector<Arrival> arrivals;
    std::vector<uint32_t> marks;
    uint64_t restarts = 0, ssrcChanges = 0, strays = 0, lost = 0;
};

// Marks tell the sequences apart: the second one's begin at 10,000.
std::vector<Arrival> Second(uint32_t count, Time at, uint16_t first, uint32_t ssrc, size_t path = 0,
                            uint32_t from = 10'000) {
    return Sent(from, count, at, static_cast<uint16_t>(first - 10'000), ssrc, 123'456'789, path);
}

TEST(Reorderer, RecognisesWhatBeginsAnewWithinTheWindowAndLosesNothing) {
    const auto both = [](uint32_t second) {
        return Range(0, 1000) + Range(10'000, 10'000 + second);
    };
    auto without = Sent(0, 1000, 0ms), skewed = Sent(0, 1000, 40ms, 65'000, 1, 0, 1);
    std::erase_if(without, [](const Arrival& arrival) { return arrival.mark >= 990; });
    const auto stray = [](uint16_t sequence, uint32_t ssrc) {
        return std::vector<Arrival>{{300ms + 1ns, 0, {sequence, 77, ssrc}, 99'999}};
    };
    const Turn turns[] = {
        {"another number", Sent(0, 1000, 0s) + Second(500, 1001ms, 30'000, 1), both(500), 1},
        {"a number that was there", Sent(0, 1000, 0s) + Second(500, 1001ms, 65'100, 1), both(500),
         1},
        {"all numbers and timestamps that were there",
         Sent(0, 1000, 0s) + Sent(10'000, 500, 1001ms, 55'000, 1, -900'000U), both(500), 1},
        {"and so soon that it passes the end before that counts as silent",
         Sent(0, 1000, 0s) + Sent(10'000, 1500, 1001ms, 55'980, 1, -900'000U), both(1500), 1},
        {"another sender", Sent(0, 1000, 0s) + Second(500, 1001ms, 30'000, 2), both(500), 0, 1},
        {"another sender on two paths, one of which lost the end",
         without + skewed + Second(500, 1010ms, 30'000, 2) + Second(500, 1050ms, 30'000, 2, 1),
         both(500), 0, 1},
        {"the same on two paths, of which one lost the beginning",
         Sent(0, 1000, 0s) + skewed + Second(490, 1020ms, 30'000, 1, 0, 10'010) +
             Second(500, 1040ms, 30'000, 1, 1),
         both(500), 1},
        {"a long loss", Sent(0, 1000, 0s) + Sent(11'000, 500, 11s),
         Range(0, 1000) + Range(11'000, 11'500), 0, 0, 0, 10'000},
        {"a stray far off", Sent(0, 1000, 0s) + stray(20'000, 1), Range(0, 1000), 0, 0, 0},
        {"a stray ahead", Sent(0, 1000, 0s) + stray(1500, 1), Range(0, 1000), 0, 0, 1},
        {"a stray behind", Sent(0, 1000, 0s) + stray(65'100, 1), Range(0, 1000)},
        {"a stray of another", Sent(0, 1000, 0s) + stray(65'300, 2), Range(0, 1000)},
        {"two senders at once, one of which ends",
         Sent(0, 1000, 0s) + Sent(9000, 1500, 500us, 30'000, 2, 777),
         {},
         0,
         1},
    };
    for (const Turn& turn : turns) {
        SCOPED_TRACE(turn.name);
        Player player({});
        player.Play(turn.arrivals);
        player.PassTo(player.now + 1s);
        const ts::RepairCounts& counts = player.reorderer.counts();
        EXPECT_EQ(counts.restarts, turn.restarts);
        EXPECT_EQ(counts.ssrcChanges, turn.ssrcChanges);
        Time longest = 0ms;
        for (size_t i = 1; i < player.delivered.size(); ++i)
            longest = std::max(longest, player.delivered[i].time - player.delivered[i - 1].time);
        if (turn.lost == 0) {
            EXPECT_LE(longest, 55ms);
        }
        EXPECT_EQ(counts.lost, turn.lost);
        auto marks = turn.marks;
        if (marks.empty()) {
            // All of one, and then all of the other since that time.
            const uint32_t since = player.delivered.at(1000).mark;
            EXPECT_GE(since, 9940U);
            EXPECT_LE(since, 10'000U);
            marks = Range(0, 1000) + Range(since, 10'500);
        } else {
            EXPECT_GE(counts.strays, turn.strays);
        }
        EXPECT_EQ(player.Marks(), marks);
    }
}

TEST(Reorderer, TakesNothingFromAPathWhoseNumbersAreThoseOfOtherDatagrams) {
    // The second path's sender was stopped for 300 ms, and is as many numbers behind since.
    auto arrivals = Sent(0, 2000, 0s);
    std::erase_if(arrivals, [](const Arrival& arrival) { return arrival.mark % 50 == 49; });
    const size_t first = arrivals.size();
    for (uint32_t i = 300; i < 2500; ++i) {
        Header header = HeaderOf(i);
        header.sequence = static_cast<uint16_t>(header.sequence - 300);
        arrivals.push_back({i * kInterval + 1us, 1, header, i});
    }
    Player player({.window = 200ms});
    player.Play(arrivals);
    player.PassTo(player.now + 1s);
    // It takes over where the first one ends, and neither repeats nor leaves out anything.
    auto marks = Range(0, 2500);
    std::erase_if(marks, [](uint32_t mark) { return mark < 1999 && mark % 50 == 49; });
    EXPECT_EQ(player.Marks(), marks);
    EXPECT_EQ(player.reorderer.counts().delivered, first + 501);
    EXPECT_EQ(player.reorderer.counts().restarts, 1U);
    EXPECT_EQ(player.reorderer.counts().lost, 2000U / 50 - 1);
}

TEST(Reorderer, DeliversWhatIsNotRtpAsItComesAndOfOnePathOnly) {
    Reorderer reorderer({});
    std::string delivered;
    const Reorderer::Sink sink = [&](const Reorderer::Delivery& delivery) {
        delivered += delivery.rtp ? 'r' : static_cast<char>(delivery.payload[0]);
    };
    const auto push = [&](const std::string& text, Time at, size_t path) {
        reorderer.push(BytesOf(text), at, path, sink);
    };
    push("a", 0ms, 0);
    push(Datagram({1}, 0), 1ms, 0);
    push(Datagram({3}, 0), 2ms, 0);
    push("b", 3ms, 0);
    push("B", 4ms, 1);
    push("c", 5ms, 0);
    push(Datagram({2}, 0), 6ms, 1);
    push("D", 320ms, 1);
    push("d", 321ms, 0);
    EXPECT_EQ(delivered, "arbcrrD");
    EXPECT_EQ(reorderer.counts().raw, 4U);
    EXPECT_EQ(reorderer.counts().rawExtra, 2U);
}

TEST(Reorderer, TellsHowFarThePathsAreApartAndWhichAreThere) {
    Player player({});
    player.Play(Sent(0, 3000, 0s) + Sent(500, 1000, 530ms, 65'000, 1, 0, 2));
    EXPECT_EQ(player.reorderer.path(0, player.now).skew, 0ms);
    EXPECT_EQ(player.reorderer.path(2, player.now).greatestSkew, 30ms);
    EXPECT_TRUE(player.reorderer.path(0, player.now).alive);
    EXPECT_FALSE(player.reorderer.path(1, player.now).alive);
    EXPECT_FALSE(player.reorderer.path(2, player.now).alive);
    EXPECT_EQ(player.reorderer.memory(), 0U) << "nothing had to wait";
}

TEST(Reorderer, StaysWithinItsMemoryWhateverComes) {
    std::mt19937 engine(7);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    const struct {
        Time interval;
        size_t extra;
        uint16_t step;     // of the numbers; 0 = any
        uint32_t senders;  // 0 = any
    } floods[] = {{1us, 0, 0, 1},      {0us, 0, 0, 1},         {1us, 0, 1, 0},     {0us, 0, 2, 1},
                  {0us, 60'000, 2, 2}, {1us, 60'000, 1000, 3}, {1ms, 0, 65'535, 1}};
    for (const auto& [interval, extra, step, senders] : floods) {
        SCOPED_TRACE(testing::Message() << interval.count() << ' ' << step << ' ' << senders);
        Reorderer reorderer({.window = 1s, .memory = 4 << 20});
        const Reorderer::Sink sink = [](const Reorderer::Delivery&) {};
        size_t most = 0;
        for (uint32_t i = 0; i < 20'000; ++i) {
            const Header header{static_cast<uint16_t>(step != 0 ? i * step : random()),
                                step != 0 ? i : random(), senders != 0 ? i % senders : random()};
            const std::string datagram = Datagram(header, 0) + std::string(extra, 'x');
            reorderer.push(BytesOf(datagram), i * interval, i % 4, sink);
            most = std::max(most, reorderer.memory());
        }
        EXPECT_LE(most, size_t{4} << 20);
        // The stream that comes after the flood is delivered again.
        Time now = 20'000 * interval;
        uint64_t before = 0;
        for (uint32_t i = 0; i < 3000; ++i, now += 1ms) {
            reorderer.push(BytesOf(Datagram(HeaderOf(i, 5000, 77), i)), now, 0, sink);
            before = i == 2000 ? reorderer.counts().delivered : before;
        }
        EXPECT_EQ(reorderer.counts().delivered - before, 999U);
    }
}

}  // namespace
