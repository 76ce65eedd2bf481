#include "engine/RepairedInput.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "base/Quantity.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kQueueBytes = size_t{4} * 1024 * 1024;
constexpr auto kPathGrace = 3s;    // until a path that has no socket is reported
constexpr auto kPathSilence = 1s;  // until one that brings nothing is
constexpr auto kMeasureInterval = 1s;
constexpr auto kReportInterval = 10s;

}  // namespace

RepairedInput::RepairedInput(const std::vector<StreamUrl>& paths, SocketMeans& means)
    : reorderer_({.window = reorderWindow(paths)}),
      sink_([this](const ts::Reorderer::Delivery& delivery) { store(delivery); }),
      queue_(kQueueBytes) {
    for (const StreamUrl& path : paths)
        paths_.emplace_back(path, means);
}

StreamInput::Clock::time_point RepairedInput::attend(Clock::time_point now) {
    takeAll(now);
    auto next = Clock::time_point::max();
    for (const Path& path : paths_)
        next = std::min(next, path.due);
    // While more waits in a socket, its time has not come.
    if (next > now) {
        last_ = std::max(last_, ts::Time(now.time_since_epoch()));
        reorderer_.release(last_, sink_);
    }
    if (const auto due = reorderer_.next())
        next = std::min(next, Clock::time_point(*due));
    if (paths_.size() > 1)
        watchPaths(now);
    watchDrops(now);
    measure(now);
    return next;
}

// Of several paths, in the order in which the datagrams came.
void RepairedInput::takeAll(Clock::time_point now) {
    const bool several = paths_.size() > 1;
    size_t number = 0;
    for (Path& path : paths_) {
        path.socket.attend(now);
        path.due = path.socket.take(now, [&](const ts::Datagram& datagram) {
            path.last = datagram.arrival;
            if (!several)
                return push(datagram.payload, datagram.arrival, 0);
            staged_.push_back(
                {datagram.arrival, number, stagedBytes_.size(), datagram.payload.size()});
            stagedBytes_.insert(stagedBytes_.end(), datagram.payload.begin(),
                                datagram.payload.end());
        });
        socketDrops_ += path.socket.takeDropped();
        ++number;
    }
    std::stable_sort(staged_.begin(), staged_.end(),
                     [](const Staged& a, const Staged& b) { return a.arrival < b.arrival; });
    for (const Staged& staged : staged_)
        push(std::span(stagedBytes_).subspan(staged.offset, staged.length), staged.arrival,
             staged.path);
    staged_.clear();
    stagedBytes_.clear();
}

void RepairedInput::push(std::span<const uint8_t> datagram, ts::Time arrival, size_t path) {
    last_ = std::max(last_, arrival);
    reorderer_.push(datagram, last_, path, sink_);
}

void RepairedInput::store(const ts::Reorderer::Delivery& delivery) {
    rtp_ = delivery.rtp;
    if (!queue_.put(delivery.payload)) {
        ++overruns_;
        return;
    }
    ++stored_;
    bytes_ += delivery.payload.size();
}

void RepairedInput::finish() {
    reorderer_.finish(sink_);
}

bool RepairedInput::isOpen() const {
    return std::any_of(paths_.begin(), paths_.end(),
                       [](const Path& path) { return path.socket.isOpen(); });
}

std::string RepairedInput::trouble() const {
    return paths_.front().socket.trouble();
}

void RepairedInput::watchPaths(Clock::time_point now) {
    const bool anyOpen = isOpen();
    ts::Time newest{0};
    for (const Path& path : paths_)
        newest = std::max(newest, path.last);
    for (Path& path : paths_) {
        const std::string& url = path.socket.url().text;
        if (!path.socket.isOpen()) {
            path.listens = now.time_since_epoch();
            if (anyOpen && now - path.socketSeen > kPathGrace &&
                !std::exchange(path.socketReported, true))
                events_.push_back(path.socket.sentence() + " Trying again.");
            continue;
        }
        path.socketSeen = now;
        if (std::exchange(path.socketReported, false))
            events_.push_back(fmt::format("{} is received again", url));
        // After a pause of all paths, one of them is the first.
        const ts::Time heard = std::max(path.last, path.listens);
        if (heard >= path.behind)
            path.behind = std::max(heard, newest);
        const bool silent = newest - path.behind > kPathSilence;
        if (std::exchange(path.silenceReported, silent) == silent)
            continue;
        events_.push_back(silent ? fmt::format("nothing arrives from {}{}; another path brings the "
                                               "stream",
                                               url, path.last == ts::Time(0) ? " yet" : " any more")
                                 : fmt::format("{} brings the stream again", url));
    }
}

void RepairedInput::watchDrops(Clock::time_point now) {
    if (socketDrops_ == dropsReported_ || now < nextReport_)
        return;
    nextReport_ = now + kReportInterval;
    events_.push_back(fmt::format("this machine dropped {} from {}: the socket's buffer was full",
                                  counted(socketDrops_ - dropsReported_, "datagram"),
                                  paths_.front().socket.url().text));
    dropsReported_ = socketDrops_;
}

void RepairedInput::measure(Clock::time_point now) {
    const std::chrono::duration<double> elapsed = now - measured_;
    if (elapsed < kMeasureInterval)
        return;
    const auto bits = static_cast<double>(bytes_ - std::exchange(bytesMeasured_, bytes_)) * 8.0;
    bitrate_bps_ = static_cast<uint32_t>(std::min(bits / elapsed.count(), 4294967295.0));
    measured_ = now;
}

QXV_RTP_Statistics RepairedInput::statistics() const {
    QXV_RTP_Statistics statistics{};
    statistics.Size = sizeof statistics;
    statistics.Started = 1;
    statistics.SocketOpen = isOpen() ? 1 : 0;
    statistics.BufferedBytes = static_cast<uint32_t>(queue_.size());
    statistics.FreeBytes = static_cast<uint32_t>(queue_.room());
    statistics.Datagrams = stored_;
    statistics.Bytes = bytes_;
    statistics.DatagramsDropped = overruns_;
    return statistics;
}

std::optional<RepairReport> RepairedInput::repairs() const {
    RepairReport report{reorderer_.counts(), reorderer_.window(), socketDrops_, {}};
    for (size_t i = 0; const Path& path : paths_)
        report.paths.emplace_back(path.socket.url().text, reorderer_.path(i++, last_));
    return report;
}
