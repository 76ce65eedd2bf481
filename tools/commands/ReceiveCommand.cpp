#include "commands/ReceiveCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <exception>
#include <future>
#include <memory>
#include <thread>

#include "StreamMeter.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/Failures.h"
#include "commands/ReceiveStatistics.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/HostModule.h"
#include "media/Recording.h"
#include "media/StreamUrl.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr size_t kChunkBytes = size_t{256} * 1024;
constexpr auto kPollInterval = 2ms;
constexpr auto kLookInterval = 20ms;

double seconds(Clock::duration time) {
    return std::chrono::duration<double>(time).count();
}

// One channel. A thread of its own runs it, so that a disk or a reader that is slow holds up no
// other channel; the figures for the line of progress are read by another one meanwhile.
class Receiving {
  public:
    Receiving(const ReceiveJob& job, const StreamUrl& url, HostModule& module, uint32_t channel,
              Recording& recording, const StopFlag& stop)
        : job_(job),
          url_(url),
          recording_(recording),
          stop_(stop),
          channel_(module, channel, receiveConfig(url)),
          chunk_(kChunkBytes) {}

    // Throws Failure when the job has not been done.
    void run() {
        if (channel_.awaitSocket(url_, [this] { return stop_.load() != nullptr; })) {
            opened_ = lastData_ = closed_ = Clock::now();
            while (!isOver()) {
                if (record() == 0)
                    std::this_thread::sleep_for(kPollInterval);
                datagrams_ = channel_.datagrams();
            }
            if (!isComplete())
                recordRest();
            closed_ = Clock::now();
        }
        recording_.close();
        conclude();
    }

    uint64_t recorded() const { return recorded_; }
    uint64_t continuityErrors() const { return errors_; }
    uint32_t bitrate_bps() const { return channel_.measuredBitrate(); }
    const char* mode() const { return channel_.isRtp() ? "rtp" : "raw"; }

    // Only when run() has returned.
    ReceiveStatistics statistics(const std::string& error) const {
        ReceiveStatistics result;
        result.url = url_.text;
        result.output = job_.output;
        result.files = recording_.files();
        result.datagrams = datagrams_;
        result.bytes = recorded_;
        result.packets = meter_.packets();
        result.packetSize = meter_.packetSize();
        result.continuityErrors = meter_.continuityErrors();
        result.syncLosses = meter_.syncLosses();
        if (recorded_ > 0)
            result.rtp = channel_.isRtp();
        result.seconds = seconds(closed_ - opened_);
        result.dataSeconds = recorded_ > 0 ? seconds(lastData_ - firstData_) : 0.0;
        result.error = error;
        return result;
    }

  private:
    bool isComplete() const { return job_.bytes && recorded_ >= *job_.bytes; }

    bool isOver() const {
        const auto now = Clock::now();
        return isComplete() || stop_.load() != nullptr ||
               (job_.duration && now - opened_ >= *job_.duration) ||
               (job_.idleTimeout && now - lastData_ >= *job_.idleTimeout);
    }

    // Moves what the buffer holds, up to a chunk, to the recording; returns the number of bytes.
    size_t record() {
        size_t most = chunk_.size();
        if (job_.bytes)
            most = static_cast<size_t>(std::min<uint64_t>(most, *job_.bytes - recorded_));
        const size_t taken = channel_.receive(std::span(chunk_).first(most));
        if (taken == 0)
            return 0;
        lastData_ = closed_ = Clock::now();  // closed then, should it not be possible to write
        if (recorded_ == 0)
            firstData_ = lastData_;
        if (!recording_.write(std::span<const uint8_t>(chunk_).first(taken), meter_, stop_))
            throw Failure(
                fmt::format("stopped by {} while nobody read {}", stop_.load(), recording_.name()));
        recorded_ += taken;
        errors_ = meter_.continuityErrors();
        return taken;
    }

    // What had come when the end was asked for still belongs to the recording; what goes on coming
    // does not, there may be no end to it.
    void recordRest() {
        size_t rest = channel_.bufferedBytes();
        while (rest > 0 && !isComplete()) {
            const size_t taken = record();
            if (taken == 0)
                return;
            rest -= std::min(taken, rest);
        }
        datagrams_ = channel_.datagrams();
    }

    void conclude() const {
        if (job_.bytes && recorded_ < *job_.bytes)
            throw Failure(fmt::format("only {} of {} bytes came from {}", recorded_.load(),
                                      *job_.bytes, url_.text));
        if (recorded_ == 0)
            throw Failure(fmt::format("nothing came from {}", url_.text));
    }

    const ReceiveJob& job_;
    const StreamUrl& url_;
    Recording& recording_;
    const StopFlag& stop_;
    ReceiveChannel channel_;
    std::vector<uint8_t> chunk_;
    StreamMeter meter_;
    Clock::time_point opened_;
    Clock::time_point closed_;
    Clock::time_point firstData_;
    Clock::time_point lastData_;
    uint64_t datagrams_ = 0;
    std::atomic<uint64_t> recorded_{0};  // written by the channel's thread
    std::atomic<uint64_t> errors_{0};    // ... and this
};

// A job, from the opening of its output to its end.
struct Task {
    const ReceiveJob* job;
    StreamUrl url;
    std::unique_ptr<Recording> recording;
    std::unique_ptr<Receiving> receiving;
    std::future<void> end;  // while it runs
    std::string error;
};

std::vector<Task> makeTasks(const std::vector<ReceiveJob>& jobs) {
    std::vector<Task> tasks;
    tasks.reserve(jobs.size());
    for (const ReceiveJob& job : jobs)
        tasks.push_back({&job, parseStreamUrl(job.url), nullptr, nullptr, {}, {}});
    return tasks;
}

class Session {
  public:
    explicit Session(std::vector<Task> tasks)
        : tasks_(std::move(tasks)), failures_(tasks_.size(), progress_) {}

    // May wait for the reader of a FIFO.
    bool openOutputs() {
        for (Task& task : tasks_)
            guard(task, [&] { openOutput(task); });
        return std::any_of(tasks_.begin(), tasks_.end(),
                           [](const Task& task) { return task.recording != nullptr; });
    }

    void run() {
        StopSignal signal;
        HostModule& module = module_.emplace();
        for (uint32_t channel = 0; channel < tasks_.size(); ++channel)
            guard(tasks_[channel], [&] { start(tasks_[channel], module, channel); });
        while (collect() > 0) {
            if (signal.requested() && stop_.load() == nullptr)
                stop_ = signal.name();
            if (progress_.due())
                progress_.show(describeProgress());
            std::this_thread::sleep_for(kLookInterval);
        }
    }

    void conclude(bool statistics) {
        for (const Task& task : tasks_) {
            ReceiveStatistics result;
            result.url = task.url.text;
            result.output = task.job->output;
            result.error = task.error;
            if (task.receiving)
                result = task.receiving->statistics(task.error);
            progress_.summary(describe(result));
            if (statistics)
                fmt::print(stderr, "{}\n", toJson(result));
        }
        failures_.conclude("streams");
    }

  private:
    template <typename Work>
    void guard(Task& task, const Work& work) {
        try {
            work();
        } catch (const std::exception& failure) {
            task.error = failure.what();
            failures_.add(task.error);
        }
    }

    // Names that differ may be those of one file.
    void openOutput(Task& task) {
        const Rotation rotation{task.job->rotateBytes, task.job->rotateTime};
        auto recording = std::make_unique<Recording>(task.job->output, rotation);
        for (const Task& other : tasks_)
            if (other.recording && other.recording->sharesFileWith(*recording))
                throw Failure(fmt::format("{} is the file that {} is recorded to",
                                          recording->name(), other.url.text));
        task.recording = std::move(recording);
    }

    void start(Task& task, HostModule& module, uint32_t channel) {
        if (!task.recording)
            return;
        task.receiving = std::make_unique<Receiving>(*task.job, task.url, module, channel,
                                                     *task.recording, stop_);
        task.end = std::async(std::launch::async,
                              [receiving = task.receiving.get()] { receiving->run(); });
    }

    // Takes what has ended; returns how many still run.
    size_t collect() {
        size_t running = 0;
        for (Task& task : tasks_) {
            if (!task.end.valid())
                continue;
            if (task.end.wait_for(0s) == std::future_status::ready)
                guard(task, [&task] { task.end.get(); });
            else
                ++running;
        }
        return running;
    }

    std::string describeProgress() const {
        uint64_t bytes = 0;
        uint64_t bitrate_bps = 0;
        uint64_t errors = 0;
        size_t running = 0;
        const Receiving* last = nullptr;
        for (const Task& task : tasks_) {
            if (!task.receiving)
                continue;
            last = task.receiving.get();
            bytes += last->recorded();
            bitrate_bps += last->bitrate_bps();
            errors += last->continuityErrors();
            running += task.end.valid() ? 1 : 0;
        }
        const auto what = tasks_.size() > 1 || last == nullptr
                              ? fmt::format("{} of {} streams", running, tasks_.size())
                              : std::string(last->mode());
        return fmt::format("{}  {}  {}  measured {}  {} continuity errors",
                           formatTime(progress_.elapsed()), formatBytes(bytes), what,
                           formatBitrate(bitrate_bps), errors);
    }

    std::optional<HostModule> module_;  // outlives the channels of the tasks
    StopFlag stop_{nullptr};
    Progress progress_;
    std::vector<Task> tasks_;
    Failures failures_;
};

struct Arguments {
    std::vector<std::string> streams;
    std::string bytes;
    std::string duration;
    std::string idleTimeout;
    std::string rotateSize;
    std::string rotateTime;
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
        jobs.push_back({given.streams[i], given.streams[i + 1], time("--duration", given.duration),
                        size("--bytes", given.bytes), time("--idle-timeout", given.idleTimeout),
                        size("--rotate-size", given.rotateSize),
                        time("--rotate-time", given.rotateTime)});
    checkArguments(jobs);
    return jobs;
}

void addArguments(CommandModel& command, Arguments& given) {
    command
        .addArguments("URL FILE", given.streams,
                      "Group to join, or local address to listen on (udp://@:5000 = any), and "
                      "where to record; - is standard output. Up to 16 such pairs; the options are "
                      "for all",
                      "...")
        .require();
    command.addOption("-d,--duration", given.duration, "SECONDS",
                      "End this many seconds after the socket was opened");
    command.addOption("-n,--bytes", given.bytes, "NUMBER",
                      "End after exactly this many bytes (also with k, M, G)");
    command.addOption("-i,--idle-timeout", given.idleTimeout, "SECONDS",
                      "End when nothing has come for so long");
    command.addOption("--rotate-size", given.rotateSize, "NUMBER",
                      "Begin a new file after so many bytes (also with k, M, G)");
    command.addOption("--rotate-time", given.rotateTime, "SECONDS",
                      "Begin a new file after so long");
    command.addFlag("--statistics", given.statistics,
                    "In the end, print one line of JSON per stream to standard error");
}

}  // namespace

void runReceive(const std::vector<ReceiveJob>& jobs, bool statistics) {
    Session session(makeTasks(jobs));
    if (session.openOutputs())
        session.run();
    session.conclude(statistics);
}

CommandModel receiveCommand() {
    CommandModel command("receive", "Record transport streams");
    const auto given = std::make_shared<Arguments>();
    addArguments(command, *given);
    addConfigOption(command, given->config, "--statistics");
    command.footer = fmt::format(
        "Raw and RTP streams are told apart by themselves, whatever the scheme. Done (0) when\n"
        "--bytes have come; without it when the time is up, nothing comes any more, or SIGINT or\n"
        "SIGTERM comes, and anything was received. Several streams do not wait for each other; if\n"
        "one fails (1), the others go on.\n"
        "\n"
        "FILE is a pattern of strftime: %Y-%m-%d_%H%M%S is the time at which the file begins, %% "
        "a\n"
        "percent sign. A file that is there is overwritten, but not when files are rotated: "
        "without\n"
        "a '%', and where the name is taken, a number comes in front of the suffix "
        "(name-0001.ts).\n"
        "Each file begins with a packet.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp receive rtp://239.1.1.1:5000 film.ts --duration 3600\n"
        "  qxvrtp receive udp://@:5000 - | ffplay -\n"
        "  qxvrtp receive udp://239.1.1.1:5000 one-%H%M.ts udp://239.1.1.2:5000 two-%H%M.ts \\\n"
        "      --rotate-time 600 --idle-timeout 30 --statistics\n"
        "\n{}",
        urlHelp());
    command.action = [given] {
        runReceive(given->config.empty() ? makeJobs(*given) : readReceiveJobs(given->config),
                   given->statistics);
    };
    return command;
}
