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

void Baseline_GeographicLibForward(benchmark::State& state) {
    const Points& p = points();
    const GeographicLib::Geocentric& earth = GeographicLib::Geocentric::WGS84();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            double X, Y, Z;
            earth.Forward(p.latDeg[i], p.lonDeg[i], p.h[i], X, Y, Z);
            sum += X + Y + Z;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPoints));
}
BENCHMARK(Baseline_GeographicLibForward)->Unit(benchmark::kMillisecond);

void GeodeticToXyzWgs84(benchmark::State& state) {
    const Points& p = points();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            double x = p.latRad[i], y = p.lonRad[i], z = p.h[i];
            CGeoCalc::GeodeticToXyzWgs84(x, y, z, nullptr);
            sum += x + y + z;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPoints));
}
BENCHMARK(GeodeticToXyzWgs84)->Unit(benchmark::kMillisecond);

void Baseline_GeographicLibReverse(benchmark::State& state) {
    const Points& p = points();
    const GeographicLib::Geocentric& earth = GeographicLib::Geocentric::WGS84();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            double lat, lon, h;
            earth.Reverse(p.x[i], p.y[i], p.z[i], lat, lon, h);
            sum += lat + lon + h;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPoints));
}
BENCHMARK(Baseline_GeographicLibReverse)->Unit(benchmark::kMillisecond);

void XyzToGeodeticWgs84(benchmark::State& state) {
    const Points& p = points();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t i = 0; i < kPoints; ++i) {
            double lat = p.x[i], lon = p.y[i], h = p.z[i];
            CGeoCalc::XyzToGeodeticWgs84(lat, lon, h, nullptr);
            sum += lat + lon + h;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPoints));
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
