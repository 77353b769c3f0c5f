#include "metrofit/platform/surface/analytic_surfaces.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kTan30 = std::tan(kPi / 6.0);

enum Kind { kPlane, kSphere, kCylinder, kCone, kTorus };

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
    const giUnitVec3 z(1.0, 2.0, 3.0), x(cross(z, giVector3(0.0, 0.0, 1.0)));
    return {giPoint3(0.3 + offset, -0.2 - 0.7 * offset, 0.1 + 0.4 * offset), z, x,
            giUnitVec3(cross(z, x)), offset > 0 ? 3e-9 : 3e-12};
}
giPoint3 world(const Pose& f, double rho, double h, double phi) {
    return f.o + (f.x * (rho * std::cos(phi)) + f.y * (rho * std::sin(phi)) + f.z * h);
}
// (rho, h) of p.
std::pair<double, double> cylindrical(const Pose& f, const giPoint3& p) {
    const giVector3 q = p - f.o;
    return {std::hypot(dot(q, f.x), dot(q, f.y)), dot(q, f.z)};
}
// Signed distance of p, positive outside (the cone's: to the generating
// line on the point's side, valid for h > 0).
double distance(int k, const Pose& f, const giPoint3& p) {
    const auto [rho, h] = cylindrical(f, p);
    const double d[] = {h, std::hypot(rho, h) - 2.0, rho - 1.5,
                        rho * std::cos(kPi / 6) - h * std::sin(kPi / 6),
                        std::hypot(rho - 2.5, h) - 1.0};
    return d[k];
}

class AnalyticSurfaceShapes : public ::testing::TestWithParam<std::tuple<int, double>> {};

TEST_P(AnalyticSurfaceShapes, FootPointsAreExactSortedAndOutward) {
    const int k = std::get<0>(GetParam());
    const Pose f = make_pose(std::get<1>(GetParam()));
    const srkSurfPtr surf = make(k, f.o, f.z);
    testsupport::Rng rng(7);
    for (int m = 0; m < 12; ++m) {
        const giPoint3 p =
            world(f, rng.uniform(0.05, 4.0), rng.uniform(k == kCone ? 0.1 : -3.0, 3.0),
                  rng.uniform(0.0, 2 * kPi));
        const auto [rho, h] = cylindrical(f, p);
        srkSurfPointList feet;
        int info = -1;
        const int n = surf->project_all(p, feet, info);
        ASSERT_TRUE(n == count(k, rho, h) && info == n);
        for (int i = 0; i < n; ++i) {
            const giPoint3 s = feet[i].position;
            EXPECT_NEAR(distance(k, f, s), 0.0, f.tol);
            const giUnitVec3 nrm = surf->normal_at(feet[i], giAngle());
            const giVector3 d = p - s;
            EXPECT_LE(cross(nrm, d).length(), 1e-9 * d.length() + f.tol);
            // Outward: one millimetre along the normal is one millimetre outside.
            EXPECT_NEAR(distance(k, f, s + nrm * 1e-3), 1e-3, 1e-8);
            EXPECT_GE(d.length(), i ? (p - feet[i - 1].position).length() - f.tol : 0.0);
        }
    }
}

// A similarity moves the clone and leaves the original; transforms that are
// unset, not finite, sheared, unevenly scaled, reflecting or singular are
// refused without a change.
TEST_P(AnalyticSurfaceShapes, TransformMovesTheCloneAndLeavesTheOriginal) {
    const int k = std::get<0>(GetParam());
    const Pose f = make_pose(std::get<1>(GetParam()));
    const srkSurfPtr surf = make(k, f.o, f.z);
    srkSurfPtr moved = surf->clone();
    const giXform3 x = testsupport::random_motion(37.0, 50.0, 3) * giXform3::scaling(2.0, 2.0, 2.0);
    giXform3 nan_shift = giXform3::identity(), shear = giXform3::identity();
    nan_shift(1, 3) = kNaN;
    shear(0, 1) = 0.1;
    const giPoint3 p = world(f, 1.7, 1.2, 0.4);
    srkSurfPointList before, after, there;
    int info;
    const int n = surf->project_all(p, before, info);
    ASSERT_EQ(srkSurf::transform(moved, x), 1);
    for (const giXform3& bad : {giXform3(), nan_shift, shear, giXform3::scaling(1, 1, 1.01),
                                giXform3::scaling(-1, -1, -1), giXform3::scaling(0, 0, 0)})
        EXPECT_EQ(srkSurf::transform(moved, bad), 0);
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

// Degenerate surfaces refuse everything; valid ones give no foot point for
// NaN and unset points, nor on the axis or at the centre, where every point
// of a circle (or the sphere) would be one.
TEST(AnalyticSurfaces, RefusesDegenerateInputAndPointsWithoutAFootPoint) {
    using std::make_shared;
    const giPoint3 o(1, 2, 3), bad(kNaN, 0, 0), q(5, 6, 7);
    const giVector3 z(0, 0, 2), zero(0, 0, 0), nan_dir(kNaN, 0, 1);
    const auto deg = [](double a) { return giAngle(giANGLE_DEGREES, a); };
    const struct {
        srkSurfPtr surf;
        giPoint3 p;
        bool valid;
    } cases[] = {
        {make_shared<srkPlaneSurf>(o, zero), q, false},
        {make_shared<srkSphereSurf>(o, 0.0), q, false},
        {make_shared<srkCylinderSurf>(o, nan_dir, 1.0), q, false},
        {make_shared<srkConeSurf>(o, z, deg(0.0)), q, false},
        {make_shared<srkTorusSurf>(o, z, 1.0, 2.0), q, false},
        {make_shared<srkPlaneSurf>(o, z), bad, true},
        {make_shared<srkSphereSurf>(o, 1.0), o, true},
        {make_shared<srkCylinderSurf>(o, z, 1.0), giPoint3(1, 2, -40), true},
        {make_shared<srkConeSurf>(o, z, deg(30.0)), giPoint3(1, 2, 9), true},
        {make_shared<srkTorusSurf>(o, z, 2.0, 1.0), giPoint3(1, 2, 0.5), true},
    };
    for (const auto& c : cases) {
        srkSurfPointList out;
        out.append(srkSurfPoint(o));
        int info = 7;
        EXPECT_EQ(std::static_pointer_cast<srkAnalyticSurf>(c.surf)->valid(), c.valid);
        EXPECT_EQ(c.surf->project_all(c.p, out, info), 0);
        EXPECT_TRUE(info == 0 && out.size() == 1);  // nothing appended
        if (c.valid) continue;
        EXPECT_FALSE(c.surf->normal_at(srkSurfPoint(q), giAngle()).is_set());
        srkSurfPtr h = c.surf;
        EXPECT_EQ(srkSurf::transform(h, giXform3::identity()), 0);
    }
}

}  // namespace
