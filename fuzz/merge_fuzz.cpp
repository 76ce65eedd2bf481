// Copies of one stream on three paths, each with delays and losses of its own: whatever one of them
// brings comes out, in order and once.
//
// Input: the window in a byte; then a byte for each number and path. 0 to 63: it is lost there;
// else, how late it is, by parts of the window. Some come twice.
#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "Reorderer.h"
#include "RtpSupport.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace std::chrono_literals;
    constexpr size_t kPaths = 3;
    constexpr uint16_t kFirst = 65'500;
    struct Arrival {
        ts::Time time;
        size_t path;
        uint16_t number;
    };
    Input input{{data, size}};
    const ts::Time window = (1 + input.Byte() % 24) * 1ms;
    std::vector<Arrival> arrivals{{0ms, 0, 0}};
    std::set<uint16_t> brought{0};
    for (uint16_t number = 1; !input.Rest.empty() && number < 500; ++number)
        for (size_t path = 0; path < kPaths; ++path) {
            const int late = input.Byte() - 64;
            if (late < 0)
                continue;
            const ts::Time time = window + number * 1ms + late * window / 192;
            brought.insert(number);
            arrivals.push_back({time, path, number});
            if (late % 8 == 1)
                arrivals.push_back({time + 1ms, path, number});
        }
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival& a, const Arrival& b) { return a.time < b.time; });

    ts::Reorderer reorderer({.window = window});
    uint64_t missing = 0;
    auto next = brought.begin();
    const ts::Reorderer::Sink sink = [&](const ts::Reorderer::Delivery& delivery) {
        const uint16_t before = next == brought.begin() ? uint16_t{0} : *std::prev(next);
        Check(next != brought.end() && delivery.payload[1] * 256 + delivery.payload[2] == *next);
        Check(delivery.missing == (*next > before ? *next - before - 1U : 0U));
        missing += delivery.missing;
        ++next;
    };
    for (const Arrival& arrival : arrivals) {
        const auto sequence = static_cast<uint16_t>(kFirst + arrival.number);
        const std::string datagram =
            RtpHeader(sequence, arrival.number * 90U, 1) + "\x47" + BigEndian(arrival.number, 2);
        reorderer.push(BytesOf(datagram), arrival.time, arrival.path, sink);
    }
    const ts::Time end = arrivals.back().time + 2s;
    reorderer.release(end, sink);
    Check(next == brought.end() && reorderer.waiting() == 0);
    const ts::RepairCounts& counts = reorderer.counts();
    Check(counts.received == arrivals.size() && counts.delivered == brought.size());
    Check(counts.lost == missing && counts.late == 0 && counts.strays == 0);
    for (size_t path = 0; path < kPaths; ++path) {
        const ts::PathReport report = reorderer.path(path, end);
        Check(report.saved <= report.lost && report.lost <= brought.size() + missing);
    }
    return 0;
}
