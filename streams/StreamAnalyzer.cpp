#include "StreamAnalyzer.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <cmath>

namespace {

double toSeconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

double toMilliseconds(uint64_t ticks) {
    return static_cast<double>(ticks) * 1e3 / static_cast<double>(kPcrHz);
}

}  // namespace

void StreamAnalyzer::PcrClock::begin(std::chrono::nanoseconds arrival) {
    if (samples_ > 0) {
        peakBefore_ = std::max(peakBefore_, largest_ - smallest_);
        squaresBefore_ += squares_ - sum_ * sum_ / static_cast<double>(samples_);
        samplesBefore_ += samples_;
    }
    start_ = arrival;
    ticks_ = 0;
    samples_ = 0;
    sum_ = squares_ = smallest_ = largest_ = 0.0;
}

void StreamAnalyzer::PcrClock::add(const Pcr& pcr, std::chrono::nanoseconds arrival) {
    const auto step = pcrStep(lastPcr_, pcr);
    if (count_ == 0 || !step) {
        discontinuities_ += count_ == 0 ? 0 : 1;
        begin(arrival);
    } else {
        ticks_ += *step;
        shortest_ = std::min(shortest_.value_or(*step), *step);
        longest_ = std::max(longest_, *step);
    }
    lastPcr_ = pcr.ticks;
    ++count_;
    const double offset = toSeconds(arrival - start_) * 1e3 - toMilliseconds(ticks_);
    ++samples_;
    sum_ += offset;
    squares_ += offset * offset;
    smallest_ = std::min(smallest_, offset);
    largest_ = std::max(largest_, offset);
}

PcrReport StreamAnalyzer::PcrClock::report(uint16_t pid) const {
    PcrClock whole = *this;
    whole.begin({});
    const double variance =
        std::max(0.0, whole.squaresBefore_) / static_cast<double>(whole.samplesBefore_);
    return {pid,
            count_,
            discontinuities_,
            toMilliseconds(shortest_.value_or(0)),
            toMilliseconds(longest_),
            whole.peakBefore_,
            std::sqrt(variance)};
}

StreamAnalyzer::StreamAnalyzer(StreamObserver* observer)
    : observer_(observer),
      tables_([this](uint16_t pid, std::span<const uint8_t> section, bool intact) {
          if (observer_ != nullptr)
              observer_->onSection(pid, section, intact, last_);
      }) {}

void StreamAnalyzer::feed(std::span<const uint8_t> bytes, std::chrono::nanoseconds arrival) {
    if (bytes.empty())
        return;
    bytes_ += bytes.size();
    if (!first_) {
        first_ = arrival;
        firstBytes_ = bytes.size();
    }
    last_ = arrival;
    splitter_.feed(bytes, [this, arrival](const uint8_t* packet) { addPacket(packet, arrival); });
}

StreamAnalyzer::Pid& StreamAnalyzer::find(uint16_t pid) {
    if (places_[pid] == 0) {
        pids_.push_back({pid});
        places_[pid] = static_cast<uint16_t>(pids_.size());
    }
    return pids_[places_[pid] - size_t{1}];
}

void StreamAnalyzer::addPacket(const uint8_t* packet, std::chrono::nanoseconds arrival) {
    if (packetSize_ != splitter_.packetSize()) {
        packetSize_ = splitter_.packetSize();
        rate_.emplace(packetSize_);
    }
    PacketFacts facts{.data = packet,
                      .pid = ts_get_pid(packet),
                      .position = position_,
                      .arrival = arrival,
                      .continuity = continuity_.add(packet),
                      .damaged = ts_get_transporterror(packet),
                      .scrambled = ts_get_scrambling(packet) != 0,
                      .pcr = readPcr(packet)};
    position_ += packetSize_;
    rate_->add(facts.pcr);
    if (facts.damaged) {
        ++transportErrors_;
    } else {
        Pid& statistics = find(facts.pid);
        ++statistics.packets;
        statistics.continuityErrors += facts.continuity == Continuity::kJump ? 1 : 0;
        statistics.scrambled += facts.scrambled ? 1 : 0;
        if (facts.pcr)
            clocks_[facts.pid].add(*facts.pcr, arrival);
        if (!facts.scrambled && facts.continuity != Continuity::kDuplicate)
            tables_.add(packet, facts.continuity);
    }
    if (observer_ != nullptr)
        observer_->onPacket(facts);
}

std::optional<uint64_t> StreamAnalyzer::arrivalBitrate() const {
    if (!first_ || last_ <= *first_)
        return std::nullopt;
    return static_cast<uint64_t>(
        std::llround(static_cast<double>(bytes_ - firstBytes_) * 8.0 / toSeconds(last_ - *first_)));
}

void StreamAnalyzer::describePids(StreamReport& report) const {
    std::map<uint16_t, PidReport> described;
    for (const Pid& statistics : pids_) {
        const uint16_t pid = statistics.pid;
        PidReport& entry = described[pid];
        const char* const name = reservedPidName(pid);
        entry.pid = pid;
        entry.kind = name != nullptr ? name : "other";
        entry.pcr = clocks_.contains(pid);
        entry.packets = statistics.packets;
        entry.scrambled = statistics.scrambled;
        entry.continuityErrors = statistics.continuityErrors;
        if (report.arrivalBitrate_bps)
            entry.bitrate_bps = static_cast<uint64_t>(std::llround(
                static_cast<double>(*report.arrivalBitrate_bps) *
                static_cast<double>(statistics.packets) / static_cast<double>(report.packets)));
    }
    // A PID that no packet has come with stands with its programme only.
    for (const auto& [number, programme] : tables_.programmes()) {
        if (const auto pmt = described.find(programme.pmtPid); pmt != described.end()) {
            pmt->second.kind = "PMT";
            pmt->second.programmes.push_back(number);
        }
        for (const ElementaryStream& stream : programme.streams) {
            const auto found = described.find(stream.pid);
            if (found == described.end())
                continue;
            found->second.kind = stream.kind;
            found->second.codec = stream.codec;
            found->second.language = stream.language;
            found->second.programmes.push_back(number);
        }
        if (programme.pcrPid) {
            const auto clock = described.find(*programme.pcrPid);
            if (clock != described.end() && clock->second.kind == "other")
                clock->second.kind = "PCR";
        }
    }
    for (auto& [pid, entry] : described)
        report.pids.push_back(std::move(entry));
}

StreamReport StreamAnalyzer::report() const {
    StreamReport report;
    report.packetSize = packetSize_;
    report.bytes = bytes_;
    report.packets = splitter_.packets();
    report.time = first_ ? last_ - *first_ : std::chrono::nanoseconds(0);
    report.arrivalBitrate_bps = arrivalBitrate();
    report.pcrBitrate_bps = pcrBitrate();
    report.transportStreamId = tables_.transportStreamId();
    report.syncLosses = splitter_.syncLosses();
    report.transportErrors = transportErrors_;
    report.sectionErrors = tables_.damagedSections();
    report.continuityErrors = continuity_.errors();
    describePids(report);
    for (const auto& [pid, clock] : clocks_)
        report.pcrs.push_back(clock.report(pid));
    for (const auto& [number, programme] : tables_.programmes()) {
        const auto service = tables_.services().find(number);
        report.programmes.push_back(
            {number, programme.pmtPid, programme.pcrPid,
             service == tables_.services().end() ? std::nullopt : std::optional(service->second),
             programme.streams});
    }
    return report;
}
