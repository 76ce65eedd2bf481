#include "Tr101290.h"

namespace ts {

void Tr101290::onPacket(const PacketFacts& packet) {
    if (packet.damaged) {
        alarms_.fail(Check::kTransport, packet.arrival, {"PID #", {packet.pid}});
        return;
    }
    if (packet.continuity == Continuity::kJump)
        alarms_.fail(Check::kContinuity, packet.arrival, {"PID #", {packet.pid}});
}

}  // namespace ts
