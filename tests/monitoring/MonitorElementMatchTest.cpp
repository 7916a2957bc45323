// The filter match, case by case. Each expectation was found by running the scan by hand.
#include <gtest/gtest.h>

#include <string>

#include "tessel/monitoring/MonitorElement.h"

namespace {

struct MatchCase {
    const char* path;
    const char* pattern;
    bool expected;
};

std::ostream& operator<<(std::ostream& os, const MatchCase& c) {
    return os << "'" << c.pattern << "' against '" << c.path << "'";
}

class FilterMatch : public testing::TestWithParam<MatchCase> {};

TEST_P(FilterMatch, ScanGivesTheExpectedResult) {
    const MatchCase& c = GetParam();
    const CMonitorElement element(c.path, "");
    EXPECT_EQ(element.match(c.pattern), c.expected);
}

const MatchCase kCases[] = {
    // Literal paths, compared without regard to case; the pattern must cover the path.
    {"A/B/C", "A/B/C", true},
    {"A/B/C", "a/b/c", true},
    {"A/B/C", "A/B", false},     // ends inside the path: the final test fails
    {"A/B/C", "A/B/C/", false},  // runs past the last element
    {"A/B/C", "A/B/CD", false},
    {"A/B/C", "A/X/C", false},
    {"", "", true},  // an empty pattern matches only a single empty element
    {"A", "", false},
    // A single star stays inside one element and stops at the first stop character.
    {"A/B/C", "A/*/C", true},
    {"A/B/B/C", "A/*/C", false},
    {"A/B/C", "*/B/C", true},
    {"A/BC", "A/*C", true},
    {"A/BCD", "A/*D", true},
    {"A/BDD", "A/*D", false},  // stops at the first D, then the element goes on
    {"A/B/C", "A*C", false},   // a single star does not cross elements
    {"A/BXC", "A/B*C", true},
    // A trailing star accepts all that remains, further path elements included.
    {"A/B/C", "*", true},
    {"A/B/C", "A/*", true},
    {"A/B/C", "A/B*", true},
    {"A/BCD", "A/B*", true},
    {"A", "A*", true},
    {"A/B/C", "**", true},
    {"A/B/C", "A/**", true},
    // A star and a delimiter at the end need one more, empty, path element.
    {"A/B/", "A/*/", true},
    {"A/B", "A/*/", false},
    {"A/B/C", "A/*/", false},
    // A double star skips across elements up to its stop character.
    {"A/B/C", "**C", true},
    {"A/B/C", "**B", false},    // B is found, but the path goes on
    {"A/B/C", "**b/C", false},  // the run compares "/" with the element's end
    {"A/BX/C", "**B*", true},   // the run hands a star back to the literal state
    {"X/Stats/Threads", "**threads", true},
    {"A/B/C", "A/**/C", false},  // a double star before '/' never matches
    {"A/B/C", "**/C", false},
    {"aab", "**ab", true},
    {"aaab", "**aab", false},  // a failed run is not re-examined from its second character
    {"Proc/12/Threads/7/State", "Proc/*/Threads/**State", true},
    {"Proc/12/Threads/7/State", "Proc/*/Threads/**Stat", false},
    {"Proc/12/Threads/7/State", "PROC/1*/THREADS/*/STATE", true},
};

INSTANTIATE_TEST_SUITE_P(Cases, FilterMatch, testing::ValuesIn(kCases));

TEST(FilterMatchLimits, PatternOf200CharactersNeverMatches) {
    const std::string path(199, 'x');
    const CMonitorElement element(path, "");
    EXPECT_TRUE(element.match(path));
    EXPECT_TRUE(element.match(std::string(198, 'x') + "*"));
    EXPECT_FALSE(element.match(path + "*"));  // 200 characters
}

TEST(FilterMatchLimits, PatternWithNulNeverMatches) {
    const CMonitorElement element("A/B", "");
    EXPECT_FALSE(element.match(std::string("A/B\0", 4)));
    EXPECT_FALSE(element.match(std::string("A\0/B", 4)));
}

TEST(FilterMatchLimits, DefaultElementMatchesNothing) {
    const CMonitorElement element;
    EXPECT_FALSE(element.match(""));
    EXPECT_FALSE(element.match("*"));
}

}  // namespace
