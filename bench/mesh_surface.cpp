// Foot-point search on a triangle mesh: n points of the shared sphere patch
// projected onto a latitude-ring tessellation of the same sphere with
// 99 856 facets, every foot point of each point collected as the surface
// bestfit asks for them.
#include "metrofit/platform/surface/mesh_surface.h"

#include <benchmark/benchmark.h>

#include <cmath>

#include "bench_points.h"

namespace {

void sphere_mesh(int rings, int segments, giPoint3coDynArr& v, intcoDynArr& t) {
    const double pi = 3.14159265358979323846, r = bench::kRadius;
    const bench::Point c = bench::kCentre;
    v.append(giPoint3(c.x, c.y, c.z + r));
    for (int i = 1; i < rings; ++i)
        for (int j = 0; j < segments; ++j) {
            const double th = pi * i / rings, ph = 2 * pi * j / segments;
            v.append(giPoint3(c.x + r * std::sin(th) * std::cos(ph),
                              c.y + r * std::sin(th) * std::sin(ph), c.z + r * std::cos(th)));
        }
    v.append(giPoint3(c.x, c.y, c.z - r));
    const int south = v.size() - 1;
    auto at = [segments](int i, int j) { return 1 + (i - 1) * segments + j % segments; };
    for (int j = 0; j < segments; ++j) {
        for (int k : {0, at(1, j), at(1, j + 1), south, at(rings - 1, j + 1), at(rings - 1, j)})
            t.append(k);
        for (int i = 1; i + 1 < rings; ++i)
            for (int k : {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j), at(i + 1, j + 1),
                          at(i, j + 1)})
                t.append(k);
    }
}

const srkMeshSurf& bench_mesh() {
    static const srkMeshSurf mesh = [] {
        giPoint3coDynArr v;
        intcoDynArr t;
        sphere_mesh(159, 316, v, t);
        return srkMeshSurf(v, t);
    }();
    return mesh;
}

void BM_srkMeshSurf_project(benchmark::State& state) {
    const srkMeshSurf& mesh = bench_mesh();
    const auto raw = bench::sphere_patch(static_cast<int>(state.range(0)));
    giPoint3coDynArr points;
    for (const bench::Point& p : raw) points.append(giPoint3(p.x, p.y, p.z));
    srkSurfPointList out;
    for (auto _ : state) {
        long long found = 0;
        for (const giPoint3& p : points) {
            out.clear(0);
            int info = 0;
            found += mesh.project_all(p, out, info);
        }
        benchmark::DoNotOptimize(found);
    }
    state.counters["facets"] = mesh.facet_count();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Building the mesh (vertex merging, normals, adjacency, hierarchy) from its
// vertex and index arrays; n = number of latitude rings (4 n^2 facets).
void BM_srkMeshSurf_build(benchmark::State& state) {
    const int rings = static_cast<int>(state.range(0));
    giPoint3coDynArr v;
    intcoDynArr t;
    sphere_mesh(rings, 2 * rings, v, t);
    std::string error;
    for (auto _ : state) {
        srkMeshSurf mesh;
        benchmark::DoNotOptimize(mesh.set(v, t, error));
    }
    state.SetItemsProcessed(state.iterations() * t.size() / 3);
}

}  // namespace

BENCHMARK(BM_srkMeshSurf_project)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_srkMeshSurf_build)->Arg(158)->Unit(benchmark::kMillisecond);
