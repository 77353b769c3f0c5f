// The baseline of every speed target: one loop over n points computing each
// point's distance from a fixed point, the cheapest pass a fit can make.
#include <benchmark/benchmark.h>

#include <cmath>

#include "bench_points.h"

namespace {

void BM_one_pass(benchmark::State& state) {
    const auto points = bench::sphere_patch(static_cast<int>(state.range(0)));
    const bench::Point c = bench::kCentre;
    for (auto _ : state) {
        double sum = 0.0;
        for (const bench::Point& p : points) {
            const double dx = p.x - c.x, dy = p.y - c.y, dz = p.z - c.z;
            sum += std::sqrt(dx * dx + dy * dy + dz * dz);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_one_pass)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
