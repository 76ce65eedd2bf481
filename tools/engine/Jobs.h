// What a service is to do: an entry of a configuration file, or the arguments of one command. A
// stream whose job is equal after its file has changed is not touched.
#ifndef TOOLS_ENGINE_JOBS_H
#define TOOLS_ENGINE_JOBS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "StreamMonitor.h"
#include "media/Announcement.h"

// Whether null packets and new PCRs give a stream a constant rate. What is neither asked for nor
// excluded depends on the URL: under RTP, which needs a constant rate for its timestamps, yes.
struct Shaping {
    bool constant = false;
    std::optional<uint32_t> rate_bps = std::nullopt;  // none = the least that the beginning allows
    std::optional<std::chrono::milliseconds> delay = std::nullopt;
    bool asIs = false;
    bool operator==(const Shaping&) const = default;
};

// Whether a stream is made constant on its way to a URL. A rate that is given excludes it.
inline bool isMadeConstant(const Shaping& shaping, bool rtp,
                           const std::optional<uint32_t>& bitrate_bps) {
    return shaping.constant || (rtp && !shaping.asIs && !bitrate_bps);
}

struct SendJob {
    std::string input;  // "-" = standard input
    std::string url;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
    bool loop = false;
    bool follow = false;  // wait for what is appended
    // Both in the stream's own time: what is skipped at the beginning, and what is sent.
    std::optional<std::chrono::milliseconds> start = std::nullopt;
    std::optional<std::chrono::milliseconds> duration = std::nullopt;
    Shaping shaping = {};
    Announcing announcing = {};
    bool operator==(const SendJob&) const = default;
};

struct ReceiveJob {
    std::string url;
    std::string output;                                 // "-" = standard output; strftime's % signs
    std::optional<std::chrono::milliseconds> duration;  // from the opening of the socket
    std::optional<uint64_t> bytes;
    std::optional<std::chrono::milliseconds> idleTimeout;  // ends without data for so long
    std::optional<uint64_t> rotateBytes;                   // a new file after so many bytes
    std::optional<std::chrono::milliseconds> rotateTime;   // and after so long
    bool operator==(const ReceiveJob&) const = default;
};

// When another input takes the place of the one in use.
struct Failover {
    std::vector<std::string> others = {};   // in the order of preference; the last may be a file
    std::chrono::milliseconds within{300};  // of the last packet, when nothing comes any more
    // When an input that is preferred has been well for so long; none = never.
    std::optional<std::chrono::milliseconds> returnAfter = std::chrono::seconds(10);
    bool operator==(const Failover&) const = default;
};

struct RelayJob {
    std::string from;
    std::vector<std::string> to;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
    Shaping shaping = {};
    Announcing announcing = {};
    Failover failover = {};
    bool operator==(const RelayJob&) const = default;
};

struct MonitorJob {
    std::string url;
    std::string name;                                   // empty = the URL
    std::optional<std::chrono::milliseconds> duration;  // from the opening of the socket
    std::string onAlarm;                                // empty = no command
    std::string webhook = {};                           // empty = none
    ts::MonitorLimits limits = {};
    bool operator==(const MonitorJob&) const = default;
};

#endif
