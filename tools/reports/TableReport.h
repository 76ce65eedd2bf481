// How the channel table is printed.
#ifndef TOOLS_REPORTS_TABLEREPORT_H
#define TOOLS_REPORTS_TABLEREPORT_H

#include <optional>
#include <string>

#include "reports/TableReader.h"

// In columns that no space or control character breaks; other lines begin with '#'. Cut to `width`
// columns where that is given. Idle channels are left out unless `all`.
std::string tableText(const ChannelTable& table, const TableHosts& hosts, bool all,
                      std::optional<size_t> width);

// One JSON object.
std::string tableJson(const ChannelTable& table, const TableHosts& hosts, bool all);

// Prometheus' text exposition format.
std::string tablePrometheus(const ChannelTable& table, const TableHosts& hosts, bool all);

// The channel's address and port, as in a URL.
std::string endpointOf(const ChannelState& channel);
const char* modeName(ChannelMode mode);
const char* directionName(const ChannelState& channel);

// The processes that have the table, for people.
std::string hostsText(const TableHosts& hosts);

#endif
