// Reports for people and for line-oriented tools.
#ifndef TOOLS_REPORTS_TEXT_H
#define TOOLS_REPORTS_TEXT_H

#include <optional>
#include <string>
#include <vector>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// The channels of all hosts in columns that no space or control character breaks; other lines begin
// with '#', those above a host's channels with "# host ". Cut to `width` columns where that is
// given. Idle channels are left out unless `all`.
std::string statusText(const Machine& machine, bool all, std::optional<size_t> width);

// A line that tells whose table it is, for people.
std::string headingOf(const ShownTable& shown, const Machine& machine);

// What a process tells of its streams: a line that says whose they are, and their states.
std::vector<std::string> streamLines(const StreamProcess& process);

// Why there may be hosts that are not seen, as a sentence; "" = there are none.
std::string doubtsText(const Machine& machine);

// Parts of the reports about tables, in all formats.
const char* directionName(const ChannelState& channel);
const char* modeName(ChannelMode mode);
std::string endpointOf(const ChannelState& channel);  // address and port, as in a URL

#endif
