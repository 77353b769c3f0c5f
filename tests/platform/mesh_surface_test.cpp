#include "metrofit/platform/surface/mesh_surface.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/tool_files.h"

namespace {

// Axis-aligned box [0, sx] x [0, sy] x [0, sz], two facets per face, wound
// outward; the corners meet 3 to 6 facets, so only an angle-weighted vertex
// normal comes out symmetric.
srkMeshSurf box_mesh(double sx, double sy, double sz) {
    giPoint3coDynArr v;
    for (int i = 0; i < 8; ++i)
        v.append(giPoint3(sx * (i & 1), sy * ((i >> 1) & 1), sz * (i >> 2)));
    const int quads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                             {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    intcoDynArr t;
    for (const auto& q : quads)
        for (int k : {q[0], q[1], q[2], q[0], q[2], q[3]}) t.append(k);
    return srkMeshSurf(v, t);
}

// Distance from p to a triangle, computed independently of the library: the
// plane foot when it falls inside, else the nearest of the three sides.
double brute_distance(const srkMeshSurf& m, const giPoint3& p, int f) {
    const giPoint3 a = m.vertex(m.facet_vertex(f, 0)), b = m.vertex(m.facet_vertex(f, 1)),
                   c = m.vertex(m.facet_vertex(f, 2));
    const giVector3 n = cross(b - a, c - a);
    const giPoint3 foot = p - n * (dot(p - a, n) / n.length_squared());
    const bool inside = dot(cross(b - a, foot - a), n) >= 0 &&
                        dot(cross(c - b, foot - b), n) >= 0 && dot(cross(a - c, foot - c), n) >= 0;
    if (inside) return distance(p, foot);
    double best = HUGE_VAL;
    for (const auto& [s, e] : {std::pair(a, b), std::pair(b, c), std::pair(c, a)}) {
        const double t = std::fmin(1, std::fmax(0, dot(p - s, e - s) / (e - s).length_squared()));
        best = std::fmin(best, distance(p, s + (e - s) * t));
    }
    return best;
}

srkSurfPointList project(const srkSurf& m, const giPoint3& p) {
    srkSurfPointList out;
    int info = 0;
    m.project_all(p, out, info);
    return out;
}

}  // namespace

TEST(MeshSurface, NearestPointAgreesWithBruteForceOverAllFacets) {
    testsupport::Rng rng(7);
    for (const srkMeshSurf& mesh : {box_mesh(1, 2, 3), box_mesh(1, 1, 0.001)}) {
        for (int i = 0; i < 300; ++i) {
            const giPoint3 p(rng.uniform(-2, 3), rng.uniform(-2, 3), rng.uniform(-2, 3));
            double best = HUGE_VAL;
            for (int f = 0; f < mesh.facet_count(); ++f)
                best = std::fmin(best, brute_distance(mesh, p, f));
            const srkSurfPointList s = project(mesh, p);
            ASSERT_GE(s.size(), 1);
            EXPECT_NEAR(distance(p, s[0].position), best, 1e-12);
            EXPECT_NEAR(brute_distance(mesh, p, s[0].facet), best, 1e-12);  // on its facet
            for (int k = 1; k < s.size(); ++k)                              // the others farther
                EXPECT_GE(distance(p, s[k].position), distance(p, s[k - 1].position) - 1e-15);
        }
    }
}

TEST(MeshSurface, FootPointsOnFacesEdgesCornersAndThinWalls) {
    const srkMeshSurf cube = box_mesh(1, 1, 1), slab = box_mesh(1, 1, 0.001);
    struct Case {
        const srkMeshSurf* mesh;
        giPoint3 p;
        std::vector<giPoint3> feet;
    } cases[] = {
        // Over the face diagonal: the two facets' feet coincide and count once.
        {&cube, giPoint3(0.5, 0.5, 1.5), {giPoint3(0.5, 0.5, 1)}},
        // Inside next to an edge: the nearer side face, then the top.
        {&cube, giPoint3(0.9995, 0.5, 0.999), {giPoint3(1, 0.5, 0.999), giPoint3(0.9995, 0.5, 1)}},
        // Over and inside a wall thinner than the window: both sides.
        {&slab, giPoint3(0.3, 0.6, 0.0015), {giPoint3(0.3, 0.6, 0.001), giPoint3(0.3, 0.6, 0)}},
    };
    for (const Case& c : cases) {
        const srkSurfPointList s = project(*c.mesh, c.p);
        ASSERT_EQ(s.size(), static_cast<int>(c.feet.size()));
        for (int k = 0; k < s.size(); ++k) EXPECT_LE(distance(s[k].position, c.feet[k]), 1e-14);
    }
}

TEST(MeshSurface, RefusesBadInputAndEmptyMeshes) {
    srkMeshSurf mesh = box_mesh(1, 1, 1);
    const giPoint3coDynArr v{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
    const giPoint3coDynArr bad_v{giPoint3(0, 0, 0), giPoint3(NAN, 0, 0), giPoint3(0, 1, 0)};
    const struct {
        const giPoint3coDynArr* v;
        intcoDynArr t;
    } bad[] = {{&v, {0, 1}}, {&v, {0, 1, 3}}, {&bad_v, {0, 1, 2}}, {&v, {0, 1, 1}}, {&v, {}}};
    for (const auto& b : bad) {
        std::string error;
        EXPECT_EQ(mesh.set(*b.v, b.t, error), 0);
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(mesh.facet_count(), 12);  // unchanged
    }
    srkSurfPointList out;
    int info = -1;
    EXPECT_EQ(mesh.project_all(giPoint3(NAN, 0, 0), out, info), 0);
    const srkMeshSurf empty;
    EXPECT_TRUE(empty.project_all(giPoint3(0, 0, 0), out, info) == 0 && out.size() == 0);
    EXPECT_FALSE(empty.normal_at(srkSurfPoint(giPoint3(0, 0, 0)), giAngle()).is_set());
}

namespace {

// The mesh as binary STL (the given header, zero normals) and as text
// (keywords in mixed case, signed coordinates).
std::pair<std::string, std::string> stl(const srkMeshSurf& m, const char* header) {
    std::string bin(80, '\0');
    bin.replace(0, std::strlen(header), header);
    auto put = [&bin](const void* p, int n) { bin.append(static_cast<const char*>(p), n); };
    std::ostringstream text;
    text.precision(17);
    text << "solid cube\n";
    const std::uint32_t n = m.facet_count();
    put(&n, 4);
    for (int f = 0; f < m.facet_count(); ++f) {
        const float zero[3] = {0, 0, 0};
        put(zero, 12);
        text << "  FACET normal 0 0 0\n    outer loop\n";
        for (int k = 0; k < 3; ++k) {
            const giPoint3 q = m.vertex(m.facet_vertex(f, k));
            const float xyz[3] = {float(q.x()), float(q.y()), float(q.z())};
            put(xyz, 12);
            text << "      vertex " << q.x() << ' ' << q.y() << " +" << q.z() << '\n';
        }
        put("\0\0", 2);
        text << "    endloop\n  endfacet\n";
    }
    return {bin, text.str() + "endsolid cube\n"};
}

}  // namespace

// A binary header that starts with "solid" must still be read as binary.
TEST(MeshSurface, StlFilesRoundTripInBinaryAndText) {
    const srkMeshSurf cube = box_mesh(1, 2, 0.5);
    const auto [binary, text] = stl(cube, "solid but binary");
    for (const std::string& content : {binary, text}) {
        const std::string path = testsupport::temp_file("mesh", "cube.stl", content);
        srkMeshSurf read;
        std::string error;
        ASSERT_EQ(srkMeshSurf::read_stl(path, read, error), 1) << error;
        std::remove(path.c_str());
        EXPECT_EQ(read.vertex_count(), 8);  // the 36 corners merge into 8 shared vertices
        EXPECT_EQ(read.facet_count(), 12);
        for (const giPoint3& p : {giPoint3(-1, 1, 0.2), giPoint3(0.5, 3, 2), giPoint3(0.5, 1, 0.3)})
            EXPECT_EQ(project(read, p)[0].position, project(cube, p)[0].position);
        EXPECT_EQ(srkMeshSurf::read_stl(path, read, error), 0);  // removed
    }
}

TEST(MeshSurface, MalformedStlIsRefusedWithAMessage) {
    const srkMeshSurf cube = box_mesh(1, 1, 1);
    const std::string good = stl(cube, "").first;
    const std::string text = "solid t\nfacet normal 0 0 1\n outer loop\n  vertex 0 0 0\n";
    std::string nan_coordinate = good;
    const float nan = NAN;
    std::memcpy(&nan_coordinate[84 + 50 * 5 + 16], &nan, 4);
    const struct {
        std::string content;
        const char* message;
    } cases[] = {
        {"", "empty"},
        {good.substr(0, good.size() - 7), "does not match"},
        {nan_coordinate, "non-finite"},
        {text + "  vertex 1 0 zz\n", "line 5"},
        {text + "  vertex 1 0 0\n  vertex 0 1 0\n endloop\nendfacet\n", "endsolid"},
    };
    for (const auto& c : cases) {
        srkMeshSurf out = cube;
        std::string error;
        std::istringstream in(c.content);
        EXPECT_EQ(srkMeshSurf::read_stl(in, out, error), 0) << c.message;
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
        EXPECT_EQ(out.facet_count(), 12);
    }
}
