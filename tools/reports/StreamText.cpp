#include <fmt/format.h>

#include <iterator>
#include <utility>

#include "base/Quantity.h"
#include "base/SafeText.h"
#include "reports/StreamFindings.h"

namespace {

using Output = std::back_insert_iterator<std::string>;
using ts::Check;

constexpr size_t kWidth = 80;

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

// "1316", or "188 to 1316".
template <typename Number>
std::string range(const Number& smallest, const Number& largest) {
    return smallest == largest ? fmt::format("{}", smallest)
                               : fmt::format("{} to {}", smallest, largest);
}

void writeSources(Output out, const ts::ReceptionReport& reception) {
    std::string line = "from    ";
    for (const ts::SourceReport& source : reception.sources)
        line += fmt::format(" {} ({})", sourceText(source.source), source.datagrams);
    if (!reception.sources.empty())
        fmt::format_to(out, "{}\n", shorten(line, kWidth));
}

void writeReception(Output out, const ts::ReceptionReport& reception) {
    writeSources(out, reception);
    if (const auto& rtp = reception.rtp) {
        fmt::format_to(out,
                       "rtp      lost {}, reordered {} (by up to {}), duplicates {}, restarts {}\n",
                       rtp->counts.lost, rtp->counts.reordered, rtp->counts.furthest,
                       rtp->counts.duplicates, rtp->counts.restarts + rtp->counts.ssrcChanges);
        fmt::format_to(out, "         jitter {:.3f} ms, payload type {}, SSRC {:08x}",
                       rtp->jitter_ms, rtp->payloadType, rtp->ssrc);
        if (rtp->timestampRate)
            fmt::format_to(out, ", timestamps {:.1f} Hz", *rtp->timestampRate);
        fmt::format_to(out, "\n");
    }
    if (reception.counts.datagrams == 0)
        return;
    std::string line =
        fmt::format("sizes    {} bytes", range(reception.smallest, reception.largest));
    if (reception.smallestTtl && reception.largestTtl)
        line += fmt::format(", TTL {}", range(*reception.smallestTtl, *reception.largestTtl));
    if (!reception.dscps.empty())
        line += fmt::format(", DSCP {}", fmt::join(reception.dscps, " "));
    fmt::format_to(out, "{}\n", shorten(line, kWidth));
    if (const auto& intervals = reception.intervals)
        fmt::format_to(out, "arrival  every {:.2f} ms (99 %: {:.2f}, longest {:.2f})\n",
                       intervals->p50_ms, intervals->p99_ms, intervals->longest_ms);
}

void writeDelivery(Output out, const ts::MediaDeliveryReport& delivery) {
    if (delivery.delayFactor_ms)
        fmt::format_to(out, "mdi      delay factor {:.2f} ms (at most {:.2f}), ",
                       *delivery.delayFactor_ms, delivery.largestDelayFactor_ms);
    else
        fmt::format_to(out, "mdi      delay factor unknown, ");
    fmt::format_to(out, "media loss rate {:.1f}/s (at most {:.1f})\n", delivery.lossRate,
                   delivery.largestLossRate);
}

// Of the checks that have failed.
void writeChecks(Output out, const StreamFindings& findings) {
    bool begun = false;
    for (size_t i = 0; i < ts::kChecks; ++i) {
        const auto check = static_cast<Check>(i);
        const ts::CheckState& state = findings.state(check);
        if (state.count == 0)
            continue;
        if (!std::exchange(begun, true))
            fmt::format_to(out,
                           "\nerror                     number   count  what, the last time\n");
        const ts::CheckInfo& info = ts::info(check);
        fmt::format_to(
            out, "{}\n",
            shorten(fmt::format("{:<23} {:>8} {:>7}  {}{}", info.name, info.reference, state.count,
                                state.raised ? "ALARM: " : "", printable(state.detail)),
                    kWidth));
    }
}

}  // namespace

std::string findingsText(const StreamFindings& findings) {
    const StreamReport& stream = findings.report.stream;
    const ts::ReceptionReport& reception = findings.report.reception;
    std::string text;
    const Output out(text);
    if (reception.counts.datagrams == 0) {
        fmt::format_to(out, "{}\nnothing has come\n", printable(findings.name()));
        writeChecks(out, findings);
        return text;
    }
    fmt::format_to(out, "{}\n{}, packets of {} bytes, {} packets in {} datagrams, {:.2f} s\n",
                   printable(findings.name()), findings.isRtp() ? "RTP" : "raw", stream.packetSize,
                   stream.packets, reception.counts.datagrams,
                   std::chrono::duration<double>(stream.time).count());
    fmt::format_to(out, "bitrate  {} by arrival, {} by PCR\n",
                   rateOr(stream.arrivalBitrate_bps, "unknown"),
                   rateOr(stream.pcrBitrate_bps, "unknown"));
    fmt::format_to(out, "errors   continuity {}, sync {}, transport {}, section {}\n",
                   stream.continuityErrors, stream.syncLosses, stream.transportErrors,
                   stream.sectionErrors);
    if (findings.report.pcrs.constantRate == true)
        fmt::format_to(out, "pcr      off their places by up to {} ns\n",
                       findings.report.pcrs.worstError.count());
    writeReception(out, reception);
    writeDelivery(out, findings.report.delivery);
    if (reception.counts.socketDrops > 0)
        fmt::format_to(out, "lost     {} datagrams for which this process was too slow\n",
                       reception.counts.socketDrops);
    writeChecks(out, findings);
    writeProgrammes(out, stream);
    writePids(out, stream);
    writeClocks(out, stream);
    if (findings.programmesLeftOut + findings.streamsLeftOut + findings.pidsLeftOut > 0)
        fmt::format_to(out, "\nleft out: {} programmes, {} streams of programmes, {} PIDs\n",
                       findings.programmesLeftOut, findings.streamsLeftOut, findings.pidsLeftOut);
    return text;
}
