// The monitor of a stream, in virtual time: streams with seeded faults, and what is said of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>

#include "StreamMonitor.h"
#include "StreamSupport.h"

using namespace std::chrono_literals;
using namespace std::string_literals;
using ts::Check;
using ts::Time;

namespace {

constexpr uint16_t kPmt = 0x100, kVideo = 0x101, kAudio = 0x102;

std::string PesStart(const PacketFields& fields, char streamId) {
    std::string packet = Packet(fields);
    packet[1] |= 0x40;
    const std::string header = "\0\0\1"s + streamId + "\0\0\x80\x80\5\x21\0\1\0\1"s;
    std::copy(header.begin(), header.end(), packet.begin() + 4);
    return packet;
}

// A packet in each millisecond, 1.504 Mbit/s: one programme, all tables of DVB, null packets.
class Multiplex {
  public:
    explicit Multiplex(uint64_t firstPcr) : firstPcr_(firstPcr) {}

    std::string Next() {
        const uint64_t i = index_++;
        const uint64_t pcr = (firstPcr_ + i * 27'000) % kPcrModulus;
        if (i % 100 == 0)
            return Table("\0\0"s, "\0"s, "\0\1\xC1\0\0\0\5\xE1\0"s);
        if (i % 100 == 1)
            return Table("\1\0"s, "\2", "\0\5\xC1\0\0\xE1\1\xF0\0\x1B\xE1\1\xF0\0\3\xE1\2\xF0\0"s);
        if (i % 1000 == 2)
            return Table("\0\x11"s, "\x42", "\0\1\xC1\0\0\0\1\xFF"s);
        if (i % 1000 == 503)
            return Table("\0\x10"s, "\x40", "\0\1\xC1\0\0\xF0\0\xF0\0"s);
        if (i % 1000 == 604 || i % 1000 == 654)
            return Table(
                "\0\x12"s, "\x4E",
                i % 1000 == 604 ? "\0\5\xC1\0\1\0\1\0\1\1\x4E"s : "\0\5\xC1\1\1\0\1\0\1\1\x4E"s);
        if (i % 10'000 == 705)
            return Table("\0\x14"s, "\x70", "\xC0\x79\x12\x45"s);  // the TDT has no CRC to check
        switch (i % 40) {
            case 10:
                return Packet(
                    {.pid = kVideo, .counter = counters_[kVideo], .payload = false, .pcr = pcr});
            case 11:
                return PesStart({.pid = kVideo, .counter = ++counters_[kVideo]}, '\xE0');
            case 35:
                return PesStart({.pid = kAudio, .counter = ++counters_[kAudio]}, '\xC0');
            default:
                return i % 40 > 11 && i % 40 < 30
                           ? Packet({.pid = kVideo, .counter = ++counters_[kVideo]})
                           : Packet({.pid = 0x1FFF});
        }
    }

  private:
    std::string Table(const std::string& pid, const std::string& table, const std::string& body) {
        return Packets(pid, table, body, counters_[static_cast<uint8_t>(pid[1]) | pid[0] << 8]++);
    }

    const uint64_t firstPcr_;
    uint64_t index_ = 0;
    std::map<int, uint8_t> counters_;
};

struct Sent {
    Time arrival;
    std::string bytes;
    uint16_t port = 1000;
};

struct Scenario {
    Time length = 20s;
    bool rtp = false;
    uint64_t firstPcr = 0;
    // Changes a packet; one that becomes empty is not sent, and more may be added to it.
    std::function<void(Time, std::string&)> packets = {};
    std::function<void(std::vector<Sent>&)> datagrams = {};  // of ten seconds
    ts::MonitorLimits limits = {};
};

std::string Rtp(uint16_t sequence, Time time) {
    return RtpHeader(sequence, static_cast<uint32_t>(time.count() / 1000 * 9 / 100), 0);
}

void Play(const Scenario& scenario, ts::StreamMonitor& monitor) {
    Multiplex multiplex(scenario.firstPcr);
    uint16_t sequence = 65'000;
    Time looked = 0s, now = 0s;
    std::string carried;
    const auto tickTo = [&](Time time) {
        for (; looked < time; looked += 40ms)
            monitor.tick(looked);
    };
    while (now < scenario.length) {
        std::vector<Sent> sent;
        for (int i = 0; i < 10'000; ++i, now += 1ms) {
            std::string packet = multiplex.Next();
            if (scenario.packets)
                scenario.packets(now, packet);
            carried += packet;
            if (carried.size() >= 7 * 188) {
                sent.push_back({now, (scenario.rtp ? Rtp(sequence++, now) : "") + carried});
                carried.clear();
            }
        }
        if (scenario.datagrams)
            scenario.datagrams(sent);
        for (const Sent& datagram : sent) {
            tickTo(datagram.arrival);
            monitor.add({BytesOf(datagram.bytes), datagram.arrival, {{}, datagram.port}, 64, 40});
        }
    }
    tickTo(now);
}

constexpr uint64_t kSome = UINT64_MAX;  // any number but 0
using Verdicts = std::map<Check, uint64_t>;

std::string Names(const Verdicts& verdicts) {
    std::string names;
    for (const auto& [check, count] : verdicts)
        names.append(info(check).name)
            .append(count == kSome ? " some; " : " " + std::to_string(count) + "; ");
    return names;
}

// That the monitor finds just these.
void Judge(const char* what, const Scenario& scenario, Verdicts expected = {}) {
    const auto monitor = std::make_unique<ts::StreamMonitor>(scenario.limits);
    Play(scenario, *monitor);
    const ts::MonitorReport report = monitor->report();
    Verdicts found;
    for (size_t i = 0; i < ts::kChecks; ++i) {
        const uint64_t count = report.checks[i].count;
        const auto check = static_cast<Check>(i);
        if (count > 0)
            found[check] = expected.contains(check) && expected[check] == kSome ? kSome : count;
    }
    EXPECT_EQ(Names(found), Names(expected)) << what;
}

uint16_t PidOf(const std::string& packet) {
    return ts_get_pid(reinterpret_cast<const uint8_t*>(packet.data()));
}

// Between two moments, of one PID.
auto During(Time begin, Time end, uint16_t pid, std::function<void(std::string&)> change) {
    return [=](Time time, std::string& packet) {
        if (time >= begin && time < end && PidOf(packet) == pid)
            change(packet);
    };
}

// Only the first of them.
auto Once(Time begin, uint16_t pid, std::function<void(std::string&)> change) {
    return [=, done = false](Time time, std::string& packet) mutable {
        if (time >= begin && PidOf(packet) == pid && !std::exchange(done, true))
            change(packet);
    };
}

void Remove(std::string& packet) {
    packet.clear();
}
void Replace(std::string& packet) {
    packet = Packet({.pid = 0x1FFF});
}
void Scramble(std::string& packet) {
    packet[3] |= '\x80';
}
void Flip(std::string& packet) {
    packet[12] ^= 1;
}

// Moves a PCR, where there is one.
auto Shift(int64_t ticks, bool announced = false) {
    return [=](std::string& packet) {
        auto* const data = reinterpret_cast<uint8_t*>(packet.data());
        if (const auto pcr = readPcr(data))
            writePcr(data, (pcr->ticks + kPcrModulus + static_cast<uint64_t>(ticks)) % kPcrModulus,
                     announced);
    };
}

auto FirstPcr(Time begin, std::function<void(std::string&)> change) {
    return [=, done = false](Time time, std::string& packet) mutable {
        if (time >= begin && readPcr(BytesOf(packet).data()) && !std::exchange(done, true))
            change(packet);
    };
}

TEST(MonitorLogic, FindsEachFaultOfAStreamAndNoOther) {
    const auto wrongTable = [](std::string& packet) {
        packet = Packets("\0\0"s, "\x80", "\0\1\xC1\0\0\0\5\xE1\0"s,
                         static_cast<size_t>(packet[3] & 0xF));
    };
    // In place of a packet of the PID.
    const auto table = [](const char* id, const std::string& body, bool damaged) {
        return [=](std::string& packet) {
            const bool null = PidOf(packet) == 0x1FFF;
            packet = Packets(null ? "\0\1"s : packet.substr(1, 2), id, body,
                             static_cast<size_t>(packet[3] & 0xF));
            if (damaged)
                Flip(packet);
        };
    };
    const std::string catBody = "\xFF\xFF\xC1\0\0"s, bat = "\0\5\xC1\0\0\xF0\0\xF0\0"s,
                      tot = "\xC0\x79\x12\x45\0\xF0\0"s;
    const auto scrambledWith = [](bool cat) {
        return [=, count = size_t{0}](Time time, std::string& packet) mutable {
            if (cat && time % 1s == 31ms)
                packet = Packets("\0\1"s, "\1", "\xFF\xFF\xC1\0\0"s, count++);
            else if (PidOf(packet) == kAudio)
                Scramble(packet);
        };
    };
    const struct {
        const char* what;
        std::function<void(Time, std::string&)> packets;
        Verdicts expected;
    } cases[] = {
        {"1.1: bytes between packets",
         Once(5s, kVideo, [](auto& packet) { packet += "0123456789"; }),
         {{Check::kSyncLoss, 1}, {Check::kSyncByte, 2}, {Check::kDatagramSize, 1}}},
        {"1.2", Once(5s, kAudio, [](auto& packet) { packet[0] = 'F'; }), {{Check::kSyncByte, 1}}},
        {"1.3: late",
         During(5s, 5700ms, 0, Replace),
         {{Check::kPat, 1}, {Check::kContinuity, 1}, {Check::kMediaLoss, 1}}},
        {"1.3: table", Once(5s, 0, wrongTable), {{Check::kPat, 1}}},
        {"1.3: scrambled", Once(5s, 0, Scramble), {{Check::kPat, 1}}},
        {"1.4: missing",
         Once(5s, kAudio, Remove),
         {{Check::kContinuity, 1}, {Check::kMediaLoss, 1}}},
        {"1.4: twice is permitted", Once(5s, kAudio, [](auto& packet) { packet += packet; }), {}},
        {"1.4: three times",
         Once(5s, kAudio, [](auto& packet) { packet += packet + packet; }),
         {{Check::kContinuity, 1}}},
        {"1.5: late", During(5s, 6600ms, kPmt, Replace), {{Check::kPmt, 3}}},
        {"1.5: scrambled", Once(5s, kPmt, Scramble), {{Check::kPmt, 1}}},
        {"1.6, and 2.5 since no PTS came either",
         During(5s, 5s + 16 * 400ms, kAudio, Replace),
         {{Check::kPid, 1}, {Check::kPts, 1}}},
        {"2.1",
         Once(5s, kAudio, [](auto& packet) { packet[1] |= '\x80'; }),
         {{Check::kTransport, 1}, {Check::kContinuity, 1}, {Check::kMediaLoss, 1}}},
        {"2.2: PAT", Once(5s, 0, Flip), {{Check::kCrc, 1}}},
        {"2.2: PMT", Once(5s, kPmt, Flip), {{Check::kCrc, 1}}},
        {"2.2: NIT", Once(5s, 0x10, Flip), {{Check::kCrc, 1}}},
        {"2.2: SDT", Once(5s, 0x11, Flip), {{Check::kCrc, 1}}},
        {"2.2: EIT", Once(5s, 0x12, Flip), {{Check::kCrc, 1}}},
        {"2.2: CAT", Once(5s, 0x1FFF, table("\1", catBody, true)), {{Check::kCrc, 1}}},
        {"2.2: BAT", Once(5s, 0x11, table("\x4A", bat, true)), {{Check::kCrc, 1}}},
        {"2.2: TOT", Once(0s, 0x14, table("\x73", tot, true)), {{Check::kCrc, 1}}},
        {"2.2: a right CAT", Once(5s, 0x1FFF, table("\1", catBody, false)), {}},
        {"2.2: a right BAT", Once(5s, 0x11, table("\x4A", bat, false)), {}},
        {"2.2: a right TOT", Once(0s, 0x14, table("\x73", tot, false)), {}},
        {"2.2: TDT has none", Once(0s, 0x14, Flip), {}},
        {"2.3: 160 ms",
         During(5s, 5140ms, kVideo,
                [](auto& packet) {
                    if (readPcr(BytesOf(packet).data()))
                        packet = Packet({.pid = 0x1FFF});
                }),
         {{Check::kPcrRepetition, 1}, {Check::kPcrDiscontinuity, 1}}},
        {"2.3: ahead", During(5s, 99s, kVideo, Shift(13'500'000)), {{Check::kPcrDiscontinuity, 1}}},
        {"2.3: back", During(5s, 99s, kVideo, Shift(-13'500'000)), {{Check::kPcrDiscontinuity, 1}}},
        {"2.3: announced",
         [then = During(5030ms, 99s, kVideo, Shift(-13'500'000)),
          first = FirstPcr(5s, Shift(-13'500'000, true))](Time time, std::string& packet) mutable {
             first(time, packet);
             then(time, packet);
         },
         {}},
        {"2.4: 592 ns", FirstPcr(5s, Shift(16)), {{Check::kPcrAccuracy, 1}}},
        {"2.4: 407 ns", FirstPcr(5s, Shift(-11)), {}},
        {"2.4: all",
         [](Time time, std::string& packet) { Shift(time / 1ms % 7 * 50 - 150)(packet); },
         {{Check::kPcrAccuracy, kSome}}},
        {"2.4: lost null packets are not a wrong PCR", During(5431ms, 5438ms, 0x1FFF, Remove), {}},
        {"2.4: null packets that are left out often",
         [](Time time, std::string& packet) {
             if (PidOf(packet) == 0x1FFF && time % 100ms == 33ms)
                 packet.clear();
         },
         {{Check::kPcrAccuracy, kSome}}},
        {"2.5",
         During(5s, 6s, kVideo, [](auto& packet) { packet[11] &= '\x3F'; }),
         {{Check::kPts, 1}}},
        {"2.6: no CAT", scrambledWith(false), {{Check::kCat, kSome}}},
        {"2.6: a CAT", scrambledWith(true), {}},
        {"3.2: late",
         During(5s, 8s, 0x11, Replace),
         {{Check::kSiRepetition, 1}, {Check::kContinuity, 1}, {Check::kMediaLoss, 1}}},
        {"3.2: at once",
         [again = ""s](Time time, std::string& packet) mutable {
             if (PidOf(packet) == 0x10)
                 again = packet;
             else if (!again.empty() && PidOf(packet) == 0x1FFF && time < 5s)
                 packet = std::exchange(again, ""), packet[3] ^= '\x08';
         },
         {{Check::kSiRepetition, 5}, {Check::kContinuity, kSome}, {Check::kMediaLoss, kSome}}},
        {"3.4",
         During(5s, 8s, 0x1FFF, [](auto& packet) { packet = Packet({.pid = 0x300}); }),
         {{Check::kUnreferencedPid, kSome}, {Check::kContinuity, kSome}}},
    };
    for (const auto& c : cases)
        Judge(c.what, {.packets = c.packets}, c.expected);
}

using Sending = std::vector<Sent>;

TEST(MonitorLogic, FindsEachFaultOfTheNetworkAndNoOther) {
    const auto jitter = [](Sending& sent) {  // in order, up to 28 ms late
        for (size_t i = 1; i < sent.size(); ++i)
            sent[i].arrival = std::max(sent[i].arrival + Time(i % 5 * 7ms), sent[i - 1].arrival);
    };
    const auto hold = [](Sending& sent) {
        for (size_t i = 700; i < 729; ++i)
            sent[i].arrival = sent[729].arrival;
    };
    const auto erase = [](long first, long count) {
        return
            [=](Sending& sent) { sent.erase(sent.begin() + first, sent.begin() + first + count); };
    };
    const auto swap = [](Sending& sent) { std::swap(sent[700].bytes, sent[703].bytes); };
    const auto twice = [](Sending& sent) { sent.insert(sent.begin() + 700, sent[700]); };
    const auto halve = [](Sending& sent) { sent[700].bytes.resize(600); };
    const auto others = [](size_t end, size_t step, size_t senders) {
        return [=](Sending& sent) {
            for (size_t i = 700; i < std::min(end, sent.size()); i += step)
                sent[i].port = static_cast<uint16_t>(2000 + i % senders);
        };
    };
    const std::pair<Check, uint64_t> counters{Check::kContinuity, kSome};
    const struct {
        const char* what;
        bool rtp;
        std::function<void(Sending&)> datagrams;
        Verdicts expected;
    } cases[] = {
        {"held back for 200 ms", true, hold, {{Check::kDelayFactor, 2}}},
        {"three lost",
         true,
         erase(700, 3),
         {{Check::kRtpLoss, 6}, counters, {Check::kMediaLoss, 2}}},
        {"one lost, raw", false, erase(700, 1), {counters, {Check::kMediaLoss, kSome}}},
        {"two in the wrong order", true, swap, {counters}},
        {"twice", true, twice, {}},
        {"twice, raw", false, twice, {counters, {Check::kMediaLoss, kSome}}},
        {"half a datagram",
         true,
         halve,
         {{Check::kDatagramSize, 2}, {Check::kSyncLoss, 2}, {Check::kSyncByte, 4}, counters}},
        {"another sender for a second",
         false,
         others(840, 2, 1),
         {{Check::kSecondSender, 2 * 139}}},
        {"more senders in turns than are remembered",
         false,
         others(840, 1, 20),
         {{Check::kSecondSender, kSome}}},
        {"the sender began anew", false, others(SIZE_MAX, 1, 1), {}},
        {"nothing for three seconds", false, erase(400, 429), {{Check::kNoSignal, 2}}},
    };
    for (const auto& c : cases)
        Judge(c.what, {.rtp = c.rtp, .datagrams = c.datagrams}, c.expected);
    ts::MonitorLimits jittery;
    jittery.transport.tolerance = 40ms;
    Judge("jitter", {.rtp = true, .datagrams = jitter, .limits = jittery});
}

TEST(MonitorLogic, MeasuresWhatTheNetworkDidToRtp) {
    ts::StreamMonitor monitor({});
    Play({.length = 10s,
          .rtp = true,
          .datagrams =
              [](Sending& sent) {
                  for (size_t i = 0; i < sent.size(); i += 3)
                      sent[i].arrival += 3ms;
                  std::swap(sent[100].bytes, sent[105].bytes);
                  sent.erase(sent.begin() + 500, sent.begin() + 510);
                  sent.insert(sent.begin() + 900, sent[900]);
                  // From 1000 on a sender that began anew; from 1100 on, 4096 are missing.
                  const auto raise = [&sent](size_t from, size_t byte, int by) {
                      for (size_t i = from; i < sent.size(); ++i)
                          sent[i].bytes.replace(byte, 1, 1,
                                                static_cast<char>(sent[i].bytes[byte] + by));
                  };
                  raise(1000, 2, 100);
                  raise(1000, 4, 50);
                  raise(1100, 2, 16);
              }},
         monitor);
    const ts::MonitorReport report = monitor.report();
    const ts::RtpReport rtp = report.reception.rtp.value();
    EXPECT_EQ(rtp.counts.lost, 10u + 4096u);
    EXPECT_EQ(rtp.counts.reordered, 5u) << "the one that came late, and four behind the early one";
    EXPECT_EQ(rtp.counts.furthest, 5u);
    EXPECT_EQ(rtp.counts.duplicates, 1u);
    EXPECT_EQ(rtp.counts.restarts, 1u);
    EXPECT_NEAR(rtp.jitter_ms, 2.0, 0.3) << "3 ms, 3 ms, none";
    EXPECT_NEAR(rtp.timestampRate.value(), 90'000.0, 200.0);
    EXPECT_NEAR(report.reception.intervals->p50_ms, 7.0, 0.6);
    EXPECT_NEAR(report.reception.intervals->p99_ms, 10.0, 0.9);
    EXPECT_EQ(report.delivery.lost, 7u * (10u + 4096u));
    EXPECT_NEAR(report.delivery.delayFactor_ms.value(), 10.0, 0.1) << "a datagram, and 3 ms";
    EXPECT_NEAR(static_cast<double>(report.bitrate_bps.value()), 1'504'000.0, 20'000.0);
    EXPECT_EQ(report.reception.dscps, std::vector<uint8_t>{40});
}

TEST(MonitorLogic, RaisesNoAlarmOnACleanStream) {
    const auto hour = [](Sending& sent) {
        for (size_t i = 0; i < sent.size(); ++i)
            sent[i].arrival += Time(i * 7919 % 997 * 6000);  // up to 6 ms: they keep their order
    };
    ts::MonitorLimits strict;
    strict.transport.tablesRequired = true;
    // The PCRs wrap after ten minutes.
    Judge("hour", {.length = 1h,
                   .rtp = true,
                   .firstPcr = kPcrModulus - 600 * kPcrHz,
                   .datagrams = hour,
                   .limits = strict});
    // Of a rate that varies: null packets go, and the others flow on.
    ts::StreamMonitor varying({});
    Play({.packets = During(0s, 20s, kNullPid, Remove)}, varying);
    EXPECT_EQ(varying.takeEvents().size(), 0u);
    EXPECT_EQ(varying.report().pcrs.constantRate, false);
    // Watching begins within a section and behind its tables.
    const auto late = [](Time time, std::string& packet) { packet.erase(time < 950ms ? 0 : 188); };
    Judge("late", {.packets = late});
}

TEST(MonitorLogic, RaisesAndClearsAlarmsWithHysteresis) {
    ts::Alarms alarms({.raiseAfter = 2s, .clearAfter = 5s, .ignored = 1u << 3});
    std::string told;
    const auto tell = [&](Time now) {
        alarms.tick(now);
        for (const ts::AlarmEvent& event : alarms.takeEvents())
            told += (event.raised ? "+" : "-") + event.detail + "@" +
                    std::to_string(event.time / 1s) + " ";
    };
    for (const Time at : {10s, 11s, 30s, 31s, 33s, 34s, 37s, 60s}) {
        for (Time now = at - 1s; now < at; now += 1s)
            tell(now);
        alarms.fail(Check::kContinuity, at, {"PID #", {at / 1s}});
        alarms.fail(Check::kPat, at, {});
        tell(at);
        if (at == 37s)
            tell(42s);
    }
    EXPECT_EQ(told, "+PID 33@33 -PID 37@42 ");
    EXPECT_EQ(alarms.state(Check::kPat).count, 8u) << "ignored, but counted";
}

}  // namespace
