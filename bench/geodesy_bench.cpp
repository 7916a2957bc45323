// The geodetic conversions against GeographicLib's Geocentric over the same 1,000,000 random
// points, each iteration converting all of them.
#include <benchmark/benchmark.h>
#include <GeographicLib/Geocentric.hpp>

#include <numbers>
#include <random>
#include <vector>

#include "support/RatioReporter.h"
#include "tessel/positioning/GeoCalc.h"

namespace {

constexpr std::size_t kPoints = 1'000'000;

// The same points in radians (ours), degrees (GeographicLib's) and Cartesian.
struct Points {
    std::vector<double> latRad, lonRad, latDeg, lonDeg, h, x, y, z;

    Points() {
        std::mt19937_64 random(42);
        std::uniform_real_distribution<double> lat(-90.0, 90.0), lon(-180.0, 180.0),
            height(-500.0, 10000.0);
        const GeographicLib::Geocentric& earth = GeographicLib::Geocentric::WGS84();
        for (std::size_t i = 0; i < kPoints; ++i) {
            latDeg.push_back(lat(random));
            lonDeg.push_back(lon(random));
            h.push_back(height(random));
            latRad.push_back(latDeg.back() * std::numbers::pi / 180.0);
            lonRad.push_back(lonDeg.back() * std::numbers::pi / 180.0);
            double X, Y, Z;
            earth.Forward(latDeg.back(), lonDeg.back(), h.back(), X, Y, Z);
            x.push_back(X);
            y.push_back(Y);
            z.push_back(Z);
        }
    }
};

const Points& points() {
    static const Points p;
    return p;
}

// Converts all points (u[i], v[i], w[i]) with convert each iteration.
template <class Convert>
void ConvertAll(benchmark::State& state, const std::vector<double>& u, const std::vector<double>& v,
                const std::vector<double>& w, Convert convert) {
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            double a = u[i], b = v[i], c = w[i];
            convert(a, b, c);
            sum += a + b + c;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPoints));
}

const GeographicLib::Geocentric& earth = GeographicLib::Geocentric::WGS84();

void Baseline_GeographicLibForward(benchmark::State& state) {
    ConvertAll(
        state, points().latDeg, points().lonDeg, points().h,
        [](double& lat, double& lon, double& h) { earth.Forward(lat, lon, h, lat, lon, h); });
}
BENCHMARK(Baseline_GeographicLibForward)->Unit(benchmark::kMillisecond);

void GeodeticToXyzWgs84(benchmark::State& state) {
    ConvertAll(
        state, points().latRad, points().lonRad, points().h,
        [](double& x, double& y, double& z) { CGeoCalc::GeodeticToXyzWgs84(x, y, z, nullptr); });
}
BENCHMARK(GeodeticToXyzWgs84)->Unit(benchmark::kMillisecond);

void Baseline_GeographicLibReverse(benchmark::State& state) {
    ConvertAll(state, points().x, points().y, points().z,
               [](double& x, double& y, double& z) { earth.Reverse(x, y, z, x, y, z); });
}
BENCHMARK(Baseline_GeographicLibReverse)->Unit(benchmark::kMillisecond);

void XyzToGeodeticWgs84(benchmark::State& state) {
    ConvertAll(state, points().x, points().y, points().z, [](double& x, double& y, double& z) {
        CGeoCalc::XyzToGeodeticWgs84(x, y, z, nullptr);
    });
}
BENCHMARK(XyzToGeodeticWgs84)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return TesselBench::RunWithRatios(
        argc, argv,
        {
            {"GeodeticToXyzWgs84", "Baseline_GeographicLibForward", 1.0},
            {"XyzToGeodeticWgs84", "Baseline_GeographicLibReverse", 1.0},
        });
}
