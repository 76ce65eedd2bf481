// A clean end on SIGINT and SIGTERM.
#ifndef TOOLS_BASE_STOPSIGNAL_H
#define TOOLS_BASE_STOPSIGNAL_H

#include <atomic>
#include <chrono>

// Blocks both signals for the calling thread and all threads that it starts from then on, and lets
// the commands ask in between whether one has come. Nothing runs in a signal handler, and no
// blocking call is left half done.
//
// SIGPIPE is ignored, so that a reader that goes away is seen as an error of write().
//
// Thread safety: any thread asks.
class StopSignal {
  public:
    StopSignal();

    // True from the first of the signals on.
    bool requested();

    // Waits for so long, or until one of the signals comes.
    void await(std::chrono::nanoseconds time);

    // "SIGINT" or "SIGTERM"; only after requested() has returned true.
    const char* name() const;

  private:
    std::atomic<int> signal_{0};
};

#endif
