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
        "A host is a process that has loaded the module, such as 'qxvrtp send' or 'receive'.\n"
        "Each has a table of its channels, which is only read: no host is disturbed. A host that\n"
        "begins replaces the file {};\n"
        "the earlier ones keep their own tables, and are shown as well. Root sees the hosts of\n"
        "all users and containers, other users only their own, and in a container nobody sees\n"
        "those outside; where there may be more hosts, that is said. The file stays when its\n"
        "host has ended, and is shown as left over. Processes that share one table, such as\n"
        "children of a fork, are shown as one host.\n",
        QXV_RTP_TABLE_PATH);
}

void addSelection(CommandModel& command, std::string& pid, std::string& path) {
    command.addOption("--pid", pid, "NUMBER", "Only the host that is this process");
    command.addOption("--path", path, "FILE", "Only this table file, and the host that has it")
        .exclude({"--pid"});
}

std::optional<pid_t> processNumber(const std::string& pid) {
    if (pid.empty())
        return std::nullopt;
    return static_cast<pid_t>(quantity("--pid", pid, 1, INT32_MAX));
}

void failForNothing(const Machine& machine) {
    const std::string doubts = doubtsText(machine);
    throw Failure(machine.trouble + (doubts.empty() ? "" : "; " + doubts));
}

void runStatus(const StatusOptions& options) {
    const Machine machine = HostFinder({options.path, options.pid}).look();
    // The metrics of the last run must not stay where these are put.
    if (machine.tables().empty() && machine.processes.empty() && !options.prometheus)
        failForNothing(machine);
    if (options.json)
        fmt::print("{}", statusJson(machine, options.all));
    else if (options.prometheus)
        fmt::print("{}", statusPrometheus(machine, options.all));
    else
        fmt::print("{}", statusText(machine, options.all, terminalWidth()));
}

CommandModel statusCommand() {
    struct Arguments {
        StatusOptions options;
        std::string pid;
    };
    CommandModel command("status", "Show the channels of the running hosts");
    const auto given = std::make_shared<Arguments>();
    StatusOptions& options = given->options;
    command.addFlag("-a,--all", options.all, "Show idle channels, too");
    command.addFlag("-j,--json", options.json, "Print one JSON object");
    command
        .addFlag("-p,--prometheus", options.prometheus, "Print metrics in Prometheus' text format")
        .exclude({"--json"});
    addSelection(command, given->pid, options.path);
    command.footer = fmt::format(
        "{}\n"
        "Mbit/s is what flows (of a receive channel, what comes in), asked is the bitrate that a\n"
        "send channel was given, and KiB is what waits in the channel's ring.\n"
        "\n"
        "What 'send', 'receive' and 'relay' tell of their streams, with inputs, repair and "
        "outputs,\n"
        "is shown below the channels, in lines that begin with '#'.\n"
        "\n"
        "In the JSON object, hosts[] has all hosts with their channels[], the oldest first, and\n"
        "processes[] those that tell of their streams[]; what stands beside them is of the file "
        "or,\n"
        "with --pid, of that host's table. The metrics of channels and\n"
        "streams have the labels pid and command.\n"
        "\n"
        "Failed (1) when there is no host, no stream and no table, unless metrics are printed.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp status --all\n"
        "  qxvrtp status --pid 1234\n"
        "  qxvrtp status --json | jq '.hosts[].channels[] | select(.bitrate_bps == 0)'\n"
        "For the textfile collector of Prometheus' node_exporter:\n"
        "  qxvrtp status -p > $DIR/qxvrtp.new && mv $DIR/qxvrtp.new $DIR/qxvrtp.prom\n"
        "{}",
        tableHelp(), kExitCodes);
    command.action = [given] {
        given->options.pid = processNumber(given->pid);
        runStatus(given->options);
    };
    return command;
}
