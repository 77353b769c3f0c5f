// Circle fits: the least-squares entry points and the direct fits, on n points
// of a full circle (radius 50, centred as the shared sphere patch) with
// normal noise of 0.01, from a fixed seed. The planar sets lie in z = 0;
// the spatial ones in a plane tilted by 30 degrees about x and y, the noise
// also along the normal. Compare each time with BM_one_pass at the same n.
#include "metrofit/features/circle.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"
#include "metrofit/features/direct_circle.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;

class Noise {
   public:
    explicit Noise(std::uint64_t seed) : engine_(seed) {}
    double uniform() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }
    // Box-Muller, sigma kNoise.
    double normal() {
        const double u1 = 1.0 - uniform(), u2 = uniform();
        return kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
    }

   private:
    std::mt19937_64 engine_;
};

giPoint2coDynArr circle2(int n, double extra_radius = 0.0) {
    Noise noise(20240612);
    giPoint2coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * noise.uniform();
        const double r = bench::kRadius + extra_radius + noise.normal();
        points.append(
            giPoint2(bench::kCentre.x + r * std::cos(t), bench::kCentre.y + r * std::sin(t)));
    }
    return points;
}

// The tilted plane: normal (sin a, -sin a cos a, cos^2 a) for a = 30 degrees,
// i.e. z turned about x and then about y.
struct Tilted {
    giUnitVec3 u, v, n;
};
Tilted tilted() {
    const double a = kPi / 6.0, c = std::cos(a), s = std::sin(a);
    const giUnitVec3 u(c, 0.0, -s);
    const giUnitVec3 v(s * s, c, s * c);
    return {u, v, giUnitVec3(cross(u, v))};
}

giPoint3coDynArr circle3(int n) {
    Noise noise(20240613);
    const Tilted f = tilted();
    const giPoint3 c(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * noise.uniform();
        const double r = bench::kRadius + noise.normal(), h = noise.normal();
        points.append(c + (r * std::cos(t)) * f.u + (r * std::sin(t)) * f.v + h * f.n);
    }
    return points;
}

void BM_evaluate_circle(benchmark::State& state) {
    const giPoint2coDynArr points = circle2(static_cast<int>(state.range(0)));
    giPoint2 centre;
    double radius = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tsLeastSquareEvaluator::evaluate_circle(points, centre, radius, error));
    }
}

void BM_evaluate_circle2(benchmark::State& state) {
    const giPoint3coDynArr points = circle3(static_cast<int>(state.range(0)));
    const giPoint3 plane_point(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    const giUnitVec3 normal = tilted().n;
    giPoint3 centre;
    double radius = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_circle2(
            plane_point, normal, points, centre, radius, error));
    }
}

void BM_evaluate_circle3(benchmark::State& state) {
    const giPoint3coDynArr points = circle3(static_cast<int>(state.range(0)));
    giPoint3 centre;
    giUnitVec3 normal;
    double radius = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tsLeastSquareEvaluator::evaluate_circle3(points, centre, normal, radius, error));
    }
}

// Ball centres of a probe of radius 2 that touched the circle from outside.
void BM_evaluate_probed_circle(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint2coDynArr points = circle2(n, 2.0);
    doublecoDynArr radii;
    for (int i = 0; i < n; ++i) radii.append(2.0);
    giPoint2 centre;
    double radius = 0.0, error = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_probed_circle(
            points, radii, 0, centre, radius, error));
    }
}

void BM_tsDirectCircle2(benchmark::State& state) {
    const giPoint2coDynArr points = circle2(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const tsDirectCircle2 fit(points);
        benchmark::DoNotOptimize(fit.radius());
    }
}

void BM_tsDirectCircle3(benchmark::State& state) {
    const giPoint3coDynArr points = circle3(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const tsDirectCircle3 fit(points);
        benchmark::DoNotOptimize(fit.radius());
    }
}

}  // namespace

BENCHMARK(BM_evaluate_circle)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_circle2)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_circle3)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_probed_circle)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsDirectCircle2)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsDirectCircle3)->Arg(100)->Arg(1000)->Arg(10000);
