#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/WaitProbe.h"
#include "tessel/platform/CriticalSection.h"

using namespace Tessel::Platform;
using namespace TesselTest;

namespace {

BOOL tryFromAnotherThread(CRITICAL_SECTION* section) {
    AsyncCall call([section] {
        const BOOL entered = TryEnterCriticalSection(section);
        if (entered) {
            LeaveCriticalSection(section);
        }
        return static_cast<DWORD>(entered);
    });
    EXPECT_TRUE(call.finishes());
    return static_cast<BOOL>(call.result());
}

}  // namespace

TEST(CriticalSection, OwnerEntersAgainAndOthersWaitForTheLastLeave) {
    CRITICAL_SECTION section;
    ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&section, 4000));
    EnterCriticalSection(&section);
    EXPECT_TRUE(TryEnterCriticalSection(&section));
    EnterCriticalSection(&section);
    for (int held = 3; held > 0; --held) {
        EXPECT_FALSE(tryFromAnotherThread(&section)) << held << " entries outstanding";
        LeaveCriticalSection(&section);
    }
    EXPECT_TRUE(tryFromAnotherThread(&section));
    DeleteCriticalSection(&section);
}

TEST(CriticalSection, EnterBlocksUntilTheOwnerLeaves) {
    CRITICAL_SECTION section;
    ASSERT_TRUE(InitializeCriticalSectionEx(&section, 4000, 0));
    EnterCriticalSection(&section);
    AsyncCall call([&] {
        EnterCriticalSection(&section);
        LeaveCriticalSection(&section);
        return DWORD{0};
    });
    ASSERT_TRUE(call.blocked(SYS_futex));  // spun, then went to sleep
    EXPECT_FALSE(call.done());
    LeaveCriticalSection(&section);
    EXPECT_TRUE(call.finishes());
    DeleteCriticalSection(&section);
}

TEST(CriticalSection, ExcludesOtherThreadsForAnySpinCount) {
    for (DWORD spinCount : {0u, 4000u, 0x80000FA0u}) {  // high flag bit is ignored
        SCOPED_TRACE(spinCount);
        CRITICAL_SECTION section;
        ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&section, spinCount));
        long counter = 0;  // guarded by section only
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 20000; ++i) {
                    EnterCriticalSection(&section);
                    counter = counter + 1;
                    LeaveCriticalSection(&section);
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(counter, 4 * 20000);
        DeleteCriticalSection(&section);
    }
}
