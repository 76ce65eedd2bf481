#include "commandline/CommandModel.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <sstream>
#include <utility>

namespace {

// These stand for file names in usage texts.
constexpr std::array kFileNames = {"FILE", "INPUT", "OUTPUT", "PATH", "DIRECTORY", "PROGRAM"};

std::vector<std::string> splitNames(const std::string& names) {
    std::vector<std::string> all;
    std::istringstream list(names);
    for (std::string name; std::getline(list, name, ',');)
        all.push_back(name);
    return all;
}

void setPaths(CommandModel& command, const std::string& parent) {
    command.path = parent + ' ' + command.name;
    for (CommandModel& next : command.commands)
        setPaths(next, command.path);
}

}  // namespace

bool OptionModel::isFile() const {
    // What is repeated may be several: "INPUT URL".
    std::istringstream words(value);
    return std::any_of(std::istream_iterator<std::string>(words), {}, [](const std::string& word) {
        return std::find(kFileNames.begin(), kFileNames.end(), word) != kFileNames.end();
    });
}

const std::string& OptionModel::name() const {
    return names.empty() ? value : names.back();
}

OptionModel& OptionModel::require() {
    required = true;
    return *this;
}

OptionModel& OptionModel::accept(std::vector<std::string> values) {
    choices = std::move(values);
    return *this;
}

OptionModel& OptionModel::exclude(std::vector<std::string> others) {
    excludes = std::move(others);
    return *this;
}

CommandModel::CommandModel(std::string commandName, std::string commandDescription)
    : name(std::move(commandName)), path(name), description(std::move(commandDescription)) {
    OptionModel& help = options.emplace_back();
    help.names = {"-h", "--help"};
    help.description = "Print this help message and exit";
}

bool CommandModel::takesFiles() const {
    return std::any_of(arguments.begin(), arguments.end(),
                       [](const OptionModel& argument) { return argument.isFile(); });
}

OptionModel& CommandModel::addFlag(const std::string& names, bool& target, std::string text) {
    OptionModel& option = options.emplace_back();
    option.names = splitNames(names);
    option.description = std::move(text);
    option.target = &target;
    return option;
}

OptionModel& CommandModel::addOption(const std::string& names, std::string& target,
                                     std::string value, std::string text) {
    OptionModel& option = options.emplace_back();
    option.names = splitNames(names);
    option.value = std::move(value);
    option.description = std::move(text);
    option.target = &target;
    return option;
}

OptionModel& CommandModel::addOptions(const std::string& names, std::vector<std::string>& target,
                                      std::string value, std::string text) {
    std::string single;
    OptionModel& option = addOption(names, single, std::move(value), std::move(text));
    option.target = &target;
    return option;
}

OptionModel& CommandModel::addArgument(std::string argument, std::string& target, std::string text,
                                       std::string type) {
    OptionModel& option = arguments.emplace_back();
    option.value = std::move(argument);
    option.type = std::move(type);
    option.description = std::move(text);
    option.target = &target;
    return option;
}

OptionModel& CommandModel::addArguments(std::string argument, std::vector<std::string>& target,
                                        std::string text, std::string type) {
    OptionModel& option = arguments.emplace_back();
    option.value = std::move(argument);
    option.type = std::move(type);
    option.description = std::move(text);
    option.target = &target;
    return option;
}

void CommandModel::addCommand(CommandModel command) {
    setPaths(command, path);
    commands.push_back(std::move(command));
}

void CommandModel::addVersion() {
    OptionModel& version = options.emplace_back();
    version.names = {"--version"};
    version.description = "Display program version information and exit";
}

CommandModel CommandModel::shown() const {
    CommandModel copy = *this;
    std::erase_if(copy.commands, [](const CommandModel& command) { return command.hidden; });
    return copy;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}
