// Which input is on air, and how one is joined to another, in virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "Parity.h"
#include "Selector.h"
#include "Splicer.h"
#include "StreamHealth.h"
#include "StreamSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ts::Health;
using ts::Selector;

constexpr ts::Time kEpoch = std::chrono::hours(1000);

// What an input is like over time: "w3i2-4" is well for 3 s, ill for 2 s, and silent for 4 s; "s"
// is silence that does not show yet.
char stateAt(const char* course, ts::Time time) {
    char state = '-';
    for (ts::Time end{0}; *course != '\0' && time >= end; course += 2) {
        state = course[0];
        end += std::chrono::seconds(course[1] - '0');
    }
    return state;
}

// What is on air, and since when: "A 0.0, B 2.0".
std::string onAir(const std::vector<const char*>& courses, const Selector::Options& options) {
    Selector selector(courses.size(), options);
    std::vector<ts::Time> heard(courses.size());
    std::string told;
    for (ts::Time time{0}; time < 30s; time += 50ms) {
        for (size_t i = 0; i < courses.size(); ++i) {
            const char state = stateAt(courses[i], time);
            heard[i] = state == 's' ? heard[i] : kEpoch + time;
            selector.note(i,
                          state == '-'   ? Health::kNone
                          : state == 'i' ? Health::kIll
                                         : Health::kWell,
                          heard[i]);
        }
        if (const auto choice = selector.choose(kEpoch + time)) {
            char text[32];
            snprintf(text, sizeof text, "%s%c %.1f", told.empty() ? "" : ", ",
                     static_cast<int>('A' + choice->input),
                     static_cast<double>(time.count()) / 1e9);
            told += text;
            EXPECT_NE(choice->before, choice->input);
            const char left = choice->before ? stateAt(courses[*choice->before], time) : ' ';
            EXPECT_EQ(choice->reason, !choice->before ? Selector::Reason::kBegin
                                      : left == '-'   ? Selector::Reason::kNoSignal
                                      : left == 'i'   ? Selector::Reason::kIll
                                                      : Selector::Reason::kReturn)
                << told;
        }
    }
    EXPECT_EQ(selector.switches(), std::count(told.begin(), told.end(), ','));
    return told;
}

TEST(Selector, UsesTheBestInputAndReturnsWhenItHasBeenCalm) {
    const Selector::Options three{.returnAfter = 3s}, never{.returnAfter = std::nullopt};
    const Selector::Options slate{.returnAfter = 3s, .lastResort = true};
    const Selector::Options slateNever{.returnAfter = std::nullopt, .lastResort = true};
    const char* const well = "w9w9w9w9";
    const struct {
        std::vector<const char*> courses;
        Selector::Options options;
        const char* expected;
    } cases[] = {
        {{well, well}, three, "A 0.0"},
        {{"w2-3w9w9w9", well}, three, "A 0.0, B 2.0, A 8.0"},
        {{"w2-3w9w9w9", well}, never, "A 0.0, B 2.0"},
        // Ill for a moment while it is calm: the time counts anew.
        {{"w2-3w2i1w9w9w9", well}, three, "A 0.0, B 2.0, A 11.0"},
        {{"w2-1w2-1w2-1w2-1w9w9", well}, three, "A 0.0, B 2.0, A 15.0"},
        {{"w3i9w9w9", well}, three, "A 0.0, B 3.0, A 15.0"},
        // It is silent again when it has been calm for long enough.
        {{"w2-3w2s2-9", well}, three, "A 0.0, B 2.0"},
        {{"-9-3w9", "-2w1s1-9", "w9w9w9w9"}, slate, "C 1.0, A 13.0"},
        // Nothing is better than what is ill, or that is not sure yet.
        {{"w3i9w9w9", "i9i9i9i9"}, three, "A 0.0"},
        {{"w3i9w9w9", "i4w9w9w9w9"}, three, "A 0.0, B 5.0, A 15.0"},
        {{"w3-9w9w9", "i9i9i9i9"}, three, "A 0.0, B 3.0, A 13.0"},
        {{"w3-9-9-9", "w9w9w9w9", "w9w9w9w9"}, three, "A 0.0, B 3.0"},
        {{"w3-9-9-9", "i9i9i9i9", "w9w9w9w9"}, three, "A 0.0, C 3.0"},
        {{"w3i9i9i9", well, well}, three, "A 0.0, B 3.0"},
        // Nothing at all: what comes first is used.
        {{"w2-9-9", "-5w9w9w9"}, three, "A 0.0, B 5.0"},
        {{"w2-5w9w9", "-9-9-9-9"}, three, "A 0.0"},
        // In the beginning, the first one is waited for.
        {{"-2w9w9w9", well}, three, "B 1.0, A 5.0"},
        {{"-5-5-9-9", "-3w9w9w9"}, three, "B 3.0"},
        // A last resort is left for anything that lasts.
        {{"w2-2w9w9w9", "-9-9-9-9", well}, slate, "A 0.0, C 2.0, A 5.0"},
        {{"w2-2w9w9w9", "w3-9-9-9", well}, slateNever, "A 0.0, B 2.0, C 3.0, A 5.0"},
        {{"w2-9-9-9", "-5i9i9", well}, slate, "A 0.0, C 2.0, B 6.0"},
        {{"w3i9w9w9", well}, slate, "A 0.0"},
        {{"w2-2w9w9w9", well}, {.returnAfter = 500ms, .lastResort = true}, "A 0.0, B 2.0, A 4.5"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(onAir(one.courses, one.options), one.expected) << one.expected;
}

// A stream of a PAT and a PMT every 100 ms and of 1,000 numbered packets a second, in datagrams of
// seven.
class HealthTest : public testing::Test {
  protected:
    // Passes on the packets for which `lost` is false; returns the states, "w" for each 100 ms.
    template <typename Damage>
    std::string Run(ts::Time length, Damage damage, bool tables = true) {
        std::string states;
        for (const ts::Time end = time_ + length; time_ < end; time_ += 7ms) {
            std::string datagram;
            for (int i = 0; i < 7; ++i, ++number_) {
                std::string packet =
                    number_ % 100 == 0 && tables
                        ? Packets("\0\0"s, "\0"s, "\0\1\xc1\0\0\0\1\xe0\x20"s, pats_++ % 16)
                    : number_ % 100 == 50 && tables
                        ? Packets("\0\x20"s, "\2"s, "\0\1\xc1\0\0\xe1\0\xf0\0\x1b\xe1\0\xf0\0"s,
                                  pmts_++ % 16)
                        : Packet({.pid = 0x100, .counter = static_cast<uint8_t>(count_++ % 16)});
                damage(packet);
                datagram += packet;
            }
            pending_ += datagram;
            if (!pending_.empty() && time_ - pushed_ >= burst_)
                health_->push(BytesOf(std::exchange(pending_, "")), pushed_ = time_);
            health_->tick(time_);
            const char state = "-iw"[static_cast<int>(health_->state())];
            if (number_ % 98 == 0)
                states += state;
        }
        return states;
    }
    std::optional<ts::StreamHealth> health_{std::in_place, 300ms};
    ts::Time time_ = kEpoch, pushed_{}, burst_{};
    std::string pending_;
    uint64_t number_ = 0, count_ = 0, pats_ = 0, pmts_ = 0;
};

void Nothing(std::string&) {}

TEST_F(HealthTest, SilenceAndFaultsThatLastShowSingleOnesDoNot) {
    const auto all = [](std::string& packet) { packet.clear(); };
    const auto noise = [](std::string& packet) { packet.assign(188, 'x'); };
    std::mt19937 chance(1);
    const auto loss = [&chance](std::string& packet) {
        chance() % 50 == 0 ? packet.clear() : void();
    };
    const auto without = [](int high, int low) {  // bytes of the PID
        return [=](std::string& packet) {
            if ((packet[1] & 0x1F) == high && packet[2] == low)
                packet = Packet({.pid = 0x1FFF});
        };
    };
    EXPECT_EQ(Run(3s, Nothing).find_first_not_of("w"), std::string::npos);
    const auto few = [lost = 0](std::string& packet) mutable {
        (++lost / 20 == 35 && lost % 4 == 0) ? packet.clear() : void();
    };
    EXPECT_EQ(Run(2s, few).find_first_not_of("w"), std::string::npos);
    EXPECT_EQ(Run(1s, all), "www-------");
    EXPECT_EQ(health_->fault(), ts::Check::kNoSignal);
    EXPECT_EQ(Run(2s, Nothing).find_first_not_of("w", 1), std::string::npos);
    const std::string damaged = Run(2s, loss);
    EXPECT_LE(damaged.find("i"), 3u) << damaged;
    EXPECT_EQ(damaged.find("w", damaged.find("i")), std::string::npos) << damaged;
    EXPECT_EQ(health_->fault(), ts::Check::kContinuity);
    const std::string healed = Run(3s, Nothing);
    EXPECT_EQ(healed.find("w"), healed.rfind("i") + 1) << healed;
    EXPECT_NEAR(static_cast<double>(healed.find("w")), 9.0, 2.0) << healed;
    // Packets come, and no receiver can do anything with them: so long, until that shows, and up
    // to six seconds longer than it lasts.
    const struct {
        int high, low;
        double shows;  // in tenths of a second
        ts::Check fault;
    } cases[] = {
        {0, 0, 6, ts::Check::kPat}, {0, 0x20, 6, ts::Check::kPmt}, {1, 0, 51, ts::Check::kPid}};
    for (const auto& [high, low, shows, fault] : cases) {
        const std::string blind = Run(14s, without(high, low));
        EXPECT_NEAR(static_cast<double>(blind.find("i")), shows, 2.0) << blind;
        EXPECT_EQ(health_->fault(), fault);
        EXPECT_EQ(blind.find("w", blind.find("i")), std::string::npos) << blind;
        const std::string seeing = Run(8s, Nothing);
        EXPECT_LT(seeing.find("w"), 65u) << seeing;
        EXPECT_EQ(seeing.find("i", seeing.find("w")), std::string::npos) << seeing;
    }
    const std::string noisy = Run(1s, noise);
    EXPECT_EQ(noisy.substr(noisy.size() - 5), "-----");
    EXPECT_EQ(health_->fault(), ts::Check::kNoSignal);
}

TEST_F(HealthTest, WithPatienceBurstsAreWell) {
    health_.emplace(std::chrono::hours(1000));
    burst_ = 3s;
    EXPECT_EQ(Run(19s, Nothing).find_first_not_of("w", 35), std::string::npos);
}

TEST_F(HealthTest, AStreamThatNeverHadTablesIsJudgedByItsPackets) {
    EXPECT_EQ(Run(9s, Nothing, false).find_first_not_of("w"), std::string::npos);
}

// What is announced, as the standard has it, told packet by packet in another way than by the code.
TEST(Splicer, AnnouncesCutsOfEachPidAndChangesNothingElse) {
    for (const size_t size : {size_t{188}, size_t{204}})
        for (unsigned seed = 0; seed < 200; ++seed) {
            std::mt19937 chance(seed);
            const auto one = [&chance](unsigned in) { return chance() % in == 0; };
            ts::Splicer splicer;
            ContinuityCounter counter;
            std::map<uint16_t, uint8_t> counters;
            std::map<uint16_t, bool> before, first, clocked, clock;
            for (int call = 0; call < 30; ++call) {
                if (one(5)) {
                    splicer.cut();
                    for (auto& [pid, next] : counters) {
                        next = static_cast<uint8_t>(chance() % 16);
                        before[pid] = first[pid] = true;
                        clocked[pid] = false;
                    }
                }
                std::string sent, expected;
                for (int i = 0; i < 12; ++i) {
                    const auto pid = static_cast<uint16_t>(one(6) ? 0x1FFF : 0x100 + chance() % 4);
                    PacketFields fields{.pid = pid, .counter = 0};
                    fields.payload = pid == 0x1FFF || !one(6);
                    fields.counter = static_cast<uint8_t>(
                        fields.payload ? counters[pid]++ % 16 : (counters[pid] + 15) % 16);
                    if (pid == 0x100 && one(2))
                        fields.pcr = chance();
                    std::string packet = Packet(fields, size);
                    if (pid != 0x100 && fields.payload && one(4)) {
                        packet[3] |= 0x20;  // a field of no length, which holds no flag
                        packet[4] = 0;
                    }
                    if (size == 204)
                        ts::writeParity(reinterpret_cast<uint8_t*>(packet.data()));
                    sent += packet;
                    const bool fieldThere = (packet[3] & 0x20) != 0 && packet[4] != 0;
                    const bool isFirst = pid != 0x1FFF && before[pid] && first[pid];
                    const bool ofClock = clock[pid] && before[pid] && !clocked[pid] && fieldThere;
                    std::string carrier = packet;
                    if (isFirst && !fieldThere)
                        carrier =
                            Packet({.pid = pid,
                                    .counter = static_cast<uint8_t>((fields.counter + 15) % 16),
                                    .payload = false},
                                   size);
                    if (isFirst || ofClock) {
                        carrier[5] = static_cast<char>(carrier[5] | 0x80);
                        if (size == 204)
                            ts::writeParity(reinterpret_cast<uint8_t*>(carrier.data()));
                    }
                    expected += carrier;
                    if (isFirst && !fieldThere)
                        expected += packet;
                    first[pid] = false;
                    clocked[pid] = clocked[pid] || fields.pcr;
                    clock[pid] = clock[pid] || fields.pcr;
                }
                const auto joined = splicer.join(BytesOf(sent), size);
                ASSERT_TRUE(std::string(joined.begin(), joined.end()) == expected) << seed;
                for (size_t at = 0; at < joined.size(); at += size)
                    counter.add(joined.data() + at);
            }
            EXPECT_EQ(counter.errors(), 0u) << seed;
        }
}

TEST(Splicer, ForgetsAClockThatTheNewStreamHasOnAnotherPid) {
    ts::Splicer splicer;
    const std::string before = Packet({.pid = 0x100, .pcr = 1});
    splicer.join(BytesOf(before), 188);
    splicer.cut();
    int announced = 0;
    for (int i = 0; i < 100; ++i) {  // 40 ms
        std::string flags = Packet({.pid = 0x100, .payload = false});
        flags += Packet({.pid = 0x101, .pcr = (kPcrModulus - 1 + i * kPcrHz / 25) % kPcrModulus});
        const auto joined = splicer.join(BytesOf(flags), 188);
        announced += (joined[5] & 0x80) != 0;
    }
    EXPECT_NEAR(announced, 26, 2);
}

}  // namespace
