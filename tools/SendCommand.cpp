#include "SendCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "CommandLine.h"
#include "Errors.h"
#include "HostModule.h"
#include "PacketSource.h"
#include "Progress.h"
#include "Quantity.h"
#include "StopSignal.h"
#include "StreamUrl.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kChannel = 0;
constexpr size_t kChunkPackets = 16 * kPacketsPerDatagram;
constexpr auto kPollInterval = 2ms;
constexpr auto kSourceWait = 20ms;
constexpr auto kLastDatagram = 1s;  // for it to be counted
constexpr auto kPatience = 3s;  // with a socket that does not open, or datagrams that do not leave

// A channel takes a look at this many bytes before it sends the first datagram.
constexpr size_t kDetectionBytes = 2048;

uint32_t chooseBitrate(const SendOptions& options, const PacketSource& source) {
    if (options.bitrate_bps)
        return *options.bitrate_bps;
    const auto measured = source.bitrate();
    if (!measured)
        throw Failure(fmt::format("{} has no PCRs to tell its rate by; give it with --bitrate",
                                  source.name()));
    if (*measured == 0 || *measured > UINT32_MAX)
        throw Failure(fmt::format("by its PCRs, {} has {} bit/s; give its rate with --bitrate",
                                  source.name(), *measured));
    return static_cast<uint32_t>(*measured);
}

class Sending {
  public:
    Sending(PacketSource& source, HostModule& module, const StreamUrl& url, uint32_t bitrate_bps,
            StopSignal& stop)
        : source_(source),
          url_(url),
          bitrate_bps_(bitrate_bps),
          stop_(stop),
          payload_(kPacketsPerDatagram * source.packetSize()),
          channel_(module, kChannel, sendConfig(url), bitrate_bps) {}

    // False when stopped by a signal.
    bool run() { return waitForSocket() && feed() && pad() && drain() && confirm(); }

    void summarise() {
        progress_.summary(fmt::format("sent {} in {} to {}: {} datagrams at {}",
                                      formatBytes(channel_.datagrams() * payload_),
                                      formatTime(progress_.elapsed()), url_.text,
                                      channel_.datagrams(), formatBitrate(bitrate_bps_)));
    }

  private:
    bool waitForSocket() {
        while (!channel_.socketIsOpen()) {
            if (!attend())
                return false;
            std::this_thread::sleep_for(kPollInterval);
        }
        return true;
    }

    bool feed() {
        const size_t chunk = kChunkPackets * source_.packetSize();
        while (!source_.ended()) {
            if (!attend())
                return false;
            if (channel_.freeBytes() < chunk)
                std::this_thread::sleep_for(kPollInterval);
            else
                hand(source_.take(chunk, kSourceWait));
        }
        return true;
    }

    // Only whole datagrams leave, and none before the channel has seen enough to tell the packet
    // size: null packets make up for what is missing.
    bool pad() {
        std::vector<uint8_t> padding;
        while ((handed_ + padding.size()) % payload_ != 0 ||
               handed_ + padding.size() < kDetectionBytes)
            appendNullPackets(padding, source_.packetSize(), 1);
        while (channel_.freeBytes() < padding.size()) {
            if (!attend())
                return false;
            std::this_thread::sleep_for(kPollInterval);
        }
        hand(padding);
        return true;
    }

    bool drain() {
        while (channel_.bufferedBytes() >= payload_) {
            if (!attend())
                return false;
            std::this_thread::sleep_for(kPollInterval);
        }
        return true;
    }

    // The last datagram is counted a moment after it was taken from the buffer.
    bool confirm() {
        const uint64_t expected = handed_ / payload_;
        const auto deadline = Clock::now() + kLastDatagram;
        while (channel_.datagrams() < expected && Clock::now() < deadline)
            std::this_thread::sleep_for(kPollInterval);
        const uint64_t sent = channel_.datagrams();
        if (sent < expected)
            throw Failure(fmt::format("{} of {} datagrams could not be sent to {}", expected - sent,
                                      expected, url_.text));
        return true;
    }

    void hand(std::span<const uint8_t> data) {
        // A refusal means that the channel is cancelled; attend() tells why.
        if (channel_.send(data))
            handed_ += data.size();
    }

    // What has to be looked after all the time. False when a signal asks for the end.
    bool attend() {
        if (channel_.isCancelled())
            throw Failure(
                fmt::format("{} is not a transport stream any more after about {} bytes: "
                            "the channel stopped",
                            source_.name(), channel_.datagrams() * payload_));
        watchSocket();
        watchDatagrams();
        if (progress_.due())
            progress_.show(fmt::format(
                "{}  {}  asked {}  measured {}", formatTime(progress_.elapsed()),
                formatBytes(channel_.datagrams() * payload_), formatBitrate(bitrate_bps_),
                formatBitrate(channel_.measuredBitrate())));
        return !stop_.requested();
    }

    void watchSocket() {
        if (channel_.socketIsOpen())
            socketSeen_ = Clock::now();
        else if (Clock::now() - socketSeen_ > kPatience)
            throw Failure(fmt::format(
                "no socket could be opened to send to {}{}", url_.text,
                url_.localAddress.empty()
                    ? "; is there a route to it?"
                    : fmt::format("; is {} an address of this machine?", url_.localAddress)));
    }

    // A datagram that could not be sent has left the buffer, but is not counted.
    void watchDatagrams() {
        const uint64_t taken =
            (handed_ - std::min<uint64_t>(handed_, channel_.bufferedBytes())) / payload_;
        const uint64_t sent = channel_.datagrams();
        if (sent != sentSeen_) {
            sentSeen_ = sent;
            takenThen_ = taken;
            sentTime_ = Clock::now();
        } else if (taken <= takenThen_ + 1) {
            sentTime_ = Clock::now();
        } else if (Clock::now() - sentTime_ > kPatience) {
            throw Failure(fmt::format("the datagrams cannot be sent to {}; is there a route to it?",
                                      url_.text));
        }
    }

    PacketSource& source_;
    const StreamUrl& url_;
    const uint32_t bitrate_bps_;
    StopSignal& stop_;
    const size_t payload_;
    Progress progress_;
    SendChannel channel_;
    uint64_t handed_ = 0;
    Clock::time_point socketSeen_ = Clock::now();
    Clock::time_point sentTime_ = Clock::now();
    uint64_t sentSeen_ = 0;
    uint64_t takenThen_ = 0;
};

}  // namespace

void runSend(const SendOptions& options) {
    const StreamUrl url = parseStreamUrl(options.url);
    sendConfig(url);  // refuses what cannot be sent to before anything is opened
    PacketSource source(options.file, options.loop);  // may wait for the writer of a FIFO
    StopSignal stop;
    source.open(!options.bitrate_bps, stop);
    if (!stop.requested()) {
        const uint32_t bitrate_bps = chooseBitrate(options, source);
        HostModule module;
        Sending sending(source, module, url, bitrate_bps, stop);
        sending.run();
        sending.summarise();
    }
    // A loop has no other end.
    if (stop.requested() && !options.loop)
        throw Failure(
            fmt::format("stopped by {} before the end of {}", stop.name(), source.name()));
}

void addSendCommand(CLI::App& app) {
    struct Arguments {
        SendOptions options;
        std::string bitrate;
    };
    auto* const command = app.add_subcommand("send", "Send a transport stream");
    const auto given = std::make_shared<Arguments>();
    command->add_option("FILE", given->options.file, "Stream to send; - is standard input")
        ->required()
        ->type_name("");
    command->add_option("URL", given->options.url, "Where to send it")->required()->type_name("");
    command
        ->add_option("-b,--bitrate", given->bitrate,
                     "Bits per second, like 2500000, 2500k or 2.5M; without it, the rate of the "
                     "stream's PCRs")
        ->type_name("RATE");
    command->add_flag("-l,--loop", given->options.loop, "Repeat the file until a signal comes");
    command->footer(fmt::format(
        "Packets have 188 or 204 bytes; the rate counts all of them. The last datagram is filled\n"
        "up with null packets. Done (0) when all has left, or with --loop when SIGINT or SIGTERM\n"
        "comes.\n{}",
        urlHelp()));
    command->callback([given] {
        if (!given->bitrate.empty())
            given->options.bitrate_bps = bitrate("--bitrate", given->bitrate);
        runSend(given->options);
    });
}
