#include "reports/Text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>
#include <iterator>

#include "base/SafeText.h"

namespace {

using Output = std::back_insert_iterator<std::string>;

void writeChannel(Output out, const ChannelState& channel) {
    const std::string asked = channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-";
    fmt::format_to(out, "{:<7} {:>2} {:<4} {:<7} {:<7} {:>9.3f} {:>7} {:>4} {} {}\n",
                   directionName(channel), channel.number,
                   channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                   channel.running ? "running" : "idle",
                   !channel.running     ? "-"
                   : channel.socketOpen ? "open"
                                        : "pending",
                   channel.measured_bps / 1e6, asked, channel.bufferBytes / 1024,
                   endpointOf(channel), channel.localAddress.empty() ? "-" : channel.localAddress);
}

// The time, or the day when that is longer ago.
std::string startText(std::time_t started) {
    constexpr std::time_t kDay = 86'400;
    const std::tm local = fmt::localtime(started);
    const bool recent = std::time(nullptr) - started < kDay;
    return recent ? fmt::format("{:%T}", local) : fmt::format("{:%F}", local);
}

}  // namespace

const char* modeName(ChannelMode mode) {
    switch (mode) {
        case ChannelMode::kRtp:
            return "rtp";
        case ChannelMode::kRaw:
            return "raw";
        default:
            return "unknown";
    }
}

const char* directionName(const ChannelState& channel) {
    return channel.send ? "send" : "receive";
}

std::string endpointOf(const ChannelState& channel) {
    const bool ipv6 = channel.address.find(':') != std::string::npos;
    return fmt::format("{}{}{}:{}", ipv6 ? "[" : "", channel.address, ipv6 ? "]" : "",
                       channel.port);
}

std::string headingOf(const ShownTable& shown, const Machine& machine) {
    const ChannelTable& table = *shown.table;
    const char* const damage = table.plausible ? "" : ", table damaged";
    if (shown.host == nullptr)
        return fmt::format("{}{}: {} of {}",
                           machine.isFileKnown() ? "left over, its host has ended"
                                                 : "its host is not seen, or has ended",
                           damage, escapeBytes(table.path), table.owner);
    const Host& host = *shown.host;
    // What is behind the command may be beyond the edge of a terminal.
    std::string text = fmt::format("host {} of {} since {}{}: {}", host.pid, host.user,
                                   startText(host.started), damage, host.commandLine);
    if (!host.sharedWith.empty())
        text += fmt::format(" [table shared with {}]", fmt::join(host.sharedWith, " "));
    return table.replaced ? text + " [table replaced]" : text;
}

std::string doubtsText(const Machine& machine) {
    return machine.blindness.empty() ? ""
                                     : "there may be hosts that are not seen: " + machine.blindness;
}

std::string statusText(const Machine& machine, bool all, std::optional<size_t> width) {
    std::string text;
    const Output out(text);
    fmt::format_to(out, "#dir    ch mode state   socket     Mbit/s   asked  KiB address local\n");
    for (const ShownTable& shown : machine.tables()) {
        fmt::format_to(out, "# {}\n", headingOf(shown, machine));
        const size_t before = text.size();
        for (const ChannelState& channel : shown.table->channels) {
            if (all || channel.running)
                writeChannel(out, channel);
        }
        if (text.size() == before)
            fmt::format_to(out, "# no channel is running\n");
    }
    if (machine.tables().empty())
        fmt::format_to(out, "# {}\n", printable(machine.trouble));
    if (!machine.blindness.empty())
        fmt::format_to(out, "# {}\n", doubtsText(machine));
    return width ? cutLines(text, *width) : text;
}
