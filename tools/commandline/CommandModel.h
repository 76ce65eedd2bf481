// The command line as data: commands declare here what they take; the parser, the completions and
// the manual pages are made from it, so that none of them can differ from the others.
#ifndef TOOLS_COMMANDLINE_COMMANDMODEL_H
#define TOOLS_COMMANDLINE_COMMANDMODEL_H

#include <functional>
#include <string>
#include <variant>
#include <vector>

struct OptionModel {
    std::vector<std::string> names;    // "-b", "--bitrate"; none for an argument
    std::string value;                 // stands for the value, "RATE"; empty = a flag
    std::string type;                  // of an argument, where its name does not tell
    std::vector<std::string> choices;  // values, where only some are accepted
    std::string description;
    bool required = false;
    // Names of options, or of arguments, that must not be given beside this one. Those that are
    // required otherwise are not where this one is given.
    std::vector<std::string> excludes;
    // Where the value goes; none for what the parser itself answers to, such as --help.
    std::variant<std::monostate, bool*, std::string*, std::vector<std::string>*> target;

    bool isFile() const;  // has a file name as value
    bool isRepeated() const { return std::holds_alternative<std::vector<std::string>*>(target); }
    bool isSet() const { return !std::holds_alternative<std::monostate>(target); }
    const std::string& name() const;  // the long one, or the argument's

    OptionModel& require();
    OptionModel& accept(std::vector<std::string> values);
    OptionModel& exclude(std::vector<std::string> others);
};

struct CommandModel {
    CommandModel(std::string commandName, std::string commandDescription);

    std::string name;         // "send"
    std::string path;         // "qxvrtp send"
    std::string description;  // one line
    std::string footer;
    std::vector<OptionModel> options;
    std::vector<OptionModel> arguments;  // in their order
    std::vector<CommandModel> commands;
    std::function<void()> action;
    bool hidden = false;

    bool takesFiles() const;

    // What they return is valid until the next one is added. `names` are like "-b,--bitrate".
    OptionModel& addFlag(const std::string& names, bool& target, std::string text);
    OptionModel& addOption(const std::string& names, std::string& target, std::string value,
                           std::string text);
    OptionModel& addArgument(std::string argument, std::string& target, std::string text,
                             std::string type = "");
    // May be given several times.
    OptionModel& addOptions(const std::string& names, std::vector<std::string>& target,
                            std::string value, std::string text);
    // Takes all arguments that are left.
    OptionModel& addArguments(std::string argument, std::vector<std::string>& target,
                              std::string text, std::string type);
    void addCommand(CommandModel command);
    void addVersion();

    // The same without what is hidden.
    CommandModel shown() const;
};

// All of `text`, with `to` for each `from`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

#endif
