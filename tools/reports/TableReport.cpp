#include "reports/TableReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <nlohmann/json.hpp>

#include "base/SafeText.h"

namespace {

using Json = nlohmann::ordered_json;
using Output = std::back_insert_iterator<std::string>;

const char* stateName(const ChannelState& channel) {
    return channel.running ? "running" : "idle";
}

const char* socketName(const ChannelState& channel) {
    return !channel.running ? "-" : channel.socketOpen ? "open" : "pending";
}

template <typename Visitor>
void forEachShown(const ChannelTable& table, bool all, const Visitor& visit) {
    for (const ChannelState& channel : table.channels) {
        if (all || channel.running)
            visit(channel);
    }
}

size_t countHosts(const TableHosts& hosts) {
    return static_cast<size_t>(std::count_if(hosts.hosts.begin(), hosts.hosts.end(),
                                             [](const TableHost& host) { return !host.replaced; }));
}

// Addresses are ASCII already; a backslash in one is part of an escape.
std::string labelText(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\' || c == '"')
            result += '\\';
        result += c;
    }
    return result;
}

struct Metric {
    const char* name;
    const char* help;
    std::function<std::optional<uint64_t>(const ChannelState&)> value;
};

const Metric kMetrics[] = {
    {"running", "Whether the channel has been started (1) or not (0).",
     [](const ChannelState& channel) { return channel.running ? 1 : 0; }},
    {"socket_open", "Whether the channel's socket is open (1) or still to be made (0).",
     [](const ChannelState& channel) { return channel.socketOpen ? 1 : 0; }},
    {"rtp", "Whether the channel carries RTP (1) or raw datagrams (0).",
     [](const ChannelState& channel) -> std::optional<uint64_t> {
         if (channel.mode == ChannelMode::kUnknown)
             return std::nullopt;
         return channel.mode == ChannelMode::kRtp ? 1 : 0;
     }},
    {"bitrate_bits_per_second", "Measured bitrate of transport stream, refreshed every second.",
     [](const ChannelState& channel) { return channel.measured_bps; }},
    {"asked_bitrate_bits_per_second", "Bitrate that a send channel was started with.",
     [](const ChannelState& channel) {
         return channel.send ? std::optional<uint64_t>(channel.asked_bps) : std::nullopt;
     }},
    {"buffer_size_bytes", "Capacity of the channel's ring buffer, 0 while it is idle.",
     [](const ChannelState& channel) { return channel.bufferBytes; }},
};

void writeHeader(Output out, const char* name, const char* help) {
    fmt::format_to(out, "# HELP qxvrtp_{0} {1}\n# TYPE qxvrtp_{0} gauge\n", name, help);
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

std::string hostsText(const TableHosts& hosts) {
    std::string text;
    for (const TableHost& host : hosts.hosts)
        text += fmt::format("{}{} {}{}", text.empty() ? "" : ", ", host.pid, host.command,
                            host.replaced ? " (its table was replaced)" : "");
    if (countHosts(hosts) == 0)
        text += fmt::format("{}none alive{}", text.empty() ? "" : ", ",
                            hosts.hidden == 0 ? "" : " that this user may see");
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
    forEachShown(table, all, [&](const ChannelState& channel) {
        ++shown;
        const std::string asked =
            channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-";
        fmt::format_to(out, "{:<7} {:>2} {:<4} {:<7} {:<7} {:>9.3f} {:>7} {:>4} {} {}\n",
                       directionName(channel), channel.number,
                       channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                       stateName(channel), socketName(channel), channel.measured_bps / 1e6, asked,
                       channel.bufferBytes / 1024, endpointOf(channel),
                       channel.localAddress.empty() ? "-" : channel.localAddress);
    });
    if (shown == 0)
        fmt::format_to(out, "# no channel is running\n");
    return width ? cutLines(text, *width) : text;
}

std::string tableJson(const ChannelTable& table, const TableHosts& hosts, bool all) {
    Json json = {{"path", table.path},          {"owner", table.owner},
                 {"damaged", !table.plausible}, {"handles", table.handles},
                 {"hosts", Json::array()},      {"hidden_processes", hosts.hidden},
                 {"channels", Json::array()}};
    for (const TableHost& host : hosts.hosts)
        json["hosts"].push_back(
            Json{{"pid", host.pid}, {"command", host.command}, {"replaced", host.replaced}});
    forEachShown(table, all, [&json](const ChannelState& channel) {
        json["channels"].push_back(
            Json{{"direction", directionName(channel)},
                 {"channel", channel.number},
                 {"running", channel.running},
                 {"mode", modeName(channel.mode)},
                 {"address", channel.address},
                 {"port", channel.port},
                 {"local_address",
                  channel.localAddress.empty() ? Json(nullptr) : Json(channel.localAddress)},
                 {"ttl", channel.ttl},
                 {"socket_open", channel.socketOpen},
                 {"bitrate_bps", channel.measured_bps},
                 {"asked_bitrate_bps", channel.send ? Json(channel.asked_bps) : Json(nullptr)},
                 {"buffer_bytes", channel.bufferBytes}});
    });
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

std::string tablePrometheus(const ChannelTable& table, const TableHosts& hosts, bool all) {
    std::string text;
    const Output out(text);
    writeHeader(out, "table_damaged", "Whether the table holds what no host writes there (1).");
    fmt::format_to(out, "qxvrtp_table_damaged {}\n", table.plausible ? 0 : 1);
    writeHeader(out, "table_hosts", "Live processes seen that have the table in their memory.");
    fmt::format_to(out, "qxvrtp_table_hosts {}\n", countHosts(hosts));
    writeHeader(out, "table_handles", "Handles open, as the table counts them.");
    fmt::format_to(out, "qxvrtp_table_handles {}\n", table.handles);
    for (const Metric& metric : kMetrics) {
        writeHeader(out, fmt::format("channel_{}", metric.name).c_str(), metric.help);
        forEachShown(table, all, [&](const ChannelState& channel) {
            if (const auto value = metric.value(channel))
                fmt::format_to(out,
                               "qxvrtp_channel_{}{{direction=\"{}\",channel=\"{}\",address=\"{}\","
                               "port=\"{}\"}} {}\n",
                               metric.name, directionName(channel), channel.number,
                               labelText(channel.address), channel.port, *value);
        });
    }
    return text;
}
