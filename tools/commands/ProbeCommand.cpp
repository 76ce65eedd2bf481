#include "commands/ProbeCommand.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "StreamAnalyzer.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "engine/HostModule.h"
#include "media/StreamUrl.h"
#include "reports/Json.h"
#include "reports/Text.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kChannel = 0;
constexpr size_t kChunkBytes = size_t{16} * 1024;
constexpr auto kPollInterval = 1ms;  // the resolution of all arrival times

void analyze(ReceiveChannel& channel, std::chrono::milliseconds duration, StopSignal& stop,
             StreamAnalyzer& analyzer) {
    Progress progress;
    std::vector<uint8_t> chunk(kChunkBytes);
    const auto end = Clock::now() + duration;
    // Each piece, however many are there: a stream that is slow to analyse delays neither end.
    for (auto now = Clock::now(); now < end && !stop.requested(); now = Clock::now()) {
        // What is there by now has come since the last look, a millisecond ago.
        const size_t taken = channel.receive(chunk);
        analyzer.feed(std::span(chunk).first(taken), now.time_since_epoch());
        if (progress.due())
            progress.show(fmt::format("{}  {}  {}  {} continuity errors",
                                      formatTime(progress.elapsed()), formatBytes(analyzer.bytes()),
                                      channel.isRtp() ? "rtp" : "raw",
                                      analyzer.continuityErrors()));
        if (taken < chunk.size())
            std::this_thread::sleep_until(now + kPollInterval);
    }
}

}  // namespace

void runProbe(const ProbeOptions& options) {
    const StreamUrl url = parseStreamUrl(options.url);
    const RtpChannelConfig config = receiveConfig(url);
    StopSignal stop;
    StreamAnalyzer analyzer;
    Arrival arrival{url.text, false, 0, 0};
    {
        HostModule module;
        ReceiveChannel channel(module, kChannel, config);
        if (channel.awaitSocket(url, [&stop] { return stop.requested(); }))
            analyze(channel, options.duration, stop, analyzer);
        arrival.rtp = channel.isRtp();
        arrival.datagrams = channel.statistics().Datagrams;
        arrival.datagramsDropped = channel.statistics().DatagramsDropped;
    }
    const ProbeReport probe(arrival, analyzer.report());
    const StreamReport& report = probe.stream;
    // A program that reads objects gets one in any case.
    if (options.json)
        fmt::print("{}", probeJson(probe));
    if (report.bytes == 0)
        throw Failure(fmt::format("nothing arrived at {} within {:g} s{}", url.text,
                                  std::chrono::duration<double>(options.duration).count(),
                                  stop.requested() ? ", or before it was stopped" : ""));
    if (report.packets == 0)
        throw Failure(fmt::format("{} arrived at {}, but no transport stream",
                                  formatBytes(report.bytes), url.text));
    if (!options.json)
        fmt::print("{}", probeText(probe));
}

CommandModel probeCommand() {
    struct Arguments {
        ProbeOptions options;
        std::string duration;
    };
    CommandModel command("probe", "Analyse an incoming stream");
    const auto given = std::make_shared<Arguments>();
    command
        .addArgument("URL", given->options.url,
                     "Group to join, or local address to listen on (udp://@:5000 = any)")
        .require();
    command.addOption("-d,--duration", given->duration, "SECONDS",
                      "Listen for this many seconds; 5 if not given. SIGINT ends it earlier");
    command.addFlag("-j,--json", given->options.json, "Print one JSON object");
    command.footer = fmt::format(
        "Shows what a receive channel gets: RTP or raw, packet size, bitrates, programmes with\n"
        "their names, and for each PID what it carries, its bitrate and its continuity errors.\n"
        "\n"
        "PCR: the interval is the time between two PCRs of a PID by their own values. The jitter\n"
        "is how far the arrival of PCRs strays from their values, the mean taken off: peak to\n"
        "peak and RMS. Arrival is when this process finds the bytes in the channel's buffer; it\n"
        "looks every millisecond. So jitter of a few milliseconds may be this machine's, and as "
        "much\n"
        "as a datagram lasts (13 ms at 0.8 Mbit/s) comes from its packets arriving together. What\n"
        "the two clocks drift apart counts, too. Cuts are jumps of the clock.\n"
        "Lost RTP packets show as continuity errors: the channel does not tell sequence numbers.\n"
        "\n"
        "Like the other commands that open a channel, it replaces the table that 'status' shows.\n"
        "Failed (1) when nothing arrives, or no transport stream.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp probe rtp://239.1.1.1:5000\n"
        "  qxvrtp probe 'udp://@:5000' -d 60 --json | jq .continuity_errors\n{}",
        urlHelp());
    command.action = [given] {
        if (!given->duration.empty())
            given->options.duration = duration("--duration", given->duration, 0.1, 1e6);
        runProbe(given->options);
    };
    return command;
}
