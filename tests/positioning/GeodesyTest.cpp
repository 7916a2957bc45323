// The geodesy against GeographicLib as an independent oracle: conversions both ways over a
// grid of the whole globe, distances, and the covariance rotations against R Q R^T computed
// here from the rotation's definition.
#include <gtest/gtest.h>
#include <GeographicLib/Geocentric.hpp>

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

std::vector<double> Latitudes() {
    std::vector<double> lats = {89.9999, -89.9999, 0.0001};
    for (int deg = -90; deg <= 90; deg += 5) {
        lats.push_back(deg);
    }
    return lats;
}

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
        for (double latDeg : Latitudes()) {
            for (double lonDeg : kLongitudes) {
                SCOPED_TRACE(testing::Message() << latDeg << " " << lonDeg << " " << height.height);
                const double lat = latDeg * kDeg, lon = lonDeg * kDeg;
                const Point expected = Oracle(wgs84, lat, lon, height.height);

                double x = lat, y = lon, z = height.height;
                CGeoCalc::GeodeticToXyzWgs84(x, y, z, nullptr);
                EXPECT_LT(Distance({x, y, z}, expected), 1e-8);

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
                }
            }
        }
    }
}

TEST(Geodesy, TheGeneralFormsTakeAnyEllipsoidAndMatchTheWgs84FormsExactly) {
    const double a = 6378388.0, f = 1 / 297.0;  // the international ellipsoid of 1924
    const Geocentric hayford(a, f);
    for (double latDeg : Latitudes()) {
        const double lat = latDeg * kDeg, lon = 0.3, h = 250.0;
        double x = lat, y = lon, z = h;
        CGeoCalc::GeodeticToXyz(a, f, x, y, z, nullptr);
        EXPECT_LT(Distance({x, y, z}, Oracle(hayford, lat, lon, h)), 1e-8);
        CGeoCalc::XyzToGeodetic(a, f, x, y, z, nullptr);
        EXPECT_LT(Distance(Oracle(hayford, x, y, z), Oracle(hayford, lat, lon, h)), 1e-6);

        double general[3] = {lat, lon, h}, wgs84[3] = {lat, lon, h};
        CGeoCalc::GeodeticToXyz(CGeoCalc::kWgs84A, CGeoCalc::kWgs84F, general[0], general[1],
                                general[2], nullptr);
        CGeoCalc::GeodeticToXyzWgs84(wgs84[0], wgs84[1], wgs84[2], nullptr);
        EXPECT_EQ(std::vector(general, general + 3), std::vector(wgs84, wgs84 + 3));
        CGeoCalc::XyzToGeodetic(CGeoCalc::kWgs84A, CGeoCalc::kWgs84F, general[0], general[1],
                                general[2], nullptr);
        CGeoCalc::XyzToGeodeticWgs84(wgs84[0], wgs84[1], wgs84[2], nullptr);
        EXPECT_EQ(std::vector(general, general + 3), std::vector(wgs84, wgs84 + 3));
    }
}

TEST(Geodesy, PointsOnTheAxisAndTheEquator) {
    const double b = CGeoCalc::kWgs84B;
    struct Case {
        double in[3], out[3];
    } const cases[] = {
        {{0, 0, 0}, {0, 0, -b}},
        {{0, 0, b}, {CGeoCalc::kHalfPi, 0, 0}},
        {{0, 0, -b}, {CGeoCalc::kHalfPi, 0, 0}},
        {{CGeoCalc::kWgs84A, 0, 0}, {0, 0, 0}},
    };
    for (const Case& c : cases) {
        double v[3] = {c.in[0], c.in[1], c.in[2]};
        CGeoCalc::XyzToGeodeticWgs84(v[0], v[1], v[2], nullptr);
        EXPECT_EQ(std::vector(v, v + 3), std::vector(c.out, c.out + 3));
    }
    double x = 0, y = 0, z = 0;
    CGeoCalc::GeodeticToXyzWgs84(x, y, z, nullptr);
    EXPECT_EQ(std::vector({x, y, z}), std::vector<double>({CGeoCalc::kWgs84A, 0, 0}));
}

TEST(Geodesy, DistancesAgreeWithTheOracle) {
    const Geocentric& wgs84 = Geocentric::WGS84();
    const double pairs[][6] = {
        {47.3 * kDeg, 8.5 * kDeg, 400, 47.3 * kDeg, 8.5001 * kDeg, 410},  // about 8 m
        {47.3 * kDeg, 8.5 * kDeg, 400, 46.2 * kDeg, 6.1 * kDeg, 375},     // a baseline
        {0, 0, 0, 0, std::numbers::pi, 0},                                // through the centre
    };
    for (const auto& p : pairs) {
        const double expected =
            Distance(Oracle(wgs84, p[0], p[1], p[2]), Oracle(wgs84, p[3], p[4], p[5]));
        const double d = CGeoCalc::Get3DDistanceWgs84(p[0], p[1], p[2], p[3], p[4], p[5]);
        EXPECT_NEAR(d, expected, 1e-8);
        double v[6] = {p[0], p[1], p[2], p[3], p[4], p[5]};
        EXPECT_EQ(CGeoCalc::SlopeDistanceWgs84(v[0], v[1], v[2], v[3], v[4], v[5]), d);
        const Point first = Oracle(wgs84, p[0], p[1], p[2]);
        EXPECT_NEAR(v[0], first.x, 1e-8);  // converted in place
        EXPECT_NEAR(v[2], first.z, 1e-8);
    }
}

using Matrix = std::vector<std::vector<double>>;

// R from its rows north, east and up.
Matrix Rotation(double lat, double lon) {
    const double sp = std::sin(lat), cp = std::cos(lat), sl = std::sin(lon), cl = std::cos(lon);
    return {{-sp * cl, -sp * sl, cp}, {-sl, cl, 0}, {cp * cl, cp * sl, sp}};
}

Matrix Product(const Matrix& a, const Matrix& b) {
    Matrix c(3, std::vector<double>(3, 0.0));
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k)
                c[i][j] += a[i][k] * b[k][j];
    return c;
}

Matrix Transposed(const Matrix& a) {
    Matrix t = a;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            t[i][j] = a[j][i];
    return t;
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
        Matrix a(3, std::vector<double>(3));
        for (auto& row : a)
            for (double& v : row)
                v = uniform(random) * 0.05;    // metres
        Matrix q = Product(a, Transposed(a));  // symmetric positive definite
        for (int i = 0; i < 3; ++i)
            q[i][i] += 1e-6;
        const double lat = uniform(random) * CGeoCalc::kHalfPi;
        const double lon = uniform(random) * std::numbers::pi;
        const Matrix r = Rotation(lat, lon);

        std::vector<double> local = Lower(q);
        CGeoCalc::TransformQxxXyzToGeodetic(lat, lon, local.data());
        ExpectNear(local, Lower(Product(Product(r, q), Transposed(r))));

        const Matrix neu = Product(Product(r, q), Transposed(r));
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
    // At latitude 0, longitude 0: x points up, y east, z north.
    double e = 1, n = 2, u = 3;
    CGeoCalc::ResidualsXyzToGeodetic(0, 0, e, n, u);
    EXPECT_NEAR(e, 2, 1e-15);
    EXPECT_NEAR(n, 3, 1e-15);
    EXPECT_NEAR(u, 1, 1e-15);
    CGeoCalc::ResidualsGeodeticToXyz(0, 0, e, n, u);
    ExpectNear({e, n, u}, {1, 2, 3});

    double x = 0.01, y = -0.02, z = 0.03;
    CGeoCalc::ResidualsXyzToGeodetic(0.7, 2.1, x, y, z);
    CGeoCalc::ResidualsGeodeticToXyz(0.7, 2.1, x, y, z);
    ExpectNear({x, y, z}, {0.01, -0.02, 0.03});
}

}  // namespace
