#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/monitoring/MonitorElementObserver.h"
#include "tessel/platform/Process.h"

namespace {

// Records what a pass hands over.
class RecordingObserver : public CMonitorElementObserver {
  public:
    void beginUpdate() override { calls.push_back("begin"); }
    void updateElement(CMonitorElement& element) override { calls.push_back(element.getPath()); }
    void endUpdate() override { calls.push_back("end"); }

    std::vector<std::string> calls;
};

std::string base() {
    return "UnknownRootName/" + std::to_string(Tessel::Platform::GetCurrentProcessId()) + "/";
}

MonitorElementDatabase& db() {
    return MonitorElementDatabase::getInstance();
}

TEST(MonitorElementDatabase, AddMakesNamesUnique) {
    CMonitorElement* x = db().add("DbUnique/X", "");
    CMonitorElement* x0 = db().add("DbUnique/X", "");
    CMonitorElement* x1 = db().add("DbUnique/X", "");
    EXPECT_EQ(x->getPath(), base() + "DbUnique/X");
    EXPECT_EQ(x0->getPath(), base() + "DbUnique/X0");
    EXPECT_EQ(x1->getPath(), base() + "DbUnique/X1");
    EXPECT_NE(x, x0);
    EXPECT_NE(x0, x1);
}

TEST(MonitorElementDatabase, GeneratedNameThatExistsReturnsTheExistingElement) {
    CMonitorElement* x = db().add("DbClash/X", "");
    CMonitorElement* x0 = db().add("DbClash/X0", "");
    CMonitorElement* again = db().add("DbClash/X", "");  // generates X0, which exists
    EXPECT_NE(x, x0);
    EXPECT_EQ(again, x0);
}

TEST(MonitorElementDatabase, FindOrAddReturnsTheSameElementAndKeepsItsUnit) {
    CMonitorElement* first = db().findOrAdd("DbFind/Y", "ms");
    CMonitorElement* second = db().findOrAdd("DbFind/Y", "s");
    EXPECT_EQ(first, second);
    EXPECT_EQ(second->getUnit(), "ms");
    // findOrAdd does not enter the name in the use counts.
    EXPECT_EQ(db().generateUniqueName(base() + "DbFind/Y"), base() + "DbFind/Y");
}

TEST(MonitorElementDatabase, AbsoluteNamesSkipTheBaseName) {
    CMonitorElement* element = db().add("/Other/Root/Z", "");
    EXPECT_EQ(element->getPath(), "Other/Root/Z");
}

TEST(MonitorElementDatabase, RemoveKeepsTheUseCountOfDuplicatedNames) {
    CMonitorElement* a = db().add("DbRemove/A", "");
    CMonitorElement* a0 = db().add("DbRemove/A", "");
    ASSERT_TRUE(db().remove(a));
    ASSERT_TRUE(db().remove(a0));
    // "A" had a duplicate: it stays reserved and the next add takes the next suffix.
    EXPECT_EQ(db().add("DbRemove/A", "")->getPath(), base() + "DbRemove/A1");

    // A name without duplicates is released by the remove.
    CMonitorElement* b = db().add("DbRemove/B", "");
    ASSERT_TRUE(db().remove(b));
    EXPECT_EQ(db().add("DbRemove/B", "")->getPath(), base() + "DbRemove/B");
}

TEST(MonitorElementDatabase, RemoveOfAnElementNoLongerThereIsFalse) {
    CMonitorElement* c = db().add("DbRemove/C", "");
    const std::uint64_t count = db().getLocalElementCount();
    EXPECT_TRUE(db().remove(c));
    EXPECT_FALSE(db().remove(c));
    EXPECT_FALSE(db().remove(nullptr));
    EXPECT_EQ(db().getLocalElementCount(), count - 1);
    EXPECT_EQ(db().getGlobalElementCount(), count - 1);
}

TEST(MonitorElementDatabase, RemoveBaseNameOnlyForNamesWithoutDuplicates) {
    EXPECT_FALSE(db().removeBaseName("DbNames/Never"));
    db().generateUniqueName("DbNames/Once");
    EXPECT_TRUE(db().removeBaseName("DbNames/Once"));
    EXPECT_FALSE(db().removeBaseName("DbNames/Once"));
    db().generateUniqueName("DbNames/Twice");
    EXPECT_EQ(db().generateUniqueName("DbNames/Twice"), "DbNames/Twice0");
    EXPECT_FALSE(db().removeBaseName("DbNames/Twice"));
}

TEST(MonitorElementDatabase, UpdateWalksMatchingElementsInKeyOrder) {
    db().add("/Walk/B/2", "");
    db().add("/Walk/A", "");
    db().add("/Walk/B", "");
    db().add("/Walk0/A", "");
    db().add("/Other/A", "");
    RecordingObserver observer;
    observer.setFilter("walk**");
    db().update(observer);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"begin", "Walk/A", "Walk/B", "Walk/B/2",
                                                        "Walk0/A", "end"}));
}

TEST(MonitorElementDatabase, OverlongNamesAreRefusedWithAnErrorLine) {
    const std::uint64_t count = db().getLocalElementCount();
    TesselTest::LogCapture logCapture1;
    CMonitorElement* tooLong = db().add(std::string(195, 'n'), "");  // long with the base
    CMonitorElement* tooDeep = db().findOrAdd("/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u", "");
    const std::string log = logCapture1.text();
    EXPECT_EQ(tooLong, nullptr);
    EXPECT_EQ(tooDeep, nullptr);
    EXPECT_EQ(db().getLocalElementCount(), count);
    EXPECT_NE(log.find(" error [MonitorElementDatabase::add] Monitor element ("), std::string::npos)
        << log;
    EXPECT_EQ(CMonitorElementContainer("Refused").add(std::string(250, 'x'), ""), nullptr);
}

TEST(MonitorElementDatabase, InitMovesEveryElementToTheRootName) {
    CMonitorElement* relative = db().add("Init/X", "ms");
    CMonitorElement* absolute = db().add("/Foo/Bar", "");
    relative->set(3.0);
    const std::string pid = std::to_string(Tessel::Platform::GetCurrentProcessId());

    MonitorElementDatabase::init("Collector");
    EXPECT_EQ(relative->getPath(), "Collector/" + pid + "/Init/X");
    EXPECT_EQ(relative->get(), 3.0);
    EXPECT_EQ(absolute->getPath(), "Collector/Bar");
    // Names are registered afresh under the new root.
    EXPECT_EQ(db().add("Init/X", "")->getPath(), "Collector/" + pid + "/Init/X0");
    EXPECT_EQ(db().add("Init/Y", "")->getPath(), "Collector/" + pid + "/Init/Y");
    // The keys moved too: the elements are found and removed by their new paths.
    EXPECT_EQ(db().findOrAdd("Init/X", ""), relative);

    // init with the current root changes nothing in the table.
    MonitorElementDatabase::init("Collector");
    EXPECT_EQ(relative->getPath(), "Collector/" + pid + "/Init/X");
    EXPECT_EQ(db().add("Init/X", "")->getPath(), "Collector/" + pid + "/Init/X1");
    // init starts a process monitor each time.
    EXPECT_NE(db().getProcessMonitor(), nullptr);
    EXPECT_TRUE(db().remove(relative));
}

TEST(MonitorElementDatabase, InitKeepsElementsThatComeToTheSamePathAlive) {
    CMonitorElement* first = db().add("/Foo/Same", "");
    CMonitorElement* second = db().add("/Bar/Same", "");
    TesselTest::LogCapture logCapture2;
    MonitorElementDatabase::init("Root");
    const std::string log = logCapture2.text();
    EXPECT_NE(log.find("Monitor element (Root/Same) exists twice under the root name Root"),
              std::string::npos)
        << log;
    second->set(1.0);  // both pointers stay valid
    first->set(1.0);
    RecordingObserver observer;
    observer.setFilter("Root/Same");
    db().update(observer);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"begin", "Root/Same", "end"}));
    // Exactly one of the two is still listed and can be removed.
    EXPECT_NE(db().remove(first), db().remove(second));
}

TEST(MonitorElementDatabase, ConcurrentCreationUpdateAndWalk) {
    std::atomic<bool> stop{false};
    std::thread walker([&stop] {
        RecordingObserver observer;
        observer.setFilter("**Worker*");
        while (!stop.load()) {
            observer.calls.clear();
            db().update(observer);
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < 3; ++t) {
        workers.emplace_back([t] {
            CMonitorElementContainer container("Concurrent/Worker" + std::to_string(t));
            for (int round = 0; round < 200; ++round) {
                CMonitorElement* element = container.add("Counter", "");
                element->increment(1);
                container.clear();
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    stop = true;
    walker.join();
    RecordingObserver observer;
    observer.setFilter("**Concurrent/**");
    db().update(observer);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"begin", "end"}));
}

}  // namespace
