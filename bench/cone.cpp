// Cone fits on n points of a frustum (half angle 30 degrees, slant lengths
// 20 to 80 from the apex, apex 50 above the shared centre, axis tilted by 30
// degrees) with normal noise of 0.01 along the surface normal, from a fixed
// seed. Compare each time with BM_one_pass at the same n.
//
// - BM_tsCalculateLeastSquareCone: the full search (no normals, no nominal
//   axis);
// - BM_tsCalculateLeastSquareCone_update: update mode, the last 5 of the n
//   points new, the previous cone fitted to the first n - 5;
// - BM_tsCalculateLeastSquareProbedCone: the full search on ball centres of
//   a probe of radius 2 that touched the surface from outside, the guess
//   points being the ball centres themselves;
// - BM_evaluate_multiple_cones: one cone wanted, the true axis given.
#include "metrofit/features/cone.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"
#include "metrofit/features/probed_cone.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;
constexpr double kHalfAngle = kPi / 6.0;

giUnitVec3 bench_axis() {  // towards the apex
    const double a = kPi / 6.0;
    return giUnitVec3(std::sin(a), 0.0, std::cos(a));
}

giPoint3coDynArr frustum(int n, double offset = 0.0) {
    std::mt19937_64 engine(20240615);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const giUnitVec3 w = bench_axis();
    const giUnitVec3 u = w.any_normal();
    const giUnitVec3 v(cross(w, u));
    const giPoint3 apex = giPoint3(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z) + 50.0 * w;
    const double sa = std::sin(kHalfAngle), ca = std::cos(kHalfAngle);
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * uniform(), s = 20.0 + 60.0 * uniform();
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double e =
            offset + kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
        const giVector3 radial = std::cos(t) * u + std::sin(t) * v;
        // Along the generating line from the apex, then along the normal.
        points.append(apex + (s * sa) * radial - (s * ca) * w + e * (ca * radial + sa * w));
    }
    return points;
}

const giUnitVec3coDynArr kNoNormals;

void BM_tsCalculateLeastSquareCone(benchmark::State& state) {
    const giPoint3coDynArr points = frustum(static_cast<int>(state.range(0)));
    giPoint3 apex;
    giUnitVec3 axis;
    double half_angle = 0.0, deviation = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsCalculateLeastSquareCone(points, apex, axis, half_angle,
                                                            deviation, giUnitVec3(),
                                                            giAngle(1, 10.0), kNoNormals, 0));
    }
}

void BM_tsCalculateLeastSquareCone_update(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint3coDynArr points = frustum(n);
    giPoint3coDynArr old;
    for (int i = 0; i < n - 5; ++i) old.append(points[i]);
    giPoint3 apex0;
    giUnitVec3 axis0;
    double half_angle0 = 0.0, deviation = 0.0;
    tsCalculateLeastSquareCone(old, apex0, axis0, half_angle0, deviation, giUnitVec3(),
                               giAngle(1, 10.0), kNoNormals, 0);
    for (auto _ : state) {
        giPoint3 apex = apex0;
        giUnitVec3 axis = axis0;
        double half_angle = half_angle0;
        benchmark::DoNotOptimize(tsCalculateLeastSquareCone(points, apex, axis, half_angle,
                                                            deviation, giUnitVec3(),
                                                            giAngle(1, 10.0), kNoNormals, 5));
    }
}

void BM_tsCalculateLeastSquareProbedCone(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint3coDynArr points = frustum(n, 2.0);
    doublecoDynArr radii;
    for (int i = 0; i < n; ++i) radii.append(2.0);
    giPoint3 apex;
    giUnitVec3 axis;
    double half_angle = 0.0, deviation = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsCalculateLeastSquareProbedCone(
            points, radii, 0, points, apex, axis, half_angle, deviation, giUnitVec3(),
            giAngle(1, 10.0), kNoNormals, 0));
    }
}

void BM_evaluate_multiple_cones(benchmark::State& state) {
    const giPoint3coDynArr points = frustum(static_cast<int>(state.range(0)));
    const giUnitVec3coDynArr directions = {bench_axis()};
    for (auto _ : state) {
        tsFittedConecoDynArr results;
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_multiple_cones(
            points, directions, 0.1, giAngle(1, 1.0), 1, results));
    }
}

}  // namespace

BENCHMARK(BM_tsCalculateLeastSquareCone)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsCalculateLeastSquareCone_update)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsCalculateLeastSquareProbedCone)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_multiple_cones)->Arg(100)->Arg(1000)->Arg(10000);
