// Loading and unloading the module, and processes that fork and end while it is at work.
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>

#include <atomic>

#include "ModuleLibrary.h"

namespace {

constexpr const char* kPath = QXV_RTP_TABLE_PATH;

// Children side by side, each with a network and a /tmp of its own, in which all goes as expected.
void RunApart(int children, int seconds, const std::function<void(int)>& body) {
    std::vector<pid_t> running;
    while (children-- > 0)
        running.push_back(Fork([&body, children] {
            EXPECT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0);
            EXPECT_EQ(system(PRIVATE_TMP " ip link set lo up"), 0);
            body(children);
            return testing::Test::HasFailure() ? 1 : 0;
        }));
    for (const pid_t child : running)
        EXPECT_EQ(Reap(child, seconds), 0);
}

// Lines of the process's memory map: those of the module's table, and the others.
std::pair<int, int> Mappings() {
    std::pair<int, int> lines;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        ++(line.find(QXV_RTP_TABLE_PATH) != std::string::npos ? lines.first : lines.second);
    return lines;
}

TEST(Load, AThousandLoadsMakeATableEachAndLeaveOnlyItsDescriptorAndMapping) {
    RunApart(20, 600, [](int) {
        const auto before = Footprint();
        const int tables = Mappings().first;
        int others = 0;
        std::ofstream(QXV_RTP_TABLE_PATH) << "what somebody has left";
        for (int round = 1; round <= 50; ++round) {
            RtpChannelConfig config;
            {
                const ModuleLibrary module;
                EXPECT_EQ(QXV(module, GetConfig)(module.Handle, kReceive, 15, &config), 1u);
                EXPECT_STREQ(config.RemoteAddress, "224.1.1.15");
                config = Loopback(5, 0);
                EXPECT_EQ(QXV(module, SetConfig)(module.Handle, kReceive, 15, &config), 1u);
                if (round % 25 == 10)
                    Session(module, 0).Exchange(10);
            }
            const std::string table = Contents(QXV_RTP_TABLE_PATH);
            ASSERT_EQ(table.size(), 17680u);
            EXPECT_EQ(memcmp(&table[17680 - sizeof(config)], &config, sizeof(config)), 0);
            ASSERT_EQ(dlopen(MODULE_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
            ASSERT_EQ(dlopen(SOCKETS_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
            ASSERT_TRUE(Await([&] { return Footprint().second == before.second; }));
            ASSERT_EQ(Footprint().first, before.first + round);
            ASSERT_EQ(Mappings().first, tables + round);
            if (round == 15)
                others = Mappings().second;
        }
        // Sanitizers keep notes on every library that was ever loaded.
        const bool sanitized = dlsym(RTLD_DEFAULT, "__sanitizer_print_stack_trace") != nullptr;
        EXPECT_LE(Mappings().second, others + (sanitized ? 100 : 5));
    });
}

// What lies in the table's place, and what comes of a load by its owner, and by another user, who
// may not remove it from /tmp.
TEST(Load, WhateverLiesInTheTablesPlaceIsReplacedJoinedOrRefused) {
    enum Outcome { kRefused, kWorks };
    static const auto put = [](off_t size, const char* path = kPath) {
        std::ofstream(path) << std::string(4, '\0') << std::string(4092, '\xFF');
        EXPECT_EQ(truncate(path, size), 0);  // with a hole
    };
    static const auto link = [](const char* aim) { std::filesystem::create_symlink(aim, kPath); };
    static const auto remount = [](const char* path, unsigned long flags, const char* options) {
        EXPECT_EQ(mount(path, path, "", MS_REMOUNT | flags, options), 0);
    };
    static const auto fill = [] {
        remount("/tmp", 0, "size=128k");
        std::ofstream("/tmp/filling") << std::string(200000, 'x');
    };
    static const auto lease = [] {
        signal(SIGIO, SIG_IGN);
        EXPECT_EQ(fcntl(open(kPath, O_RDWR), F_SETLEASE, F_WRLCK), 0);
    };
    static const auto bind = [] {
        EXPECT_EQ(mount(kPath, kPath, "", MS_BIND, ""), 0);
        remount(kPath, MS_BIND | MS_RDONLY, "");
    };
    static constexpr std::tuple<const char*, Outcome, Outcome, void (*)()> kCases[] = {
        {"nothing", kWorks, kWorks, [] {}},
        {"nothing, no space", kRefused, kRefused, [] { fill(); }},
        {"a directory", kRefused, kRefused, [] { std::filesystem::create_directory(kPath); }},
        {"a table", kWorks, kWorks, [] { put(17680); }},
        {"a table, no space", kRefused, kRefused, [] { put(17680), fill(); }},
        {"a table, no writing", kRefused, kRefused,
         [] { put(17680), remount("/tmp", MS_RDONLY, ""); }},
        {"a table, mounted", kRefused, kRefused, [] { put(17680), bind(); }},
        {"a table, leased", kWorks, kRefused, [] { put(17680), lease(); }},
        {"a short file", kWorks, kRefused, [] { put(17679); }},
        {"nonsense", kWorks, kWorks, [] { std::ofstream(kPath) << std::string(17680, '\xFF'); }},
        {"a link", kWorks, kRefused, [] { put(17680, "/tmp/aim"), link("/tmp/aim"); }},
        {"a loose link", kWorks, kRefused, [] { link("/tmp/none"); }},
        {"a pipe", kWorks, kRefused, [] { mknod(kPath, S_IFIFO | 0666, 0); }},
        {"a socket", kWorks, kRefused, [] { mknod(kPath, S_IFSOCK | 0666, 0); }},
        {"a device", kWorks, kRefused, [] { mknod(kPath, S_IFCHR | 0666, makedev(1, 5)); }}};
    RunApart(2 * std::size(kCases), 120, [](int child) {
        const auto& [what, own, others, arrange] = kCases[child / 2];
        const Outcome outcome = child % 2 == 0 ? own : others;
        SCOPED_TRACE(testing::Message() << what << ' ' << outcome);
        umask(0);
        arrange();
        const std::string aim = Contents("/tmp/aim");
        // The other user may have no way into the folder where the libraries lie.
        EXPECT_NE(dlopen(SOCKETS_PATH, RTLD_NOW), nullptr);
        const int opened = open(MODULE_PATH, O_RDONLY);
        if (child % 2 == 1) {
            EXPECT_EQ(setgroups(0, nullptr) | setgid(65534) | setuid(65534), 0);
            EXPECT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);  // /proc/self is root's otherwise
        }
        const ModuleLibrary module("/proc/self/fd/" + std::to_string(opened));
        EXPECT_EQ(module.Handle != nullptr, outcome != kRefused);
        RtpChannelConfig config = Loopback(0, 1);
        EXPECT_EQ(QXV(module, SetConfig)(module.Handle, kSend, 0, &config), outcome != kRefused);
        const uint32_t works = outcome == kWorks;
        EXPECT_EQ(QXV(module, SendStart)(module.Handle, 0, 1000000, 100), works);
        EXPECT_EQ(QXV(module, ReceiveStart)(module.Handle, 0), works);
        usleep(outcome == kWorks ? 1200000 : 0);  // housekeeping opens sockets once a second
        EXPECT_EQ(QXV(module, SendEnd)(module.Handle, 0), works);
        EXPECT_EQ(QXV(module, ReceiveEnd)(module.Handle, 0), works);
        EXPECT_TRUE(Contents("/tmp/aim") == aim && !std::filesystem::exists("/tmp/none"));
    });
}

TEST(Load, TheTablesDescriptorIsNoStandardStreamAndNotInherited) {
    RunApart(1, 10, [](int) {
        { const ModuleLibrary module; }
        close_range(0, 2, 0);
        const ModuleLibrary module;
        for (int file = 0; file < 3; ++file)
            EXPECT_EQ(fcntl(file, F_GETFD), -1);
        for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd"))
            EXPECT_TRUE(!read_symlink(file).string().starts_with(kPath) ||
                        fcntl(std::stoi(file.path().filename()), F_GETFD) == FD_CLOEXEC);
    });
}

// Killed, without the exit handlers, with all still open, and after an orderly end.
TEST(Exit, OfAnyKindInMidStreamIsPromptAndDoesNotHinderTheNextHost) {
    static const std::function<void()> kEnds[] = {[] { raise(SIGKILL); }, [] { _exit(137); },
                                                  [] { exit(137); }, [] {}};
    RunApart(10, 100, [](int) {
        for (const auto& end : kEnds)
            EXPECT_EQ(Reap(Fork([&end] {
                               const ModuleLibrary module;
                               Session(module, 0).Exchange(1000, end);
                               return 0;
                           }),
                           10),
                      &end == &kEnds[3] ? 0 : 128 + SIGKILL);
    });
}

// The host's handlers interrupt what its threads wait for, and run on no thread of the library.
TEST(Signal, StormsDoNotDisturbTheStream) {
    static std::atomic<int> signals;
    RunApart(1, 60, [](int) {
        struct sigaction action {};  // without SA_RESTART
        action.sa_handler = [](int) { ++signals; };
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often{{0, 200}, {0, 200}};
        const ModuleLibrary module;
        Session session(module, 0);
        sigset_t alarms;
        sigemptyset(&alarms);
        sigaddset(&alarms, SIGALRM);
        sigprocmask(SIG_BLOCK, &alarms, nullptr);
        setitimer(ITIMER_REAL, &often, nullptr);
        session.Exchange(1000);
        EXPECT_EQ(signals, 0);
        sigprocmask(SIG_UNBLOCK, &alarms, nullptr);
        for (int i = 0; i < 5; ++i)
            session.Exchange(2000);
        EXPECT_GT(signals, 100);
    });
}

TEST(Fork, ChildThatExitsEndsPromptlyAndDisturbsNothing) {
    RunApart(1, 60, [](int) {
        const ModuleLibrary module;
        Session session(module, 0);
        for (int i = 0; i < 10; ++i)
            session.Exchange(1000, [] {
                EXPECT_EQ(Reap(Fork([] { return 7; }), 10), 7);
                EXPECT_EQ(system("exit 7"), 7 << 8);
            });
    });
}

}  // namespace
