#include "metrofit/features/circle.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <ostream>

#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::LongVector;

// Independent least-squares circle in the plane (centre, radius), probe
// offsets q_i (|P - C| + q_i - r) included, from a start at the truth.
LongVector reference_circle2(const giPoint2coDynArr& pts, const doublecoDynArr& q,
                             const giPoint2& c, double r) {
    const auto residuals = [&](const LongVector& p, LongVector& res) {
        for (int i = 0; i < pts.size(); ++i)
            res[i] =
                std::hypot(pts[i].x() - p[0], pts[i].y() - p[1]) + (i < q.size() ? q[i] : 0) - p[2];
    };
    return testsupport::gauss_newton(residuals, {c.x(), c.y(), r}, pts.size());
}

// Independent least-squares circle in space: two residuals per point, the
// radial and the axial offset; the axis in spherical angles.
struct SpaceCircle {
    giPoint3 centre;
    giVector3 axis;
    double radius;
};
SpaceCircle reference_circle3(const giPoint3coDynArr& pts, const giPoint3& c, const giVector3& n,
                              double r) {
    const auto axis = [](long double theta, long double phi) {
        return giVector3(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                         std::cos(theta));
    };
    const auto residuals = [&](const LongVector& p, LongVector& res) {
        const long double st = std::sin(p[3]), ux = st * std::cos(p[4]), uy = st * std::sin(p[4]),
                          uz = std::cos(p[3]);
        for (int i = 0; i < pts.size(); ++i) {
            const long double vx = pts[i].x() - p[0], vy = pts[i].y() - p[1],
                              vz = pts[i].z() - p[2];
            const long double h = ux * vx + uy * vy + uz * vz;
            res[2 * i] = std::sqrt(vx * vx + vy * vy + vz * vz - h * h) - p[5];
            res[2 * i + 1] = h;
        }
    };
    const LongVector p = testsupport::gauss_newton(
        residuals, {c.x(), c.y(), c.z(), std::acos(n.z()), std::atan2(n.y(), n.x()), r},
        2 * pts.size());
    return {giPoint3(p[0], p[1], p[2]), axis(p[3], p[4]), static_cast<double>(p[5])};
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
        giPoint2 c;
        double r = 0, e = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle(testsupport::reference_points2(f.file), c,
                                                          r, e),
                  1);
        EXPECT_LE(distance(c, giPoint2(f.params[0], f.params[1])), f.tol_position);
        EXPECT_NEAR(r, f.params[2], f.tol_size);
        EXPECT_NEAR(e, f.rms, f.tol_rms);
    }
    for (const auto& f : testsupport::reference_fits("circle3")) {
        SCOPED_TRACE(f.id);
        giPoint3 c;
        giUnitVec3 n;
        double r = 0, e = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle3(testsupport::reference_points3(f.file),
                                                           c, n, r, e),
                  1);
        EXPECT_LE(distance(c, giPoint3(f.params[0], f.params[1], f.params[2])), f.tol_position);
        EXPECT_LE(undirected(n, giVector3(f.params[3], f.params[4], f.params[5])),
                  f.tol_orientation);
        EXPECT_NEAR(r, f.params[6], f.tol_size);
        EXPECT_NEAR(e, f.rms, f.tol_rms);
    }
}

// Analytic gradients against central differences, with axes of any length;
// the guarded points (the planar centre, the spatial axis and the circle
// itself) give finite gradients with the stated entries.
TEST(CircleModels, GradientsMatchDifferencesAndGuardsHold) {
    const giPoint3coDynArr space = testsupport::transformed(
        testsupport::random_motion(40, 3, 2), testsupport::circle_points3(12, 5.0, 300, 0.4, 6));
    const giPoint2coDynArr plane = xy(space);
    doublecoDynArr radii;
    for (int i = 0; i < plane.size(); ++i) radii.append(0.2 * i - 1);
    tsLeastSquareCircle2 circle(plane);
    tsLeastSquareProbedCircle2 outside(plane, radii, 0), inside(plane, radii, 1);
    tsLeastSquareCircle3 circle3(space);
    for (const mlVector& p : {mlVector{0.1, -0.2, 5}, mlVector{1.5, 0.5, 3}}) {
        expect_gradient_matches(circle, p, 1e-6);
        expect_gradient_matches(outside, p, 1e-6);
        expect_gradient_matches(inside, p, 1e-6);
    }
    for (const mlVector& p :
         {mlVector{0.2, 0.1, 2.9, 0.3, -0.4, 2.0, 5}, mlVector{-1, 2, 3, 1, 1, 0.5, 3}})
        expect_gradient_matches(circle3, p, 1e-6);

    giPoint2coDynArr centre2 = {giPoint2(1, 1), giPoint2(4, 5)};
    tsLeastSquareCircle2 at_centre(centre2);
    at_centre.set_parameters({1, 1, 2});
    double d = 0;
    mlVector g(mlVectorZero, 3);
    at_centre.get_distance_and_gradient(d, g, 0);
    EXPECT_TRUE(d == -2 && g[0] == 0 && g[1] == 0 && g[2] == -1);

    // On the axis, 3 above the centre of a circle of radius 4: d = 5, and
    // only the centre's height and the radius move it. On the circle: zeros.
    giPoint3coDynArr guarded = {giPoint3(1, 2, 6), giPoint3(5, 2, 3)};
    tsLeastSquareCircle3 model(guarded);
    model.set_parameters({1, 2, 3, 0, 0, 2, 4});
    mlVector g7(mlVectorZero, 7);
    model.get_distance_and_gradient(d, g7, 0);
    EXPECT_DOUBLE_EQ(d, 5);
    EXPECT_DOUBLE_EQ(model.get_last_square_distance(), 25);
    const double on_axis[7] = {0, 0, -0.6, 0, 0, 0, 0.8};
    for (int j = 0; j < 7; ++j) EXPECT_NEAR(g7[j], on_axis[j], 1e-15) << j;
    model.get_distance_and_gradient(d, g7, 1);
    EXPECT_EQ(d, 0);
    for (int j = 0; j < 7; ++j) EXPECT_EQ(g7[j], 0) << j;
    mlVector zero_axis = {1, 2, 3, 0, 0, 0, 4};
    model.normalize_parameters(zero_axis);
    EXPECT_TRUE(zero_axis[3] == 1 && zero_axis[4] == 0 && zero_axis[5] == 0);
}

struct ArcCase {
    double arc_degrees, offset;
};
void PrintTo(const ArcCase& c, std::ostream* os) { *os << c.arc_degrees << "deg@" << c.offset; }

class CircleKnownTruth : public ::testing::TestWithParam<ArcCase> {};

// Noisy arcs, turned and moved far from the origin: every entry point lands
// on the least-squares optimum of its problem (checked against an
// independent solution) and near the truth.
TEST_P(CircleKnownTruth, ReachesTheLeastSquaresCircle) {
    const ArcCase& k = GetParam();
    const double radius = 10, sigma = 1e-3;
    // 1e-9 relative, plus the rounding that coordinates of size offset carry.
    const double tol = 1e-9 * radius + 1e-11 * k.offset;
    // 6 sigma / sqrt(n) for a full circle; an arc of a radians pins the
    // centre about 12 / a^2 times worse.
    const double arc = k.arc_degrees * testsupport::kPi / 180;
    const double truth_tol = 6 * sigma / std::sqrt(80.0) / std::fmin(1.0, arc * arc / 12);
    const giXform3 motion = testsupport::random_motion(67, k.offset, 11);
    const giPoint3 centre = motion * giPoint3(0, 0, 0);
    const giUnitVec3 normal = motion * giUnitVec3(0, 0, 1);

    // In space, free.
    const giPoint3coDynArr space = testsupport::transformed(
        motion, testsupport::circle_points3(80, radius, k.arc_degrees, sigma, 3));
    giPoint3 c;
    giUnitVec3 n;
    double r = 0, e = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle3(space, c, n, r, e), 1);
    const SpaceCircle ref = reference_circle3(space, centre, normal, radius);
    EXPECT_LE(distance(c, ref.centre), tol);
    EXPECT_LE(undirected(n, ref.axis), tol / radius);
    EXPECT_NEAR(r, ref.radius, tol);
    EXPECT_LE(distance(c, centre), truth_tol);
    EXPECT_NEAR(e, sigma * std::sqrt(2.0), 0.3 * sigma);  // radial and axial noise
    giPoint3 c_again;
    giUnitVec3 n_again;
    double r_again = 0, e_again = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle3(space, c_again, n_again, r_again, e_again),
              1);
    EXPECT_TRUE(c_again == c && n_again == n && r_again == r && e_again == e);  // bit for bit

    // In the given (true) plane: the planar optimum of the projected points,
    // mapped back; the heights count in the error.
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle2(centre, normal, space, c, r, e), 1);
    const giUnitVec3 ex = motion * giUnitVec3(1, 0, 0), ey = motion * giUnitVec3(0, 1, 0);
    giPoint2coDynArr local;
    for (const giPoint3& p : space)
        local.append(giPoint2(dot(p - centre, ex), dot(p - centre, ey)));
    const LongVector ref2 = reference_circle2(local, doublecoDynArr(), giPoint2(0, 0), radius);
    EXPECT_LE(
        distance(c, centre + static_cast<double>(ref2[0]) * ex + static_cast<double>(ref2[1]) * ey),
        tol);
    EXPECT_NEAR(r, static_cast<double>(ref2[2]), tol);
    EXPECT_NEAR(e, sigma * std::sqrt(2.0), 0.3 * sigma);

    // In the plane: the planar points moved by the same shift.
    giPoint2coDynArr flat;
    for (const giPoint2& p :
         testsupport::circle_points2(80, giPoint2(0, 0), radius, k.arc_degrees, sigma, 4))
        flat.append(giPoint2(p.x() + centre.x(), p.y() + centre.y()));
    giPoint2 c2;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle(flat, c2, r, e), 1);
    const LongVector ref3 =
        reference_circle2(flat, doublecoDynArr(), giPoint2(centre.x(), centre.y()), radius);
    EXPECT_LE(distance(c2, giPoint2(ref3[0], ref3[1])), tol);
    EXPECT_NEAR(r, static_cast<double>(ref3[2]), tol);
    EXPECT_LE(distance(c2, giPoint2(centre.x(), centre.y())), truth_tol);
}

INSTANTIATE_TEST_SUITE_P(Circle, CircleKnownTruth,
                         ::testing::Values(ArcCase{360, 0}, ArcCase{360, 1e3}, ArcCase{360, 1e5},
                                           ArcCase{90, 0}, ArcCase{90, 1e3}, ArcCase{90, 1e5},
                                           ArcCase{20, 0}, ArcCase{20, 1e3}, ArcCase{20, 1e5}));

// Ball centres a probe radius off the circle: the touched radius comes back
// for a shaft (outside) and a bore (inside); balls of varying radius with
// noise reach the least-squares optimum; with all radii 0 the probed fit
// starts where the plain one does and agrees with it bit for bit.
TEST(CircleProbed, ReportsTheTouchedCircle) {
    const giPoint2 truth(3, -4);
    const double radius = 12, rho = 1.5;
    doublecoDynArr radii, zeros;
    for (int i = 0; i < 40; ++i) {
        radii.append(rho);
        zeros.append(0.0);
    }
    giPoint2 c, c0;
    double r = 0, e = 0, r0 = 0, e0 = 0;
    for (const int inside : {0, 1}) {
        const giPoint2coDynArr centres = testsupport::circle_points2(
            40, truth, inside ? radius - rho : radius + rho, 250, 1e-3, 5);
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_circle(centres, radii, inside, c, r, e),
                  1);
        EXPECT_NEAR(r, radius, 1e-3) << inside;  // about 6 sigma / sqrt(n), n = 40
        EXPECT_LE(distance(c, truth), 1e-3) << inside;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_circle(centres, zeros, inside, c, r, e),
                  1);
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle(centres, c0, r0, e0), 1);
        EXPECT_TRUE(c == c0 && r == r0 && e == e0) << inside;
    }

    testsupport::Rng rng(8);
    giPoint2coDynArr noisy;
    doublecoDynArr varying, offsets;
    for (const giPoint2& p : testsupport::circle_points2(90, truth, radius, 120, 2e-3, 6)) {
        const double b = rng.uniform(0.5, 3.0);
        noisy.append(p + (p - truth) * (b / distance(p, truth)));
        varying.append(b);
        offsets.append(-b);
    }
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_circle(noisy, varying, 0, c, r, e), 1);
    const LongVector ref = reference_circle2(noisy, offsets, truth, radius);
    EXPECT_LE(distance(c, giPoint2(ref[0], ref[1])), 1e-9 * radius);
    EXPECT_NEAR(r, static_cast<double>(ref[2]), 1e-9 * radius);
}

// Points lifted off the given plane by +-h: the circle in the plane is the
// one they were lifted from, and the error is h.
TEST(CircleFit, HeightsAboveTheGivenPlaneCountOnlyInTheError) {
    const giXform3 motion = testsupport::random_motion(50, 10, 3);
    giPoint3coDynArr lifted;
    for (int i = 0; i < 36; ++i) {
        const double t = 0.1 * i;
        lifted.append(motion * giPoint3(6 * std::cos(t), 6 * std::sin(t), i % 2 ? 0.25 : -0.25));
    }
    giPoint3 c;
    double r = 0, e = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle2(
                  motion * giPoint3(1, 1, 0), motion * giUnitVec3(0, 0, 1), lifted, c, r, e),
              1);
    EXPECT_LE(distance(c, motion * giPoint3(0, 0, 0)), 1e-12);
    EXPECT_NEAR(r, 6, 1e-12);
    EXPECT_NEAR(e, 0.25, 1e-12);
}

// Past 10000 points evaluate_circle3 works on 10000: the first ones below
// 12000, an even spread from there. Points it must skip are made wild, so
// the fit equals the fit of the kept points alone, bit for bit.
TEST(CircleFit, LargeSetsUseTheStatedSubset) {
    const giPoint3coDynArr ring = testsupport::transformed(
        testsupport::random_motion(30, 5, 7), testsupport::circle_points3(10000, 20, 360, 1e-3, 2));
    giPoint3 c0;
    giUnitVec3 n0;
    double r0 = 0, e0 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle3(ring, c0, n0, r0, e0), 1);
    for (const int count : {11000, 15000}) {
        SCOPED_TRACE(count);
        giPoint3coDynArr all;
        all.expand(count);
        for (int i = 0; i < count; ++i) all[i] = giPoint3(1e3 * i, -5e2, 7e2);  // wild
        for (int i = 0; i < 10000; ++i)
            all[count < 12000
                    ? i
                    : static_cast<int>(std::trunc(count * static_cast<double>(i) / 1e4))] = ring[i];
        giPoint3 c;
        giUnitVec3 n;
        double r = 0, e = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle3(all, c, n, r, e), 1);
        EXPECT_TRUE(c == c0 && n == n0 && r == r0 && e == e0);
    }
}

// Refusals return 0 and leave the sentinels in place: bad points for every
// entry point, bad probe radii for the probed fit, a bad plane for
// evaluate_circle2.
TEST(CircleRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr good = testsupport::circle_points3(8, 4, 360, 0, 1);
    giPoint3coDynArr two = good, nan_pt = good, inf_pt = good;
    two.shrink(2, 0);
    nan_pt[3] = giPoint3(NAN, 0, 0);
    inf_pt[5] = giPoint3(0, -INFINITY, 0);
    doublecoDynArr radii;
    for (int i = 0; i < 8; ++i) radii.append(0.5);
    doublecoDynArr fewer = radii, more = radii, nan_r = radii;
    fewer.shrink(7, 0);
    more.append(0.5);
    nan_r[2] = NAN;
    giPoint2 c2(-1, -2);
    giPoint3 c3(-1, -2, -3);
    giUnitVec3 n(0, 1, 0);
    double r = -4, e = -5;
    for (const giPoint3coDynArr& pts : {giPoint3coDynArr(), two, nan_pt, inf_pt}) {
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_circle(xy(pts), c2, r, e), 0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1),
                                                           pts, c3, r, e),
                  0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_circle3(pts, c3, n, r, e), 0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_circle(xy(pts), radii, 1, c2, r, e), 0);
    }
    for (const doublecoDynArr& bad : {fewer, more, nan_r})
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_circle(xy(good), bad, 0, c2, r, e), 0);
    EXPECT_EQ(
        tsLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), giUnitVec3(), good, c3, r, e),
        0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_circle2(giPoint3(0, NAN, 0), giUnitVec3(0, 0, 1),
                                                       good, c3, r, e),
              0);
    EXPECT_TRUE(c2 == giPoint2(-1, -2) && c3 == giPoint3(-1, -2, -3) && n == giUnitVec3(0, 1, 0) &&
                r == -4 && e == -5);
}

}  // namespace
