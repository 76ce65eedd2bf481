// The shared table as other processes see it, by its bytes, load and unload, and the handle.
#include <cstdio>

#include "ModuleFixture.h"
#include "ProcessSupport.h"

namespace {

using TableTest = ModuleTest;

TEST_F(TableTest, AnOwnersLoadLaysDownTheDefaults) {
    std::string expected(17680, '\0');
    const auto put32 = [&](size_t offset, uint32_t value) { memcpy(&expected[offset], &value, 4); };
    put32(8, 16);
    put32(12, 16);
    for (uint32_t record = 0; record < 32; ++record) {
        const uint32_t offset = 16 + record * 552, direction = record / 16, channel = record % 16;
        put32(offset + 4, direction);
        put32(offset + 8, channel);
        put32(offset + 24, 1);
        snprintf(&expected[offset + 32], 256, "0.0.0.0");
        snprintf(&expected[offset + 288], 256, "224.1.%u.%u", direction, channel);
        put32(offset + 544, 0x00FF0101);  // multicast, RTP, TTL, option
        put32(offset + 548, 10000 + 100 * direction + channel);
    }
    QXV_RTP_Deconstructor();
    std::ofstream(QXV_RTP_TABLE_PATH) << std::string(20000, 'x');
    ASSERT_EQ(QXV_RTP_Constructor(), 1);
    EXPECT_TRUE(Contents(QXV_RTP_TABLE_PATH) == expected);
    EXPECT_TRUE(std::all_of(&Row(0, 0), &Row(0, 0) + 32, IsEmpty));
    // The segment has forgotten the mapping, so that nothing can take it away.
    const std::string forgotten(sizeof(g_ShareMemory) - sizeof(void*), '\0');
    EXPECT_EQ(memcmp(&g_ShareMemory.File, forgotten.data(), forgotten.size()), 0);
    g_pContext->HandleCount = 77;
    QXV_RTP_Deconstructor();
    EXPECT_TRUE(g_pThread == nullptr && g_ThreadQuit == 1);
    put32(4, 77);
    EXPECT_TRUE(Contents(QXV_RTP_TABLE_PATH) == expected);
    EXPECT_EQ(g_pContext->HandleCount, 77u);  // still mapped
}

TEST_F(TableTest, HandlesAreCountedAndNeverDistinct) {
    auto& header = *g_pContext;
    EXPECT_TRUE(QXV_RTP_Create(1) == nullptr && QXV_RTP_Create(-1) == nullptr);
    EXPECT_TRUE(QXV_RTP_Create(0) == &header && Handle == &header && header.HandleCount == 2);
    QXV_RTP_Destroy(nullptr);
    for (int i = 0; i < 3; ++i)
        QXV_RTP_Destroy(Handle);
    EXPECT_EQ(header.HandleCount, 0xFFFFFFFFu);
    for (const uint32_t present : {1, 2, 0}) {
        header.TxChannelCount = present & 1;
        header.RxChannelCount = present & 2;
        EXPECT_EQ(QXV_RTP_Create(0), present != 0 ? &header : nullptr);
    }
    EXPECT_EQ(QXV_RTP_Start(nullptr) + QXV_RTP_End(nullptr), 0u);
    EXPECT_EQ(QXV_RTP_Start(Handle) + QXV_RTP_End(Handle), 2u);
    EXPECT_EQ(QXV_RTP_GetMaximumBufferPackets(), 16384u);
    EXPECT_EQ(QXV_RTP_GetInputChannelCount() * 100 + QXV_RTP_GetOutputChannelCount(), 1616u);
    uint8_t out[4] = {9, 9, 9, 9};
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(nullptr, &out[0], &out[1], &out[2], &out[3]), 0u);
    EXPECT_EQ(memcmp(out, "\x9\x9\x9\x9", 4), 0);
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(Handle, nullptr, nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(Handle, &out[0], &out[1], &out[2], &out[3]), 1u);
    EXPECT_EQ(memcmp(out, "\0\1\x3F\0", 4), 0);  // all six capabilities
}

}  // namespace
