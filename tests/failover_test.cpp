// Which input is on air, and how one is joined to another, in virtual time.
#include <gtest/gtest.h>

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
using ts::Health;
using ts::Selector;

constexpr ts::Time kEpoch = std::chrono::hours(1000);

// The health of an input over time: "w3i2-4" is well for 3 s, ill for 2 s, and silent for 4 s.
Health healthAt(const char* course, ts::Time time) {
    char state = '-';
    for (ts::Time end{0}; *course != '\0' && time >= end; course += 2) {
        state = course[0];
        end += std::chrono::seconds(course[1] - '0');
    }
    return state == 'w' ? Health::kWell : state == 'i' ? Health::kIll : Health::kNone;
}

// What is on air, and since when: "A 0.0, B 2.0".
std::string onAir(const std::vector<const char*>& courses, const Selector::Options& options) {
    Selector selector(courses.size(), options);
    std::string told;
    for (ts::Time time{0}; time < 30s; time += 50ms) {
        for (size_t i = 0; i < courses.size(); ++i)
            selector.note(i, healthAt(courses[i], time), kEpoch + time);
        if (const auto choice = selector.choose(kEpoch + time)) {
            char text[32];
            snprintf(text, sizeof text, "%s%c %.1f", told.empty() ? "" : ", ",
                     static_cast<int>('A' + choice->input),
                     static_cast<double>(time.count()) / 1e9);
            told += text;
            EXPECT_NE(choice->before, choice->input);
        }
    }
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
        // Nothing is better than what is ill, or that is not sure yet.
        {{"w3i9w9w9", "i9i9i9i9"}, three, "A 0.0"},
        {{"w3i9w9w9", "i4w9w9w9w9"}, three, "A 0.0, B 5.0, A 15.0"},
        {{"w3-9w9w9", "i9i9i9i9"}, three, "A 0.0, B 3.0, A 13.0"},
        {{"w3-9-9-9", "w9w9w9w9", "w9w9w9w9"}, three, "A 0.0, B 3.0"},
        {{"w3-9-9-9", "i9i9i9i9", "w9w9w9w9"}, three, "A 0.0, C 3.0"},
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
    };
    for (const auto& one : cases)
        EXPECT_EQ(onAir(one.courses, one.options), one.expected) << one.expected;
}

// A stream of a PAT every 100 ms and of 1,000 numbered packets a second, in datagrams of seven.
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
                        ? Packets(std::string("\0\0", 2), std::string("\0", 1),
                                  std::string("\0\1\xc1\0\0", 5), pats_++ % 16)
                        : Packet({.pid = 0x100, .counter = static_cast<uint8_t>(count_++ % 16)});
                damage(packet);
                datagram += packet;
            }
            if (!datagram.empty())
                health_.push(BytesOf(datagram), time_);
            health_.tick(time_);
            const char state = "-iw"[static_cast<int>(health_.state())];
            if (number_ % 98 == 0)
                states += state;
        }
        return states;
    }
    ts::StreamHealth health_{300ms};
    ts::Time time_ = kEpoch;
    uint64_t number_ = 0, count_ = 0, pats_ = 0;
};

TEST_F(HealthTest, SilenceAndFaultsThatLastShowSingleOnesDoNot) {
    const auto nothing = [](std::string&) {};
    const auto all = [](std::string& packet) { packet.clear(); };
    const auto noise = [](std::string& packet) { packet.assign(188, 'x'); };
    std::mt19937 chance(1);
    const auto loss = [&chance](std::string& packet) {
        chance() % 50 == 0 ? packet.clear() : void();
    };
    const auto noPat = [](std::string& packet) {
        if (packet[1] == '\x40' && packet[2] == '\0')
            packet = Packet({.pid = 0x1FFF});
    };
    EXPECT_EQ(Run(3s, nothing).find_first_not_of("w"), std::string::npos);
    int lost = 0;
    EXPECT_EQ(Run(2s, [&](std::string& packet) { ++lost == 700 ? packet.clear() : void(); })
                  .find_first_not_of("w"),
              std::string::npos);
    EXPECT_EQ(Run(1s, all), "www-------");
    EXPECT_EQ(health_.fault(), ts::Check::kNoSignal);
    EXPECT_EQ(Run(2s, nothing).find_first_not_of("w", 1), std::string::npos);
    const std::string damaged = Run(2s, loss);
    EXPECT_LE(damaged.find("i"), 3u) << damaged;
    EXPECT_EQ(damaged.find("w", damaged.find("i")), std::string::npos) << damaged;
    EXPECT_EQ(health_.fault(), ts::Check::kContinuity);
    const std::string healed = Run(3s, nothing);
    EXPECT_EQ(healed.find("w"), healed.rfind("i") + 1) << healed;
    EXPECT_NEAR(static_cast<double>(healed.find("w")), 9.0, 2.0) << healed;
    // Packets come, and no receiver can do anything with them.
    const std::string blind = Run(3s, noPat);
    EXPECT_NEAR(static_cast<double>(blind.find("i")), 6.0, 2.0) << blind;
    EXPECT_EQ(health_.fault(), ts::Check::kPat);
    EXPECT_EQ(blind.find("w", blind.find("i")), std::string::npos) << blind;
    const std::string noisy = Run(1s, noise);
    EXPECT_EQ(noisy.substr(noisy.size() - 5), "-----");
}

TEST_F(HealthTest, AStreamThatNeverHadTablesIsJudgedByItsPackets) {
    EXPECT_EQ(Run(
                  9s, [](std::string&) {}, false)
                  .find_first_not_of("w"),
              std::string::npos);
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

}  // namespace
