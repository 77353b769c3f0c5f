// The maximin fit on a meshed part: n probe-ball centres (radius 0.5) on a
// raw shell 1 to 1.5 outside a finely tessellated ellipsoid (semi-axes 50,
// 35 and 20; 256 x 128 quads, about 65000 facets), moved by a small known
// motion and fitted to a tolerance of 1e-6. The margin found must be at
// least the shell's smallest stock, 1.
#include "metrofit/bestfit/surface_maximin.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ellipsoid_part.h"

namespace {

// Fits the points again and again and records the margin, the steps and the
// levels; a margin below `least` marks the run as failed.
void run_maximin(benchmark::State& state, const tsSurfProjectorForFitting3& projector,
                 const std::vector<tsFitPoint3coPrf>& points, double least) {
    double margin = 0.0;
    int status = 0, iterations = 0, levels = 0;
    for (auto _ : state) {
        tsSurfaceMaximin fit;
        fit.set_projector(&projector);
        fit.reserve_points(static_cast<int>(points.size()));
        for (const tsFitPoint3coPrf& p : points) fit.add_point(p);
        giXform3 T;
        intcoDynArr holding;
        int unprojected = 0;
        status = fit.fit(1e-6, T, margin, holding, unprojected);
        iterations = fit.iterations();
        levels = fit.levels().size();
        benchmark::DoNotOptimize(T);
    }
    if (status <= 0 || !(margin >= least)) state.SkipWithError("the fit lost stock");
    state.counters["margin"] = margin;
    state.counters["iterations"] = iterations;
    state.counters["levels"] = levels;
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_tsSurfaceMaximin_fit(benchmark::State& state) {
    const bench::Ellipsoid& e = bench::ellipsoid();
    const int n = static_cast<int>(state.range(0));
    const giXform3 motion =
        giXform3(giVector3(0.05, -0.03, 0.02)) *
        giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.3));
    std::vector<tsFitPoint3coPrf> points;
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    bench::sample_ellipsoid(
        n, [&](const giPoint3& q, const giUnitVec3& nu, std::mt19937_64& engine) {
            const double stock = 1.0 + 0.5 * unit(engine);
            points.push_back(tsFitPoint3coPrf(
                new tsProbedPoint3(motion * (q + nu * (0.5 + stock)), motion * nu, 0.5)));
        });
    const tsSurfProjectorForFitting3 projector(&e.mesh);
    run_maximin(state, projector, points, 1.0 - 1e-6);
}

}  // namespace

BENCHMARK(BM_tsSurfaceMaximin_fit)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

namespace {

// A raw block on a 100 x 80 x 60 box of 12 facets: n probe-ball centres
// (radius 0.5) spread over the six faces, whose stock is 1.5 and 3 across x,
// 0.5 and 1.5 across y (the margin, 1) and 2 and 4 across z, with noise of
// 0.01, moved slightly. The margin leaves the shifts along x and z free:
// evening runs two more stages.
void BM_tsSurfaceMaximin_fit_block(benchmark::State& state) {
    giPoint3coDynArr v;
    for (int k = 0; k < 8; ++k) v.append(giPoint3(k & 1 ? 100 : 0, k & 2 ? 80 : 0, k & 4 ? 60 : 0));
    const intcoDynArr facets = {0, 2, 1, 1, 2, 3, 4, 5, 6, 5, 7, 6, 0, 1, 4, 1, 5, 4,
                                2, 6, 3, 3, 6, 7, 0, 4, 2, 2, 4, 6, 1, 3, 5, 3, 7, 5};
    std::string error;
    srkMeshSurf box;
    box.set(v, facets, error);
    const int n = static_cast<int>(state.range(0));
    const giXform3 motion =
        giXform3(giVector3(0.3, -0.2, 0.1)) *
        giXform3::rotation(giPoint3(50, 40, 30), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.2));
    const double size[3] = {100, 80, 60}, stock[6] = {1.5, 3, 0.5, 1.5, 2, 4};
    std::mt19937_64 engine(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, 0.01);
    std::vector<tsFitPoint3coPrf> points;
    for (int i = 0; i < n; ++i) {
        const int f = i % 6, axis = f / 2;
        double c[3];
        for (int j = 0; j < 3; ++j) c[j] = size[j] * (0.05 + 0.9 * unit(engine));
        const double out = stock[f] + noise(engine) + 0.5;
        c[axis] = f % 2 ? size[axis] + out : -out;
        const giVector3 nu(axis == 0 ? (f % 2 ? 1 : -1) : 0, axis == 1 ? (f % 2 ? 1 : -1) : 0,
                           axis == 2 ? (f % 2 ? 1 : -1) : 0);
        points.push_back(tsFitPoint3coPrf(
            new tsProbedPoint3(motion * giPoint3(c[0], c[1], c[2]), giUnitVec3(motion * nu), 0.5)));
    }
    const tsSurfProjectorForFitting3 projector(&box);
    run_maximin(state, projector, points, 0.9);
}

}  // namespace

BENCHMARK(BM_tsSurfaceMaximin_fit_block)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
