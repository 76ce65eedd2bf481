// The thread that takes what has come on all channels.
#ifndef TOOLS_ENGINE_COLLECTOR_H
#define TOOLS_ENGINE_COLLECTOR_H

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "engine/ReceiveChain.h"

// It looks at its chains 25 times a second, and more often only when rings fill up: so often that
// none is more than a quarter full at the rates of the last look. A ring of 4 MiB takes 40 ms of
// 838 Mbit/s; looks are more frequent from 210 Mbit/s on.
//
// A pipe never makes it wait, but a disk may. So there is one such thread for each file system that
// is written, and one for all the rest.
//
// Thread safety: one thread adds chains and ends the collector.
class Collector {
  public:
    // Set to the name of a signal, `stop` asks all chains for the end.
    explicit Collector(const std::atomic<const char*>& stop) : stop_(stop) {}
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector();  // waits for the end of all chains

    // The chain is served until it ends.
    void add(std::shared_ptr<ReceiveChain> chain);

  private:
    using Clock = ReceiveChain::Clock;

    void run();
    void wait(Clock::time_point until);

    bool takeAdded();

    const std::atomic<const char*>& stop_;
    std::vector<std::shared_ptr<ReceiveChain>> chains_;  // the thread's
    std::mutex lock_;
    std::vector<std::shared_ptr<ReceiveChain>> added_;  // guarded by lock_
    bool runs_ = false;                                 // guarded by lock_
    std::thread thread_;
};

#endif
