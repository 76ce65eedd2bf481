#ifndef TOOLS_COMMANDS_MONITORCOMMAND_H
#define TOOLS_COMMANDS_MONITORCOMMAND_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

struct MonitorOptions {
    std::chrono::milliseconds interval{10000};  // of the lines and the metrics
    bool json = false;
    bool reportAtEnd = true;  // for people, unless there are lines of JSON
    std::string metrics;      // file; empty = none
};

// Watches all streams until they have had their duration, or SIGINT or SIGTERM comes. Throws
// Failure when streams had no socket within the patience; without one, sockets are tried for ever.
void runMonitor(const std::vector<MonitorJob>& jobs, const MonitorOptions& options,
                std::optional<std::chrono::milliseconds> patience);

CommandModel monitorCommand();

#endif
