// All exported functions at once.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "ModuleLibrary.h"

namespace {

constexpr uint32_t kUsed = 2;  // channels
constexpr auto kTime = std::chrono::seconds(3);

// One call, of any kind, as a host might make it at any time.
void CallAnything(const ModuleLibrary& module, std::minstd_rand& random) {
    constexpr uint32_t kBitrates[] = {0, 1000000, 50000000, 200000000};
    void* const handle = module.Handle;
    const uint32_t channel = random() % kUsed;
    const uint32_t direction = random() % kDirections;
    const uint32_t bitrate = kBitrates[random() % 4];
    // A receive socket comes only with the next second: one channel is mostly left alone.
    const uint32_t ended = random() % 300 == 0 ? 1 : 0;
    RtpChannelConfig config =
        Loopback(channel, random() % 2, random() % 2 ? "127.0.0.2" : "127.0.0.1");
    uint32_t measured;
    const std::function<void()> calls[] = {
        [&] { module.SendStart(handle, channel, bitrate, 9 + random() % 1000); },
        [&] { module.SendStart(handle, channel, bitrate, 16384); },
        [&] { module.SendEnd(handle, channel); },
        [&] { module.SendCancel(handle, channel); },
        [&] { module.SetBitrate(handle, channel, bitrate); },
        [&] { module.ReceiveStart(handle, ended); },
        [&] { module.ReceiveEnd(handle, ended); },
        [&] { module.ReceiveCancel(handle, ended); },
        [&] { ended == 1 ? module.Cancel(handle) : module.GetBitrate(handle, channel, &measured); },
        [&] { module.Destroy(module.Create(0)); },
        [&] { EXPECT_EQ(module.SetConfig(handle, direction, channel, &config), 1u); },
        [&] {
            EXPECT_EQ(module.GetConfig(handle, direction, channel, &config), 1u);
            EXPECT_EQ(config.Port, Loopback(channel, 0, config.LocalAddress).Port) << "torn";
        }};
    calls[random() % std::size(calls)]();
}

// Datagrams of all sizes, some with an RTP header that lists more sources than there are.
void Bombard(std::minstd_rand& random, int file) {
    const RtpChannelConfig config =
        Loopback(random() % kUsed, 0, random() % 2 ? "127.0.0.2" : "127.0.0.1");
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(config.Port);
    inet_pton(AF_INET, config.LocalAddress, &target.sin_addr);
    unsigned char data[1500] = {0x8F, 33};
    data[12 * (random() % 2)] = 0x47;
    sendto(file, data, random() % sizeof(data), 0, reinterpret_cast<sockaddr*>(&target),
           sizeof(target));
}

TEST(Concurrency, AnyCallsAtAnyTimeLeaveAModuleThatWorks) {
    const ModuleLibrary module;
    const auto before = Footprint();
    std::atomic<bool> stop = false;
    std::atomic<int> ended = 0;
    std::atomic<uint64_t> received = 0;
    std::vector<std::jthread> threads;
    const auto repeat = [&](auto action) {
        threads.emplace_back([&, action, random = std::minstd_rand(threads.size() + 1)]() mutable {
            while (!stop)
                action(random);
            ++ended;
        });
    };
    for (uint32_t channel = 0; channel < kUsed; ++channel) {
        RtpChannelConfig config = Loopback(channel, 1);
        module.SetConfig(module.Handle, kSend, channel, &config);
        module.SetConfig(module.Handle, kReceive, channel, &config);
        module.ReceiveStart(module.Handle, channel);
        repeat([&, channel](auto&) {
            std::vector<uint8_t> data(13160, 0x47);
            module.Send(module.Handle, channel, data.data(), 13160);
        });
        repeat([&, channel](auto&) {
            uint8_t data[5000];
            received += module.Receive(module.Handle, channel, data, sizeof(data));
        });
    }
    for (int i = 0; i < 3; ++i)
        repeat([&](auto& random) {
            CallAnything(module, random);
            usleep(random() % 1000);
        });
    const int file = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    repeat([&](auto& random) {
        Bombard(random, file);
        usleep(random() % 100);
    });
    std::this_thread::sleep_for(kTime);
    stop = true;
    // A start may come after a cancel, and a transfer wait again.
    EXPECT_TRUE(Await([&] {
        return module.Cancel(module.Handle) == 1 && ended == static_cast<int>(threads.size());
    }));
    threads.clear();
    close(file);
    EXPECT_GT(received, 0u);

    for (uint32_t channel = 0; channel < kUsed; ++channel) {
        EXPECT_EQ(module.SendEnd(module.Handle, channel), 1u);
        EXPECT_EQ(module.ReceiveEnd(module.Handle, channel), 1u);
    }
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
    for (uint32_t channel = 0; channel < kUsed; ++channel) {
        Session session(module, channel);
        session.Send(2000);
        session.ExpectAll();
        session.End();
    }
}

}  // namespace
