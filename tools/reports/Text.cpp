#include "reports/Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "base/Quantity.h"
#include "base/SafeText.h"
#include "base/TextOutput.h"

namespace {

void writeChannel(TextOutput out, const ChannelState& channel) {
    const std::string asked = channel.send ? fmt::format("{:.3f}", channel.asked_bps / 1e6) : "-";
    out("{:<7} {:>2} {:<4} {:<7} {:<7} {:>9.3f} {:>7} {:>4} {} {}\n", directionName(channel),
        channel.number, channel.mode == ChannelMode::kUnknown ? "?" : modeName(channel.mode),
        channel.running ? "running" : "idle",
        !channel.running     ? "-"
        : channel.socketOpen ? "open"
                             : "pending",
        channel.measured_bps / 1e6, asked, channel.bufferBytes / 1024, endpointOf(channel),
        channel.localAddress.empty() ? "-" : channel.localAddress);
}

// The time, or the day when that is longer ago.
std::string startText(std::time_t started) {
    constexpr std::time_t kDay = 86'400;
    return localTimeText(started, std::time(nullptr) - started < kDay ? "%T" : "%F");
}

void addInput(std::vector<std::string>& lines, const InputState& input) {
    std::string line =
        fmt::format("  from {}: {}, {:.3f} Mbit/s, {}", input.url, healthName(input.health),
                    static_cast<double>(input.bitrate_bps) / 1e6,
                    counted(input.continuityErrors, "continuity error"));
    if (const auto& repair = input.repair)
        line +=
            fmt::format(", {} lost, {} reordered, {}, {} restored", repair->lost, repair->reordered,
                        counted(repair->duplicates, "duplicate"), repair->repaired);
    if (input.datagramsDropped > 0)
        line += fmt::format(", {} DROPPED", counted(input.datagramsDropped, "datagram"));
    lines.push_back(std::move(line));
    for (const PathState& path : input.paths)
        lines.push_back(fmt::format("    path {}: {}, {} lost, {} of them saved, {:.1f} ms behind",
                                    path.url, counted(path.datagrams, "datagram"), path.lost,
                                    path.saved, path.skew_ms));
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

std::string headingOf(const ShownTable& shown, const Machine& machine) {
    const ChannelTable& table = *shown.table;
    const char* const damage = table.plausible ? "" : ", table damaged";
    if (shown.host == nullptr)
        return fmt::format("{}{}: {} of {}",
                           machine.isFileKnown() ? "left over, its host has ended"
                                                 : "its host is not seen, or has ended",
                           damage, escapeBytes(table.path), table.owner);
    const Host& host = *shown.host;
    // What is behind the command may be beyond the edge of a terminal.
    std::string text = fmt::format("host {} of {} since {}{}: {}", host.pid, host.user,
                                   startText(host.started), damage, host.commandLine);
    if (!host.sharedWith.empty())
        text += fmt::format(" [table shared with {}]", fmt::join(host.sharedWith, " "));
    return table.replaced ? text + " [table replaced]" : text;
}

std::vector<std::string> streamLines(const StreamProcess& process) {
    std::vector<std::string> lines{fmt::format("streams of {} of {} since {}: {}", process.pid,
                                               process.user, startText(process.started),
                                               process.commandLine)};
    for (const StreamState& stream : process.states.streams) {
        lines.push_back(
            fmt::format("{} {}: {} in {}", stream.kind, stream.name, formatBytes(stream.bytes),
                        formatTime(std::chrono::milliseconds(
                            static_cast<int64_t>(std::clamp(stream.seconds, 0.0, 1e12) * 1e3)))));
        if (stream.packetsDropped > 0)
            lines.push_back(fmt::format("  the rate is too low: {} DROPPED",
                                        counted(stream.packetsDropped, "packet")));
        for (const InputState& input : stream.inputs)
            addInput(lines, input);
        for (const OutputState& output : stream.outputs)
            lines.push_back(fmt::format("  to {}: {}, {}, {} dropped, {} failed", output.url,
                                        output.works ? "works" : "DOWN",
                                        counted(output.datagrams, "datagram"),
                                        output.datagramsDropped, output.sendFailures));
    }
    if (process.states.leftOut > 0)
        lines.push_back("and " + counted(process.states.leftOut, "more stream"));
    return lines;
}

std::string doubtsText(const Machine& machine) {
    return machine.blindness.empty() ? ""
                                     : "there may be hosts that are not seen: " + machine.blindness;
}

std::string statusText(const Machine& machine, bool all, std::optional<size_t> width) {
    std::string text;
    const TextOutput out(text);
    out("#dir    ch mode state   socket     Mbit/s   asked  KiB address local\n");
    for (const ShownTable& shown : machine.tables()) {
        out("# {}\n", headingOf(shown, machine));
        const size_t before = text.size();
        for (const ChannelState& channel : shown.table->channels) {
            if (all || channel.running)
                writeChannel(out, channel);
        }
        if (text.size() == before && shown.host != nullptr)
            out("# no channel is running\n");
    }
    if (machine.tables().empty() && machine.processes.empty())
        out("# {}\n", printable(machine.trouble));
    // The others are channels.
    for (const StreamProcess& process : machine.processes)
        for (const std::string& line : streamLines(process))
            out("# {}\n", line);
    if (!machine.blindness.empty())
        out("# {}\n", doubtsText(machine));
    return width ? cutLines(text, *width) : text;
}
