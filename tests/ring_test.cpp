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
            uint32_t expected = 1;
            if (operation == 0) {
                ASSERT_EQ(ring.ResetSample(), ring.ReadPos);
                sampled = 0;
            } else if (operation < 4) {
                std::generate_n(bytes.begin(), count, std::ref(random));
                expected = held.size() + count < size;
                ASSERT_EQ(ring.Write(bytes.data(), count), static_cast<int>(expected));
                held.insert(held.end(), bytes.begin(), bytes.begin() + expected * count);
                written += expected * count;
            } else {
                const bool sample = operation < 6;
                const size_t from = sample ? sampled : 0;
                expected = held.size() - from >= count;
                ASSERT_EQ((ring.*(sample ? &CZAQSimpleBuffer::Sample : &CZAQSimpleBuffer::Read))(
                              bytes.data(), count),
                          static_cast<int>(expected));
                ASSERT_TRUE(expected == 0 || std::equal(bytes.begin(), bytes.end() - 1,
                                                        held.begin() + static_cast<long>(from)));
                ASSERT_EQ(bytes.back(), 0xEE);
                const uint32_t done = expected == 1 ? count : 0;
                sampled = sample ? sampled + done : done != 0 ? 0 : sampled;
                held.erase(held.begin(), held.begin() + (sample ? 0 : done));
            }
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
    const auto sizes = [](auto& r) {
        return r.GetDataSize() + r.GetSampleSize() + r.GetTotalSize();
    };
    for (CZAQSimpleBuffer* ring : {&never, &empty, &cleaned}) {
        EXPECT_EQ(ring->Reset(), 1);
        EXPECT_EQ(sizes(*ring) + ring->GetBufferSize() + ring->GetFreeSize(), 0u);
        EXPECT_EQ(ring->Write(&byte, 1) + ring->Read(&byte, 1) + ring->Sample(&byte, 1), 0);
        EXPECT_EQ(ring->Initialize(10), 1);
        ring->TotalWritten = 0xFFFFFFFF;
        EXPECT_EQ(ring->Write(&byte, 1), 1);
        EXPECT_EQ(sizes(*ring) + ring->GetFreeSize(), 0x100000000u + 1 + 1 + 8);
        EXPECT_EQ(ring->Reset(), 1);
        EXPECT_EQ(sizes(*ring), 0u);
    }
}

TEST(Ring, AStreamPassesBetweenTwoThreadsInOrder) {
    constexpr uint32_t kStream = 1 << 20;
    CZAQSimpleBuffer ring(251);
    std::atomic<int> patience{50000000};  // less than none: something is lost
    std::thread writer([&] {
        for (uint32_t done = 0, count; done < kStream && patience > 0; done += count) {
            Bytes bytes(count = std::min(1 + done % 250, kStream - done));
            for (uint32_t i = 0; i < count; ++i)
                bytes[i] = static_cast<unsigned char>((done + i) % 253);
            while (ring.Write(bytes.data(), count) == 0 && --patience > 0)
                std::this_thread::yield();
        }
    });
    uint32_t done = 0, wrong = 0;
    for (unsigned char byte; done < kStream && wrong == 0 && patience > 0;) {
        if (ring.Read(&byte, 1) == 1)
            wrong += byte != done++ % 253;
        else if (--patience > 0)
            std::this_thread::yield();
    }
    patience = wrong == 0 ? patience.load() : 0;
    writer.join();
    EXPECT_EQ(done, kStream);
    EXPECT_EQ(wrong, 0u);
}

}  // namespace
