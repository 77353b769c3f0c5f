// Axis-of-revolution fit on n points of a turned profile, radius
// r(h) = 10 + 2 sin(h / 5) for heights h in [0, 40] around an axis through
// the shared centre tilted by 30 degrees, with their exact unit normals,
// each point moved along its normal by normal noise of 0.01 (so the normal
// lines still meet the axis), from a fixed seed. The search over the guess
// directions runs with an unset start axis. Compare each time with
// BM_one_pass at the same n.
#include "metrofit/features/axis_rev.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>

#include "bench_points.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

void turned_profile(int n, giPoint3coDynArr& points, giUnitVec3coDynArr& normals) {
    std::mt19937_64 engine(20240615);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const giUnitVec3 w(std::sin(kPi / 6.0), 0.0, std::cos(kPi / 6.0));
    const giUnitVec3 u = w.any_normal();
    const giUnitVec3 v(cross(w, u));
    const giPoint3 c(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    points.reserve(n);
    normals.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * uniform(), h = 40.0 * uniform();
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double noise = 0.01 * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
        const double slope = 0.4 * std::cos(h / 5.0);
        const giVector3 radial = std::cos(t) * u + std::sin(t) * v;
        const giUnitVec3 normal(radial - slope * w);
        points.append(c + (10.0 + 2.0 * std::sin(h / 5.0)) * radial + h * w + noise * normal);
        normals.append(normal);
    }
}

void BM_evaluate_axis_rev(benchmark::State& state) {
    giPoint3coDynArr points;
    giUnitVec3coDynArr normals;
    turned_profile(static_cast<int>(state.range(0)), points, normals);
    for (auto _ : state) {
        giPoint3 point;
        giUnitVec3 axis;
        double error = 0.0;
        benchmark::DoNotOptimize(
            tsLeastSquareEvaluator::evaluate_axis_rev(points, normals, point, axis, error));
    }
}

}  // namespace

BENCHMARK(BM_evaluate_axis_rev)->Arg(100)->Arg(1000)->Arg(10000);
