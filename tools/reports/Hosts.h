// Which processes have a channel table in their memory.
#ifndef TOOLS_REPORTS_HOSTS_H
#define TOOLS_REPORTS_HOSTS_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

// A process that has a table of that path in its memory.
struct TableHost {
    pid_t pid = 0;
    std::string command;
    bool replaced = false;  // it has an earlier table, which has lost its name since
};

struct TableHosts {
    std::vector<TableHost> hosts;
    size_t hidden = 0;  // processes that this user may not look into
    // Why a host may live although it is not seen: "" = none does.
    std::string blindness;

    // Those that have the table itself, not an earlier one.
    size_t current() const;
    // Whether it is known that current() counts all of them, or that it is not 0.
    bool known() const { return current() > 0 || blindness.empty(); }
};

// Looks through the memory maps of all processes that can be seen in `proc`.
TableHosts findHosts(const std::string& tablePath, const std::string& proc = "/proc");

#endif
