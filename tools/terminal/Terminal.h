// A terminal as a screen: output that is replaced, and keys that come at once.
#ifndef TOOLS_TERMINAL_TERMINAL_H
#define TOOLS_TERMINAL_TERMINAL_H

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

struct TerminalSize {
    size_t columns;
    size_t rows;
    bool operator==(const TerminalSize&) const = default;
};

// Uses the alternate screen of standard output, and puts everything back in the end. Signals must
// not kill the process in between (StopSignal); the keys that suspend or kill are off.
class Terminal {
  public:
    Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    ~Terminal();

    TerminalSize size() const;

    // Shows the lines, as many as fit; throws Failure when the terminal has gone away.
    void show(const std::string& text);

    // A key that is pressed within the time; '\0' when there is none.
    char key(std::chrono::milliseconds wait);

  private:
    std::optional<termios> before_;
    bool keys_ = true;  // false once standard input has ended
};

// Whether the user's locale has UTF-8.
bool localeIsUtf8();

#endif
