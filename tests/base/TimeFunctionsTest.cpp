// TIME: the difference from UTC, the UTC time, the local time text and the Modified Julian Date.
#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <ctime>
#include <limits>
#include <regex>
#include <string>
#include <tuple>

#include "tessel/base/TimeFunctions.h"
#include "tessel/platform/Clock.h"

using namespace boost::posix_time;
using boost::gregorian::date;

struct TimeFunctions : ::testing::Test {
    void TearDown() override { TIME::SetDeltaUTCTime(0.0); }  // it is process-wide
};

TEST_F(TimeFunctions, DeltaIsKeptInFiftyMicrosecondUnitsUpToOneDay) {
    EXPECT_EQ(TIME::GetDeltaUTCTime(), 0.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const std::tuple<double, double, double> cases[] = {
        // set, expected, tolerance
        {1.5, 1.5, 1e-9},         {-2.25, -2.25, 1e-9},
        {86400.0, 86400.0, 5e-5}, {-86400.0, -86400.0, 5e-5},
        {86400.1, 0.0, 0.0},      {-86400.1, 0.0, 0.0},
        {inf, 0.0, 0.0},          {nan, 0.0, 0.0},
        {3e-5, 0.0, 0.0},         {-7e-5, -5e-5, 1e-12},
        {1.00004, 1.0, 1e-9},     {-1.00004, -1.0, 1e-9},
    };
    for (const auto& [set, expected, tolerance] : cases) {
        TIME::SetDeltaUTCTime(10.0);
        TIME::SetDeltaUTCTime(set);
        EXPECT_NEAR(TIME::GetDeltaUTCTime(), expected, tolerance) << "set " << set;
    }
}

TEST_F(TimeFunctions, UtcIsTheSystemClockInWholeSecondsMinusTheDelta) {
    // The difference, what it adds to the system clock, and the result's fraction of a second.
    const std::tuple<double, time_duration, long> cases[] = {
        {0.0, hours(0), 0},
        {-3600.0, hours(1), 0},  // a negative difference moves UTC forward
        {3600.0, -hours(1), 0},
        {1.5, -milliseconds(1500), 500000},
        {0.0123456, -milliseconds(12), 988000},  // 12.3 ms count as 12
        {-0.0123456, milliseconds(12), 12000},
        {-0.0009, hours(0), 0},
    };
    for (const auto& [delta, shift, fractionUs] : cases) {
        SCOPED_TRACE(delta);
        TIME::SetDeltaUTCTime(delta);
        const ptime before = from_time_t(std::time(nullptr)) + shift;
        const ptime utc = TIME::GetCurrentDateTimeUTC();
        EXPECT_LE(before, utc);
        EXPECT_LE(utc, from_time_t(std::time(nullptr)) + shift);
        EXPECT_EQ(utc.time_of_day().fractional_seconds(), fractionUs);
    }
}

TEST_F(TimeFunctions, DateTimeTextIsTheLocalTimeAndIgnoresTheDelta) {
    using Stamp = std::tuple<int, int, int, int, int, int, int>;  // year ... millisecond
    const auto local = [] {
        Tessel::Platform::SYSTEMTIME t;
        Tessel::Platform::GetLocalTime(&t);
        return Stamp{t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds};
    };
    for (double delta : {0.0, -7200.0}) {
        TIME::SetDeltaUTCTime(delta);
        const Stamp before = local();
        const std::string text = TIME::GetCurrentDateTimeAsString();
        const Stamp after = local();
        const std::regex format(R"(\d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d\.\d{3})");
        ASSERT_TRUE(std::regex_match(text, format)) << text;
        const auto n = [&](int at, int count) { return std::stoi(text.substr(at, count)); };
        const Stamp stamp{n(6, 4), n(3, 2), n(0, 2), n(11, 2), n(14, 2), n(17, 2), n(20, 3)};
        EXPECT_LE(before, stamp) << text;
        EXPECT_LE(stamp, after) << text;
    }
}

TEST_F(TimeFunctions, ModifiedJulianDate) {
    const double special = 9223372036854775.0 / 86400000.0;
    const std::pair<ptime, double> cases[] = {
        {ptime(date(1858, 11, 17)), 0.0},
        {ptime(date(2000, 1, 1)), 51544.0},
        {ptime(date(2000, 1, 1), hours(12)), 51544.5},
        {ptime(date(1858, 11, 16), hours(18)), -0.25},
        {ptime(date(2000, 1, 1), milliseconds(1)), 51544.0 + 1.0 / 86400000.0},
        {ptime(date(2000, 1, 1), microseconds(999)), 51544.0},  // whole milliseconds
        {ptime(not_a_date_time), special},
        {ptime(pos_infin), special},
        {ptime(neg_infin), -special},
    };
    for (const auto& [time, mjd] : cases) {
        EXPECT_DOUBLE_EQ(TIME::ToMjd(time), mjd) << time;
    }
}
