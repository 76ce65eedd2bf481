// How the cost grows with the number of channels and with their rate.
#include <fmt/format.h>

#include "Scenarios.h"

namespace {

using Measurement = Values (*)(bool module, Load load, double seconds);

struct Direction {
    std::string name;
    Measurement measure;
};

void grow(Report& report, const Settings& settings, const Direction& direction,
          const std::string& by, const std::vector<Load>& loads) {
    const double seconds = std::min(settings.seconds, 2.0);
    Rows table;
    std::vector<Curve> curves{{"bare loop", {}}, {"module", {}}};
    for (const Load& load : loads) {
        const Rows rows =
            alternate({{"bare", [&] { return direction.measure(false, load, seconds); }},
                       {"module", [&] { return direction.measure(true, load, seconds); }}},
                      1);
        Row row{fmt::format("{} x {} Mbit/s", load.channels, load.rate_bps * 1e-6), {}};
        for (size_t side = 0; side < rows.size(); ++side) {
            for (const char* const column : {kCost, kCore, "lost"})
                row.values.push_back(
                    {rows[side].side + " " + column, valueOf(rows[side].values, column)});
            curves[side].points.emplace_back(
                by == "channels" ? load.channels : load.rate_bps * 1e-6,
                valueOf(rows[side].values, kCore));
        }
        table.push_back(row);
    }
    report.table(fmt::format("growth of {} by {}", direction.name, by), "", table);
    report.plot({fmt::format("{}-{}", direction.name, by),
                 fmt::format("CPU of {} by {}", direction.name, by),
                 by == "channels" ? "channels of 8 Mbit/s" : "Mbit/s on each of 16 channels",
                 "% of a core", "set yrange [0:*]", curves});
}

}  // namespace

void benchGrowth(Report& report, const Settings& settings) {
    std::vector<Load> channels;
    for (const uint32_t count :
         settings.quick ? std::vector{1u, 16u} : std::vector{1u, 2u, 4u, 8u, 16u})
        channels.push_back({count, 8e6});
    std::vector<Load> rates;
    for (const double rate :
         settings.quick ? std::vector{2e6, 1e8} : std::vector{2e6, 5e6, 1e7, 2e7, 5e7, 1e8})
        rates.push_back({kStreams, rate});
    for (const Direction& direction :
         {Direction{"receiving", receiveOnce}, {"sending", sendOnce}}) {
        grow(report, settings, direction, "channels", channels);
        grow(report, settings, direction, "rate", rates);
    }
}
