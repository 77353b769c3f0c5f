// The 2D curve bestfit on a cam profile (two flats, a nose of radius 10 and
// a wide arc): n probe-ball centres (radius 1) moved by 2 degrees and
// (0.5, -0.3), fitted back to a tolerance of 1e-9.
#include "metrofit/bestfit/curve_bestfit2.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

void BM_tsCurveBestfit2_fit(benchmark::State& state) {
    tsCurve2 cam;
    std::string error;
    tsCurve2::parse("line 0 0 50 0\narc 50 0 60 10 50 20\nline 50 20 20 25\narc 20 25 3 18 0 0\n",
                    cam, error);
    const int n = static_cast<int>(state.range(0));
    const giXform2 motion = giXform2(giVector2(0.5, -0.3)) *
                            giXform2::rotation(giPoint2(0, 0), giAngle(giANGLE_DEGREES, 2.0));
    std::vector<tsFitPoint2coPrf> points;
    for (int k = 0; k < n; ++k) {
        const tsCurveElement2& e = cam.element(k % cam.size());
        const double t = (k / cam.size() + 0.5) / ((n + cam.size() - 1) / cam.size());
        giPoint2 q;
        giVector2 outside;
        if (e.type == tsCURVE_LINE2) {
            const giVector2 d = e.end - e.start;
            q = e.start + d * t;
            outside = giVector2(d.y(), -d.x()) / d.length();
        } else {
            const giVector2 s = e.start - e.centre;
            const double a = std::atan2(s.y(), s.x()) + t * e.sweep;
            const giVector2 r(std::cos(a), std::sin(a));
            q = e.centre + r * e.radius;
            outside = e.sweep > 0 ? r : r * -1.0;
        }
        points.push_back(tsFitPoint2coPrf(
            new tsProbedPoint2(motion * (q + outside), giUnitVec2(motion * outside), 1.0)));
    }
    const tsCurveProjectorForFitting2 projector(&cam);
    double max_distance = 0.0;
    for (auto _ : state) {
        tsCurveBestfit2 fit;
        fit.set_projector(&projector);
        fit.reserve_points(n);
        for (const tsFitPoint2coPrf& p : points) fit.add_point(p);
        giXform2 T;
        double max_signed = 0.0, min_signed = 0.0;
        int unprojected = 0;
        fit.fit(1e-9, T, max_distance, max_signed, min_signed, unprojected);
        benchmark::DoNotOptimize(T);
    }
    if (!(max_distance < 1e-6)) state.SkipWithError("the fit did not recover the motion");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsCurveBestfit2_fit)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
