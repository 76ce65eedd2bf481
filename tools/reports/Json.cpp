#include "reports/Json.h"

#include <nlohmann/json.hpp>

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
