#ifndef TOOLS_COMMANDS_SERVECOMMAND_H
#define TOOLS_COMMANDS_SERVECOMMAND_H

#include <vector>

#include "config/ConfigReload.h"
#include "engine/Jobs.h"
#include "page/HttpServer.h"

struct CommandModel;

// Serves the page until SIGINT or SIGTERM comes. Throws Failure when the address cannot be listened
// on.
void runServe(const HttpServer::Settings& settings, const JobSource<MonitorJob>& jobs);

CommandModel serveCommand();

#endif
