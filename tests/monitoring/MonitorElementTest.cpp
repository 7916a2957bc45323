#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>
#include <thread>
#include <vector>

#include "support/LogCapture.h"
#include "tessel/monitoring/MonitorElement.h"
#include "tessel/platform/Clock.h"

namespace {

std::string counterText(double value, const char* unit = "ms") {
    CMonitorElement element("A/B", unit);
    element.set(value);
    std::ostringstream stream;
    element.printCounter(stream);
    return stream.str();
}

std::string jsonText(double value, bool valueOnly, const char* unit = "ms") {
    CMonitorElement element("A/B", unit);
    element.set(value);
    std::ostringstream stream;
    element.printCounterForJSON(stream, valueOnly);
    return stream.str();
}

std::string prtgText(double value) {
    CMonitorElement element("A/B", "");
    element.set(value);
    std::ostringstream stream;
    element.printCounterForPRTG(stream);
    return stream.str();
}

struct NumberCase {
    double value;
    const char* number;  // the number as all three printers write it
};

std::ostream& operator<<(std::ostream& os, const NumberCase& c) {
    return os << c.value;
}

class NumberFormatting : public testing::TestWithParam<NumberCase> {};

TEST_P(NumberFormatting, AllPrintersAgree) {
    const NumberCase& c = GetParam();
    const std::string number = c.number;
    EXPECT_EQ(counterText(c.value), std::string(20 - number.size(), ' ') + number + " ms");
    EXPECT_EQ(jsonText(c.value, true), "\"" + number + "\"");
    EXPECT_EQ(jsonText(c.value, false), "[\"" + number + "\",\"ms\"]");
    EXPECT_EQ(prtgText(c.value), number);
}

const NumberCase kNumbers[] = {
    {3.0, "3"},
    {3.25, "3.250000"},
    {1.5, "1.500000"},
    {-1.5, "-1"},  // a negative fraction prints truncated
    {0.0, "0"},
    {-0.0, "0"},
    {0.1, "0.100000"},
    {-7.0, "-7"},
    {1234567.125, "1234567.125000"},
    {4294967296.0, "4294967296"},
    {1e20, "-9223372036854775808"},  // out of the integer range: the indefinite integer
    {std::numeric_limits<double>::quiet_NaN(), "-9223372036854775808"},
};

INSTANTIATE_TEST_SUITE_P(Values, NumberFormatting, testing::ValuesIn(kNumbers));

TEST(MonitorElementPrinting, CounterWithEmptyUnitKeepsTheBlank) {
    EXPECT_EQ(counterText(7.0, ""), std::string(19, ' ') + "7 ");
}

TEST(MonitorElementPrinting, StreamAdjustmentAppliesAndManipulatorsStaySet) {
    CMonitorElement element("A/B", "ms");
    element.set(3.25);
    std::ostringstream stream;
    stream << std::left;
    element.printCounter(stream);
    stream << '|' << 2.5;
    EXPECT_EQ(stream.str(), "3.250000" + std::string(12, ' ') + " ms|2.500000");
}

TEST(MonitorElementPrinting, IdentifierTakesTheFieldWidthAsAWhole) {
    const CMonitorElement element("Root/12/Stats", "");
    std::ostringstream stream;
    stream << std::setw(16) << std::left;
    element.printIdentifier(stream);
    stream << '|';
    EXPECT_EQ(stream.str(), "Root/12/Stats   |");
}

TEST(MonitorElementValue, WritersChangeTheValueAsDocumented) {
    CMonitorElement element("A/B", "");
    EXPECT_EQ(element.get(), 0.0);
    element.set(2.5);
    EXPECT_EQ(element.get(), 2.5);
    element.increment(3);
    EXPECT_EQ(element.get(), 5.5);
    ++element;
    EXPECT_EQ(element.get(), 6.5);
    --(--element);
    EXPECT_EQ(element.get(), 4.5);
    element.decrement(10);  // no floor
    EXPECT_EQ(element.get(), -5.5);
    element.reset();
    EXPECT_EQ(element.get(), 0.0);
}

TEST(MonitorElementValue, LargeIncrementRoundsInTheConversion) {
    CMonitorElement element("A", "");
    const std::uint64_t n = (1ull << 53) + 1;
    element.increment(n);
    EXPECT_EQ(element.get(), 9007199254740992.0);
}

TEST(MonitorElementValue, SetRatio) {
    struct {
        double part, whole, expected;
    } const cases[] = {
        {5, 0, 0.0},
        {1, 4, 25.0},
        {3, 2, 150.0},
        {1, -1, 0.0},
        {1, std::numeric_limits<double>::quiet_NaN(), 0.0},
    };
    CMonitorElement element("A", "%");
    for (const auto& c : cases) {
        element.set(99.0);
        element.setRatio(c.part, c.whole);
        EXPECT_EQ(element.get(), c.expected) << c.part << " of " << c.whole;
    }
}

TEST(MonitorElementValue, StopWithoutStartMeasuresFromTheClockEpoch) {
    CMonitorElement element("A", "s");
    element.stop();
    const double expected =
        static_cast<double>(Tessel::Platform::GetSystemTimeTicks()) / 10000000.0;
    EXPECT_NEAR(element.get(), expected, 5.0);
}

TEST(MonitorElementValue, StartStopMeasuresSeconds) {
    CMonitorElement element("A", "s");
    element.set(42.0);
    element.start();
    EXPECT_EQ(element.get(), 42.0);  // start leaves the value
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(element.getTimeDiffFromStart(), 0.015);
    element.stop();
    EXPECT_GE(element.get(), 0.015);
    EXPECT_LT(element.get(), 60.0);
}

TEST(MonitorElementValue, SynchronizeTakesValueAndTimesOnly) {
    CMonitorElement source("A/Source", "ms");
    source.start();
    source.stop();
    source.set(17.0);
    CMonitorElement target("B/Target", "s");
    target.synchronize(source);
    EXPECT_EQ(target.get(), 17.0);
    EXPECT_EQ(target.getPath(), "B/Target");
    EXPECT_EQ(target.getUnit(), "s");
}

TEST(MonitorElementValue, ConcurrentIncrementsAreNotLost) {
    CMonitorElement element("A", "");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&element] {
            for (int i = 0; i < 100000; ++i) {
                element.increment(1);
                ++element;
                --element;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(element.get(), 400000.0);
}

TEST(MonitorElementIdentity, ParsingKeepsEmptyElements) {
    const CMonitorElement element("/A//B/", "");
    std::vector<std::string> seen;
    element.iterateIdentifier([&](unsigned char index, unsigned char count, const char* text) {
        EXPECT_EQ(index, seen.size());
        EXPECT_EQ(count, 5);
        seen.emplace_back(text);
        return true;
    });
    EXPECT_EQ(seen, (std::vector<std::string>{"", "A", "", "B", ""}));
    EXPECT_EQ(element.getPath(), "/A//B/");
}

TEST(MonitorElementIdentity, IterationStopsWhenTheVisitorSaysSo) {
    const CMonitorElement element("A/B/C/D", "");
    int calls = 0;
    element.iterateIdentifier(
        [&](unsigned char, unsigned char, const char*) { return ++calls < 2; });
    EXPECT_EQ(calls, 2);
    int emptyCalls = 0;
    CMonitorElement().iterateIdentifier(
        [&](unsigned char, unsigned char, const char*) { return ++emptyCalls > 0; });
    EXPECT_EQ(emptyCalls, 0);
}

TEST(MonitorElementIdentity, PathElementsAndIdentifier) {
    const CMonitorElement element("Root/123/Stats", "");
    EXPECT_EQ(element.getPathElement(0), "Root");
    EXPECT_EQ(element.getPathElement(2), "Stats");
    EXPECT_EQ(element.getPathElement(3), "");
    EXPECT_EQ(element.getPathElement(255), "");
    EXPECT_EQ(element.getIdentifier(0), "Root/123/Stats");
    EXPECT_EQ(element.getIdentifier(9), "Stats");
    EXPECT_EQ(element.getIdentifier(14), "Root/123/Stats");  // skip at the length
    EXPECT_EQ(element.getIdentifier(100), "Root/123/Stats");
}

TEST(MonitorElementIdentity, UnitIsCutToTenCharacters) {
    EXPECT_EQ(CMonitorElement("A", "abcdefghijklmn").getUnit(), "abcdefghij");
    EXPECT_EQ(CMonitorElement("A", "ms").getUnit(), "ms");
}

TEST(MonitorElementIdentity, OrderIsByPathElement) {
    const CMonitorElement comparator;
    const CMonitorElement ab("A/B", ""), abc("A/B/C", ""), a0b("A0/B", ""), aB("a/B", "");
    EXPECT_TRUE(comparator(ab, abc));   // a prefix sorts first
    EXPECT_TRUE(comparator(abc, a0b));  // by element, not by text with delimiters
    EXPECT_FALSE(comparator(a0b, abc));
    EXPECT_TRUE(comparator(ab, aB));  // case-sensitive, by byte value
    EXPECT_FALSE(comparator(ab, ab));
}

TEST(MonitorElementIdentity, EqualityLooksOnlyAtTheIdentifier) {
    CMonitorElement a("X/Y", "ms");
    CMonitorElement b("X/Y", "s");
    a.set(1.0);
    b.set(2.0);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == CMonitorElement("X/y", "ms"));
    EXPECT_FALSE(a == CMonitorElement("X/Y/", "ms"));
}

TEST(MonitorElementIdentity, CopiesCarryEverything) {
    CMonitorElement source("A/B", "ms");
    source.set(3.5);
    source.start();
    const CMonitorElement copy(source);
    EXPECT_EQ(copy.get(), 3.5);
    EXPECT_EQ(copy.getPath(), "A/B");
    EXPECT_EQ(copy.getUnit(), "ms");
    CMonitorElement assigned;
    const CMonitorElement returned = (assigned = source);
    EXPECT_EQ(assigned.get(), 3.5);
    EXPECT_EQ(returned.getPath(), "A/B");
    EXPECT_NEAR(assigned.getTimeDiffFromStart(), source.getTimeDiffFromStart(), 1.0);
}

TEST(MonitorElementIdentity, SetRootNameReplacesTheFirstElement) {
    CMonitorElement element("UnknownRootName/42/Stats/X", "ms");
    element.set(5.0);
    element.setRootName("Collector");
    EXPECT_EQ(element.getPath(), "Collector/42/Stats/X");
    EXPECT_EQ(element.get(), 5.0);
    EXPECT_EQ(element.getUnit(), "ms");
    EXPECT_TRUE(element.match("collector/42/**"));
}

TEST(MonitorElementLimits, NamesAtAndPastTheLimits) {
    struct {
        std::string name;
        bool valid;
    } const cases[] = {
        {std::string(199, 'a'), true},
        {std::string(200, 'a'), false},
        {"a" + std::string(19, '/'), true},  // 20 path elements
        {"a" + std::string(20, '/'), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CMonitorElement::IsValidName(c.name), c.valid) << c.name;
    }
}

TEST(MonitorElementLimits, RefusedNameLeavesAnElementWithoutPathAndLogs) {
    TesselTest::LogCapture logCapture1;
    const CMonitorElement element(std::string(250, 'a'), "ms");
    const std::string log = logCapture1.text();
    EXPECT_EQ(element.getPath(), "");
    EXPECT_EQ(element.getPathElement(0), "");
    EXPECT_NE(log.find(" error [CMonitorElement::CMonitorElement] Monitor element name ("),
              std::string::npos)
        << log;
}

TEST(MonitorElementLimits, SetRootNameThatWouldOverflowIsRefused) {
    const CMonitorElement element("R/" + std::string(190, 'b'), "");
    TesselTest::LogCapture logCapture2;
    element.setRootName(std::string(20, 'r'));
    const std::string log = logCapture2.text();
    EXPECT_EQ(element.getPath(), "R/" + std::string(190, 'b'));
    EXPECT_NE(log.find("[CMonitorElement::setRootName]"), std::string::npos) << log;
}

}  // namespace
