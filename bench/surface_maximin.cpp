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

#include "metrofit/platform/surface/mesh_surface.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kAround = 256, kAlong = 128;

// Latitude-longitude grid, wound outward. The pole rows repeat one point,
// which the mesh merges; the facets they make without area are dropped.
struct Ellipsoid {
    giPoint3coDynArr vertices;
    intcoDynArr triangles;
    srkMeshSurf mesh;

    Ellipsoid() {
        for (int j = 0; j <= kAlong; ++j) {
            const double t = kPi * j / kAlong;
            const double s = (j == 0 || j == kAlong) ? 0.0 : std::sin(t);
            for (int i = 0; i < kAround; ++i) {
                const double f = 2.0 * kPi * i / kAround;
                vertices.append(
                    giPoint3(50 * s * std::cos(f), 35 * s * std::sin(f), 20 * std::cos(t)));
            }
        }
        // From (t, f) along t then along f: d/dt x d/df points outward.
        for (int j = 0; j < kAlong; ++j)
            for (int i = 0; i < kAround; ++i) {
                const int a = j * kAround + i, b = j * kAround + (i + 1) % kAround;
                const int c = a + kAround, d = b + kAround;
                for (int k : {a, c, d, a, d, b}) triangles.append(k);
            }
        std::string error;
        mesh.set(vertices, triangles, error);
    }
};

const Ellipsoid& part() {
    static const Ellipsoid e;
    return e;
}

void BM_tsSurfaceMaximin_fit(benchmark::State& state) {
    const Ellipsoid& e = part();
    const int n = static_cast<int>(state.range(0));
    const giXform3 motion =
        giXform3(giVector3(0.05, -0.03, 0.02)) *
        giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.3));
    std::mt19937_64 engine(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<tsFitPoint3coPrf> points;
    const int n_facets = e.triangles.size() / 3;
    for (int guard = 0; static_cast<int>(points.size()) < n && guard < 10 * n; ++guard) {
        const int f = static_cast<int>(unit(engine) * n_facets) % n_facets;
        const giPoint3 a = e.vertices[e.triangles[3 * f]], b = e.vertices[e.triangles[3 * f + 1]],
                       c = e.vertices[e.triangles[3 * f + 2]];
        const giVector3 normal = cross(b - a, c - a);
        if (!(normal.length() > 1e-9)) continue;
        double u = unit(engine), v = unit(engine);
        if (u + v > 1.0) u = 1.0 - u, v = 1.0 - v;
        const giUnitVec3 nu(normal);
        const double stock = 1.0 + 0.5 * unit(engine);
        const giPoint3 centre = a + (b - a) * u + (c - a) * v + nu * (0.5 + stock);
        points.push_back(tsFitPoint3coPrf(new tsProbedPoint3(motion * centre, motion * nu, 0.5)));
    }
    const tsSurfProjectorForFitting3 projector(&e.mesh);
    double margin = 0.0;
    int status = 0, iterations = 0, levels = 0;
    for (auto _ : state) {
        tsSurfaceMaximin fit;
        fit.set_projector(&projector);
        fit.reserve_points(n);
        for (const tsFitPoint3coPrf& p : points) fit.add_point(p);
        giXform3 T;
        intcoDynArr holding;
        int unprojected = 0;
        status = fit.fit(1e-6, T, margin, holding, unprojected);
        iterations = fit.iterations();
        levels = fit.levels().size();
        benchmark::DoNotOptimize(T);
    }
    if (status <= 0 || !(margin >= 1.0 - 1e-6)) state.SkipWithError("the fit lost stock");
    state.counters["margin"] = margin;
    state.counters["iterations"] = iterations;
    state.counters["levels"] = levels;
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_tsSurfaceMaximin_fit)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
