// What every test of the module against the fake socket library begins and ends with.
#ifndef TESTS_MODULEFIXTURE_H
#define TESTS_MODULEFIXTURE_H

#include <gtest/gtest.h>

#include <cstring>

#include "FakeSockets.h"
#include "Module.h"
#include "QXV_RTP.h"
#include "TestClock.h"

using testclock::Until;

class ModuleTest : public testing::Test {
  protected:
    static RtpChannelContext& Record(uint32_t direction, uint32_t channel) {
        return g_pContext->Channels[direction][channel];
    }
    static RtpChannelContextExt& Row(uint32_t direction, uint32_t channel) {
        return g_ContextExt[0][direction][channel];
    }
    static bool IsEmpty(const RtpChannelContextExt& row) {
        return row.Cancel == 1 && row.Running == 0 && row.Socket == nullptr &&
               row.Thread == nullptr && row.Timer == nullptr && row.Buffer == nullptr;
    }
    static RtpChannelConfig Config(const char* local, const char* remote, uint8_t multicast,
                                   uint8_t rtp = 1) {
        RtpChannelConfig config{{}, {}, multicast, rtp, 9, 0, 5000, 0};
        strcpy(config.LocalAddress, local);
        strcpy(config.RemoteAddress, remote);
        return config;
    }
    void SetConfig(uint32_t direction, uint32_t channel, RtpChannelConfig config) {
        EXPECT_EQ(QXV_RTP_SetConfig(Handle, direction, channel, &config), 1u);
    }
    // A stream in which only the sync bytes are 0x47 and no two datagrams are alike.
    static Bytes Stream(size_t packets, size_t packetSize) {
        Bytes stream(packets * packetSize);
        for (size_t i = 0; i < stream.size(); ++i)
            stream[i] = static_cast<uint8_t>(i % packetSize == 0 ? 0x47 : (i + i / 64) % 71);
        return stream;
    }
    QXV_RTP_Statistics Statistics(uint32_t direction, uint32_t channel) {
        QXV_RTP_Statistics now;
        memset(&now, 0xEE, sizeof(now));
        now.Size = sizeof(now);
        EXPECT_EQ(QXV_RTP_GetStatistics(Handle, direction, channel, &now), 1u);
        EXPECT_EQ(now.Size, 64u);
        return now;
    }
    static void AwaitSocket(uint32_t direction, uint32_t channel) {
        EXPECT_TRUE(Until([=] { return Record(direction, channel).Reopen == 0; }));
    }
    static void OpenReceiver(uint32_t channel) {
        EXPECT_EQ(QXV_RTP_ReceiveStart(g_pContext, channel), 1u);
        AwaitSocket(kReceive, channel);
    }

    void SetUp() override {
        Fake::Reset();
        ASSERT_NE(Handle = QXV_RTP_Create(0), nullptr);
    }
    // Ends all channels, checks that no socket was lost, and lays down a fresh table by a load.
    void TearDown() override {
        Fake()->HoldCreates = false;
        testclock::Now_us = -1;
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            EXPECT_EQ(
                QXV_RTP_SendEnd(g_pContext, channel) + QXV_RTP_ReceiveEnd(g_pContext, channel), 2u);
        }
        EXPECT_EQ(Fake()->Open.size() + Fake()->Misuses, 0u);
        QXV_RTP_Deconstructor();
        EXPECT_EQ(QXV_RTP_Constructor(), 1);
    }

    void* Handle = nullptr;
};

#endif
