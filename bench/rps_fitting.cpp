// RPS fitting of a block [0, 100] x [0, 60] x [0, 40] (a 12-facet mesh) held
// by 3-2-1 positioning: n probe-ball centres (radius 1) spread over five of
// its faces with 2 um of noise along the normal, the part moved by 0.5
// degrees and 0.3 mm, fitted back to a movement tolerance of 1e-6.
#include "metrofit/alignment/rps_fitting.h"

#include <benchmark/benchmark.h>

#include <cfloat>
#include <random>
#include <string>
#include <vector>

#include "metrofit/platform/surface/mesh_surface.h"

namespace {

constexpr double kSize[3] = {100, 60, 40};

struct Block {
    srkMeshSurf mesh;
    Block() {
        giPoint3coDynArr v;
        for (int k = 0; k < 8; ++k)
            v.append(giPoint3(k & 1 ? kSize[0] : 0, k & 2 ? kSize[1] : 0, k & 4 ? kSize[2] : 0));
        const intcoDynArr t = {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                               2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5};
        std::string error;
        mesh.set(v, t, error);
    }
};

void BM_tsRPSFitting_fit(benchmark::State& state) {
    static const Block block;
    const tsSurfProjectorForFitting3 projector(&block.mesh);
    const int n = static_cast<int>(state.range(0));
    const giXform3 motion =
        giXform3(giVector3(0.2, -0.1, 0.2)) *
        giXform3::rotation(giPoint3(50, 30, 20), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.5));
    const giXform3 back = motion.inverse();
    std::mt19937_64 engine(7);
    std::uniform_real_distribution<double> u(0.05, 0.95);
    std::normal_distribution<double> noise(0.0, 0.002);
    std::vector<tsFitPoint3coPrf> points;
    const int faces[5][2] = {{2, 1}, {0, 0}, {0, 1}, {1, 0}, {1, 1}};  // top and sides
    for (int i = 0; i < n; ++i) {
        const int axis = faces[i % 5][0], high = faces[i % 5][1];
        double p[3], m[3] = {0, 0, 0};
        p[axis] = high * kSize[axis];
        p[(axis + 1) % 3] = u(engine) * kSize[(axis + 1) % 3];
        p[(axis + 2) % 3] = u(engine) * kSize[(axis + 2) % 3];
        m[axis] = high ? 1 : -1;
        const giVector3 normal(m[0], m[1], m[2]);
        const giPoint3 centre = giPoint3(p[0], p[1], p[2]) + (1.0 + noise(engine)) * normal;
        points.emplace_back(new tsProbedPoint3(back * centre, giUnitVec3(back * normal), 1.0));
    }
    const giWorkplane3 world(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giUnitVec3(1, 0, 0));
    const auto I = tsPointsToPlanes::PLANE_IGNORED, L = tsPointsToPlanes::PLANE_LOCKED;
    for (auto _ : state) {
        tsRPSFitting rps(50, 1e-6);
        rps.set_projector(&projector);
        rps.reserve_points(n);
        for (const giPoint3& q : {giPoint3(10, 10, 0), giPoint3(90, 10, 0), giPoint3(50, 50, 0)})
            rps.add_positioning(back * q, world, q, I, I, L);
        for (const giPoint3& q : {giPoint3(20, 0, 20), giPoint3(80, 0, 20)})
            rps.add_positioning(back * q, world, q, I, L, I);
        rps.add_positioning(back * giPoint3(0, 30, 20), world, giPoint3(0, 30, 20), L, I, I);
        for (const tsFitPoint3coPrf& p : points) rps.add_point(p, -DBL_MAX, DBL_MAX);
        benchmark::DoNotOptimize(rps.fit());
        benchmark::DoNotOptimize(rps.transform());
        state.counters["iterations"] = rps.get_iterations();
    }
}

}  // namespace

BENCHMARK(BM_tsRPSFitting_fit)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
