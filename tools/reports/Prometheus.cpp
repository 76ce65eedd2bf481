#include "reports/Prometheus.h"

#include <fmt/format.h>

#include <functional>
#include <iterator>
#include <limits>
#include <optional>

#include "reports/Text.h"

namespace {

using Output = std::back_insert_iterator<std::string>;

constexpr double kUnknown =
    std::numeric_limits<double>::quiet_NaN();  // no comparison is true of it

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

std::string number(double value) {
    return value != value ? "NaN" : fmt::format("{}", value);
}

struct Metric {
    const char* name;
    const char* help;
    std::function<std::optional<double>(const ChannelState&)> value;
};

const Metric kMetrics[] = {
    {"running", "Whether the channel has been started (1) or not (0).",
     [](const ChannelState& channel) { return channel.running ? 1 : 0; }},
    {"socket_open", "Whether the channel's socket is open (1) or still to be made (0).",
     [](const ChannelState& channel) { return channel.socketOpen ? 1 : 0; }},
    {"rtp", "Whether the channel carries RTP (1) or raw datagrams (0).",
     [](const ChannelState& channel) -> std::optional<double> {
         if (channel.mode == ChannelMode::kUnknown)
             return std::nullopt;
         return channel.mode == ChannelMode::kRtp ? 1 : 0;
     }},
    {"bytes_per_second", "Measured rate of transport stream, refreshed every second.",
     [](const ChannelState& channel) { return channel.measured_bps / 8.0; }},
    {"requested_bytes_per_second", "Rate that a send channel was started with.",
     [](const ChannelState& channel) {
         return channel.send ? std::optional(channel.asked_bps / 8.0) : std::nullopt;
     }},
    {"buffer_size_bytes", "Capacity of the channel's ring buffer, 0 while it is idle.",
     [](const ChannelState& channel) { return channel.bufferBytes; }},
};

void writeHeader(Output out, const std::string& name, const char* help) {
    fmt::format_to(out, "# HELP qxvrtp_{0} {1}\n# TYPE qxvrtp_{0} gauge\n", name, help);
}

void write(Output out, const std::string& name, const char* help, double value) {
    writeHeader(out, name, help);
    fmt::format_to(out, "qxvrtp_{} {}\n", name, number(value));
}

void writePresence(Output out, bool present) {
    write(out, "table_present", "Whether there is a table that can be read (1) or not (0).",
          present ? 1 : 0);
}

}  // namespace

std::string tablePrometheus(const ChannelTable& table, const TableHosts& hosts, bool all) {
    std::string text;
    const Output out(text);
    writePresence(out, true);
    write(out, "table_damaged", "Whether the table holds what no host writes there (1).",
          table.plausible ? 0 : 1);
    write(out, "table_hosts", "Live processes that have the table in their memory; NaN = unknown.",
          hosts.known() ? static_cast<double>(hosts.current()) : kUnknown);
    write(out, "hidden_processes", "Processes that could not be searched for the table.",
          static_cast<double>(hosts.hidden));
    write(out, "table_handles", "Handles open, as the table counts them.", table.handles);
    for (const Metric& metric : kMetrics) {
        writeHeader(out, fmt::format("channel_{}", metric.name), metric.help);
        for (const ChannelState& channel : table.channels) {
            const auto value = all || channel.running ? metric.value(channel) : std::nullopt;
            if (value)
                fmt::format_to(out,
                               "qxvrtp_channel_{}{{direction=\"{}\",channel=\"{}\",address=\"{}\","
                               "port=\"{}\"}} {}\n",
                               metric.name, directionName(channel), channel.number,
                               labelText(channel.address), channel.port, number(*value));
        }
    }
    return text;
}

std::string noTablePrometheus() {
    std::string text;
    writePresence(Output(text), false);
    return text;
}
