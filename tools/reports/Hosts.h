// The hosts of this machine: the processes that have a channel table open, each with its own. A
// table that has lost its name is found as well, and so is one in another mount namespace. And the
// processes that tell the states of their streams, whether or not they are hosts.
#ifndef TOOLS_REPORTS_HOSTS_H
#define TOOLS_REPORTS_HOSTS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "base/FileDescriptor.h"
#include "reports/HostTable.h"
#include "reports/StreamStates.h"

// All texts come from the process and are fit to be shown, but for the table's path.
struct Process {
    pid_t pid = 0;
    std::string command;      // one word of ASCII
    std::string commandLine;  // one line, without the program's folder
    std::string user;         // name, or number
    std::time_t started = 0;
    uint64_t startTicks = 0;  // since the boot
};

struct Host : Process {
    // Processes that share the table and began later: children of a fork, which have no channels of
    // their own, or hosts of other users that could not replace the file.
    std::vector<pid_t> sharedWith;
    ChannelTable table;
};

struct StreamProcess : Process {
    PublishedStates states;
};

// A table that is shown. `host` is null where no host that is seen has it.
struct ShownTable {
    const Host* host;
    const ChannelTable* table;
};

struct Machine {
    std::vector<Host> hosts;               // the oldest first
    std::vector<StreamProcess> processes;  // with streams, the oldest first
    size_t hidden = 0;                     // processes that this user may not look into
    std::string blindness;                 // why there may be more hosts; "" = there are none
    // The one that has the path's name or, where one process was asked for, that process's.
    std::optional<ChannelTable> file;
    std::string trouble;  // why there is no file

    // Those of all hosts, and the file where none of them has it.
    std::vector<ShownTable> tables() const;
    bool isFileLive() const;  // a host has it
    // Whether it is known that no host has the file, or that one has.
    bool isFileKnown() const { return blindness.empty() || isFileLive(); }
};

struct HostSelection {
    std::string path;          // of a file, if only that and its hosts are asked for
    std::optional<pid_t> pid;  // of a process, if only that is asked for
};

// Finds the hosts and reads their tables, once or again and again.
class HostFinder {
  public:
    explicit HostFinder(HostSelection selection, const std::string& proc = "/proc");

    // Looks through all processes that can be seen, but no more often than every five seconds,
    // unless the file becomes another one; in between, only at those that were hosts then.
    Machine look();

  private:
    void readFile(Machine& machine);
    std::vector<pid_t> processes() const;
    // Puts the hosts and the processes with streams into the machine.
    size_t search(const std::vector<pid_t>& pids, Machine& machine) const;

    const HostSelection selection_;
    const FileDescriptor proc_;
    FileId file_;
    std::vector<pid_t> known_;  // of both kinds
    size_t hidden_ = 0;
    std::optional<std::chrono::steady_clock::time_point> searched_;  // everywhere
};

#endif
