#include "reports/Text.h"

#include <fmt/format.h>

#include <iterator>

#include "base/SafeText.h"

namespace {

using Output = std::back_insert_iterator<std::string>;

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

std::string hostsText(const TableHosts& hosts) {
    std::string text;
    for (const TableHost& host : hosts.hosts)
        text += fmt::format("{}{} {}{}", text.empty() ? "" : ", ", host.pid, host.command,
                            host.replaced ? " (its table was replaced)" : "");
    if (hosts.current() == 0)
        text += fmt::format("{}{}", text.empty() ? "" : ", ",
                            hosts.known() ? "none alive" : "unknown: " + hosts.blindness);
    return text;
}

std::string tableText(const ChannelTable& table, const TableHosts& hosts, bool all,
                      std::optional<size_t> width) {
    std::string text;
    const Output out(text);
    fmt::format_to(out, "# {} of {}, hosts: {}\n", escapeBytes(table.path), table.owner,
                   hostsText(hosts));
    if (!table.plausible)
        fmt::format_to(out, "# the table is damaged: do not rely on it\n");
    fmt::format_to(out, "#dir    ch mode state   socket     Mbit/s   asked  KiB address local\n");
    size_t shown = 0;
    for (const ChannelState& channel : table.channels) {
        if (!channel.running && !all)
            continue;
        ++shown;
        const std::string asked =
            channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-";
        fmt::format_to(out, "{:<7} {:>2} {:<4} {:<7} {:<7} {:>9.3f} {:>7} {:>4} {} {}\n",
                       directionName(channel), channel.number,
                       channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                       channel.running ? "running" : "idle",
                       !channel.running     ? "-"
                       : channel.socketOpen ? "open"
                                            : "pending",
                       channel.measured_bps / 1e6, asked, channel.bufferBytes / 1024,
                       endpointOf(channel),
                       channel.localAddress.empty() ? "-" : channel.localAddress);
    }
    if (shown == 0)
        fmt::format_to(out, "# no channel is running\n");
    return width ? cutLines(text, *width) : text;
}
