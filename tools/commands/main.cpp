// qxvrtp: sends, receives, analyses and demonstrates transport streams over UDP and RTP.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "base/Errors.h"
#include "base/SafeText.h"
#include "commandline/Completion.h"
#include "commandline/Manual.h"
#include "commands/ConfigCommand.h"
#include "commands/DemoCommand.h"
#include "commands/ProbeCommand.h"
#include "commands/ReceiveCommand.h"
#include "commands/RelayCommand.h"
#include "commands/SendCommand.h"
#include "commands/StatusCommand.h"
#include "commands/TopCommand.h"
#include "config/ConfigFile.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kMisused = 2;

// An error is one line, whatever names and texts went into it.
void complain(const std::string& text) {
    fmt::print(stderr, "qxvrtp: {}\n", printable(text));
}

// The parser would complain of a missing command where there is a wrong one.
void checkCommand(const CLI::App& app, const std::string& first) {
    std::string names;
    for (const CLI::App* command : app.get_subcommands({})) {
        if (command->get_name() == first)
            return;
        if (!command->get_group().empty())  // else it is hidden
            names += (names.empty() ? "" : ", ") + command->get_name();
    }
    if (first.empty())
        throw UsageError(fmt::format("a command is missing; commands are {}", names));
    if (first.starts_with('-') && app.get_option_no_throw(first) == nullptr)
        throw UsageError(fmt::format("there is no option '{}'; see 'qxvrtp --help'", first));
    if (!first.starts_with('-'))
        throw UsageError(fmt::format("there is no command '{}'; commands are {}", first, names));
}

int run(int argc, char** argv) {
    CLI::App app("Transport streams over UDP and RTP", "qxvrtp");
    app.set_version_flag("--version", "qxvrtp " QXV_VERSION);
    app.require_subcommand(1);
    app.footer("'qxvrtp COMMAND --help' tells more.");
    addSendCommand(app);
    addReceiveCommand(app);
    addRelayCommand(app);
    addProbeCommand(app);
    addStatusCommand(app);
    addTopCommand(app);
    addDemoCommand(app);
    addConfigCommand(app);
    addCompletionCommand(app);
    addManualCommand(app);
    try {
        checkCommand(app, argc > 1 ? argv[1] : "");
        app.parse(argc, argv);
        if (std::fflush(stdout) != 0)
            throw Failure("standard output cannot be written");
        return kDone;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);  // help or version, printed
            if (std::cout.flush())
                return kDone;
            complain("standard output cannot be written");
            return kFailed;
        }
        const auto chosen = app.get_subcommands();
        complain(fmt::format("{}; see 'qxvrtp {}--help'", error.what(),
                             chosen.empty() ? "" : chosen.front()->get_name() + " "));
        return kMisused;
    } catch (const UsageError& error) {
        complain(error.what());
        return kMisused;
    } catch (const ConfigErrors& errors) {
        fmt::print(stderr, "{}\n", errors.what());  // lines that begin with the file's name
        return kFailed;
    } catch (const std::exception& error) {
        complain(error.what());
        return kFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (...) {
        static_cast<void>(std::fputs("qxvrtp: failed\n", stderr));
        return kFailed;
    }
}
