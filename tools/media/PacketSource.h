// Transport-stream packets from a file, a pipe or standard input.
#ifndef TOOLS_MEDIA_PACKETSOURCE_H
#define TOOLS_MEDIA_PACKETSOURCE_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "TransportStream.h"
#include "base/FileDescriptor.h"

// Yields whole packets only, all of the size of the first. Bytes that are no packets are skipped:
// in front of the first one, in between, where the packets are then found again, and a part of one
// at the end.
//
// A file that is followed has no end: what is appended is read when it is there. One that has
// become shorter is read from its beginning, and so is another one that has taken its name, once
// nothing is left of the first.
//
// No function waits for the input: a pipe is read when something is there, and of a file the kernel
// is told to fetch what comes next, which is read when it is in memory. On file systems that cannot
// tell what is in memory, reading waits for the disk.
class PacketSource {
  public:
    // Opens the file ("-": standard input). Throws Failure, or UsageError where a stream that
    // cannot be rewound is to be looped.
    PacketSource(const std::string& path, bool loop, bool follow = false);

    // Looks for the first packets. False: not enough has come to know. Throws Failure when it is no
    // transport stream. To be called until it is true, before take().
    bool findFirstPacket();

    size_t packetSize() const { return layout_.packetSize; }
    bool isFile() const { return regular_; }
    const std::string& name() const { return name_; }

    // Up to `limit` bytes of whole packets, valid until the next call. None: the stream has ended,
    // or nothing has come.
    std::span<const uint8_t> take(size_t limit);
    bool ended() const { return ended_ && !loopable() && available() == 0; }

    // Whether the last take() found nothing although the input has not ended. Otherwise another
    // one may find more at once.
    bool isDry() const { return dry_; }

    // What a loop repeats begins `bytes` before the packet that is taken next.
    void loopFrom(size_t bytes) { loopBegin_ = bufferBegin_ + begin_ - bytes; }

    // How often a loop has begun anew; what one take() returns is of one round.
    uint64_t loops() const { return loops_; }

    // What was skipped; of a loop, the first time.
    uint64_t skippedBytes() const { return skippedBytes_; }
    uint64_t skippedPlaces() const { return skippedPlaces_; }

  private:
    size_t available() const { return end_ - begin_; }
    std::span<const uint8_t> rest() const { return std::span(buffer_).first(end_).subspan(begin_); }
    bool loopable() const { return loop_ && yielded_; }
    bool fill();
    ssize_t readFile(std::span<uint8_t> space);
    bool rewind();
    bool goOn();
    void beginAnew();
    size_t countPackets(size_t most) const;
    void leaveRun();
    void search();
    void skip(size_t count);

    const std::string path_;
    std::string name_;
    std::unique_ptr<FileDescriptor> file_;
    bool regular_ = false;
    bool tellsWhatIsThere_ = true;  // the file system does, of a file
    const bool loop_;
    const bool follow_;
    bool renamed_ = false;  // another file has its name
    bool ended_ = false;
    bool dry_ = false;
    bool yielded_ = false;  // packets, since the last rewind
    PacketLayout layout_{kPacketBytes, 0};
    std::vector<uint8_t> buffer_;
    size_t begin_ = 0;  // of what is in the buffer
    size_t end_ = 0;
    uint64_t bufferBegin_ = 0;  // where in a file the buffer begins
    uint64_t loopBegin_ = 0;    // ... and what is repeated
    uint64_t fetchedTo_ = 0;    // ... and what the kernel was told to fetch ends
    bool searching_ = false;    // for packets, which are not where they should be
    bool lastOfRun_ = false;    // one more packet counts before the search
    bool startOfGap_ = true;
    uint64_t loops_ = 0;
    uint64_t skippedBytes_ = 0;
    uint64_t skippedPlaces_ = 0;
};

#endif
