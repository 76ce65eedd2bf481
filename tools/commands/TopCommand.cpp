#include "commands/TopCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "base/SafeText.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/StatusCommand.h"
#include "reports/Hosts.h"
#include "reports/Screen.h"
#include "reports/Text.h"
#include "terminal/Terminal.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kAttention = 50ms;  // signals and the terminal's size are looked at this often

std::string now() {
    return localTimeText(std::time(nullptr), "%F %T");
}

// The hosts as they are now, and what they were before.
class Watch {
  public:
    explicit Watch(const TopOptions& options)
        : options_(options), finder_({options.path, options.pid}) {}

    void look() {
        machine_ = finder_.look();
        everSeen_ = everSeen_ || !machine_.tables().empty() || !machine_.processes.empty();
        history_.add(machine_);
    }

    std::string snapshot() const {
        return fmt::format("# {}\n{}", now(), statusText(machine_, options_.all, std::nullopt));
    }

    void turnPage(char key) {
        if (key == ' ')
            ++page_;
        else if (key == 'b' && page_ > 0)
            --page_;
    }

    std::string screen(TerminalSize size, bool utf8) {
        const auto lines = screenLines(machine_, history_, options_.all, utf8);
        const ScreenPage page = screenPage(lines, page_, size.rows - 1);
        page_ = page.number;
        std::string text = fmt::format("qxvrtp top  {}  hosts: {}", now(), machine_.hosts.size());
        if (page.count > 1)
            text += fmt::format("  page {} of {}: space, b", page.number + 1, page.count);
        // The last column stays free: a full line would wrap on some terminals.
        return cutLines(fmt::format("{}  q quits\n{}", text, page.text), size.columns - 1);
    }

    // Throws Failure if there never was anything to show.
    void conclude() const {
        if (!everSeen_)
            failForNothing(machine_);
    }

  private:
    const TopOptions& options_;
    HostFinder finder_;
    Machine machine_;
    bool everSeen_ = false;
    RateHistory history_;
    size_t page_ = 0;
};

void showOnTerminal(const TopOptions& options, StopSignal& stop, Watch& watch) {
    const bool utf8 = localeIsUtf8();
    Terminal terminal;
    auto next = Clock::now();
    for (uint64_t pass = 0; !options.count || pass < *options.count; ++pass) {
        watch.look();
        TerminalSize size = terminal.size();
        terminal.show(watch.screen(size, utf8));
        next += options.interval;
        while (Clock::now() < next) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
            const char key =
                terminal.key(std::clamp<std::chrono::milliseconds>(left, 0ms, kAttention));
            if (key == 'q' || stop.requested())
                return;
            watch.turnPage(key);
            if (key != '\0' || size != terminal.size()) {
                size = terminal.size();
                terminal.show(watch.screen(size, utf8));
            }
        }
        next = std::max(next, Clock::now() - options.interval);
    }
}

void printSnapshots(const TopOptions& options, StopSignal& stop, Watch& watch) {
    auto next = Clock::now();
    for (uint64_t pass = 0; !options.count || pass < *options.count; ++pass) {
        for (; pass > 0 && Clock::now() < next; std::this_thread::sleep_for(
                 std::min<Clock::duration>(kAttention, next - Clock::now()))) {
            if (stop.requested())
                return;
        }
        if (stop.requested())
            return;
        next = Clock::now() + options.interval;
        watch.look();
        fmt::print("{}", watch.snapshot());
        if (std::fflush(stdout) != 0)
            throw Failure("standard output cannot be written");
    }
}

}  // namespace

void runTop(const TopOptions& options) {
    // Whatever ends it, the terminal is put back.
    StopSignal stop({SIGHUP, SIGQUIT});
    Watch watch(options);
    if (isatty(STDOUT_FILENO) == 1)
        showOnTerminal(options, stop, watch);
    else
        printSnapshots(options, stop, watch);
    watch.conclude();
}

CommandModel topCommand() {
    struct Arguments {
        TopOptions options;
        std::string interval;
        std::string count;
        std::string pid;
    };
    CommandModel command("top", "Watch the channels and streams of the running hosts");
    const auto given = std::make_shared<Arguments>();
    command.addOption("-i,--interval", given->interval, "SECONDS",
                      "Time between two looks; 1 if not given");
    command.addOption("-n,--count", given->count, "NUMBER", "End after so many looks");
    command.addFlag("-a,--all", given->options.all, "Show idle channels, too");
    addSelection(command, given->pid, given->options.path);
    command.footer = fmt::format(
        "On a terminal it fills the screen; the space bar and 'b' turn its pages, 'q' or a signal\n"
        "ends it. Elsewhere it prints what 'status' does, again and again. The history is of the\n"
        "last {} looks, each channel's highest rate a full bar. Below stand the streams\n"
        "of 'send', 'receive' and 'relay'. A host that begins is shown within 5 seconds.\n"
        "\n{}\n"
        "Failed (1) when there was neither a host nor a table all the time.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp top\n"
        "  qxvrtp top --interval 0.5 --all\n"
        "  qxvrtp top --interval 10 >> channels.log\n"
        "{}",
        RateHistory::kLength, tableHelp(), kExitCodes);
    command.action = [given] {
        if (!given->interval.empty())
            given->options.interval = duration("--interval", given->interval, 0.1, 1e6);
        if (!given->count.empty())
            given->options.count = quantity("--count", given->count, 1, INT64_MAX);
        given->options.pid = processNumber(given->pid);
        runTop(given->options);
    };
    return command;
}
