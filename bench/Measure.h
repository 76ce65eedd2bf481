// Child processes, what they cost, and the statistics of it.
#ifndef BENCH_MEASURE_H
#define BENCH_MEASURE_H

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What is measured does not share a processor with what makes or takes its traffic: the traffic has
// the first processor, the measured side all others. With a single one they share it. Where there
// is no traffic beside it, the measured side has all.
enum class Place { Traffic, Measured, Anywhere };

// Moves the calling thread, and what it starts from then on.
void pinTo(Place place);

// A process of ours. It ends with the object, with this process, and in any case after some time.
//
// The bench itself has no threads, so that fork() is safe.
class Child {
  public:
    // Runs the routine, which need not return.
    static Child fork(Place place, const std::function<void()>& routine);
    // Runs a program, found by PATH, without input and output.
    static Child execute(Place place, const std::vector<std::string>& arguments);

    Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = 0; }
    Child& operator=(Child&&) = delete;
    ~Child();

    pid_t pid() const { return pid_; }
    bool running();  // false once it has ended
    // Waits for its end; false when it does not come in time.
    bool join(double seconds);

  private:
    explicit Child(pid_t pid) : pid_(pid) {}

    pid_t pid_;  // 0 = collected
};

using Children = std::vector<Child>;

// What processes take from its making to its reading.
class Meter {
  public:
    explicit Meter(const Children& children);
    struct Usage {
        double elapsed_s;
        double cpu_s;  // user and system, all threads of all processes
        double wakeups;
    };
    Usage read() const;

  private:
    const Children& children_;
    const Usage before_;
};

// Memory of a process in KiB, by the kernel's name for it: "Pss" counts shared pages in proportion,
// "Rss" whole, "Private_Dirty" only what no other process has.
double memoryOf(pid_t pid, const std::string& measure);

int64_t now_ns(clockid_t clock = CLOCK_MONOTONIC);
void sleepFor(double seconds);
// Polls until the condition holds; false after the given time.
bool waitFor(double seconds, const std::function<bool()>& condition);

// 0 for no values.
double percentile(std::vector<double> values, double percent);

#endif
