// Reports for people and for line-oriented tools.
#ifndef TOOLS_REPORTS_TEXT_H
#define TOOLS_REPORTS_TEXT_H

#include <optional>
#include <string>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// The table in columns that no space or control character breaks; other lines begin with '#'. Cut
// to `width` columns where that is given. Idle channels are left out unless `all`.
std::string tableText(const ChannelTable& table, const TableHosts& hosts, bool all,
                      std::optional<size_t> width);

// The processes that have the table.
std::string hostsText(const TableHosts& hosts);

// Parts of the reports about tables, in all formats.
const char* directionName(const ChannelState& channel);
const char* modeName(ChannelMode mode);
std::string endpointOf(const ChannelState& channel);  // address and port, as in a URL

#endif
