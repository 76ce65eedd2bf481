// What the module costs at rest: idle channels, the load, memory; and the ring, by the benchmark of
// the classes.
#include <fmt/format.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "Measure.h"
#include "ModuleSide.h"
#include "QXV_RTP.h"
#include "Scenarios.h"

namespace {

Values measureIdle(uint32_t direction, uint32_t channels, double seconds) {
    const Shared<Board> board = makeShared<Board>();
    Children children;
    children.push_back(
        Child::fork(Place::Measured, [&] { moduleIdle(*board, direction, channels); }));
    if (!waitFor(10.0, [&] { return board->ready != 0; }))
        throw Failure("the module does not start its channels");
    const int64_t start = now_ns();
    const Usage before = usageOf(children);
    sleepFor(seconds);
    const Usage after = usageOf(children);
    const double elapsed_s = static_cast<double>(now_ns() - start) * 1e-9;
    return {{kCore, (after.cpu_s - before.cpu_s) / elapsed_s * 100},
            {kWakeups, static_cast<double>(after.wakeups - before.wakeups) / elapsed_s}};
}

// The results of a child that ends by itself.
Values measureChild(const std::function<void(Board&)>& routine,
                    const std::vector<std::string>& columns) {
    const Shared<Board> board = makeShared<Board>();
    Child child = Child::fork(Place::Measured, [&] { routine(*board); });
    if (!child.join(20.0))
        throw Failure("the module does not come to an end");
    Values values;
    for (size_t i = 0; i < columns.size(); ++i)
        values.push_back({columns[i], board->values[i]});
    return values;
}

}  // namespace

void benchIdle(Report& report, const Settings& settings) {
    const auto side = [&](const std::string& name, uint32_t direction, uint32_t channels) {
        return Side{name, [=] { return measureIdle(direction, channels, settings.seconds); }};
    };
    const Rows rows = alternate(
        {side("module loaded", QXV_RTP_SEND, 0), side("16 send channels", QXV_RTP_SEND, kStreams),
         side("16 receive channels", QXV_RTP_RECEIVE, kStreams)},
        settings.quick ? 1 : 2);
    report.table("idle, started channels without traffic", "", rows);
}

void benchLoad(Report& report, const Settings& settings) {
    const int loads = settings.quick ? 11 : 51;
    report.table(
        "load to first handle, fresh processes", "",
        alternate({{"module", [] { return measureChild(moduleLoadTime, {"ms"}); }}}, loads));
    const auto memory = [](uint32_t direction) {
        return measureChild(
            [=](Board& board) { moduleMemory(board, direction); },
            {"PSS KiB/channel", "RSS KiB/channel", "process PSS KiB", "process RSS KiB"});
    };
    report.table("memory of started channels, before traffic fills their rings",
                 "process: with the module and no channel",
                 alternate({{"send", [=] { return memory(QXV_RTP_SEND); }},
                            {"receive", [=] { return memory(QXV_RTP_RECEIVE); }}},
                           settings.quick ? 1 : 3));
}

void benchRing(Report& report, const Settings& settings) {
    constexpr char kOutput[] = "/tmp/qxvrtp-bench-ring.json";
    Child classes = Child::execute(
        Place::Anywhere,
        {settings.folder + "/classes_bench", "--benchmark_filter=TwoThreads",
         fmt::format("--benchmark_min_time={}", settings.quick ? 0.1 : 0.5),
         fmt::format("--benchmark_repetitions={}", settings.rounds * 2 + 1),
         "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true",
         std::string("--benchmark_out=") + kOutput, "--benchmark_out_format=json"});
    if (!classes.join(150.0))
        throw Failure("classes_bench does not come to an end");
    const auto json = nlohmann::json::parse(std::ifstream(kOutput), nullptr, false);
    Rows rows;
    for (const auto& result : json.value("benchmarks", nlohmann::json::array())) {
        if (result.value("aggregate_name", "") != "median")
            continue;
        const double blocks = result.value("items_per_second", 0.0);
        rows.push_back(
            {result.value("run_name", "").substr(0, result.value("run_name", "").find("/real")),
             {{"blocks/s", blocks}, {"GB/s", blocks * kPayloadBytes * 1e-9}}});
    }
    if (rows.empty())
        throw Failure("classes_bench gives no results");
    report.table("ring, 1316-byte blocks, one thread writes and one reads", "", rows);
    const auto rate = [&](const std::string& name) { return valueOf(rows, name, "blocks/s"); };
    for (const std::string size : {"262144", "4194304"}) {
        const auto ring = rate("TwoThreads<Ring>/" + size);
        const std::string what =
            fmt::format("ring of {} KiB, blocks/s: ring / ", std::stoul(size) / 1024);
        report.goal("5", what + "bare memcpy", ratio(ring, rate("TwoThreads<Memcpy>/" + size)),
                    Report::Bound::AtLeast, 0.9);
        report.goal("5", what + "boost spsc_queue of blocks",
                    ratio(ring, rate("TwoThreads<BoostBlocks>/" + size)), Report::Bound::AtLeast,
                    1.0);
        report.goal("5", what + "boost spsc_queue of bytes",
                    ratio(ring, rate("TwoThreads<BoostBytes>/" + size)), Report::Bound::AtLeast,
                    1.0);
    }
}
