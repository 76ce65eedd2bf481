// All exported functions at once.

#include <atomic>
#include <random>

#include "ModuleLibrary.h"

namespace {

constexpr uint32_t kUsed = 2;  // channels

// One call, of any kind, as a host might make it at any time. Channel 0 is started and ended all
// the time, channel 1 seldom, so that it carries traffic: a receive socket comes with the next
// second.
void CallAnything(const ModuleLibrary& module, std::minstd_rand& random) {
    constexpr uint32_t kBitrates[] = {0, 1000000, 50000000, 200000000};
    void* const handle = module.Handle;
    const uint32_t channel = random() % kUsed;
    const uint32_t ended = random() % 1000 == 0 ? 1 : 0;
    const uint32_t bitrate = kBitrates[random() % 4];
    RtpChannelConfig config =
        Loopback(channel, random() % 2, random() % 2 ? "127.0.0.2" : "127.0.0.1");
    const RtpChannelConfig other = Loopback(channel, 1);
    uint32_t measured = 0;
    const std::function<uint32_t()> calls[] = {
        [&] { return QXV(module, SendStart)(handle, ended, bitrate, 9 + random() % 1000); },
        [&] { return QXV(module, ReceiveStart)(handle, ended); },
        [&] { return QXV(module, SendEnd)(handle, 0); },
        [&] { return QXV(module, ReceiveEnd)(handle, 0); },
        [&] { return QXV(module, SendCancel)(handle, 0); },
        [&] { return QXV(module, ReceiveCancel)(handle, 0); },
        [&] {
            return ended == 1 && QXV(module, Cancel)(handle) && QXV(module, SendEnd)(handle, 1) &&
                   QXV(module, SendStart)(handle, 1, 50000000, 16384) &&
                   QXV(module, ReceiveEnd)(handle, 1) && QXV(module, ReceiveStart)(handle, 1);
        },
        [&] { return QXV(module, SetBitrate)(handle, channel, bitrate); },
        [&] { return QXV(module, GetBitrate)(handle, channel, &measured); },
        [&] { return QXV(module, Destroy)(QXV(module, Create)(0)), 1; },
        [&] {
            for (int i = 0; i < 3; ++i) {
                RtpChannelConfig next = i == 1 ? other : config;
                for (const uint32_t direction : {kSend, kReceive})
                    QXV(module, SetConfig)(handle, direction, channel, &next);
            }
            return 1;
        },
        [&] {
            for (int i = 0; i < 500; ++i) {
                QXV(module, GetConfig)(handle, kSend, channel, &config);
                const RtpChannelConfig whole = Loopback(channel, 0, config.LocalAddress);
                EXPECT_EQ(config.Port, whole.Port) << config.LocalAddress;
            }
            return 1;
        }};
    calls[random() % std::size(calls)]();
    usleep(random() % 1000);
}

TEST(Concurrency, AnyCallsAtAnyTimeLeaveAModuleThatWorks) {
    const ModuleLibrary module;
    for (uint32_t channel = 0; channel < kUsed; ++channel)
        Session(module, channel).Exchange(2);  // also configures them
    const auto before = Footprint();
    std::atomic<bool> stop = false;
    std::atomic<uint64_t> received = 0;
    std::atomic<size_t> ended = 0;
    std::vector<std::jthread> threads;
    const auto repeat = [&](auto action) {
        threads.emplace_back([&, action, random = std::minstd_rand(threads.size() + 1)]() mutable {
            while (!stop)
                action(random);
            ++ended;
        });
    };
    for (uint32_t channel = 0; channel < kUsed; ++channel) {
        QXV(module, ReceiveStart)(module.Handle, channel);
        QXV(module, SendStart)(module.Handle, channel, 50000000, 16384);
        repeat([&, channel](auto&) {
            const std::vector<uint8_t> data(13160, 0x47);
            QXV(module, Send)(module.Handle, channel, data.data(), 13160);
        });
        repeat([&, channel](auto&) {
            uint8_t data[5000];
            received += QXV(module, Receive)(module.Handle, channel, data, sizeof(data));
        });
        repeat([&](auto& random) { CallAnything(module, random); });
    }
    const char* const seconds = getenv("QXV_SECONDS");
    std::this_thread::sleep_for(std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 3));
    stop = true;
    // A start may come after a cancel, and a transfer wait again.
    EXPECT_TRUE(Await([&] {
        QXV(module, Cancel)(module.Handle);
        return ended == threads.size();
    }));
    threads.clear();
    EXPECT_GT(received, 0u);

    for (uint32_t channel = 0; channel < kUsed; ++channel) {
        QXV(module, SendEnd)(module.Handle, channel);
        QXV(module, ReceiveEnd)(module.Handle, channel);
    }
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
    for (uint32_t channel = 0; channel < kUsed; ++channel)
        Session(module, channel).Exchange(2000);
}

}  // namespace
