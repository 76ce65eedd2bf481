// The command line as data: what completions and manual pages are made from, so that neither can
// differ from what the tool accepts.
#ifndef TOOLS_COMMANDLINE_COMMANDMODEL_H
#define TOOLS_COMMANDLINE_COMMANDMODEL_H

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

struct OptionModel {
    std::vector<std::string> names;    // "-b", "--bitrate"; none for an argument
    std::string value;                 // what stands for the value, "RATE"; empty = a flag
    std::vector<std::string> choices;  // values, where only some are accepted
    std::string description;
    bool required = false;
    bool repeated = false;

    bool isFile() const;  // has a file name as value
};

struct CommandModel {
    std::string name;         // "send"
    std::string path;         // "qxvrtp send"
    std::string description;  // one line
    std::string footer;
    std::vector<OptionModel> options;
    std::vector<OptionModel> arguments;  // in their order
    std::vector<CommandModel> commands;

    bool takesFiles() const;
};

// Leaves hidden commands and options out.
CommandModel modelOf(const CLI::App& app);

// All of `text`, with `to` for each `from`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

#endif
