#include "reports/Json.h"

#include <nlohmann/json.hpp>

#include "base/Quantity.h"
#include "reports/StatesJson.h"
#include "reports/Text.h"

namespace {

using Json = nlohmann::ordered_json;

Json orNull(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

// Names may have bytes that are no UTF-8.
std::string print(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n';
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

Json tableJson(const ChannelTable& table, bool all) {
    Json json = {{"path", table.path},         {"owner", table.owner},
                 {"replaced", table.replaced}, {"damaged", !table.plausible},
                 {"handles", table.handles},   {"channels", Json::array()}};
    for (const ChannelState& channel : table.channels) {
        if (all || channel.running)
            json["channels"].push_back(channelJson(channel));
    }
    return json;
}

Json factsJson(const Process& process) {
    return {{"pid", process.pid},
            {"command", process.command},
            {"command_line", process.commandLine},
            {"user", process.user},
            {"started", utcTimeText(process.started, "%FT%TZ")}};
}

Json hostJson(const Host& host, bool all) {
    Json json = factsJson(host);
    json["shared_with"] = host.sharedWith;
    json.update(tableJson(host.table, all));
    return json;
}

}  // namespace

nlohmann::ordered_json processJson(const StreamProcess& process) {
    Json json = factsJson(process);
    json["updated"] = utcTimeText(process.states.updated, "%FT%TZ");
    json["streams_left_out"] = process.states.leftOut;
    json["streams"] = Json::array();
    for (const StreamState& stream : process.states.streams)
        json["streams"].push_back(stateJson(stream));
    return json;
}

std::string statusJson(const Machine& machine, bool all) {
    const bool known = machine.file && machine.isFileKnown();
    Json json = machine.file
                    ? tableJson(*machine.file, all)
                    : Json{{"path", nullptr},    {"owner", nullptr},   {"replaced", nullptr},
                           {"damaged", nullptr}, {"handles", nullptr}, {"channels", Json::array()}};
    json["alive"] = known ? Json(machine.isFileLive()) : Json(nullptr);
    json["alive_unknown_because"] =
        known ? Json(nullptr) : Json(machine.file ? machine.blindness : machine.trouble);
    json["hosts"] = Json::array();
    for (const Host& host : machine.hosts)
        json["hosts"].push_back(hostJson(host, all));
    json["processes"] = Json::array();
    for (const StreamProcess& process : machine.processes)
        json["processes"].push_back(processJson(process));
    json["incomplete_because"] = orNull(machine.blindness);
    json["hidden_processes"] = machine.hidden;
    return print(json);
}
