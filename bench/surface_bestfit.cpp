// The surface bestfit on a meshed part: n probe-ball centres (radius 0.5) on
// a finely tessellated ellipsoid (semi-axes 50, 35 and 20, so that no turn
// leaves it in place; 256 x 128 quads, about 65000 facets), moved by a small
// known motion and fitted back to a tolerance of 1e-6.
#include "metrofit/bestfit/surface_bestfit.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ellipsoid_part.h"

namespace {

void BM_tsSurfaceBestfit_fit(benchmark::State& state) {
    const bench::Ellipsoid& e = bench::ellipsoid();
    const int n = static_cast<int>(state.range(0));
    const giXform3 motion =
        giXform3(giVector3(0.05, -0.03, 0.02)) *
        giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.3));
    // Ball centres above uniformly drawn points of random facets (facets of
    // the pole rows have no area: drawn again).
    std::vector<tsFitPoint3coPrf> points;
    bench::sample_ellipsoid(n, [&](const giPoint3& q, const giUnitVec3& nu, std::mt19937_64&) {
        points.push_back(
            tsFitPoint3coPrf(new tsProbedPoint3(motion * (q + nu * 0.5), motion * nu, 0.5)));
    });
    const tsSurfProjectorForFitting3 projector(&e.mesh);
    double max_distance = 0.0;
    for (auto _ : state) {
        tsSurfaceBestfit fit;
        fit.set_projector(&projector);
        fit.reserve_points(n);
        for (const tsFitPoint3coPrf& p : points) fit.add_point(p);
        giXform3 T;
        double max_signed = 0.0, min_signed = 0.0;
        int unprojected = 0;
        fit.fit(1e-6, T, max_distance, max_signed, min_signed, unprojected);
        benchmark::DoNotOptimize(T);
    }
    if (!(max_distance < 1e-4)) state.SkipWithError("the fit did not recover the motion");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsSurfaceBestfit_fit)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
