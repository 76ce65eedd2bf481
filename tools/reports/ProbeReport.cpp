#include "reports/ProbeReport.h"

#include <fmt/format.h>

#include <iterator>
#include <nlohmann/json.hpp>

#include "base/Quantity.h"

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

std::string rateOr(const std::optional<uint64_t>& bitrate_bps, const char* instead) {
    return bitrate_bps ? formatBitrate(*bitrate_bps) : instead;
}

std::string pidType(const PidReport& pid) {
    std::string type = pid.kind;
    for (const std::string& more : {pid.codec, pid.language})
        type += more.empty() ? "" : ' ' + more;
    return type;
}

std::string pidNotes(const PidReport& pid) {
    std::string notes = pid.pcr ? "PCR" : "";
    if (pid.scrambled > 0)
        notes += notes.empty() ? "scrambled" : " scrambled";
    return notes;
}

using Output = std::back_insert_iterator<std::string>;

void writeProgrammes(Output out, const StreamReport& report) {
    if (report.programmes.empty())
        fmt::format_to(out, "\nno programmes: no PAT came\n");
    else
        fmt::format_to(out, "\nprogramme  PMT    PCR    PIDs  name (provider)\n");
    for (const ProgrammeReport& programme : report.programmes) {
        fmt::format_to(
            out, "{:>9}  {:<5}  {:<5} {:>5}  {}\n", programme.number, programme.pmtPid,
            programme.pcrPid ? fmt::format("{}", *programme.pcrPid) : "-", programme.streams.size(),
            programme.service
                ? fmt::format("{} ({})", programme.service->name, programme.service->provider)
                : "-");
    }
}

void writePids(Output out, const StreamReport& report) {
    fmt::format_to(out,
                   "\n  PID  type                       packets         bitrate  cc errors  \n");
    for (const PidReport& pid : report.pids)
        fmt::format_to(out, "{:>5}  {:<22} {:>11} {:>15} {:>10}  {}\n", pid.pid, pidType(pid),
                       pid.packets, rateOr(pid.bitrate_bps, "-"), pid.continuityErrors,
                       pidNotes(pid));
}

void writeClocks(Output out, const StreamReport& report) {
    if (report.pcrs.empty())
        return;
    fmt::format_to(
        out, "\n  PCR    count   interval ms (min, max)   jitter ms (peak-peak, RMS)   cuts\n");
    for (const PcrReport& clock : report.pcrs)
        fmt::format_to(out, "{:>5} {:>8} {:>12.2f} {:>11.2f} {:>17.2f} {:>10.2f} {:>6}\n",
                       clock.pid, clock.count, clock.shortestInterval_ms, clock.longestInterval_ms,
                       clock.jitterPeakToPeak_ms, clock.jitterRms_ms, clock.discontinuities);
}

Json pidJson(const PidReport& pid) {
    return {{"pid", pid.pid},
            {"type", pid.kind},
            {"codec", pid.codec.empty() ? Json(nullptr) : Json(pid.codec)},
            {"language", pid.language.empty() ? Json(nullptr) : Json(pid.language)},
            {"programmes", pid.programmes},
            {"pcr", pid.pcr},
            {"packets", pid.packets},
            {"scrambled_packets", pid.scrambled},
            {"bitrate_bps", orNull(pid.bitrate_bps)},
            {"continuity_errors", pid.continuityErrors}};
}

Json clockJson(const PcrReport& clock) {
    return {{"pid", clock.pid},
            {"count", clock.count},
            {"discontinuities", clock.discontinuities},
            {"interval_min_ms", clock.shortestInterval_ms},
            {"interval_max_ms", clock.longestInterval_ms},
            {"jitter_peak_to_peak_ms", clock.jitterPeakToPeak_ms},
            {"jitter_rms_ms", clock.jitterRms_ms}};
}

Json programmeJson(const ProgrammeReport& programme) {
    Json streams = Json::array();
    for (const ElementaryStream& stream : programme.streams)
        streams.push_back(Json{{"pid", stream.pid}, {"stream_type", stream.streamType}});
    const auto& service = programme.service;
    return {{"number", programme.number},
            {"name", service ? Json(service->name) : Json(nullptr)},
            {"provider", service ? Json(service->provider) : Json(nullptr)},
            {"service_type", service ? Json(service->type) : Json(nullptr)},
            {"pmt_pid", programme.pmtPid},
            {"pcr_pid", orNull(programme.pcrPid)},
            {"streams", std::move(streams)}};
}

}  // namespace

std::string probeText(const Arrival& arrival, const StreamReport& report) {
    std::string text;
    const Output out(text);
    const double seconds = std::chrono::duration<double>(report.time).count();
    fmt::format_to(out, "{}\n{}, packets of {} bytes, {} packets in {} datagrams, {:.2f} s\n",
                   arrival.url, arrival.rtp ? "RTP" : "raw", report.packetSize, report.packets,
                   arrival.datagrams, seconds);
    fmt::format_to(out, "bitrate  {} by arrival, {} by PCR\n",
                   rateOr(report.arrivalBitrate_bps, "unknown"),
                   rateOr(report.pcrBitrate_bps, "unknown"));
    fmt::format_to(out, "errors   continuity {}, sync {}, transport {}, section {}\n",
                   report.continuityErrors, report.syncLosses, report.transportErrors,
                   report.sectionErrors);
    writeProgrammes(out, report);
    writePids(out, report);
    writeClocks(out, report);
    return text;
}

std::string probeJson(const Arrival& arrival, const StreamReport& report) {
    Json json = {{"url", arrival.url},
                 {"encapsulation", arrival.rtp ? "rtp" : "raw"},
                 {"packet_size", report.packetSize},
                 {"seconds", std::chrono::duration<double>(report.time).count()},
                 {"datagrams", arrival.datagrams},
                 {"bytes", report.bytes},
                 {"packets", report.packets},
                 {"bitrate_arrival_bps", orNull(report.arrivalBitrate_bps)},
                 {"bitrate_pcr_bps", orNull(report.pcrBitrate_bps)},
                 {"transport_stream_id", orNull(report.transportStreamId)},
                 {"continuity_errors", report.continuityErrors},
                 {"sync_losses", report.syncLosses},
                 {"transport_errors", report.transportErrors},
                 {"section_errors", report.sectionErrors},
                 {"programmes", Json::array()},
                 {"pids", Json::array()},
                 {"pcrs", Json::array()}};
    for (const ProgrammeReport& programme : report.programmes)
        json["programmes"].push_back(programmeJson(programme));
    for (const PidReport& pid : report.pids)
        json["pids"].push_back(pidJson(pid));
    for (const PcrReport& clock : report.pcrs)
        json["pcrs"].push_back(clockJson(clock));
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}
