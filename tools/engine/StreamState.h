// How a stream of this tool stands at one moment, for those who look at it from outside.
#ifndef TOOLS_ENGINE_STREAMSTATE_H
#define TOOLS_ENGINE_STREAMSTATE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// An input is on air when the stream is taken from it, standby when it could be. What is faulty
// brings something, but nothing that should be sent.
enum class InputHealth { kUnknown, kOnAir, kStandby, kFaulty, kNoSignal, kNoSocket };

// One of several paths of an input that are merged.
struct PathState {
    std::string url;
    uint64_t datagrams = 0;
    uint64_t lost = 0;
    uint64_t saved = 0;  // of the lost ones, those that another path has brought
    double skew_ms = 0;  // behind the path that comes first, of late
};

struct InputState {
    // What became of its datagrams, where the tool puts them in order.
    struct Repair {
        uint64_t lost = 0;
        uint64_t reordered = 0;
        uint64_t duplicates = 0;
        uint64_t repaired = 0;  // by FEC
    };

    std::string url;  // or a file
    InputHealth health = InputHealth::kUnknown;
    uint64_t bytes = 0;
    uint64_t bitrate_bps = 0;
    uint64_t continuityErrors = 0;
    uint64_t datagramsDropped = 0;  // by this machine
    std::optional<Repair> repair = std::nullopt;
    std::vector<PathState> paths = {};  // empty = there is only one
};

struct OutputState {
    std::string url;  // or a file
    bool works = false;
    uint64_t datagrams = 0;         // sent; of a file, received
    uint64_t datagramsDropped = 0;  // which it did not take
    uint64_t sendFailures = 0;
};

struct StreamState {
    std::string kind;  // "relay", "receive", "send"; empty = there is nothing to tell
    std::string name;
    double seconds = 0;  // since it began
    uint64_t bytes = 0;  // of stream that came in
    uint64_t bitrate_bps = 0;
    std::vector<InputState> inputs = {};
    std::vector<OutputState> outputs = {};
    uint64_t switches = 0;        // from one input to another
    uint64_t packetsDropped = 0;  // for which a constant rate was too low
};

#endif
