#include "commands/DemoStream.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <thread>

#include "TransportStream.h"
#include "base/Errors.h"
#include "base/FileDescriptor.h"
#include "media/PacketSource.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kEncoderPatience = 60s;
constexpr size_t kMeasureBytes = size_t{8} * 1024 * 1024;

// An empty file of its own name, removed with the object.
class TemporaryFile {
  public:
    TemporaryFile()
        : path_((fs::temp_directory_path() / "qxvrtp-XXXXXX").string()),
          descriptor_(mkostemp(path_.data(), O_CLOEXEC)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (exists())
            unlink(path_.c_str());
    }

    bool exists() const { return descriptor_.get() >= 0; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    FileDescriptor descriptor_;
};

// Starts the command with no input and no output; nothing when there is no such program.
std::optional<pid_t> start(std::vector<std::string> command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&actions, standard, "/dev/null", O_RDWR, 0);

    // The signals that this process blocks and ignores are no business of its child's.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t reset = none;
    sigaddset(&reset, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &reset);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t child = 0;
    const int error =
        posix_spawnp(&child, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? std::optional(child) : std::nullopt;
}

// True when the command ended by itself and well, in time.
bool runCommand(const std::vector<std::string>& command, StopSignal& stop) {
    const auto child = start(command);
    if (!child)
        return false;
    const auto deadline = std::chrono::steady_clock::now() + kEncoderPatience;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(*child, &status, WNOHANG)) == 0) {
        if (stop.requested() || std::chrono::steady_clock::now() > deadline) {
            kill(*child, SIGKILL);
            waitpid(*child, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return ended == *child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool encode(const std::string& path, double seconds, StopSignal& stop) {
    return runCommand({"ffmpeg",
                       "-nostdin",
                       "-y",
                       "-f",
                       "lavfi",
                       "-i",
                       "testsrc2=size=640x360:rate=25",
                       "-f",
                       "lavfi",
                       "-i",
                       "sine=frequency=440:sample_rate=48000",
                       "-t",
                       fmt::format("{:.3f}", seconds),
                       "-c:v",
                       "mpeg2video",
                       "-b:v",
                       "1800k",
                       "-maxrate",
                       "1800k",
                       "-bufsize",
                       "900k",
                       "-c:a",
                       "mp2",
                       "-b:a",
                       "128k",
                       "-f",
                       "mpegts",
                       "-muxrate",
                       "2500k",
                       path},
                      stop);
}

std::string findSample(const std::string& sample) {
    if (!sample.empty())
        return sample;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    const fs::path installed = program.parent_path() / QXV_SAMPLE_INSTALLED;
    return fs::exists(installed, error) ? installed.lexically_normal().string() : QXV_SAMPLE_SOURCE;
}

// The next packets; none where the stream has ended, or a stop is requested.
std::span<const uint8_t> take(PacketSource& source, size_t limit, StopSignal& stop) {
    while (!source.ended() && !stop.requested()) {
        if (const auto packets = source.take(limit); !packets.empty())
            return packets;
        if (source.isDry())
            std::this_thread::sleep_for(10ms);
    }
    return {};
}

DemoStream load(const std::string& path, std::string origin, double seconds, StopSignal& stop) {
    PacketSource source(path, false);
    while (!source.findFirstPacket() && !stop.requested())
        std::this_thread::sleep_for(10ms);

    DemoStream stream;
    stream.origin = std::move(origin);
    stream.packetSize = source.packetSize();
    PcrBitrate rate(stream.packetSize);
    const auto add = [&](std::span<const uint8_t> packets) {
        for (size_t at = 0; at < packets.size(); at += stream.packetSize)
            rate.add(packets.data() + at);
        stream.data.insert(stream.data.end(), packets.begin(), packets.end());
    };
    // The rate is that of the first megabytes, which may be more than is to be sent.
    while (stream.data.size() < kMeasureBytes && !source.ended() && !stop.requested())
        add(take(source, kMeasureBytes - stream.data.size(), stop));
    const auto bitrate = rate.bitrate();
    if (!stop.requested() && (!bitrate || *bitrate == 0 || *bitrate > UINT32_MAX))
        throw Failure(fmt::format("{} has no PCRs that tell its rate", source.name()));
    stream.bitrate_bps = static_cast<uint32_t>(bitrate.value_or(1));

    // A channel looks at 2048 bytes before it sends the first datagram, which takes two of them.
    const size_t payload = stream.payloadBytes();
    const auto wanted =
        std::max<size_t>(static_cast<size_t>(seconds * stream.bitrate_bps / 8.0) / payload, 2) *
        payload;
    while (stream.data.size() < wanted && !source.ended() && !stop.requested())
        add(take(source, wanted - stream.data.size(), stop));
    stream.data.resize(std::min(stream.data.size(), wanted));
    while (stream.data.size() % payload != 0 || stream.data.size() < 2 * payload)
        appendNullPackets(stream.data, stream.packetSize, 1);
    return stream;
}

}  // namespace

size_t DemoStream::payloadBytes() const {
    return packetSize * kPacketsPerDatagram;
}

std::span<const uint8_t> DemoStream::datagram(size_t index) const {
    return std::span(data).subspan(index * payloadBytes(), payloadBytes());
}

DemoStream loadDemoStream(const std::string& file, const std::string& sample, double seconds,
                          StopSignal& stop) {
    if (!file.empty())
        return load(file, fmt::format("'{}'", file), seconds, stop);
    if (sample.empty()) {
        const TemporaryFile made;
        if (made.exists() && encode(made.path(), seconds, stop))
            return load(made.path(), "made by ffmpeg", seconds, stop);
    }
    const std::string path = findSample(sample);
    return load(path, fmt::format("the sample '{}'", path), seconds, stop);
}
