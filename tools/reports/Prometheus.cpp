#include "reports/Prometheus.h"

#include <fmt/format.h>

#include <functional>
#include <limits>
#include <optional>
#include <string_view>

#include "base/TextOutput.h"
#include "reports/Text.h"

namespace {

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

void writeHeader(TextOutput out, const std::string& name, const char* help) {
    out("# HELP qxvrtp_{0} {1}\n# TYPE qxvrtp_{0} gauge\n", name, help);
}

void write(TextOutput out, const std::string& name, const char* help, double value) {
    writeHeader(out, name, help);
    out("qxvrtp_{} {}\n", name, number(value));
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

// One whose name ends in "_total" is a counter.
template <typename Thing>
struct StateMetric {
    const char* name;
    const char* help;
    std::optional<double> (*value)(const Thing&);
};

double real(uint64_t value) {
    return static_cast<double>(value);
}

using Repair = InputState::Repair;

std::optional<double> repaired(const InputState& input, uint64_t Repair::*count) {
    return input.repair ? std::optional(real((*input.repair).*count)) : std::nullopt;
}

constexpr StateMetric<StreamState> kStreamMetrics[] = {
    {"seconds_total", "Time since the stream began.",
     [](const StreamState& stream) -> std::optional<double> { return stream.seconds; }},
    {"bytes_total", "Bytes of transport stream that came in.",
     [](const StreamState& stream) -> std::optional<double> { return real(stream.bytes); }},
    {"bytes_per_second", "Measured rate of what comes in; of a send stream, its channel's rate.",
     [](const StreamState& stream) -> std::optional<double> {
         return real(stream.bitrate_bps) / 8.0;
     }},
    {"switches_total", "Changes from one input to another.",
     [](const StreamState& stream) -> std::optional<double> { return real(stream.switches); }},
    {"dropped_packets_total", "Packets for which a constant rate was too low.",
     [](const StreamState& stream) -> std::optional<double> {
         return real(stream.packetsDropped);
     }},
};

constexpr StateMetric<InputState> kInputMetrics[] = {
    {"input_on_air", "Whether the stream is taken from this input (1) or not (0).",
     [](const InputState& input) -> std::optional<double> {
         return input.health == InputHealth::kOnAir ? 1 : 0;
     }},
    {"input_signal", "Whether something comes in that could be sent (1) or not (0).",
     [](const InputState& input) -> std::optional<double> {
         return input.health == InputHealth::kOnAir || input.health == InputHealth::kStandby ? 1
                                                                                             : 0;
     }},
    {"input_bytes_total", "Bytes of transport stream that came from this input.",
     [](const InputState& input) -> std::optional<double> { return real(input.bytes); }},
    {"input_bytes_per_second", "Measured rate of what comes from this input.",
     [](const InputState& input) -> std::optional<double> {
         return real(input.bitrate_bps) / 8.0;
     }},
    {"continuity_errors_total", "Continuity errors in what came in, after repair.",
     [](const InputState& input) -> std::optional<double> { return real(input.continuityErrors); }},
    {"input_dropped_datagrams_total", "Datagrams for which this machine had no room.",
     [](const InputState& input) -> std::optional<double> { return real(input.datagramsDropped); }},
    {"lost_datagrams_total", "Datagrams that are missing in spite of all repair.",
     [](const InputState& input) -> std::optional<double> {
         return repaired(input, &Repair::lost);
     }},
    {"reordered_datagrams_total", "Datagrams that were put in order.",
     [](const InputState& input) -> std::optional<double> {
         return repaired(input, &Repair::reordered);
     }},
    {"duplicate_datagrams_total", "Datagrams that came again and were left out.",
     [](const InputState& input) -> std::optional<double> {
         return repaired(input, &Repair::duplicates);
     }},
    {"repaired_datagrams_total", "Datagrams that FEC brought back.",
     [](const InputState& input) -> std::optional<double> {
         return repaired(input, &Repair::repaired);
     }},
};

constexpr StateMetric<PathState> kPathMetrics[] = {
    {"path_datagrams_total", "Datagrams that this path brought.",
     [](const PathState& path) -> std::optional<double> { return real(path.datagrams); }},
    {"path_lost_datagrams_total", "Datagrams that this path did not bring.",
     [](const PathState& path) -> std::optional<double> { return real(path.lost); }},
    {"path_saved_datagrams_total", "Of the lost ones, those that another path brought.",
     [](const PathState& path) -> std::optional<double> { return real(path.saved); }},
    {"path_skew_seconds", "How far this path is behind the one that comes first.",
     [](const PathState& path) -> std::optional<double> { return path.skew_ms / 1e3; }},
};

constexpr StateMetric<OutputState> kOutputMetrics[] = {
    {"output_works", "Whether what is sent or written leaves (1) or not (0).",
     [](const OutputState& output) -> std::optional<double> { return output.works ? 1 : 0; }},
    {"output_datagrams_total", "Datagrams that were sent or written.",
     [](const OutputState& output) -> std::optional<double> { return real(output.datagrams); }},
    {"output_dropped_datagrams_total", "Datagrams that the output did not take.",
     [](const OutputState& output) -> std::optional<double> {
         return real(output.datagramsDropped);
     }},
    {"output_send_failures_total", "Datagrams that the system refused to send.",
     [](const OutputState& output) -> std::optional<double> { return real(output.sendFailures); }},
};

using Use = std::function<void(const std::string& labels, const StreamState&)>;

void eachStream(const Machine& machine, const Use& use) {
    for (const StreamProcess& process : machine.processes)
        for (const StreamState& stream : process.states.streams)
            use(fmt::format(R"(pid="{}",command="{}",kind="{}",stream="{}")", process.pid,
                            labelText(process.command), labelText(stream.kind),
                            labelText(stream.name)),
                stream);
}

// `each` calls its argument with the labels and the thing itself, for all things.
template <typename Thing, size_t Count, typename Each>
void writeStates(TextOutput out, const StateMetric<Thing> (&metrics)[Count], Each each) {
    for (const StateMetric<Thing>& metric : metrics) {
        const bool counts = std::string_view(metric.name).ends_with("_total");
        out("# HELP qxvrtp_stream_{0} {1}\n# TYPE qxvrtp_stream_{0} {2}\n", metric.name,
            metric.help, counts ? "counter" : "gauge");
        each([&](const std::string& labels, const Thing& thing) {
            if (const auto value = metric.value(thing))
                out("qxvrtp_stream_{}{{{}}} {}\n", metric.name, labels, number(*value));
        });
    }
}

void writeProcesses(TextOutput out, const Machine& machine) {
    const auto inputs = [&machine](const auto& use) {
        eachStream(machine, [&use](const std::string& labels, const StreamState& stream) {
            for (const InputState& input : stream.inputs)
                use(fmt::format("{},input=\"{}\"", labels, labelText(input.url)), input);
        });
    };
    writeStates(out, kStreamMetrics, [&machine](const auto& use) { eachStream(machine, use); });
    writeStates(out, kInputMetrics, inputs);
    writeStates(out, kPathMetrics, [&inputs](const auto& use) {
        inputs([&use](const std::string& labels, const InputState& input) {
            for (const PathState& path : input.paths)
                use(fmt::format("{},path=\"{}\"", labels, labelText(path.url)), path);
        });
    });
    writeStates(out, kOutputMetrics, [&machine](const auto& use) {
        eachStream(machine, [&use](const std::string& labels, const StreamState& stream) {
            for (const OutputState& output : stream.outputs)
                use(fmt::format("{},output=\"{}\"", labels, labelText(output.url)), output);
        });
    });
}

}  // namespace

std::string statusPrometheus(const Machine& machine, bool all) {
    const std::vector<ShownTable> tables = liveTables(machine);
    const auto hosts = static_cast<double>(machine.hosts.size());
    std::string text;
    const TextOutput out(text);
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
                out("qxvrtp_{}{{{}}} {}\n", metric.name, labels, number(*value));
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
                    out("qxvrtp_channel_{}{{{}direction=\"{}\",channel=\"{}\","
                        "address=\"{}\",port=\"{}\"}} {}\n",
                        metric.name, labels, directionName(channel), channel.number,
                        labelText(channel.address), channel.port, number(*value));
            }
        }
    }
    writeProcesses(out, machine);
    return text;
}
