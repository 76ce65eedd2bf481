#include "reports/Screen.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "base/SafeText.h"
#include "reports/Text.h"

namespace {

constexpr std::array kBars = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kAsciiBars = {" ", ".", ":", "-", "=", "+", "*", "%", "#"};

std::string channelLine(const ChannelState& channel, const std::string& bars) {
    return fmt::format("{:<7} {:>2} {:<4} {:<7} {:>8} {:>7.3f} {} {}", directionName(channel),
                       channel.number,
                       channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                       !channel.running     ? "idle"
                       : channel.socketOpen ? "open"
                                            : "pending",
                       channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-",
                       channel.measured_bps / 1e6, bars, endpointOf(channel));
}

}  // namespace

RateHistory::Key RateHistory::keyOf(const ShownTable& shown) {
    return {shown.host == nullptr ? 0 : shown.host->pid, shown.table->id};
}

void RateHistory::add(const Machine& machine) {
    std::map<Key, Rates> before = std::exchange(rates_, {});
    for (const ShownTable& shown : machine.tables()) {
        const std::vector<ChannelState>& channels = shown.table->channels;
        Rates& rates = rates_[keyOf(shown)] = std::move(before[keyOf(shown)]);
        rates.resize(channels.size());
        for (size_t i = 0; i < rates.size(); ++i) {
            rates[i].push_back(channels[i].measured_bps);
            if (rates[i].size() > kLength)
                rates[i].pop_front();
        }
    }
}

std::string RateHistory::bars(const ShownTable& shown, size_t channel, bool utf8) const {
    const std::deque<uint32_t>& rates = rates_.at(keyOf(shown)).at(channel);
    const auto& bars = utf8 ? kBars : kAsciiBars;
    const uint64_t highest = rates.empty() ? 0 : *std::max_element(rates.begin(), rates.end());
    std::string line(kLength - rates.size(), ' ');
    for (const uint32_t rate : rates)
        line += bars[highest == 0 ? 0 : (rate * (bars.size() - 1) + highest - 1) / highest];
    return line;
}

std::vector<ScreenLine> screenLines(const Machine& machine, const RateHistory& history, bool all,
                                    bool utf8) {
    std::vector<ScreenLine> lines;
    const auto addHeading = [&lines](std::string text) {
        lines.push_back({std::move(text), lines.size()});
    };
    for (const ShownTable& shown : machine.tables()) {
        const size_t heading = lines.size();
        addHeading(headingOf(shown, machine));
        for (size_t i = 0; i < shown.table->channels.size(); ++i) {
            const ChannelState& channel = shown.table->channels[i];
            if (channel.running || all)
                lines.push_back({channelLine(channel, history.bars(shown, i, utf8)), heading});
        }
    }
    for (const StreamProcess& process : machine.processes) {
        const size_t heading = lines.size();
        for (std::string& line : streamLines(process))
            lines.push_back({std::move(line), heading});
    }
    if (lines.empty())
        addHeading(printable(machine.trouble) + "; waiting for a host");
    if (!machine.blindness.empty())
        addHeading(doubtsText(machine));
    return lines;
}

ScreenPage screenPage(const std::vector<ScreenLine>& lines, size_t number, size_t rows) {
    // The heading that is shown again takes a line of each page but the first.
    const size_t fitting = std::max<size_t>(rows, 3) - 1;
    const size_t step = fitting - 1;
    const size_t count = lines.size() <= fitting ? 1 : (lines.size() + step - 1) / step;
    ScreenPage page{std::min(number, count - 1), count, ""};
    page.text = fmt::format("dir     ch mode socket     asked  Mbit/s {:<{}} address\n", "history",
                            RateHistory::kLength);
    size_t line = page.number * step;
    size_t left = fitting;
    if (lines.at(line).heading != line) {
        page.text += lines[lines[line].heading].text + '\n';
        --left;
    }
    for (; line < lines.size() && left > 0; ++line, --left)
        page.text += lines[line].text + '\n';
    return page;
}
