// The thread wrapper.
#include "ZAQThread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "TestClock.h"

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

}  // namespace
