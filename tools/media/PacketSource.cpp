#include "media/PacketSource.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Errors.h"

namespace {

constexpr size_t kReadBytes = size_t{256} * 1024;
constexpr size_t kMeasureBytes = size_t{8} * 1024 * 1024;
constexpr double kMeasureSeconds = 1.0;  // of a pipe, which makes a live source wait
constexpr size_t kFullRunBytes = 5 * kPacketWithParityBytes;
constexpr size_t kSearchBytes = size_t{1024} * 1024;
constexpr std::chrono::milliseconds kStopLatency{50};

int openInput(const std::string& path) {
    if (path == "-")
        return STDIN_FILENO;
    // Nobody waits here for the writer of a FIFO: a signal has to get through meanwhile.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
    return descriptor;
}

}  // namespace

PacketSource::PacketSource(const std::string& path, bool loop)
    : name_(path == "-" ? "standard input" : fmt::format("'{}'", path)),
      file_(openInput(path)),
      loop_(loop) {
    struct stat status {};
    if (fstat(file_.get(), &status) != 0)
        throw Failure(fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
    if (S_ISDIR(status.st_mode))
        throw Failure(fmt::format("cannot read {}: it is a directory", name_));
    // Standard input is read from where it stands, be it a file or not.
    regular_ = S_ISREG(status.st_mode) && path != "-";
    if (loop_ && !regular_)
        throw UsageError(fmt::format("--loop repeats a file; {} cannot be rewound", name_));
}

// Adds what is there to read. False: nothing came within the time.
bool PacketSource::fill(std::chrono::milliseconds wait) {
    if (!regular_) {
        pollfd readable{file_.get(), POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0)
            return false;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(begin_));
    bufferBegin_ += std::exchange(begin_, 0);
    const size_t size = pending_.size();
    pending_.resize(size + kReadBytes);
    const ssize_t count = read(file_.get(), pending_.data() + size, kReadBytes);
    pending_.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0 && errno != EINTR && errno != EAGAIN)
        throw Failure(fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
    ended_ = count == 0;
    return true;
}

// False where there is nothing to repeat; a file that was emptied meanwhile has to end rather than
// to spin.
bool PacketSource::rewind() {
    if (!loopable())
        return false;
    if (lseek(file_.get(), static_cast<off_t>(loopBegin_), SEEK_SET) < 0)
        throw Failure(fmt::format("cannot rewind {}: {}", name_, std::strerror(errno)));
    pending_.clear();
    begin_ = 0;
    bufferBegin_ = loopBegin_;
    searching_ = false;
    rewound_ = true;
    yielded_ = false;
    ended_ = false;
    return true;
}

bool PacketSource::findFirstPacket(StopSignal& stop) {
    // What findPackets may take for the end of a stream is the end of what has been read so far;
    // only when there is no more, a shorter run of packets is enough.
    constexpr size_t kEnough = 2 * kFullRunBytes;
    while (!stop.requested()) {
        if (ended_ || pending_.size() >= kEnough) {
            const auto layout = findPackets(pending_);
            if (layout) {
                layout_ = *layout;
                skip(layout->offset);
                startOfGap_ = true;
                loopFromHere();
                return true;
            }
            if (ended_ || pending_.size() >= kSearchBytes)
                throw Failure(
                    fmt::format("{} is not a transport stream: no run of packets of 188 "
                                "or 204 bytes in its first {} bytes",
                                name_, pending_.size()));
        }
        fill(kStopLatency);
    }
    return false;
}

void PacketSource::open(bool measure, StopSignal& stop) {
    if (!findFirstPacket(stop) || !measure)
        return;
    rate_.emplace(packetSize());
    size_t measured = begin_;
    while (!stop.requested()) {
        for (; measured + packetSize() <= pending_.size(); measured += packetSize())
            rate_->add(pending_.data() + measured);
        if (ended_ || available() >= kMeasureBytes ||
            (!regular_ && rate_->seconds() >= kMeasureSeconds))
            return;
        const size_t dropped = begin_;
        fill(kStopLatency);
        measured -= dropped - begin_;
    }
}

void PacketSource::skip(size_t count) {
    begin_ += count;
    if (count == 0 || rewound_)
        return;
    skippedBytes_ += count;
    skippedPlaces_ += std::exchange(startOfGap_, false) ? 1 : 0;
}

// A packet counts when another one, or the end, follows it.
size_t PacketSource::countPackets(size_t most) {
    size_t count = 0;
    for (size_t at = begin_; count < most && !searching_; ++count, at += packetSize()) {
        const size_t next = at + packetSize();
        if (next > pending_.size() || pending_[at] != kSyncByte)
            break;
        if (next == pending_.size() ? !ended_ : pending_[next] != kSyncByte)
            break;
    }
    return count;
}

// The packet in front is not followed by another. It may have lost some bytes, so that the next one
// begins within it; otherwise it is the last one before the gap and still counts.
void PacketSource::leaveRun() {
    const auto rest = std::span<const uint8_t>(pending_).subspan(begin_);
    const auto next = findPackets(rest.subspan(1), packetSize(), !ended_);
    const bool whole = rest.size() >= packetSize() && rest.front() == kSyncByte &&
                       (!next || *next + 1 >= packetSize());
    searching_ = true;
    startOfGap_ = true;
    if (!whole)
        skip(1);
    else
        lastOfRun_ = true;
}

void PacketSource::search() {
    const auto rest = std::span<const uint8_t>(pending_).subspan(begin_);
    const auto found = findPackets(rest, packetSize(), !ended_);
    const size_t kept = ended_ ? 0 : std::min(rest.size(), kFullRunBytes);
    skip(found ? *found : rest.size() - kept);
    searching_ = !found;
}

std::span<const uint8_t> PacketSource::take(size_t limit, std::chrono::milliseconds wait) {
    const size_t most = limit / packetSize();
    size_t count = countPackets(most);
    if (count == 0 && most > 0) {
        // What tells a packet that lost some bytes from one before a gap, and a run from chance.
        const bool enough = ended_ || available() >= packetSize() + kFullRunBytes;
        if (available() == 0 ? !ended_ || rewind() : !enough)
            fill(wait);
        else if (searching_)
            search();
        else if (available() > 0)
            leaveRun();
        count = std::exchange(lastOfRun_, false) ? 1 : countPackets(most);
    }
    const std::span<const uint8_t> packets(pending_.data() + begin_, count * packetSize());
    begin_ += packets.size();
    yielded_ = yielded_ || !packets.empty();
    return packets;
}
