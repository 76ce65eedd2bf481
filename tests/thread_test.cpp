// The thread wrapper, and the virtual tables of all support classes.
#include "ZAQThread.h"

#include <dlfcn.h>

#include <optional>

#include "ProcessSupport.h"
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
    static void (*const kCloses[])(std::optional<CZAQThread>&) = {
        [](auto& thread) { thread->CloseWithWait(); },
        [](auto& thread) { thread->CloseWithWait(1); },
        [](auto& thread) { thread.reset(); },
    };
    for (const auto close : kCloses) {
        Work work;
        std::optional<CZAQThread> thread(std::in_place, &Work::Run, &work, 0);
        const pthread_t id = thread->ThreadId;
        EXPECT_EQ(thread->StartThread(nullptr, nullptr, 0), 0);  // one at a time
        EXPECT_TRUE(id != 0 && thread->ThreadId == id && thread->Argument == &work);
        work.MayEnd = true;
        close(thread);
        EXPECT_TRUE(work.Done);
        EXPECT_TRUE(!thread || thread->StartThread(&Work::Run, &work, 0) == 1);
    }
}

TEST(Thread, LetGoOrRefusedItIsNotWaitedFor) {
    Work work;
    // The default scheduling policy knows priority 0 only.
    CZAQThread thread(&Work::Run, &work, 0), refused(&Work::Run, &work, 50);
    EXPECT_EQ(refused.StartThread(&Work::Run, &work, 50) + refused.ThreadId, 0u);
    refused.CloseWithWait();
    thread.CloseWithoutWait();
    thread.CloseWithoutWait();
    EXPECT_TRUE(thread.ThreadId == 0 && !work.Done);
    work.MayEnd = true;
    EXPECT_TRUE(testclock::Until([&] { return work.Done.load(); }));
    EXPECT_EQ(thread.SynchronizeExecute(7, [](void* self) { return self != nullptr ? 99 : 0; }),
              99);
}

TEST(VirtualTables, KeepTheOrderOfTheBinaryInterface) {
    void** slot = nullptr;
    std::string type;
    for (const std::string& name : Cases("virtual_tables.txt")) {
        if (name.find("CZAQ") != std::string::npos) {
            slot = static_cast<void**>(dlsym(RTLD_DEFAULT, ("_ZTV" + name).c_str()));
            ASSERT_NE(slot, nullptr) << name;
            type = name;
            slot += 2;  // the offset to the top, and the type
        } else {
            EXPECT_EQ(*slot++, dlsym(RTLD_DEFAULT, ("_ZN" + type + name).c_str())) << type << name;
        }
    }
}

}  // namespace
