#include "commands/ProbeCommand.h"

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/Session.h"
#include "config/ConfigRules.h"
#include "engine/MonitorChain.h"
#include "media/SdpFile.h"
#include "reports/StreamFindings.h"

void runProbe(const ProbeOptions& options) {
    constexpr std::chrono::seconds kPatience{3};
    checkArguments({{options.url, "", options.duration, "", {}}});
    SocketMeans means;
    Session session;
    auto made = std::make_unique<MonitorChain>(
        MonitorJob{options.url, "", options.duration, "", {}}, means, kPatience);
    const MonitorChain& chain = *made;
    session.add(std::move(made));
    session.run("");
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const StreamFindings findings(
        {options.url, "", true, now, std::chrono::system_clock::now().time_since_epoch() - now},
        chain.monitor().report());
    const StreamReport& report = findings.report.stream;
    // A program that reads objects gets one in any case.
    if (options.json)
        fmt::print("{}", findingsJson(findings, false));
    if (report.bytes == 0)
        throw Failure(fmt::format("nothing arrived at {} within {:g} s, or before it was stopped",
                                  options.url,
                                  std::chrono::duration<double>(options.duration).count()));
    if (report.packets == 0)
        throw Failure(fmt::format("{} arrived at {}, but no transport stream",
                                  formatBytes(report.bytes), options.url));
    if (!options.json)
        fmt::print("{}", findingsText(findings));
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
        "Shows what arrives: RTP or raw, from whom and how evenly, packet size, bitrates, "
        "programmes\n"
        "with their names, what each PID carries, and all errors that 'qxvrtp monitor' finds; see\n"
        "docs/monitoring.md. It has a socket of its own: other receivers of a group on this "
        "machine\n"
        "get all datagrams as before, and the table that 'status' shows is left alone.\n"
        "\n"
        "PCR: the interval is the time between two PCRs of a PID by their own values. The jitter\n"
        "is how far the arrival of PCRs strays from their values, the mean taken off: peak to\n"
        "peak and RMS. The kernel notes when a datagram arrives. As much jitter as a datagram "
        "lasts\n"
        "(13 ms at 0.8 Mbit/s) comes from its packets arriving together. What the two clocks "
        "drift\n"
        "apart counts, too. Cuts are jumps of the clock.\n"
        "\n"
        "Failed (1) when nothing arrives, or no transport stream.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp probe rtp://239.1.1.1:5000\n"
        "  qxvrtp probe 'udp://@:5000' -d 60 --json | jq .continuity_errors\n{}",
        urlHelp());
    command.action = [given] {
        given->options.url = streamOf(given->options.url);
        if (!given->duration.empty())
            given->options.duration = duration("--duration", given->duration, 0.1, 1e6);
        runProbe(given->options);
    };
    return command;
}
