// Transport-stream packets from a file or from standard input.
#ifndef TOOLS_MEDIA_PACKETSOURCE_H
#define TOOLS_MEDIA_PACKETSOURCE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "TransportStream.h"
#include "base/FileDescriptor.h"
#include "base/StopSignal.h"

// Yields whole packets only, all of the size of the first. Bytes that are no packets are skipped:
// in front of the first one, in between, where the packets are then found again, and a part of one
// at the end.
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
    bool isFile() const { return regular_; }  // which is there to be read at once
    const std::string& name() const { return name_; }

    // Up to `limit` bytes of whole packets, valid until the next call. None: the stream has ended,
    // or nothing came within `wait`.
    std::span<const uint8_t> take(size_t limit, std::chrono::milliseconds wait);
    bool ended() const { return ended_ && !loopable() && available() == 0; }

    // Makes the last bytes of what was taken last come again.
    void putBack(size_t bytes) { begin_ -= bytes; }

    // What a loop repeats begins with the packet that is taken next.
    void loopFromHere() { loopBegin_ = bufferBegin_ + begin_; }

    // What was skipped; of a loop, the first time.
    uint64_t skippedBytes() const { return skippedBytes_; }
    uint64_t skippedPlaces() const { return skippedPlaces_; }

  private:
    size_t available() const { return pending_.size() - begin_; }
    bool loopable() const { return loop_ && yielded_; }
    bool fill(std::chrono::milliseconds wait);
    bool rewind();
    size_t countPackets(size_t most);
    void leaveRun();
    void search();
    void skip(size_t count);
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
    size_t begin_ = 0;          // of what is pending
    uint64_t bufferBegin_ = 0;  // where in a file pending_ begins
    uint64_t loopBegin_ = 0;    // ... and what is repeated
    bool searching_ = false;    // for packets, which are not where they should be
    bool lastOfRun_ = false;    // one more packet counts before the search
    bool startOfGap_ = true;
    bool rewound_ = false;
    uint64_t skippedBytes_ = 0;
    uint64_t skippedPlaces_ = 0;
};

#endif
