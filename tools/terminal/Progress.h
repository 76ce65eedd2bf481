// The lines on the terminal that show how far a command has come.
#ifndef TOOLS_TERMINAL_PROGRESS_H
#define TOOLS_TERMINAL_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Writes to standard error if that is a terminal, and but for warnings nothing otherwise: no line
// of progress, and no summary, ends up in a log file. Control characters within a line become
// blanks.
class Progress {
  public:
    Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();  // takes the lines away, so that an error message begins a line of its own

    std::chrono::milliseconds elapsed() const;

    // True a few times a second, on a terminal; a call of show() should follow.
    bool due();
    void show(const std::string& line) { show(std::vector<std::string>{line}); }
    void show(const std::vector<std::string>& lines);

    // Replaces the lines of progress for good.
    void summary(const std::string& line);

    // A line as of an error, above the progress. Where nobody reads it, it is dropped, and the next
    // one that is read says how many were.
    void warn(const std::string& line);

  private:
    void clear();

    using Clock = std::chrono::steady_clock;
    bool terminal_;
    size_t shown_ = 0;   // lines
    uint64_t lost_ = 0;  // messages
    Clock::time_point start_ = Clock::now();
    Clock::time_point next_ = start_;
};

#endif
