// The module, loaded as a host loads it, and a stream over two of its channels.
#ifndef TESTS_MODULELIBRARY_H
#define TESTS_MODULELIBRARY_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ProcessSupport.h"
#include "RtpContext.h"

// An exported function of a loaded module.
#define QXV(module, name) \
    reinterpret_cast<decltype(&QXV_RTP_##name)>(dlsym((module).Library, "QXV_RTP_" #name))

struct ModuleLibrary {
    explicit ModuleLibrary(const std::string& path = MODULE_PATH)
        : Library(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(Library, nullptr) << dlerror();
        Handle = QXV(*this, Create)(0);
    }
    ~ModuleLibrary() { EXPECT_EQ(dlclose(Library), 0); }
    void* const Library;
    void* Handle;
};

// Both addresses are `address`, from which, with the channel, follows the port.
inline RtpChannelConfig Loopback(uint32_t channel, uint8_t rtp, const char* address = "127.0.0.1") {
    RtpChannelConfig config{};
    strcpy(config.LocalAddress, address);
    strcpy(config.RemoteAddress, address);
    config.Rtp = rtp;
    config.Port = static_cast<uint16_t>(6000 + 100 * (address[8] - '1') + channel);
    return config;
}

// A send and a receive channel, connected. A stream that stops short is a hang, for which whoever
// runs this has a deadline.
struct Session {
    Session(const ModuleLibrary& module, uint32_t channel) : Module(module), Number(channel) {
        for (const uint32_t direction : {kSend, kReceive}) {
            RtpChannelConfig config = Loopback(channel, 1);
            EXPECT_EQ(QXV(module, SetConfig)(module.Handle, direction, channel, &config), 1u);
        }
        EXPECT_EQ(QXV(module, ReceiveStart)(module.Handle, channel), 1u);
        auto& record = static_cast<RtpContext*>(module.Handle)->Channels[kReceive][channel];
        EXPECT_TRUE(Await([&] { return record.Reopen == 0; }));
        EXPECT_EQ(QXV(module, SendStart)(module.Handle, channel, 200000000, 16384), 1u);
    }
    ~Session() {
        EXPECT_EQ(QXV(Module, SendEnd)(Module.Handle, Number), 1u);
        EXPECT_EQ(QXV(Module, ReceiveEnd)(Module.Handle, Number), 1u);
    }
    // Sends so many datagrams, and expects them byte for byte, `between` being done on their way.
    void Exchange(
        size_t datagrams, const std::function<void()>& between = [] {}) {
        std::vector<uint8_t> sent(datagrams * 7 * 188);
        for (size_t i = 0; i < sent.size(); ++i)
            sent[i] = static_cast<uint8_t>(i % 188 == 0 ? 0x47 : (i + Seed) * 2654435761 >> 13);
        Seed += 1000003;
        const auto size = static_cast<uint32_t>(sent.size());
        EXPECT_EQ(QXV(Module, Send)(Module.Handle, Number, sent.data(), size), 1u);
        between();
        std::vector<uint8_t> got(sent.size());
        EXPECT_EQ(QXV(Module, Receive)(Module.Handle, Number, got.data(), size), 1u);
        EXPECT_TRUE(got == sent);
    }
    const ModuleLibrary& Module;
    const uint32_t Number;
    size_t Seed = 0;
};

#endif
