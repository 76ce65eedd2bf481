#include "commands/ConfigCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "commandline/CommandLine.h"
#include "config/ConfigFile.h"

namespace {

struct Arguments {
    std::string file;
    bool json = false;
};

CLI::App* addAction(CLI::App& config, const std::shared_ptr<Arguments>& given,
                    const std::string& name, const std::string& description) {
    CLI::App* const action = config.add_subcommand(name, description);
    action->add_option("FILE", given->file, "Configuration file")->required()->type_name("");
    return action;
}

}  // namespace

void addConfigOption(CLI::App& command, std::string& file, const std::string& beside) {
    const auto others = command.get_options([&](CLI::Option* option) {
        return option != command.get_help_ptr() && !option->check_name(beside);
    });
    auto* const config =
        command
            .add_option_function<std::string>(
                "-c,--config",
                [&file, others](const std::string& given) {
                    file = given;
                    for (CLI::Option* option : others)
                        option->required(false);
                },
                fmt::format("Run all [[{}]] entries of this file instead; see qxvrtp config --help",
                            command.get_name()))
            ->type_name("FILE");
    for (CLI::Option* option : others)
        config->excludes(option);
}

void addConfigCommand(CLI::App& app) {
    auto* const command = app.add_subcommand("config", "Check configuration files of services");
    command->require_subcommand(1);
    command->footer(fmt::format(
        "A file has an entry for each stream; 'qxvrtp send --config FILE' runs all [[send]] "
        "entries\n"
        "in one process, 'receive' and 'relay' those of theirs:\n"
        "\n"
        "  [[send]]\n"
        "  input = \"/srv/news.ts\"\n"
        "  url = \"rtp://239.1.1.1:5000?ttl=4&localaddr=192.0.2.7\"\n"
        "  bitrate = \"2.5M\"\n"
        "  loop = true\n"
        "\n"
        "qxvrtp.toml(5) describes all of it. Every error is one line: file, line, column, field.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp config check /etc/qxvrtp/news.toml && systemctl restart qxvrtp-send@news\n"
        "  qxvrtp config show --json news.toml | jq '.send[].url'\n"
        "\n{}",
        kExitCodes));
    const auto given = std::make_shared<Arguments>();
    auto* const check =
        addAction(*command, given, "check", "Print what is wrong with a file, and nothing else");
    check->footer(fmt::format("Done (0) when nothing is wrong.\n{}", kExitCodes));
    check->callback([given] { readConfig(given->file); });
    auto* const show = addAction(*command, given, "show",
                                 "Print what a file comes to, with URLs and numbers in full");
    show->add_flag("--json", given->json, "Print it as JSON");
    show->footer(kExitCodes);
    show->callback(
        [given] { fmt::print("{}", formatConfig(readConfig(given->file), given->json)); });
}
