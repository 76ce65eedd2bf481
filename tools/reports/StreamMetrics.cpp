#include <fmt/format.h>

#include <optional>

#include "base/SafeText.h"
#include "base/TextOutput.h"
#include "reports/StreamFindings.h"

namespace {

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : printable(text)) {
        if (c == '\\' || c == '"')
            result += '\\';
        result += c;
    }
    return result + '"';
}

std::string labelsOf(const StreamFindings& stream) {
    return fmt::format("url={},name={}", quoted(stream.place.url), quoted(stream.name()));
}

double inSeconds(double milliseconds) {
    return milliseconds / 1e3;
}

using Value = std::optional<double>;

struct Metric {
    const char* name;
    const char* type;
    const char* help;
    Value (*value)(const StreamFindings&);
};

std::optional<double> ofRtp(const StreamFindings& stream, uint64_t ts::RtpCounts::*count) {
    if (!stream.report.reception.rtp)
        return std::nullopt;
    return static_cast<double>(stream.report.reception.rtp->counts.*count);
}

std::optional<double> ofIntervals(const StreamFindings& stream,
                                  double ts::ArrivalIntervals::Report::*interval_ms) {
    const auto& intervals = stream.report.reception.intervals;
    return intervals ? std::optional(inSeconds((*intervals).*interval_ms)) : std::nullopt;
}

constexpr Metric kMetrics[] = {
    {"updated_timestamp_seconds", "gauge", "When these figures were written.",
     [](const StreamFindings& s) -> Value {
         return std::chrono::duration<double>(s.place.time + s.place.wallAhead).count();
     }},
    {"socket_open", "gauge", "Whether the stream's socket is open (1) or still to be made (0).",
     [](const StreamFindings& s) -> Value { return s.place.socketOpen ? 1 : 0; }},
    {"signal", "gauge", "Whether datagrams arrive (1) or not (0).",
     [](const StreamFindings& s) -> Value { return s.report.signal ? 1 : 0; }},
    {"without_signal_seconds_total", "counter", "Time in which no datagrams arrived.",
     [](const StreamFindings& s) -> Value {
         return std::chrono::duration<double>(s.report.withoutSignal).count();
     }},
    {"bytes_total", "counter", "Bytes of transport stream.",
     [](const StreamFindings& s) -> Value { return static_cast<double>(s.report.stream.bytes); }},
    {"packets_total", "counter", "Packets of transport stream.",
     [](const StreamFindings& s) -> Value { return static_cast<double>(s.report.stream.packets); }},
    {"datagrams_total", "counter", "Datagrams that arrived.",
     [](const StreamFindings& s) -> Value {
         return static_cast<double>(s.report.reception.counts.datagrams);
     }},
    {"socket_dropped_total", "counter", "Datagrams for which the monitor itself was too slow.",
     [](const StreamFindings& s) -> Value {
         return static_cast<double>(s.report.reception.counts.socketDrops);
     }},
    {"bytes_per_second", "gauge", "Rate of transport stream in the last second.",
     [](const StreamFindings& s) -> Value {
         if (!s.report.bitrate_bps)
             return std::nullopt;
         return static_cast<double>(*s.report.bitrate_bps) / 8.0;
     }},
    {"null_packet_ratio", "gauge", "Share of null packets in the last second.",
     [](const StreamFindings& s) -> Value { return s.report.nullShare; }},
    {"rtp_lost_total", "counter", "RTP datagrams that did not come within 100 to 200 ms.",
     [](const StreamFindings& s) -> Value { return ofRtp(s, &ts::RtpCounts::everLost); }},
    {"rtp_reordered_total", "counter", "RTP datagrams that came behind a later one.",
     [](const StreamFindings& s) -> Value { return ofRtp(s, &ts::RtpCounts::reordered); }},
    {"rtp_duplicates_total", "counter", "RTP datagrams that came again.",
     [](const StreamFindings& s) -> Value { return ofRtp(s, &ts::RtpCounts::duplicates); }},
    {"rtp_jitter_seconds", "gauge", "Interarrival jitter (RFC 3550).",
     [](const StreamFindings& s) -> Value {
         const auto& rtp = s.report.reception.rtp;
         return rtp ? std::optional(inSeconds(rtp->jitter_ms)) : std::nullopt;
     }},
    {"arrival_interval_p99_seconds", "gauge",
     "99 % of datagrams come within this time of the one before.",
     [](const StreamFindings& s) -> Value {
         return ofIntervals(s, &ts::ArrivalIntervals::Report::p99_ms);
     }},
    {"arrival_interval_max_seconds", "gauge",
     "Longest time between datagrams in the last two minutes.",
     [](const StreamFindings& s) -> Value {
         return ofIntervals(s, &ts::ArrivalIntervals::Report::longest_ms);
     }},
    {"delay_factor_seconds", "gauge", "Delay factor of the last second (RFC 4445).",
     [](const StreamFindings& s) -> Value {
         const auto& factor = s.report.delivery.delayFactor_ms;
         return factor ? std::optional(inSeconds(*factor)) : std::nullopt;
     }},
    {"pcr_accuracy_seconds", "gauge", "How far PCRs were off their places in the last second.",
     [](const StreamFindings& s) -> Value {
         if (s.report.pcrs.constantRate != true)
             return std::nullopt;
         return std::chrono::duration<double>(s.report.pcrs.worstError).count();
     }},
    {"media_lost_packets_total", "counter", "Packets that the media loss rate counts (RFC 4445).",
     [](const StreamFindings& s) -> Value { return static_cast<double>(s.report.delivery.lost); }},
};

void writeHeader(TextOutput out, const char* name, const char* type, const char* help) {
    out("# HELP qxvrtp_monitor_{0} {2}\n# TYPE qxvrtp_monitor_{0} {1}\n", name, type, help);
}

void writeMetric(TextOutput out, const Metric& metric, const std::vector<StreamFindings>& all) {
    writeHeader(out, metric.name, metric.type, metric.help);
    for (const StreamFindings& stream : all)
        if (const auto value = metric.value(stream))
            out("qxvrtp_monitor_{}{{{}}} {}\n", metric.name, labelsOf(stream), *value);
}

void writeChecks(TextOutput out, const std::vector<StreamFindings>& all, bool alarms) {
    const char* const name = alarms ? "alarm" : "check_errors_total";
    if (alarms)
        writeHeader(out, name, "gauge", "Whether the check's alarm is raised (1) or not (0).");
    else
        writeHeader(out, name, "counter", "How often the check has failed.");
    for (const StreamFindings& stream : all)
        for (size_t i = 0; i < ts::kChecks; ++i) {
            const auto check = static_cast<ts::Check>(i);
            const ts::CheckInfo& info = ts::info(check);
            const ts::CheckState& state = stream.state(check);
            out("qxvrtp_monitor_{}{{{},check=\"{}\",priority=\"{}\"}} {}\n", name, labelsOf(stream),
                info.name, info.priority, alarms ? uint64_t{state.raised} : state.count);
        }
}

void writePids(TextOutput out, const std::vector<StreamFindings>& all, bool errors) {
    const char* const name = errors ? "pid_continuity_errors_total" : "pid_packets_total";
    writeHeader(out, name, "counter", errors ? "Continuity errors of a PID." : "Packets of a PID.");
    for (const StreamFindings& stream : all)
        for (const PidReport& pid : stream.report.stream.pids)
            out("qxvrtp_monitor_{}{{{},pid=\"{}\",type={}}} {}\n", name, labelsOf(stream), pid.pid,
                quoted(pid.kind), errors ? pid.continuityErrors : pid.packets);
}

}  // namespace

std::string findingsPrometheus(const std::vector<StreamFindings>& all) {
    std::string text;
    const TextOutput out(text);
    for (const Metric& metric : kMetrics)
        writeMetric(out, metric, all);
    writeChecks(out, all, true);
    writeChecks(out, all, false);
    writePids(out, all, false);
    writePids(out, all, true);
    return text;
}
