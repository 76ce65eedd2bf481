#include "reports/HostTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "RtpContext.h"
#include "base/Errors.h"
#include "base/FileDescriptor.h"
#include "base/SafeText.h"

namespace {

using Bytes = std::span<const uint8_t>;
using Image = std::array<uint8_t, sizeof(RtpContext)>;

uint32_t wordAt(Bytes bytes, size_t offset) {
    uint32_t word = 0;
    std::memcpy(&word, bytes.subspan(offset).data(), sizeof(word));
    return word;
}

std::string addressText(const char (&field)[QXV_RTP_ADDRESS_SIZE]) {
    return escapeBytes({field, strnlen(field, sizeof(field))});
}

bool isAnyAddress(std::string_view address) {
    return address.find_first_not_of("0.:") == std::string_view::npos;
}

Failure unreadable(const std::string& path) {
    return Failure(fmt::format("cannot read the table {}: {}", path, std::strerror(errno)));
}

// Opens for reading what a descriptor of O_PATH names.
int openNamed(int file) {
    constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
    const std::string path = fmt::format("/proc/self/fd/{}", file);
    // Only the file's owner may leave its access time alone.
    const int descriptor = open(path.c_str(), kFlags | O_NOATIME);
    return descriptor < 0 && errno == EPERM ? open(path.c_str(), kFlags) : descriptor;
}

// A mapping would end in SIGBUS when somebody cuts the file off.
Image copyTable(int descriptor, const std::string& path) {
    Image image{};
    size_t done = 0;
    while (done < image.size()) {
        const ssize_t count =
            pread(descriptor, image.data() + done, image.size() - done, static_cast<off_t>(done));
        if (count > 0)
            done += static_cast<size_t>(count);
        else if (count == 0)
            throw Failure(fmt::format("cannot read the table {}: it became shorter", path));
        else if (errno != EINTR)
            throw unreadable(path);
    }
    return image;
}

ChannelState interpret(Bytes record, uint32_t direction, uint32_t number) {
    RtpChannelConfig config;
    std::memcpy(&config, record.data() + offsetof(RtpChannelContext, Config), sizeof(config));
    ChannelState channel;
    channel.send = direction == kSend;
    channel.number = number;
    channel.asked_bps = wordAt(record, offsetof(RtpChannelContext, Bitrate));
    channel.measured_bps = wordAt(record, offsetof(RtpChannelContext, BitrateActual));
    channel.bufferBytes = wordAt(record, offsetof(RtpChannelContext, BufferSize));
    channel.running = channel.bufferBytes != 0;
    channel.socketOpen =
        channel.running && wordAt(record, offsetof(RtpChannelContext, Reopen)) == 0;
    if (config.Rtp <= 1)
        channel.mode = config.Rtp == 1 ? ChannelMode::kRtp : ChannelMode::kRaw;
    channel.port = config.Port;
    channel.ttl = config.Ttl;
    const std::string local = addressText(config.LocalAddress);
    channel.address = addressText(config.RemoteAddress);
    // A unicast receiver has its own address there, and the any-address as the remote one.
    if (!channel.send && config.Multicast == 0)
        channel.address = local;
    else if (!isAnyAddress(local))
        channel.localAddress = local;
    return channel;
}

bool hasNumbers(Bytes record, uint32_t direction, uint32_t number) {
    return wordAt(record, offsetof(RtpChannelContext, Instance)) == 0 &&
           wordAt(record, offsetof(RtpChannelContext, Direction)) == direction &&
           wordAt(record, offsetof(RtpChannelContext, Channel)) == number;
}

}  // namespace

std::string userName(uid_t user) {
    // Not thread-safe, like the rest of a command.
    const passwd* const entry = getpwuid(user);
    return entry == nullptr ? fmt::format("{}", user) : escapeBytes(entry->pw_name);
}

ChannelTable readTable(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (file.get() < 0 && errno == ENOENT)
        throw Failure(fmt::format("there is no table {}: no host has run here", path));
    if (file.get() < 0)
        throw unreadable(path);
    return readTable(file.get(), path);
}

ChannelTable readTable(int file, const std::string& path) {
    ChannelTable table;
    struct stat status {};
    if (fstat(file, &status) != 0)
        throw unreadable(path);
    table.path = path;
    table.owner = userName(status.st_uid);
    table.id = {status.st_dev, status.st_ino};
    table.replaced = status.st_nlink == 0;
    // The name may be anybody's: a FIFO or a device would notice that it is opened.
    if (!S_ISREG(status.st_mode))
        throw Failure(
            fmt::format("{} (of {}) is no table: it is not a regular file", path, table.owner));
    if (status.st_size < static_cast<off_t>(sizeof(RtpContext)))
        throw Failure(fmt::format("{} (of {}) is no table, or not yet: it has {} bytes, not {}",
                                  path, table.owner, status.st_size, sizeof(RtpContext)));
    const FileDescriptor opened(openNamed(file));
    if (opened.get() < 0 && errno == ENOENT)
        throw Failure("without /proc no table can be read");
    if (opened.get() < 0)
        throw unreadable(path);
    const Image image = copyTable(opened.get(), path);
    const Bytes bytes(image);
    table.handles = wordAt(bytes, offsetof(RtpContext, HandleCount));
    table.plausible = wordAt(bytes, offsetof(RtpContext, Instance)) == 0 &&
                      wordAt(bytes, offsetof(RtpContext, TxChannelCount)) == kChannels &&
                      wordAt(bytes, offsetof(RtpContext, RxChannelCount)) == kChannels;
    for (uint32_t i = 0; i < kDirections * kChannels; ++i) {
        const uint32_t direction = i / kChannels;
        const uint32_t number = i % kChannels;
        const Bytes record =
            bytes.subspan(offsetof(RtpContext, Channels) + i * sizeof(RtpChannelContext),
                          sizeof(RtpChannelContext));
        table.plausible = table.plausible && hasNumbers(record, direction, number);
        table.channels.push_back(interpret(record, direction, number));
    }
    return table;
}
