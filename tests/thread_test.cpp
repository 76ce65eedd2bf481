// The thread wrapper, and the order of the classes' virtual functions.
#include "ZAQThread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "TestClock.h"
#include "ZAQShareMemory.h"
#include "ZAQSimpleBuffer.h"
#include "ZAQStreamTimer.h"

namespace {

struct Work {
    std::atomic<bool> MayEnd{false}, Done{false};

    static void Run(void* work) {
        auto* const self = static_cast<Work*>(work);
        testclock::Until([self] { return self->MayEnd.load(); });
        usleep(50000);  // long enough for a wait that has a limit to give up
        self->Done = true;
    }
};

TEST(Thread, EveryCloseWaitsForTheRoutine) {
    static void (*const kCloses[])(std::unique_ptr<CZAQThread>&) = {
        [](auto& thread) { thread->CloseWithWait(); },
        [](auto& thread) { thread->CloseWithWait(1); },
        [](auto& thread) { thread.reset(); },
    };
    for (const auto close : kCloses) {
        Work work;
        auto thread = std::make_unique<CZAQThread>();
        ASSERT_EQ(thread->StartThread(&Work::Run, &work, 0), 1);
        const pthread_t id = thread->ThreadId;
        EXPECT_EQ(thread->StartThread(nullptr, nullptr, 0), 0);  // one at a time
        EXPECT_TRUE(thread->ThreadId == id && thread->Argument == &work);
        work.MayEnd = true;
        close(thread);
        EXPECT_TRUE(work.Done);
        EXPECT_TRUE(thread == nullptr || thread->StartThread(&Work::Run, &work, 0) == 1);
    }
}

TEST(Thread, LetGoOrRefusedItIsNotWaitedFor) {
    Work work;
    CZAQThread thread(&Work::Run, &work, 0), refused(&Work::Run, &work, 50);
    // The default scheduling policy knows priority 0 only.
    EXPECT_EQ(refused.StartThread(&Work::Run, &work, 50), 0);
    EXPECT_TRUE(refused.ThreadId == 0 && refused.Argument == &work);
    refused.CloseWithWait();
    thread.CloseWithoutWait();
    thread.CloseWithoutWait();
    EXPECT_TRUE(thread.ThreadId == 0 && !work.Done);
    work.MayEnd = true;
    EXPECT_TRUE(testclock::Until([&] { return work.Done.load(); }));
    EXPECT_EQ(thread.SynchronizeExecute(7, [](void* self) { return self != nullptr ? 99 : 0; }),
              99);
}

// A pointer to a virtual member function holds its table offset plus one (Itanium C++ ABI, 2.3).
template <class... Member>
std::vector<ptrdiff_t> Slots(Member... members) {
    const auto slot = [](auto member) {
        ptrdiff_t offset;
        memcpy(&offset, &member, sizeof(offset));
        return (offset - 1) / static_cast<ptrdiff_t>(sizeof(void*));
    };
    return {slot(members)...};
}

// A host that calls the classes directly was compiled with these. Overloads show in their
// neighbours' places.
TEST(VirtualFunctions, KeepTheirOrder) {
    using Order = std::vector<ptrdiff_t>;
    using M = CZAQShareMemory;
    using R = CZAQSimpleBuffer;
    using S = CZAQStreamTimer;
    using T = CZAQThread;
    EXPECT_EQ(Slots(&M::GetPointer, &M::GetOwner, &M::GetSize, &M::Create, &M::Open, &M::Close,
                    &M::Flush, &M::Invalidate),
              (Order{2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(Slots(&R::GetTotalSize, &R::GetBufferSize, &R::ResetSample, &R::Initialize,
                    &R::Cleanup, &R::Reset, &R::GetDataSize, &R::GetFreeSize, &R::GetSampleSize,
                    &R::Write, &R::Read, &R::Sample),
              (Order{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_EQ(
        Slots(&S::GetBlockSize, &S::GetBitrate, &S::GetBitrateActual, &S::GetBlocks,
              &S::RxInitialize, &S::GetTxBlocks, &S::CalculateBitrate, &S::GetDelayMicroSeconds,
              &S::GetRTPTimeStamp, &S::FillRTPHeader, &S::ExtractRTPHeader, &S::ExtractRTCPHeader),
        (Order{2, 3, 4, 5, 10, 11, 12, 13, 14, 15, 16, 17}));
    EXPECT_EQ(Slots(&T::SynchronizeExecute, &T::StartThread, &T::CloseWithoutWait),
              (Order{0, 3, 6}));
}

}  // namespace
