#include "media/PacketSource.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Errors.h"

namespace {

constexpr size_t kReadBytes = size_t{32} * 1024;  // stays in the cache until it is handed on
constexpr uint64_t kFetchBytes = uint64_t{2} * 1024 * 1024;
constexpr int kPipeBytes = 1024 * 1024;
constexpr size_t kFullRunBytes = 5 * kPacketWithParityBytes;
constexpr size_t kSearchBytes = size_t{1024} * 1024;

int openInput(const std::string& path) {
    if (path == "-")
        return STDIN_FILENO;
    // Nobody waits here for the writer of a FIFO.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
    return descriptor;
}

}  // namespace

PacketSource::PacketSource(const std::string& path, bool loop, bool follow)
    : path_(path),
      name_(path == "-" ? "standard input" : fmt::format("'{}'", path)),
      file_(std::make_unique<FileDescriptor>(openInput(path))),
      loop_(loop),
      follow_(follow) {
    struct stat status {};
    if (fstat(file_->get(), &status) != 0)
        throw Failure(fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
    if (S_ISDIR(status.st_mode))
        throw Failure(fmt::format("cannot read {}: it is a directory", name_));
    // Standard input is read from where it stands, be it a file or not.
    regular_ = S_ISREG(status.st_mode) && path != "-";
    if (loop_ && !regular_)
        throw UsageError(fmt::format("--loop repeats a file; {} cannot be rewound", name_));
    // Whoever writes has to get rid of what comes between two looks; a smaller pipe is no error.
    if (S_ISFIFO(status.st_mode))
        static_cast<void>(fcntl(file_->get(), F_SETPIPE_SZ, kPipeBytes));
}

// As read(), but with EAGAIN where the file's next bytes are still to come from the disk.
ssize_t PacketSource::readFile(std::span<uint8_t> space) {
    const uint64_t position = bufferBegin_ + end_;
    if (position + kFetchBytes / 2 > fetchedTo_) {
        posix_fadvise(file_->get(), static_cast<off_t>(position), kFetchBytes, POSIX_FADV_WILLNEED);
        fetchedTo_ = position + kFetchBytes;
    }
    const iovec vector{space.data(), space.size()};
    if (tellsWhatIsThere_) {
        const ssize_t count = preadv2(file_->get(), &vector, 1, -1, RWF_NOWAIT);
        if (count < 0 && errno == EAGAIN)
            fetchedTo_ = 0;  // it may have been dropped from memory meanwhile
        if (count >= 0 || (errno != EOPNOTSUPP && errno != EINVAL && errno != ENOSYS))
            return count;
        tellsWhatIsThere_ = false;
    }
    return read(file_->get(), space.data(), space.size());
}

// Adds what is there to read. False: nothing is, for the time being.
bool PacketSource::fill() {
    if (!regular_) {
        pollfd readable{file_->get(), POLLIN, 0};
        if (poll(&readable, 1, 0) <= 0)
            return false;
    }
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    bufferBegin_ += begin_;
    end_ -= std::exchange(begin_, 0);
    if (buffer_.size() < end_ + kReadBytes)
        buffer_.resize(end_ + kReadBytes);
    const auto space = std::span(buffer_).subspan(end_, kReadBytes);
    const ssize_t count =
        regular_ ? readFile(space) : read(file_->get(), space.data(), space.size());
    if (count < 0 && errno != EINTR && errno != EAGAIN)
        throw Failure(fmt::format("cannot read {}: {}", name_, std::strerror(errno)));
    end_ += static_cast<size_t>(std::max<ssize_t>(count, 0));
    if (count == 0 && follow_)
        return goOn();
    renamed_ = false;
    ended_ = count == 0;
    return count >= 0;
}

// At the end of what is followed. True: there may be more at once.
bool PacketSource::goOn() {
    struct stat own {};
    struct stat named {};
    if (!regular_ || fstat(file_->get(), &own) != 0)
        return false;
    if (static_cast<uint64_t>(own.st_size) < bufferBegin_ + end_) {
        if (lseek(file_->get(), 0, SEEK_SET) < 0)
            return false;
        beginAnew();
        return true;
    }
    if (stat(path_.c_str(), &named) != 0 || !S_ISREG(named.st_mode) ||
        (named.st_dev == own.st_dev && named.st_ino == own.st_ino))
        return false;
    // Its writer may have written to the first file until it was renamed.
    if (!std::exchange(renamed_, true))
        return false;
    const int next = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (next < 0)
        return false;
    file_ = std::make_unique<FileDescriptor>(next);
    beginAnew();
    return true;
}

// The packets are searched for, since a file may begin with something else.
void PacketSource::beginAnew() {
    skip(available());
    begin_ = end_ = 0;
    bufferBegin_ = fetchedTo_ = 0;
    searching_ = true;
    renamed_ = false;
}

// False where there is nothing to repeat; a file that was emptied meanwhile has to end rather than
// to spin.
bool PacketSource::rewind() {
    if (!loopable())
        return false;
    if (lseek(file_->get(), static_cast<off_t>(loopBegin_), SEEK_SET) < 0)
        throw Failure(fmt::format("cannot rewind {}: {}", name_, std::strerror(errno)));
    begin_ = end_ = 0;
    bufferBegin_ = loopBegin_;
    fetchedTo_ = 0;
    searching_ = false;
    ++loops_;
    yielded_ = false;
    ended_ = false;
    return true;
}

bool PacketSource::findFirstPacket() {
    // What findPackets may take for the end of a stream is the end of what has been read so far;
    // only when there is no more, a shorter run of packets is enough.
    constexpr size_t kEnough = 2 * kFullRunBytes;
    do {
        if (!ended_ && available() < kEnough)
            continue;
        const auto layout = findPackets(rest());
        if (layout) {
            layout_ = *layout;
            skip(layout->offset);
            startOfGap_ = true;
            loopFrom(0);
            return true;
        }
        if (ended_ && available() == 0)
            throw Failure(fmt::format("{} is empty", name_));
        if (ended_ || available() >= kSearchBytes)
            throw Failure(
                fmt::format("{} is not a transport stream: no run of packets of 188 "
                            "or 204 bytes in its first {} bytes",
                            name_, available()));
    } while (fill());
    return false;
}

void PacketSource::skip(size_t count) {
    begin_ += count;
    if (count == 0 || loops_ > 0)
        return;
    skippedBytes_ += count;
    skippedPlaces_ += std::exchange(startOfGap_, false) ? 1 : 0;
}

// A packet counts when another one, or the end, follows it.
size_t PacketSource::countPackets(size_t most) const {
    size_t count = 0;
    for (size_t at = begin_; count < most && !searching_; ++count, at += packetSize()) {
        const size_t next = at + packetSize();
        if (next > end_ || buffer_[at] != kSyncByte)
            break;
        if (next == end_ ? !ended_ : buffer_[next] != kSyncByte)
            break;
    }
    return count;
}

// The packet in front is not followed by another. It may have lost some bytes, so that the next one
// begins within it; otherwise it is the last one before the gap and still counts.
void PacketSource::leaveRun() {
    const auto next = findPackets(rest().subspan(1), packetSize(), !ended_);
    const bool whole = available() >= packetSize() && rest().front() == kSyncByte &&
                       (!next || *next + 1 >= packetSize());
    searching_ = true;
    startOfGap_ = true;
    if (!whole)
        skip(1);
    else
        lastOfRun_ = true;
}

void PacketSource::search() {
    const auto found = findPackets(rest(), packetSize(), !ended_);
    const size_t kept = ended_ ? 0 : std::min(available(), kFullRunBytes);
    skip(found ? *found : available() - kept);
    searching_ = !found;
}

std::span<const uint8_t> PacketSource::take(size_t limit) {
    const size_t most = limit / packetSize();
    size_t count = countPackets(most);
    dry_ = false;
    if (count == 0 && most > 0) {
        // What tells a packet that lost some bytes from one before a gap, and a run from chance.
        const bool enough = ended_ || available() >= packetSize() + kFullRunBytes;
        if (available() == 0 ? !ended_ || rewind() : !enough)
            dry_ = !fill();
        else if (searching_)
            search();
        else if (available() > 0)
            leaveRun();
        count = std::exchange(lastOfRun_, false) ? 1 : countPackets(most);
    }
    const auto packets = rest().first(count * packetSize());
    begin_ += packets.size();
    yielded_ = yielded_ || !packets.empty();
    return packets;
}
