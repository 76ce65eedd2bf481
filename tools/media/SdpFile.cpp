#include "media/SdpFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/FileDescriptor.h"
#include "media/Sdp.h"

std::string streamOf(const std::string& input) {
    constexpr std::string_view kScheme = "file://";
    const bool isUrl = input.starts_with(kScheme);
    if (!isUrl && (!input.ends_with(".sdp") || input.find("://") != std::string::npos))
        return input;
    const std::string path = isUrl ? input.substr(kScheme.size()) : input;
    // Nobody waits here for the writer of a FIFO.
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string text(kLongestSdp + 1, '\0');
    const ssize_t size = file.get() < 0 ? -1 : ::read(file.get(), text.data(), text.size());
    if (size < 0)
        throw UsageError(fmt::format("cannot read '{}': {}", path, std::strerror(errno)));
    text.resize(static_cast<size_t>(size));
    return urlOfSdp(text, path);
}
