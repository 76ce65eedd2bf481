// Whatever the system refuses once: the session goes on or is refused cleanly, nothing is left
// behind, and the next one works.
#include <sched.h>

#include <algorithm>
#include <array>
#include <deque>
#include <new>

#include "FaultInjector.h"
#include "Module.h"
#include "ModuleLibrary.h"

namespace {

struct Stream {
    const char *Local, *Remote;
    uint8_t Multicast, MulticastOption;
};
constexpr Stream kStreams[] = {{"127.0.0.1", "127.0.0.1", 0, 0},
                               {"::1", "::1", 0, 0},
                               {"127.0.0.1", "239.7.7.7", 1, 1},
                               {"::", "ff15::7", 1, 0},
                               {"::", "::1@ff12::7%1", 1, 0}};
constexpr uint32_t kCount = std::size(kStreams);
constexpr uint32_t kDatagram = 7 * 188;
constexpr int kPatience_s = 60;

// A host with a connected send and receive channel for each stream.
class Host {
  public:
    Host(const ModuleLibrary& module, bool receives, bool looks)
        : m_Module(module), m_Receives(receives), m_Looks(receives && looks) {}

    void Run(uint16_t port) {
        Configure(port);
        // One after the other, so that the uses come in the same order every time.
        for (const uint32_t direction : {kReceive, kSend})
            for (uint32_t channel = 0; channel < kCount; ++channel) {
                StartForCertain(direction, channel);
                const auto& record =
                    static_cast<RtpContext*>(m_Module.Handle)->Channels[direction][channel];
                const bool opens = m_Receives || direction == kSend;
                EXPECT_TRUE(Await([&] { return record.Reopen != opens; }, kPatience_s));
            }
        Exchange('a');
        Configure(static_cast<uint16_t>(port + kCount));  // as they run
        Exchange('b');
        for (const uint32_t direction : {kReceive, kSend})
            StartForCertain(direction, 0);  // although it is started
        Exchange('c');
        if (m_Looks) {  // an interface comes and goes, and what groups are joined is looked at
            const std::string name = " f" + std::to_string(port);
            EXPECT_EQ(system(("ip link add" + name +
                              " type dummy 2> /dev/null ||"
                              " ip link add" +
                              name + " type ifb; ip link del" + name)
                                 .c_str()),
                      0);
            EXPECT_TRUE(Await([] { return faults::Uses("fcntl") > 0; }, kPatience_s));
            Exchange('d');
        }
        for (uint32_t channel = 0; channel < kCount; ++channel)
            End(kSend, channel), End(kReceive, channel);
    }

  private:
    void Configure(uint16_t port) {
        for (uint32_t i = 0; i < 2 * kCount; ++i) {
            const auto& [local, remote, multicast, option] = kStreams[i / 2];
            RtpChannelConfig config{{}, {}, multicast, 1, 9, option, port, 0};
            strcpy(config.LocalAddress, local);
            strcpy(config.RemoteAddress, remote);
            config.Port = static_cast<uint16_t>(port + i / 2);
            EXPECT_EQ(QXV(m_Module, SetConfig)(m_Module.Handle, i % 2, i / 2, &config), 1u);
        }
    }

    // False when there is no memory for it, or no thread.
    bool Start(uint32_t direction, uint32_t channel) {
        try {
            return direction == kReceive
                       ? QXV(m_Module, ReceiveStart)(m_Module.Handle, channel) == 1
                       : QXV(m_Module, SendStart)(m_Module.Handle, channel, 100000000, 4096) == 1 &&
                             Send(channel, 'a') == 1;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    void StartForCertain(uint32_t direction, uint32_t channel) {
        if (!Start(direction, channel)) {
            ExpectNoneWaits(direction, channel);
            EXPECT_TRUE(Start(direction, channel));
        }
    }

    // A start that was refused leaves a channel that is as ended, or cancelled.
    void ExpectNoneWaits(uint32_t direction, uint32_t channel) {
        uint8_t byte = 0x47;
        QXV_RTP_Statistics now{};
        now.Size = sizeof(now);
        EXPECT_EQ(QXV(m_Module, GetStatistics)(m_Module.Handle, direction, channel, &now), 1u);
        const auto& rows =
            *static_cast<decltype(&g_ContextExt)>(dlsym(m_Module.Library, "g_ContextExt"));
        const uint32_t running = rows[0][direction][channel].Running;
        EXPECT_TRUE(now.Started + running == 0 || now.Cancelled == 1);
        EXPECT_EQ(direction == kSend ? QXV(m_Module, Send)(m_Module.Handle, channel, &byte, 1)
                                     : QXV(m_Module, Receive)(m_Module.Handle, channel, &byte, 1),
                  0u);
    }

    void End(uint32_t direction, uint32_t channel) {
        const auto end = direction == kSend ? QXV(m_Module, SendEnd) : QXV(m_Module, ReceiveEnd);
        EXPECT_EQ(end(m_Module.Handle, channel), 1u);
    }

    uint32_t Send(uint32_t channel, uint8_t filling) {
        std::array<uint8_t, kDatagram> datagram;
        for (uint32_t i = 0; i < kDatagram; ++i)
            datagram[i] = i % 188 == 0 ? 0x47 : filling;
        return QXV(m_Module, Send)(m_Module.Handle, channel, datagram.data(), kDatagram);
    }

    // Until what is sent now has been arriving everywhere for a while.
    void Exchange(uint8_t filling) {
        constexpr int kAWhile = 20;  // datagrams
        const auto& rows =
            *static_cast<decltype(&g_ContextExt)>(dlsym(m_Module.Library, "g_ContextExt"));
        std::array<uint8_t, kDatagram> datagram;
        std::array<int, kCount> arrived{};
        const auto all_arrive = [&] {
            for (uint32_t channel = 0; channel < kCount; ++channel) {
                EXPECT_EQ(Send(channel, filling), 1u);
                const CZAQSimpleBuffer& ring = *rows[0][kReceive][channel].Buffer.load();
                while (ring.ReadPos != ring.WritePos) {
                    QXV(m_Module, Receive)(m_Module.Handle, channel, datagram.data(), kDatagram);
                    arrived[channel] += datagram.back() == filling;
                }
            }
            return !m_Receives || std::ranges::min(arrived) >= kAWhile;
        };
        // What counts is the channel that lags behind, each of whose datagrams is progress.
        const auto progress = [&] { return std::ranges::min(arrived); };
        EXPECT_TRUE(Await(all_arrive, progress, kPatience_s));
        alarm(2 * kPatience_s);
    }

    const ModuleLibrary& m_Module;
    const bool m_Receives, m_Looks;
};

// Loads the module, lets one use of one function fail in a session, and then runs another one, in
// which all must go well.
int RunSessions(const std::string& function, int use, uint16_t port) {
    alarm(2 * kPatience_s);  // hangs end side by side; each step on the way begins it anew
    EXPECT_EQ(unshare(CLONE_NEWNS) | system(PRIVATE_TMP), 0);
    std::ofstream(QXV_RTP_TABLE_PATH) << "what somebody has left";
    const auto before = Footprint();
    const int held = faults::Held();
    int loads = 0;
    const bool looks = function == "recv" || function == "fcntl" || function == "poll";
    for (const bool faulty : {true, false}) {
        faults::Arm(function, faulty ? use : 0);
        {
            const ModuleLibrary module;
            EXPECT_TRUE(module.Handle != nullptr || faulty);
            loads += module.Handle != nullptr;
            // A load that was refused its housekeeping thread opens no receive sockets.
            const bool receives = Footprint().second > before.second;
            EXPECT_TRUE(receives || faulty);
            if (module.Handle != nullptr)
                Host(module, receives, looks).Run(port);
        }
        EXPECT_EQ(dlopen(MODULE_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
        EXPECT_TRUE(Await([&] { return Footprint().second == before.second; }));
        EXPECT_EQ(Footprint().first, before.first + loads);  // each leaves the table's
        EXPECT_EQ(faults::Held(), held + loads);
        EXPECT_GT(faults::Uses(function), 0);
    }
    alarm(0);
    return testing::Test::HasFailure() ? 1 : 0;
}

TEST(Fault, InAnySystemCallIsOvercome) {
    constexpr size_t kAtOnce = 12;
    constexpr int kMany = 24;
    uint16_t port = 3000;
    ASSERT_EQ(RunSessions("recv", 0, port), 0);  // the uses are counted
    std::deque<std::pair<pid_t, std::string>> running;
    std::string bad;  // looked at in the end: children would inherit the failure
    const auto reap = [&](size_t left) {
        for (; running.size() > left; running.pop_front())
            // Its alarm ends a child that hangs.
            if (const int result = Reap(running.front().first, 20 * kPatience_s); result != 0)
                bad += running.front().second + ": " + std::to_string(result) + '\n';
    };
    for (const std::string& function : faults::Functions())
        for (int uses = faults::Uses(function), use = 1; use <= std::max(uses, 1); ++use)
            // Every one, or every fourth after many; of what is used for each byte or datagram, the
            // first three and one in their midst.
            if (use <= 3 || use == uses / 2 ||
                (uses <= 5 * kMany && (use <= kMany || use % 4 == 0))) {
                port = static_cast<uint16_t>(port + 2 * kCount);
                running.emplace_back(Fork([&] { return RunSessions(function, use, port); }),
                                     function + ' ' + std::to_string(use));
                reap(kAtOnce);
            }
    reap(0);
    EXPECT_EQ(bad, "");
}

// Somebody is quicker with a file of his own than the load, which has just removed what was there.
TEST(Fault, AThiefOfTheTablesPlaceIsReplacedOrRefused) {
    static const auto put = [](const char* path, size_t size) {
        std::ofstream(path) << std::string(4, '\0') + std::string(size - 4, '\xFF');
    };
    static constexpr std::tuple<int, bool, void (*)()> kCases[] = {
        // Which attempt to open the file he is ahead of, whether his can be used, what he does
        {1, true, [] { put(QXV_RTP_TABLE_PATH, 17680); }},
        {1, true, [] { put(QXV_RTP_TABLE_PATH, 17679); }},
        {1, false, [] { std::filesystem::create_symlink("/tmp/aim", QXV_RTP_TABLE_PATH); }},
        {2, true, [] { std::filesystem::remove(QXV_RTP_TABLE_PATH); }}};
    put("/tmp/aim", 20000);
    const std::string aim = Contents("/tmp/aim");
    for (const auto& [use, usable, steal] : kCases) {
        if (use == 2)
            std::filesystem::create_directory(QXV_RTP_TABLE_PATH);  // the load can not remove it
        faults::Arm("open", use, steal);
        const ModuleLibrary module;
        EXPECT_EQ(module.Handle != nullptr, usable);
        if (usable) {  // it is our own, not his
            EXPECT_EQ(static_cast<RtpContext*>(module.Handle)->Channels[0][0].Config.Port, 10000);
        }
        EXPECT_TRUE(Contents("/tmp/aim") == aim);
        std::filesystem::remove(QXV_RTP_TABLE_PATH);
    }
}

// Starts and ends all channels so many times, QXV_CHURN or a few.
TEST(Churn, LeavesNothingBehind) {
    const char* const rounds = getenv("QXV_CHURN");
    const int count = rounds != nullptr ? atoi(rounds) : 20;
    const ModuleLibrary module;
    const auto& last = static_cast<RtpContext*>(module.Handle)->Channels[kReceive][kChannels - 1];
    const auto before = Footprint();
    const int held = faults::Held();
    long resident[2] = {};  // pages, half way and in the end
    for (int round = 0; round < count; ++round) {
        for (uint32_t channel = 0; channel < kChannels; ++channel)
            EXPECT_EQ(QXV(module, SendStart)(module.Handle, channel, 1000000, 100) +
                          QXV(module, ReceiveStart)(module.Handle, channel),
                      2u);
        ASSERT_TRUE(Await([&] { return last.Reopen == 0; }));
        for (uint32_t channel = 0; channel < kChannels; ++channel)
            EXPECT_EQ(QXV(module, SendEnd)(module.Handle, channel) +
                          QXV(module, ReceiveEnd)(module.Handle, channel),
                      2u);
        ASSERT_TRUE(Await([&] { return Footprint() == before && faults::Held() == held; }));
        std::ifstream("/proc/self/statm").ignore(99, ' ') >> resident[round > count / 2];
    }
    EXPECT_LT(resident[1], resident[0] + 1024);
}

}  // namespace
