// The module, loaded as a host loads it, and a stream over its channels.
#ifndef TESTS_MODULELIBRARY_H
#define TESTS_MODULELIBRARY_H

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ProcessSupport.h"
#include "RtpContext.h"

#define QXV_FUNCTION(name) \
    decltype(&QXV_RTP_##name) name = Find<decltype(&QXV_RTP_##name)>("QXV_RTP_" #name)

struct ModuleLibrary {
    ~ModuleLibrary() { EXPECT_EQ(dlclose(Library), 0); }

    template <typename Function>
    Function Find(const char* name) const {
        EXPECT_NE(Library, nullptr) << dlerror();
        return reinterpret_cast<Function>(dlsym(Library, name));
    }

    void* const Library = dlopen(MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    QXV_FUNCTION(Create);
    QXV_FUNCTION(Destroy);
    QXV_FUNCTION(GetConfig);
    QXV_FUNCTION(SetConfig);
    QXV_FUNCTION(SendStart);
    QXV_FUNCTION(Send);
    QXV_FUNCTION(SendEnd);
    QXV_FUNCTION(SendCancel);
    QXV_FUNCTION(Cancel);
    QXV_FUNCTION(SetBitrate);
    QXV_FUNCTION(GetBitrate);
    QXV_FUNCTION(ReceiveStart);
    QXV_FUNCTION(Receive);
    QXV_FUNCTION(ReceiveCancel);
    QXV_FUNCTION(ReceiveEnd);
    void* const Handle = Create(0);
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
class Session {
  public:
    Session(const ModuleLibrary& module, uint32_t channel) : m_Module(module), m_Channel(channel) {
        for (const uint32_t direction : {kSend, kReceive}) {
            RtpChannelConfig config = Loopback(channel, 1);
            EXPECT_EQ(module.SetConfig(module.Handle, direction, channel, &config), 1u);
        }
        EXPECT_EQ(module.ReceiveStart(module.Handle, channel), 1u);
        auto& record = static_cast<RtpContext*>(module.Handle)->Channels[kReceive][channel];
        EXPECT_TRUE(Await([&] { return record.Reopen == 0; }));
        EXPECT_EQ(module.SendStart(module.Handle, channel, 200000000, 16384), 1u);
    }
    void End() const {
        EXPECT_EQ(m_Module.SendEnd(m_Module.Handle, m_Channel), 1u);
        EXPECT_EQ(m_Module.ReceiveEnd(m_Module.Handle, m_Channel), 1u);
    }
    void Send(size_t datagrams) {
        std::vector<uint8_t> data;
        for (const size_t last = m_Sent + datagrams * 7; m_Sent < last; ++m_Sent)
            Append(data, m_Sent);
        EXPECT_EQ(m_Module.Send(m_Module.Handle, m_Channel, data.data(), Size(data)), 1u);
    }
    void ExpectAll() {
        std::vector<uint8_t> expected;
        for (; m_Received < m_Sent; ++m_Received)
            Append(expected, m_Received);
        std::vector<uint8_t> got(expected.size());
        EXPECT_EQ(m_Module.Receive(m_Module.Handle, m_Channel, got.data(), Size(got)), 1u);
        EXPECT_TRUE(got == expected);
    }

  private:
    static uint32_t Size(const std::vector<uint8_t>& data) {
        return static_cast<uint32_t>(data.size());
    }
    // A transport-stream packet that tells its number.
    static void Append(std::vector<uint8_t>& data, size_t number) {
        data.push_back(0x47);
        for (size_t i = 1; i < 188; ++i)
            data.push_back(static_cast<uint8_t>((number >> (i % 3 * 8)) + i));
    }

    const ModuleLibrary& m_Module;
    const uint32_t m_Channel;
    size_t m_Sent = 0;
    size_t m_Received = 0;
};

#endif
