#include "commands/SendCommand.h"

#include <fmt/format.h>

#include <exception>
#include <memory>
#include <optional>

#include "base/Errors.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/Runner.h"
#include "engine/SendChain.h"
#include "terminal/Progress.h"

namespace {

std::string message(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    }
}

std::string shortName(const SendChain& chain) {
    return fmt::format("{} -> {}", chain.job().input, chain.job().url);
}

// All streams of a command.
class Sending {
  public:
    Sending(const std::vector<SendJob>& jobs, std::optional<std::chrono::milliseconds> patience)
        : runner_(stop_) {
        for (const SendJob& job : jobs) {
            chains_.push_back(std::make_unique<SendChain>(
                job, static_cast<uint32_t>(chains_.size()), module_, patience));
            runner_.add(*chains_.back());
        }
        told_.resize(jobs.size());
    }
    Sending(const Sending&) = delete;
    Sending& operator=(const Sending&) = delete;
    ~Sending() {
        for (const auto& chain : chains_)
            chain->cancel();
    }

    void run() {
        runner_.run([this] { attend(); });
        attend();
        conclude();
    }

  private:
    // Says at once what has happened.
    void attend() {
        for (size_t i = 0; i < chains_.size(); ++i) {
            for (const std::string& event : chains_[i]->takeEvents())
                progress_.warn(event);
            if (!runner_.failure(i) || told_[i])
                continue;
            told_[i] = true;
            chains_[i]->cancel();
            if (chains_.size() > 1)
                warn(i, message(runner_.failure(i)));
        }
        if (!progress_.due())
            return;
        std::vector<std::string> lines;
        for (size_t i = 0; i < chains_.size(); ++i) {
            SendChain& chain = *chains_[i];
            const std::string state = runner_.failure(i) ? "failed"
                                      : runner_.ended(i) ? chain.summary()
                                                         : chain.describe(Runner::Clock::now());
            lines.push_back(chains_.size() == 1 ? state
                                                : fmt::format("{}  {}", shortName(chain), state));
        }
        progress_.show(lines);
    }

    void warn(size_t i, const std::string& text) {
        progress_.warn(fmt::format("{}: {}", shortName(*chains_[i]), text));
    }

    // A loop has no other end than a signal, unless it was given one.
    std::exception_ptr failure(size_t i) const {
        if (runner_.ended(i) || chains_[i]->job().loop)
            return runner_.failure(i);
        return std::make_exception_ptr(Failure(fmt::format("stopped by {} before the end of {}",
                                                           stop_.name(), chains_[i]->inputName())));
    }

    void conclude() {
        size_t failed = 0;
        for (size_t i = 0; i < chains_.size(); ++i) {
            if (const std::string summary = chains_[i]->summary(); !summary.empty())
                progress_.summary(summary);
            for (const std::string& warning : chains_[i]->warnings())
                progress_.warn(warning);
            const auto why = failure(i);
            failed += why ? 1 : 0;
            if (why && !told_[i] && chains_.size() > 1)
                warn(i, message(why));
        }
        if (failed > 0 && chains_.size() == 1)
            std::rethrow_exception(failure(0));
        if (failed > 0)
            throw Failure(
                fmt::format("{} of {} streams were not sent to their end", failed, chains_.size()));
    }

    StopSignal stop_;
    Runner runner_;
    ModuleOnDemand module_;
    std::vector<std::unique_ptr<SendChain>> chains_;
    std::vector<bool> told_;
    Progress progress_;
};

// What the command line gives: pairs of an input and a URL, and options for all of them.
struct Arguments {
    std::vector<std::string> pairs;
    std::string bitrate;
    std::string start;
    std::string duration;
    std::string patience = "3";
    std::string cbr;
    std::string delay;
    bool asIs = false;
    std::string config;
    bool loop = false;
};

Shaping shaping(const std::string& cbr, const std::string& delay, bool asIs) {
    Shaping shaping;
    shaping.constant = !cbr.empty();
    shaping.asIs = asIs;
    if (!cbr.empty() && cbr != "auto")
        shaping.rate_bps = bitrate("--cbr", cbr);
    if (!delay.empty())
        shaping.delay = duration("--delay", delay, 0.0, 1.0);
    return shaping;
}

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
    job.shaping = shaping(given.cbr, given.delay, given.asIs);
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
    "Rate: without --bitrate, a stream goes at the pace of its PCRs. udp:// sends it as it is,\n"
    "and changes the channel's rate where the stream would otherwise be 20 ms early or late.\n"
    "rtp:// makes a stream that varies constant, since RTP's timestamps follow from the rate:\n"
    "null packets fill the gaps, and PCRs are set anew. A stream of constant rate is left as it\n"
    "is, byte for byte. With --as-is, none is changed; timestamps then count at a ceiling.\n"
    "Where a stream needs more than the rate later on, it comes late, which a line tells with the\n"
    "rate that would have done. Live input is delayed by the second in which its rate is\n"
    "measured.\n"
    "Outages: a stream whose output fails (no socket, no route) goes on within a second when it\n"
    "works again, however long that takes: a file where it stopped; what came from a pipe\n"
    "meanwhile is lost. Only an output that does not even begin ends the stream, after\n"
    "--patience; with --config, it is tried for ever.\n"
    "Bytes: packets have 188 or 204 bytes, and the rate counts all of them. Null packets fill up\n"
    "the last datagram. Bytes that are no packets are skipped, which a\n"
    "warning tells in the end.\n"
    "Loop: the seam takes no time, keeps the rate, and changes no byte: PCRs and continuity\n"
    "counters jump there, unannounced, as in any stream that is spliced without being remade.\n"
    "Times count in the stream's own time, by its PCRs, or by --bitrate where it has none. "
    "--start\n"
    "holds for each turn of a loop, --duration for all turns together.\n";

}  // namespace

void runSend(const std::vector<SendJob>& jobs, std::optional<std::chrono::milliseconds> patience) {
    Sending(jobs, patience).run();
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
    command
        .addOption(
            "--cbr", given->cbr, "RATE",
            "Give the stream this constant rate, or with 'auto' the least that its beginning "
            "allows; rtp:// has 'auto' if nothing else is given")
        .exclude({"--bitrate", "--as-is"});
    command.addOption("--delay", given->delay, "SECONDS",
                      "Buffer that evens out the rate of --cbr, up to 1; 0.5 if not given");
    command.addFlag("--as-is", given->asIs, "Change no byte of a stream that varies over rtp://");
    command.addOption("--patience", given->patience, "SECONDS",
                      "How long to wait for an output that does not begin; 3 if not given");
    addConfigOption(command, given->config);
    command.footer = kHelp + urlHelp();
    command.action = [given] {
        const auto patience = duration("--patience", given->patience, 0.0, 1e9);
        runSend(jobsOf(*given), given->config.empty() ? std::optional(patience) : std::nullopt);
    };
    return command;
}
