#include "commandline/CommandModel.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>

namespace {

// These stand for file names in usage texts.
constexpr std::array kFileNames = {"FILE", "INPUT", "OUTPUT", "PATH", "DIRECTORY"};

// A check for one of several values shows in the type: "TEXT:{tables,json}".
void splitType(const std::string& type, OptionModel& model) {
    model.value = type.substr(0, type.find(':'));
    const size_t open = type.find('{');
    if (open == std::string::npos || type.back() != '}')
        return;
    std::istringstream list(type.substr(open + 1, type.size() - open - 2));
    for (std::string choice; std::getline(list, choice, ',');)
        model.choices.push_back(choice);
}

OptionModel modelOf(const CLI::Option& option) {
    OptionModel model;
    for (const std::string& name : option.get_snames())
        model.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        model.names.push_back("--" + name);
    if (option.get_items_expected_max() > 0)
        splitType(option.get_type_name(), model);
    if (option.get_positional())
        model.value = option.get_name();
    model.description = option.get_description();
    model.required = option.get_required();
    model.repeated = option.get_expected_max() > 1;
    return model;
}

CommandModel modelOf(const CLI::App& app, const std::string& parent) {
    CommandModel model;
    model.name = app.get_name();
    model.path = parent.empty() ? model.name : parent + ' ' + model.name;
    model.description = app.get_description();
    model.footer = app.get_footer();
    for (const CLI::Option* option : app.get_options())
        if (!option->get_group().empty())
            (option->get_positional() ? model.arguments : model.options)
                .push_back(modelOf(*option));
    for (const CLI::App* command : app.get_subcommands({}))
        if (!command->get_group().empty())
            model.commands.push_back(modelOf(*command, model.path));
    return model;
}

}  // namespace

bool OptionModel::isFile() const {
    // What is repeated may be several: "INPUT URL".
    std::istringstream words(value);
    return std::any_of(std::istream_iterator<std::string>(words), {}, [](const std::string& word) {
        return std::find(kFileNames.begin(), kFileNames.end(), word) != kFileNames.end();
    });
}

bool CommandModel::takesFiles() const {
    return std::any_of(arguments.begin(), arguments.end(),
                       [](const OptionModel& argument) { return argument.isFile(); });
}

CommandModel modelOf(const CLI::App& app) {
    return modelOf(app, "");
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}
