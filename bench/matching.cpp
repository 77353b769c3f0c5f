// Point matching on the shared sphere patch: each point a is paired with
// its image b under a fixed motion (30 degrees about a skew axis and a
// shift), b slightly disturbed by a deterministic ripple of 0.001.
//
// - BM_tsPointsToPoints: accumulate the n pairs and extract the rigid motion;
// - BM_tsPointsAffineMatch: the full affine transform of n stored pairs
//   (loading the pairs is outside the timed loop).
//
// Compare each time with BM_one_pass at the same n.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "bench_points.h"
#include "metrofit/bestfit/affine_match.h"
#include "metrofit/bestfit/points_to_points.h"

namespace {

struct Pairs {
    std::vector<giPoint3> a, b;
};

Pairs make_pairs(int n) {
    const giXform3 motion =
        giXform3::translation(giVector3(5.0, -12.0, 3.0)) *
        giXform3::rotation(giPoint3(0.0, 0.0, 0.0), giVector3(1.0, 2.0, 2.0), giAngle(1, 30.0));
    Pairs pairs;
    int i = 0;
    for (const bench::Point& p : bench::sphere_patch(n)) {
        const giPoint3 a(p.x, p.y, p.z);
        const double ripple = 0.001 * std::sin(0.7 * i++);
        pairs.a.push_back(a);
        pairs.b.push_back(motion * a + giVector3(ripple, -ripple, 0.5 * ripple));
    }
    return pairs;
}

void BM_tsPointsToPoints(benchmark::State& state) {
    const Pairs pairs = make_pairs(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        tsPointsToPoints p2p;
        for (std::size_t i = 0; i < pairs.a.size(); ++i) p2p.add_pair(pairs.a[i], pairs.b[i]);
        giXform3 xform;
        benchmark::DoNotOptimize(p2p.get_xform(xform));
        benchmark::DoNotOptimize(xform);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_tsPointsAffineMatch(benchmark::State& state) {
    const Pairs pairs = make_pairs(static_cast<int>(state.range(0)));
    tsPointsAffineMatch match;
    for (std::size_t i = 0; i < pairs.a.size(); ++i) match.add_pair(pairs.b[i], pairs.a[i]);
    match.set_transform_type(tsAffineMatchFull);
    for (auto _ : state) {
        giXform3 xform = giXform3::identity();
        benchmark::DoNotOptimize(match.xform(xform));
        benchmark::DoNotOptimize(xform);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsPointsToPoints)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(BM_tsPointsAffineMatch)->Arg(100)->Arg(1000)->Arg(10000)->Arg(100000);
