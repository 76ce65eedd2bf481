#include "commands/StatusCommand.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>

#include "RtpContext.h"
#include "base/Errors.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "reports/HostTable.h"
#include "reports/Hosts.h"
#include "reports/Json.h"
#include "reports/Prometheus.h"
#include "reports/Text.h"

namespace {

std::optional<size_t> terminalWidth() {
    winsize size{};
    if (isatty(STDOUT_FILENO) == 0)
        return std::nullopt;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}

}  // namespace

std::string tableHelp() {
    return fmt::format(
        "The table is {}; it is only read, and the\n"
        "host is not disturbed. It belongs to the process that loaded the module last: each that\n"
        "does so replaces it, also 'qxvrtp send', 'receive', 'relay', 'probe', 'demo'.\n"
        "The file stays there after its host has ended, and does not show that by itself. A host\n"
        "lives if a process has the file in its memory. Root sees all processes, other users only\n"
        "their own, and in a container nobody sees those outside: where none is seen, but there\n"
        "may be one, the host is unknown.\n",
        kSharedMemoryPath);
}

void runStatus(const StatusOptions& options) {
    ChannelTable table;
    try {
        table = readTable(options.path);
    } catch (const Failure&) {
        if (!options.prometheus)
            throw;
        // The metrics of the last run must not stay where these are put.
        fmt::print("{}", noTablePrometheus());
        return;
    }
    const TableHosts hosts = findHosts(options.path);
    if (options.json)
        fmt::print("{}", tableJson(table, hosts, options.all));
    else if (options.prometheus)
        fmt::print("{}", tablePrometheus(table, hosts, options.all));
    else
        fmt::print("{}", tableText(table, hosts, options.all, terminalWidth()));
}

CommandModel statusCommand() {
    CommandModel command("status", "Show the channels of the running host");
    const auto options = std::make_shared<StatusOptions>();
    options->path = kSharedMemoryPath;
    command.addFlag("-a,--all", options->all, "Show idle channels, too");
    command.addFlag("-j,--json", options->json, "Print one JSON object");
    command
        .addFlag("-p,--prometheus", options->prometheus, "Print metrics in Prometheus' text format")
        .exclude({"--json"});
    command.addOption("--path", options->path, "FILE", "Another table file, such as a container's");
    command.footer = fmt::format(
        "{}\n"
        "Failed (1) when there is no table, unless metrics are printed: one of them says so.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp status --all\n"
        "  qxvrtp status --json | jq '.channels[] | select(.bitrate_bps == 0)'\n"
        "  qxvrtp status --path /proc/1234/root{}\n"
        "For the textfile collector of Prometheus' node_exporter:\n"
        "  qxvrtp status -p > $DIR/qxvrtp.new && mv $DIR/qxvrtp.new $DIR/qxvrtp.prom\n"
        "{}",
        tableHelp(), kSharedMemoryPath, kExitCodes);
    command.action = [options] { runStatus(*options); };
    return command;
}
