// One element: its value writers, its printers, its path and the filter match.
#include "tessel/monitoring/MonitorElement.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <limits>
#include <sstream>
#include <thread>
#include <vector>

#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "tessel/platform/Clock.h"

namespace {

using testing::HasSubstr;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Numbers with a positive fractional part in fixed notation with 6 decimals, all others
// truncated to a 64-bit integer (out of its range, and NaN: the indefinite integer).
TEST(MonitorElementPrinting, AllPrintersWriteTheSameNumberFieldWidthAndManipulatorsStay) {
    // "value number"
    for (const std::string pair :
         {"3 3", "3.25 3.250000", "-1.5 -1", "-0 0", "4294967296 4294967296",
          "1e20 -9223372036854775808", "nan -9223372036854775808"}) {
        const std::string number = pair.substr(pair.find(' ') + 1);
        SCOPED_TRACE(pair);
        CMonitorElement element("A/B", "ms");
        element.set(std::stod(pair));
        std::ostringstream counter, valueOnly, withUnit, prtg;
        element.printCounter(counter);
        element.printCounterForJSON(valueOnly, true);
        element.printCounterForJSON(withUnit, false);
        element.printCounterForPRTG(prtg);
        EXPECT_EQ(counter.str(), std::string(20 - number.size(), ' ') + number + " ms");
        EXPECT_EQ(valueOnly.str(), "\"" + number + "\"");
        EXPECT_EQ(withUnit.str(), "[\"" + number + "\",\"ms\"]");
        EXPECT_EQ(prtg.str(), number);
    }

    CMonitorElement element("Root/12/Stats", "ms");
    element.set(3.25);
    std::ostringstream stream;
    stream << std::setw(16) << std::left;
    element.printIdentifier(stream);  // the path takes the field width as a whole
    stream << '|';
    element.printCounter(stream);  // the adjustment applies, the notation stays set
    stream << '|' << 2.5;
    EXPECT_EQ(stream.str(), "Root/12/Stats   |3.250000" + std::string(12, ' ') + " ms|2.500000");

    const CMonitorElement noUnit("A", "");
    std::ostringstream counter;
    noUnit.printCounter(counter);
    EXPECT_EQ(counter.str(), std::string(19, ' ') + "0 ");  // the blank stays
}

TEST(MonitorElementValue, WritersConcurrentIncrementsStopWatchAndSynchronize) {
    CMonitorElement element("A/B", "");
    EXPECT_EQ(element.get(), 0.0);
    element.set(2.5);
    EXPECT_EQ(element.get(), 2.5);
    element.increment(3);
    EXPECT_EQ(element.get(), 5.5);
    EXPECT_EQ((++element).get(), 6.5);
    EXPECT_EQ((--(--element)).get(), 4.5);
    element.decrement(10);  // no floor
    EXPECT_EQ(element.get(), -5.5);
    element.reset();
    EXPECT_EQ(element.get(), 0.0);
    element.increment((1ull << 53) + 1);  // rounds in the conversion
    EXPECT_EQ(element.get(), 9007199254740992.0);

    const struct {
        double part, whole, expected;
    } ratios[] = {{5, 0, 0.0}, {1, 4, 25.0}, {1, kNaN, 0.0}};
    for (const auto& c : ratios) {
        element.set(99.0);
        element.setRatio(c.part, c.whole);
        EXPECT_EQ(element.get(), c.expected) << c.part << " of " << c.whole;
    }

    CMonitorElement fromEpoch("A", "s");
    fromEpoch.stop();  // without a start: seconds since the clock's epoch
    EXPECT_NEAR(fromEpoch.get(),
                static_cast<double>(Tessel::Platform::GetSystemTimeTicks()) / 10000000.0, 5.0);

    CMonitorElement source("A/Source", "ms");
    source.set(42.0);
    source.start();
    EXPECT_EQ(source.get(), 42.0);  // start leaves the value
    ASSERT_TRUE(TesselTest::eventually([&] { return source.getTimeDiffFromStart() >= 0.015; }));
    source.stop();
    EXPECT_GE(source.get(), 0.015);
    EXPECT_LT(source.get(), 60.0);

    source.set(17.0);
    CMonitorElement target("B/Target", "s");
    target.synchronize(source);
    EXPECT_EQ(target.get(), 17.0);
    EXPECT_NEAR(target.getTimeDiffFromStart(), source.getTimeDiffFromStart(), 1.0);
    EXPECT_EQ(target.getPath(), "B/Target");
    EXPECT_EQ(target.getUnit(), "s");

    // Concurrent increments are not lost.
    element.reset();
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&element] {
                for (int i = 0; i < 20000; ++i) {
                    element.increment(1);
                    ++element;
                    --element;
                }
            });
        }
    }
    EXPECT_EQ(element.get(), 80000.0);
}

TEST(MonitorElementIdentity, PathElementsOrderEqualityAndCopies) {
    const CMonitorElement empties("/A//B/", "");
    std::vector<std::string> seen;
    empties.iterateIdentifier([&](unsigned char index, unsigned char count, const char* text) {
        EXPECT_EQ(index, seen.size());
        EXPECT_EQ(count, 5);
        seen.emplace_back(text);
        return true;
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"", "A", "", "B", ""}));
    EXPECT_EQ(empties.getPath(), "/A//B/");

    const CMonitorElement element("Root/123/Stats", "");
    int calls = 0;
    element.iterateIdentifier(
        [&](unsigned char, unsigned char, const char*) { return ++calls < 2; });
    EXPECT_EQ(calls, 2);  // stopped by the visitor
    CMonitorElement().iterateIdentifier([&](unsigned char, unsigned char, const char*) {
        ADD_FAILURE() << "an empty element has no path elements";
        return true;
    });
    EXPECT_EQ(element.getPathElement(2), "Stats");
    EXPECT_EQ(element.getPathElement(3), "");
    EXPECT_EQ(element.getIdentifier(0), "Root/123/Stats");
    EXPECT_EQ(element.getIdentifier(9), "Stats");
    EXPECT_EQ(element.getIdentifier(14), "Root/123/Stats");  // skip at the length
    EXPECT_EQ(CMonitorElement("A", "abcdefghijklmn").getUnit(), "abcdefghij");

    const CMonitorElement comparator;
    const CMonitorElement ab("A/B", ""), abc("A/B/C", ""), a0b("A0/B", ""), aB("a/B", "");
    EXPECT_TRUE(comparator(ab, abc));   // a prefix sorts first
    EXPECT_TRUE(comparator(abc, a0b));  // by element, not by text with delimiters
    EXPECT_FALSE(comparator(a0b, abc));
    EXPECT_TRUE(comparator(ab, aB));  // case-sensitive, by byte value
    EXPECT_FALSE(comparator(ab, ab));

    CMonitorElement a("X/Y", "ms");
    CMonitorElement b("X/Y", "s");
    a.set(1.0);
    b.set(2.0);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == CMonitorElement("X/y", "ms"));
    EXPECT_FALSE(a == CMonitorElement("X/Y/", "ms"));

    CMonitorElement source("UnknownRootName/42/X", "ms");
    source.set(3.5);
    source.start();
    const CMonitorElement copy(source);
    EXPECT_EQ(copy.get(), 3.5);
    EXPECT_EQ(copy.getPath(), "UnknownRootName/42/X");
    EXPECT_EQ(copy.getUnit(), "ms");
    CMonitorElement assigned;
    const CMonitorElement returned = (assigned = source);
    EXPECT_EQ(assigned.get(), 3.5);
    EXPECT_EQ(returned.getPath(), "UnknownRootName/42/X");
    EXPECT_NEAR(assigned.getTimeDiffFromStart(), source.getTimeDiffFromStart(), 1.0);

    source.setRootName("Collector");
    EXPECT_EQ(source.getPath(), "Collector/42/X");
    EXPECT_EQ(source.get(), 3.5);
    EXPECT_EQ(source.getUnit(), "ms");
    EXPECT_TRUE(source.match("collector/42/**"));
}

TEST(MonitorElementLimits, NamesPastTheLimitsAreRefusedAndLogged) {
    EXPECT_TRUE(CMonitorElement::IsValidName(std::string(199, 'a')));
    EXPECT_FALSE(CMonitorElement::IsValidName(std::string(200, 'a')));
    EXPECT_TRUE(CMonitorElement::IsValidName(std::string(19, '/') + "a"));  // 20 path elements
    EXPECT_FALSE(CMonitorElement::IsValidName(std::string(20, '/') + "a"));

    TesselTest::LogCapture log;
    const CMonitorElement refused(std::string(250, 'a'), "ms");
    EXPECT_EQ(refused.getPath(), "");
    EXPECT_EQ(refused.getPathElement(0), "");
    const std::string longPath = std::string("R/").append(190, 'b');
    const CMonitorElement element(longPath, "");
    element.setRootName(std::string(20, 'r'));  // would overflow
    EXPECT_EQ(element.getPath(), longPath);
    EXPECT_THAT(log.text(),
                HasSubstr(" error [CMonitorElement::CMonitorElement] Monitor element name ("));
    EXPECT_THAT(log.text(), HasSubstr("[CMonitorElement::setRootName]"));
}

// The filter match: '/' separates path elements, a star matches within one element up to the
// filter's next character (stopping at its first occurrence), a double star across elements
// (a failed run is not re-examined from its second character, and a run never matches up to a
// '/'), a trailing star all that remains; case is ignored; an empty filter matches only a
// single empty element; a star and a delimiter at the end need one more, empty, element.
// One row per way through the scan.
TEST(MonitorElementMatch, FiltersThatMatchAPathAndFiltersThatDoNot) {
    const auto matches = [](const std::string& pair) {  // "path filter"
        const std::size_t blank = pair.find(' ');
        return CMonitorElement(pair.substr(0, blank), "").match(pair.substr(blank + 1));
    };
    for (const std::string pair :
         {"A/B/C a/b/c", "A/B/C A/*/C", "A/B/C A/*", "A/B/C **", " ", "A/BC A/*C", "A/B/ A/*/",
          "A/BX/C **B*", "X/Stats/Threads **threads", "aab **ab"}) {
        EXPECT_TRUE(matches(pair)) << pair;
    }
    for (const std::string pair :
         {"A/B/C A/B", "A/BC A/B/C", "A/B/C A/B/C/", "A/B/B/C A/*/C", "A/B/C A*C", "A/B/C A/*/",
          "A/B A/*/", "A/B/C **b/C", "A/B/C A/**/C", "A/BDD A/*D", "aaab **aab"}) {
        EXPECT_FALSE(matches(pair)) << pair;
    }
    // A filter of 200 characters or with a NUL, and an element without path, match nothing.
    const std::string path(199, 'x');
    EXPECT_TRUE(CMonitorElement(path, "").match(path));
    EXPECT_FALSE(CMonitorElement(path, "").match(path + "*"));
    EXPECT_FALSE(CMonitorElement("A/B", "").match(std::string("A/B\0", 4)));
    EXPECT_FALSE(CMonitorElement().match("*"));
}

}  // namespace
