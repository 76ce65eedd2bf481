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

// Those of live hosts, and of one that may live.
std::vector<ShownTable> liveTables(const Machine& machine) {
    std::vector<ShownTable> tables = machine.tables();
    if (machine.isFileKnown())
        std::erase_if(tables, [](const ShownTable& shown) { return shown.host == nullptr; });
    return tables;
}

// The labels that tell hosts apart; none for a table whose host is not seen.
std::string hostLabels(const ShownTable& shown) {
    return shown.host == nullptr ? ""
                                 : fmt::format("pid=\"{}\",command=\"{}\"", shown.host->pid,
                                               labelText(shown.host->command));
}

struct TableMetric {
    const char* name;
    const char* help;
    std::function<std::optional<double>(const ShownTable&)> value;
};

const TableMetric kTableMetrics[] = {
    {"host_start_time_seconds", "When the host's process began, since the epoch.",
     [](const ShownTable& shown) {
         return shown.host == nullptr ? std::nullopt
                                      : std::optional(static_cast<double>(shown.host->started));
     }},
    {"table_replaced", "Whether the host's table has lost its name to a later one (1) or not (0).",
     [](const ShownTable& shown) { return shown.table->replaced ? 1 : 0; }},
    {"table_damaged", "Whether the table holds what no host writes there (1).",
     [](const ShownTable& shown) { return shown.table->plausible ? 0 : 1; }},
    {"table_handles", "Handles open, as the table counts them.",
     [](const ShownTable& shown) { return shown.table->handles; }},
};

}  // namespace

std::string statusPrometheus(const Machine& machine, bool all) {
    const std::vector<ShownTable> tables = liveTables(machine);
    const auto hosts = static_cast<double>(machine.hosts.size());
    std::string text;
    const Output out(text);
    write(out, "hosts", "Live hosts that are seen; NaN = none is, but there may be one.",
          machine.hosts.empty() && !machine.blindness.empty() ? kUnknown : hosts);
    write(out, "hidden_processes", "Processes that could not be searched for a table.",
          static_cast<double>(machine.hidden));
    write(out, "table_present", "Whether there is a file with a table (1) or not (0).",
          machine.file ? 1 : 0);
    write(out, "table_hosts", "Live hosts that have the file's table; NaN = unknown.",
          !machine.file || machine.isFileKnown() ? machine.isFileLive() : kUnknown);
    for (const TableMetric& metric : kTableMetrics) {
        writeHeader(out, metric.name, metric.help);
        for (const ShownTable& shown : tables) {
            const std::string labels = hostLabels(shown);
            if (const auto value = metric.value(shown))
                fmt::format_to(out, "qxvrtp_{}{{{}}} {}\n", metric.name, labels, number(*value));
        }
    }
    for (const Metric& metric : kMetrics) {
        writeHeader(out, fmt::format("channel_{}", metric.name), metric.help);
        for (const ShownTable& shown : tables) {
            std::string labels = hostLabels(shown);
            labels += labels.empty() ? "" : ",";
            for (const ChannelState& channel : shown.table->channels) {
                const auto value = all || channel.running ? metric.value(channel) : std::nullopt;
                if (value)
                    fmt::format_to(out,
                                   "qxvrtp_channel_{}{{{}direction=\"{}\",channel=\"{}\","
                                   "address=\"{}\",port=\"{}\"}} {}\n",
                                   metric.name, labels, directionName(channel), channel.number,
                                   labelText(channel.address), channel.port, number(*value));
            }
        }
    }
    return text;
}
