// What FEC restores, in virtual time: beside a model that solves the same equations as sets.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "FecDecoder.h"
#include "Reorderer.h"
#include "StreamSupport.h"

using namespace std::chrono_literals;
using ts::Time;

namespace {

enum class Spread { kAtOnce, kOverTheNext, kStaggered };

struct Scenario {
    const char* name;
    uint32_t columns, rows;
    bool withRows = false;
    Spread spread = Spread::kAtOnce;
    double loss = 0.01;
    uint32_t burst = 1;
    double fecLoss = 0.0;
    Time jitter = 0ms;
    uint32_t count = 6000;
};

// Numbers wrap, lengths differ, and so do markers, padding and contributing sources.
std::string Media(uint32_t index, std::mt19937& random) {
    const bool marker = random() % 8 == 0, padded = random() % 8 == 0, mixed = random() % 8 == 0;
    std::string text = {static_cast<char>(0x80 | (padded ? 0x20 : 0) | (mixed ? 1 : 0)),
                        static_cast<char>(33 | (marker ? 0x80 : 0))};
    text.append(BigEndian(uint16_t(64'000 + index), 2));
    text.append(BigEndian(index * 90, 4)).append(BigEndian(77, 4));
    text.append(mixed ? "CSRC" : "");
    for (size_t packet = 1 + random() % 7; packet > 0; --packet)
        text.append(1, '\x47').append(BigEndian(random(), 4)).append(183, char(random()));
    return padded ? text.append("\0\0\3", 3) : text;
}

void Overwrite(std::string& text, size_t at, const std::string& bytes) {
    std::copy(bytes.begin(), bytes.end(), text.begin() + static_cast<std::ptrdiff_t>(at));
}

struct Event {
    Time time;
    bool fec;
    std::string datagram;
};

struct Stream {
    std::vector<std::string> media;
    std::vector<Event> events;
    std::set<uint32_t> received, restorable;
};

Stream Send(const Scenario& scenario, uint32_t seed) {
    std::mt19937 random(seed);
    const auto chance = [&](double share) {
        return std::uniform_real_distribution<>(0.0, 1.0)(random) < share;
    };
    const uint32_t matrix = scenario.columns * scenario.rows;
    Stream stream;
    uint32_t losing = 0;
    for (uint32_t i = 0; i < scenario.count; ++i) {
        stream.media.push_back(Media(i, random));
        // What waits for has to be learnt before anything is lost, and all parity has to be there.
        const bool calm = i < 2 * matrix || i + 2 * matrix + 50 > scenario.count;
        if (!calm && losing == 0 && chance(scenario.loss / scenario.burst))
            losing = scenario.burst;
        if (losing > 0) {
            --losing;
            continue;
        }
        stream.received.insert(i);
        const Time late = scenario.jitter * static_cast<int>(random() % 8) / 8;
        stream.events.push_back({i * 1ms + late, false, stream.media[i]});
    }
    std::vector<std::vector<uint32_t>> parities;
    const auto protect = [&](uint32_t base, uint32_t offset, uint32_t count, Time sent) {
        std::vector<uint32_t> members;
        std::vector<std::string> datagrams;
        for (uint32_t i = base; members.size() < count; i += offset) {
            if (i >= scenario.count)
                return;
            members.push_back(i);
            datagrams.push_back(stream.media[i]);
        }
        if (chance(scenario.fecLoss))
            return;
        parities.push_back(members);
        stream.events.push_back(
            {sent, true,
             ParityOf(datagrams, static_cast<uint8_t>(offset), offset < scenario.columns)});
    };
    for (uint32_t first = 0; first < scenario.count; first += matrix) {
        for (uint32_t column = 0; column < scenario.columns; ++column) {
            const bool staggered = scenario.spread == Spread::kStaggered;
            const uint32_t row = staggered ? column % scenario.rows : 0;
            const uint32_t base = first + row * scenario.columns + column;
            const uint32_t wait =
                scenario.spread == Spread::kOverTheNext ? column * scenario.rows + 1 : 0;
            const uint32_t last = base + (scenario.rows - 1) * scenario.columns;
            protect(base, scenario.columns, scenario.rows,
                    (wait > 0 ? first + matrix + wait : last) * 1ms);
        }
        for (uint32_t row = 0; scenario.withRows && row < scenario.rows; ++row) {
            const uint32_t base = first + row * scenario.columns;
            protect(base, 1, scenario.columns, (base + scenario.columns - 1) * 1ms);
        }
    }
    std::stable_sort(stream.events.begin(), stream.events.end(),
                     [](const Event& a, const Event& b) { return a.time < b.time; });
    stream.restorable = stream.received;
    for (bool more = true; more;) {
        more = false;
        for (const auto& members : parities) {
            std::vector<uint32_t> missing;
            std::copy_if(members.begin(), members.end(), std::back_inserter(missing),
                         [&](uint32_t i) { return stream.restorable.count(i) == 0; });
            more |= missing.size() == 1 && stream.restorable.insert(missing[0]).second;
        }
    }
    return stream;
}

// A decoder with what puts the datagrams in order behind it.
struct Receiver {
    void Push(const Event& event) {
        for (auto due = reorderer.next(); due && *due <= event.time; due = reorderer.next())
            reorderer.release(*due, deliver);
        const ts::FecDecoder::Sink restored = [&](std::span<const uint8_t> datagram) {
            reorderer.push(datagram, event.time, ts::Reorderer::kRepaired, deliver);
        };
        if (event.fec) {
            decoder.pushFec(BytesOf(event.datagram), event.time, restored);
            reorderer.allowFor(decoder.wait(event.time));
        } else {
            reorderer.push(BytesOf(event.datagram), event.time, 0, deliver);
            decoder.pushMedia(BytesOf(event.datagram), event.time, restored);
        }
    }

    ts::FecDecoder decoder;
    ts::Reorderer reorderer{{.window = 10ms}};
    std::vector<std::string> delivered;
    const ts::Reorderer::Sink deliver = [this](const ts::Reorderer::Delivery& delivery) {
        delivered.emplace_back(delivery.payload.begin(), delivery.payload.end());
    };
};

std::string PayloadOf(const std::string& media) {
    const auto rtp = ts::readRtp(BytesOf(media));
    return {rtp->payload.begin(), rtp->payload.end()};
}

TEST(FecDecoder, RestoresExactlyWhatTheParityAllows) {
    const Scenario scenarios[] = {
        {"columns", 5, 5},
        {"bursts as long as a row", 10, 10, false, Spread::kAtOnce, 0.01, 10},
        {"bursts, parity spread over the next matrix", 10, 10, false, Spread::kOverTheNext, 0.01,
         10},
        {"columns and rows", 5, 5, true, Spread::kAtOnce, 0.1},
        {"columns and rows, spread", 8, 6, true, Spread::kOverTheNext, 0.1},
        {"staggered", 10, 5, false, Spread::kStaggered, 0.05, 4},
        {"the largest matrix", 20, 20, true, Spread::kOverTheNext, 0.05},
        {"the longest columns", 4, 20, false, Spread::kAtOnce, 0.02},
        {"one column", 1, 10, false, Spread::kAtOnce, 0.05},
        {"parity is lost, too", 10, 10, true, Spread::kAtOnce, 0.05, 1, 0.1},
        {"reordering", 10, 10, true, Spread::kAtOnce, 0.05, 1, 0.05, 5ms},
        {"hopeless", 5, 5, true, Spread::kAtOnce, 0.5},
    };
    for (const Scenario& scenario : scenarios) {
        for (uint32_t seed = 1; seed <= 3; ++seed) {
            SCOPED_TRACE(testing::Message() << scenario.name << " " << seed);
            const Stream stream = Send(scenario, seed);
            Receiver receiver;
            for (const Event& event : stream.events)
                receiver.Push(event);
            receiver.reorderer.finish(receiver.deliver);
            std::vector<std::string> expected;
            for (const uint32_t index : stream.restorable)
                expected.push_back(PayloadOf(stream.media[index]));
            ASSERT_EQ(receiver.delivered.size(), expected.size());
            EXPECT_TRUE(receiver.delivered == expected);
            const ts::FecCounts& counts = receiver.decoder.counts();
            const size_t repaired = stream.restorable.size() - stream.received.size();
            EXPECT_EQ(receiver.reorderer.counts().repaired >= repaired, true);
            if (scenario.jitter == 0ms) {
                EXPECT_EQ(counts.repaired, repaired);
                EXPECT_EQ(receiver.reorderer.counts().repaired, repaired);
            }
            EXPECT_GT(repaired, 10U);
            EXPECT_EQ(counts.unrepaired, scenario.count - stream.restorable.size());
            EXPECT_EQ(counts.strange, 0U);
            EXPECT_EQ(receiver.decoder.columns(), scenario.columns);
            EXPECT_EQ(receiver.decoder.rows(), scenario.rows);
            const Time matrix = scenario.columns * scenario.rows * 1ms;
            EXPECT_LE(receiver.reorderer.window(), std::max<Time>(10ms, 2 * matrix * 5 / 4 + 10ms));
            EXPECT_EQ(receiver.decoder.wait(60s), 0s);
        }
    }
}

TEST(FecDecoder, FollowsTheStreamWhereItBeginsAnew) {
    std::mt19937 random(1);
    Receiver receiver;
    Time now = 0s;
    std::vector<std::string> expected;
    for (const uint32_t ssrc : {1U, 2U, 2U}) {
        // The last one begins with the numbers and timestamps of the one before.
        const auto first = static_cast<uint16_t>(ssrc * 60'000);
        for (uint16_t row = 0; row < 40; ++row) {
            std::vector<std::string> media;
            for (uint16_t i = 0; i < 5; ++i, now += 1ms) {
                media.push_back(Media(0, random));
                Overwrite(media[i], 2, BigEndian(uint16_t(first + row * 5 + i), 2));
                Overwrite(media[i], 8, BigEndian(ssrc, 4));
                expected.push_back(PayloadOf(media[i]));
                if (i != 2 || row < 2)
                    receiver.Push({now, false, media[i]});
            }
            receiver.Push({now, true, ParityOf(media, 1, true)});
            // A stray of somebody else changes nothing.
            receiver.Push({now, false, Media(static_cast<uint32_t>(random()), random)});
        }
        now += 50ms;
    }
    receiver.reorderer.finish(receiver.deliver);
    EXPECT_TRUE(receiver.delivered == expected);
    EXPECT_EQ(receiver.decoder.counts().repaired, 3U * 38);
}

TEST(FecDecoder, RefusesWhatCannotBeParityOfTheStream) {
    std::mt19937 random(1);
    std::vector<std::string> media;
    for (uint32_t i = 0; i < 300; ++i)
        media.push_back(Media(i, random));
    const std::string good = ParityOf({media[200], media[201], media[202]}, 1, true);
    const auto with = [&](size_t at, const std::string& bytes) {
        std::string changed = good;
        Overwrite(changed, at, bytes);
        return changed;
    };
    const std::string refused[] = {
        "",
        good.substr(0, 27),
        with(0, "x"),
        with(25, std::string(1, '\0')),
        with(26, std::string(1, '\0')),
        with(12, BigEndian(64'000 + 3000, 2)),
        with(26, "\xFF"),
        with(24, "\x08"),      // not parity, but another code
        with(14, "\xFF\xFF"),  // longer than what is there
        std::string(good).append(3000, 'x'),
    };
    for (const std::string& fec : refused) {
        SCOPED_TRACE(&fec - refused);
        ts::FecDecoder decoder;
        uint32_t restored = 0;
        const ts::FecDecoder::Sink sink = [&](std::span<const uint8_t>) { ++restored; };
        decoder.pushFec(BytesOf(good), 0s, sink);
        EXPECT_EQ(decoder.counts().strange, 1U) << "nothing is known of a stream yet";
        for (uint32_t i = 0; i < 300; ++i) {
            if (i != 201)
                decoder.pushMedia(BytesOf(media[i]), i * 1ms, sink);
        }
        decoder.pushFec(BytesOf(fec), 300ms, sink);
        EXPECT_EQ(decoder.counts().strange, 2U);
        EXPECT_EQ(restored, 0U);
        decoder.pushFec(BytesOf(good), 301ms, sink);
        EXPECT_EQ(restored, 1U);
    }
}

}  // namespace
