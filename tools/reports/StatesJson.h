// The states of streams as JSON, and back.
#ifndef TOOLS_REPORTS_STATESJSON_H
#define TOOLS_REPORTS_STATESJSON_H

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/StreamState.h"

constexpr size_t kMostStates = 64;  // that are read, and of any other list

nlohmann::ordered_json stateJson(const StreamState& state);
std::string stateText(const StreamState& state);  // on one line

// Of an array of such objects, which another process has written and which may be anything. All
// texts are fit to be shown, and no two streams, inputs, paths or outputs of one list have the same
// name.
std::vector<StreamState> parseStates(std::string_view text);

#endif
