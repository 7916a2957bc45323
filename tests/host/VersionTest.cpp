#include "tessel/host/Version.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>
#include <utility>

TEST(Version, TextIsReadPartByPart) {
    const std::pair<const char*, const char*> cases[] = {
        {"1.2.x.4", "1.2.0.4"},
        {"7", "7.0.0.0"},
        {"1.2.3.4.5", "1.2.3.4"},
        {"", "0.0.0.0"},
        {"1..3", "1.0.3.0"},
        {" 1.2a.-1.+2", "0.0.0.0"},
        {"4294967295.4294967296", "4294967295.0.0.0"},
    };
    for (const auto& [text, parts] : cases) {
        EXPECT_EQ(CVersion(text).ToString(), parts) << text;
    }
}

TEST(Version, ComparesByWeightAndOperatorsAgree) {
    // Each pair, and the sign of the first compared with the second.
    const std::tuple<CVersion, CVersion, int> cases[] = {
        {CVersion(1, 0, 0, 0), CVersion(0, 9, 9, 9), 1},
        {CVersion(1, 2, 3, 4), CVersion(1, 2, 3, 5), -1},
        {CVersion(0, 0, 1, 0), CVersion(0, 0, 0, 4000000000u), 1},
        {CVersion("2.1"), CVersion(2, 1, 0, 0), 0},
    };
    for (const auto& [a, b, sign] : cases) {
        SCOPED_TRACE(a.ToString() + " " + b.ToString());
        EXPECT_EQ(a.CompareTo(b), sign);
        EXPECT_EQ(b.CompareTo(a), -sign);
        EXPECT_EQ(
            (std::array{a.Equals(b), a == b, a != b, a<b, a <= b, a> b, a >= b}),
            (std::array{sign == 0, sign == 0, sign != 0, sign<0, sign <= 0, sign> 0, sign >= 0}));
    }
}
