#include "commands/SendCommand.h"

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "base/Errors.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
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
    job.shaping = shaping(given.shaping);
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
    Session session;
    uint32_t channel = 0;
    for (const SendJob& job : jobs)
        session.add(std::make_unique<SendChain>(job, channel++, session.module(), patience));
    session.run("streams were not sent to their end");
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
    addShaping(command, given->shaping);
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
