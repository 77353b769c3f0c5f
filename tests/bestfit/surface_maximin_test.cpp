// Maximin fit: the known margins of a raw block around a box mesh and of a
// shell on a sphere, evening, and the refusals.
#include "metrofit/bestfit/surface_maximin.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <limits>
#include <memory>
#include <vector>

#include "metrofit/bestfit/surface_bestfit.h"
#include "metrofit/platform/surface/analytic_surfaces.h"
#include "metrofit/platform/surface/mesh_surface.h"
#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::Rng;

// The nominal: a 100 x 80 x 60 box as 12 outward facets.
std::shared_ptr<srkMeshSurf> box_mesh() {
    giPoint3coDynArr v;
    for (int k = 0; k < 8; ++k) v.append(giPoint3(k & 1 ? 100 : 0, k & 2 ? 80 : 0, k & 4 ? 60 : 0));
    const intcoDynArr facets = {0, 2, 1, 1, 2, 3, 4, 5, 6, 5, 7, 6, 0, 1, 4, 1, 5, 4,
                                2, 6, 3, 3, 6, 7, 0, 4, 2, 2, 4, 6, 1, 3, 5, 3, 7, 5};
    return std::make_shared<srkMeshSurf>(v, facets);
}

// Faces in the order -x, +x, -y, +y, -z, +z.
const double kNormals[6][3] = {{-1, 0, 0}, {1, 0, 0}, {0, -1, 0}, {0, 1, 0}, {0, 0, -1}, {0, 0, 1}};

struct RawBlock {
    std::vector<tsFitPoint3coPrf> points;
    std::vector<int> face;  // of each point
};

// Points on the raw block whose face f stands stock[f] outside the box,
// `per_face` on each face well inside it, moved by `motion`.
RawBlock raw_block(const double stock[6], int per_face, const giXform3& motion,
                   double noise = 0.0) {
    RawBlock b;
    Rng rng(7);
    const double size[3] = {100, 80, 60};
    for (int k = 0; k < per_face; ++k)
        for (int f = 0; f < 6; ++f) {
            const int axis = f / 2;
            double c[3];
            for (int j = 0; j < 3; ++j) c[j] = size[j] * rng.uniform(0.15, 0.85);
            const double out = stock[f] + (noise > 0.0 ? rng.normal(noise) : 0.0);
            c[axis] = (f % 2 ? size[axis] : 0.0) + (f % 2 ? out : -out);
            const giVector3 n(kNormals[f][0], kNormals[f][1], kNormals[f][2]);
            b.points.push_back(tsFitPoint3coPrf(new tsProbedPoint3(
                motion * giPoint3(c[0], c[1], c[2]), giUnitVec3(motion * n), 0.0)));
            b.face.push_back(f);
        }
    return b;
}

// The motion the raw block is measured under; the stock of its faces.
const giXform3 kMoved =
    giXform3(giVector3(0.4, -0.3, 0.2)) *
    giXform3::rotation(giPoint3(50, 40, 30), giVector3(1, 2, -1), giAngle(giANGLE_DEGREES, 0.5));
const double kStock[6] = {1.5, 3, 0.5, 1.5, 2, 4};

// A maximin fit of the points to the box mesh, each with its lower limit.
struct BoxFit {
    std::shared_ptr<srkMeshSurf> mesh = box_mesh();
    tsSurfProjectorForFitting3 projector{mesh.get()};
    tsSurfaceMaximin fit;
    explicit BoxFit(const RawBlock& block, const double lower[6] = nullptr) {
        fit.set_projector(&projector);
        for (size_t i = 0; i < block.points.size(); ++i)
            EXPECT_EQ(fit.add_point(block.points[i], lower ? lower[block.face[i]] : 0.0), 1);
    }
};

const giPoint3& measured(const tsFitPoint3coPrf& p) {
    return static_cast<const tsProbedPoint3&>(*p).measured_point();
}

struct Result {
    int status = -99;
    giXform3 T;
    double margin = -DBL_MAX;
    intcoDynArr holding;
    int unprojected = -1;
};

Result run(tsSurfaceMaximin& fit, double tolerance = 1e-10) {
    Result r;
    r.status = fit.fit(tolerance, r.T, r.margin, r.holding, r.unprojected);
    return r;
}

TEST(SurfaceMaximin, ReachesTheKnownMarginOfARawBlock) {
    const giXform3 none(giIdentity);
    const double zero[6] = {0, 0, 0, 0, 0, 0}, on_x[6] = {2, 2, 0, 0, 0, 0};
    const double short_x[6] = {-1, 2, 1, 2, 2, 4}, shorter_x[6] = {-2, 1, 1, 2, 2, 4};
    struct Case {
        const char* name;
        const double* stock;
        const double* lower;  // per face
        int lock;             // 0 free, 1 shifts along x only
        const giXform3* motion;
        double margin;     // the known optimum
        unsigned holding;  // faces of the holding points, bit f
    };
    // The margin is the smallest mean of opposite excesses; turning only eats
    // stock. The holding points are those of the tight faces.
    const Case cases[] = {
        {"tightest axis y", kStock, zero, 0, &none, 1.0, 0b001100},
        {"moved input", kStock, zero, 0, &kMoved, 1.0, 0b001100},
        {"negative start", short_x, zero, 0, &kMoved, 0.5, 0b000011},
        {"lower limits on x", kStock, on_x, 0, &none, 0.25, 0b000011},
        {"no positive margin", shorter_x, zero, 0, &kMoved, -0.5, 0b000011},
        {"shift along x only", kStock, zero, 1, &none, 0.5, 0b000100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const RawBlock block = raw_block(c.stock, 6, *c.motion);
        BoxFit box(block, c.lower);
        tsSurfaceMaximin& fit = box.fit;
        if (c.lock == 1) fit.lock_rotations(giVector3(2, 0, 0), giVector3(), giVector3());
        const Result r = run(fit);
        EXPECT_EQ(r.status, tsSURFACE_MAXIMIN_CONVERGED);
        EXPECT_NEAR(r.margin, c.margin, 1e-6);  // exact faces: only rounding and the stop
        EXPECT_EQ(r.unprojected, 0);
        unsigned faces = 0;
        for (int i : r.holding) faces |= 1u << block.face[i];
        EXPECT_EQ(faces, c.holding);
        // The reported margin is that of the returned pose, point by point.
        double smallest = DBL_MAX;
        const tsProjectedPoint3coDynArr& cloud = fit.get_pointcloud();
        for (int i = 0; i < cloud.size(); ++i) {
            EXPECT_FALSE(cloud[i].invalid());
            EXPECT_NEAR((r.T * measured(block.points[i]) - cloud[i].measured_point()).length(), 0.0,
                        1e-9);
            smallest = std::min(smallest, cloud[i].signed_distance() - fit.lower_limit(i));
        }
        EXPECT_EQ(smallest, r.margin);
        // A rotation lock leaves the transform a pure shift along its axes.
        if (c.lock == 1) {
            for (int row = 0; row < 3; ++row)
                for (int col = 0; col < 3; ++col) EXPECT_EQ(r.T(row, col), row == col ? 1.0 : 0.0);
            EXPECT_EQ(r.T(1, 3), 0.0);
            EXPECT_EQ(r.T(2, 3), 0.0);
        }
    }
}

TEST(SurfaceMaximin, EvensTheStockTheMarginLeavesFree) {
    // After the margin (y) evening centres x (1.5, 3 -> 2.25) and z (2, 4
    // -> 3); without evening only the margin is asked for.
    const double evened[6] = {2.25, 2.25, 1, 1, 3, 3};
    const RawBlock block = raw_block(kStock, 6, kMoved);
    for (int even : {1, 0}) {
        SCOPED_TRACE(even);
        BoxFit box(block);
        tsSurfaceMaximin& fit = box.fit;
        fit.set_even(even);
        const Result r = run(fit);
        EXPECT_EQ(r.status, tsSURFACE_MAXIMIN_CONVERGED);
        EXPECT_NEAR(r.margin, 1.0, 1e-9);
        const doublecoDynArr& levels = fit.levels();
        ASSERT_EQ(levels.size(), even ? 3 : 1);
        EXPECT_NEAR(levels[0], 1.0, 1e-9);
        if (!even) continue;
        EXPECT_NEAR(levels[1], 2.25, 1e-9);
        EXPECT_NEAR(levels[2], 3.0, 1e-9);
        const tsProjectedPoint3coDynArr& cloud = fit.get_pointcloud();
        for (int i = 0; i < cloud.size(); ++i)
            EXPECT_NEAR(cloud[i].signed_distance(), evened[block.face[i]], 1e-9) << i;
    }
}

TEST(SurfaceMaximin, CentresAShellOnASphereAndRepeatsItself) {
    // Points 1 outside a sphere of radius 10, centred 0.3 off: margin 1,
    // held by every point.
    const auto sphere = std::make_shared<srkSphereSurf>(giPoint3(0, 0, 0), 10.0);
    const tsSurfProjectorForFitting3 projector(sphere.get());
    tsSurfaceMaximin fit;
    fit.set_projector(&projector);
    Rng rng(3);
    for (int k = 0; k < 60; ++k) {
        const giUnitVec3 u(rng.normal(), rng.normal(), rng.normal());
        fit.add_point(tsFitPoint3coPrf(
            new tsProbedPoint3(giPoint3(0.3, -0.1, 0.2) + giVector3(u) * 11.0, u, 0.0)));
    }
    const Result a = run(fit, 1e-12);
    EXPECT_GT(a.status, 0);
    EXPECT_NEAR(a.margin, 1.0, 1e-6);
    EXPECT_EQ(a.holding.size(), 60);
    const Result b = run(fit, 1e-12);  // each fit restarts from the identity
    EXPECT_EQ(a.margin, b.margin);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) EXPECT_EQ(a.T(r, c), b.T(r, c));
}

TEST(SurfaceMaximin, RefusesBadInputAndLeavesOutputsAlone) {
    const auto mesh = box_mesh();
    const tsSurfProjectorForFitting3 projector(mesh.get());
    const tsProjectorForFitting3 projects_nothing;
    const double stock[6] = {1, 1, 1, 1, 1, 1};
    const double nan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        const char* name;
        const tsFitPointProjector3* projector;
        int n_points;  // 0: none
        int one_face;  // points on the -x face only
        double tolerance;
        int status;
    };
    const Case cases[] = {
        {"no points", &projector, 0, 0, 1e-9, tsSURFACE_MAXIMIN_NO_POINTS},
        {"no projector", nullptr, 2, 0, 1e-9, tsSURFACE_MAXIMIN_NO_PROJECTOR},
        {"nothing projects", &projects_nothing, 2, 0, 1e-9, tsSURFACE_MAXIMIN_NO_PROJECTION},
        {"NaN tolerance", &projector, 2, 0, nan, tsSURFACE_MAXIMIN_BAD_INPUT},
        {"negative tolerance", &projector, 2, 0, -1.0, tsSURFACE_MAXIMIN_BAD_INPUT},
        {"points on one face", &projector, 4, 1, 1e-9, tsSURFACE_MAXIMIN_UNBOUNDED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        tsSurfaceMaximin fit;
        fit.set_projector(c.projector);
        const RawBlock block = raw_block(stock, c.n_points, giXform3(giIdentity));
        for (size_t i = 0; i < block.points.size(); ++i)
            if (!c.one_face || block.face[i] == 0) fit.add_point(block.points[i]);
        Result r;
        r.holding.append(-7);
        r.status = fit.fit(c.tolerance, r.T, r.margin, r.holding, r.unprojected);
        EXPECT_EQ(r.status, c.status);
        EXPECT_FALSE(r.T.is_set());
        EXPECT_EQ(r.margin, -DBL_MAX);
        EXPECT_EQ(r.unprojected, -1);
        ASSERT_EQ(r.holding.size(), 1);
        EXPECT_EQ(r.holding[0], -7);
    }
    // Points that cannot be used are refused when added.
    tsSurfaceMaximin fit;
    const tsFitPoint3coPrf p(new tsProbedPoint3(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 0.0));
    for (double lower : {nan, HUGE_VAL, -HUGE_VAL}) EXPECT_EQ(fit.add_point(p, lower), 0);
    EXPECT_EQ(fit.add_point(tsFitPoint3coPrf()), 0);
    EXPECT_EQ(fit.nb_points(), 0);
}

}  // namespace
