// qxvrtp: sends, receives, analyses and demonstrates transport streams over UDP and RTP.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "base/Errors.h"
#include "base/SafeText.h"
#include "base/StandardError.h"
#include "commandline/Completion.h"
#include "commandline/Manual.h"
#include "commandline/Parser.h"
#include "commands/ConfigCommand.h"
#include "commands/DemoCommand.h"
#include "commands/MonitorCommand.h"
#include "commands/ProbeCommand.h"
#include "commands/ReceiveCommand.h"
#include "commands/RelayCommand.h"
#include "commands/SendCommand.h"
#include "commands/ServeCommand.h"
#include "commands/StatusCommand.h"
#include "commands/TopCommand.h"
#include "config/ConfigFile.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kMisused = 2;
constexpr std::chrono::seconds kReaderPatience{2};

// An error is one line, whatever names and texts went into it.
void complain(const std::string& text) {
    printError(fmt::format("qxvrtp: {}\n", printable(text)), kReaderPatience);
}

CommandModel commandLine() {
    CommandModel root("qxvrtp", "Transport streams over UDP and RTP");
    root.addVersion();
    root.footer = "'qxvrtp COMMAND --help' explains a command.";
    for (const auto command :
         {sendCommand, receiveCommand, relayCommand, probeCommand, monitorCommand, serveCommand,
          statusCommand, topCommand, demoCommand, configCommand})
        root.addCommand(command());
    return root;
}

int run(int argc, char** argv) {
    CommandModel root = commandLine();
    root.addCommand(completionCommand(root));
    root.addCommand(manualCommand(root));
    try {
        runCommandLine(root, "qxvrtp " QXV_VERSION, argc, argv);
        if (std::fflush(stdout) != 0)
            throw Failure("standard output cannot be written");
        return kDone;
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

// Where a standard stream is closed, the next file or socket would get its number, and whatever is
// printed would land in it. What takes its place can be opened, but neither read nor written:
// whoever uses it gets an error. Only messages vanish.
void occupyStandardStreams() {
    for (const auto& [descriptor, mode] :
         {std::pair{STDIN_FILENO, O_WRONLY}, {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_RDWR}})
        if (fcntl(descriptor, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", mode));  // gets the lowest number that is free
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    try {
        return run(argc, argv);
    } catch (...) {
        static_cast<void>(std::fputs("qxvrtp: failed\n", stderr));
        return kFailed;
    }
}
