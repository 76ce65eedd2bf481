#include "reports/StreamStates.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>

#include "reports/StatesJson.h"

namespace {

constexpr uint32_t kMagic = 0x53565851;  // "QXVS"
constexpr uint32_t kVersion = 1;
constexpr size_t kMostBytes = size_t{256} * 1024;  // of text
constexpr int kAttempts = 5;
constexpr std::time_t kLatest = 253'402'300'799;  // the end of the year 9999

// In front of the text. The sequence is odd while the text is being written.
struct Header {
    uint32_t magic;
    uint32_t version;
    uint32_t sequence;
    uint32_t leftOut;
    uint32_t length;  // of the text
};
static_assert(sizeof(Header) == 20 && offsetof(Header, length) == 16);

bool write(int file, const void* data, size_t size, off_t offset) {
    return pwrite(file, data, size, offset) == static_cast<ssize_t>(size);
}

bool read(int file, void* data, size_t size, off_t offset) {
    return pread(file, data, size, offset) == static_cast<ssize_t>(size);
}

std::string textOf(const std::vector<StreamState>& states, uint32_t& leftOut) {
    std::string text = "[";
    size_t count = 0;
    for (const StreamState& state : states) {
        const std::string one = stateText(state);
        if (count == kMostStates || text.size() + one.size() + 2 > kMostBytes) {
            ++leftOut;
            continue;
        }
        text += count++ > 0 ? "," : "";
        text += one;
    }
    return text + "]";
}

}  // namespace

void StatePublisher::publish(const std::vector<StreamState>& states) {
    if (!file_ && states.empty())
        return;
    if (!file_)
        file_.emplace(memfd_create("qxvrtp_streams", MFD_CLOEXEC));
    if (file_->get() < 0)
        return;
    Header header{kMagic, kVersion, sequence_ + 1, 0, 0};
    const std::string text = textOf(states, header.leftOut);
    header.length = static_cast<uint32_t>(text.size());
    if (!write(file_->get(), &header, sizeof(header), 0))
        return;
    std::atomic_thread_fence(std::memory_order_seq_cst);  // before the text, for readStates()
    const bool written = write(file_->get(), text.data(), text.size(), sizeof(header));
    std::atomic_thread_fence(std::memory_order_seq_cst);
    header.sequence = sequence_ += 2;
    if (written)
        write(file_->get(), &header, sizeof(header), 0);
}

std::optional<PublishedStates> readStates(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    const FileDescriptor opened(
        open(fmt::format("/proc/self/fd/{}", file).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    for (int attempt = 0; opened.get() >= 0 && attempt < kAttempts; ++attempt) {
        Header header{};
        if (!read(opened.get(), &header, sizeof(header), 0) || header.magic != kMagic ||
            header.version != kVersion || header.length > kMostBytes)
            return std::nullopt;
        std::string text(header.length, '\0');
        std::atomic_thread_fence(std::memory_order_seq_cst);  // publish() has the others
        const bool whole = read(opened.get(), text.data(), text.size(), sizeof(header));
        std::atomic_thread_fence(std::memory_order_seq_cst);
        Header after{};
        if (whole && header.sequence % 2 == 0 && read(opened.get(), &after, sizeof(after), 0) &&
            after.sequence == header.sequence)
            return PublishedStates{{status.st_dev, status.st_ino},
                                   std::clamp<std::time_t>(status.st_mtim.tv_sec, 0, kLatest),
                                   header.leftOut,
                                   parseStates(text)};
        usleep(100);
    }
    return std::nullopt;
}

const char* healthName(InputHealth health) {
    switch (health) {
        case InputHealth::kOnAir:
            return "on air";
        case InputHealth::kStandby:
            return "standby";
        case InputHealth::kFaulty:
            return "faulty";
        case InputHealth::kNoSignal:
            return "no signal";
        case InputHealth::kNoSocket:
            return "no socket";
        default:
            return "unknown";
    }
}
