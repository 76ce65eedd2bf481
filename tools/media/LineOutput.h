// Lines for a reader who may be slow, or gone.
#ifndef TOOLS_MEDIA_LINEOUTPUT_H
#define TOOLS_MEDIA_LINEOUTPUT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Writes to standard output without waiting for whoever reads it: what a full pipe or a full disk
// does not take is kept, up to a limit, beyond which whole lines are dropped.
class LineOutput {
  public:
    // The line has its line feed. Throws Failure, as flush() does, when standard output cannot be
    // written.
    void add(std::string_view line);
    void flush();
    // Waits for the reader, but no longer than that; the end of the last line may be missing then.
    void finish(std::chrono::milliseconds patience);

    uint64_t dropped() const { return dropped_; }  // lines

  private:
    void write(std::chrono::milliseconds patience);

    std::string waiting_;
    uint64_t dropped_ = 0;
};

// Puts `text` into the file's place in one step: readers see the old contents or the new ones.
// Throws Failure.
void replaceFile(const std::string& name, std::string_view text);

#endif
