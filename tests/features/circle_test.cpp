#include "metrofit/features/circle.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <tuple>

#include "tests/support/gradient_check.h"
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

// Gradients against central differences, axes of any length; the guarded
// points (the planar centre, the spatial axis, the circle itself) give the
// stated finite gradients; a zero axis becomes (1, 0, 0).
TEST(CircleModels, GradientsMatchDifferencesAndGuardsHold) {
    const giPoint3coDynArr space = testsupport::transformed(
        testsupport::random_motion(40, 3, 2), testsupport::circle_points3(12, 5.0, 300, 0.4, 6));
    const giPoint2coDynArr plane = xy(space);
    doublecoDynArr radii;
    for (int i = 0; i < plane.size(); ++i) radii.append(0.2 * i - 1);
    tsLeastSquareCircle2 circle(plane);
    tsLeastSquareProbedCircle2 outside(plane, radii, 0), inside(plane, radii, 1);
    tsLeastSquareCircle3 circle3(space);
    for (mlDistanceLeastSquares* model :
         std::initializer_list<mlDistanceLeastSquares*>{&circle, &outside, &inside})
        testsupport::expect_gradient_matches(*model, {1.5, 0.5, 3}, 1e-6);
    testsupport::expect_gradient_matches(circle3, {-1, 2, 3, 1, 1, 0.5, 3}, 1e-6);

    const giPoint2coDynArr centre2 = {giPoint2(1, 1), giPoint2(4, 5)};
    tsLeastSquareCircle2 at_centre(centre2);
    at_centre.set_parameters({1, 1, 2});
    double d = 0;
    mlVector g(mlVectorZero, 3), g7(mlVectorZero, 7);
    at_centre.get_distance_and_gradient(d, g, 0);
    EXPECT_TRUE(d == -2 && g[0] == 0 && g[1] == 0 && g[2] == -1);

    // On the axis, 3 above the centre of a circle of radius 4: d = 5.
    const giPoint3coDynArr guarded = {giPoint3(1, 2, 6), giPoint3(5, 2, 3)};
    tsLeastSquareCircle3 model(guarded);
    model.set_parameters({1, 2, 3, 0, 0, 2, 4});
    model.get_distance_and_gradient(d, g7, 0);
    EXPECT_DOUBLE_EQ(d, 5);
    mlVector zero_axis = {1, 2, 3, 0, 0, 0, 4};
    model.normalize_parameters(zero_axis);
    EXPECT_TRUE(zero_axis[3] == 1 && zero_axis[4] == 0 && zero_axis[5] == 0);
}

// (arc in degrees, distance from the origin)
class CircleKnownTruth : public ::testing::TestWithParam<std::tuple<double, double>> {};

// Noisy arcs: the fits in space and in the plane lie near the truth, repeat
// themselves bit for bit, and turned and moved far from the origin (in the
// plane: moved) they move with the points.
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

    const giPoint3 shift = motion * giPoint3(0, 0, 0);
    const giPoint2coDynArr flat =
        testsupport::circle_points2(80, giPoint2(0, 0), radius, arc_degrees, sigma, 4);
    giPoint2coDynArr moved;
    for (const giPoint2& q : flat) moved.append(giPoint2(q.x() + shift.x(), q.y() + shift.y()));
    Circle2 f, g;
    ASSERT_EQ(fit2(flat, f), 1);
    ASSERT_EQ(fit2(moved, g), 1);
    EXPECT_LE(distance(f.c, giPoint2(0, 0)), truth_tol);
    EXPECT_LE(distance(g.c, giPoint2(f.c.x() + shift.x(), f.c.y() + shift.y())), tol);
    EXPECT_NEAR(g.r, f.r, tol);
}

INSTANTIATE_TEST_SUITE_P(Circle, CircleKnownTruth,
                         ::testing::Combine(::testing::Values(360.0, 20.0),
                                            ::testing::Values(0.0, 1e5)));

// Ball centres a probe radius off the circle: the touched circle comes back
// for a shaft and a bore; radii 0 give the plain fit bit for bit.
TEST(CircleProbed, ReportsTheTouchedCircle) {
    const giPoint2 truth(3, -4);
    const double radius = 12, rho = 1.5;
    for (const int inside : {0, 1}) {
        SCOPED_TRACE(inside);
        const giPoint2coDynArr centres = testsupport::circle_points2(
            40, truth, inside ? radius - rho : radius + rho, 250, 1e-3, 5);
        Circle2 touched, zero, plain;
        ASSERT_EQ(fit_probed(centres, filled(40, rho), inside, touched), 1);
        EXPECT_NEAR(touched.r, radius, 1e-3);  // about 6 sigma / sqrt(n), n = 40
        EXPECT_LE(distance(touched.c, truth), 1e-3);
        ASSERT_EQ(fit_probed(centres, filled(40, 0.0), inside, zero), 1);
        ASSERT_EQ(fit2(centres, plain), 1);
        EXPECT_TRUE(same(zero, plain));
    }
}

// Points lifted off the given plane by +-h, near and far from the origin (the
// plane given through another of its points): the circle in the plane is the
// one they were lifted from, and the error is h.
TEST(CircleFit, HeightsAboveTheGivenPlaneCountOnlyInTheError) {
    {
        const double offset = 1e5;
        const giXform3 motion = testsupport::random_motion(50, offset, 3);
        giPoint3coDynArr lifted;
        for (int i = 0; i < 36; ++i)
            lifted.append(motion * giPoint3(6 * std::cos(0.1 * i), 6 * std::sin(0.1 * i),
                                            i % 2 ? 0.25 : -0.25));
        Circle3 k;
        const double tol = 1e-12 + 1e-15 * offset;  // the rounding of the moved points
        ASSERT_EQ(fit_in_plane(motion * giPoint3(1, 1, 0), motion * giUnitVec3(0, 0, 1), lifted, k),
                  1);
        EXPECT_LE(distance(k.c, motion * giPoint3(0, 0, 0)), tol);
        EXPECT_NEAR(k.r, 6, tol);
        EXPECT_NEAR(k.e, 0.25, tol);
    }
}

// Past 10000 points evaluate_circle3 works on 10000: the first ones below
// 12000, an even spread from there. Points it must skip are made wild, so
// the fit equals the fit of the kept points alone, bit for bit.
TEST(CircleFit, LargeSetsUseTheStatedSubset) {
    const giPoint3coDynArr ring = testsupport::transformed(
        testsupport::random_motion(30, 5, 7), testsupport::circle_points3(10000, 20, 360, 1e-3, 2));
    Circle3 kept;
    ASSERT_EQ(fit3(ring, kept), 1);
    for (const int count : {11000, 15000}) {
        SCOPED_TRACE(count);
        giPoint3coDynArr all;
        all.expand(count);
        for (int i = 0; i < count; ++i) all[i] = giPoint3(1e3 * i, -5e2, 7e2);  // wild
        for (int i = 0; i < 10000; ++i)
            all[count < 12000 ? i : static_cast<int>(std::trunc(count * double(i) / 1e4))] =
                ring[i];
        Circle3 k;
        ASSERT_EQ(fit3(all, k), 1);
        EXPECT_TRUE(same(k, kept));
    }
}

// Refusals return 0 and leave the sentinels in place: too few or non-finite
// points for every entry point, probe radii not one finite value per point,
// an unset normal or a non-finite point for the given plane.
TEST(CircleRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr good = testsupport::circle_points3(8, 4, 360, 0, 1);
    giPoint3coDynArr two = good, nan_pt = good, inf_pt = good;
    two.shrink(2, 0);
    nan_pt[3] = giPoint3(NAN, 0, 0);
    inf_pt[5] = giPoint3(0, -INFINITY, 0);
    const doublecoDynArr radii = filled(8, 0.5);
    doublecoDynArr nan_r = radii;
    nan_r[2] = NAN;
    const Circle2 sentinel2{giPoint2(-1, -2), -4, -5};
    const Circle3 sentinel3{giPoint3(-1, -2, -3), giUnitVec3(0, 1, 0), -4, -5};
    Circle2 c2 = sentinel2;
    Circle3 c3 = sentinel3;
    const giUnitVec3 z(0, 0, 1);
    for (const giPoint3coDynArr& pts : {giPoint3coDynArr(), two, nan_pt, inf_pt}) {
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
