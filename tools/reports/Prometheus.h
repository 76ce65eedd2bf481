// Reports in Prometheus' text exposition format.
#ifndef TOOLS_REPORTS_PROMETHEUS_H
#define TOOLS_REPORTS_PROMETHEUS_H

#include <string>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// Idle channels are left out unless `all`.
std::string tablePrometheus(const ChannelTable& table, const TableHosts& hosts, bool all);

// Where there is no table: one metric says so.
std::string noTablePrometheus();

#endif
