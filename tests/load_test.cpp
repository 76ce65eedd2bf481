// Loading and unloading the module, and processes that fork and end while it is at work.
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <fstream>

#include "ModuleLibrary.h"

namespace {

// A child with a network and a /tmp of its own, whose failed expectations are its exit code.
pid_t ForkApart(const std::function<void()>& body) {
    return Fork([&body] {
        EXPECT_EQ(unshare(CLONE_NEWNS | CLONE_NEWNET), 0);
        EXPECT_EQ(system("ip link set lo up"), 0);
        EXPECT_EQ(mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777"), 0);
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
}

// Lines of the process's memory map: those of the module's table, and the others.
std::pair<int, int> Mappings() {
    std::pair<int, int> lines;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        ++(line.find(kSharedMemoryPath) != std::string::npos ? lines.first : lines.second);
    return lines;
}

TEST(Load, HundredsOfLoadsLeaveTheTablesDescriptorAndMappingEachAndNothingElse) {
    constexpr int kProcesses = 10;
    constexpr int kRounds = 50;
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i)
        children.push_back(ForkApart([] {
            const auto before = Footprint();
            int others = 0;
            for (int round = 1; round <= kRounds; ++round) {
                {
                    const ModuleLibrary module;
                    if (round % 25 == 10) {
                        Session session(module, 0);
                        session.Send(10);
                        session.ExpectAll();
                        session.End();
                    }
                }
                ASSERT_EQ(dlopen(MODULE_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
                ASSERT_TRUE(Await([&] { return Footprint().second == before.second; }));
                ASSERT_EQ(Footprint().first, before.first + round);
                ASSERT_EQ(Mappings().first, round);
                if (round == 15)
                    others = Mappings().second;
            }
            EXPECT_LT(Mappings().second, others + 15);
        }));
    for (const pid_t child : children)
        EXPECT_EQ(Reap(child, std::chrono::seconds(90)), 0);
}

TEST(Load, ReplacesWhatIsThereLaysDownTheDefaultsAndLeavesTheFileBehind) {
    const auto body = [](size_t size) {
        if (size != 0)
            std::ofstream(kSharedMemoryPath) << std::string(size, '\xEE');
        {
            const ModuleLibrary module;
            RtpChannelConfig config;
            for (uint32_t at = 0; at < 32; ++at) {
                const std::string channel = std::to_string(at / 16) + '.' + std::to_string(at % 16);
                ASSERT_EQ(module.GetConfig(module.Handle, at / 16, at % 16, &config), 1u);
                EXPECT_STREQ(config.LocalAddress, "0.0.0.0");
                EXPECT_EQ(config.RemoteAddress, "224.1." + channel);
                EXPECT_EQ(config.Port, 10000 + 100 * (at / 16) + at % 16);
                EXPECT_EQ(std::tuple(config.Multicast, config.Rtp, config.Ttl),
                          std::tuple(1, 1, 255));
            }
            config = Loopback(5, 0);
            EXPECT_EQ(module.SetConfig(module.Handle, kReceive, 15, &config), 1u);
        }
        std::ifstream file(kSharedMemoryPath);
        const std::string content(std::istreambuf_iterator<char>(file), {});
        ASSERT_EQ(content.size(), 17680u);
        EXPECT_EQ(content.substr(17676), std::string("\x75\x17\0\0", 4)) << "port 6005";
    };
    for (const size_t size : {0, 100, 17680, 100000})
        EXPECT_EQ(Reap(ForkApart([&] { body(size); })), 0) << size;
}

TEST(Load, WithoutATableOfItsOwnTheModuleRefusesOrWorksOnTheForeignOne) {
    struct Case {
        std::string Content;  // of another user's file; empty = a directory is in the way
        bool Handle;
        uint32_t Started;
    };
    std::string ofThisInstance(17680, '\xFF');
    memset(ofThisInstance.data(), 0, 4);
    const Case cases[] = {{"", false, 0},
                          {std::string(17679, '\xFF'), false, 0},
                          {std::string(17680, '\xFF'), true, 0},
                          {ofThisInstance, true, 1}};
    const auto body = [](const Case& c, bool readOnly) {
        using std::filesystem::perms;
        if (c.Content.empty())
            std::filesystem::create_directory(kSharedMemoryPath);
        else
            std::ofstream(kSharedMemoryPath) << c.Content;
        std::filesystem::permissions("/tmp", perms(01777));
        std::filesystem::permissions(kSharedMemoryPath, perms(0666));
        EXPECT_EQ(mount("", "/tmp", "", MS_REMOUNT | (readOnly ? MS_RDONLY : 0), ""), 0);
        EXPECT_EQ(setgroups(0, nullptr) | setgid(65534) | setuid(65534), 0);
        const bool handle = c.Handle && !readOnly;
        const uint32_t started = readOnly ? 0 : c.Started;
        const ModuleLibrary module;
        EXPECT_EQ(module.Handle != nullptr, handle);
        RtpChannelConfig config = Loopback(0, 1);
        EXPECT_EQ(module.SetConfig(module.Handle, kSend, 0, &config), handle ? 1u : 0);
        EXPECT_EQ(module.SendStart(module.Handle, 0, 1000000, 100), started);
        EXPECT_EQ(module.ReceiveStart(module.Handle, 0), started);
        usleep(handle ? 1200000 : 0);  // housekeeping looks once a second at what has no NUL in it
        EXPECT_EQ(module.SendEnd(module.Handle, 0), started);
        EXPECT_EQ(module.ReceiveEnd(module.Handle, 0), started);
    };
    for (const Case& c : cases)
        for (const bool readOnly : {false, true})
            EXPECT_EQ(Reap(ForkApart([&] { body(c, readOnly); })), 0)
                << c.Content.size() << ' ' << c.Started << ' ' << readOnly;
}

TEST(Exit, WithStartedChannelsIsPromptAndClean) {
    std::vector<pid_t> children;
    for (int i = 0; i < 10; ++i)
        children.push_back(ForkApart([] {
            static const auto* const module = new ModuleLibrary;  // the host forgets it
            Session(*module, 0).Send(500);
            module->ReceiveStart(module->Handle, 1);
        }));
    for (const pid_t child : children)
        EXPECT_EQ(Reap(child, std::chrono::seconds(10)), 0);
}

TEST(Fork, ChildThatExitsEndsPromptlyAndDisturbsNothing) {
    EXPECT_EQ(Reap(ForkApart([] {
                       const ModuleLibrary module;
                       Session session(module, 0);
                       for (int i = 0; i < 10; ++i) {
                           session.Send(1000);
                           EXPECT_EQ(Reap(Fork([] { return 7; })), 7);
                           session.ExpectAll();
                       }
                       session.End();
                   }),
                   std::chrono::seconds(60)),
              0);
}

}  // namespace
