#include "commands/TopCommand.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>

#include "RtpContext.h"
#include "base/Errors.h"
#include "base/SafeText.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/StatusCommand.h"
#include "reports/HostTable.h"
#include "reports/Hosts.h"
#include "reports/Screen.h"
#include "reports/Text.h"
#include "terminal/Terminal.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kAttention = 50ms;  // signals and the terminal's size are looked at this often
constexpr auto kHostsInterval = 5s;

std::string now() {
    const std::time_t time = std::time(nullptr);
    return fmt::format("{:%F %T}", fmt::localtime(time));
}

// The table as it is now, and what it was before.
class Watch {
  public:
    explicit Watch(const TopOptions& options) : options_(options) {}

    void look() {
        try {
            ChannelTable table = readTable(options_.path);
            if (!table_ || table_->inode != table.inode) {
                history_.clear();
                hostsTime_ = {};
            }
            table_ = std::move(table);
            everSeen_ = true;
        } catch (const Failure& failure) {
            table_.reset();
            history_.clear();
            trouble_ = printable(failure.what());
            return;
        }
        if (Clock::now() - hostsTime_ >= kHostsInterval) {
            hosts_ = findHosts(options_.path);
            hostsTime_ = Clock::now();
        }
        history_.add(*table_);
    }

    std::string snapshot() const {
        return fmt::format("# {}\n{}", now(),
                           table_ ? tableText(*table_, hosts_, options_.all, std::nullopt)
                                  : fmt::format("# {}\n", trouble_));
    }

    std::string screen(size_t width, bool utf8) const {
        std::string text = fmt::format("qxvrtp top  {}  q quits\n", now());
        if (!table_)
            return cutLines(fmt::format("{}{}; waiting for one\n", text, trouble_), width);
        return cutLines(text + screenText(*table_, hosts_, history_, options_.all, utf8), width);
    }

    // Throws Failure if there never was a table.
    void conclude() const {
        if (!everSeen_)
            throw Failure(trouble_);
    }

  private:
    const TopOptions& options_;
    std::optional<ChannelTable> table_;
    std::string trouble_;
    bool everSeen_ = false;
    TableHosts hosts_;
    Clock::time_point hostsTime_;
    RateHistory history_;
};

void showOnTerminal(const TopOptions& options, StopSignal& stop, Watch& watch) {
    const bool utf8 = localeIsUtf8();
    Terminal terminal;  // the last column stays free: a full line would wrap on some
    auto next = Clock::now();
    for (uint64_t pass = 0; !options.count || pass < *options.count; ++pass) {
        watch.look();
        TerminalSize size = terminal.size();
        terminal.show(watch.screen(size.columns - 1, utf8));
        next += options.interval;
        while (Clock::now() < next) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
            if (terminal.key(std::clamp<std::chrono::milliseconds>(left, 0ms, kAttention)) == 'q' ||
                stop.requested())
                return;
            if (size != terminal.size()) {
                size = terminal.size();
                terminal.show(watch.screen(size.columns - 1, utf8));
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
    };
    CommandModel command("top", "Watch the channels of the running host");
    const auto given = std::make_shared<Arguments>();
    given->options.path = kSharedMemoryPath;
    command.addOption("-i,--interval", given->interval, "SECONDS",
                      "Time between two looks; 1 if not given");
    command.addOption("-n,--count", given->count, "NUMBER", "End after so many looks");
    command.addFlag("-a,--all", given->options.all, "Show idle channels, too");
    command.addOption("--path", given->options.path, "FILE",
                      "Another table file, such as a container's");
    command.footer = fmt::format(
        "On a terminal it fills the screen; 'q' or a signal ends it. Elsewhere it prints\n"
        "what 'status' does, again and again. The history is of the last {} looks, each channel's\n"
        "highest rate a full bar. When a new host replaces the table, that one is shown.\n"
        "\n{}\n"
        "Failed (1) when there was no table all the time.\n"
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
        runTop(given->options);
    };
    return command;
}
