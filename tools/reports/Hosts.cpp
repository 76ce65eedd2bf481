#include "reports/Hosts.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string_view>

#include "RtpContext.h"
#include "base/Errors.h"
#include "base/SafeText.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kSearchInterval = 5s;
constexpr size_t kMostDescriptors = 16384;  // of a process that are looked at
constexpr size_t kCommandLineBytes = 1024;

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

Directory openDirectory(int parent, const char* name) {
    const int descriptor = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return {descriptor < 0 ? nullptr : fdopendir(descriptor), closedir};
}

std::string contents(int directory, const char* name, size_t limit = 4096) {
    const FileDescriptor file(openat(directory, name, O_RDONLY | O_CLOEXEC));
    std::string text(limit, '\0');
    const ssize_t count = file.get() < 0 ? 0 : read(file.get(), text.data(), text.size());
    text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

// What the link shows, "" where that may not be seen.
std::string linkText(int directory, const char* name) {
    std::array<char, PATH_MAX> text{};
    const ssize_t length = readlinkat(directory, name, text.data(), text.size());
    return {text.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

bool isDenied(int error) {
    return error == EACCES || error == EPERM;
}

// The path of a table, whatever folder it is in, or "". The kernel marks names that are gone.
std::string tablePath(std::string link) {
    constexpr std::string_view kDeleted = " (deleted)";
    constexpr std::string_view kPath = QXV_RTP_TABLE_PATH;
    if (link.ends_with(kDeleted))
        link.resize(link.size() - kDeleted.size());
    return link.ends_with(kPath.substr(kPath.rfind('/'))) ? link : "";
}

struct Look {
    std::optional<ChannelTable> table;
    std::optional<PublishedStates> states;
    bool denied = false;
};

// The module opens its table for reading and writing. So a process that can only read one watches
// it, as this one does. Of several tables the module uses the one that was written to last: those
// from before it was loaded again stay open. The same holds of the file with streams' states, of
// which a process has one: others are not even tried.
Look lookInto(int process) {
    Look look;
    const Directory descriptors = openDirectory(process, "fd");
    if (!descriptors) {
        look.denied = isDenied(errno);
        return look;
    }
    const int directory = dirfd(descriptors.get());
    std::optional<std::pair<time_t, long>> newest;
    bool statesFound = false;
    for (size_t count = 0; const dirent* const entry = readdir(descriptors.get()); ++count) {
        errno = 0;
        const std::string name = linkText(directory, entry->d_name);
        if (isDenied(errno) || count == kMostDescriptors) {
            look.denied = true;
            break;
        }
        const bool hasStates = name == kStatesLink && !statesFound;
        const std::string path = tablePath(name);
        struct stat link {};
        if ((path.empty() && !hasStates) ||
            fstatat(directory, entry->d_name, &link, AT_SYMLINK_NOFOLLOW) != 0 ||
            (link.st_mode & S_IWUSR) == 0)
            continue;
        const FileDescriptor file(openat(directory, entry->d_name, O_PATH | O_CLOEXEC));
        if (hasStates) {
            statesFound = true;
            look.states = readStates(file.get());
            continue;
        }
        struct stat status {};
        if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            status.st_size < static_cast<off_t>(sizeof(RtpContext)))
            continue;
        const std::pair written(status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
        if (newest >= written)
            continue;
        try {
            look.table = readTable(file.get(), path);
            newest = written;
        } catch (const Failure&) {
            look.denied = true;
        }
    }
    return look;
}

// Of /proc/PID/stat.
struct ProcessState {
    char state = '?';
    uint64_t flags = 0;
    uint64_t startTicks = 0;
};

ProcessState processState(int process) {
    ProcessState result;
    const std::string text = contents(process, "stat");
    // The name in front may hold any character.
    std::istringstream fields(text.substr(std::min(text.rfind(')'), text.size() - 1) + 1));
    constexpr int kFlags = 9;
    constexpr int kStartTime = 22;
    fields >> result.state;
    std::string field;
    for (int i = 4; i <= kStartTime && fields >> field; ++i) {
        if (i == kFlags || i == kStartTime)
            std::from_chars(field.data(), field.data() + field.size(),
                            i == kFlags ? result.flags : result.startTicks);
    }
    return result;
}

// A thread of the kernel, or a process that has ended and waits for its parent: no host, though its
// descriptors are root's.
bool isNoProgram(int process) {
    constexpr uint64_t kKernelThread = 0x00200000;
    const ProcessState state = processState(process);
    return state.state == 'Z' || state.state == 'X' || (state.flags & kKernelThread) != 0;
}

std::time_t startTime(uint64_t ticks) {
    using std::chrono::nanoseconds;
    timespec now{}, sinceBoot{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const auto boot = std::chrono::seconds(now.tv_sec - sinceBoot.tv_sec) +
                      nanoseconds(now.tv_nsec - sinceBoot.tv_nsec);
    const auto tick = nanoseconds(1s) / sysconf(_SC_CLK_TCK);
    return std::chrono::floor<std::chrono::seconds>(boot + tick * ticks).count();
}

// Arguments end in NUL; the first one, the program, is told without its folder.
std::string commandLine(int process, const std::string& command) {
    std::string line = contents(process, "cmdline", kCommandLineBytes);
    line.resize(line.find_last_not_of('\0') + 1);
    if (line.starts_with('/'))
        line.erase(0, line.rfind('/', line.find_first_of(std::string_view("\0 ", 2))) + 1);
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line.empty() ? command : printable(line);
}

Process describe(pid_t pid, int process) {
    Process result;
    result.pid = pid;
    std::string command = contents(process, "comm");
    command.resize(command.find_last_not_of('\n') + 1);
    result.command = escapeBytes(command);
    result.commandLine = commandLine(process, result.command);
    struct stat status {};
    if (fstat(process, &status) == 0)
        result.user = userName(status.st_uid);
    result.startTicks = processState(process).startTicks;
    result.started = startTime(result.startTicks);
    return result;
}

void sortByAge(auto& processes) {
    std::sort(processes.begin(), processes.end(), [](const auto& one, const auto& other) {
        return std::pair(one.startTicks, one.pid) < std::pair(other.startTicks, other.pid);
    });
}

// All that have one table are one host, shown as the process that began first.
std::vector<Host> merged(std::vector<Host> processes) {
    sortByAge(processes);
    std::vector<Host> hosts;
    std::map<FileId, size_t> places;
    for (Host& process : processes) {
        const auto [place, isNew] = places.emplace(process.table.id, hosts.size());
        if (isNew)
            hosts.push_back(std::move(process));
        else
            hosts[place->second].sharedWith.push_back(process.pid);
    }
    return hosts;
}

// Children of a fork have the file, too.
void keepOldest(std::vector<StreamProcess>& processes) {
    sortByAge(processes);
    std::set<FileId> files;
    std::erase_if(processes, [&files](const StreamProcess& process) {
        return !files.insert(process.states.id).second;
    });
}

std::string blindness(int proc, size_t hidden) {
    constexpr std::string_view kFirstPidNamespace =
        "pid:[4026531836]";  // the same on every machine
    const std::string pidNamespace = linkText(proc, "self/ns/pid");
    struct stat status {};
    if (pidNamespace.empty())
        return "no /proc tells which processes there are";
    if (pidNamespace != kFirstPidNamespace)
        return "processes outside of this PID namespace are not seen";
    if (fstatat(proc, "1", &status, 0) != 0)
        return "/proc hides the processes of other users";
    if (hidden > 0)
        return fmt::format("{} {} not let this user look", hidden,
                           hidden == 1 ? "process does" : "processes do");
    return "";
}

}  // namespace

bool Machine::isFileLive() const {
    return file && std::any_of(hosts.begin(), hosts.end(),
                               [this](const Host& host) { return host.table.id == file->id; });
}

std::vector<ShownTable> Machine::tables() const {
    std::vector<ShownTable> shown;
    for (const Host& host : hosts)
        shown.push_back({&host, &host.table});
    if (file && !isFileLive())
        shown.push_back({nullptr, &*file});
    return shown;
}

HostFinder::HostFinder(HostSelection selection, const std::string& proc)
    : selection_(std::move(selection)),
      proc_(open(proc.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

void HostFinder::readFile(Machine& machine) {
    try {
        machine.file = readTable(selection_.path.empty() ? QXV_RTP_TABLE_PATH : selection_.path);
    } catch (const Failure& failure) {
        machine.trouble = failure.what();
    }
    const FileId id = machine.file ? machine.file->id : FileId{};
    if (id != file_)
        searched_.reset();
    file_ = id;
}

std::vector<pid_t> HostFinder::processes() const {
    std::vector<pid_t> pids;
    const Directory listing = openDirectory(proc_.get(), ".");
    while (const dirent* const entry = listing ? readdir(listing.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr ==
            name.data() + name.size())
            pids.push_back(pid);
    }
    return pids;
}

size_t HostFinder::search(const std::vector<pid_t>& pids, Machine& machine) const {
    std::vector<Host> found;
    size_t hidden = 0;
    for (const pid_t pid : pids) {
        // Whatever is read through this descriptor is of one process, and fails when that has
        // ended, even if another one has got its number.
        const FileDescriptor process(
            openat(proc_.get(), std::to_string(pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (process.get() < 0)
            continue;
        Look look = lookInto(process.get());
        if (look.states && !look.states->streams.empty())
            machine.processes.push_back({describe(pid, process.get()), std::move(*look.states)});
        if (look.table)
            found.push_back({describe(pid, process.get()), {}, std::move(*look.table)});
        // The first one is init: in a container, where it may be a host, nothing is sure anyway.
        else if (look.denied && (pid != 1 || selection_.pid) && !isNoProgram(process.get()))
            ++hidden;
    }
    machine.hosts = merged(std::move(found));
    keepOldest(machine.processes);
    return hidden;
}

Machine HostFinder::look() {
    Machine machine;
    if (selection_.pid) {
        const size_t hidden = search({*selection_.pid}, machine);
        if (!machine.hosts.empty())
            machine.file = machine.hosts.front().table;
        else
            machine.trouble = fmt::format(
                "process {} {}", *selection_.pid,
                hidden > 0 ? "does not let this user look" : "is no host, or has ended");
        return machine;
    }
    readFile(machine);
    const auto now = std::chrono::steady_clock::now();
    const bool everywhere = !searched_ || now - *searched_ >= kSearchInterval;
    const size_t hidden = search(everywhere ? processes() : known_, machine);
    if (everywhere) {
        searched_ = now;
        hidden_ = hidden;
    }
    known_.clear();
    for (const Host& host : machine.hosts) {
        known_.push_back(host.pid);
        known_.insert(known_.end(), host.sharedWith.begin(), host.sharedWith.end());
    }
    for (const StreamProcess& process : machine.processes)
        known_.push_back(process.pid);
    std::sort(known_.begin(), known_.end());
    known_.erase(std::unique(known_.begin(), known_.end()), known_.end());
    if (!selection_.path.empty()) {
        std::erase_if(machine.hosts, [&machine](const Host& host) {
            return !machine.file || host.table.id != machine.file->id;
        });
        std::erase_if(machine.processes, [&machine](const StreamProcess& process) {
            return std::none_of(machine.hosts.begin(), machine.hosts.end(),
                                [&](const Host& host) { return host.pid == process.pid; });
        });
    }
    machine.hidden = hidden_;
    machine.blindness = blindness(proc_.get(), hidden_);
    return machine;
}
