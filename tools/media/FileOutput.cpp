#include "media/FileOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <utility>

#include "base/Quantity.h"

namespace {

constexpr uint32_t kMostNumber = 999'999;
// What a pipe holds, if the system permits it: more than comes between two looks at a stream.
constexpr int kPipeBytes = 1 << 20;

// In front of the suffix, if there is one; none = 0.
std::string withNumber(const std::string& path, uint32_t number) {
    if (number == 0)
        return path;
    const size_t slash = path.rfind('/');
    const size_t nameBegin = slash == std::string::npos ? 0 : slash + 1;
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameBegin)
        dot = path.size();
    return fmt::format("{}-{:04}{}", path.substr(0, dot), number, path.substr(dot));
}

bool exists(const std::string& path) {
    struct stat there {};
    return lstat(path.c_str(), &there) == 0;
}

bool isFifo(const std::string& path) {
    struct stat there {};
    return stat(path.c_str(), &there) == 0 && S_ISFIFO(there.st_mode);
}

// The first free number from that one on; behind many that are taken, one whose predecessor is:
// folders with thousands of files are not gone through one by one.
uint32_t freeNumber(const std::string& path, uint32_t number) {
    constexpr uint32_t kOneByOne = 16;
    const uint32_t begin = number;
    for (; number <= begin + kOneByOne; ++number)
        if (!exists(withNumber(path, number)))
            return number;
    uint32_t taken = number - 1;
    for (uint32_t step = kOneByOne; exists(withNumber(path, number)); step *= 2) {
        if (number > kMostNumber)
            return number;
        taken = number;
        number += step;
    }
    while (number - taken > 1) {
        const uint32_t middle = taken + (number - taken) / 2;
        (exists(withNumber(path, middle)) ? taken : number) = middle;
    }
    return number;
}

}  // namespace

OutputFailure::OutputFailure(const std::string& name, int error, bool isLost)
    : Failure(fmt::format("cannot write {}: {}", name, std::strerror(error))),
      readerHasGone(error == EPIPE),
      dataIsLost(isLost) {}

FileOutput::FileOutput(std::string output, const Rotation& rotation)
    : output_(std::move(output)), rotation_(rotation) {}

bool FileOutput::open() {
    const int descriptor = isStandardOutput() ? openStandardOutput() : openPath();
    if (descriptor < 0 && errno == ENXIO && isFifo(localTimeText(std::time(nullptr), output_)))
        return false;
    if (descriptor < 0)
        throw OutputFailure(name_, errno);
    file_ = std::make_unique<FileDescriptor>(descriptor);
    struct stat status {};
    fstat(descriptor, &status);
    regular_ = S_ISREG(status.st_mode);
    device_ = regular_ ? status.st_dev : 0;
    inode_ = regular_ ? status.st_ino : 0;
    const bool isBlocking = (fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0;
    mayWait_ = !regular_ && isBlocking && (!S_ISCHR(status.st_mode) || isatty(descriptor) == 1);
    if (S_ISFIFO(status.st_mode))
        fcntl(descriptor, F_SETPIPE_SZ, kPipeBytes);
    written_ = 0;
    ++files_;
    return true;
}

// The pipe is opened once more, since whoever else has it may not expect it to be non-blocking.
int FileOutput::openStandardOutput() {
    name_ = "standard output";
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) != 0)
        return -1;
    const int own = S_ISFIFO(status.st_mode)
                        ? ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_CLOEXEC)
                        : -1;
    return own < 0 ? STDOUT_FILENO : own;
}

int FileOutput::openPath() {
    const std::string path = localTimeText(std::time(nullptr), output_);
    name_ = fmt::format("'{}'", path);
    struct stat there {};
    if (rotation_ && stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode))
        throw Failure(fmt::format("{} is not a regular file, so no other can follow it", name_));
    return rotation_ ? openNew(path, output_.find('%') == std::string::npos)
                     : ::open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
}

int FileOutput::openNew(const std::string& path, bool numbered) {
    uint32_t number = std::exchange(lastPath_, path) == path ? number_ + 1 : numbered ? 1 : 0;
    for (;; ++number) {
        number = freeNumber(path, number);
        name_ = fmt::format("'{}'", withNumber(path, number));
        if (number > kMostNumber) {
            errno = EEXIST;
            return -1;
        }
        const int descriptor =
            ::open(withNumber(path, number).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0)
            number_ = number;
        if (descriptor >= 0 || errno != EEXIST)
            return descriptor;
    }
}

dev_t FileOutput::place() const {
    if (file_)
        return device_;
    if (isStandardOutput())
        return 0;
    for (std::string path = localTimeText(std::time(nullptr), output_);;) {
        struct stat status {};
        if (stat(path.c_str(), &status) == 0)
            return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) ? status.st_dev : 0;
        const size_t slash = path.rfind('/');
        if (path == "." || path == "/")
            return 0;
        path = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    }
}

void FileOutput::closeFile() {
    const auto file = std::exchange(file_, nullptr);
    if (!file || file->close())
        return;
    throw OutputFailure(name_, errno, true);
}

void FileOutput::close() {
    closeFile();
}

bool FileOutput::sharesFileWith(const FileOutput& other) const {
    return inode_ != 0 && inode_ == other.inode_ && device_ == other.device_;
}

// By the schedule, so that the times at which files begin do not drift.
void FileOutput::scheduleNext() {
    if (rotation_.time && !timeUp_)
        timeUp_ = Clock::now();
    while (timeUp_ && *timeUp_ <= Clock::now())
        *timeUp_ += *rotation_.time;
}

bool FileOutput::isDue() const {
    return written_ > 0 && ((rotation_.bytes && written_ >= *rotation_.bytes) ||
                            (timeUp_ && Clock::now() >= *timeUp_));
}

// A file ends with a packet.
size_t FileOutput::lengthUpToCut(size_t length, size_t packetSize) const {
    const size_t packetRest = (packetSize - packetPart_) % packetSize;
    if (isDue() || cut_)
        return std::min(length, packetRest);
    if (!rotation_.bytes)
        return length;
    const uint64_t left = *rotation_.bytes - written_;
    const uint64_t packets = left <= packetRest ? 0 : (left - packetRest - 1) / packetSize + 1;
    return static_cast<size_t>(std::min<uint64_t>(length, packetRest + packets * packetSize));
}

size_t FileOutput::write(std::span<const uint8_t> packets, size_t packetSize) {
    size_t done = 0;
    try {
        while (done < packets.size()) {
            if (file_ && packetPart_ == 0 && isDue())
                closeFile();
            if (!file_ && !open())
                break;
            if (written_ == 0)
                scheduleNext();
            const auto rest = packets.subspan(done);
            const auto piece = rest.first(lengthUpToCut(rest.size(), packetSize));
            const size_t count = cut_ ? piece.size() : writeToFile(piece);
            done += count;
            packetPart_ = (packetPart_ + count) % packetSize;
            cut_ = cut_ && packetPart_ != 0;
            if (count < piece.size())
                break;
        }
    } catch (const OutputFailure& failure) {
        if (failure.readerHasGone) {
            file_.reset();
            cut_ = packetPart_ != 0;
        }
        if (done == 0)
            throw;
    }
    return done;
}

// Up to an error, which the next call meets again.
size_t FileOutput::writeToFile(std::span<const uint8_t> data) {
    const bool overwrites = regular_ && !rotation_ && !isStandardOutput() && written_ == 0;
    if (overwrites && !data.empty() && ftruncate(file_->get(), 0) != 0)
        throw OutputFailure(name_, errno);
    size_t done = 0;
    while (done < data.size()) {
        pollfd writable{file_->get(), POLLOUT, 0};
        if (mayWait_ && poll(&writable, 1, 0) <= 0)
            break;
        // A pipe that is ready takes this much without waiting.
        const size_t most =
            mayWait_ ? std::min<size_t>(data.size() - done, PIPE_BUF) : data.size() - done;
        const ssize_t count = ::write(file_->get(), &data[done], most);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno != EAGAIN && done == 0)
            throw OutputFailure(name_, errno);
        if (count <= 0)
            break;
        done += static_cast<size_t>(count);
    }
    written_ += done;
    return done;
}
