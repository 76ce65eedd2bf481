// Reports as JSON objects, for programs.
#ifndef TOOLS_REPORTS_JSON_H
#define TOOLS_REPORTS_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "reports/HostTable.h"
#include "reports/Hosts.h"

// All hosts, each with its table, and the file's table beside them; and all processes that tell the
// states of their streams. Idle channels are left out unless `all`.
std::string statusJson(const Machine& machine, bool all);

nlohmann::ordered_json processJson(const StreamProcess& process);

#endif
