#include "reports/ProbeReport.h"

#include <algorithm>
#include <utility>

namespace {

// Returns how many elements are gone.
template <typename T>
size_t cut(std::vector<T>& list, size_t most) {
    const size_t kept = std::min(list.size(), most);
    const size_t gone = list.size() - kept;
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(kept), list.end());
    return gone;
}

}  // namespace

ProbeReport::ProbeReport(Arrival its, StreamReport found)
    : arrival(std::move(its)), stream(std::move(found)) {
    programmesLeftOut = cut(stream.programmes, kMostProgrammes);
    size_t room = kMostStreams;
    for (ProgrammeReport& programme : stream.programmes) {
        streamsLeftOut += cut(programme.streams, room);
        room -= programme.streams.size();
    }
    pidsLeftOut = cut(stream.pids, kMostPids);
    cut(stream.pcrs, kMostPids);  // of the PIDs' number at most
    room = kMostStreams;
    for (PidReport& pid : stream.pids) {
        cut(pid.programmes, room);
        room -= pid.programmes.size();
    }
}
