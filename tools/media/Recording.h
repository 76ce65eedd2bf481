// Where a recording goes: a file, a succession of files, or standard output.
#ifndef TOOLS_MEDIA_RECORDING_H
#define TOOLS_MEDIA_RECORDING_H

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "StreamMeter.h"
#include "base/FileDescriptor.h"

// Set to the name of the signal that asks for the end; told to all channels' threads.
using StopFlag = std::atomic<const char*>;

// When to begin a new file; neither: never.
struct Rotation {
    std::optional<uint64_t> bytes;
    std::optional<std::chrono::milliseconds> time;
    explicit operator bool() const { return bytes || time; }
};

// The name of a file is a pattern of strftime for the local time at which the file is begun.
// Without rotation, a file that is there is overwritten when the first bytes come. With it, none
// ever is: where the pattern has no '%', and where there already is a file of the name, a number is
// put in front of the suffix ("name-0001.ts"), the next that is free.
//
// A new file begins with a packet, so that each can be played: the one before is up to a packet
// longer than asked for. Bytes that are no packets wait for the next packet, up to a megabyte of
// them.
//
// One thread uses it.
class Recording {
  public:
    // Opens the first file; waits for the reader of a FIFO. Throws Failure.
    Recording(std::string output, const Rotation& rotation);

    // False when the reader of a pipe does not go on reading after a signal has come. Throws
    // Failure.
    bool write(std::span<const uint8_t> data, StreamMeter& meter, const StopFlag& stop);

    // In the end. Throws Failure when not all that was written has arrived.
    void close();

    // Do both write one regular file at this moment, by whatever names?
    bool sharesFileWith(const Recording& other) const;

    const std::string& name() const { return name_; }  // of the present file, for messages
    uint64_t files() const { return files_; }

  private:
    using Clock = std::chrono::steady_clock;

    void open();
    int openNew(const std::string& path, bool numbered);
    void openNext();
    bool isDue() const;
    size_t lengthUpToCut(size_t length, const StreamMeter& meter) const;
    bool writeAll(std::span<const uint8_t> data, const StopFlag& stop);
    bool isReady() const;

    const std::string output_;
    const Rotation rotation_;
    std::string name_;
    std::unique_ptr<FileDescriptor> file_;
    struct stat status_ {};  // of the present file, when it was opened
    bool regular_ = false;
    uint64_t files_ = 0;
    uint32_t number_ = 0;   // of the last file that has one
    uint64_t written_ = 0;  // to the present file
    uint64_t unsynchronised_ =
        0;  // ... in which no packets were found when it should have been cut
    Clock::time_point timeUp_;
};

#endif
