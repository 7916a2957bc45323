// The thread checker: the list's rules and report, the handlers' count, concurrent use.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <regex>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/platform/Process.h"
#include "tessel/threads/CheckerUtilHandler.h"

using Tessel::Platform::GetCurrentThreadId;

// A handler that shows the global list.
struct Handler : CheckerUtilHandler {
    using CheckerUtilHandler::GetGlobalCheckerUtil;
    static CheckerUtil* global() { return s_pCheckerUtil; }
};

TEST(CheckerUtil, AddsEachThreadOnceAndErasesOnlyWhatIsListed) {
    CheckerUtil list;
    const unsigned self = GetCurrentThreadId();
    ASSERT_TRUE(list.AddThreadInfo(0)) << "0 is the calling thread";
    const Tessel::CSmartPointer<CThreadInfo> entry = list.GetThreadInfo(self);
    ASSERT_TRUE(entry);
    EXPECT_TRUE(entry->getThreadId() == static_cast<long>(self) && entry->getHasDBAccess());
    entry->setHasDBAccess(false);
    EXPECT_FALSE(list.AddThreadInfo(self));
    EXPECT_FALSE(list.GetThreadInfo(self)->getHasDBAccess()) << "left as it was";
    EXPECT_FALSE(list.EraseThreadInfo(0)) << "0 is no thread here";
    EXPECT_TRUE(list.EraseThreadInfo(self));
    EXPECT_FALSE(list.EraseThreadInfo(self));
    EXPECT_FALSE(list.GetThreadInfo(self));
}

TEST(CheckerUtilHandler, ForwardsNothingAndTheLastOneEndsTheListWhichReportsWhatIsLeft) {
    const TesselTest::LogCapture log;
    {
        Handler first;
        CheckerUtil* const list = first.GetGlobalCheckerUtil();
        ASSERT_NE(list, nullptr);
        EXPECT_TRUE(first.AddThreadInfo(5) && first.EraseThreadInfo(7) &&
                    first.HasThreadDBAccess(6, false));
        EXPECT_FALSE(list->GetThreadInfo(5)) << "nothing reached the list";
        for (unsigned id : {300u, 20u, 1000u}) {
            list->AddThreadInfo(id);
        }
        list->GetThreadInfo(20)->setHasDBAccess(false);  // reported all the same
        list->EmptyThreadMap();
        {
            Handler second;
            EXPECT_EQ(second.GetGlobalCheckerUtil(), list);
            list->AddThreadInfo(8);
        }
        EXPECT_EQ(first.GetGlobalCheckerUtil(), list) << "the list outlives one handler";
        list->AddThreadInfo(7);
    }
    EXPECT_EQ(Handler::global(), nullptr);
    const std::regex report(R"( warning \[CheckerUtil::EmptyThreadMap\] Thread '(\d+)' did not )"
                            R"(close the database session correctly\.\n)");
    const std::string text = log.text();
    std::vector<std::string> ids;
    for (std::sregex_iterator at(text.begin(), text.end(), report), end; at != end; ++at) {
        ids.push_back((*at)[1]);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"20", "300", "1000", "7", "8"})) << text;
}

TEST(CheckerUtil, ConcurrentCallersFromSeveralThreadsEachSucceedExactlyOnce) {
    // All threads race to add, then to erase, the same ids of one list; meanwhile handlers come
    // and go, and with them the global list, on which each thread registers itself.
    constexpr unsigned kThreads = 6, kIds = 500;
    CheckerUtil shared;
    std::atomic<unsigned> added{0}, erased{0}, registered{0};
    std::barrier allAdded(kThreads);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (std::atomic<unsigned>* count : {&added, &erased}) {
                for (unsigned id = 1; id <= kIds; ++id) {
                    Handler handler;
                    CheckerUtil& global = *handler.GetGlobalCheckerUtil();
                    registered += global.AddThreadInfo(0) &&
                                  global.GetThreadInfo(GetCurrentThreadId())->getHasDBAccess() &&
                                  global.EraseThreadInfo(GetCurrentThreadId());
                    *count +=
                        count == &added ? shared.AddThreadInfo(id) : shared.EraseThreadInfo(id);
                }
                allAdded.arrive_and_wait();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(registered.load(), 2 * kThreads * kIds);
    EXPECT_EQ(added.load(), kIds);
    EXPECT_EQ(erased.load(), kIds);
    EXPECT_EQ(Handler::global(), nullptr);
}
