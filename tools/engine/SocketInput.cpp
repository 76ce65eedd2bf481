#include "engine/SocketInput.h"

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
constexpr auto kFecGrace = 5s;  // until FEC that does not come is reported
constexpr auto kNumbersInterval = 3s;
constexpr uint64_t kEnoughDatagrams = 50;  // in that time, to tell whether their numbers make sense
constexpr double kMostRefused = 0.85;
// A piece of a raw stream may look like RTP. So many in a row are.
constexpr int kOtherForm = 4;

}  // namespace

SocketInput::SocketInput(const std::vector<StreamUrl>& paths, SocketMeans& means)
    : longestWait_(longestWait(paths)),
      sink_([this](const ts::Reorderer::Delivery& delivery) { store(delivery); }),
      queue_(kQueueBytes) {
    if (isRepaired(paths))
        reorderer_.emplace(ts::Reorderer::Options{.window = reorderWindow(paths)});
    for (const StreamUrl& path : paths)
        paths_.emplace_back(path, means);
}

StreamInput::Clock::time_point SocketInput::attend(Clock::time_point now) {
    auto next = takeAll(now);
    watchDrops(now);
    measure(now);
    if (!reorderer_)
        return next;
    // While more waits in a socket, its time has not come.
    if (next > now) {
        last_ = std::max(last_, ts::Time(now.time_since_epoch()));
        reorderer_->release(last_, sink_);
    }
    if (const auto due = reorderer_->next())
        next = std::min(next, Clock::time_point(*due));
    if (paths_.size() > 1)
        watchPaths(now);
    watchFec(now);
    watchNumbers(now);
    return next;
}

// Returns when more is to be taken.
StreamInput::Clock::time_point SocketInput::takeAll(Clock::time_point now) {
    auto next = Clock::time_point::max();
    size_t number = 0;
    for (Path& path : paths_) {
        const bool alone = paths_.size() == 1 && !path.fec;
        path.socket.attend(now);
        next = std::min(next, path.socket.take(now, [&](const ts::Datagram& datagram) {
            if (!reorderer_)
                return takeAsItComes(datagram.payload);
            path.last = datagram.arrival;
            if (!alone)
                return stage(datagram, path, number, false);
            last_ = std::max(last_, datagram.arrival);
            reorderer_->push(datagram.payload, last_, 0, sink_);
        }));
        socketDrops_ += path.socket.takeDropped();
        for (size_t i = 0; path.fec && i < path.fec->sockets.size(); ++i) {
            StreamSocket& socket = path.fec->sockets[i];
            socket.attend(now);
            next = std::min(next, socket.take(now, [&](const ts::Datagram& datagram) {
                stage(datagram, path, number, true);
            }));
            socketDrops_ += socket.takeDropped();
        }
        ++number;
    }
    pushStaged();
    return next;
}

void SocketInput::stage(const ts::Datagram& datagram, Path& path, size_t number, bool isFec) {
    staged_.push_back(
        {datagram.arrival, number, &path, isFec, stagedBytes_.size(), datagram.payload.size()});
    stagedBytes_.insert(stagedBytes_.end(), datagram.payload.begin(), datagram.payload.end());
}

// What came to several sockets, in the order in which it came.
void SocketInput::pushStaged() {
    std::stable_sort(staged_.begin(), staged_.end(),
                     [](const Staged& a, const Staged& b) { return a.arrival < b.arrival; });
    const auto restored = [this](std::span<const uint8_t> datagram) {
        reorderer_->push(datagram, last_, ts::Reorderer::kRepaired, sink_);
    };
    for (const Staged& staged : staged_) {
        const auto datagram = std::span(stagedBytes_).subspan(staged.offset, staged.length);
        last_ = std::max(last_, staged.arrival);
        if (!staged.isFec)
            reorderer_->push(datagram, last_, staged.path, sink_);
        if (!staged.from->fec)
            continue;
        if (staged.isFec)
            staged.from->fec->decoder.pushFec(datagram, last_, restored);
        else
            staged.from->fec->decoder.pushMedia(datagram, last_, restored);
    }
    staged_.clear();
    stagedBytes_.clear();
}

void SocketInput::takeAsItComes(std::span<const uint8_t> datagram) {
    const auto rtp = ts::readRtp(datagram);
    ofOtherForm_ = rtp.has_value() == rtp_ ? 0 : ofOtherForm_ + 1;
    const bool isRtp = ofOtherForm_ == kOtherForm ? !rtp_ : rtp_;
    store({.payload = rtp && isRtp ? rtp->payload : datagram, .arrival = {}, .rtp = isRtp});
}

void SocketInput::store(const ts::Reorderer::Delivery& delivery) {
    rtp_ = delivery.rtp;
    if (!queue_.put(delivery.payload)) {
        ++overruns_;
        return;
    }
    ++stored_;
    bytes_ += delivery.payload.size();
}

void SocketInput::finish() {
    if (reorderer_)
        reorderer_->finish(sink_);
}

bool SocketInput::isOpen() const {
    return std::any_of(paths_.begin(), paths_.end(),
                       [](const Path& path) { return path.socket.isOpen(); });
}

std::string SocketInput::trouble() const {
    return paths_.front().socket.trouble();
}

void SocketInput::watchPaths(Clock::time_point now) {
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

void SocketInput::watchFec(Clock::time_point now) {
    ts::Time wait{-1};
    for (const Path& path : paths_) {
        if (!path.fec)
            continue;
        Fec& fec = *path.fec;
        if (path.last != ts::Time(0) && !fec.since)
            fec.since = now;
        // How long it takes does not show before the end of a matrix.
        const bool begins = !fec.since || now - *fec.since < kFecGrace;
        wait = std::max(wait, begins ? longestWait_ : fec.decoder.wait(last_));
        if (begins || fec.decoder.counts().received > 0 || std::exchange(fec.absenceReported, true))
            continue;
        for (const StreamSocket& socket : fec.sockets)
            if (!socket.isOpen())
                events_.push_back(socket.sentence());
        events_.push_back(
            fmt::format("no FEC arrives for {}; it is expected two and four ports "
                        "above that of the stream",
                        path.socket.url().text));
    }
    if (wait >= ts::Time(0))
        reorderer_->allowFor(std::min(wait, longestWait_));
}

void SocketInput::watchDrops(Clock::time_point now) {
    if (socketDrops_ == dropsReported_ || now < nextReport_)
        return;
    nextReport_ = now + kReportInterval;
    events_.push_back(fmt::format("this machine dropped {} from {}: the socket's buffer was full",
                                  counted(socketDrops_ - dropsReported_, "datagram"),
                                  paths_.front().socket.url().text));
    dropsReported_ = socketDrops_;
}

// Those of some senders stand still, or jump.
void SocketInput::watchNumbers(Clock::time_point now) {
    if (now - numbersSeen_ < kNumbersInterval)
        return;
    numbersSeen_ = now;
    const ts::RepairCounts then = std::exchange(countsSeen_, reorderer_->counts());
    const uint64_t received = countsSeen_.received - then.received;
    const uint64_t refused = countsSeen_.duplicates + countsSeen_.strays + countsSeen_.late -
                             then.duplicates - then.strays - then.late;
    if (received < kEnoughDatagrams ||
        static_cast<double>(refused) < kMostRefused * static_cast<double>(received) ||
        std::exchange(numbersReported_, true))
        return;
    events_.push_back(fmt::format(
        "{} of {} from {} are left out as copies or strays, by their sequence numbers; with "
        "reorder=0 in the URL, all are taken as they come",
        std::min(refused, received), counted(received, "datagram"),
        paths_.front().socket.url().text));
}

uint64_t SocketInput::arrived() const {
    if (!reorderer_)
        return StreamInput::arrived();
    const ts::RepairCounts& counts = reorderer_->counts();
    return counts.received + counts.raw + counts.rawExtra;
}

void SocketInput::measure(Clock::time_point now) {
    const std::chrono::duration<double> elapsed = now - measured_;
    if (elapsed < kMeasureInterval)
        return;
    const auto bits = static_cast<double>(bytes_ - std::exchange(bytesMeasured_, bytes_)) * 8.0;
    bitrate_bps_ = static_cast<uint32_t>(std::min(bits / elapsed.count(), 4294967295.0));
    measured_ = now;
}

QXV_RTP_Statistics SocketInput::statistics() const {
    QXV_RTP_Statistics statistics{};
    statistics.Size = sizeof statistics;
    statistics.Started = 1;
    statistics.SocketOpen = isOpen() ? 1 : 0;
    statistics.BufferedBytes = static_cast<uint32_t>(queue_.size());
    statistics.FreeBytes = static_cast<uint32_t>(queue_.room());
    statistics.Datagrams = stored_;
    statistics.Bytes = bytes_;
    statistics.DatagramsDropped = overruns_ + (reorderer_ ? 0 : socketDrops_);
    return statistics;
}

std::optional<RepairReport> SocketInput::repairs() const {
    if (!reorderer_)
        return std::nullopt;
    RepairReport report{reorderer_->counts(), reorderer_->window(), socketDrops_, {}};
    for (size_t i = 0; const Path& path : paths_)
        report.paths.push_back(
            {path.socket.url().text, reorderer_->path(i++, last_),
             path.fec ? std::optional(path.fec->decoder.counts()) : std::nullopt});
    return report;
}
