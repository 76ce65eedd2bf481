#include "Alarms.h"

#include <charconv>
#include <utility>

namespace ts {

namespace {

constexpr size_t kMostEvents = 256;

constexpr CheckInfo kInfo[kChecks] = {
    {"no_signal", "", "No datagrams arrive", 0},
    {"ts_sync_loss", "1.1", "Synchronisation is lost", 1},
    {"sync_byte_error", "1.2", "A sync byte is wrong", 1},
    {"pat_error", "1.3.a", "The PAT is missing, late, scrambled or replaced", 1},
    {"continuity_count_error", "1.4", "Packets are lost, repeated or out of order", 1},
    {"pmt_error", "1.5.a", "A PMT is missing, late or scrambled", 1},
    {"pid_error", "1.6", "A PID that a PMT refers to is missing", 1},
    {"transport_error", "2.1", "A packet is marked as damaged", 2},
    {"crc_error", "2.2", "A section is damaged", 2},
    {"pcr_repetition_error", "2.3a", "PCRs come too seldom", 2},
    {"pcr_discontinuity_error", "2.3b", "A PCR jumps without announcement", 2},
    {"pcr_accuracy_error", "2.4", "A PCR does not fit its place in the stream", 2},
    {"pts_error", "2.5", "PTSs come too seldom", 2},
    {"cat_error", "2.6", "Packets are scrambled without a CAT, or the CAT is replaced", 2},
    {"si_repetition_error", "3.2", "Service information comes too seldom or too often", 3},
    {"unreferenced_pid", "3.4.a", "A PID is in no table", 3},
    {"rtp_loss", "", "RTP datagrams are lost", 0},
    {"second_sender", "", "Two senders send to the same address", 0},
    {"datagram_size", "", "A datagram is not made of whole packets", 0},
    {"delay_factor", "", "Datagrams come too unevenly", 0},
    {"media_loss", "", "Packets are lost on the way", 0},
    {"socket_drops", "", "The monitor itself was too slow", 0},
};

}  // namespace

const CheckInfo& info(Check check) {
    return kInfo[static_cast<size_t>(check)];
}

std::string Detail::toText() const {
    std::string made;
    const int64_t* next = numbers;
    for (const char* c = text; *c != '\0'; ++c) {
        const bool hexadecimal = *c == '@';
        if ((hexadecimal || *c == '#') && next != std::end(numbers)) {
            char digits[20];
            const auto end =
                std::to_chars(digits, std::end(digits), *next++, hexadecimal ? 16 : 10);
            made += (hexadecimal ? "0x" : "") + std::string(digits, end.ptr);
        } else if (*c == '~') {
            made += next != numbers && next[-1] == 1 ? "" : "s";
        } else {
            made += *c;
        }
    }
    return made;
}

void Alarms::fail(Check check, Time time, const Detail& detail, uint64_t count) {
    Alarm& alarm = alarms_[static_cast<size_t>(check)];
    if (alarm.count == 0)
        alarm.first = time;
    alarm.count += count;
    alarm.detail = detail;
    keepUp(check, time);
}

void Alarms::last(Check check, Time time) {
    if (alarms_[static_cast<size_t>(check)].since)
        keepUp(check, time);
}

void Alarms::keepUp(Check check, Time time) {
    Alarm& alarm = alarms_[static_cast<size_t>(check)];
    alarm.last = time;
    if (!alarm.since)
        alarm.since = time;
    if (!alarm.raised && time - *alarm.since >= limits_.raiseAfter &&
        !limits_.ignored[static_cast<size_t>(check)]) {
        alarm.raised = true;
        tell(check, true, time);
    }
}

void Alarms::tick(Time now) {
    for (size_t i = 0; i < kChecks; ++i) {
        Alarm& alarm = alarms_[i];
        if (!alarm.since || now - alarm.last < limits_.clearAfter)
            continue;
        alarm.since.reset();
        if (std::exchange(alarm.raised, false))
            tell(static_cast<Check>(i), false, now);
    }
}

void Alarms::tell(Check check, bool raised, Time time) {
    if (events_.size() == kMostEvents)
        events_.erase(events_.begin());
    events_.push_back({check, raised, time, alarms_[static_cast<size_t>(check)].detail.toText()});
}

std::vector<AlarmEvent> Alarms::takeEvents() {
    return std::exchange(events_, {});
}

CheckState Alarms::state(Check check) const {
    const Alarm& alarm = alarms_[static_cast<size_t>(check)];
    if (alarm.count == 0)
        return {};
    return {alarm.count, alarm.first, alarm.last, alarm.raised, alarm.detail.toText()};
}

}  // namespace ts
