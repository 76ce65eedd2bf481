#include "reports/Json.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "reports/Text.h"

namespace {

using Json = nlohmann::ordered_json;

template <typename T>
Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

// To a microsecond, of milliseconds, or to a millisecond, of seconds: what lies behind is noise.
double rounded(double value) {
    return std::round(value * 1e3) / 1e3;
}

// Names may have bytes that are no UTF-8.
std::string print(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json pidJson(const PidReport& pid) {
    return {{"pid", pid.pid},
            {"type", pid.kind},
            {"codec", orNull(pid.codec)},
            {"language", orNull(pid.language)},
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
            {"interval_min_ms", rounded(clock.shortestInterval_ms)},
            {"interval_max_ms", rounded(clock.longestInterval_ms)},
            {"jitter_peak_to_peak_ms", rounded(clock.jitterPeakToPeak_ms)},
            {"jitter_rms_ms", rounded(clock.jitterRms_ms)}};
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

Json channelJson(const ChannelState& channel) {
    return {{"direction", directionName(channel)},
            {"channel", channel.number},
            {"running", channel.running},
            {"mode", modeName(channel.mode)},
            {"address", channel.address},
            {"port", channel.port},
            {"local_address", orNull(channel.localAddress)},
            {"ttl", channel.ttl},
            {"socket_open", channel.socketOpen},
            {"bitrate_bps", channel.measured_bps},
            {"asked_bitrate_bps", channel.send ? Json(channel.asked_bps) : Json(nullptr)},
            {"buffer_bytes", channel.bufferBytes}};
}

}  // namespace

std::string tableJson(const ChannelTable& table, const TableHosts& hosts, bool all) {
    Json json = {{"path", table.path},
                 {"owner", table.owner},
                 {"damaged", !table.plausible},
                 {"handles", table.handles},
                 {"alive", hosts.known() ? Json(hosts.current() > 0) : Json(nullptr)},
                 {"alive_unknown_because", hosts.known() ? Json(nullptr) : Json(hosts.blindness)},
                 {"hosts", Json::array()},
                 {"hidden_processes", hosts.hidden},
                 {"channels", Json::array()}};
    for (const TableHost& host : hosts.hosts)
        json["hosts"].push_back(
            Json{{"pid", host.pid}, {"command", host.command}, {"replaced", host.replaced}});
    for (const ChannelState& channel : table.channels) {
        if (all || channel.running)
            json["channels"].push_back(channelJson(channel));
    }
    return print(json);
}

std::string probeJson(const ProbeReport& report) {
    const Arrival& arrival = report.arrival;
    const StreamReport& stream = report.stream;
    const bool nothing = stream.bytes == 0;
    Json json = {{"url", arrival.url},
                 {"encapsulation", nothing ? Json(nullptr) : Json(arrival.rtp ? "rtp" : "raw")},
                 {"packet_size", stream.packetSize == 0 ? Json(nullptr) : Json(stream.packetSize)},
                 {"seconds", rounded(std::chrono::duration<double>(stream.time).count())},
                 {"datagrams", arrival.datagrams},
                 {"datagrams_dropped", arrival.datagramsDropped},
                 {"bytes", stream.bytes},
                 {"packets", stream.packets},
                 {"bitrate_arrival_bps", orNull(stream.arrivalBitrate_bps)},
                 {"bitrate_pcr_bps", orNull(stream.pcrBitrate_bps)},
                 {"transport_stream_id", orNull(stream.transportStreamId)},
                 {"continuity_errors", stream.continuityErrors},
                 {"sync_losses", stream.syncLosses},
                 {"transport_errors", stream.transportErrors},
                 {"section_errors", stream.sectionErrors},
                 {"programmes", Json::array()},
                 {"pids", Json::array()},
                 {"pcrs", Json::array()},
                 {"left_out",
                  {{"programmes", report.programmesLeftOut},
                   {"streams", report.streamsLeftOut},
                   {"pids", report.pidsLeftOut}}}};
    for (const ProgrammeReport& programme : stream.programmes)
        json["programmes"].push_back(programmeJson(programme));
    for (const PidReport& pid : stream.pids)
        json["pids"].push_back(pidJson(pid));
    for (const PcrReport& clock : stream.pcrs)
        json["pcrs"].push_back(clockJson(clock));
    return print(json);
}
