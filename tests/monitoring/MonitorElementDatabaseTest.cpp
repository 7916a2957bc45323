// The element table, the containers that components create their elements through, and the
// observer that renders a pass over the table.
#include "tessel/monitoring/MonitorElementDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "monitoring/MonitorTestSupport.h"
#include "support/LogCapture.h"
#include "tessel/monitoring/MonitorElementContainer.h"
#include "tessel/monitoring/MonitorElementObserver.h"

namespace {

using namespace MonitorTest;
using testing::HasSubstr;

using Mode = CMonitorElementObserver::eObserverMode;

const std::string kNaNText = "-9223372036854775808";
const std::string base = own("");

// Records what a pass hands over.
class RecordingObserver : public CMonitorElementObserver {
  public:
    void beginUpdate() override { calls.push_back("begin"); }
    void updateElement(CMonitorElement& e) override { calls.push_back(e.getPath()); }
    void endUpdate() override { calls.push_back("end"); }

    std::vector<std::string> calls;
};

std::vector<std::string> walk(const std::string& filter) {
    RecordingObserver observer;
    observer.setFilter(filter);
    db().update(observer);
    return observer.calls;
}

// The print line of a path, number text and unit; the List overview's lines are narrower.
std::string line(const std::string& path, const std::string& number, const std::string& unit = "",
                 int width = 100) {
    std::ostringstream out;
    out << std::left << std::setw(width) << path << std::right << std::setw(20) << number << ' '
        << unit << "\r\n";
    return out.str();
}

TEST(MonitorElementDatabase, AddMakesNamesUniqueFindOrAddDoesNotBothRefuseOverlongNames) {
    CMonitorElement* x = db().add("DbUnique/X", "");
    CMonitorElement* x0 = db().add("DbUnique/X", "");
    EXPECT_EQ(x->getPath(), base + "DbUnique/X");
    EXPECT_EQ(x0->getPath(), base + "DbUnique/X0");
    EXPECT_EQ(db().add("DbUnique/X", "")->getPath(), base + "DbUnique/X1");
    EXPECT_NE(x, x0);
    // A generated name that exists already gives that element.
    CMonitorElement* y0 = db().add("DbClash/Y0", "");
    db().add("DbClash/Y", "");
    EXPECT_EQ(db().add("DbClash/Y", ""), y0);
    // A leading '/' skips the base name.
    EXPECT_EQ(db().add("/Other/Root/Z", "")->getPath(), "Other/Root/Z");

    CMonitorElement* first = db().findOrAdd("DbFind/Y", "ms");
    EXPECT_EQ(db().findOrAdd("DbFind/Y", "s"), first);
    EXPECT_EQ(first->getUnit(), "ms");
    EXPECT_EQ(db().generateUniqueName(base + "DbFind/Y"), base + "DbFind/Y");  // not counted

    // Names past the limits with the base are refused.
    const std::uint64_t count = db().getLocalElementCount();
    TesselTest::LogCapture log;
    EXPECT_EQ(db().add(std::string(195, 'n'), ""), nullptr);  // long with the base
    EXPECT_EQ(db().findOrAdd("/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u", ""), nullptr);
    EXPECT_EQ(CMonitorElementContainer("Refused").add(std::string(250, 'x'), ""), nullptr);
    EXPECT_EQ(db().getLocalElementCount(), count);
    EXPECT_THAT(log.text(), HasSubstr(" error [MonitorElementDatabase::add] Monitor element ("));
}

TEST(MonitorElementDatabase, RemoveAndTheUseCountsOfNamesThenAWalkInKeyOrder) {
    CMonitorElement* a = db().add("DbRemove/A", "");
    CMonitorElement* a0 = db().add("DbRemove/A", "");
    const std::uint64_t count = db().getLocalElementCount();
    ASSERT_TRUE(db().remove(a));
    ASSERT_TRUE(db().remove(a0));
    EXPECT_FALSE(db().remove(a0));
    EXPECT_FALSE(db().remove(nullptr));
    EXPECT_EQ(db().getLocalElementCount(), count - 2);
    EXPECT_EQ(db().getGlobalElementCount(), count - 2);
    // "A" had a duplicate: it stays reserved and the next add takes the next suffix.
    EXPECT_EQ(db().add("DbRemove/A", "")->getPath(), base + "DbRemove/A1");
    // A name without duplicates is released by the remove.
    ASSERT_TRUE(db().remove(db().add("DbRemove/B", "")));
    EXPECT_EQ(db().add("DbRemove/B", "")->getPath(), base + "DbRemove/B");

    EXPECT_FALSE(db().removeBaseName("DbNames/Never"));
    db().generateUniqueName("DbNames/Once");
    EXPECT_TRUE(db().removeBaseName("DbNames/Once"));
    EXPECT_FALSE(db().removeBaseName("DbNames/Once"));
    db().generateUniqueName("DbNames/Twice");
    EXPECT_EQ(db().generateUniqueName("DbNames/Twice"), "DbNames/Twice0");
    EXPECT_FALSE(db().removeBaseName("DbNames/Twice"));

    // A pass walks the matching elements in key order.
    for (const char* name : {"/Walk/B/2", "/Walk/A", "/Walk/B", "/Walk0/A", "/Other/A"}) {
        db().add(name, "");
    }
    EXPECT_EQ(walk("walk**"), (std::vector<std::string>{"begin", "Walk/A", "Walk/B", "Walk/B/2",
                                                        "Walk0/A", "end"}));
}

TEST(MonitorElementDatabase, InitMovesEveryElementToTheRootName) {
    CMonitorElement* relative = db().add("Init/X", "ms");
    CMonitorElement* absolute = db().add("/Foo/Bar", "");
    CMonitorElement* first = db().add("/Foo/Same", "");
    CMonitorElement* second = db().add("/Bar/Same", "");
    relative->set(3.0);
    TesselTest::LogCapture log;
    MonitorElementDatabase::init("Collector");
    const std::string collector = own("", "Collector");
    EXPECT_EQ(relative->getPath(), collector + "Init/X");
    EXPECT_EQ(relative->get(), 3.0);
    EXPECT_EQ(absolute->getPath(), "Collector/Bar");
    // Names are registered afresh under the new root, and found by their new paths.
    EXPECT_EQ(db().add("Init/X", "")->getPath(), collector + "Init/X0");
    EXPECT_EQ(db().add("Init/Y", "")->getPath(), collector + "Init/Y");
    EXPECT_EQ(db().findOrAdd("Init/X", ""), relative);

    // Two elements that come to the same path both stay alive; one is listed.
    EXPECT_THAT(log.text(),
                HasSubstr("Monitor element (Collector/Same) exists twice under the root name "
                          "Collector"));
    first->set(1.0);
    second->set(1.0);
    EXPECT_EQ(walk("Collector/Same"), (std::vector<std::string>{"begin", "Collector/Same", "end"}));
    EXPECT_NE(db().remove(first), db().remove(second));

    // init with the current root changes nothing in the table.
    MonitorElementDatabase::init("Collector");
    EXPECT_EQ(relative->getPath(), collector + "Init/X");
    EXPECT_EQ(db().add("Init/X", "")->getPath(), collector + "Init/X1");
    EXPECT_TRUE(db().remove(relative));
}

TEST(MonitorElementDatabase, ConcurrentCreationUpdateAndWalk) {
    {
        std::jthread walker([](std::stop_token stop) {
            while (!stop.stop_requested()) {
                walk("**Worker*");
            }
        });
        std::vector<std::jthread> workers;
        for (int t = 0; t < 3; ++t) {
            workers.emplace_back([t] {
                CMonitorElementContainer container("Concurrent/Worker" + std::to_string(t));
                for (int round = 0; round < 200; ++round) {
                    container.add("Counter", "")->increment(1);
                    container.clear();
                }
            });
        }
    }
    EXPECT_EQ(walk("**Concurrent/**"), (std::vector<std::string>{"begin", "end"}));
}

// --- containers ---

TEST(MonitorElementContainer, PathsAreBaseSubBaseAndSanitisedName) {
    CMonitorElementContainer container("Stats");
    EXPECT_EQ(container.add("Threads", "")->getPath(), base + "Stats/Threads");
    container.setSubBase("Pool");
    EXPECT_EQ(container.add("Size", "")->getPath(), base + "Stats/Pool/Size");
    EXPECT_EQ(container.getBase(), "Stats");

    CMonitorElementContainer noBase;
    noBase.setSubBase("Ignored");
    EXPECT_EQ(noBase.add("Direct", "")->getPath(), base + "Direct");

    CMonitorElementContainer blanks("My Stats");
    EXPECT_EQ(blanks.add("a b*c", "")->getPath(), base + "My_Stats/a_b_c");
    EXPECT_EQ(db().add("a b*c", "")->getPath(), base + "a b*c");  // the database keeps them
    blanks.setBase("New Base*");
    EXPECT_EQ(blanks.getBase(), "New_Base_");

    CMonitorElementContainer first, second;
    first.setSubBase("Sub");
    first.setBaseWithUniqeName("Pool");
    second.setBaseWithUniqeName("Pool");
    EXPECT_EQ(first.getBase(), "Pool");
    EXPECT_EQ(second.getBase(), "Pool0");
    EXPECT_EQ(first.add("Size", "")->getPath(), base + "Pool/Size");  // sub-base emptied
}

TEST(MonitorElementContainer, ElementsGoWithTheContainerUnlessFlaggedToStayOrClearedOnce) {
    const std::uint64_t count = db().getLocalElementCount();
    CMonitorElement* survivor = nullptr;
    CMonitorElement* kept = nullptr;
    {
        CMonitorElementContainer container("Lifetime");
        container.add("Removed", "");
        container.add("Removed2", "", true);
        survivor = container.add("Survivor", "", false);
        kept = container.findOrAdd("Kept", "", false);
        EXPECT_EQ(container.findOrAdd("Kept", "", true), kept);  // the first flag stays
        EXPECT_EQ(db().getLocalElementCount(), count + 4);
    }
    EXPECT_EQ(db().getLocalElementCount(), count + 2);
    EXPECT_EQ(db().findOrAdd("Lifetime/Kept", ""), kept);
    survivor->set(1.0);  // still valid
    EXPECT_TRUE(db().remove(survivor));
    EXPECT_TRUE(db().remove(kept));

    CMonitorElementContainer container("Clear"), other("Other");
    container.clear();  // empty: nothing happens
    CMonitorElement* a = container.add("A", "", false);
    CMonitorElement* b = container.add("B", "");
    other.add("C", "")->set(5.0);
    container.setContainerMonitorElementsToValue(7.0);
    EXPECT_EQ(a->get(), 7.0);
    EXPECT_EQ(b->get(), 7.0);
    EXPECT_EQ(db().findOrAdd("Other/C", "")->get(), 5.0);  // only its own elements
    container.clear();                                     // whatever the flag
    EXPECT_EQ(db().getLocalElementCount(), count + 1);
    EXPECT_EQ(container.add("A", "")->getPath(), base + "Clear/A");

    // An element removed elsewhere is logged, not touched.
    TesselTest::LogCapture log;
    {
        CMonitorElementContainer twice("Twice");
        ASSERT_TRUE(db().remove(twice.add("Gone", "")));
        ASSERT_TRUE(db().remove(twice.add("GoneToo", "")));
        twice.clear();
        twice.add("Gone", "");
        ASSERT_TRUE(db().remove(db().findOrAdd("Twice/Gone", "")));
    }
    const std::string text = log.text();
    for (const char* expected :
         {" error [CMonitorElementContainer::clear] Monitor element (",
          "/Twice/Gone) has already been removed.", "/Twice/GoneToo) has already been removed.",
          " error [CMonitorElementContainer::~CMonitorElementContainer] Monitor element ("}) {
        EXPECT_THAT(text, HasSubstr(expected));
    }
}

// --- the observer ---

TEST(MonitorElementObserver, EachModeRendersOnePassInItsFormat) {
    CMonitorElement* a = element("Obs/P/a", "ms", 5);
    element("Obs/P/b", "%", 2.5);
    element("Obs/Agh/a", "", 0.5);
    element("Obs/Agh/b", "", 3);
    element("Obs/7/Threads/8/Load", "%", 1);
    std::string top;
    for (int i = 0; i < 12; ++i) {
        const std::string name = "Obs/Top/e" + std::string(1, static_cast<char>('a' + i));
        element(name, "", i);
        top = (i >= 3 ? line(name, std::to_string(i)) : "") + top;
    }
    element("Obs/Top/z", "", 11);  // equal to "el" and after it in key order: shown first
    const std::string pa = line("Obs/P/a", "5", "ms"), pb = line("Obs/P/b", "2.500000", "%");
    const std::string prtg = "{ \"prtg\": { \"result\": [ ";
    const std::string channels = "{ \"channel\":\"Channel count\",\"value\": ";
    const std::string sum = "-------------------------\r\nAggregate: ";
    EXPECT_EQ(rendered(Mode::Print, "obs/p/*"), pa + pb + "\r\n2 record(s) found\r\n");
    // What a pass that matches nothing leaves.
    EXPECT_EQ(rendered(Mode::Print, "nothing"), "\r\n0 record(s) found\r\n");
    EXPECT_EQ(rendered(Mode::Json, "nothing"), "{}\r\n");
    EXPECT_EQ(rendered(Mode::Prtg, "nothing"), prtg + channels + "0}\r\n] } }\r\n");
    EXPECT_EQ(rendered(Mode::Top, "nothing"), "");
    EXPECT_EQ(rendered(Mode::None, "*"), "");
    // JSON has no blanks; a comma opens every line but the first.
    EXPECT_EQ(rendered(Mode::Json, "obs/p/*"),
              "{\"Obs/P/a\":[\"5\",\"ms\"]\r\n,\"Obs/P/b\":[\"2.500000\",\"%\"]\r\n}\r\n");
    EXPECT_EQ(
        rendered(Mode::Prtg, "obs/p/*", true),
        prtg +
            "{\"channel\": \"a\", \"customunit\": \"ms\", \"float\": 1,\"value\": 5}\r\n"
            ",{\"channel\": \"b\", \"customunit\": \"%\", \"float\": 1,\"value\": 2.500000}\r\n," +
            channels + "2}\r\n] } }\r\n");
    // Stripping cuts the leading path elements that the whole pass shares: Obs,Agh after the
    // first element, Obs after the second.
    EXPECT_EQ(rendered(Mode::Json, "obs/*/a", true),
              "{\"Agh/a\":[\"0.500000\",\"\"]\r\n,\"P/a\":[\"5\",\"ms\"]\r\n}\r\n");
    EXPECT_EQ(rendered(Mode::Top, "obs/top/*"), line("Obs/Top/z", "11") + top);
    // The sum as a double, in the notation that the last line left on the stream.
    EXPECT_EQ(rendered(Mode::Aggregate, "obs/p/*"), pa + pb + sum + "7.500000\r\n");
    EXPECT_EQ(rendered(Mode::Aggregate, "obs/agh/*"),
              line("Obs/Agh/a", "0.500000") + line("Obs/Agh/b", "3") + sum + "3.5\r\n");
    // The copies show the reset value; the live values stay.
    EXPECT_EQ(rendered(Mode::Reset, "obs/p/*"),
              line("Obs/P/a", "0", "ms") + line("Obs/P/b", "0", "%"));
    // Without a process monitor there is no trace, only the closing text.
    EXPECT_EQ(rendered(Mode::Backtrace, "obs/7/threads/*/load"), "\r\n1 record(s) found\r\n");
    EXPECT_EQ(a->get(), 5.0);
    // Backtrace needs numeric process and thread ids in the path.
    EXPECT_THROW(rendered(Mode::Backtrace, "obs/p/*"), std::invalid_argument);
}

// Rate divides the change since the last pass by the time since the entry was made.
TEST(MonitorElementObserver, WatchPrintsWhatChangedRateTheChangePerSecondMinimumKeepsEqualValues) {
    CMonitorElement* a = element("Obs/W/a", "B", 1);
    element("Obs/W/b", "", 2);
    element("Obs/W/n", "", std::numeric_limits<double>::quiet_NaN());
    std::ostringstream text;
    CMonitorElementObserver observer(&text);  // keeps its state from pass to pass
    observer.setMode(Mode::Watch);
    observer.setFilter("obs/w/*");
    const auto pass = [&] {
        text.str("");
        db().update(observer);
        return text.str();
    };
    const std::string nanLine = line("Obs/W/n", kNaNText);
    EXPECT_EQ(pass(), line("Obs/W/a", "1", "B") + line("Obs/W/b", "2") + nanLine);
    EXPECT_EQ(pass(), nanLine);
    a->set(3);
    EXPECT_EQ(pass(), line("Obs/W/a", "3", "B") + nanLine);
    // Rate after Watch starts from an entry of its own.
    observer.setMode(Mode::Rate);
    EXPECT_EQ(pass(), line("Obs/W/a", "0", "B") + line("Obs/W/b", "0") + line("Obs/W/n", "0"));
    const auto before = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    a->set(203);
    const std::string rates = pass();
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    ASSERT_EQ(rates.substr(0, 7) + rates.substr(120, 4), "Obs/W/a B\r\n") << rates;
    const double rate = std::stod(rates.substr(100, 20));
    EXPECT_GT(rate, 200.0 / (elapsed + 0.5));
    EXPECT_LE(rate, 200.0 / 0.2);

    observer.setMode(Mode::Json);
    observer.setMinimumValue(203);
    EXPECT_EQ(pass(),
              "{\"Obs/W/a\":[\"203\",\"B\"]\r\n,\"Obs/W/n\":[\"" + kNaNText + "\",\"\"]\r\n}\r\n");
}

TEST(MonitorElementObserver, ListShowsProcessesWithUptimeAndHeartbeatThenServerElements) {
    element("Stn/11/ProcessInfo/Stats/UpTime", "s", 90061);  // 1 d 1 h 1 m 1 s
    element("Stn/11/ProcessInfo/Stats/HeartBeat", "", 0)->start();
    element("Old/12/ProcessInfo/Stats/UpTime", "s", 3659);
    element("Old/12/ProcessInfo/Stats/HeartBeat", "", 0);  // never started
    element("Server/Stats/CPU", "%", 12);
    element("Server/DumpCount", "", 3);
    element("Server/Memory/TotalPhys", "MB", 4096);  // not in the overview
    const std::string old = "Old/12" + std::string(39, ' ') + "    0d  1h  0m 59s   [ -- ]\r\n";
    EXPECT_EQ(rendered(Mode::List, "*"),
              old + "Stn/11" + std::string(39, ' ') + "    1d  1h  1m  1s   [ UP ]\r\n\r\n" +
                  line("Server/DumpCount", "3", "", 50) + line("Server/Stats/CPU", "12", "%", 50));
    // Without server elements the overview ends with an empty line.
    EXPECT_EQ(rendered(Mode::List, "old/**"), old + "\r\n");
}

}  // namespace
