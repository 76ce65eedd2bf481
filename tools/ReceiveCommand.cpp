#include "ReceiveCommand.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "CommandLine.h"
#include "Errors.h"
#include "FileDescriptor.h"
#include "HostModule.h"
#include "Progress.h"
#include "Quantity.h"
#include "StopSignal.h"
#include "StreamUrl.h"
#include "TransportStream.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kChannel = 0;
constexpr size_t kChunkBytes = size_t{256} * 1024;
constexpr auto kPollInterval = 2ms;
constexpr auto kPatience = 3s;  // the module tries once a second to open the socket

int openOutput(const std::string& path) {
    if (path == "-")
        return STDOUT_FILENO;
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor < 0)
        throw Failure(fmt::format("cannot write '{}': {}", path, std::strerror(errno)));
    return descriptor;
}

// Where the recording goes.
class Output {
  public:
    explicit Output(const std::string& path)
        : name_(path == "-" ? "standard output" : fmt::format("'{}'", path)),
          file_(openOutput(path)) {
        struct stat status {};
        regular_ = fstat(file_.get(), &status) == 0 && S_ISREG(status.st_mode);
    }

    // False when the reader of a pipe does not go on reading after a signal has come.
    bool write(std::span<const uint8_t> data, StopSignal& stop) {
        int waitedAfterStop = 0;
        while (!data.empty()) {
            if (!isReady()) {
                if (stop.requested() && ++waitedAfterStop > kWaitsAfterStop)
                    return false;
                continue;
            }
            // A pipe that is ready takes this much without blocking.
            const size_t most = regular_ ? data.size() : std::min<size_t>(data.size(), PIPE_BUF);
            const ssize_t count = ::write(file_.get(), data.data(), most);
            if (count >= 0)
                data = data.subspan(static_cast<size_t>(count));
            else if (errno != EINTR && errno != EAGAIN)
                throw Failure(fmt::format("cannot write {}: {}", name_, std::strerror(errno)));
        }
        return true;
    }

    const std::string& name() const { return name_; }

  private:
    static constexpr int kWait_ms = 50;
    static constexpr int kWaitsAfterStop = 20;

    bool isReady() const {
        pollfd writable{file_.get(), POLLOUT, 0};
        return regular_ || poll(&writable, 1, kWait_ms) > 0;
    }

    std::string name_;
    FileDescriptor file_;
    bool regular_ = false;
};

class Receiving {
  public:
    Receiving(const ReceiveOptions& options, const StreamUrl& url, HostModule& module,
              Output& output, StopSignal& stop)
        : options_(options),
          url_(url),
          output_(output),
          stop_(stop),
          channel_(module, kChannel, receiveConfig(url)),
          chunk_(kChunkBytes) {}

    void run() {
        if (!waitForSocket())
            return;
        const auto opened = Clock::now();
        while (!isComplete()) {
            if (stop_.requested() ||
                (options_.duration && Clock::now() - opened >= *options_.duration)) {
                recordRest();
                return;
            }
            if (record() == 0)
                std::this_thread::sleep_for(kPollInterval);
            showProgress();
        }
    }

    // Throws Failure when the job has not been done.
    void conclude() {
        progress_.summary(fmt::format("received {} in {} from {} ({}): {} continuity errors",
                                      formatBytes(recorded_), formatTime(progress_.elapsed()),
                                      url_.text, channel_.isRtp() ? "rtp" : "raw",
                                      continuity_.errors()));
        if (options_.bytes && recorded_ < *options_.bytes)
            throw Failure(fmt::format("only {} of {} bytes came from {}", recorded_,
                                      *options_.bytes, url_.text));
        if (recorded_ == 0 && !isComplete())
            throw Failure(fmt::format("nothing came from {}", url_.text));
    }

  private:
    bool waitForSocket() {
        const auto deadline = Clock::now() + kPatience;
        while (!channel_.socketIsOpen()) {
            if (stop_.requested())
                return false;
            if (Clock::now() > deadline)
                throw Failure(fmt::format(
                    "no socket could be opened for {}; {}", url_.text,
                    url_.multicast ? "is there an interface for the group? localaddr= names one"
                                   : "is the port in use, or the address not this machine's?"));
            std::this_thread::sleep_for(kPollInterval);
        }
        return true;
    }

    bool isComplete() const { return options_.bytes && recorded_ >= *options_.bytes; }

    // Moves what the buffer holds, up to a chunk, to the output; returns the number of bytes.
    size_t record() {
        size_t most = chunk_.size();
        if (options_.bytes)
            most = static_cast<size_t>(std::min<uint64_t>(most, *options_.bytes - recorded_));
        const size_t taken = channel_.receive(std::span(chunk_).first(most));
        const auto data = std::span<const uint8_t>(chunk_).first(taken);
        splitter_.feed(data, [this](const uint8_t* packet) { continuity_.add(packet); });
        if (!output_.write(data, stop_))
            throw Failure(
                fmt::format("stopped by {} while nobody read {}", stop_.name(), output_.name()));
        recorded_ += taken;
        return taken;
    }

    // What had come when the end was asked for still belongs to the recording; what goes on coming
    // does not, there may be no end to it.
    void recordRest() {
        size_t rest = channel_.bufferedBytes();
        while (rest > 0 && !isComplete()) {
            const size_t taken = record();
            if (taken == 0)
                return;
            rest -= std::min(taken, rest);
        }
    }

    void showProgress() {
        if (progress_.due())
            progress_.show(fmt::format(
                "{}  {}  {}  measured {}  {} continuity errors", formatTime(progress_.elapsed()),
                formatBytes(recorded_), channel_.isRtp() ? "rtp" : "raw",
                formatBitrate(channel_.measuredBitrate()), continuity_.errors()));
    }

    const ReceiveOptions& options_;
    const StreamUrl& url_;
    Output& output_;
    StopSignal& stop_;
    Progress progress_;
    ReceiveChannel channel_;
    std::vector<uint8_t> chunk_;
    PacketSplitter splitter_;
    ContinuityCounter continuity_;
    uint64_t recorded_ = 0;
};

}  // namespace

void runReceive(const ReceiveOptions& options) {
    const StreamUrl url = parseStreamUrl(options.url);
    receiveConfig(url);           // refuses what cannot be received from before anything is opened
    Output output(options.file);  // may wait for the reader of a FIFO
    StopSignal stop;
    HostModule module;
    Receiving receiving(options, url, module, output, stop);
    receiving.run();
    receiving.conclude();
}

void addReceiveCommand(CLI::App& app) {
    struct Arguments {
        ReceiveOptions options;
        std::string bytes;
        std::string duration;
    };
    auto* const command = app.add_subcommand("receive", "Record a transport stream");
    const auto given = std::make_shared<Arguments>();
    command
        ->add_option("URL", given->options.url,
                     "Group to join, or local address to listen on (udp://@:5000 = any)")
        ->required()
        ->type_name("");
    command->add_option("FILE", given->options.file, "Where to record; - is standard output")
        ->required()
        ->type_name("");
    command
        ->add_option("-d,--duration", given->duration,
                     "End this many seconds after the socket was opened")
        ->type_name("SECONDS");
    command
        ->add_option("-n,--bytes", given->bytes,
                     "End after exactly this many bytes (also with k, M, G)")
        ->type_name("NUMBER");
    command->footer(fmt::format(
        "Raw and RTP streams are told apart by themselves, whatever the scheme.\n"
        "Done (0) when --bytes have come; without it when the time is up, or SIGINT or SIGTERM\n"
        "comes, and anything was received.\n{}",
        urlHelp()));
    command->callback([given] {
        if (!given->bytes.empty())
            given->options.bytes = quantity("--bytes", given->bytes, 1, INT64_MAX);
        if (!given->duration.empty())
            given->options.duration = duration("--duration", given->duration, 0.001, 1e9);
        runReceive(given->options);
    });
}
