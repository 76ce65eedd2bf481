#include "reports/Screen.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "reports/Text.h"

namespace {

constexpr std::array kBars = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kAsciiBars = {" ", ".", ":", "-", "=", "+", "*", "%", "#"};

}  // namespace

void RateHistory::add(const ChannelTable& table) {
    rates_.resize(table.channels.size());
    for (size_t i = 0; i < rates_.size(); ++i) {
        rates_[i].push_back(table.channels[i].measured_bps);
        if (rates_[i].size() > kLength)
            rates_[i].pop_front();
    }
}

std::string RateHistory::bars(size_t channel, bool utf8) const {
    const std::deque<uint32_t>& rates = rates_.at(channel);
    const auto& bars = utf8 ? kBars : kAsciiBars;
    const uint64_t highest = rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
    std::string line(kLength - rates.size(), ' ');
    for (const uint32_t rate : rates)
        line += bars[highest == 0 ? 0 : (rate * (bars.size() - 1) + highest - 1) / highest];
    return line;
}

std::string screenText(const ChannelTable& table, const TableHosts& hosts,
                       const RateHistory& history, bool all, bool utf8) {
    std::string text =
        fmt::format("hosts: {}\n{}\n", hostsText(hosts),
                    table.plausible ? "" : "the table is damaged: do not rely on it");
    text += fmt::format("dir     ch mode socket     asked  Mbit/s {:<{}} address\n", "history",
                        RateHistory::kLength);
    for (size_t i = 0; i < table.channels.size(); ++i) {
        const ChannelState& channel = table.channels[i];
        if (!channel.running && !all)
            continue;
        text += fmt::format("{:<7} {:>2} {:<4} {:<7} {:>8} {:>7.3f} {} {}\n",
                            directionName(channel), channel.number,
                            channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                            !channel.running     ? "idle"
                            : channel.socketOpen ? "open"
                                                 : "pending",
                            channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-",
                            channel.measured_bps / 1e6, history.bars(i, utf8), endpointOf(channel));
    }
    return text;
}
