// Planar hull and point-in-polygon on seeded random data. Compare each time
// with BM_one_pass at the same n.
//
// - BM_ts_calculate_convex_hull: the index form on n points uniform in the
//   unit disc (expected O(n log n): the angular sort dominates);
// - BM_ts_relative_position: one query point against a star-shaped polygon
//   of n vertices (radii 0.5 .. 1 at evenly spread angles), cycling through
//   64 query points in the unit square (O(n)).
#include "metrofit/util/convex_hull.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <random>

namespace {

constexpr double kPi = 3.14159265358979323846;

class Uniform {
   public:
    explicit Uniform(std::uint64_t seed) : engine_(seed) {}
    double operator()() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }

   private:
    std::mt19937_64 engine_;
};

// n points at distance r from the origin: uniform in the unit disc, or
// (star) the vertices of a star-shaped polygon with r in 0.5 .. 1 at evenly
// spread angles.
giPoint2coDynArr polar_points(int n, std::uint64_t seed, bool star) {
    Uniform uniform(seed);
    giPoint2coDynArr points;
    points.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double r = star ? 0.5 + 0.5 * uniform() : std::sqrt(uniform());
        const double a = 2.0 * kPi * (star ? static_cast<double>(i) / n : uniform());
        points.append(giPoint2(r * std::cos(a), r * std::sin(a)));
    }
    return points;
}

void BM_ts_calculate_convex_hull(benchmark::State& state) {
    const giPoint2coDynArr points = polar_points(static_cast<int>(state.range(0)), 20240620, false);
    for (auto _ : state) {
        intcoDynArr hull;
        benchmark::DoNotOptimize(ts_calculate_convex_hull(points, hull));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ts_relative_position(benchmark::State& state) {
    const giPoint2coDynArr polygon = polar_points(static_cast<int>(state.range(0)), 20240621, true);
    Uniform uniform(20240622);
    giPoint2coDynArr queries;
    for (int i = 0; i < 64; ++i) queries.append(giPoint2(2 * uniform() - 1, 2 * uniform() - 1));
    int q = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ts_relative_position(queries[q], polygon));
        q = (q + 1) & 63;
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_ts_calculate_convex_hull)->Arg(1000)->Arg(100000);
BENCHMARK(BM_ts_relative_position)->Arg(1000)->Arg(100000);
