#include <fmt/format.h>

#include <utility>

#include "base/Quantity.h"
#include "base/SafeText.h"
#include "base/TextOutput.h"
#include "reports/StreamFindings.h"

namespace {

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

void writeProgrammes(TextOutput out, const StreamReport& report) {
    constexpr size_t kNameWidth = 49;  // what is left of 80 columns
    if (report.programmes.empty())
        out("\nno programmes: no PAT came\n");
    else
        out("\nprogramme  PMT    PCR    PIDs  name (provider)\n");
    for (const ProgrammeReport& programme : report.programmes) {
        const auto& service = programme.service;
        std::string name = service ? service->name : "";
        if (service && !service->provider.empty())
            name += fmt::format("{}({})", name.empty() ? "" : " ", service->provider);
        out("{:>9}  {:<5}  {:<5} {:>5}  {}\n", programme.number, programme.pmtPid,
            programme.pcrPid ? fmt::format("{}", *programme.pcrPid) : "-", programme.streams.size(),
            name.empty() ? "-" : shorten(name, kNameWidth));
    }
}

void writePids(TextOutput out, const StreamReport& report) {
    if (report.pids.empty())
        return;
    out("\n  PID  type                       packets         bitrate  cc errors  \n");
    for (const PidReport& pid : report.pids)
        out("{:>5}  {:<22} {:>11} {:>15} {:>10}  {}\n", pid.pid, pidType(pid), pid.packets,
            rateOr(pid.bitrate_bps, "-"), pid.continuityErrors, pidNotes(pid));
}

void writeClocks(TextOutput out, const StreamReport& report) {
    if (report.pcrs.empty())
        return;
    out("\n  PCR    count   interval ms (min, max)   jitter ms (peak-peak, RMS)   cuts\n");
    for (const PcrReport& clock : report.pcrs)
        out("{:>5} {:>8} {:>12.2f} {:>11.2f} {:>17.2f} {:>10.2f} {:>6}\n", clock.pid, clock.count,
            clock.shortestInterval_ms, clock.longestInterval_ms, clock.jitterPeakToPeak_ms,
            clock.jitterRms_ms, clock.discontinuities);
}

// "1316", or "188 to 1316".
template <typename Number>
std::string range(const Number& smallest, const Number& largest) {
    return smallest == largest ? fmt::format("{}", smallest)
                               : fmt::format("{} to {}", smallest, largest);
}

void writeSources(TextOutput out, const ts::ReceptionReport& reception) {
    std::string line = "from    ";
    for (const ts::SourceReport& source : reception.sources)
        line += fmt::format(" {} ({})", sourceText(source.source), source.datagrams);
    if (!reception.sources.empty())
        out("{}\n", shorten(line, kWidth));
}

void writeReception(TextOutput out, const ts::ReceptionReport& reception) {
    writeSources(out, reception);
    if (const auto& rtp = reception.rtp) {
        out("rtp      lost {}, reordered {} (by up to {}), duplicates {}, restarts {}\n",
            rtp->counts.lost, rtp->counts.reordered, rtp->counts.furthest, rtp->counts.duplicates,
            rtp->counts.restarts + rtp->counts.ssrcChanges);
        out("         jitter {:.3f} ms, payload type {}, SSRC {:08x}", rtp->jitter_ms,
            rtp->payloadType, rtp->ssrc);
        if (rtp->timestampRate)
            out(", timestamps {:.1f} Hz", *rtp->timestampRate);
        out("\n");
    }
    if (reception.counts.datagrams == 0)
        return;
    std::string line =
        fmt::format("sizes    {} bytes", range(reception.smallest, reception.largest));
    if (reception.smallestTtl && reception.largestTtl)
        line += fmt::format(", TTL {}", range(*reception.smallestTtl, *reception.largestTtl));
    if (!reception.dscps.empty())
        line += fmt::format(", DSCP {}", fmt::join(reception.dscps, " "));
    out("{}\n", shorten(line, kWidth));
    if (const auto& intervals = reception.intervals)
        out("arrival  every {:.2f} ms (median), 99 % within {:.2f}, longest {:.2f}\n",
            intervals->p50_ms, intervals->p99_ms, intervals->longest_ms);
}

void writeDelivery(TextOutput out, const ts::MediaDeliveryReport& delivery) {
    if (delivery.delayFactor_ms)
        out("mdi      delay factor {:.2f} ms (at most {:.2f}), ", *delivery.delayFactor_ms,
            delivery.largestDelayFactor_ms);
    else
        out("mdi      delay factor unknown, ");
    out("media loss rate {:.1f}/s (at most {:.1f})\n", delivery.lossRate, delivery.largestLossRate);
}

// Of the checks that have failed.
void writeChecks(TextOutput out, const StreamFindings& findings) {
    bool begun = false;
    for (size_t i = 0; i < ts::kChecks; ++i) {
        const auto check = static_cast<Check>(i);
        const ts::CheckState& state = findings.state(check);
        if (state.count == 0)
            continue;
        if (!std::exchange(begun, true))
            out("\nerror                     number   count  what, the last time\n");
        const ts::CheckInfo& info = ts::info(check);
        // A long detail has a line of its own.
        const std::string line =
            fmt::format("{:<23} {:>8} {:>7}", info.name, info.reference, state.count);
        const std::string detail = (state.raised ? "ALARM: " : "") + printable(state.detail);
        const bool fits = line.size() + 2 + detail.size() <= kWidth;
        out("{}{}{}\n", line, fits ? "  " : "\n    ", shorten(detail, kWidth - 4));
    }
}

}  // namespace

std::string findingsText(const StreamFindings& findings) {
    const StreamReport& stream = findings.report.stream;
    const ts::ReceptionReport& reception = findings.report.reception;
    std::string text;
    const TextOutput out(text);
    if (reception.counts.datagrams == 0) {
        out("{}\nnothing has come\n", printable(findings.name()));
        writeChecks(out, findings);
        return text;
    }
    out("{}\n{}, packets of {} bytes, {} in {}, {:.2f} s\n", printable(findings.name()),
        findings.isRtp() ? "RTP" : "raw", stream.packetSize, counted(stream.packets, "packet"),
        counted(reception.counts.datagrams, "datagram"),
        std::chrono::duration<double>(stream.time).count());
    out("bitrate  {} by arrival, {} by PCR\n", rateOr(stream.arrivalBitrate_bps, "unknown"),
        rateOr(stream.pcrBitrate_bps, "unknown"));
    out("errors   continuity {}, sync {}, transport {}, section {}\n", stream.continuityErrors,
        stream.syncLosses, stream.transportErrors, stream.sectionErrors);
    if (findings.report.pcrs.constantRate == true)
        out("pcr      inaccurate by up to {} ns\n", findings.report.pcrs.worstError.count());
    writeReception(out, reception);
    writeDelivery(out, findings.report.delivery);
    if (reception.counts.socketDrops > 0)
        out("lost     {} for which this process was too slow\n",
            counted(reception.counts.socketDrops, "datagram"));
    writeChecks(out, findings);
    writeProgrammes(out, stream);
    writePids(out, stream);
    writeClocks(out, stream);
    if (findings.programmesLeftOut + findings.streamsLeftOut + findings.pidsLeftOut > 0)
        out("\nleft out: {}, {} of programmes, {}\n",
            counted(findings.programmesLeftOut, "programme"),
            counted(findings.streamsLeftOut, "stream"), counted(findings.pidsLeftOut, "PID"));
    return text;
}
