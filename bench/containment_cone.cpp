// The narrowest cone containing n unit vectors drawn uniform in area from the
// cap of half-angle 30 degrees around a tilted axis, from a fixed seed. Each
// iteration builds the solver (a copy of the vectors) and solves, since
// solve() reorders its copy. Compare with BM_one_pass at the same n.
#include "metrofit/util/containment_cone.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

namespace {

constexpr double kPi = 3.14159265358979323846;

giUnitVec3coDynArr cap_directions(int n) {
    std::mt19937_64 engine(20240615);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const giUnitVec3 w(0.3, -0.4, 0.87);
    const giUnitVec3 u = w.any_normal();
    const giVector3 v = cross(w, u);
    const double zmin = std::cos(kPi / 6.0);
    giUnitVec3coDynArr dirs;
    dirs.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double z = zmin + (1.0 - zmin) * uniform(), phi = 2.0 * kPi * uniform();
        const double s = std::sqrt(1.0 - z * z);
        dirs.append(giUnitVec3(z * w + (s * std::cos(phi)) * u + (s * std::sin(phi)) * v));
    }
    return dirs;
}

void BM_tsContainmentCone(benchmark::State& state) {
    const giUnitVec3coDynArr dirs = cap_directions(static_cast<int>(state.range(0)));
    giUnitVec3 axis;
    giAngle half_angle;
    for (auto _ : state) {
        tsContainmentCone cone(dirs);
        benchmark::DoNotOptimize(cone.solve(axis, half_angle));
        benchmark::DoNotOptimize(half_angle);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsContainmentCone)->Arg(1000)->Arg(100000);
