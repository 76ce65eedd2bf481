// How the cost grows with the number of channels and with their rate.
#include <fmt/format.h>

#include "Scenarios.h"

namespace {

using Measurement = Values (*)(bool module, Load load, double seconds);

void grow(Report& report, const Settings& settings, const std::string& direction,
          Measurement measure, bool byRate, const std::vector<Load>& loads) {
    const double seconds = std::min(settings.seconds, 1.5);
    Rows table;
    std::vector<Curve> curves{{"bare loop", {}}, {"module", {}}};
    for (const Load& load : loads) {
        Row row{fmt::format("{} x {} Mbit/s", load.channels, load.rate_bps * 1e-6), {}};
        for (const Row& side : alternate({{"bare", [&] { return measure(false, load, seconds); }},
                                          {"module", [&] { return measure(true, load, seconds); }}},
                                         1)) {
            for (const char* const column : {kCost, kCore, "lost"})
                row.values.push_back({side.side + " " + column, valueOf(side.values, column)});
            curves[side.side == "module"].points.emplace_back(
                byRate ? load.rate_bps * 1e-6 : load.channels, valueOf(side.values, kCore));
        }
        table.push_back(row);
    }
    const std::string by = byRate ? "rate" : "channels";
    report.table(fmt::format("growth of {} by {}", direction, by), "", table);
    report.plot({fmt::format("{}-{}", direction, by), fmt::format("CPU of {} by {}", direction, by),
                 byRate ? "Mbit/s on each of 16 channels" : "channels of 8 Mbit/s", "% of a core",
                 "set yrange [0:*]", curves});
}

}  // namespace

void benchGrowth(Report& report, const Settings& settings) {
    std::vector<Load> channels{{1, 8e6}, {2, 8e6}, {4, 8e6}, {8, 8e6}, {16, 8e6}};
    std::vector<Load> rates{{16, 2e6}, {16, 1e7}, {16, 2e7}, {16, 5e7}, {16, 1e8}};
    if (settings.quick) {
        channels = {channels.front(), channels.back()};
        rates = {rates.front(), rates.back()};
    }
    grow(report, settings, "receiving", receiveOnce, false, channels);
    grow(report, settings, "receiving", receiveOnce, true, rates);
    grow(report, settings, "sending", sendOnce, false, channels);
    grow(report, settings, "sending", sendOnce, true, rates);
}
