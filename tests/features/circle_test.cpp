#include "metrofit/features/circle.h"

#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using Evaluator = tsLeastSquareEvaluator;

struct Circle2 {
    giPoint2 c;
    double r = 0, e = 0;
};
struct Circle3 {
    giPoint3 c;
    giUnitVec3 n;
    double r = 0, e = 0;
};
bool same(const Circle2& a, const Circle2& b) { return a.c == b.c && a.r == b.r && a.e == b.e; }
bool same(const Circle3& a, const Circle3& b) {
    return a.c == b.c && a.n == b.n && a.r == b.r && a.e == b.e;
}

int fit2(const giPoint2coDynArr& pts, Circle2& k) {
    return Evaluator::evaluate_circle(pts, k.c, k.r, k.e);
}
int fit3(const giPoint3coDynArr& pts, Circle3& k) {
    return Evaluator::evaluate_circle3(pts, k.c, k.n, k.r, k.e);
}
int fit_in_plane(const giPoint3& at, const giUnitVec3& normal, const giPoint3coDynArr& pts,
                 Circle3& k) {
    return Evaluator::evaluate_circle2(at, normal, pts, k.c, k.r, k.e);
}
int fit_probed(const giPoint2coDynArr& pts, const doublecoDynArr& radii, int inside, Circle2& k) {
    return Evaluator::evaluate_probed_circle(pts, radii, inside, k.c, k.r, k.e);
}

doublecoDynArr filled(int n, double value) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(value);
    return out;
}

double undirected(const giVector3& u, const giVector3& v) {
    return testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z());
}

giPoint2coDynArr xy(const giPoint3coDynArr& pts) {
    giPoint2coDynArr out;
    for (const giPoint3& p : pts) out.append(giPoint2(p.x(), p.y()));
    return out;
}

// Every reference circle, in the plane and in space, within its tolerances.
TEST(CircleReference, MatchesEveryReferenceFit) {
    for (const auto& f : testsupport::reference_fits("circle2")) {
        SCOPED_TRACE(f.id);
        Circle2 k;
        ASSERT_EQ(fit2(testsupport::reference_points2(f.file), k), 1);
        EXPECT_LE(distance(k.c, giPoint2(f.params[0], f.params[1])), f.tol_position);
        EXPECT_NEAR(k.r, f.params[2], f.tol_size);
        EXPECT_NEAR(k.e, f.rms, f.tol_rms);
    }
    for (const auto& f : testsupport::reference_fits("circle3")) {
        SCOPED_TRACE(f.id);
        Circle3 k;
        ASSERT_EQ(fit3(testsupport::reference_points3(f.file), k), 1);
        EXPECT_LE(distance(k.c, giPoint3(f.params[0], f.params[1], f.params[2])), f.tol_position);
        EXPECT_LE(undirected(k.n, giVector3(f.params[3], f.params[4], f.params[5])),
                  f.tol_orientation);
        EXPECT_NEAR(k.r, f.params[6], f.tol_size);
        EXPECT_NEAR(k.e, f.rms, f.tol_rms);
    }
}

// (arc in degrees, distance from the origin)
class CircleKnownTruth : public ::testing::TestWithParam<std::tuple<double, double>> {};

// Noisy arcs: the fit in space lies near the truth, repeats itself bit for
// bit, and turned and moved far from the origin it moves with the points.
TEST_P(CircleKnownTruth, NearTheTruthAndMovesWithThePoints) {
    const auto [arc_degrees, offset] = GetParam();
    const double radius = 10, sigma = 1e-3;
    // 1e-9 relative, plus the rounding that coordinates of size offset carry.
    const double tol = 1e-9 * radius + 1e-11 * offset;
    // 6 sigma / sqrt(n) for a full circle; an arc of a radians pins the
    // centre about 12 / a^2 times worse.
    const double arc = arc_degrees * testsupport::kPi / 180;
    const double truth_tol = 6 * sigma / std::sqrt(80.0) / std::fmin(1.0, arc * arc / 12);
    const giXform3 motion = testsupport::random_motion(67, offset, 11);

    // Radial and axial noise both count in the error.
    const giPoint3coDynArr space = testsupport::circle_points3(80, radius, arc_degrees, sigma, 3);
    Circle3 s, again, m;
    ASSERT_EQ(fit3(space, s), 1);
    ASSERT_EQ(fit3(space, again), 1);
    EXPECT_TRUE(same(s, again));
    EXPECT_LE(distance(s.c, giPoint3(0, 0, 0)), truth_tol);
    EXPECT_NEAR(s.e, sigma * std::sqrt(2.0), 0.3 * sigma);
    ASSERT_EQ(fit3(testsupport::transformed(motion, space), m), 1);
    EXPECT_LE(distance(m.c, motion * s.c), tol);
    EXPECT_LE(undirected(m.n, motion * s.n), tol / radius);
    EXPECT_NEAR(m.r, s.r, tol);
    EXPECT_NEAR(m.e, s.e, tol);
}

INSTANTIATE_TEST_SUITE_P(Circle, CircleKnownTruth,
                         ::testing::Combine(::testing::Values(360.0, 20.0),
                                            ::testing::Values(0.0, 1e5)));

// Ball centres a probe radius off the circle: the touched circle comes back
// for a shaft and a bore.
TEST(CircleProbed, ReportsTheTouchedCircle) {
    const giPoint2 truth(3, -4);
    const double radius = 12, rho = 1.5;
    for (const int inside : {0, 1}) {
        SCOPED_TRACE(inside);
        const giPoint2coDynArr centres = testsupport::circle_points2(
            40, truth, inside ? radius - rho : radius + rho, 250, 1e-3, 5);
        Circle2 touched;
        ASSERT_EQ(fit_probed(centres, filled(40, rho), inside, touched), 1);
        EXPECT_NEAR(touched.r, radius, 1e-3);  // about 6 sigma / sqrt(n), n = 40
        EXPECT_LE(distance(touched.c, truth), 1e-3);
    }
}

// Points lifted off the given plane by +-h, near and far from the origin (the
// plane given through another of its points): the circle in the plane is the
// one they were lifted from, and the error is h.
TEST(CircleFit, HeightsAboveTheGivenPlaneCountOnlyInTheError) {
    const giXform3 motion = testsupport::random_motion(50, 1e5, 3);
    giPoint3coDynArr lifted;
    for (int i = 0; i < 36; ++i)
        lifted.append(motion *
                      giPoint3(6 * std::cos(0.1 * i), 6 * std::sin(0.1 * i), i % 2 ? 0.25 : -0.25));
    Circle3 k;
    const double tol = 1e-12 + 1e-15 * 1e5;  // the rounding of the moved points
    ASSERT_EQ(fit_in_plane(motion * giPoint3(1, 1, 0), motion * giUnitVec3(0, 0, 1), lifted, k), 1);
    EXPECT_LE(distance(k.c, motion * giPoint3(0, 0, 0)), tol);
    EXPECT_NEAR(k.r, 6, tol);
    EXPECT_NEAR(k.e, 0.25, tol);
}

// Refusals return 0 and leave the sentinels in place: too few or non-finite
// points for every entry point, probe radii not one finite value per point,
// an unset normal or a non-finite point for the given plane.
TEST(CircleRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr good = testsupport::circle_points3(8, 4, 360, 0, 1);
    giPoint3coDynArr two = good, nan_pt = good;
    two.shrink(2, 0);
    nan_pt[3] = giPoint3(NAN, 0, 0);
    const doublecoDynArr radii = filled(8, 0.5);
    doublecoDynArr nan_r = radii;
    nan_r[2] = NAN;
    const Circle2 sentinel2{giPoint2(-1, -2), -4, -5};
    const Circle3 sentinel3{giPoint3(-1, -2, -3), giUnitVec3(0, 1, 0), -4, -5};
    Circle2 c2 = sentinel2;
    Circle3 c3 = sentinel3;
    const giUnitVec3 z(0, 0, 1);
    for (const giPoint3coDynArr& pts : {giPoint3coDynArr(), two, nan_pt}) {
        EXPECT_EQ(fit2(xy(pts), c2), 0);
        EXPECT_EQ(fit_in_plane(giPoint3(0, 0, 0), z, pts, c3), 0);
        EXPECT_EQ(fit3(pts, c3), 0);
        EXPECT_EQ(fit_probed(xy(pts), radii, 1, c2), 0);
    }
    for (const doublecoDynArr& bad : {filled(7, 0.5), filled(9, 0.5), nan_r})
        EXPECT_EQ(fit_probed(xy(good), bad, 0, c2), 0);
    EXPECT_EQ(fit_in_plane(giPoint3(0, 0, 0), giUnitVec3(), good, c3), 0);
    EXPECT_EQ(fit_in_plane(giPoint3(0, NAN, 0), z, good, c3), 0);
    EXPECT_TRUE(same(c2, sentinel2) && same(c3, sentinel3));
}

}  // namespace
