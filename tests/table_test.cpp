// The shared table as other processes see it, load and unload, and the handle.
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "ModuleFixture.h"

namespace {

// The file, by its own bytes: nothing here goes through the structures.
std::string ReadTable() {
    std::ifstream file(kSharedMemoryPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Put32(std::string& table, size_t offset, uint32_t value) {
    memcpy(&table[offset], &value, sizeof(value));
}

class TableTest : public ModuleTest {
  protected:
    static bool RowsAre(uint32_t cancel) {
        return std::all_of(&Row(0, 0), &Row(0, 0) + 32, [cancel](const auto& row) {
            return row.Cancel == cancel && row.Running == 0 && row.Socket == nullptr &&
                   row.Thread == nullptr && row.Timer == nullptr && row.Buffer == nullptr;
        });
    }
};

TEST_F(TableTest, AnOwnersLoadLaysDownTheDefaults) {
    std::string expected(17680, '\0');
    Put32(expected, 8, 16);
    Put32(expected, 12, 16);
    for (uint32_t record = 0; record < 32; ++record) {
        const uint32_t offset = 16 + record * 552, direction = record / 16, channel = record % 16;
        Put32(expected, offset + 4, direction);
        Put32(expected, offset + 8, channel);
        Put32(expected, offset + 24, 1);
        char group[16];
        const int length = snprintf(group, sizeof(group), "224.1.%u.%u", direction, channel);
        expected.replace(offset + 32, 7, "0.0.0.0");
        expected.replace(offset + 288, static_cast<size_t>(length), group);
        Put32(expected, offset + 544, 0x00FF0101);  // multicast, RTP, TTL, option
        Put32(expected, offset + 548, 10000 + 100 * direction + channel);
    }
    QXV_RTP_Deconstructor();
    std::ofstream(kSharedMemoryPath) << std::string(20000, 'x');
    ASSERT_EQ(QXV_RTP_Constructor(), 1);
    EXPECT_TRUE(ReadTable() == expected);
    EXPECT_TRUE(RowsAre(1));
    // The segment has forgotten the mapping, so that nothing can take it away.
    EXPECT_TRUE(g_ShareMemory.File == 0 && g_ShareMemory.Address == nullptr);
    EXPECT_EQ(g_ShareMemory.Owner + g_ShareMemory.Size, 0u);
    EXPECT_STREQ(g_ShareMemory.Name, "");
    g_pContext->HandleCount = 77;
    QXV_RTP_Deconstructor();
    EXPECT_TRUE(g_pThread == nullptr && g_ThreadQuit == 1);
    Put32(expected, 4, 77);
    EXPECT_TRUE(ReadTable() == expected);
    EXPECT_EQ(g_pContext->HandleCount, 77u);  // still mapped
}

TEST_F(TableTest, AnotherUsersTableIsJoinedAsItIs) {
    auto config = Config("10.0.0.1", "10.0.0.2", 0);
    ASSERT_EQ(QXV_RTP_SetConfig(Handle, kReceive, 15, &config), 1u);
    const std::string before = ReadTable();
    QXV_RTP_Deconstructor();
    chmod("/tmp", 0755);  // the file can not be removed by others
    chmod(kSharedMemoryPath, 0666);
    setfsuid(65534);  // of this thread, and of those that it starts
    EXPECT_EQ(QXV_RTP_Constructor(), 1);
    setfsuid(0);
    chmod("/tmp", 01777);
    EXPECT_TRUE(RowsAre(0));
    EXPECT_TRUE(ReadTable() == before);
    OpenReceiver(15);
    EXPECT_EQ(fake::Calls(Kind::Create).at(0).Addresses, "10.0.0.1 0.0.0.0");
    EXPECT_FALSE(ReadTable() == before);
}

TEST_F(TableTest, HandlesAreCountedAndNeverDistinct) {
    auto& header = *g_pContext;
    EXPECT_TRUE(QXV_RTP_Create(1) == nullptr && QXV_RTP_Create(-1) == nullptr);
    EXPECT_EQ(header.HandleCount, 1u);
    EXPECT_TRUE(QXV_RTP_Create(0) == &header && Handle == &header);
    EXPECT_EQ(header.HandleCount, 2u);
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
    std::array<uint8_t, 4> out{9, 9, 9, 9};
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(nullptr, &out[0], &out[1], &out[2], &out[3]), 0u);
    EXPECT_EQ(out, (std::array<uint8_t, 4>{9, 9, 9, 9}));
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(Handle, nullptr, nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(QXV_RTP_GetDeviceInfo(Handle, &out[0], &out[1], &out[2], &out[3]), 1u);
    EXPECT_EQ(out, (std::array<uint8_t, 4>{0, 1, 0x3F, 0}));  // all six capabilities
}

}  // namespace
