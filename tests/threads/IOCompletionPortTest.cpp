// Tessel::CIOCompletionPort: work on the pool, its size, the close handler, the bounded stop.
#include "tessel/threads/IOCompletionPort.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <iterator>
#include <memory>
#include <optional>
#include <regex>
#include <thread>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/host/Registry.h"
#include "tessel/platform/Process.h"

using namespace std::chrono_literals;
using Tessel::CIOCompletionPort;
using Tessel::Platform::GetCurrentThreadId;
using TesselTest::LogCapture;

// The ids that the pool's info line in log lists, in order; nullopt without a line of that form.
static std::optional<std::vector<long>> listedIds(const std::string& log) {
    static const std::regex line(
        R"( info \[Tessel::CIOCompletionPort::CIOCompletionPort\] (ThreadPoolIds: \d+(, \d+)*)?\n)");
    std::smatch match;
    if (!std::regex_search(log, match, line)) {
        return std::nullopt;
    }
    std::vector<long> ids;
    const std::string text = match[1];
    for (std::size_t at = text.find(' '); at != std::string::npos; at = text.find(' ', at + 1)) {
        ids.push_back(std::stol(text.substr(at + 1)));
    }
    return ids;
}

TEST(IOCompletionPort, WorkRunsOnceOnTheListedThreadsWhoseSessionsShutdownClosesInOrder) {
    constexpr int kPosters = 4, kEach = 2500;
    const LogCapture log;
    auto pool = std::make_unique<CIOCompletionPort>(3);
    const std::vector<long> ids = listedIds(log.text()).value_or(std::vector<long>{});
    ASSERT_EQ(ids.size(), 3u) << log.text();
    std::vector<std::atomic<long>> ranOn(kPosters * kEach);  // the thread that ran each
    std::atomic<int> ran{0}, again{0}, elsewhere{0};
    std::vector<std::thread> posters;
    for (int poster = 0; poster < kPosters; ++poster) {
        posters.emplace_back([&, poster] {
            for (int i = poster * kEach; i < (poster + 1) * kEach; ++i) {
                boost::asio::post(pool->GetIoService(), [&, i] {
                    again += ranOn[i].exchange(GetCurrentThreadId()) != 0;
                    elsewhere += std::find(ids.begin(), ids.end(), ranOn[i]) == ids.end();
                    ++ran;
                });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    EXPECT_TRUE(TesselTest::eventually([&] { return ran.load() == kPosters * kEach; }));
    EXPECT_EQ(again.load() + elsewhere.load(), 0);

    std::vector<std::pair<long, long>> closed;  // the thread closed, the thread that closed it
    CIOCompletionPort::SetCloseDatabaseHandler(
        [&](long id) { closed.emplace_back(id, GetCurrentThreadId()); });
    pool->Shutdown();
    pool.reset();  // its second Shutdown closes nothing more
    const long self = GetCurrentThreadId();
    EXPECT_EQ(closed,
              (std::vector<std::pair<long, long>>{{ids[0], self}, {ids[1], self}, {ids[2], self}}));
    EXPECT_EQ(log.text().find("closeDatabaseHandler"), std::string::npos);
    CIOCompletionPort::SetCloseDatabaseHandler(nullptr);
}

TEST(IOCompletionPort, SizeComesFromArgumentRegistryOrProcessorsAndEachThreadLacksAHandler) {
    const char* const key = "SOFTWARE\\Tarvo Works\\GPS Velkor";
    const long twice = 2 * static_cast<long>(Tessel::Platform::GetNumberOfUsableProcessors());
    const struct {
        long registry;  // -1: no value
        std::size_t argument;
        long expected;
    } cases[] = {{-1, 0, twice}, {3, 0, 3}, {0, 0, 0}, {5, 2, 2}};
    const std::regex complaint(
        R"( error \[Tessel::CIOCompletionPort::Shutdown\] closeDatabaseHandler was not set for )"
        R"(this application\. Make sure Tessel::CIOCompletionPort::SetCloseDatabaseHandler is )"
        R"(called at startup of your application\.\n)");
    for (const auto& [registry, argument, expected] : cases) {
        REG::DeleteEntry(key, "ThreadPoolSize");
        if (registry >= 0) {
            REG::WriteLong(key, "ThreadPoolSize", registry);
        }
        const LogCapture log;
        CIOCompletionPort(argument).Shutdown();
        const std::string text = log.text();
        const auto ids = listedIds(text);  // no ids: the line is "{}" of an empty text
        ASSERT_TRUE(ids) << text;
        EXPECT_EQ(static_cast<long>(ids->size()), expected) << registry << ", " << argument;
        EXPECT_EQ(std::distance(std::sregex_iterator(text.begin(), text.end(), complaint),
                                std::sregex_iterator()),
                  expected);
    }
    CIOCompletionPort::disableDatabaseChecker();
    const LogCapture quiet;
    CIOCompletionPort(2).Shutdown();
    EXPECT_EQ(quiet.text().find("closeDatabaseHandler"), std::string::npos) << quiet.text();
}

TEST(IOCompletionPort, SlowShutdownOfAStuckHandlerWarnsTwiceThenWaitsWithoutLimit) {
    CIOCompletionPort::disableDatabaseChecker();
    const LogCapture log;
    CIOCompletionPort pool(1);
    const std::vector<long> ids = listedIds(log.text()).value_or(std::vector<long>{});
    ASSERT_EQ(ids.size(), 1u) << log.text();
    std::atomic<bool> entered{false}, released{false}, returned{false};
    boost::asio::post(pool.GetIoService(), [&] {
        entered = true;
        entered.notify_all();
        released.wait(false);  // no interrupt reaches an atomic wait
    });
    entered.wait(false);
    std::atomic<long> stopper{0};
    std::thread shutdown([&] {
        stopper = GetCurrentThreadId();
        pool.Shutdown();
        returned = true;
    });
    const auto at = [&](const std::string& what) {
        return log.text().find(
            " warning [Tessel::CIOCompletionPort::Shutdown] "
            "CIOCompletionPort(tessel_threads_tests, " +
            std::to_string(stopper) + ") Worker Thread(Id[" + std::to_string(ids[0]) + "]) " +
            what + " within timeout 10000\n");
    };
    const std::string first = "did not stop";
    const std::string second = "was interrupted, but did not stop -> wait till finished (infinite)";
    EXPECT_TRUE(TesselTest::eventually([&] { return at(first) != std::string::npos; }, 60s, 50ms));
    EXPECT_TRUE(TesselTest::eventually([&] { return at(second) != std::string::npos; }, 60s, 50ms));
    EXPECT_LT(at(first), at(second));
    EXPECT_FALSE(returned) << "Shutdown waits for the handler without limit";
    released = true;
    released.notify_all();
    shutdown.join();
    EXPECT_TRUE(returned);
}
