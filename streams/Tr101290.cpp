#include "Tr101290.h"

#include <bitstream/dvb/si.h>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/psi.h>
#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace ts {

namespace {

constexpr Time kSecondOf = std::chrono::seconds(1);
constexpr Time kResync = std::chrono::milliseconds(500);  // after more, the stream begins anew
constexpr uint16_t kFirstFreePid = 0x20;   // those below are reserved for service information
constexpr uint16_t kAtscBasePid = 0x1FFB;  // stands in no table, as those below 0x20
constexpr size_t kMostClocks = 64;
constexpr size_t kMostSections = 1024;
constexpr uint64_t kTicksPerMillisecond = kPcrHz / 1000;

uint64_t toTicks(Time time) {
    return static_cast<uint64_t>(time.count()) * 27 / 1000;
}

int64_t milliseconds(Time time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

// What exceeds 100 ms is 101 ms, as there are no fractions.
int64_t roundedUp(uint64_t ticks) {
    return static_cast<int64_t>((ticks + kTicksPerMillisecond - 1) / kTicksPerMillisecond);
}

bool beginsWithPts(const uint8_t* packet) {
    const auto payload = packetPayload(packet);
    return ts_get_unitstart(packet) && payload.size() >= PES_HEADER_SIZE_NOPTS &&
           pes_validate(payload.data()) && pes_validate_header(payload.data()) &&
           pes_has_pts(payload.data());
}

}  // namespace

bool Tr101290::Repetition::isLate(Time now, Time limit) {
    if (now - since <= limit)
        return false;
    since = now;
    return true;
}

// For what comes first: it is late when both the limit and the grace are over.
Time Tr101290::firstDue(Time now, Time limit) const {
    const Time grace = begun_ ? *begun_ + limits_.grace - now : Time(0);
    return now + std::max(Time(0), grace - limit);
}

void Tr101290::failAt(Check check, Time time, const char* text, uint16_t pid, Time length) {
    alarms_.fail(check, time, {text, {pid, milliseconds(length)}});
}

Tr101290::Pid& Tr101290::find(uint16_t pid) {
    if (places_[pid] == 0) {
        pids_.emplace_back().pid = pid;
        places_[pid] = static_cast<uint16_t>(pids_.size());
    }
    return pids_[places_[pid] - size_t{1}];
}

void Tr101290::begin(Time now) {
    begun_ = now;
    pat_.since = firstDue(now, limits_.pat);
    cat_.since = firstDue(now, limits_.cat);
    scrambled_.reset();
    for (int table = 0; table < kTables; ++table)
        tables_[static_cast<size_t>(table)] = {false, {firstDue(now, limitOf(table))}};
    sections_.clear();
    clocks_.clear();
    pids_.clear();
    places_.fill(0);
    readReferences(now);
}

void Tr101290::readReferences(Time now) {
    const PsiTables& tables = stream_.tables();
    references_ = tables.changes();
    complete_ = tables.transportStreamId().has_value();
    const auto before = pids_;
    for (Pid& pid : pids_)
        pid.referenced = pid.pmt = pid.regular = pid.timed = pid.clocked = false;
    find(tables.networkPid()).referenced = true;
    for (const uint16_t pid : tables.accessPids())
        find(pid).referenced = true;
    for (const auto& [number, programme] : tables.programmes()) {
        complete_ = complete_ && programme.described;
        Pid& pmt = find(programme.pmtPid);
        pmt.referenced = pmt.pmt = true;
        for (const uint16_t pid : programme.accessPids)
            find(pid).referenced = true;
        for (const ElementaryStream& stream : programme.streams) {
            Pid& pid = find(stream.pid);
            pid.referenced = true;
            const std::string_view kind = stream.kind;
            const bool media = kind == "video" || kind == "audio";
            pid.timed = pid.timed || media;
            pid.regular = pid.regular || (media && !stream.additional);
        }
        if (programme.pcrPid) {
            Pid& pid = find(*programme.pcrPid);
            pid.referenced = pid.regular = pid.clocked = true;
        }
    }
    for (size_t i = 0; i < pids_.size(); ++i) {
        Pid& pid = pids_[i];
        const Pid was = i < before.size() ? before[i] : Pid{};
        if (pid.regular && !was.regular)
            pid.packets.since = firstDue(now, limits_.pid);
        if (pid.clocked && !was.clocked)
            pid.pcrs.since = firstDue(now, kSecondOf);
        if (pid.pmt != was.pmt || pid.timed != was.timed || pid.referenced != was.referenced)
            pid.contents.since = firstDue(now, pid.pmt ? limits_.pmt : limits_.pts);
    }
}

void Tr101290::cut() {
    for (Clock& clock : clocks_)
        clock.accuracy.cut();
}

void Tr101290::onPacket(const PacketFacts& packet) {
    if (!begun_)
        begin(packet.arrival);
    if (stream_.splitter().syncLosses() != syncLosses_)
        checkSync(packet.arrival);
    if (packet.damaged) {
        alarms_.fail(Check::kTransport, packet.arrival, {"PID #", {packet.pid}});
        cut();
        return;
    }
    nulls_ += packet.pid == kNullPid ? 1 : 0;
    if (places_[packet.pid] == 0)
        find(packet.pid).contents.since = firstDue(packet.arrival, limits_.unreferenced);
    Pid& pid = find(packet.pid);
    const uint8_t counter = ts_get_cc(packet.data);
    if (packet.continuity != Continuity::kInOrder) {
        cut();
        if (packet.continuity == Continuity::kJump)
            alarms_.fail(Check::kContinuity, packet.arrival,
                         {"PID #: counter # after #", {packet.pid, counter, pid.counter}});
    }
    pid.counter = counter;
    pid.seen = packet.arrival;
    pid.unreadable = packet.scrambled;
    if (packet.scrambled)
        checkScrambling(pid, packet.arrival);
    if (pid.timed)
        checkPts(pid, packet);
    if (packet.pcr)
        checkPcr(pid, packet);
}

void Tr101290::checkScrambling(const Pid& pid, Time arrival) {
    scrambled_ = arrival;
    if (pid.pid == PAT_PID)
        alarms_.fail(Check::kPat, arrival, {"scrambled"});
    if (pid.pmt)
        alarms_.fail(Check::kPmt, arrival, {"PID #: scrambled", {pid.pid}});
}

void Tr101290::checkPts(Pid& pid, const PacketFacts& packet) {
    if (packet.scrambled) {
        pid.contents.since = packet.arrival;
        return;
    }
    if (!beginsWithPts(packet.data))
        return;
    const Time since = pid.contents.since;
    if (pid.contents.isLate(packet.arrival, limits_.pts + limits_.tolerance))
        failAt(Check::kPts, packet.arrival, "PID #: # ms without a PTS", pid.pid,
               packet.arrival - since);
    pid.contents.since = std::max(pid.contents.since, packet.arrival);
}

void Tr101290::checkPcr(Pid& pid, const PacketFacts& packet) {
    const Pcr& pcr = *packet.pcr;
    pid.pcrs.since = packet.arrival;
    if (pid.clock == 0) {
        if (clocks_.size() == kMostClocks)
            return;
        clocks_.push_back({pcr, packet.arrival, PcrAccuracy(limits_.pcrAccuracy)});
        pid.clock = clocks_.size();
    }
    Clock& clock = clocks_[pid.clock - 1];
    const uint64_t ticks = (pcr.ticks + kPcrModulus - clock.last.ticks) % kPcrModulus;
    const bool jumps = ticks > toTicks(limits_.pcrJump);
    if (pcr.discontinuous || jumps)
        clock.accuracy.cut();
    if (!pcr.discontinuous) {
        // A PCR that is far from the last one in value alone has jumped; one that also came late
        // was not sent in time.
        const Time passed = packet.arrival - clock.arrival;
        if (ticks > toTicks(limits_.pcrRepetition) && ticks <= kPcrHz &&
            passed > limits_.pcrRepetition / 2)
            alarms_.fail(Check::kPcrRepetition, packet.arrival,
                         {"PID #: # ms between PCRs", {pid.pid, roundedUp(ticks)}});
        if (jumps) {
            const auto step = static_cast<int64_t>(ticks) -
                              static_cast<int64_t>(ticks > kPcrModulus / 2 ? kPcrModulus : 0);
            alarms_.fail(Check::kPcrDiscontinuity, packet.arrival,
                         {"PID #: the PCR steps by # ms",
                          {pid.pid, step / static_cast<int64_t>(kTicksPerMillisecond)}});
        }
    }
    clock.last = pcr;
    clock.arrival = packet.arrival;
    if (const auto verdict = clock.accuracy.add(ticks, packet.position, nulls_)) {
        pcrs_ = {verdict->constantRate, verdict->worst};
        if (verdict->wrong > 0)
            alarms_.fail(Check::kPcrAccuracy, packet.arrival,
                         {"PID #: off by # ns", {pid.pid, verdict->worst.count()}}, verdict->wrong);
    }
}

void Tr101290::onSection(uint16_t pid, std::span<const uint8_t> section, bool intact,
                         Time arrival) {
    if (!begun_)
        begin(arrival);
    const uint8_t table = psi_get_tableid(section.data());
    if (!intact)
        alarms_.fail(Check::kCrc, arrival, {"PID #, table @", {pid, table}});
    if (pid == PAT_PID && table != PAT_TABLE_ID)
        alarms_.fail(Check::kPat, arrival, {"table @ on PID 0", {table}});
    if (pid == CAT_PID && table != CAT_TABLE_ID)
        alarms_.fail(Check::kCat, arrival, {"table @ on PID 1", {table}});
    if (!intact)
        return;
    if (pid == PAT_PID && table == PAT_TABLE_ID) {
        const Time since = pat_.since;
        if (pat_.isLate(arrival, limits_.pat + limits_.tolerance))
            alarms_.fail(Check::kPat, arrival,
                         {"# ms without a PAT", {milliseconds(arrival - since)}});
        pat_.since = std::max(pat_.since, arrival);
    } else if (pid == CAT_PID && table == CAT_TABLE_ID) {
        cat_.since = std::max(cat_.since, arrival);
    } else if (table == PMT_TABLE_ID) {
        Pid& found = find(pid);
        const Time since = found.contents.since;
        if (found.pmt && found.contents.isLate(arrival, limits_.pmt + limits_.tolerance))
            failAt(Check::kPmt, arrival, "PID #: # ms without a PMT", pid, arrival - since);
        found.contents.since = std::max(found.contents.since, arrival);
    } else {
        checkTable(pid, section, arrival);
    }
}

Time Tr101290::limitOf(int table) const {
    switch (table) {
        case kNit:
            return limits_.nit;
        case kSdt:
            return limits_.sdt;
        case kTdt:
            return limits_.tdt;
        default:
            return limits_.eit;
    }
}

void Tr101290::checkTable(uint16_t pid, std::span<const uint8_t> section, Time arrival) {
    const uint8_t id = psi_get_tableid(section.data());
    int table = kTables;
    if (id == NIT_TABLE_ID_ACTUAL && pid == stream_.tables().networkPid())
        table = kNit;
    else if (id == SDT_TABLE_ID_ACTUAL && pid == SDT_PID)
        table = kSdt;
    else if (id == EIT_TABLE_ID_PF_ACTUAL && pid == EIT_PID)
        table = psi_get_section(section.data()) == 0 ? kEitPresent : kEitFollowing;
    else if (id == TDT_TABLE_ID && pid == TDT_PID)
        table = kTdt;
    if (table == kTables || limitOf(table) == Time(0))
        return;
    Table& found = tables_[static_cast<size_t>(table)];
    const Time since = found.sections.since;
    if (found.seen && found.sections.isLate(arrival, limitOf(table) + limits_.tolerance))
        alarms_.fail(Check::kSiRepetition, arrival,
                     {"table @: missing for # ms", {id, milliseconds(arrival - since)}});
    found = {true, {arrival}};
    checkGap(section, id == TDT_TABLE_ID ? 0 : psi_get_tableidext(section.data()), arrival);
}

// Datagrams may come in bursts, so the gap is also measured by the bytes in between.
void Tr101290::checkGap(std::span<const uint8_t> section, uint16_t extension, Time arrival) {
    const uint8_t id = psi_get_tableid(section.data());
    if (sections_.size() == kMostSections)
        sections_.clear();
    const LastSection now{arrival, stream_.packetBytes()};
    const auto [found, isNew] = sections_.try_emplace(uint32_t{id} << 16 | extension, now);
    const LastSection before = std::exchange(found->second, now);
    const auto rate_bps = stream_.pcrBitrate();
    if (isNew || arrival - before.arrival >= limits_.sectionGap || !rate_bps || *rate_bps == 0)
        return;
    const double bits = static_cast<double>(now.position - before.position) * 8.0;
    const Time gap(static_cast<int64_t>(bits * 1e9 / static_cast<double>(*rate_bps)));
    if (gap < limits_.sectionGap)
        alarms_.fail(Check::kSiRepetition, arrival,
                     {"table @: again after # ms", {id, milliseconds(gap)}});
}

void Tr101290::checkSync(Time now) {
    const PacketSplitter& splitter = stream_.splitter();
    if (const uint64_t more = splitter.syncByteErrors() - syncByteErrors_) {
        syncByteErrors_ += more;
        alarms_.fail(Check::kSyncByte, now, {"# wrong byte~", {static_cast<int64_t>(more)}}, more);
    }
    if (const uint64_t more = splitter.syncLosses() - syncLosses_) {
        syncLosses_ += more;
        alarms_.fail(Check::kSyncLoss, now, {"two wrong sync bytes in a row"}, more);
        cut();
    }
    if (splitter.packetSize() != 0) {
        unsynchronised_.reset();
    } else if (!unsynchronised_) {
        unsynchronised_ = now;
    } else if (now - *unsynchronised_ > kResync) {
        begun_.reset();
        if (!alarms_.isFailing(Check::kSyncLoss))
            alarms_.fail(Check::kSyncLoss, now, {"no packets"});
        alarms_.last(Check::kSyncLoss, now);
    }
}

void Tr101290::tick(Time now) {
    checkSync(now);
    if (!begun_ || unsynchronised_)
        return;
    // Not with each change: a hostile stream changes its largest tables with every packet.
    if (stream_.tables().changes() != references_)
        readReferences(now);
    Time since = pat_.since;
    if (pat_.isLate(now, limits_.pat + limits_.tolerance))
        alarms_.fail(Check::kPat, now, {"# ms without a PAT", {milliseconds(now - since)}});
    if (!scrambled_ || now - *scrambled_ > kSecondOf)
        cat_.since = std::max(cat_.since, now);
    if (cat_.isLate(now, limits_.cat))
        alarms_.fail(Check::kCat, now, {"packets are scrambled, and there is no CAT"});
    constexpr uint8_t kIds[] = {NIT_TABLE_ID_ACTUAL, SDT_TABLE_ID_ACTUAL, EIT_TABLE_ID_PF_ACTUAL,
                                EIT_TABLE_ID_PF_ACTUAL, TDT_TABLE_ID};
    for (int i = 0; i < kTables; ++i) {
        Table& table = tables_[static_cast<size_t>(i)];
        since = table.sections.since;
        if ((table.seen || limits_.tablesRequired) && limitOf(i) != Time(0) &&
            table.sections.isLate(now, limitOf(i) + limits_.tolerance))
            alarms_.fail(Check::kSiRepetition, now,
                         {"table @: missing for # ms", {kIds[i], milliseconds(now - since)}});
    }
    for (Pid& pid : pids_)
        lookForMissing(pid, now);
}

void Tr101290::lookForMissing(Pid& pid, Time now) {
    if (pid.regular) {
        pid.packets.since = std::max(pid.packets.since, pid.seen);
        const Time since = pid.packets.since;
        if (pid.packets.isLate(now, limits_.pid))
            failAt(Check::kPid, now, "PID #: missing for # ms", pid.pid, now - since);
    }
    const Time pcrs = pid.pcrs.since;
    if (pid.clocked && pid.pcrs.isLate(now, kSecondOf))
        failAt(Check::kPcrRepetition, now, "PID #: # ms without a PCR", pid.pid, now - pcrs);
    const Time since = pid.contents.since;
    if (pid.pmt) {
        if (pid.contents.isLate(now, limits_.pmt + limits_.tolerance))
            failAt(Check::kPmt, now, "PID #: # ms without a PMT", pid.pid, now - since);
    } else if (pid.timed) {
        if (!pid.unreadable && pid.seen > since &&
            pid.contents.isLate(now, limits_.pts + limits_.tolerance))
            failAt(Check::kPts, now, "PID #: # ms without a PTS", pid.pid, now - since);
    } else if (!pid.referenced && pid.pid >= kFirstFreePid && pid.pid != kNullPid &&
               pid.pid != kAtscBasePid) {
        if (!complete_ || now - pid.seen > kSecondOf)
            pid.contents.since = std::max(since, now);
        else if (pid.seen - since > limits_.unreferenced && pid.contents.isLate(now, Time(0)))
            failAt(Check::kUnreferencedPid, now, "PID #", pid.pid, Time(0));
    }
}

}  // namespace ts
