#include "reports/StreamFindings.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "base/Quantity.h"

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

StreamFindings::StreamFindings(FindingsPlace its, ts::MonitorReport found)
    : place(std::move(its)), report(std::move(found)) {
    StreamReport& stream = report.stream;
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

bool StreamFindings::isRtp() const {
    const ts::ReceptionCounts& counts = report.reception.counts;
    return counts.rtpDatagrams * 2 > counts.datagrams;
}

std::string sourceText(const ts::DatagramSource& source) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(source.ipv6 ? AF_INET6 : AF_INET, source.address.data(), text, sizeof text);
    return fmt::format("{}{}{}:{}", source.ipv6 ? "[" : "", text, source.ipv6 ? "]" : "",
                       source.port);
}

std::string isoTime(ts::Time sinceEpoch) {
    const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(sinceEpoch).count();
    constexpr int64_t kPerSecond = 1000;
    const auto seconds = static_cast<time_t>(milliseconds / kPerSecond);
    return fmt::format("{}.{:03}Z", utcTimeText(seconds, "%FT%T"), milliseconds % kPerSecond);
}
