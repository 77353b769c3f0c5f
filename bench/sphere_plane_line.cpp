// The sphere, plane and line entry points on the shared sphere patch of
// bench_points.h. The line fits take its side view: the 2D fits its (x, z)
// coordinates, evaluate_line2 the plane y = -20 through the patch's centre
// (the top view, a round disc, has no line direction to speak of). The
// probed fits take every point as the centre of a ball of radius 2 touching
// from the +z side (contact direction +z), so the ratios to one_pass at the
// same n compare with the unprobed fits'.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench_points.h"
#include "metrofit/features/line.h"
#include "metrofit/features/plane.h"
#include "metrofit/features/sphere.h"

namespace {

constexpr double kProbeRadius = 2.0;

giPoint3coDynArr points3(benchmark::State& state) {
    giPoint3coDynArr pts;
    for (const bench::Point& p : bench::sphere_patch(static_cast<int>(state.range(0))))
        pts.append(giPoint3(p.x, p.y, p.z));
    return pts;
}

giPoint2coDynArr points2(benchmark::State& state) {
    giPoint2coDynArr pts;
    for (const bench::Point& p : bench::sphere_patch(static_cast<int>(state.range(0))))
        pts.append(giPoint2(p.x, p.z));
    return pts;
}

doublecoDynArr probe_radii(int n) {
    doublecoDynArr radii;
    for (int i = 0; i < n; ++i) radii.append(kProbeRadius);
    return radii;
}

void finish(benchmark::State& state, int status) {
    if (status != 1) state.SkipWithError("fit refused");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_evaluate_sphere(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    giPoint3 centre;
    double radius = 0, error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_sphere(pts, centre, radius, error);
        benchmark::DoNotOptimize(radius);
    }
    finish(state, status);
}

void BM_evaluate_probed_sphere(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    const doublecoDynArr radii = probe_radii(pts.size());
    giPoint3 centre;
    double radius = 0, error = 0;
    int status = 0;
    for (auto _ : state) {
        status =
            tsLeastSquareEvaluator::evaluate_probed_sphere(pts, radii, 1, centre, radius, error);
        benchmark::DoNotOptimize(radius);
    }
    finish(state, status);
}

void BM_evaluate_plane(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    giPoint3 point;
    giUnitVec3 normal;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_plane(pts, point, normal, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

void BM_evaluate_probed_plane(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    const doublecoDynArr radii = probe_radii(pts.size());
    giUnitVec3coDynArr directions;
    for (int i = 0; i < pts.size(); ++i) directions.append(giUnitVec3(giZAxis));
    giPoint3 point;
    giUnitVec3 normal;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, directions, point,
                                                               normal, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

void BM_evaluate_line(benchmark::State& state) {
    const giPoint2coDynArr pts = points2(state);
    giPoint2 point;
    giUnitVec2 direction;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_line(pts, point, direction, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

void BM_evaluate_line2(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    const giPoint3 plane_point(0, bench::kCentre.y, 0);
    const giUnitVec3 plane_normal(giYAxis);
    giPoint3 point;
    giUnitVec3 direction;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_line2(plane_point, plane_normal, pts, point,
                                                        direction, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

void BM_evaluate_line3(benchmark::State& state) {
    const giPoint3coDynArr pts = points3(state);
    giPoint3 point;
    giUnitVec3 direction;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_line3(pts, point, direction, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

void BM_evaluate_probed_line2(benchmark::State& state) {
    const giPoint2coDynArr pts = points2(state);
    const doublecoDynArr radii = probe_radii(pts.size());
    giUnitVec2coDynArr directions;
    for (int i = 0; i < pts.size(); ++i) directions.append(giUnitVec2(giYAxis));
    giPoint2 point;
    giUnitVec2 normal;
    double error = 0;
    int status = 0;
    for (auto _ : state) {
        status = tsLeastSquareEvaluator::evaluate_probed_line2(pts, radii, directions, point,
                                                               normal, error);
        benchmark::DoNotOptimize(error);
    }
    finish(state, status);
}

}  // namespace

// The direct fits and the sphere are meant for scans too: up to 100 000.
BENCHMARK(BM_evaluate_sphere)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_evaluate_plane)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_evaluate_line3)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_evaluate_probed_sphere)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_line)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_line2)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_probed_plane)->Arg(100)->Arg(1000)->Arg(10000);
BENCHMARK(BM_evaluate_probed_line2)->Arg(100)->Arg(1000)->Arg(10000);
