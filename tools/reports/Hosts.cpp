#include "reports/Hosts.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>

#include "base/SafeText.h"

namespace {

namespace fs = std::filesystem;

bool isSameDirectory(const fs::path& one, const fs::path& other) {
    struct stat status[2]{};
    return stat(one.c_str(), &status[0]) == 0 && stat(other.c_str(), &status[1]) == 0 &&
           status[0].st_dev == status[1].st_dev && status[0].st_ino == status[1].st_ino;
}

// What the link shows, "" where that may not be seen.
std::string linkText(const std::string& link) {
    std::error_code error;
    return fs::read_symlink(link, error).string();
}

// The directory of a mapped file, by the process's own root: a process of another container has
// another file by the same name, and one in a chroot the same file by another name.
fs::path directoryOf(std::string_view mapped, const std::string& process) {
    // Both names are as seen from this process, so they begin alike where the root is a chroot's.
    const std::string root = linkText(process + "root");
    if (root.size() > 1 && mapped.starts_with(root + '/'))
        mapped.remove_prefix(root.size());
    return fs::path(fmt::format("{}root{}", process, mapped)).parent_path();
}

std::optional<TableHost> examine(pid_t pid, const std::string& process, const fs::path& table,
                                 size_t& hidden) {
    constexpr std::string_view kDeleted = " (deleted)";
    std::ifstream maps(process + "maps");
    if (!maps.is_open()) {
        // It may have ended just now. And the first one is init: in a container, where it may be a
        // host, nothing is sure anyway.
        hidden += errno == ENOENT || errno == ESRCH || pid == 1 ? 0 : 1;
        return std::nullopt;
    }
    std::optional<TableHost> host;
    for (std::string line; std::getline(maps, line);) {
        const size_t begin = line.find('/');
        if (begin == std::string::npos)
            continue;
        const bool replaced = line.ends_with(kDeleted);
        if (replaced)
            line.resize(line.size() - kDeleted.size());
        // The device and the inode that stand there are not always those that stat() tells.
        const std::string_view mapped = std::string_view(line).substr(begin);
        if (fs::path(mapped).filename() != table.filename() ||
            !isSameDirectory(directoryOf(mapped, process), table.parent_path()))
            continue;
        if (!host)
            host = TableHost{pid, "", replaced};
        host->replaced = host->replaced && replaced;
    }
    if (host) {
        std::ifstream name(process + "comm");
        std::getline(name, host->command);
        host->command = escapeBytes(host->command);
    }
    return host;
}

std::string blindness(const std::string& proc, size_t hidden) {
    constexpr std::string_view kFirstPidNamespace =
        "pid:[4026531836]";  // the same on every machine
    const std::string pidNamespace = linkText(proc + "/self/ns/pid");
    struct stat status {};
    if (pidNamespace.empty())
        return "no /proc tells which processes there are";
    if (pidNamespace != kFirstPidNamespace)
        return "processes outside of this PID namespace are not seen";
    if (stat((proc + "/1").c_str(), &status) != 0)
        return "/proc hides the processes of other users";
    if (hidden > 0)
        return fmt::format("{} {} not let this user look", hidden,
                           hidden == 1 ? "process does" : "processes do");
    return "";
}

}  // namespace

size_t TableHosts::current() const {
    return static_cast<size_t>(std::count_if(hosts.begin(), hosts.end(),
                                             [](const TableHost& host) { return !host.replaced; }));
}

TableHosts findHosts(const std::string& tablePath, const std::string& proc) {
    TableHosts result;
    std::error_code error;
    const fs::path path = fs::absolute(tablePath, error);
    for (auto entry = fs::directory_iterator(proc, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr !=
            name.data() + name.size())
            continue;
        if (auto host = examine(pid, fmt::format("{}/{}/", proc, name), path, result.hidden))
            result.hosts.push_back(std::move(*host));
    }
    std::sort(result.hosts.begin(), result.hosts.end(),
              [](const TableHost& one, const TableHost& other) { return one.pid < other.pid; });
    result.blindness = blindness(proc, result.hidden);
    return result;
}
