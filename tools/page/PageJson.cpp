#include "page/PageJson.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "page/Observer.h"
#include "reports/Json.h"
#include "reports/Text.h"

namespace {

using Json = nlohmann::ordered_json;

// Names may have bytes that are no UTF-8.
std::string print(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

template <typename T>
Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

// NaN is null; what lies behind a thousandth is noise.
Json number(float value) {
    if (std::isnan(value))
        return nullptr;
    return std::round(double{value} * 1e3) / 1e3;
}

void addSubject(Json& json, const PageSubject& subject) {
    json["title"] = subject.title;
    json["stream"] = orNull(subject.stream);
    json["pid"] = subject.pid == 0 ? Json(nullptr) : Json(subject.pid);
    json["direction"] = orNull(subject.direction);
    json["channel"] = subject.direction.empty() ? Json(nullptr) : Json(subject.channel);
    json["input"] = orNull(subject.input);
}

Json channelJson(const ChannelState& channel) {
    return {{"direction", directionName(channel)},
            {"channel", channel.number},
            {"mode", modeName(channel.mode)},
            {"endpoint", endpointOf(channel)},
            {"socket_open", channel.socketOpen},
            {"bitrate_bps", channel.measured_bps},
            {"asked_bitrate_bps", channel.send ? Json(channel.asked_bps) : Json(nullptr)}};
}

Json hostJson(const Host& host) {
    Json json = {{"pid", host.pid},
                 {"command", host.command},
                 {"command_line", host.commandLine},
                 {"user", host.user},
                 {"started", host.started},
                 {"replaced", host.table.replaced},
                 {"damaged", !host.table.plausible},
                 {"channels", Json::array()}};
    for (const ChannelState& channel : host.table.channels)
        if (channel.running)
            json["channels"].push_back(channelJson(channel));
    return json;
}

Json processWithTime(const StreamProcess& process) {
    Json json = processJson(process);
    json["started"] = process.started;
    json["updated"] = process.states.updated;
    return json;
}

Json streamJson(const StreamFindings& stream) {
    const ts::MonitorReport& report = stream.report;
    Json alarms = Json::array();
    for (size_t i = 0; i < ts::kChecks; ++i)
        if (report.checks[i].raised)
            alarms.push_back(ts::info(static_cast<ts::Check>(i)).name);
    Json programmes = Json::array();
    constexpr size_t kMostNames = 8;
    for (const ProgrammeReport& programme : report.stream.programmes)
        if (programme.service && !programme.service->name.empty() && programmes.size() < kMostNames)
            programmes.push_back(programme.service->name);
    const auto& rtp = report.reception.rtp;
    return {{"name", stream.name()},
            {"url", stream.place.url},
            {"socket_open", stream.place.socketOpen},
            {"signal", report.signal},
            {"bitrate_bps", orNull(report.bitrate_bps)},
            {"jitter_ms", rtp ? number(static_cast<float>(rtp->jitter_ms)) : Json(nullptr)},
            {"delay_factor_ms", report.delivery.delayFactor_ms
                                    ? number(static_cast<float>(*report.delivery.delayFactor_ms))
                                    : Json(nullptr)},
            {"continuity_errors", report.stream.continuityErrors},
            {"packets_lost", report.delivery.lost},
            {"alarms", std::move(alarms)},
            {"programmes", std::move(programmes)}};
}

Json problemJson(const Problem& problem) {
    Json json = {{"level", problem.alarm ? "alarm" : "warning"},
                 {"text", problem.text},
                 {"since", problem.since}};
    addSubject(json, problem.subject);
    return json;
}

// Columns, which are shorter than rows with names.
Json excerptJson(const Snapshot& snapshot, const History::Excerpt& excerpt) {
    Json rates = Json::array();
    Json jitters = Json::array();
    Json errors = Json::array();
    for (const HistoryPoint& point : excerpt.points) {
        rates.push_back(number(std::round(point.bitrate_bps)));
        jitters.push_back(number(point.jitter_ms));
        errors.push_back(number(point.errors));
    }
    return {{"begin", snapshot.time - static_cast<double>(snapshot.second - excerpt.begin)},
            {"interval_seconds", excerpt.interval},
            {"bitrate_bps", std::move(rates)},
            {"jitter_ms", std::move(jitters)},
            {"errors", std::move(errors)}};
}

}  // namespace

std::string stateJson(const Snapshot& snapshot) {
    Json json = {{"number", snapshot.number},
                 {"time", snapshot.time},
                 {"machine", machineName()},
                 {"incomplete_because", orNull(snapshot.machine.blindness)},
                 {"last_event", snapshot.events.empty() ? 0 : snapshot.events.back().number},
                 {"problems", Json::array()},
                 {"streams", Json::array()},
                 {"hosts", Json::array()},
                 {"processes", Json::array()},
                 {"ended", Json::array()}};
    for (const Problem& problem : snapshot.problems)
        json["problems"].push_back(problemJson(problem));
    for (const StreamFindings& stream : snapshot.streams)
        json["streams"].push_back(streamJson(stream));
    for (const Host& host : snapshot.machine.hosts)
        json["hosts"].push_back(hostJson(host));
    for (const StreamProcess& process : snapshot.machine.processes)
        json["processes"].push_back(processWithTime(process));
    for (const EndedHost& ended : snapshot.ended)
        json["ended"].push_back(Json{{"pid", ended.host.pid},
                                     {"command", ended.host.command},
                                     {"command_line", ended.host.commandLine},
                                     {"user", ended.host.user},
                                     {"started", ended.host.started},
                                     {"ended", ended.ended}});
    return print(json);
}

std::string streamsJson(const Snapshot& snapshot, const std::optional<std::string>& only) {
    std::string text = "{\"streams\":[";
    bool first = true;
    for (const StreamFindings& stream : snapshot.streams) {
        if (only && stream.name() != *only)
            continue;
        text += std::exchange(first, false) ? "" : ",";
        text += findingsJson(stream, true);
    }
    return text + "]}";
}

std::string processesJson(const Snapshot& snapshot) {
    Json json = {{"processes", Json::array()}};
    for (const StreamProcess& process : snapshot.machine.processes)
        json["processes"].push_back(processWithTime(process));
    return print(json);
}

std::string eventsJson(const Snapshot& snapshot, uint64_t after) {
    Json json = {{"events", Json::array()}};
    for (const PageEvent& event : snapshot.events) {
        if (event.number <= after)
            continue;
        Json one = {{"number", event.number},
                    {"time", event.time},
                    {"kind", event.kind},
                    {"text", event.text}};
        addSubject(one, event.subject);
        json["events"].push_back(std::move(one));
    }
    return print(json);
}

std::string seriesJson(const Snapshot& snapshot, const History& history, const std::string& series,
                       size_t points) {
    return print(excerptJson(snapshot, history.read(series, snapshot.second, points)));
}

std::string allSeriesJson(const Snapshot& snapshot, const History& history, size_t points) {
    Json json = {{"series", Json::array()}};
    const auto add = [&](Json subject, const std::string& series) {
        subject.update(excerptJson(snapshot, history.read(series, snapshot.second, points)));
        json["series"].push_back(std::move(subject));
    };
    for (const StreamFindings& stream : snapshot.streams)
        add({{"stream", stream.name()}}, streamSeries(stream.name()));
    for (const Host& host : snapshot.machine.hosts)
        for (const ChannelState& channel : host.table.channels)
            if (channel.running)
                add({{"pid", host.pid},
                     {"direction", directionName(channel)},
                     {"channel", channel.number}},
                    channelSeries(host, channel));
    return print(json);
}
