// The meshed part of the surface benchmarks: a finely tessellated ellipsoid
// (semi-axes 50, 35 and 20, so that no turn leaves it in place; 256 x 128
// quads, about 65000 facets), and points drawn on it from a fixed seed.
#pragma once

#include <cmath>
#include <random>
#include <string>

#include "metrofit/platform/surface/mesh_surface.h"

namespace bench {

// Latitude-longitude grid, wound outward. The pole rows repeat one point,
// which the mesh merges; the facets they make without area are dropped.
struct Ellipsoid {
    static constexpr int kAround = 256, kAlong = 128;
    giPoint3coDynArr vertices;
    intcoDynArr triangles;
    srkMeshSurf mesh;

    Ellipsoid() {
        const double pi = 3.14159265358979323846;
        for (int j = 0; j <= kAlong; ++j) {
            const double t = pi * j / kAlong;
            const double s = (j == 0 || j == kAlong) ? 0.0 : std::sin(t);
            for (int i = 0; i < kAround; ++i) {
                const double f = 2.0 * pi * i / kAround;
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

inline const Ellipsoid& ellipsoid() {
    static const Ellipsoid e;
    return e;
}

// n points drawn uniformly on random facets (a facet without area is drawn
// again), each handed to take(foot, outward normal, engine): the engine
// lets a caller draw more per point from the same sequence.
template <class Take>
void sample_ellipsoid(int n, Take take) {
    const Ellipsoid& e = ellipsoid();
    std::mt19937_64 engine(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const int n_facets = e.triangles.size() / 3;
    int taken = 0;
    for (int guard = 0; taken < n && guard < 10 * n; ++guard) {
        const int f = static_cast<int>(unit(engine) * n_facets) % n_facets;
        const giPoint3 a = e.vertices[e.triangles[3 * f]], b = e.vertices[e.triangles[3 * f + 1]],
                       c = e.vertices[e.triangles[3 * f + 2]];
        const giVector3 normal = cross(b - a, c - a);
        if (!(normal.length() > 1e-9)) continue;
        double u = unit(engine), v = unit(engine);
        if (u + v > 1.0) u = 1.0 - u, v = 1.0 - v;
        take(a + (b - a) * u + (c - a) * v, giUnitVec3(normal), engine);
        ++taken;
    }
}

}  // namespace bench
