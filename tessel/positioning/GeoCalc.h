// CGeoCalc: conversions between geodetic and earth-centred Cartesian coordinates, distances,
// and the rotations of residuals and covariance matrices between the local and the Cartesian
// frame.
//
// Units: angles in radians, lengths in metres, covariances in square metres. Latitude comes
// first here (CGeoCoord keeps longitude first). An ellipsoid is given by its semi-major axis a
// (metres) and flattening f; the Wgs84 forms use the constants below and give the same numbers
// as the general forms with a = kWgs84A, f = kWgs84F.
//
// Geodetic to Cartesian is closed-form. Cartesian to geodetic is Bowring's formula with one
// step, no iteration: its error grows with the height, from a few nanometres at the surface
// to about 1 micrometre at 9 km, 0.1 mm at 100 km, 1 cm at 1000 km and 0.3 m at 20,000 km.
// On the polar axis (X and Y both exactly 0) the latitude is +pi/2 for either pole, 0 at the
// centre, and the height |Z| - b.
//
// Covariances are symmetric 3 x 3 matrices packed in six doubles, and the two directions pack
// them differently:
//  - Cartesian to geodetic (XyzToGeodetic, TransformQxxXyzToGeodetic): the rows of the lower
//    triangle, Q11 Q21 Q22 Q31 Q32 Q33;
//  - geodetic to Cartesian (GeodeticToXyz, TransformQxxGeodeticToXyz): the rows of the upper
//    triangle, Q11 Q12 Q13 Q22 Q23 Q33.
// A round trip through both therefore needs repacking by the caller. The local frame is
// ordered north, east, up; the residual operations order their arguments east, north, up.
//
// The rotation R of a latitude phi and longitude lambda has the rows
//   north: -sin(phi)cos(lambda)  -sin(phi)sin(lambda)  cos(phi)
//   east:  -sin(lambda)           cos(lambda)          0
//   up:     cos(phi)cos(lambda)   cos(phi)sin(lambda)  sin(phi)
//
// Every operation is static, needs no set-up, and touches only its arguments: safe from any
// thread. Nothing is checked: NaN in gives NaN out.
#pragma once

#include "tessel/Export.h"

class TESSEL_API CGeoCalc {
  public:
    // The WGS84 ellipsoid, as double.
    static constexpr double kWgs84A = 6378137.0;                    // semi-major axis a
    static constexpr double kWgs84F = 0.0033528106647474805;        // flattening f, 1/298.257223563
    static constexpr double kWgs84E2 = 0.0066943799901413165;       // e^2 = 2f - f^2
    static constexpr double kWgs84OneMinusE2 = 0.9933056200098587;  // 1 - e^2
    static constexpr double kWgs84B = 6356752.314245179;            // semi-minor axis b = (1 - f)a
    static constexpr double kWgs84AE2 = 42697.67270717997;          // a e^2
    static constexpr double kWgs84A2E2 = 272331606107.55472;        // a^2 e^2
    static constexpr double kHalfPi = 1.5707963267948966;
    static constexpr double kTwoPi = 6.283185307179586;

    CGeoCalc& operator=(const CGeoCalc&) { return *this; }
    CGeoCalc& operator=(CGeoCalc&&) noexcept { return *this; }

    // Latitude, longitude (radians) and height (metres) on the ellipsoid (a, f) become X, Y, Z
    // (metres), in place. If qxx is not null, the covariance it points to (six doubles, upper
    // triangle, north-east-up) is rotated into the Cartesian frame as by
    // TransformQxxGeodeticToXyz with the input latitude and longitude.
    static void GeodeticToXyz(double a, double f, double& latToX, double& lonToY, double& heightToZ,
                              double* qxx);
    // GeodeticToXyz on WGS84. Should the radius root be exactly 0, the arguments and the matrix
    // are left as they are.
    static void GeodeticToXyzWgs84(double& latToX, double& lonToY, double& heightToZ, double* qxx);
    // X, Y, Z (metres) become latitude in [-pi/2, pi/2], longitude in [-pi, pi] (not trimmed)
    // and height (metres) on the ellipsoid (a, f), in place. If qxx is not null, the
    // covariance it points to (six doubles, lower triangle, Cartesian) is rotated into the
    // local frame (north, east, up) as by TransformQxxXyzToGeodetic with the new latitude and
    // longitude.
    static void XyzToGeodetic(double a, double f, double& xToLat, double& yToLon, double& zToHeight,
                              double* qxx);
    // XyzToGeodetic on WGS84.
    static void XyzToGeodeticWgs84(double& xToLat, double& yToLon, double& zToHeight, double* qxx);

    // The Euclidean distance of two Cartesian points, in metres.
    static double Get3DDistanceCart(const double& x1, const double& y1, const double& z1,
                                    const double& x2, const double& y2, const double& z2);
    // The straight-line distance in metres of two geodetic points on WGS84; the arguments are
    // left as they are.
    static double Get3DDistanceWgs84(const double& lat1, const double& lon1, const double& h1,
                                     const double& lat2, const double& lon2, const double& h2);
    // The straight-line distance in metres of two geodetic points on (a, f). The six arguments
    // are converted in place and hold the Cartesian coordinates afterwards.
    static double SlopeDistance(double a, double f, double& lat1, double& lon1, double& h1,
                                double& lat2, double& lon2, double& h2);
    // SlopeDistance on WGS84, in place as well.
    static double SlopeDistanceWgs84(double& lat1, double& lon1, double& h1, double& lat2,
                                     double& lon2, double& h2);

    // Local residuals (metres; the first argument east, the second north) at latitude lat and
    // longitude lon become Cartesian residuals x, y, z: R^T (north, east, up).
    static void ResidualsGeodeticToXyz(double lat, double lon, double& eastToX, double& northToY,
                                       double& upToZ);
    // Cartesian residuals x, y, z (metres) become local ones: (north, east, up) = R (x, y, z),
    // stored as east, north, up.
    static void ResidualsXyzToGeodetic(double lat, double lon, double& xToEast, double& yToNorth,
                                       double& zToUp);

    // qxx (six doubles, upper triangle, north-east-up, square metres) becomes R^T Q R, the
    // covariance in the Cartesian frame, packed the same way.
    static void TransformQxxGeodeticToXyz(const double& lat, const double& lon, double* const qxx);
    // qxx (six doubles, lower triangle, Cartesian, square metres) becomes R Q R^T, the
    // covariance in the local frame north-east-up, packed the same way.
    static void TransformQxxXyzToGeodetic(const double& lat, const double& lon, double* const qxx);
};
