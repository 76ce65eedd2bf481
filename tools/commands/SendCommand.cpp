#include "commands/SendCommand.h"

#include <fmt/format.h>

#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "base/Errors.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/HostModule.h"
#include "engine/PacedStream.h"
#include "engine/Sending.h"
#include "media/StreamUrl.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kBoardInterval = 20ms;

// The module, loaded when the first input has turned out to be a stream: an input that is none does
// not replace the shared table of this machine's other users.
//
// Thread safety: any thread asks for it.
class SharedModule {
  public:
    HostModule& get() {
        std::call_once(once_, [this] { module_.emplace(); });
        return *module_;
    }

  private:
    std::once_flag once_;
    std::optional<HostModule> module_;
};

// One job, on a thread of its own, so that an input that is slow to come holds up no other one.
//
// Thread safety: one thread, the owner, calls the functions.
class Task {
  public:
    Task(const SendJob& job, uint32_t channel, SharedModule& module, StopSignal& stop)
        : job_(job),
          url_(parseStreamUrl(job.url)),
          channel_(channel),
          module_(module),
          stop_(stop) {
        sendConfig(url_);  // refuses what cannot be sent to
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() {
        if (thread_.joinable())
            thread_.join();
    }

    void start() {
        thread_ = std::thread([this] {
            try {
                run();
            } catch (...) {
                failure_ = std::current_exception();
            }
            ended_.store(true, std::memory_order_release);
        });
    }

    // The release pairs with this: what the thread has written is there.
    bool ended() const { return ended_.load(std::memory_order_acquire); }
    std::string line() const {
        const std::lock_guard lock(lineLock_);
        return line_;
    }

    // When it has ended.
    const std::exception_ptr& failure() const { return failure_; }
    const std::string& summary() const { return summary_; }  // empty = nothing was sent
    const std::vector<std::string>& warnings() const { return warnings_; }
    const SendJob& job() const { return job_; }

  private:
    void run() {
        report("opening");
        // Under RTP a change of the bitrate would begin the sequence numbers anew.
        PacedStream stream(job_, url_.rtp);
        stream.open(stop_);  // may wait for the writer of a FIFO
        bool complete = false;
        if (!stop_.requested()) {
            Sending sending(stream, module_.get(), channel_, url_, !job_.bitrate_bps, stop_,
                            [this](const std::string& line) { report(line); });
            complete = sending.run();
            summary_ = sending.summary();
            if (sending.raises() > 0)
                warnings_.push_back(fmt::format(
                    "{}: its rate rose too far: sequence numbers to {} began anew, {} in all",
                    stream.source().name(), url_.text, sending.raises()));
        }
        const PacketSource& source = stream.source();
        if (source.skippedBytes() > 0)
            warnings_.push_back(fmt::format("{}: {} bytes in {} places are no packets: skipped",
                                            source.name(), source.skippedBytes(),
                                            source.skippedPlaces()));
        // A loop has no other end, unless it was given one.
        if (!complete && !job_.loop)
            throw Failure(
                fmt::format("stopped by {} before the end of {}", stop_.name(), source.name()));
    }

    void report(const std::string& line) {
        const std::lock_guard lock(lineLock_);
        line_ = line;
    }

    const SendJob& job_;
    const StreamUrl url_;
    const uint32_t channel_;
    SharedModule& module_;
    StopSignal& stop_;
    mutable std::mutex lineLock_;  // guards line_
    std::string line_;
    std::exception_ptr failure_;
    std::string summary_;
    std::vector<std::string> warnings_;
    std::atomic<bool> ended_{false};
    std::thread thread_;  // last: it uses the rest
};

using Tasks = std::vector<std::unique_ptr<Task>>;

std::string message(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    }
}

std::string shortName(const Task& task) {
    return fmt::format("{} -> {}", task.job().input, task.job().url);
}

void showProgress(Progress& progress, const Tasks& tasks) {
    if (!progress.due())
        return;
    std::vector<std::string> lines;
    for (const auto& task : tasks) {
        const std::string state = !task->ended()    ? task->line()
                                  : task->failure() ? "failed"
                                                    : task->summary();
        lines.push_back(tasks.size() == 1 ? state : fmt::format("{}  {}", shortName(*task), state));
    }
    progress.show(lines);
}

// Shows how far the tasks are until all have ended, and says at once when one fails.
void attend(Progress& progress, const Tasks& tasks) {
    std::set<const Task*> done;
    while (done.size() < tasks.size()) {
        for (const auto& task : tasks) {
            if (!task->ended() || !done.insert(task.get()).second)
                continue;
            if (task->failure() && tasks.size() > 1)
                progress.warn(fmt::format("{}: {}", shortName(*task), message(task->failure())));
        }
        showProgress(progress, tasks);
        std::this_thread::sleep_for(kBoardInterval);
    }
}

void conclude(Progress& progress, const Tasks& tasks) {
    size_t failed = 0;
    for (const auto& task : tasks) {
        if (!task->summary().empty())
            progress.summary(task->summary());
        for (const std::string& warning : task->warnings())
            progress.warn(warning);
        failed += task->failure() ? 1 : 0;
    }
    if (failed > 0 && tasks.size() == 1)
        std::rethrow_exception(tasks.front()->failure());
    if (failed > 0)
        throw Failure(
            fmt::format("{} of {} streams were not sent to their end", failed, tasks.size()));
}

// What the command line gives: pairs of an input and a URL, and options for all of them.
struct Arguments {
    std::vector<std::string> pairs;
    std::string bitrate;
    std::string start;
    std::string duration;
    std::string config;
    bool loop = false;
};

std::vector<SendJob> jobsOf(const Arguments& given) {
    if (!given.config.empty())
        return readSendJobs(given.config);
    checkPairs(given.pairs, "URL");
    SendJob job;
    job.loop = given.loop;
    if (!given.bitrate.empty())
        job.bitrate_bps = bitrate("--bitrate", given.bitrate);
    if (!given.start.empty())
        job.start = duration("--start", given.start, 0.0, 1e9);
    if (!given.duration.empty())
        job.duration = duration("--duration", given.duration, 0.001, 1e9);
    std::vector<SendJob> jobs;
    for (size_t i = 0; i < given.pairs.size(); i += 2) {
        job.input = given.pairs[i];
        job.url = given.pairs[i + 1];
        jobs.push_back(job);
    }
    checkArguments(jobs);
    return jobs;
}

constexpr auto kHelp =
    "Options apply to all pairs. Each pair is sent on a channel of its own, 16 at most; one that\n"
    "fails does not stop the others. Succeeds (0) when all have been sent or, with --loop, when\n"
    "SIGINT or SIGTERM comes.\n"
    "\n"
    "Examples:\n"
    "  qxvrtp send film.ts rtp://239.1.1.1:5000\n"
    "  qxvrtp send a.ts udp://239.1.1.1:5000 b.ts udp://239.1.1.2:5000 --loop\n"
    "  qxvrtp send film.ts udp://192.0.2.7:5000 --start 600 --duration 30\n"
    "  ffmpeg ... -f mpegts - | qxvrtp send - 'udp://239.1.1.1:5000?ttl=4'\n"
    "\n"
    "Rate: without --bitrate, a stream goes at the pace of its PCRs. udp:// follows a rate that\n"
    "varies, up to four times a second, where it would otherwise be 20 ms early or late. rtp://\n"
    "follows it from PCR to PCR by what it hands to the channel, whose own rate lies above: a\n"
    "change of that would begin the sequence numbers anew, and receivers drop what seems to be\n"
    "late. It is told by the first 8 MB (of a pipe: by the first second). Where the stream stays\n"
    "faster later on, it falls 2 s behind before the change is made, which a warning tells. RTP\n"
    "timestamps count datagrams at the channel's rate. Live input is delayed by the second that\n"
    "is measured.\n"
    "Bytes: packets have 188 or 204 bytes, and the rate counts all of them. They are sent as they\n"
    "are; null packets fill up the last datagram. Bytes that are no packets are skipped, which a\n"
    "warning tells in the end.\n"
    "Loop: the seam takes no time, keeps the rate, and changes no byte: PCRs and continuity\n"
    "counters jump there, unannounced, as in any stream that is spliced without being remade.\n"
    "Times count in the stream's own time, by its PCRs, or by --bitrate where it has none. "
    "--start\n"
    "holds for each turn of a loop, --duration for all turns together.\n";

}  // namespace

void runSend(const std::vector<SendJob>& jobs) {
    SharedModule module;
    StopSignal stop;
    Tasks tasks;
    for (const SendJob& job : jobs)
        tasks.push_back(
            std::make_unique<Task>(job, static_cast<uint32_t>(tasks.size()), module, stop));
    Progress progress;
    for (const auto& task : tasks)
        task->start();
    attend(progress, tasks);
    conclude(progress, tasks);
}

CommandModel sendCommand() {
    CommandModel command("send", "Send transport streams");
    const auto given = std::make_shared<Arguments>();
    command
        .addArguments("INPUT URL", given->pairs,
                      "Stream to send (- is standard input), and where to send it", "...")
        .require();
    command.addOption("-b,--bitrate", given->bitrate, "RATE",
                      "Bits per second, like 2500000, 2500k or 2.5M, kept throughout; without it, "
                      "the pace of the stream's PCRs");
    command.addFlag("-l,--loop", given->loop, "Repeat the input, a file, until a signal comes");
    command.addOption("-s,--start", given->start, "SECONDS",
                      "Skip this much of the stream at the beginning");
    command.addOption("-d,--duration", given->duration, "SECONDS",
                      "Send this much of the stream, then end");
    addConfigOption(command, given->config);
    command.footer = kHelp + urlHelp();
    command.action = [given] { runSend(jobsOf(*given)); };
    return command;
}
