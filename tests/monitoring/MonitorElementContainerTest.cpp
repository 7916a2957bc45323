#include <gtest/gtest.h>

#include <string>

#include "support/LogCapture.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementDatabase.h"
#include "tessel/platform/Process.h"

namespace {

std::string base() {
    return "UnknownRootName/" + std::to_string(Tessel::Platform::GetCurrentProcessId()) + "/";
}

MonitorElementDatabase& db() {
    return MonitorElementDatabase::getInstance();
}

TEST(MonitorElementContainer, PathsAreBaseSubBaseAndName) {
    CMonitorElementContainer container("Stats");
    EXPECT_EQ(container.add("Threads", "")->getPath(), base() + "Stats/Threads");
    container.setSubBase("Pool");
    EXPECT_EQ(container.add("Size", "")->getPath(), base() + "Stats/Pool/Size");
    EXPECT_EQ(container.getBase(), "Stats");
}

TEST(MonitorElementContainer, EmptyBaseUsesTheNameDirectly) {
    CMonitorElementContainer container;
    container.setSubBase("Ignored");
    EXPECT_EQ(container.add("Direct", "")->getPath(), base() + "Direct");
    EXPECT_EQ(container.add("/Abs/Direct", "")->getPath(), "Abs/Direct");
}

TEST(MonitorElementContainer, BlanksAndStarsBecomeUnderscores) {
    CMonitorElementContainer container("My Stats");
    EXPECT_EQ(container.add("a b*c", "")->getPath(), base() + "My_Stats/a_b_c");
    // The same name given to the database directly keeps them.
    EXPECT_EQ(db().add("a b*c", "")->getPath(), base() + "a b*c");
    container.setBase("New Base*");
    EXPECT_EQ(container.getBase(), "New_Base_");
}

TEST(MonitorElementContainer, UniqueBases) {
    CMonitorElementContainer first, second;
    first.setSubBase("Sub");
    first.setBaseWithUniqeName("Pool");
    second.setBaseWithUniqeName("Pool");
    EXPECT_EQ(first.getBase(), "Pool");
    EXPECT_EQ(second.getBase(), "Pool0");
    // The sub-base was emptied.
    EXPECT_EQ(first.add("Size", "")->getPath(), base() + "Pool/Size");
}

TEST(MonitorElementContainer, FindOrAddKeepsTheFirstFlag) {
    CMonitorElement* kept = nullptr;
    {
        CMonitorElementContainer container("FindOrAdd");
        kept = container.findOrAdd("Kept", "", false);
        EXPECT_EQ(container.findOrAdd("Kept", "", true), kept);
    }
    // The element outlived its container, since its first flag was false.
    EXPECT_EQ(db().findOrAdd("FindOrAdd/Kept", ""), kept);
    EXPECT_TRUE(db().remove(kept));
}

TEST(MonitorElementContainer, DestructorRemovesOnlyFlaggedElements) {
    const std::uint64_t count = db().getLocalElementCount();
    CMonitorElement* survivor = nullptr;
    {
        CMonitorElementContainer container("Lifetime");
        container.add("Removed", "");
        container.add("Removed2", "", true);
        survivor = container.add("Survivor", "", false);
        EXPECT_EQ(db().getLocalElementCount(), count + 3);
    }
    EXPECT_EQ(db().getLocalElementCount(), count + 1);
    survivor->set(1.0);  // still valid
    EXPECT_TRUE(db().remove(survivor));
}

TEST(MonitorElementContainer, SetValueTouchesOnlyOwnElements) {
    CMonitorElementContainer mine("Mine"), other("Other");
    CMonitorElement* a = mine.add("A", "");
    CMonitorElement* b = mine.add("B", "");
    CMonitorElement* c = other.add("C", "");
    c->set(5.0);
    mine.setContainerMonitorElementsToValue(7.0);
    EXPECT_EQ(a->get(), 7.0);
    EXPECT_EQ(b->get(), 7.0);
    EXPECT_EQ(c->get(), 5.0);
}

TEST(MonitorElementContainer, ClearRemovesAllAndLeavesTheContainerUsable) {
    const std::uint64_t count = db().getLocalElementCount();
    CMonitorElementContainer container("Clear");
    container.clear();  // empty: nothing happens
    container.add("A", "", false);
    container.add("B", "");
    container.clear();
    EXPECT_EQ(db().getLocalElementCount(), count);
    EXPECT_EQ(container.add("A", "")->getPath(), base() + "Clear/A");
}

TEST(MonitorElementContainer, ElementRemovedElsewhereIsLoggedNotTouched) {
    TesselTest::LogCapture logCapture1;
    {
        CMonitorElementContainer container("Twice");
        CMonitorElement* element = container.add("Gone", "");
        CMonitorElement* other = container.add("GoneToo", "");
        ASSERT_TRUE(db().remove(element));
        ASSERT_TRUE(db().remove(other));
        container.clear();
        container.add("Gone", "");
        ASSERT_TRUE(db().remove(db().findOrAdd("Twice/Gone", "")));
    }
    const std::string log = logCapture1.text();
    for (const char* expected :
         {" error [CMonitorElementContainer::clear] Monitor element (",
          "/Twice/Gone) has already been removed.", "/Twice/GoneToo) has already been removed.",
          " error [CMonitorElementContainer::~CMonitorElementContainer] Monitor element ("}) {
        EXPECT_NE(log.find(expected), std::string::npos) << expected << "\n" << log;
    }
}

}  // namespace
