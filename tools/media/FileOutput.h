// Where a recorded stream goes: a file, a succession of files, a pipe or standard output.
#ifndef TOOLS_MEDIA_FILEOUTPUT_H
#define TOOLS_MEDIA_FILEOUTPUT_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "base/Errors.h"
#include "base/FileDescriptor.h"

// When to begin a new file; neither: never.
struct Rotation {
    std::optional<uint64_t> bytes;
    std::optional<std::chrono::milliseconds> time;
    explicit operator bool() const { return bytes || time; }
};

// A file cannot be opened, written or closed at this moment.
struct OutputFailure : Failure {
    OutputFailure(const std::string& name, int error, bool isLost = false);
    bool readerHasGone;  // of a pipe
    bool dataIsLost;     // it was written, and did not arrive
};

// The name of a file is a pattern of strftime for the local time at which the file is begun.
// Without rotation, a file that is there is overwritten when the first bytes come. With it, none
// ever is: where the pattern has no '%', and where there already is a file of the name, a number is
// put in front of the suffix ("name-0001.ts"): one that is free, and as a rule the next.
//
// A new file begins with a packet, so that each can be played: the one before is up to a packet
// longer than asked for.
//
// Only a disk is waited for: a pipe takes what it has room for. One thread uses it.
class FileOutput {
  public:
    FileOutput(std::string output, const Rotation& rotation);

    // Opens the first file; to be repeated while it returns false: nobody reads the FIFO yet.
    // Throws Failure.
    bool open();

    // Writes packets, from where the last call has stopped. Returns how many bytes it took; when
    // not all, nothing more can be written now. Throws Failure when that was nothing because of an
    // error; the next call tries again, with the next file or reader where the last one has gone,
    // which then gets whole packets.
    size_t write(std::span<const uint8_t> packets, size_t packetSize);

    // In the end. Throws Failure when not all that was written has arrived.
    void close();

    // Do both write one regular file at this moment, by whatever names? Any thread asks.
    bool sharesFileWith(const FileOutput& other) const;

    // What is waited for when a file is written: the number of its file system, or 0 for what never
    // makes a writer wait. Before the file is open, that of the folder it will be in.
    dev_t place() const;

    bool isStandardOutput() const { return output_ == "-"; }
    int descriptor() const { return file_ ? file_->get() : -1; }  // to wait for room in a pipe
    bool isRegular() const { return regular_; }
    const std::string& name() const { return name_; }  // of the present file, for messages
    uint64_t files() const { return files_; }

  private:
    using Clock = std::chrono::steady_clock;

    int openPath();
    int openStandardOutput();
    int openNew(const std::string& path, bool numbered);
    void closeFile();
    void scheduleNext();
    bool isDue() const;
    size_t lengthUpToCut(size_t length, size_t packetSize) const;
    size_t writeToFile(std::span<const uint8_t> data);

    const std::string output_;
    const Rotation rotation_;
    std::string name_;
    std::unique_ptr<FileDescriptor> file_;
    // Of the present file, if it is a regular one. Another thread may compare them.
    std::atomic<dev_t> device_{0};
    std::atomic<ino_t> inode_{0};
    bool regular_ = false;
    bool mayWait_ = false;  // it is the pipe or terminal of others, whose mode is not ours to set
    uint64_t files_ = 0;
    uint64_t written_ = 0;   // to the present file
    size_t packetPart_ = 0;  // written of the present packet
    bool cut_ = false;       // the rest of that packet is left out
    std::string lastPath_;   // of the last file, without its number
    uint32_t number_ = 0;
    std::optional<Clock::time_point> timeUp_;
};

#endif
