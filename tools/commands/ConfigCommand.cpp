#include "commands/ConfigCommand.h"

#include <fmt/format.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "config/ConfigFile.h"

namespace {

CommandModel checkCommand() {
    CommandModel command("check", "Print the errors of a file, and nothing else");
    const auto file = std::make_shared<std::string>();
    command.addArgument("FILE", *file, "Configuration file").require();
    command.footer = fmt::format("Succeeds (0) when the file has no errors.\n{}", kExitCodes);
    command.action = [file] { readConfig(*file); };
    return command;
}

CommandModel showCommand() {
    struct Arguments {
        std::string file;
        bool json = false;
    };
    CommandModel command("show",
                         "Print the effective configuration, with URLs and numbers in full");
    const auto given = std::make_shared<Arguments>();
    command.addArgument("FILE", given->file, "Configuration file").require();
    command.addFlag("--json", given->json, "Print it as JSON");
    command.footer = kExitCodes;
    command.action = [given] {
        fmt::print("{}", formatConfig(readConfig(given->file), given->json));
    };
    return command;
}

}  // namespace

void addConfigOption(CommandModel& command, std::string& file, const std::string& beside) {
    std::vector<std::string> others;
    for (const auto* const list : {&command.arguments, &command.options})
        for (const OptionModel& option : *list)
            if (option.isSet() && option.name() != beside)
                others.push_back(option.name());
    command
        .addOption(
            "-c,--config", file, "FILE",
            fmt::format("Run all [[{}]] entries of this file instead; see qxvrtp config --help",
                        command.name))
        .exclude(std::move(others));
}

CommandModel configCommand() {
    CommandModel command("config", "Check configuration files of services");
    command.footer = fmt::format(
        "A file has an entry for each stream; 'qxvrtp send --config FILE' runs all [[send]] "
        "entries\n"
        "in one process, 'receive', 'relay' and 'monitor' those of theirs:\n"
        "\n"
        "  [[send]]\n"
        "  input = \"/srv/news.ts\"\n"
        "  url = \"rtp://239.1.1.1:5000?ttl=4&localaddr=192.0.2.7\"\n"
        "  bitrate = \"2.5M\"\n"
        "  loop = true\n"
        "\n"
        "qxvrtp.toml(5) describes the format. Every error is one line: file, line, column, field.\n"
        "Names of hosts and interfaces are not looked up before a stream is opened.\n"
        "With SIGHUP, the commands read their file again; streams whose entries are the same are\n"
        "not touched, and a file with errors changes nothing.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp config check /etc/qxvrtp/news.toml && systemctl start qxvrtp-send@news\n"
        "  qxvrtp config show --json news.toml | jq '.send[].url'\n"
        "\n{}",
        kExitCodes);
    command.addCommand(checkCommand());
    command.addCommand(showCommand());
    return command;
}
