// A clean end on SIGINT, SIGTERM and the like, and a wish to read files again on SIGHUP.
#ifndef TOOLS_BASE_STOPSIGNAL_H
#define TOOLS_BASE_STOPSIGNAL_H

#include <atomic>
#include <chrono>
#include <csignal>
#include <initializer_list>

// Blocks the signals for the calling thread and all threads that it starts from then on, and lets
// the commands ask in between whether one has come. Nothing runs in a signal handler, and no
// blocking call is left half done.
//
// SIGPIPE is ignored, so that a reader that goes away is seen as an error of write().
//
// Thread safety: any thread asks.
class StopSignal {
  public:
    // Further signals may end the command in the same way, unless they are ignored, as by nohup.
    explicit StopSignal(std::initializer_list<int> further = {});

    // From now on, SIGHUP asks for a reload. It still ends the command where it tells that the
    // terminal has gone on which the command was started.
    void acceptReload();
    // True once after one or more of these signals.
    bool takeReload();

    // True from the first of the signals on.
    bool requested();

    // Waits for so long, or until one of the signals comes.
    void await(std::chrono::nanoseconds time);

    // "SIGINT", for example; only after requested() has returned true.
    const char* name() const;

  private:
    sigset_t signals_;
    std::atomic<int> signal_{0};
    std::atomic<bool> reload_{false};
    bool reloads_ = false;
    bool hasTerminal_ = false;
};

#endif
