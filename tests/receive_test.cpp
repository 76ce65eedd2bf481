// Receive sockets: who gets which datagram, and what is left when they are gone.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <sstream>
#include <thread>

#include "SocketSupport.h"

namespace {

// Sockets by their local and remote address, and streams by theirs, with the sockets that get them.
struct Scene {
    const char* Name;
    const char* Sockets;
    const char* Streams;
    int32_t Option = 0;
};

const Scene kLoopbackScenes[] = {
    {"named addresses of both families on one port", "127.0.0.1 0.0.0.0 127.0.0.2 0.0.0.0 ::1 ::",
     "0.0.0.0 127.0.0.1 0 0.0.0.0 127.0.0.2 1 :: ::1 2"},
    {"unicast and groups, with two receivers each, of both families on one port",
     "0.0.0.0 0.0.0.0 :: :: 127.0.0.1 239.1.1.1 0.0.0.0 239.1.1.2 0.0.0.0 239.1.1.2 "
     "::1 ff15::1 :: ff15::2 :: ff15::2",
     "0.0.0.0 127.0.0.3 0 :: ::1 1 127.0.0.1 239.1.1.1 2 0.0.0.0 239.1.1.2 34 "
     "::1 ff15::1 5 :: ff15::2 67"}};

const Scene kInterfaceScenes[] = {
    {"groups on one interface each, and unicast",
     "0.0.0.0 0.0.0.0 :: :: 10.77.0.1 239.1.1.1 10.77.1.1 239.1.1.1 fd77:0::1 ff15::1 "
     "fd77:1::1 ff15::1",
     "10.77.0.1 239.1.1.1 2 10.77.1.1 239.1.1.1 3 fd77:0::1 ff15::1 4 fd77:1::1 ff15::1 5 "
     "0.0.0.0 10.77.0.1 0 :: fd77:0::1 1"},
    {"groups on all interfaces", "10.77.1.1 239.1.1.1 :: ff15::1",
     "10.77.0.1 239.1.1.1 0 10.77.1.1 239.1.1.1 0 fd77:0::1 ff15::1 1 fd77:1::1 ff15::1 1", 1},
    {"a link-local group by its zone, by the local address, and by its zone against that",
     ":: ff02::1:5%a0 fd77:1::1 ff02::1:5 fd77:0::1 ff02::1:5%a1",
     "fd77:0::1 ff02::1:5 0 :: ff02::1:5%a1 12", 1}};

// Every stream is sent twice: what went astray in the first round has arrived before what every
// socket awaits from the second.
void Play(const Scene& scene, bool reversed) {
    SCOPED_TRACE(std::string(scene.Name) + (reversed ? ", opened in reverse order" : ""));
    std::string local;
    std::string remote;
    std::string to;
    std::vector<std::pair<std::string, std::string>> addresses;
    for (std::istringstream text(scene.Sockets); text >> local >> remote;)
        addresses.emplace_back(local, remote);
    const size_t count = addresses.size();
    std::vector<std::unique_ptr<Receiver>> receivers(count);
    for (size_t i = 0; i < count; ++i) {
        const size_t at = reversed ? count - 1 - i : i;
        receivers[at] = std::make_unique<Receiver>(addresses[at].first, addresses[at].second, kPort,
                                                   scene.Option);
        ASSERT_TRUE(*receivers[at]) << at;
    }
    std::vector<std::string> expected(count);
    for (int round = 0; round < 2; ++round) {
        char name = 'a';
        for (std::istringstream text(scene.Streams); text >> local >> remote >> to; ++name) {
            ASSERT_EQ(Sender(local, remote).Send({name}), 1u) << remote;
            for (const char socket : to)
                expected[static_cast<size_t>(socket - '0')] += name;
        }
        for (size_t at = 0; at < count; ++at)
            EXPECT_TRUE(Await([&] { return receivers[at]->Count() >= expected[at].size(); })) << at;
    }
    for (size_t at = 0; at < count; ++at)
        EXPECT_EQ(receivers[at]->Data(), expected[at]) << at;
}

TEST(Receive, EverySocketGetsItsOwnDatagramsOnly) {
    for (const Scene& scene : kLoopbackScenes)
        for (const bool reversed : {false, true})
            Play(scene, reversed);
    const Interfaces interfaces;
    for (const Scene& scene : kInterfaceScenes)
        for (const bool reversed : {false, true})
            Play(scene, reversed);
}

TEST(Receive, DatagramsOfAllSizesArriveWholeWithTheirSourceAndLargerOnesAreNotSent) {
    const Receiver receivers[] = {{"127.0.0.1", "0.0.0.0"}, {"::1", "::"}};
    const Sender senders[] = {{"127.0.0.2", "127.0.0.1"}, {"::1", "::1"}};
    size_t before = 0;
    for (const size_t size : {0, 1, 1316, 2048, 65507, 2}) {
        std::string data(size, '\0');
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<char>(i * 7 + size);
        // In turn from both families, so that what the one leaves in the library's storage would
        // show in the other.
        for (const int six : {0, 1}) {
            EXPECT_EQ(senders[six].Send(std::string(six ? 65528 : 65508, 'x')), 0u);
            ASSERT_EQ(senders[six].Send(data), 1u);
            ASSERT_TRUE(Await([&] { return receivers[six].Count() > before; })) << size;
            const auto [got, source] = receivers[six].All().back();
            EXPECT_TRUE(got == data) << size << " came as " << got.size();
            EXPECT_EQ(source.find(six ? "::1 " : "127.0.0.2 "), 0u) << source;
            EXPECT_EQ(source, receivers[six].All().front().second);
        }
        ++before;
    }
}

TEST(Receive, BurstThatComesWhileACallbackBlocksIsKeptInOrder) {
    constexpr size_t kDatagrams = 3000;
    std::mutex gate;
    std::unique_lock closed(gate);
    const Receiver receiver("127.0.0.1", "0.0.0.0", kPort, 0,
                            [&](void*) { const std::lock_guard passing(gate); });
    const Sender sender("0.0.0.0", "127.0.0.1");
    for (size_t i = 0; i < kDatagrams; ++i)
        ASSERT_EQ(sender.Send(std::to_string(i) + std::string(1300, ' ')), 1u);
    closed.unlock();
    ASSERT_TRUE(Await([&] { return receiver.Count() == kDatagrams; })) << receiver.Count();
    size_t next = 0;
    for (const auto& [data, source] : receiver.All())
        ASSERT_EQ(std::stoul(data), next++);
}

TEST(Receive, SecondUnicastSocketOfAnAddressIsRefusedAndTheFirstGoesOn) {
    const std::pair<std::string, const char*> cases[] = {{"0.0.0.0", "0.0.0.0"},
                                                         {"127.0.0.1", "127.0.0.1"},
                                                         {"0.0.0.0", "127.0.0.1"},
                                                         {"127.0.0.1", "0.0.0.0"},
                                                         {"::", "::"},
                                                         {"::1", "::"}};
    for (const auto& [first, second] : cases) {
        const bool six = first[0] == ':';
        const std::string any = six ? "::" : "0.0.0.0";
        for (const int groupAt : {0, 1, 2}) {  // none on the port, opened first, opened between
            SCOPED_TRACE(first + ", then " + second + ", group " + std::to_string(groupAt));
            std::unique_ptr<Receiver> group;
            if (groupAt == 1)
                group = std::make_unique<Receiver>(any, six ? "ff15::1" : "239.1.1.1");
            const Receiver unicast(first, any);
            if (groupAt == 2)
                group = std::make_unique<Receiver>(any, six ? "ff15::1" : "239.1.1.1");
            EXPECT_FALSE(Receiver(second, any));
            ASSERT_EQ(Sender(any, six ? "::1" : "127.0.0.1").Send("x"), 1u);
            EXPECT_TRUE(Await([&] { return unicast.Count() == 1; }));
        }
    }
}

TEST(Create, WhatCannotWorkIsRefusedWithNothingLeftOpen) {
    const std::pair<const char*, const char*> cases[] = {
        {"x", "127.0.0.1"},          {"127.0.0.1", "x"},       {"::1", "127.0.0.1"},
        {"239.1.1.1", "127.0.0.1"},  {"127.0.0.1", "ff15::1"}, {"192.0.2.1", "127.0.0.1"},
        {"192.0.2.1", "239.1.1.1"},  {"2001:db8::1", "::1"},   {"2001:db8::1", "ff15::1"},
        {"::", "ff02::1%2147483647"}};
    const auto before = Footprint();
    for (const auto& [local, remote] : cases) {
        EXPECT_FALSE(Receiver(local, remote)) << local << ' ' << remote;
        EXPECT_FALSE(Sender(local, remote).Socket) << local << ' ' << remote;
    }
    const char* const own = "127.0.0.1";
    for (const int32_t send : {0, 1}) {
        const auto create = [send](const char* local, const char* remote, uint32_t port,
                                   int32_t multicast, int32_t ttl) {
            return ZAQUDPSocket_Create(
                local, remote, port, port, multicast, send, 0, ttl,
                [](void*, void*, sockaddr*, unsigned char*, unsigned int) {}, nullptr);
        };
        EXPECT_EQ(create(nullptr, own, kPort, 0, 1), nullptr);
        EXPECT_EQ(create(own, nullptr, kPort, 0, 1), nullptr);
        EXPECT_EQ(create(own, own, 65536, 0, 1), nullptr);
        EXPECT_EQ(create(own, own, kPort, 1, 1), nullptr) << "no group";
        EXPECT_EQ(create(own, own, kPort, 0, 256), nullptr);
        EXPECT_EQ(create(own, own, kPort, 0, -1), nullptr);
    }
    EXPECT_EQ(ZAQUDPSocket_Create(own, own, kPort, kPort, 0, 0, 0, 1, nullptr, nullptr), nullptr);
    ZAQUDPSocket_Destroy(nullptr);
    EXPECT_EQ(ZAQUDPSocket_GetContext(nullptr), nullptr);
    EXPECT_EQ(ZAQUDPSocket_SendAll(nullptr, nullptr, 0), 0u);
    EXPECT_EQ(Footprint(), before);
}

TEST(Create, RunningOutOfDescriptorsAtAnyStepLeavesNothingOpen) {
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    for (const auto& [local, remote] : {std::pair{"0.0.0.0", "0.0.0.0"}, {"::1", "ff15::1"}}) {
        const auto before = Footprint();
        const int lowestFree = dup(0);
        close(lowestFree);
        rlim_t extra = 0;
        for (bool created = false; !created && extra < 20; ++extra) {
            const rlimit tight{static_cast<rlim_t>(lowestFree) + extra, usual.rlim_max};
            setrlimit(RLIMIT_NOFILE, &tight);
            created = static_cast<bool>(Receiver(local, remote, kPort, 1));
            setrlimit(RLIMIT_NOFILE, &usual);
            EXPECT_TRUE(Await([&] { return Footprint() == before; })) << local << ' ' << extra;
        }
        EXPECT_EQ(extra, 4u) << "socket, epoll and event fail once each";
    }
}

TEST(Receive, CallbackThreadBlocksAllSignalsAndLeavesTheHostsMaskAlone) {
    const auto blocked = [] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        std::string list;
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGUSR1, SIGCHLD, SIGPIPE})
            list += sigismember(&mask, signal) == 1 ? 'x' : '-';
        return list;
    };
    std::string inside;
    {
        const Receiver receiver("127.0.0.1", "0.0.0.0", kPort, 0,
                                [&](void*) { inside = blocked(); });
        ASSERT_EQ(Sender("0.0.0.0", "127.0.0.1").Send("x"), 1u);
        ASSERT_TRUE(Await([&] { return receiver.Count() == 1; }));
    }
    EXPECT_EQ(inside, "xxxxxxx");
    EXPECT_EQ(blocked(), "-------");
}

TEST(Destroy, UnderTrafficNoCallbackRunsOrBeginsAfterIt) {
    constexpr uint32_t kThreads = 3;
    const auto before = Footprint();
    std::atomic<bool> stop = false;
    std::atomic<int> faults = 0;
    std::vector<std::jthread> threads;
    const auto openAndDestroy = [&faults](uint32_t port) {
        std::vector<std::unique_ptr<Receiver>> destroyed;  // kept for callbacks that come too late
        std::atomic<int> open = -1;
        std::atomic<bool> inside = false;
        for (int round = 0; round < 100; ++round) {
            open = round;
            destroyed.push_back(std::make_unique<Receiver>(
                "127.0.0.1", "0.0.0.0", port, 0, [&faults, &open, &inside, round](void*) {
                    faults += inside.exchange(true) || open != round;
                    usleep(200);
                    faults += open != round;
                    inside = false;
                }));
            const Receiver& receiver = *destroyed.back();
            EXPECT_TRUE(Await([&] { return receiver.Count() > static_cast<size_t>(round % 3); }));
            destroyed.back()->Destroy();
            open = -1;
        }
    };
    for (uint32_t at = 0; at < kThreads; ++at)
        threads.emplace_back(openAndDestroy, kPort + at);
    std::jthread traffic([&stop] {
        for (; !stop; usleep(50))
            for (uint32_t at = 0; at < kThreads; ++at)
                Sender("0.0.0.0", "127.0.0.1", kPort + at).Send("x");
    });
    threads.clear();
    stop = true;
    traffic.join();
    EXPECT_EQ(faults, 0);
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

TEST(Destroy, InACallbackEndsOwnAndOtherSocketsAndAllowsANewOne) {
    enum Case { kOwn, kOwnAndNew, kOtherOwnAndNew };
    const auto before = Footprint();
    for (const Case which : {kOwn, kOwnAndNew, kOtherOwnAndNew}) {
        SCOPED_TRACE(which);
        std::mutex gate;
        std::unique_lock closed(gate);
        std::atomic<bool> done = false;
        std::unique_ptr<Receiver> next;
        size_t otherCount = 0;
        Receiver other("127.0.0.1", "0.0.0.0", kPort + 1);
        if (which != kOtherOwnAndNew)
            other.Destroy();
        Receiver first("127.0.0.1", "0.0.0.0", kPort, 0, [&](void* socket) {
            const std::lock_guard passing(gate);
            if (first.Count() < 2)
                return;  // the next call begins a batch of all that have come meanwhile
            other.Destroy();
            otherCount = other.Count();
            ZAQUDPSocket_Destroy(socket);
            if (which != kOwn)
                next = std::make_unique<Receiver>("127.0.0.1", "0.0.0.0");
            done = true;
        });
        for (uint32_t i = 0; i < 40; ++i)
            ASSERT_EQ(Sender("0.0.0.0", "127.0.0.1", kPort + i % 2).Send("x"), 1u);
        closed.unlock();
        ASSERT_TRUE(Await([&] { return done.load(); }));
        first.Forget();
        if (which == kOwn) {
            EXPECT_TRUE(Await([&] { return Footprint().second == before.second; }));
            next = std::make_unique<Receiver>("127.0.0.1", "0.0.0.0");
        }
        const Sender sender("0.0.0.0", "127.0.0.1");
        EXPECT_TRUE(Await([&] { return sender.Send("x") == 1 && next->Count() > 0; }));
        EXPECT_EQ(first.Data(), "xx");
        EXPECT_EQ(other.Count(), otherCount);
    }
    EXPECT_TRUE(Await([&] { return Footprint() == before; }));
}

}  // namespace
