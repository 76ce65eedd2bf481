#include "commands/DemoCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/DemoStream.h"
#include "engine/HostModule.h"
#include "media/LoopbackProbe.h"
#include "media/StreamUrl.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kChannels = QXV_RTP_CHANNELS;
constexpr auto kPollInterval = 2ms;
constexpr auto kSampleInterval = 250ms;
constexpr auto kSocketPatience = 10s;
constexpr auto kIdlePatience = 5s;    // for datagrams that have been sent but have not come
constexpr auto kExtraPatience = 30s;  // beyond the length of the stream

struct Abilities {
    bool ipv4Groups;
    bool ipv6;
    bool ipv6Groups;
};

std::string groupHost(bool ipv6, uint32_t number) {
    // From the ranges for use within a site; the process id keeps two runs apart.
    const auto pid = static_cast<uint32_t>(getpid());
    return ipv6 ? fmt::format("[ff15::{:x}:{:x}]", pid & 0xFFFF, number + 1)
                : fmt::format("239.255.{}.{}", pid & 0xFF, number + 1);
}

StreamUrl makeUrl(bool rtp, bool ipv6, bool group, uint32_t number, uint16_t port) {
    const char* const local = ipv6 ? "[::1]" : "127.0.0.1";
    // A TTL of 0 keeps the datagrams on this machine, whatever its routes are.
    return parseStreamUrl(fmt::format("{}://{}:{}?localaddr={}&ttl=0", rtp ? "rtp" : "udp",
                                      group ? groupHost(ipv6, number) : local, port, local));
}

Abilities probeLoopback() {
    const bool ipv6 = loopbackCarries(makeUrl(false, true, false, 0, 1));
    return {loopbackCarries(makeUrl(false, false, true, 0, 1)), ipv6,
            ipv6 && loopbackCarries(makeUrl(false, true, true, 0, 1))};
}

void printNotes(const Abilities& can) {
    if (!can.ipv6)
        fmt::print("note: no IPv6 on the loopback interface; IPv4 is used instead\n");
    else if (!can.ipv6Groups)
        fmt::print(
            "note: no route for IPv6 groups on the loopback interface; IPv6 unicast is used "
            "instead\n");
    if (!can.ipv4Groups)
        fmt::print("note: no IPv4 groups on the loopback interface; unicast is used instead\n");
}

// Compares what comes with what was sent, datagram by datagram, so that a lost one is not taken for
// a difference in all that follows.
//
// Thread safety: one thread checks; arrived() may be called from any.
class Checker {
  public:
    Checker(const DemoStream& stream, size_t first) : stream_(stream), first_(first) {}

    void check(std::span<const uint8_t> datagram) {
        constexpr size_t kSearch = 5000;
        const size_t limit = std::min(stream_.datagrams(), next_ + kSearch);
        size_t index = next_;
        while (index < limit && !std::ranges::equal(datagram, at(index)))
            ++index;
        if (index < limit) {
            lost_ += index - next_;
            next_ = index + 1;
        } else {
            ++different_;
        }
        // Relaxed: a count for the display and the deadlines; the results are read after the join.
        arrived_.fetch_add(1, std::memory_order_relaxed);
    }

    // Every channel sends the stream from another place on, and from its end goes on at its
    // beginning: bytes that end up in the wrong channel are then different bytes.
    std::span<const uint8_t> at(size_t index) const {
        return stream_.datagram((first_ + index) % stream_.datagrams());
    }

    uint64_t arrived() const { return arrived_.load(std::memory_order_relaxed); }
    uint64_t lost() const { return lost_ + (stream_.datagrams() - next_); }
    uint64_t different() const { return different_; }

  private:
    const DemoStream& stream_;
    const size_t first_;
    size_t next_ = 0;
    uint64_t lost_ = 0;
    uint64_t different_ = 0;
    std::atomic<uint64_t> arrived_{0};
};

struct Pair {
    Pair(const DemoStream& stream, uint32_t channel, StreamUrl address)
        : url(std::move(address)), checker(stream, channel * stream.datagrams() / kChannels) {}

    StreamUrl url;
    Checker checker;
    size_t handed = 0;            // datagrams; the feeder's
    std::vector<uint32_t> rates;  // measured on the receive channel while the stream flows
    uint64_t sent = 0;            // the results, taken before the channels end
    bool rtp = false;
    bool clean = true;
    std::unique_ptr<ReceiveChannel> receiver;
    std::unique_ptr<SendChannel> sender;
};

class Demo {
  public:
    Demo(const DemoStream& stream, const Abilities& can, uint16_t firstPort, StopSignal& stop)
        : stream_(stream), stop_(stop) {
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            const bool rtp = (channel & 1) != 0;
            const bool ipv6 = (channel & 2) != 0 && can.ipv6;
            const bool group = (channel & 4) != 0 && (ipv6 ? can.ipv6Groups : can.ipv4Groups);
            const auto port = static_cast<uint16_t>(firstPort + channel);
            pairs_.push_back(
                std::make_unique<Pair>(stream, channel, makeUrl(rtp, ipv6, group, channel, port)));
        }
    }

    void run() {
        startChannels();
        std::jthread feeder([this](const std::stop_token& token) { feed(token); });
        std::jthread reader([this](const std::stop_token& token) { read(token); });
        watch();
        feeder.request_stop();
        feeder.join();
        reader.request_stop();
        reader.join();
        for (auto& pair : pairs_) {
            pair->sent = pair->sender->datagrams();
            pair->rtp = pair->receiver->isRtp();
            pair->clean = pair->receiver->bufferedBytes() == 0;
        }
        progress_.summary(fmt::format("took {}", formatTime(progress_.elapsed())));
    }

    // True when every channel is as it should be.
    bool report() const {
        constexpr auto kRow = "{:>7}  {:<30}  {:<4}  {:>14}  {:>14}  {:>9}  {:>5}  {}\n";
        fmt::print(fmt::runtime(kRow), "channel", "address", "mode", "asked", "measured",
                   "datagrams", "lost", "verdict");
        bool good = true;
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            const Pair& pair = *pairs_[channel];
            const std::string verdict = judge(pair);
            good = good && verdict == "ok";
            fmt::print(fmt::runtime(kRow), channel,
                       pair.url.text.substr(0, pair.url.text.find('?')), pair.rtp ? "rtp" : "raw",
                       formatBitrate(stream_.bitrate_bps), medianRate(pair), pair.sent,
                       pair.checker.lost(), verdict);
        }
        return good;
    }

  private:
    // The receivers come first, so that nothing is sent before somebody listens.
    void startChannels() {
        for (uint32_t channel = 0; channel < kChannels; ++channel)
            pairs_[channel]->receiver = std::make_unique<ReceiveChannel>(
                module_, channel, receiveConfig(receiverUrl(pairs_[channel]->url)));
        const auto deadline = Clock::now() + kSocketPatience;
        for (const auto& pair : pairs_) {
            while (!pair->receiver->socketIsOpen()) {
                if (stop_.requested())
                    throw Failure(fmt::format("stopped by {}", stop_.name()));
                if (Clock::now() > deadline)
                    throw Failure(fmt::format("no socket could be opened for {}", pair->url.text));
                std::this_thread::sleep_for(kPollInterval);
            }
        }
        for (uint32_t channel = 0; channel < kChannels; ++channel)
            pairs_[channel]->sender = std::make_unique<SendChannel>(
                module_, channel, sendConfig(pairs_[channel]->url), stream_.bitrate_bps);
    }

    // A unicast receiver listens on the address that the sender sends to.
    static StreamUrl receiverUrl(StreamUrl url) {
        if (!url.multicast)
            url.localAddress.clear();
        return url;
    }

    void feed(const std::stop_token& token) {
        bool busy = true;
        for (bool left = true; left && !token.stop_requested();) {
            if (!busy)
                std::this_thread::sleep_for(kPollInterval);
            busy = left = false;
            for (const auto& pair : pairs_) {
                if (pair->handed == stream_.datagrams())
                    continue;
                left = true;
                // Only what fits, so that no channel waits for another.
                if (pair->sender->freeBytes() < stream_.payloadBytes())
                    continue;
                if (pair->sender->send(pair->checker.at(pair->handed))) {
                    ++pair->handed;
                    busy = true;
                }
            }
        }
    }

    void read(const std::stop_token& token) {
        std::vector<uint8_t> datagram(stream_.payloadBytes());
        for (bool busy = true; busy || !token.stop_requested();) {
            if (!busy)
                std::this_thread::sleep_for(kPollInterval);
            busy = false;
            for (const auto& pair : pairs_) {
                if (pair->receiver->bufferedBytes() < datagram.size())
                    continue;
                if (pair->receiver->receive(datagram) == datagram.size()) {
                    pair->checker.check(datagram);
                    busy = true;
                }
            }
        }
    }

    // Returns when all has come, when nothing more comes, or when the time is up.
    void watch() {
        const std::chrono::duration<double> length(static_cast<double>(stream_.data.size()) * 8.0 /
                                                   stream_.bitrate_bps);
        const auto deadline =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(length) + kExtraPatience;
        auto lastChange = Clock::now();
        auto nextSample = lastChange + kSampleInterval;
        uint64_t seen = 0;
        const uint64_t all = kChannels * stream_.datagrams();
        // A datagram may have arrived before its sender has counted it.
        while (std::min(seen, sentSeen_) < all && Clock::now() < deadline &&
               Clock::now() - lastChange < kIdlePatience) {
            std::this_thread::sleep_for(10ms);
            if (stop_.requested())
                throw Failure(fmt::format("stopped by {}", stop_.name()));
            uint64_t arrived = 0;
            uint64_t sent = 0;
            for (const auto& pair : pairs_) {
                arrived += pair->checker.arrived();
                sent += pair->sender->datagrams();
            }
            if (arrived + sent != seen + sentSeen_)
                lastChange = Clock::now();
            seen = arrived;
            sentSeen_ = sent;
            if (Clock::now() >= nextSample) {
                sampleRates();
                nextSample += kSampleInterval;
            }
            if (progress_.due())
                progress_.show(fmt::format("{}  {} of {} datagrams arrived",
                                           formatTime(progress_.elapsed()), arrived, all));
        }
    }

    void sampleRates() {
        for (const auto& pair : pairs_) {
            const uint32_t rate = pair->receiver->measuredBitrate();
            if (rate != 0 && pair->sender->datagrams() < stream_.datagrams())
                pair->rates.push_back(rate);
        }
    }

    static std::string medianRate(const Pair& pair) {
        if (pair.rates.empty())
            return "-";
        std::vector<uint32_t> rates = pair.rates;
        const auto middle = rates.begin() + static_cast<std::ptrdiff_t>(rates.size() / 2);
        std::nth_element(rates.begin(), middle, rates.end());
        return formatBitrate(*middle);
    }

    std::string judge(const Pair& pair) const {
        if (pair.checker.different() > 0 || !pair.clean)
            return fmt::format("differs ({})", pair.checker.different());
        if (pair.checker.lost() > 0)
            return "incomplete";
        if (pair.sent != stream_.datagrams())
            return "not all sent";
        return pair.rtp == pair.url.rtp ? "ok" : "wrong mode";
    }

    const DemoStream& stream_;
    StopSignal& stop_;
    Progress progress_;
    HostModule module_;
    std::vector<std::unique_ptr<Pair>> pairs_;
    uint64_t sentSeen_ = 0;
};

}  // namespace

void runDemo(const DemoOptions& options) {
    StopSignal stop;
    const DemoStream stream = loadDemoStream(options.file, options.sample, options.seconds, stop);
    if (stop.requested())
        throw Failure(fmt::format("stopped by {}", stop.name()));
    const auto firstPort = findFreePorts(kChannels);
    if (!firstPort)
        throw Failure("no 16 free UDP ports in a row");
    const Abilities can = probeLoopback();

    fmt::print("stream: {}, {} datagrams of {} packets of {} bytes, {}\n", stream.origin,
               stream.datagrams(), kPacketsPerDatagram, stream.packetSize,
               formatBitrate(stream.bitrate_bps));
    printNotes(can);
    Demo demo(stream, can, *firstPort, stop);
    demo.run();
    const bool good = demo.report();
    fmt::print(
        "measured: median of the receive channels' once-a-second values while the stream "
        "flowed\n");
    if (!good)
        throw Failure("not every channel delivered what was sent");
}

CommandModel demoCommand() {
    struct Arguments {
        DemoOptions options;
        std::string duration;
    };
    CommandModel command("demo",
                         "Send a stream over all 16 channels on loopback, and check what arrives");
    const auto given = std::make_shared<Arguments>();
    command.addArgument("FILE", given->options.file,
                        "Stream to send; without it, one that ffmpeg makes, or else a sample");
    command.addOption("-d,--duration", given->duration, "SECONDS",
                      fmt::format("Length of the stream, {} if not given", given->options.seconds));
    command.addOption("--sample", given->options.sample, "FILE",
                      "Stream to send without FILE; ffmpeg is not run then");
    command.footer =
        "Succeeds (0) when every byte came back on every channel. " + std::string(kExitCodes);
    command.action = [given] {
        if (!given->duration.empty())
            given->options.seconds =
                std::chrono::duration<double>(duration("--duration", given->duration, 0.1, 3600.0))
                    .count();
        runDemo(given->options);
    };
    return command;
}
