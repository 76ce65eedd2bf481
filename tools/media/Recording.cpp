#include "media/Recording.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <utility>

#include "base/Errors.h"

namespace {

constexpr int kWait_ms = 50;
constexpr int kWaitsAfterStop = 20;
constexpr uint32_t kMostNumber = 999'999;
constexpr uint64_t kMostUnsynchronised = 1'000'000;

std::string expandTime(const std::string& pattern) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream name;
    name << std::put_time(&local, pattern.c_str());
    return name.str();
}

// In front of the suffix, if there is one.
std::string withNumber(const std::string& path, uint32_t number) {
    const size_t slash = path.rfind('/');
    const size_t nameBegin = slash == std::string::npos ? 0 : slash + 1;
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= nameBegin)
        dot = path.size();
    return fmt::format("{}-{:04}{}", path.substr(0, dot), number, path.substr(dot));
}

}  // namespace

Recording::Recording(std::string output, const Rotation& rotation)
    : output_(std::move(output)), rotation_(rotation) {
    if (rotation_.time)
        timeUp_ = Clock::now() + *rotation_.time;
    open();
}

void Recording::open() {
    if (output_ == "-") {
        name_ = "standard output";
        file_ = std::make_unique<FileDescriptor>(STDOUT_FILENO);
    } else {
        const std::string path = expandTime(output_);
        const bool numbered = output_.find('%') == std::string::npos;
        name_ = fmt::format("'{}'", path);
        struct stat there {};
        if (rotation_ && stat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode))
            throw Failure(fmt::format("{} is no file that others could follow", name_));
        const int descriptor = rotation_
                                   ? openNew(path, numbered)
                                   : ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (descriptor < 0)
            throw Failure(fmt::format("cannot write {}: {}", name_, std::strerror(errno)));
        file_ = std::make_unique<FileDescriptor>(descriptor);
    }
    regular_ = fstat(file_->get(), &status_) == 0 && S_ISREG(status_.st_mode);
    written_ = 0;
    unsynchronised_ = 0;
    ++files_;
}

int Recording::openNew(const std::string& path, bool numbered) {
    uint32_t number = numbered ? number_ + 1 : 0;
    for (; number <= kMostNumber; ++number) {
        const std::string candidate = number == 0 ? path : withNumber(path, number);
        name_ = fmt::format("'{}'", candidate);
        const int descriptor =
            ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (descriptor >= 0 || errno != EEXIST) {
            number_ = number;
            return descriptor;
        }
    }
    return -1;  // errno says that the last one exists
}

void Recording::close() {
    if (!file_->close())
        throw Failure(fmt::format("cannot write {}: {}", name_, std::strerror(errno)));
}

bool Recording::sharesFileWith(const Recording& other) const {
    return regular_ && other.regular_ && status_.st_dev == other.status_.st_dev &&
           status_.st_ino == other.status_.st_ino;
}

void Recording::openNext() {
    close();
    open();
    // By the schedule, so that the times at which files begin do not drift.
    while (rotation_.time && timeUp_ <= Clock::now())
        timeUp_ += *rotation_.time;
}

bool Recording::isDue() const {
    return written_ > 0 && ((rotation_.bytes && written_ >= *rotation_.bytes) ||
                            (rotation_.time && Clock::now() >= timeUp_));
}

size_t Recording::lengthUpToCut(size_t length, const StreamMeter& meter) const {
    if (!rotation_)
        return length;
    if (isDue())
        return std::min(length, meter.bytesToPacket());
    if (!rotation_.bytes)
        return length;
    return static_cast<size_t>(std::min<uint64_t>(length, *rotation_.bytes - written_));
}

bool Recording::write(std::span<const uint8_t> data, StreamMeter& meter, const StopFlag& stop) {
    if (regular_ && !rotation_ && output_ != "-" && written_ == 0 && !data.empty() &&
        ftruncate(file_->get(), 0) != 0)
        throw Failure(fmt::format("cannot write {}: {}", name_, std::strerror(errno)));
    while (!data.empty()) {
        if (rotation_ && isDue() &&
            (unsynchronised_ >= kMostUnsynchronised || meter.isPacket(data.front())))
            openNext();
        const auto piece = data.first(lengthUpToCut(data.size(), meter));
        meter.add(piece);
        if (!writeAll(piece, stop))
            return false;
        written_ += piece.size();
        if (rotation_ && isDue())
            unsynchronised_ += piece.size();
        data = data.subspan(piece.size());
    }
    return true;
}

bool Recording::writeAll(std::span<const uint8_t> data, const StopFlag& stop) {
    int waitedAfterStop = 0;
    while (!data.empty()) {
        if (!isReady()) {
            if (stop.load() != nullptr && ++waitedAfterStop > kWaitsAfterStop)
                return false;
            continue;
        }
        // A pipe that is ready takes this much without blocking.
        const size_t most = regular_ ? data.size() : std::min<size_t>(data.size(), PIPE_BUF);
        const ssize_t count = ::write(file_->get(), data.data(), most);
        if (count >= 0)
            data = data.subspan(static_cast<size_t>(count));
        else if (errno != EINTR && errno != EAGAIN)
            throw Failure(fmt::format("cannot write {}: {}", name_, std::strerror(errno)));
    }
    return true;
}

bool Recording::isReady() const {
    pollfd writable{file_->get(), POLLOUT, 0};
    return regular_ || poll(&writable, 1, kWait_ms) > 0;
}
