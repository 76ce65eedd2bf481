// Reports in Prometheus' text exposition format.
#ifndef TOOLS_REPORTS_PROMETHEUS_H
#define TOOLS_REPORTS_PROMETHEUS_H

#include <string>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// Idle channels are left out unless `all`, and so are the channels of a file whose host has ended:
// their rates are those of its last moment.
std::string statusPrometheus(const Machine& machine, bool all);

#endif
