#include "commands/SendCommand.h"

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "base/Errors.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/ConfiguredStreams.h"
#include "commands/Session.h"
#include "commands/ShapingOptions.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/SendChain.h"

namespace {

// What the command line gives: pairs of an input and a URL, and options for all of them.
struct Arguments {
    std::vector<std::string> pairs;
    std::string bitrate;
    std::string start;
    std::string duration;
    std::string patience = "3";
    ShapingArguments shaping;
    Announcing announcing;
    std::string config;
    bool loop = false;
    bool follow = false;
};

std::vector<SendJob> jobsOf(const Arguments& given) {
    SendJob job;
    job.loop = given.loop;
    job.follow = given.follow;
    if (!given.bitrate.empty())
        job.bitrate_bps = bitrate("--bitrate", given.bitrate);
    if (!given.start.empty())
        job.start = duration("--start", given.start, 0.0, 1e9);
    if (!given.duration.empty())
        job.duration = duration("--duration", given.duration, 0.001, 1e9);
    job.shaping = shaping(given.shaping);
    job.announcing = given.announcing;
    checkPairs(given.pairs, "URL");
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
    "Options apply to all pairs. Each pair is sent on a channel of its own, 16 at most; if one\n"
    "fails, the others go on. Succeeds (0) when all have been sent or, with --loop, when SIGINT "
    "or\n"
    "SIGTERM comes.\n"
    "\n"
    "Examples:\n"
    "  qxvrtp send film.ts rtp://239.1.1.1:5000\n"
    "  qxvrtp send a.ts udp://239.1.1.1:5000 b.ts udp://239.1.1.2:5000 --loop\n"
    "  qxvrtp send film.ts udp://192.0.2.7:5000 --start 600 --duration 30\n"
    "  ffmpeg ... -f mpegts - | qxvrtp send - 'udp://239.1.1.1:5000?ttl=4'\n"
    "\n"
    "Rate: without --bitrate, a stream keeps the pace of its PCRs. Over udp:// it is sent as it\n"
    "is; the channel's rate changes where the stream would otherwise be 20 ms early or late.\n"
    "Over rtp:// a stream that varies is made constant-rate, since RTP timestamps are derived\n"
    "from the rate: null packets fill the gaps, and PCRs are restamped, and put in where they\n"
    "would be too far apart. A stream that has a constant rate already is left as it is, byte for\n"
    "byte. With --as-is, every stream is; the RTP timestamps of one that varies then run slow. Of\n"
    "a file, 'auto' looks at the first 128 MiB; live input is delayed by the second in which its\n"
    "rate is measured, and --cbr RATE is safer for it. A stream that later needs more than its\n"
    "constant rate is late; when that comes to two seconds, what is late is lost. A message says\n"
    "which rate would have been enough.\n"
    "Outages: a stream whose output fails (no socket, no route) resumes within a second when the\n"
    "output works again, however long that takes: a file where it stopped; what came from a pipe\n"
    "meanwhile is lost. Only an output that never worked ends the stream, after --patience; with\n"
    "--config, it is tried for ever.\n"
    "Bytes: packets have 188 or 204 bytes, and the rate counts all of them. Null packets fill up\n"
    "the last datagram. Bytes that are not packets are skipped, and a warning at the end counts\n"
    "them.\n"
    "Loop: the file begins again without a pause, at the same rate, with no byte changed: PCRs\n"
    "and continuity counters jump there, unannounced, as in any stream that is spliced without\n"
    "being processed.\n"
    "Follow: what is appended to the file goes on at the stream's own pace. What comes too late\n"
    "makes a pause, as on a pipe, and is not made up for. The end behind the last PCR waits for\n"
    "more. A file that has become shorter is sent from its beginning, and so is another one that\n"
    "has taken its name, once the first has been sent. A FIFO waits for its next writer.\n"
    "Times are in the stream's own time, by its PCRs, or by --bitrate where it has none. --start\n"
    "holds for each turn of a loop, --duration for all turns together.\n";

// Sends each job's stream on a channel of its own, at most 16, and returns when all of them have
// left. A job that fails does not stop the others; with a limit to the patience, a job fails whose
// output does not begin.
void runSend(const JobSource<SendJob>& jobs, std::optional<std::chrono::milliseconds> patience) {
    Session session;
    ConfiguredStreams<SendJob, SendChain> streams(session, jobs, [&](const SendJob& job) {
        return std::make_unique<SendChain>(job, session.module(), patience);
    });
    session.run("streams were not sent to their end", [&] { return streams.attend(); });
}

}  // namespace

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
    command.addFlag("-l,--loop", given->loop,
                    "Repeat the input, which has to be a file, until a signal comes");
    command
        .addFlag("-f,--follow", given->follow,
                 "At the end of the input, wait for what is appended to the file, until a signal "
                 "comes")
        .exclude({"--loop"});
    command.addOption("-s,--start", given->start, "SECONDS",
                      "Skip this much of the stream at the beginning");
    command.addOption("-d,--duration", given->duration, "SECONDS",
                      "Send this much of the stream, then end");
    addShaping(command, given->shaping);
    addAnnouncing(command, given->announcing);
    command.addOption(
        "--patience", given->patience, "SECONDS",
        "How long to wait at the start for an output that does not work; 3 if not given");
    addConfigOption(command, given->config);
    command.footer = kHelp + urlHelp();
    command.action = [given] {
        const auto patience = duration("--patience", given->patience, 0.0, 1e9);
        if (!given->config.empty())
            return runSend({given->config, [given] { return readSendJobs(given->config); }}, {});
        runSend({"", [given] { return jobsOf(*given); }}, patience);
    };
    return command;
}
