// Cylinder fits on n points of the whole surface of a cylinder (radius 50,
// length 100, axis through the shared centre tilted by 30 degrees) with
// normal radial noise of 0.01, from a fixed seed. Compare each time with
// BM_one_pass at the same n.
//
// - BM_tsCalculateLeastSquareCylinder: the full search (no normals, no
//   nominal axis);
// - BM_tsCalculateLeastSquareCylinder_update: update mode, the last 5 of the
//   n points new, the previous cylinder fitted to the first n - 5;
// - BM_tsCylinder_InitialSolution: the direction search alone, the first of
//   the full search's starts;
// - BM_tsCalculateLeastSquareProbedCylinder: the full search on ball centres
//   of a probe of radius 2 that touched the surface from outside;
// - BM_evaluate_multiple_cylinders: one cylinder wanted, the true axis given.
#include "metrofit/features/cylinder.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

#include "bench_points.h"
#include "metrofit/features/probed_cylinder.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNoise = 0.01;
constexpr double kLength = 100.0;

giUnitVec3 bench_axis() {
    const double a = kPi / 6.0;
    return giUnitVec3(std::sin(a), 0.0, std::cos(a));
}

giPoint3coDynArr cylinder(int n, double extra_radius = 0.0) {
    std::mt19937_64 engine(20240614);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const giUnitVec3 w = bench_axis();
    const giUnitVec3 u = w.any_normal();
    const giUnitVec3 v(cross(w, u));
    const giPoint3 c(bench::kCentre.x, bench::kCentre.y, bench::kCentre.z);
    giPoint3coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double t = 2.0 * kPi * uniform(), h = kLength * (uniform() - 0.5);
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double r = bench::kRadius + extra_radius +
                         kNoise * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * kPi * u2);
        points.append(c + (r * std::cos(t)) * u + (r * std::sin(t)) * v + h * w);
    }
    return points;
}

const giUnitVec3coDynArr kNoNormals;

void BM_tsCalculateLeastSquareCylinder(benchmark::State& state) {
    const giPoint3coDynArr points = cylinder(static_cast<int>(state.range(0)));
    giPoint3 point;
    giUnitVec3 axis;
    double radius = 0.0, deviation = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tsCalculateLeastSquareCylinder(
            points, point, axis, radius, deviation, giUnitVec3(), giAngle(1, 10.0), kNoNormals, 0));
    }
}

void BM_tsCalculateLeastSquareCylinder_update(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint3coDynArr points = cylinder(n);
    giPoint3coDynArr old;
    for (int i = 0; i < n - 5; ++i) old.append(points[i]);
    giPoint3 point0;
    giUnitVec3 axis0;
    double radius0 = 0.0, deviation = 0.0;
    tsCalculateLeastSquareCylinder(old, point0, axis0, radius0, deviation, giUnitVec3(),
                                   giAngle(1, 10.0), kNoNormals, 0);
    for (auto _ : state) {
        giPoint3 point = point0;
        giUnitVec3 axis = axis0;
        double radius = radius0;
        benchmark::DoNotOptimize(tsCalculateLeastSquareCylinder(
            points, point, axis, radius, deviation, giUnitVec3(), giAngle(1, 10.0), kNoNormals, 5));
    }
}

void BM_tsCylinder_InitialSolution(benchmark::State& state) {
    const giPoint3coDynArr points = cylinder(static_cast<int>(state.range(0)));
    giVector3 direction;
    for (auto _ : state) benchmark::DoNotOptimize(tsCylinder_InitialSolution(points, direction));
}

void BM_tsCalculateLeastSquareProbedCylinder(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    const giPoint3coDynArr points = cylinder(n, 2.0);
    doublecoDynArr radii;
    for (int i = 0; i < n; ++i) radii.append(2.0);
    giPoint3 point;
    giUnitVec3 axis;
    double radius = 0.0, deviation = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            tsCalculateLeastSquareProbedCylinder(points, radii, 0, point, axis, radius, deviation,
                                                 giUnitVec3(), giAngle(1, 10.0), kNoNormals, 0));
    }
}

void BM_evaluate_multiple_cylinders(benchmark::State& state) {
    const giPoint3coDynArr points = cylinder(static_cast<int>(state.range(0)));
    const giUnitVec3coDynArr directions = {bench_axis()};
    for (auto _ : state) {
        tsFittedCylindercoDynArr results;
        benchmark::DoNotOptimize(tsLeastSquareEvaluator::evaluate_multiple_cylinders(
            points, directions, 0.1, giAngle(1, 1.0), 1, results));
    }
}

}  // namespace

BENCHMARK(BM_tsCalculateLeastSquareCylinder)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsCalculateLeastSquareCylinder_update)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsCylinder_InitialSolution)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_tsCalculateLeastSquareProbedCylinder)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_multiple_cylinders)->Arg(100)->Arg(1000)->Arg(10000);
