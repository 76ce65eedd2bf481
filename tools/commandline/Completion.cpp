#include "commandline/Completion.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <memory>
#include <string>
#include <vector>

namespace {

constexpr auto kOrigin = "# Completion for qxvrtp, made by 'qxvrtp completion'.\n";

// All commands, depth first.
void flatten(const CommandModel& command, std::vector<const CommandModel*>& all) {
    all.push_back(&command);
    for (const CommandModel& next : command.commands)
        flatten(next, all);
}

std::vector<const CommandModel*> flatten(const CommandModel& root) {
    std::vector<const CommandModel*> all;
    flatten(root, all);
    return all;
}

std::vector<std::string> names(const std::vector<CommandModel>& commands) {
    std::vector<std::string> all;
    all.reserve(commands.size());
    for (const CommandModel& command : commands)
        all.push_back(command.name);
    return all;
}

// The words up to the cursor lead to a command; its name, or what stands before the cursor, tells
// what may follow.
std::string bash(const CommandModel& root) {
    std::vector<std::string> paths;
    std::string values;
    std::string words;
    for (const CommandModel* command : flatten(root)) {
        if (command != &root)
            paths.push_back(fmt::format("\"{}\"", command->path));
        std::vector<std::string> options;
        for (const OptionModel& option : command->options) {
            options.insert(options.end(), option.names.begin(), option.names.end());
            if (option.value.empty())
                continue;
            std::vector<std::string> patterns;
            for (const std::string& name : option.names)
                patterns.push_back(fmt::format("\"{} {}\"", command->path, name));
            values +=
                fmt::format("        {}) files={} words=\"{}\" ;;\n", fmt::join(patterns, " | "),
                            option.isFile() ? "1" : "", fmt::join(option.choices, " "));
        }
        std::vector<std::string> choices = names(command->commands);
        for (const OptionModel& argument : command->arguments)
            choices.insert(choices.end(), argument.choices.begin(), argument.choices.end());
        words += fmt::format("                \"{}\") files={} words=\"{}\" options=\"{}\" ;;\n",
                             command->path, command->takesFiles() ? "1" : "",
                             fmt::join(choices, " "), fmt::join(options, " "));
    }
    return fmt::format(
        R"({0}_qxvrtp() {{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
    local path=qxvrtp files= words= options= i
    [[ $current == = ]] && current=
    [[ $previous == = ]] && previous=${{COMP_WORDS[COMP_CWORD - 2]}}
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case "$path ${{COMP_WORDS[i]}}" in
            {1}) path+=" ${{COMP_WORDS[i]}}" ;;
        esac
    done
    case "$path $previous" in
{2}        *)
            case $path in
{3}            esac
            ;;
    esac
    [[ $current == -* ]] && words=$options files=
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    if [[ $files ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t -O "${{#COMPREPLY[@]}}" COMPREPLY < <(compgen -f -- "$current")
    fi
}}
complete -F _qxvrtp qxvrtp
)",
        kOrigin, fmt::join(paths, " | "), values, words);
}

// In an argument of _arguments, within single quotes.
std::string zshText(std::string text) {
    for (const char* const special : {"\\", "[", "]", ":"})
        text = replaced(text, special, std::string("\\") + special);
    return replaced(text, "'", R"('\'')");
}

std::string zshValue(const OptionModel& option) {
    const std::string action = option.isFile() ? "_files"
                               : option.choices.empty()
                                   ? " "
                                   : fmt::format("({})", fmt::join(option.choices, " "));
    return fmt::format(":{}:{}", zshText(option.value), action);
}

std::string zshFunction(const CommandModel& command) {
    return "_" + replaced(command.path, " ", "_");
}

std::string zsh(const CommandModel& command) {
    std::string entries;
    for (const OptionModel& option : command.options)
        for (const std::string& name : option.names) {
            const bool isLong = name.starts_with("--");
            entries += fmt::format(" \\\n        '({}){}{}[{}]{}'", fmt::join(option.names, " "),
                                   name, option.value.empty() ? "" : (isLong ? "=" : "+"),
                                   zshText(option.description),
                                   option.value.empty() ? "" : zshValue(option));
        }
    for (const OptionModel& argument : command.arguments)
        entries += fmt::format(" \\\n        '{}{}'", argument.isRepeated() ? "*" : "",
                               (argument.required ? "" : ":") + zshValue(argument));
    if (command.commands.empty())
        return fmt::format("{}() {{\n    _arguments -s :{}\n}}\n", zshFunction(command), entries);

    std::string functions;
    std::string described;
    std::string cases;
    for (const CommandModel& next : command.commands) {
        functions += zsh(next);
        described += fmt::format("                '{}:{}'\n", next.name, zshText(next.description));
        cases += fmt::format("                {}) {} ;;\n", next.name, zshFunction(next));
    }
    return fmt::format(
        R"({0}{1}() {{
    local state
    local -a commands
    _arguments -C -s :{2} \
        ': :->command' '*:: :->arguments'
    case $state in
        command)
            commands=(
{3}            )
            _describe command commands
            ;;
        arguments)
            case $words[1] in
{4}            esac
            ;;
    esac
}}
)",
        functions, zshFunction(command), entries, described, cases);
}

std::string fishText(const std::string& text) {
    return "'" + replaced(replaced(text, "\\", "\\\\"), "'", "\\'") + "'";
}

// `condition` tells whether this command has been given, with no command of its own behind it.
std::string fish(const CommandModel& command, const std::string& seen) {
    std::string condition = seen;
    if (!command.commands.empty())
        condition +=
            fmt::format("{}not __fish_seen_subcommand_from {}", seen.empty() ? "" : "; and ",
                        fmt::join(names(command.commands), " "));
    const std::string line = fmt::format("complete -c qxvrtp -n {}", fishText(condition));
    std::string lines;
    if (command.takesFiles())
        lines += line + " -F\n";
    for (const OptionModel& option : command.options) {
        lines += line;
        for (const std::string& name : option.names)
            lines += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
        if (!option.value.empty())
            lines += option.isFile() ? " -r -F" : " -x";
        if (!option.choices.empty())
            lines += " -a " + fishText(fmt::format("{}", fmt::join(option.choices, " ")));
        lines += " -d " + fishText(option.description) + '\n';
    }
    for (const OptionModel& argument : command.arguments)
        if (!argument.choices.empty())
            lines += line + " -a " + fishText(fmt::format("{}", fmt::join(argument.choices, " "))) +
                     '\n';
    for (const CommandModel& next : command.commands)
        lines += fmt::format("{} -a {} -d {}\n", line, next.name, fishText(next.description));
    for (const CommandModel& next : command.commands)
        lines += fish(next, fmt::format("{}{}__fish_seen_subcommand_from {}", seen,
                                        seen.empty() ? "" : "; and ", next.name));
    return lines;
}

}  // namespace

CommandModel completionCommand(const CommandModel& root) {
    CommandModel command("completion", "Print a completion script for a shell");
    command.hidden = true;
    const auto shell = std::make_shared<std::string>();
    command.addArgument("SHELL", *shell, "bash, zsh or fish", "TEXT")
        .require()
        .accept({"bash", "zsh", "fish"});
    command.action = [&root, shell] {
        const CommandModel shown = root.shown();
        if (*shell == "bash")
            fmt::print("{}", bash(shown));
        else if (*shell == "zsh")
            fmt::print("#compdef qxvrtp\n{}{}_qxvrtp \"$@\"\n", kOrigin, zsh(shown));
        else
            fmt::print("{}complete -c qxvrtp -f\n{}", kOrigin, fish(shown, ""));
    };
    return command;
}
