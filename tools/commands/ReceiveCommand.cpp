#include "commands/ReceiveCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "base/Quantity.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/Failures.h"
#include "commands/ReceiveStatistics.h"
#include "config/ConfigFile.h"
#include "config/ConfigReload.h"
#include "config/ConfigRules.h"
#include "engine/Collector.h"
#include "engine/HostModule.h"
#include "engine/ReceiveChain.h"
#include "media/SdpFile.h"
#include "media/StreamUrl.h"
#include "reports/StreamStates.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kLookInterval = 50ms;
constexpr auto kPublishInterval = 1s;

// A stream, and what has been done about it.
struct Task {
    std::shared_ptr<ReceiveChain> chain;
    bool isLeaving = false;  // it is not in the file any more
    bool isConcluded = false;
};

// What the collectors have to say, until it is shown.
class Messages {
  public:
    void add(const std::string& text) {
        const std::lock_guard lock(lock_);
        texts_.push_back(text);
    }
    std::vector<std::string> take() {
        const std::lock_guard lock(lock_);
        return std::exchange(texts_, {});
    }

  private:
    std::mutex lock_;
    std::vector<std::string> texts_;  // guarded by lock_
};

// Records all streams, until they have reached their limits or SIGINT or SIGTERM comes. The
// collectors do the work; this thread tells what there is to tell.
class Session {
  public:
    Session(JobSource<ReceiveJob> source, bool statistics,
            std::optional<std::chrono::milliseconds> patience)
        : source_(std::move(source)), statistics_(statistics), patience_(patience) {
        if (!source_.file.empty())
            signal_.acceptReload();
    }

    void run() {
        start(source_.read());
        while (look() > 0 || (stop_.load() == nullptr && (coming_ || reload_.isReading()))) {
            if (signal_.requested() && stop_.load() == nullptr)
                stop_ = signal_.name();
            if (stop_.load() == nullptr)
                reload();
            publish();
            if (progress_.due())
                progress_.show(describeProgress());
            std::this_thread::sleep_for(kLookInterval);
        }
        for (const Task& task : tasks_)
            sumUp(*task.chain);
        failures_.conclude("streams");
    }

  private:
    void start(const std::vector<ReceiveJob>& jobs) {
        const size_t first = tasks_.size();
        for (const ReceiveJob& job : jobs)
            open(job);
        failures_.setChannels(tasks_.size());
        for (size_t i = first; i < tasks_.size(); ++i) {
            const auto& chain = tasks_[i].chain;
            if (chain->hasEnded())
                continue;
            if (!isRepaired(parsePaths(chain->job().url)))
                module_.get();  // before another thread asks for it
            collectors_.try_emplace(chain->output().place(), stop_).first->second.add(chain);
        }
    }

    // Names that differ may be those of one file.
    void open(const ReceiveJob& job) {
        const auto chain = std::make_shared<ReceiveChain>(
            job, module_, patience_, [this](const std::string& text) { messages_.add(text); });
        chain->open();
        for (const Task& other : tasks_)
            if (other.chain->output().sharesFileWith(chain->output()))
                chain->end(fmt::format("{} is the file that {} is recorded to",
                                       chain->output().name(), other.chain->job().url));
        tasks_.push_back({chain});
    }

    // A stream whose job is in the new file, too, is not touched. The others end first, so that
    // those which are new find their channels, ports and files free.
    void reload() {
        if (!coming_ && !reload_.isReading() && signal_.takeReload())
            reload_.begin(source_);
        if (auto jobs = reload_.take([this](const auto& text) { progress_.warn(text); })) {
            std::vector<ReceiveJob> old;
            for (const Task& task : tasks_)
                old.push_back(task.chain->job());
            coming_ = changesOf(old, *std::move(jobs));
            for (const size_t i : coming_->gone) {
                tasks_[i].isLeaving = true;
                tasks_[i].chain->askForEnd("SIGHUP");
            }
        }
        const auto isLeaving = [](const Task& task) { return task.isLeaving; };
        const auto hasLeft = [](const Task& task) { return !task.isLeaving || task.isConcluded; };
        if (!coming_ || !std::all_of(tasks_.begin(), tasks_.end(), hasLeft))
            return;
        for (const Task& task : tasks_)
            if (task.isLeaving)
                sumUp(*task.chain);
        std::erase_if(tasks_, isLeaving);
        start(coming_->added);
        progress_.warn(coming_->text());
        coming_.reset();
    }

    void sumUp(const ReceiveChain& chain) {
        const ReceiveStatistics result = makeStatistics(chain);
        progress_.summary(describe(result));
        if (result.repairs)
            for (const std::string& line : describePaths(*result.repairs))
                progress_.summary(line);
        if (result.skippedBytes > 0)
            progress_.warn(describeSkipped(result));
        if (statistics_)
            fmt::print(stderr, "{}\n", toJson(result));
    }

    // Shows what there is to say, and returns how many streams still run.
    size_t look() {
        size_t running = 0;
        for (Task& task : tasks_) {
            const bool ended = task.chain->figures().ended;
            running += ended ? 0 : 1;
            if (!ended || std::exchange(task.isConcluded, true) || task.chain->error().empty())
                continue;
            if (task.isLeaving)
                progress_.warn(task.chain->error());
            else
                failures_.add(task.chain->error());
        }
        for (const std::string& message : messages_.take())
            progress_.warn(message);
        return running;
    }

    void publish() {
        const auto now = std::chrono::steady_clock::now();
        if (now < publishAt_)
            return;
        publishAt_ = now + kPublishInterval;
        std::vector<StreamState> states;
        for (const Task& task : tasks_)
            if (StreamState state = task.chain->state();
                !task.chain->figures().ended && !state.kind.empty())
                states.push_back(std::move(state));
        publisher_.publish(states);
    }

    std::string describeProgress() const {
        uint64_t bytes = 0;
        uint64_t bitrate_bps = 0;
        uint64_t errors = 0;
        size_t running = 0;
        for (const Task& task : tasks_) {
            const ReceiveChain::Figures& figures = task.chain->figures();
            bytes += figures.bytes;
            bitrate_bps += figures.bitrate_bps;
            errors += figures.continuityErrors;
            running += figures.ended ? 0 : 1;
        }
        const bool rtp = tasks_.front().chain->figures().rtp;
        const auto what = tasks_.size() > 1
                              ? fmt::format("{} of {} streams", running, tasks_.size())
                              : std::string(rtp ? "rtp" : "raw");
        return fmt::format("{}  {}  {}  measured {}  {}", formatTime(progress_.elapsed()),
                           formatBytes(bytes), what, formatBitrate(bitrate_bps),
                           counted(errors, "continuity error"));
    }

    StopSignal signal_;
    const JobSource<ReceiveJob> source_;
    const bool statistics_;  // a line of JSON for each stream when it has ended
    const std::optional<std::chrono::milliseconds> patience_;
    ModuleOnDemand module_;  // outlives the channels of the tasks
    std::atomic<const char*> stop_{nullptr};
    Messages messages_;
    Progress progress_;
    StatePublisher publisher_;
    std::chrono::steady_clock::time_point publishAt_{};
    std::vector<Task> tasks_;
    std::map<dev_t, Collector> collectors_;  // end before what they use
    Failures failures_{0, progress_};
    ConfigReload<ReceiveJob> reload_;
    std::optional<JobChanges<ReceiveJob>> coming_;  // to be started when others have ended
};

struct Arguments {
    std::vector<std::string> streams;
    std::string bytes;
    std::string duration;
    std::string idleTimeout;
    std::string rotateSize;
    std::string rotateTime;
    std::string patience = "3";
    std::string config;
    bool statistics = false;
};

std::vector<ReceiveJob> makeJobs(const Arguments& given) {
    checkPairs(given.streams, "FILE");
    const auto time = [](const char* option, const std::string& text) {
        return text.empty() ? std::nullopt : std::optional(duration(option, text, 0.001, 1e9));
    };
    const auto size = [](const char* option, const std::string& text) {
        return text.empty() ? std::nullopt : std::optional(quantity(option, text, 1, INT64_MAX));
    };
    std::vector<ReceiveJob> jobs;
    for (size_t i = 0; i < given.streams.size(); i += 2)
        jobs.push_back(
            {streamOf(given.streams[i]), given.streams[i + 1], time("--duration", given.duration),
             size("--bytes", given.bytes), time("--idle-timeout", given.idleTimeout),
             size("--rotate-size", given.rotateSize), time("--rotate-time", given.rotateTime)});
    checkArguments(jobs);
    return jobs;
}

void addArguments(CommandModel& command, Arguments& given) {
    command
        .addArguments("URL FILE", given.streams,
                      "Group to join, or local address to listen on (udp://@:5000 = any), and "
                      "where to record it (- is standard output). Up to 16 such pairs; options "
                      "apply to all",
                      "...")
        .require();
    command.addOption("-d,--duration", given.duration, "SECONDS",
                      "End this many seconds after the socket was opened");
    command.addOption("-n,--bytes", given.bytes, "NUMBER",
                      "End after exactly this many bytes (also with k, M, G)");
    command.addOption("-i,--idle-timeout", given.idleTimeout, "SECONDS",
                      "End when nothing has arrived for this long");
    command.addOption("--rotate-size", given.rotateSize, "NUMBER",
                      "Begin a new file after this many bytes (also with k, M, G)");
    command.addOption("--rotate-time", given.rotateTime, "SECONDS",
                      "Begin a new file after this long");
    command.addOption("--patience", given.patience, "SECONDS",
                      "How long to try to open the socket before giving up; 3 if not given");
    command.addFlag("--statistics", given.statistics,
                    "At the end, print one line of JSON per stream to standard error");
}

}  // namespace

CommandModel receiveCommand() {
    CommandModel command("receive", "Record transport streams");
    const auto given = std::make_shared<Arguments>();
    addArguments(command, *given);
    addConfigOption(command, given->config, "--statistics");
    command.footer = fmt::format(
        "Whether a stream is raw or RTP is detected, whatever the scheme. Succeeds (0) when as\n"
        "much as --bytes says has arrived; without it, when anything has arrived by the time that\n"
        "the duration or the idle timeout is over, or SIGINT or SIGTERM comes. If one of several\n"
        "streams fails (1), the others go on.\n"
        "\n"
        "What comes in from rtp:// is put in order by its sequence numbers, and duplicates are "
        "left\n"
        "out; nothing is delayed where nothing is out of order. With reorder=0 it is taken as it\n"
        "comes. Up to four URLs joined by '+' are paths of one RTP stream, as SMPTE ST 2022-7 has\n"
        "them: what one of them lacks is taken from another. The streams from rtp:// have sockets "
        "of\n"
        "their own; those from udp://, or with reorder=0, are receive channels, which 'status' "
        "shows.\n"
        "\n"
        "Only packets are recorded, and what is skipped between them is reported. What arrives is\n"
        "written 25 times a second, so that a pipe adds up to 40 ms of delay. While a pipe or a\n"
        "disk takes nothing, up to 4 MiB of each stream wait; what comes beyond is dropped, which\n"
        "is reported and makes the stream fail (1) at the end. A full disk is tried again once a\n"
        "second, and so is a lost socket. With --config there is no --patience: everything is\n"
        "tried for ever.\n"
        "\n"
        "FILE is a pattern for strftime(3): %Y-%m-%d_%H%M%S is the time at which the file begins, "
        "%% "
        "a\n"
        "percent sign. An existing file is overwritten, but not when files are rotated: "
        "without\n"
        "a '%', and where the name is taken, a number comes in front of the suffix "
        "(name-0001.ts).\n"
        "Each file begins with a packet.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp receive rtp://239.1.1.1:5000 film.ts --duration 3600\n"
        "  qxvrtp receive udp://@:5000 - | ffplay -\n"
        "  qxvrtp receive 'rtp://239.1.1.1:5000?iface=eth0+rtp://239.1.1.1:5000?iface=eth1' "
        "film.ts\n"
        "  qxvrtp receive udp://239.1.1.1:5000 one-%H%M.ts udp://239.1.1.2:5000 two-%H%M.ts \\\n"
        "      --rotate-time 600 --idle-timeout 30 --statistics\n"
        "\n{}",
        urlHelp());
    command.action = [given] {
        if (!given->config.empty())
            Session({given->config, [given] { return readReceiveJobs(given->config); }},
                    given->statistics, std::nullopt)
                .run();
        else
            Session({"", [given] { return makeJobs(*given); }}, given->statistics,
                    duration("--patience", given->patience, 0.0, 1e9))
                .run();
    };
    return command;
}
