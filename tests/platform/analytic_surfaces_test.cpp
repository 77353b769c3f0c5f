#include "metrofit/platform/surface/analytic_surfaces.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <tuple>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kTan30 = std::tan(kPi / 6.0);

enum Kind { kPlane, kSphere, kCylinder, kCone, kTorus };
const char* const kNames[] = {"plane", "sphere", "cylinder", "cone", "torus"};

// Each surface placed at origin o with axis z, and described independently of
// the library in cylindrical coordinates (rho from the axis, h along it).
srkSurfPtr make(int k, const giPoint3& o, const giUnitVec3& z) {
    const srkSurfPtr all[] = {std::make_shared<srkPlaneSurf>(o, z),
                              std::make_shared<srkSphereSurf>(o, 2.0),
                              std::make_shared<srkCylinderSurf>(o, z, 1.5),
                              std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, 30.0)),
                              std::make_shared<srkTorusSurf>(o, z, 2.5, 1.0)};
    return all[k];
}
// Signed distance, positive outside (the cone's: to the generating line on
// the point's side, valid for h > 0).
double distance(int k, double rho, double h) {
    const double d[] = {h, std::hypot(rho, h) - 2.0, rho - 1.5,
                        rho * std::cos(kPi / 6) - h * std::sin(kPi / 6),
                        std::hypot(rho - 2.5, h) - 1.0};
    return d[k];
}
// A meridian curve of the part of the surface near the test points, s in [0, 1].
void sample(int k, double s, double& rho, double& h) {
    const double w = 2.0 * kPi * s;
    const double r[] = {5.0 * s, 2.0 * std::sin(0.5 * w), 1.5, 8.0 * s * kTan30, 2.5 + std::cos(w)};
    const double z[] = {0.0, 2.0 * std::cos(0.5 * w), 8.0 * s - 4.0, 8.0 * s, std::sin(w)};
    rho = r[k];
    h = z[k];
}
// How many foot points the geometry gives off the axis. The cone's opposite
// generating line has a foot on the nappe when p lies beyond the plane
// through the apex perpendicular to it.
int count(int k, double rho, double h) {
    const int n[] = {1, 2, 2, rho * kTan30 < h ? 2 : 1, 4};
    return n[k];
}

struct Pose {
    giPoint3 o;
    giUnitVec3 z, x, y;
    double tol;  // on-surface tolerance: 1e-12 relative near the origin, 1e-9 far
};

Pose make_pose(double offset) {
    Pose f{giPoint3(0.3 + offset, -0.2 - 0.7 * offset, 0.1 + 0.4 * offset),
           giUnitVec3(1.0, 2.0, 3.0), giUnitVec3(), giUnitVec3(), offset > 0 ? 3e-9 : 3e-12};
    f.x = giUnitVec3(cross(f.z, giVector3(0.0, 0.0, 1.0)));
    f.y = giUnitVec3(cross(f.z, f.x));
    return f;
}

giPoint3 world(const Pose& f, double rho, double h, double phi) {
    return f.o + (f.x * (rho * std::cos(phi)) + f.y * (rho * std::sin(phi)) + f.z * h);
}
void cylindrical(const Pose& f, const giPoint3& p, double& rho, double& h) {
    const giVector3 q = p - f.o;
    h = dot(q, f.z);
    rho = std::hypot(dot(q, f.x), dot(q, f.y));
}

class AnalyticSurfaceShapes : public ::testing::TestWithParam<std::tuple<int, double>> {};

TEST_P(AnalyticSurfaceShapes, FootPointsAreExactSortedOutwardAndNearestIsClosest) {
    const int k = std::get<0>(GetParam());
    const Pose f = make_pose(std::get<1>(GetParam()));
    const srkSurfPtr surf = make(k, f.o, f.z);
    testsupport::Rng rng(7);
    for (int m = 0; m < 12; ++m) {
        const giPoint3 p =
            world(f, rng.uniform(0.05, 4.0), rng.uniform(k == kCone ? 0.1 : -3.0, 3.0),
                  rng.uniform(0.0, 2 * kPi));
        double rho, h;
        cylindrical(f, p, rho, h);
        srkSurfPointList feet, again;
        int info = -1, info2 = -1;
        const int n = surf->project_all(p, feet, info);
        ASSERT_EQ(n, count(k, rho, h)) << kNames[k];
        EXPECT_EQ(info, n);
        EXPECT_EQ(surf->project_all(p, again, info2), n);  // deterministic, bit for bit
        double last = 0.0;
        for (int i = 0; i < n; ++i) {
            const giPoint3 s = feet[i].position;
            EXPECT_TRUE(s == again[i].position && feet[i].u == again[i].u);
            double rs, hs;
            cylindrical(f, s, rs, hs);
            EXPECT_NEAR(distance(k, rs, hs), 0.0, f.tol) << kNames[k];
            const giUnitVec3 nrm = surf->normal_at(feet[i], giAngle());
            const giVector3 d = p - s;
            EXPECT_LE(cross(nrm, d).length(), 1e-9 * d.length() + f.tol) << kNames[k];
            // Outward: one millimetre along the normal is one millimetre outside.
            cylindrical(f, s + nrm * 1e-3, rs, hs);
            EXPECT_NEAR(distance(k, rs, hs), 1e-3, 1e-8) << kNames[k];
            EXPECT_GE(d.length(), last - f.tol);
            last = d.length();
        }
        // No point of a dense grid of the surface is nearer than the first foot.
        double best = 1e300;
        for (int i = 0; i <= 300; ++i)
            for (int j = 0; j < 300; ++j) {
                double rs, hs;
                sample(k, i / 300.0, rs, hs);
                best = std::fmin(best, (world(f, rs, hs, 2.0 * kPi * j / 300.0) - p).length());
            }
        const double nearest = (feet[0].position - p).length();
        EXPECT_LE(nearest, best + f.tol) << kNames[k];
        EXPECT_GE(nearest, best - 0.05) << kNames[k];  // the grid is fine enough to matter
    }
}

TEST_P(AnalyticSurfaceShapes, TransformMovesTheCloneAndLeavesTheOriginal) {
    const int k = std::get<0>(GetParam());
    const Pose f = make_pose(std::get<1>(GetParam()));
    const srkSurfPtr surf = make(k, f.o, f.z);
    srkSurfPtr moved = surf->clone();
    const giXform3 x = testsupport::random_motion(37.0, 50.0, 3) * giXform3::scaling(2.0, 2.0, 2.0);
    const giPoint3 p = world(f, 1.7, 1.2, 0.4);
    srkSurfPointList before, after, there;
    int info;
    const int n = surf->project_all(p, before, info);
    ASSERT_EQ(srkSurf::transform(moved, x), 1);
    ASSERT_EQ(surf->project_all(p, after, info), n);
    ASSERT_EQ(moved->project_all(x * p, there, info), n);
    for (int i = 0; i < n; ++i) {
        EXPECT_TRUE(before[i].position == after[i].position);
        EXPECT_LE((there[i].position - x * before[i].position).length(), f.tol);
        const giUnitVec3 turned = x * surf->normal_at(before[i], giAngle());
        EXPECT_LE((moved->normal_at(there[i], giAngle()) - turned).length(), f.tol);
    }
}

INSTANTIATE_TEST_SUITE_P(NearAndFar, AnalyticSurfaceShapes,
                         ::testing::Combine(::testing::Range(0, 5), ::testing::Values(0.0, 1e5)));

// The foot points of p on surf, in order, to rounding.
void expect_feet(const srkSurf& surf, const giPoint3& p, std::vector<giPoint3> want) {
    srkSurfPointList feet;
    int info;
    ASSERT_EQ(surf.project_all(p, feet, info), static_cast<int>(want.size()));
    for (int i = 0; i < feet.size(); ++i) EXPECT_LE((feet[i].position - want[i]).length(), 1e-13);
}

TEST(AnalyticSurfaces, KnownFootPointsInOrder) {
    const giPoint3 o(giOrigin);
    const giUnitVec3 z(giZAxis);
    const srkTorusSurf torus(o, z, 3.0, 1.0);
    const srkConeSurf cone(o, z, giAngle(giANGLE_DEGREES, 45.0));
    // Outside the tube, then in the hole: the tube on p's side comes first.
    expect_feet(torus, giPoint3(5, 0, 0), {{4, 0, 0}, {2, 0, 0}, {-2, 0, 0}, {-4, 0, 0}});
    expect_feet(torus, giPoint3(0, 0.5, 0), {{0, 2, 0}, {0, -2, 0}, {0, 4, 0}, {0, -4, 0}});
    expect_feet(cone, giPoint3(1, 0, 3), {{2, 0, 2}, {-1, 0, 1}});
    // Below the apex: only the generating line on p's side has a foot on the nappe.
    expect_feet(cone, giPoint3(3, 0, -1), {{1, 0, 1}});
    expect_feet(srkSphereSurf(giPoint3(1, 1, 1), 2.0), giPoint3(1, 1, -4), {{1, 1, -1}, {1, 1, 3}});
}

TEST(AnalyticSurfaces, RefusesDegenerateInputAndPointsWithoutAFootPoint) {
    const giPoint3 o(1, 2, 3), bad(kNaN, 0, 0);
    const giVector3 z(0, 0, 2), zero(0, 0, 0), nan_dir(kNaN, 0, 1);
    const srkSurfPtr degenerate[] = {
        std::make_shared<srkPlaneSurf>(o, zero),
        std::make_shared<srkPlaneSurf>(bad, z),
        std::make_shared<srkSphereSurf>(o, 0.0),
        std::make_shared<srkSphereSurf>(o, kNaN),
        std::make_shared<srkCylinderSurf>(o, nan_dir, 1.0),
        std::make_shared<srkCylinderSurf>(o, z, -1.0),
        std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, 0.0)),
        std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, 90.0)),
        std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, -20.0)),
        std::make_shared<srkTorusSurf>(o, z, 1.0, 1.0),
        std::make_shared<srkTorusSurf>(o, z, 1.0, 2.0),
        std::make_shared<srkTorusSurf>(o, zero, 2.0, 1.0),
    };
    for (const srkSurfPtr& s : degenerate) {
        srkSurfPointList out;
        int info = 7;
        EXPECT_FALSE(std::static_pointer_cast<srkAnalyticSurf>(s)->valid());
        EXPECT_EQ(s->project_all(giPoint3(5, 6, 7), out, info), 0);
        EXPECT_EQ(out.size(), 0);
        EXPECT_FALSE(s->normal_at(srkSurfPoint(giPoint3(5, 6, 7)), giAngle()).is_set());
        srkSurfPtr h = s;
        EXPECT_EQ(srkSurf::transform(h, giXform3::identity()), 0);
    }
    // Valid surfaces: NaN and unset points; on the axis or at the centre every
    // point of a circle (or the sphere) would be a foot point.
    struct Miss {
        srkSurfPtr surf;
        giPoint3 p;
    } misses[] = {
        {std::make_shared<srkPlaneSurf>(o, z), bad},
        {std::make_shared<srkSphereSurf>(o, 1.0), giPoint3()},
        {std::make_shared<srkSphereSurf>(o, 1.0), o},
        {std::make_shared<srkCylinderSurf>(o, z, 1.0), giPoint3(1, 2, -40)},
        {std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, 30.0)), giPoint3(1, 2, 9)},
        {std::make_shared<srkConeSurf>(o, z, giAngle(giANGLE_DEGREES, 30.0)), giPoint3(3, 2, 1)},
        {std::make_shared<srkTorusSurf>(o, z, 2.0, 1.0), giPoint3(1, 2, 0.5)},
    };
    for (const Miss& m : misses) {
        srkSurfPointList out;
        out.append(srkSurfPoint(o));
        int info = 7;
        EXPECT_EQ(m.surf->project_all(m.p, out, info), 0);
        EXPECT_EQ(info, 0);
        EXPECT_EQ(out.size(), 1);  // nothing appended
    }
}

TEST(AnalyticSurfaces, TransformRefusesNonSimilarities) {
    srkSurfPtr none;
    EXPECT_EQ(srkSurf::transform(none, giXform3::identity()), 0);
    srkSurfPtr torus = std::make_shared<srkTorusSurf>(giPoint3(1, 2, 3), giVector3(0, 1, 1), 3, 1);
    giXform3 nan_shift = giXform3::identity(), shear = giXform3::identity();
    nan_shift(1, 3) = kNaN;
    shear(0, 1) = 0.1;
    const giXform3 refused[] = {giXform3(),
                                nan_shift,
                                shear,
                                giXform3::scaling(1, 1, 1.01),
                                giXform3::scaling(-1, -1, -1),
                                giXform3::scaling(0, 0, 0)};
    const giPoint3 p(4, 5, 6);
    srkSurfPointList before;
    int info;
    const int n = torus->project_all(p, before, info);
    for (const giXform3& x : refused) {
        EXPECT_EQ(srkSurf::transform(torus, x), 0);
        srkSurfPointList after;
        ASSERT_EQ(torus->project_all(p, after, info), n);
        for (int i = 0; i < n; ++i) EXPECT_TRUE(after[i].position == before[i].position);
    }
}

}  // namespace
