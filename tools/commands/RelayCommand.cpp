#include "commands/RelayCommand.h"

#include <fmt/format.h>

#include <memory>
#include <optional>

#include "base/Quantity.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/ConfiguredStreams.h"
#include "commands/Session.h"
#include "commands/ShapingOptions.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/RelayChain.h"
#include "media/SdpFile.h"

namespace {

struct Arguments {
    RelayJob job;
    std::string bitrate;
    ShapingArguments shaping;
    std::string within;
    std::string returnAfter;
    std::string patience = "3";
    std::string config;
    bool statistics = false;
};

constexpr auto kHelp =
    "Whether the input is raw or RTP is detected; each output has the form of its URL. The input\n"
    "may pause, or change its rate, its packet size or its form; bytes that are not packets are\n"
    "left out. When the input pauses for half a second, null packets fill up the last datagram.\n"
    "An output that is too slow loses whole datagrams, which is reported; the others are not\n"
    "affected.\n"
    "\n"
    "Repair: what comes in from rtp:// is put in order by its sequence numbers, and duplicates "
    "are\n"
    "left out; with reorder=0 it is taken as it comes. Up to four URLs joined by '+' are paths of\n"
    "one RTP stream, as SMPTE ST 2022-7 has them: what one of them lacks is taken from another.\n"
    "Failover: each --or names an input that takes the place of those in front of it when they "
    "have\n"
    "no signal, or have been faulty for as long (packets are missing or damaged in three parts "
    "of ten,\n"
    "or there is no PAT, PMT, video or audio any more); a file is the last resort. The cut lies\n"
    "between two packets and is announced to decoders by discontinuity indicators. The inputs "
    "should\n"
    "use the same PIDs for the same things. Switching back takes --return seconds without a "
    "fault.\n"
    "Pace: packets leave 200 ms after they arrived, on average, spaced by the stream's PCRs, "
    "which\n"
    "removes the network's jitter; without PCRs, they are spaced as they arrived. The pace is\n"
    "adjusted by up to 2 %, so that a source whose clock differs is followed for as long as it\n"
    "runs.\n"
    "Rate: over rtp:// a stream that varies is made constant-rate, since RTP timestamps are "
    "derived\n"
    "from the rate. This delays it by the second in which its rate is measured, and by --delay.\n"
    "That second may be a quiet one: give --cbr a rate that suffices for all that will come. A\n"
    "stream that later needs more is late; when that comes to two seconds, what is late is lost.\n"
    "A message says which rate would have been enough. A stream that has a constant rate already\n"
    "is left as it is, byte for byte; its timestamps run 0.02 % slow, so that a source with a\n"
    "faster clock can be followed. With --as-is, every stream is left as it is; the RTP\n"
    "timestamps of one that varies then run slow.\n"
    "Outages: an input or an output that fails (no socket, no route) resumes within a second or "
    "two\n"
    "when it works again, however long that takes; a message tells when it fails and when it is\n"
    "back. Only when there is no socket for the input, or for none of the outputs, within\n"
    "--patience of the start does the relay fail (1); with --config, it tries for ever.\n"
    "\n"
    "Examples:\n"
    "  qxvrtp relay rtp://239.1.1.1:5000 udp://192.0.2.8:5000\n"
    "  qxvrtp relay 'rtp://239.1.1.1:5000?iface=eth0+rtp://239.1.1.1:5000?iface=eth1' \\\n"
    "      udp://192.0.2.8:5000\n"
    "  qxvrtp relay rtp://239.1.1.1:5000 --or rtp://239.1.1.2:5000 --or sorry.ts \\\n"
    "      udp://192.0.2.8:5000\n"
    "  qxvrtp relay 'udp://239.1.1.1:5000?localaddr=192.0.2.7' rtp://[2001:db8::8]:5000 \\\n"
    "      'rtp://239.2.2.2:5000?ttl=4&localaddr=198.51.100.7'\n"
    "\n"
    "Ends with SIGINT or SIGTERM, successfully (0).\n";

// Sends on what arrives until SIGINT or SIGTERM comes. Sockets are tried for ever or, to begin
// with, for that long.
void runRelay(const JobSource<RelayJob>& jobs, std::optional<std::chrono::milliseconds> patience,
              bool statistics) {
    SocketMeans means;
    Session session(statistics);
    ConfiguredStreams<RelayJob, RelayChain> streams(session, jobs, [&](const RelayJob& job) {
        return std::make_unique<RelayChain>(job, session.module(), means, patience);
    });
    session.run("relays failed", [&] { return streams.attend(); });
}

void readFailover(Arguments& given) {
    Failover& failover = given.job.failover;
    if (failover.others.empty() && !(given.within + given.returnAfter).empty())
        throw UsageError("--switch and --return have no effect without --or");
    for (std::string& other : failover.others)
        other = streamOf(other);
    if (!given.within.empty())
        failover.within = duration("--switch", given.within, 0.1, 1e6);
    if (given.returnAfter == "never")
        failover.returnAfter.reset();
    else if (!given.returnAfter.empty())
        failover.returnAfter = duration("--return", given.returnAfter, 0.0, 1e6);
}

}  // namespace

CommandModel relayCommand() {
    CommandModel command("relay", "Forward an incoming stream to other addresses");
    const auto given = std::make_shared<Arguments>();
    command
        .addArgument("FROM", given->job.from,
                     "Group to join, or local address to listen on (udp://@:5000 = any)", "URL")
        .require();
    command.addArguments("TO", given->job.to, "Where to forward it; up to 16 URLs", "URL")
        .require();
    command.addOption("-b,--bitrate", given->bitrate, "RATE",
                      "Send at this many bits per second, like 2500000, 2500k or 2.5M; "
                      "without it, the pace of the stream's PCRs");
    addShaping(command, given->shaping);
    addAnnouncing(command, given->job.announcing);
    command.addOptions(
        "--or", given->job.failover.others, "URL|FILE",
        "Another input, to send on while those in front of it have no signal or are "
        "faulty; may be repeated. A file, as the last one, is played again and again "
        "while nothing else comes");
    command.addOption(
        "--switch", given->within, "SECONDS",
        "With --or: how soon after its last packet an input is left; 0.3 if not given");
    command.addOption("--return", given->returnAfter, "SECONDS",
                      "With --or: how long an input has to be well before it is returned to, or "
                      "'never'; 10 if not given");
    command.addOption("--patience", given->patience, "SECONDS",
                      "How long to wait for sockets that cannot be opened; 3 if not given");
    command.addFlag("--statistics", given->statistics,
                    "At the end, print one line of JSON per stream to standard error");
    addConfigOption(command, given->config, "--statistics");
    command.footer = kHelp + urlHelp();
    command.action = [given] {
        if (!given->bitrate.empty())
            given->job.bitrate_bps = bitrate("--bitrate", given->bitrate);
        given->job.shaping = shaping(given->shaping);
        const auto patience = duration("--patience", given->patience, 0.0, 1e9);
        if (!given->config.empty())
            return runRelay({given->config, [given] { return readRelayJobs(given->config); }}, {},
                            given->statistics);
        given->job.from = streamOf(given->job.from);
        readFailover(*given);
        checkArguments(given->job);
        runRelay({"", [given] { return std::vector{given->job}; }}, patience, given->statistics);
    };
    return command;
}
