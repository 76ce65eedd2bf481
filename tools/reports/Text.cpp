#include "reports/Text.h"

#include <fmt/format.h>

#include <iterator>

#include "base/Quantity.h"
#include "base/SafeText.h"

namespace {

using Output = std::back_insert_iterator<std::string>;

std::string rateOr(const std::optional<uint64_t>& bitrate_bps, const char* instead) {
    return bitrate_bps ? formatBitrate(*bitrate_bps) : instead;
}

std::string pidType(const PidReport& pid) {
    std::string type = pid.kind;
    for (const std::string& more : {pid.codec, pid.language})
        type += more.empty() ? "" : ' ' + more;
    return type;
}

std::string pidNotes(const PidReport& pid) {
    std::string notes = pid.pcr ? "PCR" : "";
    if (pid.scrambled > 0)
        notes += notes.empty() ? "scrambled" : " scrambled";
    return notes;
}

void writeProgrammes(Output out, const StreamReport& report) {
    constexpr size_t kNameWidth = 49;  // what is left of 80 columns
    if (report.programmes.empty())
        fmt::format_to(out, "\nno programmes: no PAT came\n");
    else
        fmt::format_to(out, "\nprogramme  PMT    PCR    PIDs  name (provider)\n");
    for (const ProgrammeReport& programme : report.programmes) {
        const auto& service = programme.service;
        fmt::format_to(
            out, "{:>9}  {:<5}  {:<5} {:>5}  {}\n", programme.number, programme.pmtPid,
            programme.pcrPid ? fmt::format("{}", *programme.pcrPid) : "-", programme.streams.size(),
            service ? shorten(fmt::format("{} ({})", service->name, service->provider), kNameWidth)
                    : "-");
    }
}

void writePids(Output out, const StreamReport& report) {
    if (report.pids.empty())
        return;
    fmt::format_to(out,
                   "\n  PID  type                       packets         bitrate  cc errors  \n");
    for (const PidReport& pid : report.pids)
        fmt::format_to(out, "{:>5}  {:<22} {:>11} {:>15} {:>10}  {}\n", pid.pid, pidType(pid),
                       pid.packets, rateOr(pid.bitrate_bps, "-"), pid.continuityErrors,
                       pidNotes(pid));
}

void writeClocks(Output out, const StreamReport& report) {
    if (report.pcrs.empty())
        return;
    fmt::format_to(
        out, "\n  PCR    count   interval ms (min, max)   jitter ms (peak-peak, RMS)   cuts\n");
    for (const PcrReport& clock : report.pcrs)
        fmt::format_to(out, "{:>5} {:>8} {:>12.2f} {:>11.2f} {:>17.2f} {:>10.2f} {:>6}\n",
                       clock.pid, clock.count, clock.shortestInterval_ms, clock.longestInterval_ms,
                       clock.jitterPeakToPeak_ms, clock.jitterRms_ms, clock.discontinuities);
}

}  // namespace

const char* modeName(ChannelMode mode) {
    switch (mode) {
        case ChannelMode::kRtp:
            return "rtp";
        case ChannelMode::kRaw:
            return "raw";
        default:
            return "unknown";
    }
}

const char* directionName(const ChannelState& channel) {
    return channel.send ? "send" : "receive";
}

std::string endpointOf(const ChannelState& channel) {
    const bool ipv6 = channel.address.find(':') != std::string::npos;
    return fmt::format("{}{}{}:{}", ipv6 ? "[" : "", channel.address, ipv6 ? "]" : "",
                       channel.port);
}

std::string hostsText(const TableHosts& hosts) {
    std::string text;
    for (const TableHost& host : hosts.hosts)
        text += fmt::format("{}{} {}{}", text.empty() ? "" : ", ", host.pid, host.command,
                            host.replaced ? " (its table was replaced)" : "");
    if (hosts.current() == 0)
        text += fmt::format("{}{}", text.empty() ? "" : ", ",
                            hosts.known() ? "none alive" : "unknown: " + hosts.blindness);
    return text;
}

std::string tableText(const ChannelTable& table, const TableHosts& hosts, bool all,
                      std::optional<size_t> width) {
    std::string text;
    const Output out(text);
    fmt::format_to(out, "# {} of {}, hosts: {}\n", escapeBytes(table.path), table.owner,
                   hostsText(hosts));
    if (!table.plausible)
        fmt::format_to(out, "# the table is damaged: do not rely on it\n");
    fmt::format_to(out, "#dir    ch mode state   socket     Mbit/s   asked  KiB address local\n");
    size_t shown = 0;
    for (const ChannelState& channel : table.channels) {
        if (!channel.running && !all)
            continue;
        ++shown;
        const std::string asked =
            channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-";
        fmt::format_to(out, "{:<7} {:>2} {:<4} {:<7} {:<7} {:>9.3f} {:>7} {:>4} {} {}\n",
                       directionName(channel), channel.number,
                       channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
                       channel.running ? "running" : "idle",
                       !channel.running     ? "-"
                       : channel.socketOpen ? "open"
                                            : "pending",
                       channel.measured_bps / 1e6, asked, channel.bufferBytes / 1024,
                       endpointOf(channel),
                       channel.localAddress.empty() ? "-" : channel.localAddress);
    }
    if (shown == 0)
        fmt::format_to(out, "# no channel is running\n");
    return width ? cutLines(text, *width) : text;
}

std::string probeText(const ProbeReport& report) {
    const Arrival& arrival = report.arrival;
    const StreamReport& stream = report.stream;
    std::string text;
    const Output out(text);
    fmt::format_to(out, "{}\n{}, packets of {} bytes, {} packets in {} datagrams, {:.2f} s\n",
                   arrival.url, arrival.rtp ? "RTP" : "raw", stream.packetSize, stream.packets,
                   arrival.datagrams, std::chrono::duration<double>(stream.time).count());
    fmt::format_to(out, "bitrate  {} by arrival, {} by PCR\n",
                   rateOr(stream.arrivalBitrate_bps, "unknown"),
                   rateOr(stream.pcrBitrate_bps, "unknown"));
    fmt::format_to(out, "errors   continuity {}, sync {}, transport {}, section {}\n",
                   stream.continuityErrors, stream.syncLosses, stream.transportErrors,
                   stream.sectionErrors);
    if (arrival.datagramsDropped > 0)
        fmt::format_to(out, "lost     {} datagrams for which this process was too slow\n",
                       arrival.datagramsDropped);
    writeProgrammes(out, stream);
    writePids(out, stream);
    writeClocks(out, stream);
    if (report.programmesLeftOut + report.streamsLeftOut + report.pidsLeftOut > 0)
        fmt::format_to(out, "\nleft out: {} programmes, {} streams of programmes, {} PIDs\n",
                       report.programmesLeftOut, report.streamsLeftOut, report.pidsLeftOut);
    return text;
}
