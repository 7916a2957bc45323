// The geodesy against GeographicLib as an independent oracle: conversions both ways over a
// grid of the whole globe, distances, and the covariance rotations against R Q R^T computed
// here from the rotation's definition.
#include <gtest/gtest.h>
#include <GeographicLib/Geocentric.hpp>

#include <array>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "tessel/positioning/GeoCalc.h"

namespace {

using GeographicLib::Geocentric;
constexpr double kDeg = std::numbers::pi / 180.0;

struct Point {
    double x, y, z;
};

// The oracle's Cartesian point of a geodetic one given in radians.
Point Oracle(const Geocentric& earth, double lat, double lon, double h) {
    Point p{};
    earth.Forward(lat / kDeg, lon / kDeg, h, p.x, p.y, p.z);
    return p;
}

double Distance(const Point& a, const Point& b) {
    return std::hypot(a.x - b.x, a.y - b.y, a.z - b.z);
}

// Every 5 degrees, the poles, and points 11 m from the poles and the equator.
const std::vector<double> kLatitudes = [] {
    std::vector<double> lats = {89.9999, -89.9999, 0.0001};
    for (int deg = -90; deg <= 90; deg += 5)
        lats.push_back(deg);
    return lats;
}();
const double kLongitudes[] = {-180, -179.9, -90, -0.5, 0, 13.4, 90, 179.9, 180};

// Heights in metres, and how far Bowring's single step may put the round trip from the
// start at that height, in metres: within a micrometre for stations and aircraft, growing
// with the square of the height above.
struct HeightLimit {
    double height, limit;
};
const HeightLimit kHeights[] = {{-500, 1e-6}, {0, 1e-6},    {100, 1e-6},   {1000, 1e-6},
                                {5000, 1e-6}, {8000, 1e-6}, {10000, 2e-6}, {1e5, 2e-4},
                                {1e6, 0.015}, {2e7, 0.5}};

TEST(Geodesy, ConversionsAgreeWithTheOracleOverTheGlobe) {
    const Geocentric& wgs84 = Geocentric::WGS84();
    for (const HeightLimit& height : kHeights) {
        for (double latDeg : kLatitudes) {
            for (double lonDeg : kLongitudes) {
                SCOPED_TRACE(testing::Message() << latDeg << " " << lonDeg << " " << height.height);
                const double lat = latDeg * kDeg, lon = lonDeg * kDeg;
                const Point expected = Oracle(wgs84, lat, lon, height.height);

                double x = lat, y = lon, z = height.height;
                CGeoCalc::GeodeticToXyzWgs84(x, y, z, nullptr);
                EXPECT_LT(Distance({x, y, z}, expected), 1e-8);
                double general[3] = {lat, lon, height.height};  // the same numbers
                CGeoCalc::GeodeticToXyz(CGeoCalc::kWgs84A, CGeoCalc::kWgs84F, general[0],
                                        general[1], general[2], nullptr);
                EXPECT_TRUE(general[0] == x && general[1] == y && general[2] == z);

                // Round trip, and the reverse of the oracle's point, judged in position.
                CGeoCalc::XyzToGeodeticWgs84(x, y, z, nullptr);
                EXPECT_LE(std::fabs(y), std::numbers::pi);
                EXPECT_LT(Distance(Oracle(wgs84, x, y, z), expected), height.limit);
                // From the oracle's point, whose X and Y the reverse did not make itself,
                // the height p / cos(lat) loses what a rounding of the latitude costs
                // there: about 1e-10 m / cos(lat), 0.1 mm at 11 m from the pole. On the axis
                // the south pole comes out as the north pole.
                if (latDeg != -90) {
                    x = expected.x, y = expected.y, z = expected.z;
                    CGeoCalc::XyzToGeodeticWgs84(x, y, z, nullptr);
                    EXPECT_LT(Distance(Oracle(wgs84, x, y, z), expected),
                              height.limit + 2e-10 / std::cos(lat));
                    general[0] = expected.x, general[1] = expected.y, general[2] = expected.z;
                    CGeoCalc::XyzToGeodetic(CGeoCalc::kWgs84A, CGeoCalc::kWgs84F, general[0],
                                            general[1], general[2], nullptr);
                    EXPECT_TRUE(general[0] == x && general[1] == y && general[2] == z);
                }
            }
        }
    }
}

TEST(Geodesy, GeneralFormsTakeAnyEllipsoid) {
    const double a = 6378388.0, f = 1 / 297.0;  // the international ellipsoid of 1924
    const Geocentric hayford(a, f);
    for (double latDeg : kLatitudes) {
        const Point expected = Oracle(hayford, latDeg * kDeg, 0.3, 250.0);
        double v[3] = {latDeg * kDeg, 0.3, 250.0};
        CGeoCalc::GeodeticToXyz(a, f, v[0], v[1], v[2], nullptr);
        EXPECT_LT(Distance({v[0], v[1], v[2]}, expected), 1e-8);
        CGeoCalc::XyzToGeodetic(a, f, v[0], v[1], v[2], nullptr);
        EXPECT_LT(Distance(Oracle(hayford, v[0], v[1], v[2]), expected), 1e-6);
    }
}

TEST(Geodesy, PointsOnTheAxisAndTheEquator) {
    const double b = CGeoCalc::kWgs84B, a = CGeoCalc::kWgs84A;
    const std::vector<double> cases[][2] = {
        {{0, 0, 0}, {0, 0, -b}},
        {{0, 0, b}, {CGeoCalc::kHalfPi, 0, 0}},
        {{0, 0, -b}, {CGeoCalc::kHalfPi, 0, 0}},  // the south pole as the north pole
        {{a, 0, 0}, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        std::vector<double> v = c[0];
        CGeoCalc::XyzToGeodeticWgs84(v[0], v[1], v[2], nullptr);
        EXPECT_EQ(v, c[1]);
    }
    std::vector<double> v = {0, 0, 0};
    CGeoCalc::GeodeticToXyzWgs84(v[0], v[1], v[2], nullptr);
    EXPECT_EQ(v, std::vector<double>({a, 0, 0}));
}

TEST(Geodesy, DistancesAgreeWithTheOracle) {
    const Geocentric& wgs84 = Geocentric::WGS84();
    const double pairs[][6] = {
        {47.3 * kDeg, 8.5 * kDeg, 400, 47.3 * kDeg, 8.5001 * kDeg, 410},  // about 8 m
        {47.3 * kDeg, 8.5 * kDeg, 400, 46.2 * kDeg, 6.1 * kDeg, 375},     // a baseline
        {0, 0, 0, 0, std::numbers::pi, 0},                                // through the centre
    };
    for (const auto& p : pairs) {
        const Point first = Oracle(wgs84, p[0], p[1], p[2]);
        const double d = CGeoCalc::Get3DDistanceWgs84(p[0], p[1], p[2], p[3], p[4], p[5]);
        EXPECT_NEAR(d, Distance(first, Oracle(wgs84, p[3], p[4], p[5])), 1e-8);
        double v[6] = {p[0], p[1], p[2], p[3], p[4], p[5]};
        EXPECT_EQ(CGeoCalc::SlopeDistanceWgs84(v[0], v[1], v[2], v[3], v[4], v[5]), d);
        EXPECT_LT(Distance({v[0], v[1], v[2]}, first), 1e-8);  // converted in place
    }
}

using Matrix = std::array<std::array<double, 3>, 3>;

// R, from its rows north, east and up.
Matrix Rotation(double lat, double lon) {
    const double sp = std::sin(lat), cp = std::cos(lat), sl = std::sin(lon), cl = std::cos(lon);
    return {{{-sp * cl, -sp * sl, cp}, {-sl, cl, 0}, {cp * cl, cp * sl, sp}}};
}

Matrix Transposed(const Matrix& m) {
    Matrix t{};
    for (int i = 0; i < 9; ++i)
        t[i / 3][i % 3] = m[i % 3][i / 3];
    return t;
}

Matrix Product(const Matrix& a, const Matrix& b) {
    Matrix c{};
    for (int i = 0; i < 27; ++i)
        c[i / 9][i / 3 % 3] += a[i / 9][i % 3] * b[i % 3][i / 3 % 3];
    return c;
}

std::vector<double> Lower(const Matrix& q) {
    return {q[0][0], q[1][0], q[1][1], q[2][0], q[2][1], q[2][2]};
}
std::vector<double> Upper(const Matrix& q) {
    return {q[0][0], q[0][1], q[0][2], q[1][1], q[1][2], q[2][2]};
}

void ExpectNear(const std::vector<double>& actual, const std::vector<double>& expected) {
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(actual[i], expected[i], 1e-12 * (1 + std::fabs(expected[i]))) << i;
    }
}

TEST(Geodesy, CovarianceRotationsAreRQRtAndBack) {
    std::mt19937_64 random(20261124);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    for (int n = 0; n < 200; ++n) {
        Matrix a{};
        for (auto& row : a)
            for (double& v : row)
                v = uniform(random) * 0.05;    // metres
        Matrix q = Product(a, Transposed(a));  // symmetric positive definite
        for (int i = 0; i < 3; ++i)
            q[i][i] += 1e-6;
        const double lat = uniform(random) * CGeoCalc::kHalfPi;
        const double lon = uniform(random) * std::numbers::pi;
        const Matrix r = Rotation(lat, lon);
        const Matrix neu = Product(Product(r, q), Transposed(r));

        std::vector<double> local = Lower(q);
        CGeoCalc::TransformQxxXyzToGeodetic(lat, lon, local.data());
        ExpectNear(local, Lower(neu));
        std::vector<double> xyz = Upper(neu);  // repacked for the other direction
        CGeoCalc::TransformQxxGeodeticToXyz(lat, lon, xyz.data());
        ExpectNear(xyz, Upper(q));
    }
    double unit[6] = {1, 0, 0, 1, 0, 1};
    double x = 0.8, y = 0.2, z = 300;
    CGeoCalc::GeodeticToXyzWgs84(x, y, z, unit);
    ExpectNear(std::vector(unit, unit + 6), {1, 0, 0, 1, 0, 1});
}

TEST(Geodesy, ResidualsGoEastNorthUpAndBack) {
    double e = 1, n = 2, u = 3;  // at latitude 0, longitude 0: x points up, y east, z north
    CGeoCalc::ResidualsXyzToGeodetic(0, 0, e, n, u);
    ExpectNear({e, n, u}, {2, 3, 1});
    CGeoCalc::ResidualsGeodeticToXyz(0, 0, e, n, u);
    ExpectNear({e, n, u}, {1, 2, 3});
    double x = 0.01, y = -0.02, z = 0.03;
    CGeoCalc::ResidualsXyzToGeodetic(0.7, 2.1, x, y, z);
    CGeoCalc::ResidualsGeodeticToXyz(0.7, 2.1, x, y, z);
    ExpectNear({x, y, z}, {0.01, -0.02, 0.03});
}

}  // namespace
