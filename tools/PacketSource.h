// Transport-stream packets from a file or from standard input.
#ifndef TOOLS_PACKETSOURCE_H
#define TOOLS_PACKETSOURCE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "FileDescriptor.h"
#include "StopSignal.h"
#include "TransportStream.h"

// Yields whole packets only: bytes in front of the first packet and a part of a packet at the end
// are left out. Bytes that are no packets in between are passed on as they are.
class PacketSource {
  public:
    // Opens the file ("-": standard input). Throws Failure, or UsageError where a stream that
    // cannot be rewound is to be looped.
    PacketSource(const std::string& path, bool loop);

    // Reads the beginning: finds the packets and, if asked for, measures the rate: over the first
    // megabytes of a file, over the first second of anything else. Throws Failure when it is no
    // transport stream; returns early when a stop is requested.
    void open(bool measure, StopSignal& stop);

    size_t packetSize() const { return layout_.packetSize; }
    std::optional<uint64_t> bitrate() const { return rate_ ? rate_->bitrate() : std::nullopt; }
    const std::string& name() const { return name_; }

    // Up to `limit` bytes of whole packets, valid until the next call. None: the stream has ended,
    // or nothing came within `wait`.
    std::span<const uint8_t> take(size_t limit, std::chrono::milliseconds wait);
    bool ended() const { return ended_ && !loopable() && wholeBytes() == 0; }

  private:
    size_t available() const { return pending_.size() - begin_; }
    size_t wholeBytes() const;
    bool loopable() const { return loop_ && yielded_; }
    bool fill(std::chrono::milliseconds wait);
    bool rewind();
    bool findFirstPacket(StopSignal& stop);

    std::string name_;
    FileDescriptor file_;
    bool regular_ = false;
    bool loop_;
    bool ended_ = false;
    bool yielded_ = false;  // packets, since the last rewind
    PacketLayout layout_{kPacketBytes, 0};
    std::optional<PcrBitrate> rate_;
    std::vector<uint8_t> pending_;
    size_t begin_ = 0;  // of what is pending
};

#endif
