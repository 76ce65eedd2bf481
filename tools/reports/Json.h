// Reports as JSON objects, for programs.
#ifndef TOOLS_REPORTS_JSON_H
#define TOOLS_REPORTS_JSON_H

#include <string>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// Idle channels are left out unless `all`.
std::string tableJson(const ChannelTable& table, const TableHosts& hosts, bool all);

#endif
