// The only unit that includes the option parser's header, which takes longer to compile than any
// of the commands.
#include "commandline/Parser.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "base/Errors.h"

namespace {

CLI::Option* addOption(CLI::App& app, const OptionModel& model) {
    std::string names;
    for (const std::string& name : model.names)
        names += (names.empty() ? "" : ",") + name;
    if (model.names.empty())
        names = model.value;
    CLI::Option* option = nullptr;
    if (auto* const flag = std::get_if<bool*>(&model.target))
        return app.add_flag(names, **flag, model.description);
    if (auto* const text = std::get_if<std::string*>(&model.target))
        option = app.add_option(names, **text, model.description);
    else if (auto* const list = std::get_if<std::vector<std::string>*>(&model.target))
        option = app.add_option(names, **list, model.description);
    else
        return nullptr;  // the parser has it already
    option->type_name(model.names.empty() ? model.type : model.value);
    option->required(model.required);
    if (!model.choices.empty())
        option->check(CLI::IsMember(model.choices));
    return option;
}

void exclude(CLI::App& app, CLI::Option& option, const OptionModel& model) {
    std::vector<CLI::Option*> others;
    for (const std::string& name : model.excludes)
        others.push_back(app.get_option(name));
    for (CLI::Option* const other : others)
        option.excludes(other);
    // Requirements are looked at when all options have been read.
    option.each([others](const std::string&) {
        for (CLI::Option* const other : others)
            other->required(false);
    });
}

void build(CLI::App& app, const CommandModel& model) {
    if (!model.footer.empty())
        app.footer(model.footer);
    if (model.hidden)
        app.group("");
    std::vector<std::pair<CLI::Option*, const OptionModel*>> excluding;
    for (const auto* const list : {&model.arguments, &model.options})
        for (const OptionModel& option : *list) {
            CLI::Option* const added = addOption(app, option);
            if (!option.excludes.empty())
                excluding.emplace_back(added, &option);
        }
    for (const auto& [option, optionModel] : excluding)
        exclude(app, *option, *optionModel);
    for (const CommandModel& command : model.commands)
        build(*app.add_subcommand(command.name, command.description), command);
    if (!model.commands.empty())
        app.require_subcommand(1);
    if (model.action)
        app.callback(model.action);
}

// The parser would complain of a missing command where there is a wrong one.
void checkCommand(const CommandModel& root, const CLI::App& app, const std::string& first) {
    std::string names;
    for (const CommandModel& command : root.commands) {
        if (command.name == first)
            return;
        if (!command.hidden)
            names += (names.empty() ? "" : ", ") + command.name;
    }
    if (first.starts_with('-') && app.get_option_no_throw(first) == nullptr)
        throw UsageError(fmt::format("there is no option '{}'; see 'qxvrtp --help'", first));
    if (!first.starts_with('-'))
        throw UsageError(fmt::format("there is no command '{}'; commands are {}", first, names));
}

}  // namespace

void runCommandLine(const CommandModel& root, const std::string& version, int argc,
                    const char* const* argv) {
    CLI::App app(root.description, root.name);
    app.set_version_flag("--version", version);
    build(app, root);
    try {
        if (argc < 2)
            throw CLI::CallForHelp();
        checkCommand(root, app, argv[1]);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        if (error.get_exit_code() != 0)
            throw UsageError(fmt::format("{}; see 'qxvrtp {}--help'", error.what(),
                                         chosen.empty() ? "" : chosen.front()->get_name() + " "));
        app.exit(error);  // help or version, printed
        if (!std::cout.flush())
            throw Failure("standard output cannot be written");
    }
}
