#include "commands/RelayCommand.h"

#include <fmt/format.h>

#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <numeric>
#include <thread>
#include <utility>

#include "PacedQueue.h"
#include "TransportStream.h"
#include "base/Errors.h"
#include "base/Quantity.h"
#include "base/StopSignal.h"
#include "commandline/CommandLine.h"
#include "commandline/CommandModel.h"
#include "commands/ConfigCommand.h"
#include "commands/Failures.h"
#include "commands/RelayOutput.h"
#include "config/ConfigFile.h"
#include "config/ConfigRules.h"
#include "engine/HostModule.h"
#include "media/StreamUrl.h"
#include "terminal/Progress.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kTick = 1ms;
constexpr size_t kChunkBytes = size_t{256} * 1024;
constexpr auto kPause = 500ms;  // what is left of a datagram then leaves
constexpr auto kDraining = 1s;  // for what is to leave before a channel is started again
// A channel takes a look at this many bytes before it sends the first datagram.
constexpr uint64_t kDetectionDatagrams = 2;

// A job with its addresses read.
struct Route {
    StreamUrl from;
    std::vector<StreamUrl> to;
    std::optional<uint32_t> bitrate_bps;
};

std::vector<Route> makeRoutes(const std::vector<RelayJob>& jobs) {
    std::vector<Route> routes;
    for (const RelayJob& job : jobs) {
        Route& route = routes.emplace_back(Route{parseStreamUrl(job.from), {}, job.bitrate_bps});
        for (const std::string& to : job.to)
            route.to.push_back(parseStreamUrl(to));
    }
    return routes;
}

// One input and its outputs.
class Relay {
  public:
    Relay(HostModule& module, const Route& route, uint32_t input, uint32_t firstOutput,
          Progress& progress)
        : route_(route),
          channel_(module, input, receiveConfig(route.from)),
          chunk_(kChunkBytes),
          queue_(route.bitrate_bps) {
        for (const StreamUrl& url : route.to)
            outputs_.emplace_back(module, firstOutput++, url, route.bitrate_bps.has_value(),
                                  progress);
    }

    // The outputs are cancelled before the first of them is ended.
    ~Relay() { cancel(); }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    void cancel() {
        for (RelayOutput& output : outputs_)
            output.cancel();
    }

    void tick(Clock::time_point now) {
        watchSocket(now);
        const double seconds = std::chrono::duration<double>(now - start_).count();
        takeInput(now, seconds);
        if (awaitingRestart_ && !restartOutputs(now))
            return;
        for (auto datagram = queue_.takeDatagram(seconds); !datagram.empty();
             datagram = queue_.takeDatagram(seconds))
            hand(datagram);
        if (now - lastInput_ > kPause)
            handRest();
        for (RelayOutput& output : outputs_)
            output.attend(now);
    }

    std::string describe() const {
        uint32_t buffered = 0;
        uint64_t dropped = 0;
        uint64_t changes = 0;
        for (const RelayOutput& output : outputs_) {
            buffered = std::max(buffered, output.buffered_ms());
            dropped += output.dropped();
            changes += output.rateChanges();
        }
        return fmt::format("{} {} {}, delay {:.0f} + {} ms, {}, {} of rate, {}, {} dropped",
                           formatBytes(bytes_), channel_.isRtp() ? "rtp" : "raw",
                           formatBitrate(queue_.bitrate().value_or(0)), queue_.delay() * 1e3,
                           buffered, counted(queue_.offsets(), "break"), counted(changes, "change"),
                           counted(continuity_.errors(), "continuity error"),
                           counted(dropped, "datagram"));
    }

    const std::string& name() const { return route_.from.text; }

  private:
    void watchSocket(Clock::time_point now) {
        everOpen_ = everOpen_ || channel_.socketIsOpen();
        if (!everOpen_ && now - start_ > kSocketPatience)
            throw ReceiveChannel::noSocket(route_.from);
    }

    // Whole packets only: a channel under RTP cancels itself where one does not begin where it
    // should.
    void takeInput(Clock::time_point now, double seconds) {
        const size_t taken = channel_.receive(chunk_);
        if (taken == 0)
            return;
        bytes_ += taken;
        lastInput_ = now;
        splitter_.feed(std::span(chunk_).first(taken), [&](const uint8_t* packet) {
            if (splitter_.packetSize() != packetSize_)
                changePacketSize(now);
            continuity_.add(packet);
            queue_.add(packet, packetSize_, seconds);
        });
    }

    // A channel looks at the size of packets once. Those of the old size leave first.
    void changePacketSize(Clock::time_point now) {
        if (packetSize_ != 0) {
            handRest();
            queue_ = PacedQueue(route_.bitrate_bps);
            offsetsSeen_ = 0;
            awaitingRestart_ = now + kDraining;
        }
        packetSize_ = splitter_.packetSize();
    }

    bool restartOutputs(Clock::time_point now) {
        const bool drained =
            std::all_of(outputs_.begin(), outputs_.end(),
                        [](const RelayOutput& output) { return output.drained(); });
        if (!drained && now < *awaitingRestart_)
            return false;
        for (RelayOutput& output : outputs_)
            output.restart();
        awaitingRestart_.reset();
        return true;
    }

    void hand(std::span<const uint8_t> datagram) {
        // At a break, the stream may have got another rate.
        const auto bitrate = queue_.bitrate();
        const bool again = offsetsSeen_ != queue_.offsets();
        offsetsSeen_ = queue_.offsets();
        for (RelayOutput& output : outputs_) {
            if (bitrate && (again || output.handed() == 0))
                output.setStreamRate(*bitrate);
            output.hand(datagram);
        }
    }

    // The input has paused: the end of what has come must not wait for it to go on. Null packets
    // fill the last datagram, and what a channel needs to begin with.
    void handRest() {
        for (auto rest = queue_.takeRest(); !rest.empty(); rest = queue_.takeRest())
            hand(rest);
        std::vector<uint8_t> padding;
        for (RelayOutput& output : outputs_) {
            if (output.handed() == 0 || output.handed() >= kDetectionDatagrams)
                continue;
            padding.clear();
            appendNullPackets(padding, packetSize_, kPacketsPerDatagram);
            output.hand(padding);
        }
    }

    const Route& route_;
    ReceiveChannel channel_;
    std::vector<uint8_t> chunk_;
    PacketSplitter splitter_;
    ContinuityCounter continuity_;
    PacedQueue queue_;
    std::list<RelayOutput> outputs_;
    size_t packetSize_ = 0;
    std::optional<Clock::time_point> awaitingRestart_;
    uint64_t offsetsSeen_ = 0;
    uint64_t bytes_ = 0;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point lastInput_ = start_;
    bool everOpen_ = false;
};

// One thread for all relays: nothing in a tick waits. Thread safety: relays that have failed are
// ended by other threads, which nothing else is shared with but the module.
class Relays {
  public:
    Relays(HostModule& module, const std::vector<Route>& routes)
        : failures_(routes.size(), progress_) {
        uint32_t output = 0;
        uint32_t input = 0;
        for (const Route& route : routes) {
            guard([&] {
                relays_.push_back(std::make_unique<Relay>(module, route, input, output, progress_));
            });
            ++input;
            output += static_cast<uint32_t>(route.to.size());
        }
    }

    ~Relays() {
        for (const auto& relay : relays_)
            relay->cancel();
    }
    Relays(const Relays&) = delete;
    Relays& operator=(const Relays&) = delete;

    void run(StopSignal& stop) {
        auto next = Clock::now();
        while (!relays_.empty() && !stop.requested()) {
            const auto now = Clock::now();
            std::erase_if(relays_, [&](auto& relay) {
                if (guard([&] { relay->tick(now); }))
                    return false;
                end(std::move(relay));
                return true;
            });
            if (progress_.due())
                progress_.show(fmt::format("{}  {}", formatTime(progress_.elapsed()), describe()));
            // After a hold-up, ticks that were missed do not come.
            next = std::max(next + kTick, now);
            std::this_thread::sleep_until(next);
        }
        for (const auto& relay : relays_)
            progress_.summary(fmt::format("relayed {} in {}: {}", relay->name(),
                                          formatTime(progress_.elapsed()), relay->describe()));
        failures_.conclude("relays");
    }

  private:
    template <typename Work>
    bool guard(const Work& work) {
        try {
            work();
            return true;
        } catch (const Failure& failure) {
            failures_.add(failure.what());
            return false;
        }
    }

    // Channels whose sockets do not open take up to a second to end, for which the other relays do
    // not wait.
    void end(std::unique_ptr<Relay> relay) {
        ending_.push_back(std::async(std::launch::async,
                                     [relay = std::move(relay)]() mutable { relay.reset(); }));
    }

    std::string describe() const {
        return relays_.size() == 1 ? relays_.front()->describe()
                                   : fmt::format("{} relays", relays_.size());
    }

    Progress progress_;
    Failures failures_;
    std::vector<std::unique_ptr<Relay>> relays_;
    std::vector<std::future<void>> ending_;
};

}  // namespace

void runRelay(const std::vector<RelayJob>& jobs) {
    const auto routes = makeRoutes(jobs);
    StopSignal stop;
    HostModule module;
    Relays(module, routes).run(stop);
}

CommandModel relayCommand() {
    struct Arguments {
        RelayJob job;
        std::string bitrate;
        std::string config;
    };
    CommandModel command("relay", "Forward an incoming stream to other addresses");
    const auto given = std::make_shared<Arguments>();
    command
        .addArgument("FROM", given->job.from,
                     "Group to join, or local address to listen on (udp://@:5000 = any)", "URL")
        .require();
    command.addArguments("TO", given->job.to, "Where to forward it; up to 16 URLs", "URL")
        .require();
    command.addOption("-b,--bitrate", given->bitrate, "RATE",
                      "Rate of the stream in bits per second, like 2500000, 2500k or 2.5M; without "
                      "it, the stream flows by its PCRs, or as it arrives where it has none");
    addConfigOption(command, given->config);
    command.footer = fmt::format(
        "Whether the input is raw or RTP is detected; each output has the form of its URL. The "
        "input\n"
        "may pause, or change its rate, its packet size or its form; bytes that are not packets "
        "are\n"
        "left out. Packets leave {:.0f} ms after they came, on average, and at most {:.1f} s: that "
        "evens out\n"
        "jitter of the network. The pace is steered by up to {:.1f} %, so that a source with "
        "another\n"
        "clock is followed for as long as it runs. When the input pauses for half a second, null\n"
        "packets fill up the last datagram. An output that takes less than comes loses whole\n"
        "datagrams, which is reported; the others are not affected.\n"
        "\n"
        "Examples:\n"
        "  qxvrtp relay rtp://239.1.1.1:5000 udp://192.0.2.8:5000\n"
        "  qxvrtp relay 'udp://239.1.1.1:5000?localaddr=192.0.2.7' rtp://[2001:db8::8]:5000 \\\n"
        "      'rtp://239.2.2.2:5000?ttl=4&localaddr=198.51.100.7'\n"
        "\n"
        "Ends with SIGINT or SIGTERM, successfully (0). Fails (1) where a socket could not be "
        "opened to\n"
        "begin with.\n{}",
        PacedQueue::kDelay * 1e3, PacedQueue::kMostDelay, PacedQueue::kSteering * 1e2, urlHelp());
    command.action = [given] {
        if (!given->bitrate.empty())
            given->job.bitrate_bps = bitrate("--bitrate", given->bitrate);
        if (given->config.empty())
            checkArguments(given->job);
        runRelay(given->config.empty() ? std::vector<RelayJob>{given->job}
                                       : readRelayJobs(given->config));
    };
    return command;
}
