// Where a relay or a recording takes its stream from.
#ifndef TOOLS_ENGINE_STREAMINPUT_H
#define TOOLS_ENGINE_STREAMINPUT_H

#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "FecDecoder.h"
#include "Reorderer.h"
#include "engine/Chain.h"
#include "engine/HostModule.h"
#include "engine/StreamSocket.h"
#include "media/HostNames.h"
#include "media/StreamUrl.h"

// What became of the datagrams of an input that repairs itself.
struct PathRepair {
    std::string url;
    ts::PathReport path;
    std::optional<ts::FecCounts> fec;
};
struct RepairReport {
    ts::RepairCounts counts;
    std::chrono::nanoseconds window;
    uint64_t socketDrops;  // datagrams that this machine's sockets had no room for
    std::vector<PathRepair> paths;
};

// Survives all outages: sockets are opened again for as long as it takes.
//
// Thread safety: one thread uses it, that of the means.
class StreamInput {
  public:
    using Clock = Chain::Clock;

    StreamInput() = default;
    StreamInput(const StreamInput&) = delete;
    StreamInput& operator=(const StreamInput&) = delete;
    virtual ~StreamInput() = default;

    // Opens what is not open, and takes what has come. Returns when this is to be done again at the
    // latest.
    virtual Clock::time_point attend(Clock::time_point now) = 0;

    virtual std::string trouble() const = 0;  // why there is no socket
    // What a receive channel tells of itself, whether or not there is one.
    virtual QXV_RTP_Statistics statistics() const = 0;
    // Datagrams, whether or not they can be taken yet.
    virtual uint64_t arrived() const { return statistics().Datagrams; }
    virtual bool isRtp() const = 0;
    virtual uint32_t measuredBitrate() const = 0;  // bits per second, refreshed once a second

    // Takes what is there, as far as it fits, without waiting; returns the number of bytes.
    virtual size_t receive(std::span<uint8_t> space) = 0;
    // Whether what comes is used. Only then does a file play, from its beginning.
    virtual void setOnAir(bool /*onAir*/) {}
    // The end has come: what waits for something in front of it is there now.
    virtual void finish() {}

    virtual std::vector<std::string> takeEvents() { return {}; }
    // None: the input repairs nothing.
    virtual std::optional<RepairReport> repairs() const { return std::nullopt; }
};

// For a recording: from the module, or from sockets of the tool's own where something may be
// repaired. The module and the means outlive the object; where several threads have inputs, the
// module is loaded before.
std::unique_ptr<StreamInput> makeInput(const std::string& url, ModuleOnDemand& module,
                                       SocketMeans& means);

// What other processes see of it, where it is on air for as long as something comes.
InputState stateOf(const StreamInput& input, const std::string& url,
                   Chain::Clock::duration silence);

// "3 lost, 12 reordered", and each path's loss where there are several.
std::string describeRepairs(const RepairReport& report);
// A line for each of several paths, and for each one's FEC, for the end.
std::vector<std::string> describePaths(const RepairReport& report);

#endif
