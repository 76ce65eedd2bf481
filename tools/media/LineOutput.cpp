#include "media/LineOutput.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "base/Errors.h"
#include "base/FileDescriptor.h"

namespace {

constexpr size_t kMostWaitingBytes = size_t{4} << 20;

}  // namespace

void LineOutput::add(std::string_view line) {
    if (waiting_.size() + line.size() < kMostWaitingBytes)
        waiting_ += line;
    else
        ++dropped_;
    flush();
}

void LineOutput::flush() {
    write(std::chrono::milliseconds(0));
}

void LineOutput::finish(std::chrono::milliseconds patience) {
    const auto end = std::chrono::steady_clock::now() + patience;
    for (size_t before = SIZE_MAX; !waiting_.empty() && waiting_.size() < before;) {
        before = waiting_.size();
        const auto left = end - std::chrono::steady_clock::now();
        write(std::max(std::chrono::milliseconds(0),
                       std::chrono::ceil<std::chrono::milliseconds>(left)));
    }
}

// A pipe that poll() calls writable takes PIPE_BUF bytes at once (pipe(7)).
void LineOutput::write(std::chrono::milliseconds patience) {
    size_t written = 0;
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    while (written < waiting_.size() &&
           poll(&output, 1, written == 0 ? static_cast<int>(patience.count()) : 0) == 1) {
        const ssize_t count = ::write(STDOUT_FILENO, waiting_.data() + written,
                                      std::min<size_t>(waiting_.size() - written, PIPE_BUF));
        if (count < 0 && errno != EINTR && errno != EAGAIN && errno != ENOSPC && errno != EDQUOT)
            throw Failure(
                fmt::format("standard output cannot be written: {}", std::strerror(errno)));
        if (count <= 0)
            break;
        written += static_cast<size_t>(count);
    }
    waiting_.erase(0, written);
}

void replaceFile(const std::string& name, std::string_view text) {
    const std::string made = name + ".new";
    const auto fail = [&] {
        const std::string why = std::strerror(errno);
        unlink(made.c_str());
        throw Failure(fmt::format("cannot write '{}': {}", name, why));
    };
    // Whatever stands there from an earlier run, it is not written through: it may be a link.
    // A device, a FIFO or a link would not come back.
    struct stat status {};
    if (lstat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw Failure(fmt::format("cannot write '{}': it is not a regular file", name));
    if (unlink(made.c_str()) != 0 && errno != ENOENT)
        fail();
    constexpr mode_t kReadable = 0644;
    FileDescriptor file(open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kReadable));
    if (file.get() < 0)
        fail();
    while (!text.empty()) {
        const ssize_t count = write(file.get(), text.data(), text.size());
        if (count < 0 && errno != EINTR)
            fail();
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    if (!file.close() || rename(made.c_str(), name.c_str()) != 0)
        fail();
}
