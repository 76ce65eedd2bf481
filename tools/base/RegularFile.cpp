#include "base/RegularFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Errors.h"
#include "base/FileDescriptor.h"

std::string readRegularFile(const std::string& path, size_t most) {
    const auto fail = [&path] {
        throw Failure(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
    };
    // The open() of a FIFO waits for its writer otherwise.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
        fail();
    if (!S_ISREG(status.st_mode))
        throw Failure(fmt::format("cannot read '{}': it is no regular file", path));
    std::string text(most, '\0');
    size_t size = 0;
    for (ssize_t taken = 1; taken > 0 && size < most; size += static_cast<size_t>(taken))
        if (taken = ::read(file.get(), &text[size], most - size); taken < 0)
            fail();
    text.resize(size);
    return text;
}
