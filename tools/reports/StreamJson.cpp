#include <unistd.h>

#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "reports/StreamFindings.h"

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

Json rtpJson(const ts::RtpReport& rtp) {
    return {
        {"received", rtp.counts.received},
        {"lost", rtp.counts.lost},
        {"reordered", rtp.counts.reordered},
        {"reordered_furthest", rtp.counts.furthest},
        {"duplicates", rtp.counts.duplicates},
        {"ssrc", rtp.ssrc},
        {"ssrc_changes", rtp.counts.ssrcChanges},
        {"restarts", rtp.counts.restarts},
        {"payload_type", rtp.payloadType},
        {"jitter_ms", rounded(rtp.jitter_ms)},
        {"timestamp_hz", rtp.timestampRate ? Json(rounded(*rtp.timestampRate)) : Json(nullptr)}};
}

// What is known before packets are looked for.
void addReception(Json& json, const ts::ReceptionReport& reception) {
    const bool some = reception.counts.datagrams > 0;
    Json sources = Json::array();
    for (const ts::SourceReport& source : reception.sources)
        sources.push_back(
            Json{{"address", sourceText(source.source)}, {"datagrams", source.datagrams}});
    json["sources"] = std::move(sources);
    json["datagram_bytes_min"] = some ? Json(reception.smallest) : Json(nullptr);
    json["datagram_bytes_max"] = some ? Json(reception.largest) : Json(nullptr);
    json["datagrams_odd"] = reception.counts.oddDatagrams;
    json["ttl_min"] = orNull(reception.smallestTtl);
    json["ttl_max"] = orNull(reception.largestTtl);
    json["dscp"] = reception.dscps;
    const auto& intervals = reception.intervals;
    json["arrival_interval_ms"] = intervals ? Json{{"p50", rounded(intervals->p50_ms)},
                                                   {"p99", rounded(intervals->p99_ms)},
                                                   {"max", rounded(intervals->longest_ms)}}
                                            : Json(nullptr);
    json["rtp"] = reception.rtp ? rtpJson(*reception.rtp) : Json(nullptr);
}

Json deliveryJson(const ts::MediaDeliveryReport& delivery) {
    const auto& factor = delivery.delayFactor_ms;
    return {{"delay_factor_ms", factor ? Json(rounded(*factor)) : Json(nullptr)},
            {"delay_factor_max_ms", rounded(delivery.largestDelayFactor_ms)},
            {"media_loss_rate", rounded(delivery.lossRate)},
            {"media_loss_rate_max", rounded(delivery.largestLossRate)},
            {"packets_lost", delivery.lost}};
}

Json checkJson(ts::Check check, const ts::CheckState& state, ts::Time wallAhead) {
    const ts::CheckInfo& info = ts::info(check);
    const auto time = [&](const std::optional<ts::Time>& at) {
        return at ? Json(isoTime(*at + wallAhead)) : Json(nullptr);
    };
    return {{"number", orNull(std::string(info.reference))},
            {"priority", info.priority},
            {"errors", state.count},
            {"first", time(state.first)},
            {"last", time(state.last)},
            {"alarm", state.raised},
            {"detail", orNull(state.detail)}};
}

void addChecks(Json& json, const StreamFindings& findings) {
    Json checks = Json::object();
    Json alarms = Json::array();
    for (size_t i = 0; i < ts::kChecks; ++i) {
        const auto check = static_cast<ts::Check>(i);
        const ts::CheckState state = findings.state(check);
        const char* const name = ts::info(check).name;
        checks[name] = checkJson(check, state, findings.place.wallAhead);
        if (state.raised)
            alarms.push_back(name);
    }
    json["alarms"] = std::move(alarms);
    json["checks"] = std::move(checks);
}

void addContents(Json& json, const StreamFindings& findings) {
    const StreamReport& stream = findings.report.stream;
    for (const char* const list : {"programmes", "pids", "pcrs"})
        json[list] = Json::array();
    for (const ProgrammeReport& programme : stream.programmes)
        json["programmes"].push_back(programmeJson(programme));
    for (const PidReport& pid : stream.pids)
        json["pids"].push_back(pidJson(pid));
    for (const PcrReport& clock : stream.pcrs)
        json["pcrs"].push_back(clockJson(clock));
    json["left_out"] = {{"programmes", findings.programmesLeftOut},
                        {"streams", findings.streamsLeftOut},
                        {"pids", findings.pidsLeftOut}};
}

// Names may have bytes that are no UTF-8.
std::string print(const Json& json, bool oneLine) {
    return json.dump(oneLine ? -1 : 2, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

std::string alarmJson(const FindingsPlace& place, const ts::AlarmEvent& event) {
    const ts::CheckInfo& check = ts::info(event.check);
    return print({{"machine", orNull(machineName())},
                  {"name", orNull(place.name)},
                  {"url", place.url},
                  {"check", check.name},
                  {"number", orNull(std::string(check.reference))},
                  {"priority", check.priority},
                  {"state", event.raised ? "raised" : "cleared"},
                  {"detail", orNull(event.detail)},
                  {"time", isoTime(place.time + place.wallAhead)}},
                 true);
}

std::string findingsJson(const StreamFindings& findings, bool oneLine) {
    const FindingsPlace& place = findings.place;
    const ts::MonitorReport& report = findings.report;
    const StreamReport& stream = report.stream;
    const bool nothing = stream.bytes == 0;
    const Json form = nothing ? Json(nullptr) : Json(findings.isRtp() ? "rtp" : "raw");
    Json json = {
        {"url", place.url},
        {"name", orNull(place.name)},
        {"time", isoTime(place.time + place.wallAhead)},
        {"socket_open", place.socketOpen},
        {"signal", report.signal},
        {"seconds_without_signal",
         rounded(std::chrono::duration<double>(report.withoutSignal).count())},
        {"encapsulation", form},
        {"packet_size", stream.packetSize == 0 ? Json(nullptr) : Json(stream.packetSize)},
        {"seconds", rounded(std::chrono::duration<double>(stream.time).count())},
        {"datagrams", report.reception.counts.datagrams},
        {"datagrams_dropped", report.reception.counts.socketDrops},
        {"bytes", stream.bytes},
        {"packets", stream.packets},
        {"bitrate_last_second_bps", orNull(report.bitrate_bps)},
        {"null_share", report.nullShare ? Json(rounded(*report.nullShare)) : Json(nullptr)},
        {"bitrate_arrival_bps", orNull(stream.arrivalBitrate_bps)},
        {"bitrate_pcr_bps", orNull(stream.pcrBitrate_bps)},
        {"transport_stream_id", orNull(stream.transportStreamId)},
        {"continuity_errors", stream.continuityErrors},
        {"sync_losses", stream.syncLosses},
        {"transport_errors", stream.transportErrors},
        {"section_errors", stream.sectionErrors}};
    const auto worst = std::chrono::duration<double, std::micro>(report.pcrs.worstError);
    json["constant_rate"] = orNull(report.pcrs.constantRate);
    json["pcr_accuracy_us"] =
        report.pcrs.constantRate == true ? Json(rounded(worst.count())) : Json(nullptr);
    addReception(json, report.reception);
    json["mdi"] = deliveryJson(report.delivery);
    addChecks(json, findings);
    addContents(json, findings);
    return print(json, oneLine);
}
