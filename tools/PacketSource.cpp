#include "PacketSource.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Errors.h"

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
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
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

size_t PacketSource::wholeBytes() const {
    return available() / layout_.packetSize * layout_.packetSize;
}

// Adds what is there to read. False: nothing came within the time.
bool PacketSource::fill(std::chrono::milliseconds wait) {
    if (!regular_) {
        pollfd readable{file_.get(), POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(wait.count())) <= 0)
            return false;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
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
    if (lseek(file_.get(), static_cast<off_t>(layout_.offset), SEEK_SET) < 0)
        throw Failure(fmt::format("cannot rewind {}: {}", name_, std::strerror(errno)));
    pending_.clear();
    begin_ = 0;
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
                begin_ = layout->offset;
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

std::span<const uint8_t> PacketSource::take(size_t limit, std::chrono::milliseconds wait) {
    if (wholeBytes() == 0 && (!ended_ || rewind()))
        fill(wait);
    const size_t most = limit / packetSize() * packetSize();
    const std::span<const uint8_t> packets(pending_.data() + begin_, std::min(most, wholeBytes()));
    begin_ += packets.size();
    yielded_ = yielded_ || !packets.empty();
    return packets;
}
