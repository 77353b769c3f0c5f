// Points-to-planes alignment of a block-like part: n entries spread in turn
// over five faces of the box [0, 100] x [0, 60] x [0, 40] (bottom, two sides,
// two ends; outward unit normals), each nominal point uniform on its face,
// the measured point moved away by the inverse of a known motion (10 degrees
// about a skew axis through the origin, then a shift of length 20) and by
// normal noise of 0.001 along the face normal, from a fixed seed. The
// problem is loaded once, outside the timed loop:
//
// - BM_tsPointsToPlanes_fit: the direct fit from scratch at the tool's
//   default tolerance 1e-9, which the noise keeps the fit above, so every
//   start of the multi-start search runs;
// - BM_tsPointsToPlanes_single_linear_step: one free linear step (normal
//   equations, solution and line search) from the measured pose.
//
// Compare each time with BM_one_pass at the same n.
#include <benchmark/benchmark.h>

#include <cfloat>
#include <cmath>
#include <random>

#include "metrofit/alignment/points_to_planes.h"

namespace {

void load_block(int n, tsPointsToPlanes& problem) {
    std::mt19937_64 engine(20240701);
    const auto uniform = [&engine] { return static_cast<double>(engine() >> 11) * 0x1.0p-53; };
    const double pi = 3.14159265358979323846;
    const giXform3 motion =
        giXform3::translation(giVector3(12.0, -16.0, 0.0)) *
        giXform3::rotation(giPoint3(0.0, 0.0, 0.0), giVector3(1.0, 2.0, 2.0), giAngle(1, 10.0));
    const giXform3 back = motion.inverse();
    // Face: the coordinate it fixes, at the low (0) or high (1) end.
    const int axes[5] = {2, 1, 1, 0, 0}, ends[5] = {0, 0, 1, 0, 1};
    const double size[3] = {100.0, 60.0, 40.0};
    problem.reserve_bestfit(n);
    for (int i = 0; i < n; ++i) {
        const int axis = axes[i % 5], end = ends[i % 5];
        double q[3], normal[3] = {0.0, 0.0, 0.0};
        for (int k = 0; k < 3; ++k) q[k] = size[k] * uniform();
        q[axis] = end * size[axis];
        normal[axis] = end ? 1.0 : -1.0;
        const double u1 = 1.0 - uniform(), u2 = uniform();
        const double noise = 0.001 * std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * pi * u2);
        const giVector3 n(normal[0], normal[1], normal[2]);
        const giPoint3 nominal(q[0], q[1], q[2]);
        problem.add_bestfit(back * (nominal + noise * n), nominal, n, -DBL_MAX, DBL_MAX, 1.0);
    }
}

void BM_tsPointsToPlanes_fit(benchmark::State& state) {
    tsPointsToPlanes problem;
    load_block(static_cast<int>(state.range(0)), problem);
    for (auto _ : state) {
        giXform3 xform;
        double max_deviation = 0.0;
        benchmark::DoNotOptimize(problem.fit(xform, 1e-9, &max_deviation));
        benchmark::DoNotOptimize(xform);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_tsPointsToPlanes_single_linear_step(benchmark::State& state) {
    tsPointsToPlanes problem;
    load_block(static_cast<int>(state.range(0)), problem);
    for (auto _ : state) {
        giXform3 xform;
        benchmark::DoNotOptimize(problem.single_linear_step(xform));
        benchmark::DoNotOptimize(xform);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsPointsToPlanes_fit)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BM_tsPointsToPlanes_single_linear_step)->Arg(10)->Arg(100)->Arg(1000);
