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

#include "metrofit/platform/surface/mesh_surface.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kAround = 256, kAlong = 128;

// Latitude-longitude grid wound outward; the pole rows' repeated points are
// merged by the mesh and their facets without area dropped.
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

void BM_tsScaledSurfaceBestfit_fit(benchmark::State& state) {
    const Ellipsoid& e = part();
    const int n = static_cast<int>(state.range(0));
    // measured = motion * nominal, the inverse of what the fit recovers.
    const double s = 1.0 / 1.002;
    const giXform3 motion =
        giXform3(giVector3(0.05, -0.03, 0.02)) *
        giXform3::rotation(giPoint3(0, 0, 0), giVector3(1, 2, 3), giAngle(giANGLE_DEGREES, 0.3)) *
        giXform3::scaling(s, s, s);
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
        const giPoint3 q = a + (b - a) * u + (c - a) * v;
        points.push_back(
            tsFitPoint3coPrf(new tsProbedPoint3(motion * q, motion * giUnitVec3(normal), 0.0)));
    }
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
