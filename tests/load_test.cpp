// Loading and unloading the module, and processes that fork and end while it is at work.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>

#include "ModuleLibrary.h"

namespace {

// Children side by side, each with a network and a /tmp of its own, in which all goes as expected.
void RunApart(int children, int seconds, const std::function<void()>& body) {
    std::vector<pid_t> running;
    while (children-- > 0)
        running.push_back(Fork([&body] {
            EXPECT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0);
            EXPECT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777"), 0);
            EXPECT_EQ(system("ip link set lo up"), 0);
            body();
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
        ++(line.find(kSharedMemoryPath) != std::string::npos ? lines.first : lines.second);
    return lines;
}

TEST(Load, AThousandLoadsMakeATableEachAndLeaveOnlyItsDescriptorAndMapping) {
    RunApart(20, 90, [] {
        const auto before = Footprint();
        const int tables = Mappings().first;
        int others = 0;
        std::ofstream(kSharedMemoryPath) << "what somebody has left";
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
            const std::string table = Contents(kSharedMemoryPath);
            ASSERT_EQ(table.size(), 17680u);
            EXPECT_EQ(memcmp(&table[17680 - sizeof(config)], &config, sizeof(config)), 0);
            ASSERT_EQ(dlopen(MODULE_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
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

TEST(Load, WithoutATableOfItsOwnTheModuleRefusesOrWorksOnTheForeignOne) {
    std::string ofThisInstance(17680, '\xFF');
    memset(ofThisInstance.data(), 0, 4);
    // A file that another user has left, or "" for a directory; can it be used, and its channels?
    const std::tuple<std::string, uint32_t, uint32_t> cases[] = {{"", 0, 0},
                                                                 {std::string(17679, '\xFF'), 0, 0},
                                                                 {std::string(17680, '\xFF'), 1, 0},
                                                                 {ofThisInstance, 1, 1}};
    for (const auto& [content, usable, startable] : cases)
        for (const uint32_t writable : {1, 0})
            RunApart(
                1, 20,
                [content = content, writable, usable = usable * writable,
                 startable = startable * writable] {
                    SCOPED_TRACE(std::to_string(content.size()) + (writable ? "" : ", read-only"));
                    umask(0);
                    if (content.empty())
                        std::filesystem::create_directory(kSharedMemoryPath);
                    else
                        std::ofstream(kSharedMemoryPath) << content;
                    EXPECT_EQ(mount("", "/tmp", "", MS_REMOUNT | (writable ? 0 : MS_RDONLY), ""),
                              0);
                    // The other user may have no way into the folder where the libraries lie.
                    EXPECT_NE(dlopen(SOCKETS_PATH, RTLD_NOW), nullptr);
                    const int opened = open(MODULE_PATH, O_RDONLY);
                    EXPECT_EQ(setgroups(0, nullptr) | setgid(65534) | setuid(65534), 0);
                    EXPECT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);  // /proc/self is root's otherwise
                    const ModuleLibrary module("/proc/self/fd/" + std::to_string(opened));
                    EXPECT_EQ(module.Handle != nullptr, usable);
                    RtpChannelConfig config = Loopback(0, 1);
                    EXPECT_EQ(QXV(module, SetConfig)(module.Handle, kSend, 0, &config), usable);
                    EXPECT_EQ(QXV(module, SendStart)(module.Handle, 0, 1000000, 100), startable);
                    EXPECT_EQ(QXV(module, ReceiveStart)(module.Handle, 0), startable);
                    usleep(usable *
                           1200000);  // housekeeping looks once a second at what has no NUL
                    EXPECT_EQ(QXV(module, SendEnd)(module.Handle, 0), startable);
                    EXPECT_EQ(QXV(module, ReceiveEnd)(module.Handle, 0), startable);
                });
}

TEST(Exit, WithStartedChannelsIsPromptAndClean) {
    RunApart(10, 10, [] {
        static const auto* const module = new ModuleLibrary;  // the host forgets both
        static auto* const session = new Session(*module, 0);
        session->Exchange(100);
        std::vector<uint8_t> data(500 * 1316, 0x47);
        EXPECT_EQ(QXV(*module, Send)(module->Handle, 0, data.data(), 500 * 1316), 1u);
    });
}

TEST(Fork, ChildThatExitsEndsPromptlyAndDisturbsNothing) {
    RunApart(1, 60, [] {
        const ModuleLibrary module;
        Session session(module, 0);
        for (int i = 0; i < 10; ++i)
            session.Exchange(1000, [] { EXPECT_EQ(Reap(Fork([] { return 7; }), 10), 7); });
    });
}

}  // namespace
