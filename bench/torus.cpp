// Torus fits on n points of the whole surface of a torus (centre-circle
// radius 50, tube radius 10, centre at the shared centre, axis tilted by 30
// degrees) with normal noise of 0.01 along the surface normal, from a fixed
// seed. Compare each time with BM_one_pass at the same n.
//
// - BM_evaluate_torus: the full search of start values;
// - BM_evaluate_torus_with_guess: one refinement from a guess 1 off in the
//   centre, 1 degree off in the axis, 1 off in both radii;
// - BM_evaluate_probed_torus: the full search on ball centres of a probe of
//   radius 2 that touched the surface from outside.
#include "metrofit/features/torus.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;
constexpr double kMajor = bench::kRadius;
constexpr double kMinor = 10.0;

giUnitVec3 bench_axis() {
    const double a = kPi / 6.0;
    return giUnitVec3(std::sin(a), 0.0, std::cos(a));
}

giPoint3 bench_centre() { return giPoint3(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z); }

giPoint3coDynArr torus(int n, double extra_radius = 0.0) {
    std::mt19937_64 engine(20240617);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const giUnitVec3 w = bench_axis();
    const giUnitVec3 u = w.any_normal();
    const giUnitVec3 v(cross(w, u));
    const giPoint3 c = bench_centre();
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * uniform(), f = 2.0 * kPi * uniform();
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double r = kMinor + extra_radius +
                         kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
        const double rho = kMajor + r * std::cos(f);
        points.append(c + (rho * std::cos(t)) * u + (rho * std::sin(t)) * v +
                      (r * std::sin(f)) * w);
    }
    return points;
}

void BM_evaluate_torus(benchmark::State& state) {
    const giPoint3coDynArr points = torus(static_cast<int>(state.range(0)));
    giPoint3 centre;
    giUnitVec3 axis;
    double major = 0.0, minor = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tsLeastSquareEvaluator::evaluate_torus(points, centre, axis, major, minor, error));
    }
}

void BM_evaluate_torus_with_guess(benchmark::State& state) {
    const giPoint3coDynArr points = torus(static_cast<int>(state.range(0)));
    const giPoint3 centre0 = bench_centre() + giVector3(1.0, 0.0, 0.0);
    const double a = kPi / 6.0 + kPi / 180.0;
    const giUnitVec3 axis0(std::sin(a), 0.0, std::cos(a));
    double error = 0.0;
    for (auto _ : state) {
        giPoint3 centre = centre0;
        giUnitVec3 axis = axis0;
        double major = kMajor + 1.0, minor = kMinor - 1.0;
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_torus_with_guess(
            points, centre, axis, major, minor, error));
    }
}

void BM_evaluate_probed_torus(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint3coDynArr points = torus(n, 2.0);
    doublecoDynArr radii;
    for (int i = 0; i < n; ++i) radii.append(2.0);
    giPoint3 centre;
    giUnitVec3 axis;
    double major = 0.0, minor = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_probed_torus(
            points, radii, 0, centre, axis, major, minor, error));
    }
}

}  // namespace

BENCHMARK(BM_evaluate_torus)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_torus_with_guess)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_probed_torus)->Arg(100)->Arg(1000)->Arg(10000);
