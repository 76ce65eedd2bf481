// What the module costs at rest: idle channels, memory, the load; and the ring, by the benchmark of
// the classes.
#include <fmt/format.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "Measure.h"
#include "ModuleSide.h"
#include "Scenarios.h"

namespace {

constexpr const char* kPrivate = "private KiB";
constexpr const char* kResident = "resident KiB";

Values measureIdle(uint32_t sendChannels, uint32_t receiveChannels, double seconds) {
    clearBoard();
    Children children;
    children.push_back(
        Child::fork(Place::Measured, [&] { moduleIdle(board(), sendChannels, receiveChannels); }));
    if (!waitFor(15.0, [&] { return board().ready != 0; }))
        throw Failure("the channels do not start");
    const Meter meter(children);
    sleepFor(seconds);
    const Meter::Usage usage = meter.read();
    const pid_t pid = children.front().pid();
    return {{kCore, usage.cpu_s / usage.elapsed_s * 100},
            {kWakeups, usage.wakeups / usage.elapsed_s},
            {kPrivate, memoryOf(pid, "Private_Dirty")},
            {kResident, memoryOf(pid, "Rss")}};
}

Values measureLoad() {
    clearBoard();
    Child child = Child::fork(Place::Measured, [&] { moduleLoadTime(board()); });
    if (!child.join(20.0) || board().result == 0.0)
        throw Failure("it gives no handle");
    return {{"ms", board().result}};
}

}  // namespace

void benchIdle(Report& report, const Settings& settings) {
    const double seconds = std::min(settings.seconds, 4.0);
    Rows rows =
        alternate({{"no channels", [=] { return measureIdle(0, 0, seconds); }},
                   {"16 send channels", [=] { return measureIdle(kStreams, 0, seconds); }},
                   {"16 receive channels", [=] { return measureIdle(0, kStreams, seconds); }}},
                  settings.quick ? 1 : 2);
    for (Row& row : rows)
        for (const char* const column : {kPrivate, kResident})
            if (const auto loaded = valueOf(rows, "no channels", column))
                row.values.push_back({fmt::format("{}/channel", column),
                                      (valueOf(row.values, column) - *loaded) / kStreams});
    report.table("the module at rest: started channels without traffic",
                 "memory: before traffic has touched the rings", rows);
}

void benchLoad(Report& report, const Settings& settings) {
    report.table("load to first handle", "fresh processes that have the C++ library already",
                 alternate({{"module", measureLoad}}, settings.quick ? 11 : 51));
}

void benchRing(Report& report, const Settings& settings) {
    constexpr char kOutput[] = "/tmp/qxvrtp-bench-ring.json";
    Child classes = Child::execute(
        Place::Anywhere,
        {settings.folder + "/classes_bench", "--benchmark_filter=Thread",
         fmt::format("--benchmark_min_time={}", settings.quick ? 0.05 : 0.25),
         fmt::format("--benchmark_repetitions={}", settings.rounds * 2 + 1),
         "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true",
         std::string("--benchmark_out=") + kOutput, "--benchmark_out_format=json"});
    if (!classes.join(150.0))
        throw Failure("classes_bench does not come to an end");
    const auto json = nlohmann::json::parse(std::ifstream(kOutput), nullptr, false);
    if (!json.contains("benchmarks"))
        throw Failure("classes_bench gives no results");
    Rows rows;
    for (const auto& result : json["benchmarks"]) {
        if (result.value("aggregate_name", "") != "median")
            continue;
        const std::string name = result.value("run_name", "");
        const double blocks = result.value("items_per_second", 0.0);
        rows.push_back({name.substr(0, name.find("/real_time")),
                        {{"blocks/s", blocks}, {"GB/s", blocks * kPayloadBytes * 1e-9}}});
    }
    std::ranges::sort(rows, {}, &Row::side);
    report.table("ring, 1316-byte blocks",
                 "by one thread, and by one that writes and one that reads", rows);
    for (const std::string size : {"262144", "4194304"})
        for (const auto& [name, rival, limit] : {std::tuple{"bare memcpy", "Memcpy", 0.9},
                                                 {"boost, blocks", "BoostBlocks", 1.0},
                                                 {"boost, bytes", "BoostBytes", 1.0}})
            report.goal(
                "5",
                fmt::format("ring of {} KiB, blocks/s: ring / {}", std::stoul(size) / 1024, name),
                ratio(rows, fmt::format("TwoThreads<Ring>/{}", size),
                      fmt::format("TwoThreads<{}>/{}", rival, size), "blocks/s"),
                Report::Bound::AtLeast, limit);
}
