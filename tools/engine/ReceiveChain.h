// One received stream on its way from its input to its output.
#ifndef TOOLS_ENGINE_RECEIVECHAIN_H
#define TOOLS_ENGINE_RECEIVECHAIN_H

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "PacketSieve.h"
#include "engine/HostModule.h"
#include "engine/Jobs.h"
#include "engine/StreamInput.h"
#include "engine/StreamSocket.h"
#include "media/FileOutput.h"

// What the chains of one thread share.
struct CollectingMeans {
    std::vector<uint8_t> space;  // for data
    SocketMeans sockets;
};

// Takes what the input holds, and writes its packets. Where the output takes nothing at the moment,
// the input is the queue: it holds 4 MiB, and drops what comes beyond.
//
// What fails is tried again once a second, for as long as it takes: an output that cannot be
// opened or written, a socket, a channel that is refused. It is reported when it begins and when it
// is over. The chain ends with an error only where it was started with a patience that is used up
// before anything could be received, and when the reader of standard output has gone.
//
// Thread safety: one thread serves it; any thread reads the figures and asks for the end.
class ReceiveChain {
  public:
    using Clock = std::chrono::steady_clock;
    using Report = std::function<void(const std::string&)>;

    // With a patience, the output must be there at once and the socket within that time. The module
    // outlives the chain, and has been loaded when the chain is served, if its input needs it.
    ReceiveChain(const ReceiveJob& job, ModuleOnDemand& module,
                 std::optional<Clock::duration> patience, Report report);

    const ReceiveJob& job() const { return job_; }

    // Tries to open the output, before the chain is served.
    void open();
    const FileOutput& output() const { return output_; }

    // Does what is to be done now. `stop` names the signal that asks for the end, which comes
    // within a second, or is null. The means are the same each time, and outlive the serving.
    void serve(CollectingMeans& means, const char* stop);
    // Asks for the end of this chain alone.
    void askForEnd(const char* signal) { ownStop_ = signal; }

    // Ends the chain, and gives the input and the output back; no error = done.
    void end(const std::string& error);

    bool hasEnded() const { return state_ == State::kEnded; }
    // It has to be served at this time, and earlier when the full pipe has room again.
    Clock::time_point due() const;
    int fullPipe() const { return pipeIsFull_ ? output_.descriptor() : -1; }
    // The part of the input's queue that was filled when it was served last; 0 when the output was
    // full.
    double filled() const { return filled_; }

    struct Figures {
        std::atomic<uint64_t> bytes{0};
        std::atomic<uint64_t> continuityErrors{0};
        std::atomic<uint32_t> bitrate_bps{0};
        std::atomic<bool> rtp{false};
        std::atomic<bool> ended{false};
    };
    const Figures& figures() const { return figures_; }
    // For other processes to see; as of half a second ago at most.
    StreamState state() const {
        const std::lock_guard lock(lock_);
        return shown_;
    }

    // These hold once `ended` is set.
    const std::string& error() const { return error_; }  // empty = done
    const PacketSieve& packets() const { return sieve_; }
    const std::optional<RepairReport>& repairs() const { return repairs_; }
    uint64_t datagrams() const { return datagrams_; }
    uint64_t datagramsDropped() const { return dropped_; }
    Clock::duration sinceOpened() const { return closed_ - opened_; }
    Clock::duration withData() const {
        return firstData_ == Clock::time_point() ? Clock::duration(0) : lastData_ - firstData_;
    }

  private:
    enum class State { kOpening, kConnecting, kReceiving, kEnding, kEnded };

    // Something that does not work at the moment.
    struct Outage {
        std::optional<Clock::time_point> since;
        bool isReported = false;
    };
    void goesOn(Outage& outage, const std::string& what, Clock::duration grace = {});
    void isOver(Outage& outage, const std::string& what);

    void step(CollectingMeans& means);
    void attend();
    void connect(CollectingMeans& means);
    void awaitSocket(const std::string& what);
    void watch(const QXV_RTP_Statistics& statistics);
    void finish(std::span<uint8_t> space);
    void conclude();
    bool isComplete() const { return job_.bytes && written_ >= *job_.bytes; }
    bool isDone() const;
    size_t move(size_t bytes, std::span<uint8_t> space);
    bool flush();
    void write(std::span<const uint8_t> data, bool ended);
    size_t put(std::span<const uint8_t> packets);
    void outputFails(const std::string& what);
    void publish();
    void show();

    const ReceiveJob job_;
    ModuleOnDemand& module_;
    const std::optional<Clock::duration> patience_;
    const Report report_;

    State state_ = State::kOpening;
    const char* stop_ = nullptr;
    std::atomic<const char*> ownStop_{nullptr};
    Clock::time_point now_ = Clock::now();
    FileOutput output_;
    std::unique_ptr<StreamInput> input_;
    Clock::time_point inputDue_ = Clock::time_point::max();
    std::optional<RepairReport> repairs_;
    PacketSieve sieve_;

    // Taken from the input and not yet written: in front what are packets, then what is yet to be
    // looked at.
    std::vector<uint8_t> kept_;
    size_t keptPackets_ = 0;  // bytes
    uint64_t written_ = 0;
    size_t rest_ = 0;  // in the input when the end was asked for, and not yet taken
    bool pipeIsFull_ = false;
    double filled_ = 0.0;

    Outage socketOutage_;
    Outage outputOutage_;
    Outage overrun_;
    Clock::time_point retry_{};  // nothing is tried again before this
    uint64_t datagrams_ = 0;
    uint64_t arrived_ = 0;
    uint64_t dropped_ = 0;
    uint64_t overrunDatagrams_ = 0;  // those of them for which there was no room
    Clock::time_point lastOverrun_{};
    std::string lost_;  // why a part of the recording may be missing

    Clock::time_point opened_{}, closed_{}, firstData_{}, lastData_{}, endBy_{}, nextFigures_{};
    std::string error_;
    Figures figures_;
    const Clock::time_point began_ = now_;
    mutable std::mutex lock_;
    StreamState shown_;  // guarded by lock_
};

#endif
