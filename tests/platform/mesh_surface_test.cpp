#include "metrofit/platform/surface/mesh_surface.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/sampling.h"

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

// Unit sphere by latitude rings, wound outward.
srkMeshSurf sphere_mesh(int rings, int segments) {
    const double pi = testsupport::kPi;
    giPoint3coDynArr v;
    v.append(giPoint3(0, 0, 1));
    for (int i = 1; i < rings; ++i)
        for (int j = 0; j < segments; ++j) {
            const double th = pi * i / rings, ph = 2 * pi * j / segments;
            v.append(
                giPoint3(std::sin(th) * std::cos(ph), std::sin(th) * std::sin(ph), std::cos(th)));
        }
    v.append(giPoint3(0, 0, -1));
    const int south = v.size() - 1;
    auto at = [segments](int i, int j) { return 1 + (i - 1) * segments + j % segments; };
    intcoDynArr t;
    for (int j = 0; j < segments; ++j) {
        for (int k : {0, at(1, j), at(1, j + 1), south, at(rings - 1, j + 1), at(rings - 1, j)})
            t.append(k);
        for (int i = 1; i + 1 < rings; ++i)
            for (int k : {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j), at(i + 1, j + 1),
                          at(i, j + 1)})
                t.append(k);
    }
    return srkMeshSurf(v, t);
}

// Distance from p to a triangle, computed independently of the library: the
// plane foot when it falls inside, else the nearest of the three sides.
double brute_distance(const giPoint3& p, const giPoint3& a, const giPoint3& b, const giPoint3& c) {
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

double brute_distance(const srkMeshSurf& m, const giPoint3& p, int f) {
    return brute_distance(p, m.vertex(m.facet_vertex(f, 0)), m.vertex(m.facet_vertex(f, 1)),
                          m.vertex(m.facet_vertex(f, 2)));
}

srkSurfPointList project(const srkSurf& m, const giPoint3& p) {
    srkSurfPointList out;
    int info = 0;
    m.project_all(p, out, info);
    return out;
}

void expect_near(const giVector3& a, const giVector3& b, double tol) {
    EXPECT_NEAR(a.x(), b.x(), tol);
    EXPECT_NEAR(a.y(), b.y(), tol);
    EXPECT_NEAR(a.z(), b.z(), tol);
}

const giAngle kTol(giANGLE_RADIANS, 1e-5);

}  // namespace

TEST(MeshSurface, NearestPointAgreesWithBruteForceOverAllFacets) {
    testsupport::Rng rng(7);
    for (const srkMeshSurf& mesh : {sphere_mesh(24, 48), box_mesh(1, 2, 3)}) {
        ASSERT_GT(mesh.facet_count(), 0);
        for (int i = 0; i < 300; ++i) {
            const giPoint3 p(rng.uniform(-2, 3), rng.uniform(-2, 3), rng.uniform(-2, 3));
            double best = HUGE_VAL;
            for (int f = 0; f < mesh.facet_count(); ++f)
                best = std::fmin(best, brute_distance(mesh, p, f));
            const srkSurfPointList s = project(mesh, p);
            ASSERT_GE(s.size(), 1);
            EXPECT_NEAR(distance(p, s[0].position), best, 1e-12);
            EXPECT_NEAR(brute_distance(mesh, p, s[0].facet), best, 1e-12);  // on its facet
            for (int k = 1; k < s.size(); ++k) {  // the others: perpendicular feet, farther
                EXPECT_GE(distance(p, s[k].position), distance(p, s[k - 1].position) - 1e-15);
                const giVector3 d = p - s[k].position;
                EXPECT_LE(cross(d, mesh.facet_normal(s[k].facet)).length(), 1e-9 * d.length());
            }
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
        {&cube, giPoint3(2, 0.5, 2), {giPoint3(1, 0.5, 1)}},
        {&cube, giPoint3(2, 3, -1), {giPoint3(1, 1, 0)}},
        // Inside next to an edge: the nearer side face, then the top.
        {&cube, giPoint3(0.9995, 0.5, 0.999), {giPoint3(1, 0.5, 0.999), giPoint3(0.9995, 0.5, 1)}},
        // Over and inside a wall thinner than the window: both sides.
        {&slab, giPoint3(0.3, 0.6, 0.0015), {giPoint3(0.3, 0.6, 0.001), giPoint3(0.3, 0.6, 0)}},
        {&slab, giPoint3(0.3, 0.6, 0.0004), {giPoint3(0.3, 0.6, 0), giPoint3(0.3, 0.6, 0.001)}},
        // A wall thicker than the window shows its near side only.
        {&cube, giPoint3(0.3, 0.6, 1.0015), {giPoint3(0.3, 0.6, 1)}},
    };
    for (const Case& c : cases) {
        const srkSurfPointList s = project(*c.mesh, c.p);
        ASSERT_EQ(s.size(), static_cast<int>(c.feet.size()));
        for (int k = 0; k < s.size(); ++k) EXPECT_LE(distance(s[k].position, c.feet[k]), 1e-14);
    }
    // From the centre every face is at 0.5: six distinct face centres.
    const srkSurfPointList s = project(cube, giPoint3(0.5, 0.5, 0.5));
    ASSERT_EQ(s.size(), 6);
    for (int k = 0; k < 6; ++k) {
        EXPECT_NEAR(distance(s[k].position, giPoint3(0.5, 0.5, 0.5)), 0.5, 1e-15);
        for (int j = 0; j < k; ++j) EXPECT_GT(distance(s[k].position, s[j].position), 0.5);
    }
}

TEST(MeshSurface, NormalsOnFacesEdgesAndCornersAreAngleWeighted) {
    const srkMeshSurf cube = box_mesh(1, 1, 1);
    const giPoint3 c(0.5, 0.5, 0.5);
    const double r = 1.0 / std::sqrt(3.0), h = 1.0 / std::sqrt(2.0);
    for (int i = 0; i < 8; ++i) {  // corners: the normalised diagonal, however triangulated
        const giVector3 sign(2 * (i & 1) - 1, 2 * ((i >> 1) & 1) - 1, 2 * (i >> 2) - 1);
        const srkSurfPointList s = project(cube, c + sign);
        ASSERT_EQ(s.size(), 1);
        EXPECT_EQ(s[0].position, c + sign * 0.5);
        expect_near(cube.normal_at(s[0], kTol), sign * r, 1e-15);
    }
    for (int a = 0; a < 3; ++a)  // edges: the mean of the two face normals
        for (int sa : {-1, 1})
            for (int sb : {-1, 1}) {
                double e[3] = {0, 0, 0};
                e[a] = sa;
                e[(a + 1) % 3] = sb;
                const giVector3 out(e[0], e[1], e[2]);
                const srkSurfPointList s = project(cube, c + out);
                expect_near(cube.normal_at(s[0], kTol), out * h, 1e-15);
            }
    // Face interior and the flat diagonal edge: the exact face normal.
    for (const giPoint3& p : {giPoint3(0.2, 0.7, 1.3), giPoint3(0.5, 0.5, 1.3)}) {
        const giUnitVec3 n = cube.normal_at(project(cube, p)[0], kTol);
        EXPECT_EQ(n.x(), 0.0);
        EXPECT_EQ(n.y(), 0.0);
        EXPECT_EQ(n.z(), 1.0);
    }
    // A record without a facet is located on the mesh.
    expect_near(cube.normal_at(srkSurfPoint(giPoint3(0.3, 0, 0.6)), kTol), giVector3(0, -1, 0), 0);
}

TEST(MeshSurface, RefusesBadInputAndEmptyMeshes) {
    srkMeshSurf mesh = box_mesh(1, 1, 1);
    const giPoint3coDynArr v{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
    const giPoint3coDynArr bad_v{giPoint3(0, 0, 0), giPoint3(NAN, 0, 0), giPoint3(0, 1, 0)};
    const giPoint3coDynArr line_v{giPoint3(0, 0, 0), giPoint3(1, 1, 1), giPoint3(2, 2, 2)};
    const struct {
        const giPoint3coDynArr* v;
        intcoDynArr t;
    } bad[] = {{&v, {0, 1}},         {&v, {0, 1, 3}}, {&v, {0, -1, 2}}, {&bad_v, {0, 1, 2}},
               {&line_v, {0, 1, 2}}, {&v, {0, 1, 1}}, {&v, {}}};
    for (const auto& b : bad) {
        std::string error;
        EXPECT_EQ(mesh.set(*b.v, b.t, error), 0);
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(mesh.facet_count(), 12);  // unchanged
    }
    srkSurfPointList out;
    int info = -1;
    EXPECT_EQ(mesh.project_all(giPoint3(NAN, 0, 0), out, info), 0);
    EXPECT_EQ(mesh.project_all(giPoint3(), out, info), 0);
    const srkMeshSurf empty;
    EXPECT_EQ(empty.project_all(giPoint3(0, 0, 0), out, info), 0);
    EXPECT_EQ(out.size(), 0);
    EXPECT_FALSE(empty.normal_at(srkSurfPoint(giPoint3(0, 0, 0)), kTol).is_set());
}

namespace {

std::string binary_stl(const srkMeshSurf& m, const char* header) {
    std::string s(80, '\0');
    std::memcpy(&s[0], header, std::strlen(header));
    auto put = [&s](const void* p, int n) { s.append(static_cast<const char*>(p), n); };
    const std::uint32_t n = m.facet_count();
    put(&n, 4);
    for (int f = 0; f < m.facet_count(); ++f) {
        const float zero[3] = {0, 0, 0};
        put(zero, 12);
        for (int k = 0; k < 3; ++k) {
            const giPoint3 q = m.vertex(m.facet_vertex(f, k));
            const float xyz[3] = {float(q.x()), float(q.y()), float(q.z())};
            put(xyz, 12);
        }
        put("\0\0", 2);
    }
    return s;
}

std::string ascii_stl(const srkMeshSurf& m) {
    std::ostringstream s;
    s.precision(17);
    s << "solid cube\n";
    for (int f = 0; f < m.facet_count(); ++f) {
        s << "  FACET normal 0 0 0\n    outer loop\n";
        for (int k = 0; k < 3; ++k) {
            const giPoint3 q = m.vertex(m.facet_vertex(f, k));
            s << "      vertex " << q.x() << ' ' << q.y() << " +" << q.z() << '\n';
        }
        s << "    endloop\n  endfacet\n";
    }
    s << "endsolid cube\n";
    return s.str();
}

}  // namespace

TEST(MeshSurface, StlFilesRoundTripInBinaryAndText) {
    const srkMeshSurf cube = box_mesh(1, 2, 0.5);
    const std::string path =
        ::testing::TempDir() + "mesh_surface_test_" + std::to_string(::getpid()) + ".stl";
    // A binary header that starts with "solid" must still be read as binary.
    for (const std::string& content : {binary_stl(cube, "solid but binary"), ascii_stl(cube)}) {
        std::ofstream(path, std::ios::binary) << content;
        srkMeshSurf read;
        std::string error;
        ASSERT_EQ(srkMeshSurf::read_stl(path, read, error), 1) << error;
        EXPECT_EQ(read.vertex_count(), 8);  // the 36 corners merge into 8 shared vertices
        EXPECT_EQ(read.facet_count(), 12);
        testsupport::Rng rng(3);
        for (int i = 0; i < 50; ++i) {
            const giPoint3 p(rng.uniform(-1, 2), rng.uniform(-1, 3), rng.uniform(-1, 2));
            const srkSurfPointList a = project(cube, p), b = project(read, p);
            ASSERT_EQ(a.size(), b.size());
            for (int k = 0; k < a.size(); ++k) EXPECT_EQ(a[k].position, b[k].position);
        }
    }
    std::remove(path.c_str());
    srkMeshSurf none;
    std::string error;
    EXPECT_EQ(srkMeshSurf::read_stl(path, none, error), 0);
    EXPECT_NE(error.find("cannot open"), std::string::npos);
}

TEST(MeshSurface, MalformedStlIsRefusedWithAMessage) {
    const srkMeshSurf cube = box_mesh(1, 1, 1);
    const std::string good = binary_stl(cube, "");
    std::string huge_count = good.substr(0, 134);
    huge_count[83] = 0x40;  // about a billion facets announced, one present
    std::string nan_coordinate = good;
    const float nan = NAN;
    std::memcpy(&nan_coordinate[84 + 50 * 5 + 16], &nan, 4);
    std::string flat = good.substr(0, 84 + 50);
    std::memset(&flat[80], 0, 4);
    flat[80] = 1;
    std::memset(&flat[84], 0, 50);  // one facet whose corners coincide
    const std::string text = "solid t\nfacet normal 0 0 1\n outer loop\n  vertex 0 0 0\n";
    const struct {
        std::string content;
        const char* message;
    } cases[] = {
        {"", "empty"},
        {"hello, no mesh here", "truncated"},
        {good.substr(0, good.size() - 7), "does not match"},
        {huge_count, "does not match"},
        {good.substr(0, 80) + std::string(4, '\0'), "count is 0"},
        {nan_coordinate, "non-finite"},
        {flat, "degenerate"},
        {text + "  vertex 1 0 zz\n", "line 5"},
        {text + "  vertex nan 0 0\n", "non-finite"},
        {text + "  vertex 1 0 0\n  vertex 0 1 0\n endloop\nendfacet\n", "endsolid"},
        {"solid t\nendsolid t\n", "no facets"},
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

TEST(MeshSurface, CloneIsIndependentAndTransformMovesEverything) {
    const srkSurfPtr original = std::make_shared<srkMeshSurf>(sphere_mesh(16, 32));
    testsupport::Rng rng(5);
    giPoint3coDynArr points;
    std::vector<srkSurfPointList> before;
    for (int i = 0; i < 100; ++i) {
        // Near the surface, where the window holds few foot points.
        const giUnitVec3 dir(rng.normal(), rng.normal(), rng.normal());
        points.append(giPoint3(giOrigin) + dir * rng.uniform(0.8, 1.2));
        before.push_back(project(*original, points[i]));
    }
    srkSurfPtr moved = original->clone();
    const giXform3 x = testsupport::random_motion(37, 1e3, 11);
    ASSERT_EQ(srkSurf::transform(moved, x), 1);
    EXPECT_EQ(srkSurf::transform(moved, giXform3()), 0);
    for (int i = 0; i < points.size(); ++i) {
        // The original neither moved nor changed its answers (bit-identical).
        const srkSurfPointList a = project(*original, points[i]),
                               b = project(*moved, x * points[i]);
        ASSERT_EQ(a.size(), before[i].size());
        for (int k = 0; k < a.size(); ++k) EXPECT_EQ(a[k].position, before[i][k].position);
        ASSERT_EQ(a.size(), b.size());
        for (int k = 0; k < a.size(); ++k) {
            EXPECT_LE(distance(x * a[k].position, b[k].position), 1e-9);
            expect_near(x * original->normal_at(a[k], kTol), moved->normal_at(b[k], kTol), 1e-9);
        }
    }
}
