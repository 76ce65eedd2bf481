#include "commandline/Manual.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/Errors.h"
#include "base/Quantity.h"

namespace {

std::string upper(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// Characters that a formatter would take for something else, or print as typographic ones.
std::string escaped(std::string text) {
    text = replaced(std::move(text), "\\", "\\e");
    text = replaced(std::move(text), "--", "\\-\\-");
    text = replaced(std::move(text), "'", "\\(aq");
    text = replaced(std::move(text), "`", "\\(ga");
    text = replaced(std::move(text), "^", "\\(ha");
    return replaced(std::move(text), "~", "\\(ti");
}

// A line that is shown as it is.
std::string literalLine(const std::string& text) {
    return (text.starts_with('.') ? "\\&" : "") + escaped(text) + '\n';
}

// Text that is filled; each sentence begins a line.
std::string line(const std::string& text) {
    for (size_t end = 0; (end = text.find(". ", end)) != std::string::npos; ++end)
        if (end + 2 < text.size() && std::isupper(static_cast<unsigned char>(text[end + 2])) != 0)
            return literalLine(text.substr(0, end + 1)) + line(text.substr(end + 2));
    return literalLine(text);
}

// A word as an argument of a macro.
std::string word(const std::string& text) {
    return "\\&" + replaced(replaced(escaped(text), "\"", "\\(dq"), "-", "\\-");
}

// The text that stands below a command's options, told apart by how it is written: an indented line
// is an example of what to type, "Examples:" and "Exit code:" begin sections of their own.
struct Prose {
    std::string description;
    std::string examples;
    std::string exitStatus;
};

// Does a text begin like "Loop: the seam takes no time"?
bool beginsTopic(const std::string& text) {
    const size_t letters =
        static_cast<size_t>(std::find_if_not(text.begin(), text.end(),
                                             [](unsigned char c) { return std::isalpha(c) != 0; }) -
                            text.begin());
    return letters > 0 && std::isupper(static_cast<unsigned char>(text.front())) != 0 &&
           text.compare(letters, 2, ": ") == 0;
}

Prose proseOf(const std::string& footer) {
    constexpr std::string_view kExitCode = "Exit code: ";
    constexpr size_t kIndent = 2;
    Prose prose;
    std::string* section = &prose.description;
    bool literal = false;
    bool paragraph = false;
    const auto setLiteral = [&](bool wanted) {
        if (literal != wanted)
            *section += wanted ? ".Bd -literal -offset indent\n" : ".Ed\n";
        literal = wanted;
    };
    std::istringstream lines(footer);
    for (std::string text; std::getline(lines, text);) {
        if (text.empty()) {
            paragraph = true;
            continue;
        }
        const bool indented = text.starts_with("  ");
        paragraph = paragraph || beginsTopic(text);
        const size_t exitCode = text.find(kExitCode);
        if (exitCode != std::string::npos) {
            prose.exitStatus = line(text.substr(exitCode + kExitCode.size()));
            text.resize(exitCode == 0 ? 0 : exitCode - 1);
        }
        if (!indented && literal) {
            setLiteral(false);
            section = &prose.description;  // what follows examples explains something else
        }
        if (text == "Examples:" || text == "Example:") {
            section = &prose.examples;
        } else if (!text.empty()) {
            if (paragraph && !section->empty())
                *section += literal ? "\n" : (indented ? "" : ".Pp\n");
            setLiteral(indented);
            *section += indented ? literalLine(text.substr(kIndent)) : line(text);
        }
        paragraph = false;
    }
    setLiteral(false);
    return prose;
}

std::string flags(const OptionModel& option, const char* separator) {
    std::string text;
    for (const std::string& name : option.names)
        text += (text.empty() ? "" : separator) + ("Fl " + word(name.substr(1)));
    return option.value.empty() ? text : text + " Ar " + word(option.value);
}

std::string synopsis(const CommandModel& command) {
    std::string text = fmt::format(".Nm {}\n", command.path);
    for (const OptionModel& option : command.options)
        text += fmt::format(".{}{}\n", option.required ? "" : "Op ", flags(option, " | "));
    for (const OptionModel& argument : command.arguments)
        text += fmt::format(".{}Ar {}{}\n", argument.required ? "" : "Op ", word(argument.value),
                            argument.isRepeated() ? " ..." : "");
    return command.commands.empty() ? text : text + ".Ar COMMAND ...\n";
}

std::string optionList(const CommandModel& command) {
    std::string items;
    for (const OptionModel& argument : command.arguments)
        items +=
            fmt::format(".It Ar {}\n{}", word(argument.value), line(argument.description + '.'));
    for (const OptionModel& option : command.options)
        items += fmt::format(".It {}\n{}", flags(option, " , "), line(option.description + '.'));
    return items.empty() ? "" : ".Bl -tag -width Ds\n" + items + ".El\n";
}

std::string section(const std::string& title, const std::string& text) {
    return text.empty() ? "" : fmt::format(".Sh {}\n{}", title, text);
}

std::string pageName(const CommandModel& command) {
    return replaced(command.path, " ", "-");
}

// Pages of a release are the same whenever they are made, if SOURCE_DATE_EPOCH says when that was.
std::string date() {
    const char* const epoch = std::getenv("SOURCE_DATE_EPOCH");
    const std::time_t time =
        epoch != nullptr ? std::strtoll(epoch, nullptr, 10) : std::time(nullptr);
    return utcTimeText(time, "%B %d, %Y");
}

constexpr auto kFiles =
    ".Bl -tag -width Ds\n"
    ".It Pa /etc/qxvrtp/*.toml\n"
    "Configuration files of the services.\n"
    ".It Pa /tmp/__QXV_RTP_SHARE_MEMORY__\n"
    "Configuration and state of all channels of the process that started last;\n"
    "see the section on services in\n"
    ".Xr qxvrtp.toml 5 .\n"
    ".El\n";

// What one command of the tool can do, where it has commands of its own.
std::string nestedItem(const CommandModel& command) {
    const std::string prose = proseOf(command.footer).description;
    return fmt::format(".It Nm {}\n{}", command.path, line(command.description + '.')) +
           (prose.empty() ? "" : ".Pp\n" + prose) + optionList(command);
}

struct Sections {
    std::string usage;
    std::string commands;
    std::string related;
};

Sections rootSections(const CommandModel& root) {
    Sections sections{synopsis(root), "", ""};
    std::vector<std::string> pages;
    for (const CommandModel& command : root.commands) {
        pages.push_back(pageName(command));
        sections.commands +=
            fmt::format(".It Xr {} 1\n{}", pages.back(), line(command.description + '.'));
    }
    std::sort(pages.begin(), pages.end());
    for (const std::string& name : pages)
        sections.related += fmt::format(".Xr {} 1 ,\n", name);
    return sections;
}

Sections commandSections(const CommandModel& command) {
    Sections sections{"", "", ".Xr qxvrtp 1 ,\n"};
    for (const CommandModel& next : command.commands) {
        sections.usage += synopsis(next);
        sections.commands += nestedItem(next);
    }
    if (sections.usage.empty())
        sections.usage = synopsis(command);
    return sections;
}

std::string page(const CommandModel& command, const CommandModel& root) {
    const bool isRoot = command.path == root.path;
    const Prose prose = proseOf(command.footer);
    const Sections sections = isRoot ? rootSections(root) : commandSections(command);
    std::string summary = command.description;
    summary.front() = static_cast<char>(std::tolower(static_cast<unsigned char>(summary.front())));
    std::string text =
        fmt::format(".Dd {}\n.Dt {} 1\n.Os\n.Sh NAME\n.Nm {}\n.Nd {}", date(),
                    upper(pageName(command)), pageName(command), literalLine(summary));
    text += section("SYNOPSIS", sections.usage);
    text +=
        section("DESCRIPTION", line(command.description + '.') +
                                   (prose.description.empty() ? "" : ".Pp\n" + prose.description));
    if (!sections.commands.empty())
        text += section("COMMANDS", ".Bl -tag -width Ds\n" + sections.commands + ".El\n");
    text += section("OPTIONS", optionList(command));
    text += section("FILES", isRoot ? kFiles : "");
    text += section("EXIT STATUS", prose.exitStatus);
    text += section("EXAMPLES", prose.examples);
    return text + section("SEE ALSO", sections.related + ".Xr qxvrtp.toml 5\n");
}

void writePage(const std::string& directory, const CommandModel& command,
               const CommandModel& root) {
    const std::string path = fmt::format("{}/{}.1", directory, pageName(command));
    std::ofstream file(path);
    if (!(file << page(command, root)).flush())
        throw Failure(fmt::format("cannot write '{}'", path));
}

void writeManual(const CommandModel& root, const std::string& name, const std::string& directory) {
    if (!directory.empty())
        writePage(directory, root, root);
    else if (name.empty())
        fmt::print("{}", page(root, root));
    bool known = name.empty();
    for (const CommandModel& command : root.commands) {
        if (!directory.empty())
            writePage(directory, command, root);
        else if (name == command.name)
            fmt::print("{}", page(command, root));
        known = known || name == command.name;
    }
    if (!known)
        throw UsageError(fmt::format("there is no command '{}'", name));
}

}  // namespace

CommandModel manualCommand(const CommandModel& root) {
    struct Arguments {
        std::string name;
        std::string directory;
    };
    CommandModel command("manual", "Print a manual page, mdoc");
    command.hidden = true;
    const auto given = std::make_shared<Arguments>();
    command.addArgument("COMMAND", given->name, "Command to describe; without it, the tool",
                        "TEXT");
    command.addOption("--directory", given->directory, "DIRECTORY",
                      "Write all pages to this directory");
    command.action = [&root, given] { writeManual(root.shown(), given->name, given->directory); };
    return command;
}
