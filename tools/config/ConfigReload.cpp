#include "config/ConfigReload.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <sstream>
#include <thread>
#include <tuple>

#include "base/Errors.h"
#include "base/Quantity.h"
#include "config/ConfigFile.h"

namespace {

using namespace std::chrono_literals;

constexpr int kMostAttempts = 20;
constexpr auto kPause = 50ms;

// What shows that a file has been written, or that another one has taken its name.
auto stateOf(const std::string& file) {
    struct stat status {};
    stat(file.c_str(), &status);
    return std::tuple(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec);
}

}  // namespace

std::string changesText(size_t started, size_t ended, size_t unchanged) {
    return fmt::format("configuration read again: {} started, {} ended, {} unchanged",
                       counted(started, "stream"), ended, unchanged);
}

void readStable(const std::string& file, const std::atomic<bool>& abandoned,
                const std::function<void()>& read) {
    for (int i = 0; i < kMostAttempts && !abandoned; ++i) {
        const auto before = stateOf(file);
        std::exception_ptr failure;
        try {
            read();
        } catch (const std::exception&) {
            failure = std::current_exception();
        }
        std::this_thread::sleep_for(kPause);
        if (stateOf(file) != before)
            continue;
        if (failure)
            std::rethrow_exception(failure);
        return;
    }
    throw Failure(fmt::format("'{}' does not stop changing", file));
}

std::vector<std::string> complaints(const std::exception_ptr& failure) {
    std::vector<std::string> lines;
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        std::istringstream text(error.what());
        for (std::string line; std::getline(text, line);)
            lines.push_back(line);
    }
    lines.emplace_back("the configuration was not read again: nothing has changed");
    return lines;
}
