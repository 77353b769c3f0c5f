#include "metrofit/features/plane.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "metrofit/util/utils.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::LongVector;

double angle_between(const giVector3& u, const giVector3& v) {
    return testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z());
}

// Independent least-squares plane n.X = h minimising sum (n.P_i - h - q_i)^2
// over unit n: n = unit(guess + a t1 + b t2), parameters (h, a, b), from a
// start at the guess. Returns (h, nx, ny, nz).
LongVector reference_plane(const giPoint3coDynArr& pts, const doublecoDynArr& q,
                           const giUnitVec3& guess, double h) {
    giVector3 t1;
    tsUtils::get_orthogonal(guess, t1);
    const giVector3 t2 = cross(guess, t1);
    const auto normal = [&](const LongVector& p, long double* n) {
        long double len = 0;
        for (int k = 0; k < 3; ++k) {
            n[k] = guess[k] + p[1] * t1[k] + p[2] * t2[k];
            len += n[k] * n[k];
        }
        for (int k = 0; k < 3; ++k) n[k] /= std::sqrt(len);
    };
    const auto residuals = [&](const LongVector& p, LongVector& r) {
        long double n[3];
        normal(p, n);
        for (int i = 0; i < pts.size(); ++i)
            r[i] = n[0] * pts[i].x() + n[1] * pts[i].y() + n[2] * pts[i].z() - p[0] -
                   (i < q.size() ? q[i] : 0);
    };
    const LongVector p = testsupport::gauss_newton(residuals, {h, 0, 0}, pts.size());
    long double n[3];
    normal(p, n);
    return {p[0], n[0], n[1], n[2]};
}

// Every reference plane: the reference point on the fitted plane, the normal
// and the rms within the stated bounds.
TEST(PlaneReference, MatchesEveryReferenceFit) {
    const auto fits = testsupport::reference_fits("plane");
    ASSERT_EQ(fits.size(), 6u);
    for (const auto& f : fits) {
        SCOPED_TRACE(f.id);
        const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
        giPoint3 p;
        giUnitVec3 n;
        double error = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_plane(pts, p, n, error), 1);
        const giPoint3 ref(f.params[0], f.params[1], f.params[2]);
        EXPECT_LE(std::abs(dot(n, ref - p)), f.tol_position);
        EXPECT_LE(angle_between(n, giVector3(f.params[3], f.params[4], f.params[5])),
                  f.tol_orientation);
        EXPECT_NEAR(error, f.rms, f.tol_rms);
    }
}

// A tilted noisy patch moved by 1e3 and 1e5: the fit is the least-squares
// plane (1e-9 rad, 1e-9 of the size), and it moves with the points.
TEST(PlaneKnownTruth, RecoversLeastSquaresPlaneAnywhere) {
    const giPoint3coDynArr flat = testsupport::plane_points(400, 60, 8, 1e-3, 21);
    for (const double offset : {0.0, 1e3, 1e5}) {
        SCOPED_TRACE(offset);
        const giXform3 motion = testsupport::random_motion(63, offset, 22);
        const giPoint3coDynArr pts = testsupport::transformed(motion, flat);
        giPoint3 p;
        giUnitVec3 n;
        double error = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_plane(pts, p, n, error), 1);
        giPoint3 p2;
        giUnitVec3 n2;
        double error2 = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_plane(pts, p2, n2, error2), 1);
        EXPECT_TRUE(p2 == p && n2 == n && error2 == error);  // bit for bit
        const giUnitVec3 truth = motion * giUnitVec3(giZAxis);
        const LongVector ref =
            reference_plane(pts, doublecoDynArr(), truth, dot(truth, p - giPoint3(giOrigin)));
        const giVector3 ref_n(ref[1], ref[2], ref[3]);
        EXPECT_LE(angle_between(n, ref_n), 1e-9);
        EXPECT_NEAR(std::abs(dot(ref_n, p.to_vector())), std::abs(static_cast<double>(ref[0])),
                    1e-9 * 60 + 1e-12 * offset);
        EXPECT_LE(angle_between(n, truth),
                  1e-3 / std::sqrt(400.0) * 10);  // ~ sigma/(extent sqrt n)
        EXPECT_NEAR(error, 1e-3, 1e-4);
    }
}

// Exact cases: three points give their plane; two points, NaN or infinite
// coordinates are refused with the outputs untouched.
TEST(PlaneDirect, FitsThreePointsAndRefusesBadInput) {
    giPoint3coDynArr three = {giPoint3(1, 0, 2), giPoint3(0, 1, 2), giPoint3(0, 0, 3)};
    giPoint3 p;
    giUnitVec3 n;
    double error = -1;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_plane(three, p, n, error), 1);
    EXPECT_LE(angle_between(n, giVector3(1, 1, 1)), 1e-15);
    EXPECT_LT(error, 1e-15);
    EXPECT_NEAR(dot(n, p - three[0]), 0.0, 1e-15);

    // Equal points are not refused: some unit normal through the point.
    const giPoint3coDynArr same = {giPoint3(1, 2, 3), giPoint3(1, 2, 3), giPoint3(1, 2, 3)};
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_plane(same, p, n, error), 1);
    EXPECT_EQ(p, giPoint3(1, 2, 3));
    EXPECT_NEAR(n.length(), 1.0, 1e-15);
    EXPECT_EQ(error, 0.0);

    giPoint3coDynArr empty, two = three, nan_pt = three, inf_pt = three;
    two.shrink(2, 0);
    nan_pt[0] = giPoint3(NAN, 0, 0);
    inf_pt[2] = giPoint3(0, 0, -INFINITY);
    for (const giPoint3coDynArr* bad : {&empty, &two, &nan_pt, &inf_pt}) {
        giPoint3 q(5, 5, 5);
        giUnitVec3 m(giXAxis);
        double e = -7;
        doublecoDynArr radii;
        for (int i = 0; i < bad->size(); ++i) radii.append(1.0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_plane(*bad, q, m, e), 0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(*bad, radii, giUnitVec3coDynArr(),
                                                                q, m, e),
                  0);
        EXPECT_TRUE(q == giPoint3(5, 5, 5) && m == giUnitVec3(giXAxis) && e == -7);
    }
}

// Ball centres at rho along the outward normal of a known surface, the
// contact directions along that normal: the fit is the touched surface, its
// normal points along the directions, and the output point is the foot of
// the origin MINUS the in-plane part of the centres' centroid (not its
// projection). With radii that differ per point the fit is the
// least-squares optimum.
TEST(PlaneProbed, FitsTheTouchedSurfaceAndOrientsTheNormal) {
    const giXform3 motion = testsupport::random_motion(40, 700, 31);
    const giUnitVec3 outward = motion * giUnitVec3(0, 0, -1);
    const double height = dot(outward, motion * giPoint3(0, 0, 0) - giPoint3(giOrigin));
    testsupport::Rng rng(32);
    giPoint3coDynArr centres;
    doublecoDynArr radii, offsets;
    giUnitVec3coDynArr directions;
    for (const giPoint3& s : testsupport::plane_points(120, 30, 20, 0.0, 33)) {
        const double rho = rng.uniform(0.5, 2.0);
        centres.append(motion * s + outward * (rho + rng.normal(1e-4)));
        radii.append(rho);
        offsets.append(rho);
        directions.append(outward);
    }
    giPoint3 p;
    giUnitVec3 n;
    double error = 0;
    ASSERT_EQ(
        tsLeastSquareEvaluator::evaluate_probed_plane(centres, radii, directions, p, n, error), 1);
    EXPECT_GT(dot(n, outward), 0.0);
    EXPECT_LE(angle_between(n, outward), 1e-5);
    EXPECT_NEAR(error, 1e-4, 3e-5);
    const LongVector ref = reference_plane(centres, offsets, outward, height);
    EXPECT_LE(angle_between(n, giVector3(ref[1], ref[2], ref[3])), 1e-9);
    EXPECT_NEAR(dot(n, p.to_vector()), static_cast<double>(ref[0]), 1e-9 * 700);

    // The output point: h n - (p0 - (n.p0) n), p0 the centres' centroid.
    giVector3 sum(0, 0, 0);
    for (const giPoint3& c : centres) sum += c.to_vector();
    const giVector3 p0 = sum / centres.size();
    const giVector3 ref_n(ref[1], ref[2], ref[3]);
    const giVector3 expected = static_cast<double>(ref[0]) * ref_n - (p0 - dot(ref_n, p0) * ref_n);
    EXPECT_LE(distance(p, giPoint3(expected)), 1e-6);  // 1e-9 rad times |p0| of about 700
    EXPECT_GT(distance(p, giPoint3(p0 - (dot(outward, p0) - height) * outward)), 1.0);

    // Contact directions reversed: the normal follows them.
    giUnitVec3coDynArr inward;
    for (const giUnitVec3& u : directions) inward.append(-u);
    giPoint3 p2;
    giUnitVec3 n2;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(centres, radii, inward, p2, n2, error),
              1);
    EXPECT_LT(dot(n2, outward), 0.0);
}

// Without contact directions both sides are fitted and the better kept: with
// radii that differ per point only the true side fits, on either side.
TEST(PlaneProbed, WithoutDirectionsFindsTheSideOfTheBalls) {
    testsupport::Rng rng(41);
    for (const double sense : {1.0, -1.0}) {
        giPoint3coDynArr centres;
        doublecoDynArr radii;
        for (const giPoint3& s : testsupport::plane_points(60, 10, 10, 0.0, 42)) {
            const double rho = rng.uniform(0.5, 2.0);
            centres.append(s + giVector3(0, 0, sense * rho));
            radii.append(rho);
        }
        giPoint3 p;
        giUnitVec3 n;
        double error = 1;
        giUnitVec3coDynArr unset;
        unset.expand(60);  // unset directions add nothing
        for (const giUnitVec3coDynArr& dirs : {giUnitVec3coDynArr(), unset}) {
            ASSERT_EQ(
                tsLeastSquareEvaluator::evaluate_probed_plane(centres, radii, dirs, p, n, error),
                1);
            EXPECT_LE(angle_between(n, giVector3(0, 0, 1)), 1e-12);
            EXPECT_NEAR(p.z(), 0.0, 1e-12);
            EXPECT_LT(error, 1e-12);
        }
    }
}

// Directions of the wrong length, probe radii of the wrong length or
// non-finite: refused, outputs untouched.
TEST(PlaneProbed, RefusesMismatchedArrays) {
    const giPoint3coDynArr pts = testsupport::plane_points(5, 1, 1, 0, 1);
    doublecoDynArr radii = {1, 1, 1, 1, 1}, fewer = {1, 1, 1, 1}, nan_r = {1, 1, NAN, 1, 1};
    giUnitVec3coDynArr dirs, one = {giUnitVec3(giZAxis)};
    for (int i = 0; i < 5; ++i) dirs.append(giUnitVec3(giZAxis));
    giPoint3 p(1, 2, 3);
    giUnitVec3 n(giYAxis);
    double error = -1;
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(pts, fewer, dirs, p, n, error), 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(pts, nan_r, dirs, p, n, error), 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, one, p, n, error), 0);
    EXPECT_TRUE(p == giPoint3(1, 2, 3) && n == giUnitVec3(giYAxis) && error == -1);
    // Repeated calls agree bit for bit.
    giPoint3 p1, p2;
    giUnitVec3 n1, n2;
    double e1 = 0, e2 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, dirs, p1, n1, e1), 1);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, dirs, p2, n2, e2), 1);
    EXPECT_TRUE(p1 == p2 && n1 == n2 && e1 == e2);
}

// Gradients against differences along the unit sphere of normals; a normal
// of any length or sense describes the same plane once normalised.
TEST(PlaneModel, GradientsMatchDifferencesAndCanonicalFormIsUnit) {
    const giPoint3coDynArr pts = testsupport::plane_points(15, 20, 30, 2.0, 5);
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(0.2 * i);
    for (const int side : {0, 1}) {
        tsLeastSquareProbedPlane model(pts, radii, side);
        for (const mlVector& p :
             {mlVector{0.5, 0, 0, 1}, mlVector{3, 0.6, -0.48, 0.64}, mlVector{-2, -0.6, 0.8, 0}})
            expect_gradient_matches(model, p, 1e-6);
        mlVector zero = {2, 0, 0, 0};
        model.normalize_parameters(zero);
        EXPECT_TRUE(zero[0] == 2 && zero[1] == 1 && zero[2] == 0 && zero[3] == 0);
        mlVector longer = {2, 0, 0, 5};
        model.normalize_parameters(longer);
        EXPECT_TRUE(longer[0] == 2 && longer[3] == 1);
    }
}

}  // namespace
