// The byte ring.
#include "ZAQSimpleBuffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Every offset at which a transfer can begin, and every length up to one more than the ring holds.
TEST(Ring, TransfersAgreeWithASimpleQueue) {
    for (const uint32_t size : {1u, 2u, 3u, 10u, 17u}) {
        CZAQSimpleBuffer ring(size);
        std::deque<unsigned char> held;
        size_t sampled = 0, written = 0;
        std::mt19937 random(size);
        for (int step = 0; step < 20000; ++step) {
            const uint32_t operation = random() % 8, count = random() % (size + 2);
            Bytes bytes(count + 1, 0xEE);  // one more, which no transfer may touch
            const auto agrees = [&](size_t from) {
                return std::equal(bytes.begin(), bytes.end() - 1,
                                  held.begin() + static_cast<long>(from));
            };
            if (operation == 0) {
                ASSERT_EQ(ring.ResetSample(), ring.ReadPos);
                sampled = 0;
            } else if (operation < 4) {
                const bool fits = held.size() + count < size;
                std::generate_n(bytes.begin(), count, std::ref(random));
                ASSERT_EQ(ring.Write(bytes.data(), count), fits);
                held.insert(held.end(), bytes.begin(), bytes.begin() + (fits ? count : 0));
                written += fits ? count : 0;
            } else if (operation < 6) {
                const bool enough = held.size() - sampled >= count;
                ASSERT_EQ(ring.Sample(bytes.data(), count), enough);
                ASSERT_TRUE(!enough || agrees(sampled));
                sampled += enough ? count : 0;
            } else {
                const bool enough = held.size() >= count;
                ASSERT_EQ(ring.Read(bytes.data(), count), enough);
                ASSERT_TRUE(!enough || agrees(0));
                held.erase(held.begin(), held.begin() + (enough ? count : 0));
                sampled = enough && count != 0 ? 0 : sampled;
            }
            ASSERT_EQ(operation < 4 || bytes.back() == 0xEE, true);
            ASSERT_EQ(ring.GetDataSize(), held.size());
            ASSERT_EQ(ring.GetFreeSize(), size - 1 - held.size());
            ASSERT_EQ(ring.GetSampleSize(), held.size() - sampled);
            ASSERT_EQ(ring.GetTotalSize(), written);
            for (const auto* position : {&ring.ReadPos, &ring.WritePos, &ring.SamplePos})
                ASSERT_TRUE(*position >= ring.Data && *position < ring.DataEnd);
        }
    }
}

TEST(Ring, WithoutStorageNothingIsHeldOrTaken) {
    CZAQSimpleBuffer never, empty(0), cleaned(10);
    unsigned char byte = 0;
    ASSERT_EQ(cleaned.Write(&byte, 1) + cleaned.Cleanup(), 2);
    for (CZAQSimpleBuffer* ring : {&never, &empty, &cleaned}) {
        EXPECT_EQ(ring->Reset(), 1);
        EXPECT_EQ(ring->GetBufferSize() + ring->GetDataSize() + ring->GetFreeSize() +
                      ring->GetSampleSize() + ring->GetTotalSize(),
                  0u);
        EXPECT_EQ(ring->Write(&byte, 1) + ring->Read(&byte, 1) + ring->Sample(&byte, 1), 0);
        EXPECT_EQ(ring->Initialize(10) + ring->Write(&byte, 1), 2);
        ring->TotalWritten = 0xFFFFFFFF;
        EXPECT_EQ(ring->Write(&byte, 1), 1);
        EXPECT_EQ(ring->GetTotalSize(), 0x100000000u);
        EXPECT_EQ(ring->GetFreeSize(), 7u);
        EXPECT_EQ(ring->Reset(), 1);
        EXPECT_EQ(ring->GetDataSize() + ring->GetSampleSize() + ring->GetTotalSize(), 0u);
    }
}

TEST(Ring, AStreamPassesBetweenTwoThreadsInOrder) {
    constexpr uint32_t kStream = 1 << 20;
    CZAQSimpleBuffer ring(251);
    const auto byteAt = [](uint32_t i) { return static_cast<unsigned char>(i ^ i >> 8); };
    std::atomic<uint32_t> wrong{0}, waits{0};
    const auto wait = [&] {
        std::this_thread::yield();
        return ++waits < 50000000 && wrong == 0;  // else something is lost
    };
    std::thread writer([&] {
        Bytes bytes(250);
        for (uint32_t done = 0, count; done < kStream; done += count) {
            count = std::min(1 + done % 250, kStream - done);
            for (uint32_t i = 0; i < count; ++i)
                bytes[i] = byteAt(done + i);
            while (ring.Write(bytes.data(), count) == 0) {
                if (!wait())
                    return;
            }
        }
    });
    Bytes bytes(250);
    uint32_t done = 0;
    for (uint32_t count; done < kStream; done += count) {
        if ((count = ring.GetDataSize()) == 0 && !wait())
            break;
        wrong += count > 250 || ring.Read(bytes.data(), count) != 1;
        for (uint32_t i = 0; i < count && wrong == 0; ++i)
            wrong += bytes[i] != byteAt(done + i);
    }
    writer.join();
    EXPECT_EQ(done, kStream);
    EXPECT_EQ(wrong, 0u);
}

}  // namespace
