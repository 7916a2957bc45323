// Built with -ffp-contract=off: no multiply-add is fused, so the results are the same in
// every build.
#include "tessel/positioning/GeoCalc.h"

#include <cmath>

namespace {

// The quantities of one ellipsoid that the conversions use.
struct Ellipsoid {
    double a;           // semi-major axis
    double e2;          // first eccentricity squared
    double oneMinusE2;  // 1 - e^2
    double b;           // semi-minor axis
    double ae2;         // a e^2
    double a2e2;        // a^2 e^2
};

constexpr Ellipsoid kWgs84{CGeoCalc::kWgs84A, CGeoCalc::kWgs84E2,  CGeoCalc::kWgs84OneMinusE2,
                           CGeoCalc::kWgs84B, CGeoCalc::kWgs84AE2, CGeoCalc::kWgs84A2E2};

Ellipsoid MakeEllipsoid(double a, double f) {
    const double e2 = 2.0 * f - f * f;
    return {a, e2, 1.0 - e2, (1.0 - f) * a, a * e2, a * a * e2};
}

using Matrix = double[3][3];

// R of the latitude and longitude: rows north, east, up.
void Rotation(double lat, double lon, Matrix& r) {
    const double sinLat = std::sin(lat);
    const double cosLat = std::cos(lat);
    const double sinLon = std::sin(lon);
    const double cosLon = std::cos(lon);
    r[0][0] = -sinLat * cosLon;
    r[0][1] = -sinLat * sinLon;
    r[0][2] = cosLat;
    r[1][0] = -sinLon;
    r[1][1] = cosLon;
    r[1][2] = 0.0;
    r[2][0] = cosLat * cosLon;
    r[2][1] = cosLat * sinLon;
    r[2][2] = sinLat;
}

// result = left * right, where either factor may be read transposed.
void Multiply(const Matrix& left, bool transposeLeft, const Matrix& right, bool transposeRight,
              Matrix& result) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double sum = 0.0;
            for (int k = 0; k < 3; ++k) {
                sum += (transposeLeft ? left[k][i] : left[i][k]) *
                       (transposeRight ? right[j][k] : right[k][j]);
            }
            result[i][j] = sum;
        }
    }
}

// result = R v, or R^T v where transpose is true.
void RotateVector(double lat, double lon, const double (&v)[3], bool transpose,
                  double (&result)[3]) {
    Matrix r;
    Rotation(lat, lon, r);
    for (int i = 0; i < 3; ++i) {
        result[i] = 0.0;
        for (int k = 0; k < 3; ++k) {
            result[i] += (transpose ? r[k][i] : r[i][k]) * v[k];
        }
    }
}

// The (row, column) of each packed element, for the two packings.
constexpr int kLower[6][2] = {{0, 0}, {1, 0}, {1, 1}, {2, 0}, {2, 1}, {2, 2}};
constexpr int kUpper[6][2] = {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {1, 2}, {2, 2}};

void Unpack(const double* packed, const int (&order)[6][2], Matrix& q) {
    for (int n = 0; n < 6; ++n) {
        q[order[n][0]][order[n][1]] = packed[n];
        q[order[n][1]][order[n][0]] = packed[n];
    }
}

void Pack(const Matrix& q, const int (&order)[6][2], double* packed) {
    for (int n = 0; n < 6; ++n) {
        packed[n] = q[order[n][0]][order[n][1]];
    }
}

// Q becomes R Q R^T (toLocal) or R^T Q R, unpacked and packed in order.
void RotateCovariance(double lat, double lon, double* qxx, const int (&order)[6][2], bool toLocal) {
    Matrix r;
    Matrix q;
    Matrix product;
    Matrix result;
    Rotation(lat, lon, r);
    Unpack(qxx, order, q);
    Multiply(r, !toLocal, q, false, product);
    Multiply(product, false, r, toLocal, result);
    Pack(result, order, qxx);
}

// stopOnZeroRoot: return at once, with nothing changed, where the root of the radius of
// curvature is exactly 0 (what the WGS84 form does).
void ToXyz(const Ellipsoid& e, bool stopOnZeroRoot, double& latToX, double& lonToY,
           double& heightToZ, double* qxx) {
    const double lat = latToX;
    const double lon = lonToY;
    const double h = heightToZ;
    const double sinLat = std::sin(lat);
    const double root = std::sqrt(1.0 - e.e2 * sinLat * sinLat);
    if (stopOnZeroRoot && root == 0.0) {
        return;
    }
    const double n = e.a / root;
    const double r = std::cos(lat) * (n + h);
    heightToZ = (e.oneMinusE2 * n + h) * sinLat;
    latToX = r * std::cos(lon);
    lonToY = r * std::sin(lon);
    if (qxx != nullptr) {
        CGeoCalc::TransformQxxGeodeticToXyz(lat, lon, qxx);
    }
}

void ToGeodetic(const Ellipsoid& e, double& xToLat, double& yToLon, double& zToHeight,
                double* qxx) {
    const double x = xToLat;
    const double y = yToLon;
    const double z = zToHeight;
    const double p = std::sqrt(x * x + y * y);
    const double theta = std::atan2(z * e.a, p * e.b);
    double lat;
    double lon;
    double h;
    if (x == 0.0 && y == 0.0) {
        // On the axis: either pole comes out as the north pole.
        lat = z == 0.0 ? 0.0 : CGeoCalc::kHalfPi;
        lon = 0.0;
        h = std::fabs(z) - e.b;
    } else {
        const double sinTheta = std::sin(theta);
        const double cosTheta = std::cos(theta);
        lat = std::atan2(z + e.a2e2 * sinTheta * sinTheta * sinTheta / e.b,
                         p - e.ae2 * cosTheta * cosTheta * cosTheta);
        lon = std::atan2(y, x);
        const double sinLat = std::sin(lat);
        h = p / std::cos(lat) - e.a / std::sqrt(1.0 - e.e2 * sinLat * sinLat);
    }
    xToLat = lat;
    yToLon = lon;
    zToHeight = h;
    if (qxx != nullptr) {
        CGeoCalc::TransformQxxXyzToGeodetic(lat, lon, qxx);
    }
}

}  // namespace

void CGeoCalc::GeodeticToXyz(double a, double f, double& latToX, double& lonToY, double& heightToZ,
                             double* qxx) {
    ToXyz(MakeEllipsoid(a, f), false, latToX, lonToY, heightToZ, qxx);
}

void CGeoCalc::GeodeticToXyzWgs84(double& latToX, double& lonToY, double& heightToZ, double* qxx) {
    ToXyz(kWgs84, true, latToX, lonToY, heightToZ, qxx);
}

void CGeoCalc::XyzToGeodetic(double a, double f, double& xToLat, double& yToLon, double& zToHeight,
                             double* qxx) {
    ToGeodetic(MakeEllipsoid(a, f), xToLat, yToLon, zToHeight, qxx);
}

void CGeoCalc::XyzToGeodeticWgs84(double& xToLat, double& yToLon, double& zToHeight, double* qxx) {
    ToGeodetic(kWgs84, xToLat, yToLon, zToHeight, qxx);
}

double CGeoCalc::Get3DDistanceCart(const double& x1, const double& y1, const double& z1,
                                   const double& x2, const double& y2, const double& z2) {
    const double dx = x2 - x1;
    const double dy = y2 - y1;
    const double dz = z2 - z1;
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

double CGeoCalc::Get3DDistanceWgs84(const double& lat1, const double& lon1, const double& h1,
                                    const double& lat2, const double& lon2, const double& h2) {
    double x1 = lat1, y1 = lon1, z1 = h1;
    double x2 = lat2, y2 = lon2, z2 = h2;
    GeodeticToXyzWgs84(x1, y1, z1, nullptr);
    GeodeticToXyzWgs84(x2, y2, z2, nullptr);
    return Get3DDistanceCart(x1, y1, z1, x2, y2, z2);
}

double CGeoCalc::SlopeDistance(double a, double f, double& lat1, double& lon1, double& h1,
                               double& lat2, double& lon2, double& h2) {
    GeodeticToXyz(a, f, lat1, lon1, h1, nullptr);
    GeodeticToXyz(a, f, lat2, lon2, h2, nullptr);
    return Get3DDistanceCart(lat1, lon1, h1, lat2, lon2, h2);
}

double CGeoCalc::SlopeDistanceWgs84(double& lat1, double& lon1, double& h1, double& lat2,
                                    double& lon2, double& h2) {
    return SlopeDistance(kWgs84A, kWgs84F, lat1, lon1, h1, lat2, lon2, h2);
}

void CGeoCalc::ResidualsGeodeticToXyz(double lat, double lon, double& eastToX, double& northToY,
                                      double& upToZ) {
    const double local[3] = {northToY, eastToX, upToZ};
    double xyz[3];
    RotateVector(lat, lon, local, true, xyz);
    eastToX = xyz[0];
    northToY = xyz[1];
    upToZ = xyz[2];
}

void CGeoCalc::ResidualsXyzToGeodetic(double lat, double lon, double& xToEast, double& yToNorth,
                                      double& zToUp) {
    const double xyz[3] = {xToEast, yToNorth, zToUp};
    double local[3];
    RotateVector(lat, lon, xyz, false, local);
    xToEast = local[1];
    yToNorth = local[0];
    zToUp = local[2];
}

void CGeoCalc::TransformQxxGeodeticToXyz(const double& lat, const double& lon, double* const qxx) {
    RotateCovariance(lat, lon, qxx, kUpper, false);
}

void CGeoCalc::TransformQxxXyzToGeodetic(const double& lat, const double& lon, double* const qxx) {
    RotateCovariance(lat, lon, qxx, kLower, true);
}
