// The surface bestfit with a scale on a meshed part: n points on a finely
// tessellated ellipsoid (semi-axes 50, 35 and 20; 256 x 128 quads, about
// 65000 facets), moved by a small known motion and a scale of 1.002 about
// the origin, and fitted back to a tolerance of 1e-6.
#include "metrofit/bestfit/scaled_bestfit.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "ellipsoid_part.h"

namespace {

void BM_tsScaledSurfaceBestfit_fit(benchmark::State& state) {
    const bench::Ellipsoid& e = bench::ellipsoid();
    const int n = static_cast<int>(state.range(0));
    // measured = motion * nominal, the inverse of what the fit recovers.
    const double s = 1.0 / 1.002;
    const giXform3 motion =
        giXform3(giVector3(0.05, -0.03, 0.02)) *
        giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.3)) *
        giXform3::scaling(s, s, s);
    std::vector<tsFitPoint3coPrf> points;
    bench::sample_ellipsoid(n, [&](const giPoint3& q, const giUnitVec3& nu, std::mt19937_64&) {
        points.push_back(tsFitPoint3coPrf(new tsProbedPoint3(motion * q, motion * nu, 0.0)));
    });
    const tsSurfProjectorForFitting3 projector(&e.mesh);
    double scale = 0.0;
    int status = 0;
    for (auto _ : state) {
        tsScaledSurfaceBestfit fit;
        fit.set_projector(&projector);
        fit.reserve_points(n);
        for (const tsFitPoint3coPrf& p : points) fit.add_point(p);
        giXform3 T;
        status = fit.fit(1e-6, T, scale);
        benchmark::DoNotOptimize(T);
    }
    if (status <= 0 || !(std::fabs(scale - 1.002) < 1e-6))
        state.SkipWithError("the fit did not recover the scale");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsScaledSurfaceBestfit_fit)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
