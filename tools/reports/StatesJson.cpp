#include "reports/StatesJson.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "base/SafeText.h"
#include "reports/StreamStates.h"

namespace {

using Json = nlohmann::ordered_json;
// Sorts its members: what another process has written may have thousands of them, and the ordered
// kind compares each with all before it.
using Given = nlohmann::json;

constexpr size_t kMostText = 1024;  // bytes of a name

// What lies behind a thousandth is noise.
double rounded(double value) {
    return std::round(value * 1e3) / 1e3;
}

Json pathJson(const PathState& path) {
    return {{"url", path.url},
            {"datagrams", path.datagrams},
            {"lost", path.lost},
            {"saved", path.saved},
            {"skew_ms", rounded(path.skew_ms)}};
}

Json inputJson(const InputState& input) {
    Json json = {{"url", input.url},
                 {"state", healthName(input.health)},
                 {"bytes", input.bytes},
                 {"bitrate_bps", input.bitrate_bps},
                 {"continuity_errors", input.continuityErrors},
                 {"datagrams_dropped", input.datagramsDropped},
                 {"repair", nullptr},
                 {"paths", Json::array()}};
    if (const auto& repair = input.repair)
        json["repair"] = {{"lost", repair->lost},
                          {"reordered", repair->reordered},
                          {"duplicates", repair->duplicates},
                          {"restored", repair->repaired}};
    for (const PathState& path : input.paths)
        json["paths"].push_back(pathJson(path));
    return json;
}

Json outputJson(const OutputState& output) {
    return {{"url", output.url},
            {"works", output.works},
            {"datagrams", output.datagrams},
            {"datagrams_dropped", output.datagramsDropped},
            {"send_failures", output.sendFailures}};
}

// What is missing, or of another type, is empty.
const Given& member(const Given& object, const char* name) {
    static const Given kNothing;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() ? *found : kNothing;
}

std::string text(const Given& object, const char* name) {
    const auto* const value = member(object, name).get_ptr<const std::string*>();
    return value == nullptr ? "" : printable(value->substr(0, kMostText));
}

uint64_t count(const Given& object, const char* name) {
    const Given& value = member(object, name);
    return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

double real(const Given& object, const char* name) {
    const Given& value = member(object, name);
    return value.is_number() && std::isfinite(value.get<double>()) ? value.get<double>() : 0.0;
}

bool flag(const Given& object, const char* name) {
    const Given& value = member(object, name);
    return value.is_boolean() && value.get<bool>();
}

// The objects of a list, each with a name of its own.
template <typename T, typename Read>
std::vector<T> entries(const Given& list, std::string T::*name, Read read) {
    std::vector<T> result;
    std::set<std::string> names;
    if (!list.is_array())
        return result;
    for (const Given& json : list) {
        if (result.size() == kMostStates)
            break;
        T entry = read(json);
        const std::string first = entry.*name;
        for (int number = 2; !names.insert(entry.*name).second; ++number)
            entry.*name = fmt::format("{} ({})", first, number);
        result.push_back(std::move(entry));
    }
    return result;
}

PathState readPath(const Given& json) {
    return {text(json, "url"), count(json, "datagrams"), count(json, "lost"), count(json, "saved"),
            real(json, "skew_ms")};
}

InputHealth health(const std::string& name) {
    for (const InputHealth health :
         {InputHealth::kOnAir, InputHealth::kStandby, InputHealth::kFaulty, InputHealth::kNoSignal,
          InputHealth::kNoSocket})
        if (name == healthName(health))
            return health;
    return InputHealth::kUnknown;
}

InputState readInput(const Given& json) {
    InputState input{text(json, "url"),
                     health(text(json, "state")),
                     count(json, "bytes"),
                     count(json, "bitrate_bps"),
                     count(json, "continuity_errors"),
                     count(json, "datagrams_dropped")};
    if (const Given& repair = member(json, "repair"); repair.is_object())
        input.repair = {count(repair, "lost"), count(repair, "reordered"),
                        count(repair, "duplicates"), count(repair, "restored")};
    input.paths = entries<PathState>(member(json, "paths"), &PathState::url, readPath);
    return input;
}

OutputState readOutput(const Given& json) {
    return {text(json, "url"), flag(json, "works"), count(json, "datagrams"),
            count(json, "datagrams_dropped"), count(json, "send_failures")};
}

StreamState readState(const Given& json) {
    StreamState state{text(json, "kind"), text(json, "name"), real(json, "seconds"),
                      count(json, "bytes"), count(json, "bitrate_bps")};
    state.inputs = entries<InputState>(member(json, "inputs"), &InputState::url, readInput);
    state.switches = count(json, "switches");
    state.packetsDropped = count(json, "packets_dropped");
    state.outputs = entries<OutputState>(member(json, "outputs"), &OutputState::url, readOutput);
    return state;
}

}  // namespace

nlohmann::ordered_json stateJson(const StreamState& state) {
    Json json = {{"kind", state.kind},
                 {"name", state.name},
                 {"seconds", rounded(state.seconds)},
                 {"bytes", state.bytes},
                 {"bitrate_bps", state.bitrate_bps},
                 {"switches", state.switches},
                 {"packets_dropped", state.packetsDropped},
                 {"inputs", Json::array()},
                 {"outputs", Json::array()}};
    for (const InputState& input : state.inputs)
        json["inputs"].push_back(inputJson(input));
    for (const OutputState& output : state.outputs)
        json["outputs"].push_back(outputJson(output));
    return json;
}

std::string stateText(const StreamState& state) {
    // Names of files may have bytes that are no UTF-8.
    return stateJson(state).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::vector<StreamState> parseStates(std::string_view text) {
    return entries<StreamState>(Given::parse(text, nullptr, false), &StreamState::name, readState);
}
