// The only unit that includes the option parser's header, which takes longer to compile than any
// of the commands.
#include "commandline/Parser.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <memory>
#include <span>

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
    if (!model.names.empty())
        option->allow_extra_args(false);  // one value each time, also of what may be repeated
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
void checkCommand(const CommandModel& model, std::span<const char* const> arguments) {
    if (model.commands.empty())
        return;
    const std::string first = arguments.empty() ? "" : arguments.front();
    std::string names;
    for (const CommandModel& command : model.commands) {
        if (command.name == first)
            return checkCommand(command, arguments.subspan(1));
        if (!command.hidden)
            names += (names.empty() ? "" : ", ") + command.name;
    }
    if (first.empty())
        throw UsageError(
            fmt::format("a command is missing; commands of '{}' are {}", model.path, names));
    const bool isOption = first.starts_with('-');
    if (isOption && std::none_of(model.options.begin(), model.options.end(),
                                 [&first](const OptionModel& option) {
                                     return std::count(option.names.begin(), option.names.end(),
                                                       first) > 0;
                                 }))
        throw UsageError(
            fmt::format("there is no option '{}'; see '{} --help'", first, model.path));
    if (!isOption)
        throw UsageError(
            fmt::format("there is no command '{} {}'; commands are {}", model.path, first, names));
}

// What excludes what would be longer than the descriptions; an error tells it.
class Formatter : public CLI::Formatter {
  public:
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string type = option->get_type_name();
        const bool repeated = option->get_expected_max() == CLI::detail::expected_max_vector_size;
        return (type.empty() ? "" : ' ' + type) + (repeated && type != "..." ? " ..." : "");
    }
};

std::string message(const CLI::ParseError& error, const CLI::App& app) {
    const auto rest = app.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !rest.empty())
        return fmt::format("{} '{}'",
                           rest.front().starts_with('-') ? "there is no option"
                                                         : "there is one argument too many,",
                           rest.front());
    std::string text = error.what();
    if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr)
        return replaced(text, " excludes ", " cannot be combined with ");
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
        return replaced(replaced(text, ": 1 required ", " needs a value: "), " missing", "");
    return text;
}

}  // namespace

void runCommandLine(const CommandModel& root, const std::string& version, int argc,
                    const char* const* argv) {
    CLI::App app(root.description, root.name);
    app.set_version_flag("--version", version);
    app.formatter(std::make_shared<Formatter>());
    build(app, root);
    try {
        if (argc < 2)
            throw CLI::CallForHelp();
        checkCommand(root, std::span(argv, static_cast<size_t>(argc)).subspan(1));
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const auto chosen = app.get_subcommands();
        if (error.get_exit_code() != 0)
            throw UsageError(fmt::format("{}; see 'qxvrtp {}--help'", message(error, app),
                                         chosen.empty() ? "" : chosen.front()->get_name() + " "));
        app.exit(error);  // help or version, printed
        if (!std::cout.flush())
            throw Failure("standard output cannot be written");
    }
}
