#include "metrofit/features/line.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/xform.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::LongVector;

double angle_between(const giVector3& u, const giVector3& v) {
    return testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z());
}
double angle_between(const giVector2& u, const giVector2& v) {
    return angle_between(giVector3(u.x(), u.y(), 0), giVector3(v.x(), v.y(), 0));
}
doublecoDynArr ones(int n) {
    doublecoDynArr r;
    for (int i = 0; i < n; ++i) r.append(1.0);
    return r;
}
giPoint3coDynArr lifted(const giPoint2coDynArr& pts) {
    giPoint3coDynArr out;
    for (const giPoint2& p : pts) out.append(giPoint3(p.x(), p.y(), 0));
    return out;
}

// Every reference line in the plane (evaluate_line) and in space
// (evaluate_line3): the reference point on the fitted line, the direction
// and the rms within the stated bounds.
TEST(LineReference, MatchesEveryReferenceFit) {
    for (const char* feature : {"line2", "line3"}) {
        const bool flat = feature[4] == '2';
        const auto fits = testsupport::reference_fits(feature);
        ASSERT_EQ(fits.size(), 6u);
        for (const auto& f : fits) {
            SCOPED_TRACE(f.id);
            giPoint3 p;
            giUnitVec3 u;
            double error = 0;
            giPoint3 ref;
            giVector3 ref_u;
            if (flat) {
                const giPoint2coDynArr pts = testsupport::reference_points2(f.file);
                giPoint2 p2;
                giUnitVec2 u2;
                ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line(pts, p2, u2, error), 1);
                p = giPoint3(p2.x(), p2.y(), 0);
                u = giUnitVec3(u2.x(), u2.y(), 0);
                ref = giPoint3(f.params[0], f.params[1], 0);
                ref_u = giVector3(f.params[2], f.params[3], 0);
            } else {
                const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
                ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(pts, p, u, error), 1);
                ref = giPoint3(f.params[0], f.params[1], f.params[2]);
                ref_u = giVector3(f.params[3], f.params[4], f.params[5]);
            }
            EXPECT_LE(cross(u, ref - p).length(), f.tol_position);
            EXPECT_LE(angle_between(u, ref_u), f.tol_orientation);
            EXPECT_NEAR(error, f.rms, f.tol_rms);
        }
    }
}

// A noisy segment moved by 1e3 and 1e5 in space: the line moves with the
// points; evaluate_line on the same segment laid in the plane agrees with
// evaluate_line3 on it.
TEST(LineKnownTruth, LineInSpaceMovesWithThePoints) {
    const giPoint3coDynArr base = testsupport::line_points3(300, 25, 1e-3, 51);
    giPoint3 p0;
    giUnitVec3 u0;
    double e0 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(base, p0, u0, e0), 1);
    EXPECT_LE(angle_between(u0, giVector3(1, 0, 0)), 1e-3 / 25 * 3);  // ~ sigma / length
    EXPECT_NEAR(e0, 1e-3 * std::sqrt(2.0), 2e-4);  // two noisy coordinates across the line
    for (const double offset : {1e3, 1e5}) {
        SCOPED_TRACE(offset);
        const giXform3 motion = testsupport::random_motion(71, offset, 52);
        giPoint3 p;
        giUnitVec3 u;
        double e = 0;
        const giPoint3coDynArr moved = testsupport::transformed(motion, base);
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(moved, p, u, e), 1);
        giPoint3 p2;
        giUnitVec3 u2;
        double e2 = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(moved, p2, u2, e2), 1);
        EXPECT_TRUE(p2 == p && u2 == u && e2 == e);  // bit for bit
        EXPECT_LE(angle_between(u, motion * u0), 1e-9);
        EXPECT_LE(cross(u, motion * p0 - p).length(), 1e-9 * 25 + 1e-12 * offset);
        EXPECT_NEAR(e, e0, 1e-9 * 25 + 1e-12 * offset);
    }

    giPoint2coDynArr flat;
    for (const giPoint3& q : testsupport::transformed(testsupport::random_motion(0, 300, 53),
                                                      testsupport::line_points3(50, 3, 1e-3, 54)))
        flat.append(giPoint2(q.x() + 0.3 * q.y(), q.y()));
    giPoint2 p2;
    giUnitVec2 u2;
    double e2 = 0, e3 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line(flat, p2, u2, e2), 1);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(lifted(flat), p0, u0, e3), 1);
    EXPECT_LE(angle_between(giVector3(u2.x(), u2.y(), 0), u0), 1e-12);
    EXPECT_NEAR(e2, e3, 1e-15);
}

// In a given tilted plane: the line lies in the plane, is the least-squares
// line of the projected points, and its error counts the heights above the
// plane in full.
TEST(LineInPlane, FitsInThePlaneAndCountsHeights) {
    const giXform3 motion = testsupport::random_motion(50, 400, 61);
    const giPoint3 origin = motion * giPoint3(giOrigin);
    const giUnitVec3 normal = motion * giUnitVec3(giZAxis);
    testsupport::Rng rng(62);
    giPoint3coDynArr in_plane, raised;
    for (int i = 0; i < 40; ++i) {
        const giPoint3 s(i * 0.5, 2 + rng.normal(1e-3), 0);
        in_plane.append(motion * s);
        raised.append(motion * giPoint3(s.x(), s.y(), 0.25));  // all at height 0.25
    }
    giPoint3 p, q;
    giUnitVec3 u, v;
    double e = 0, e_raised = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line2(origin, normal, in_plane, p, u, e), 1);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line2(origin, normal, raised, q, v, e_raised), 1);
    EXPECT_NEAR(dot(normal, p - origin), 0.0, 1e-10);
    EXPECT_NEAR(dot(normal, u), 0.0, 1e-14);
    EXPECT_LE(angle_between(u, motion * giVector3(1, 0, 0)), 1e-4);
    // Raising every point by 0.25 moves nothing but the error.
    EXPECT_LE(distance(p, q), 1e-10);
    EXPECT_LE(angle_between(u, v), 1e-12);
    EXPECT_NEAR(e_raised * e_raised, e * e + 0.25 * 0.25, 1e-10);
    // The same line as evaluate_line3 on points that lie in the plane.
    giPoint3 p3;
    giUnitVec3 u3;
    double e3 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line3(in_plane, p3, u3, e3), 1);
    EXPECT_LE(angle_between(u, u3), 1e-9);
    EXPECT_NEAR(e, e3, 1e-10);
}

// Two points: the line through them, error 0. Equal points: a unit direction
// and error 0. Fewer than 2 points, non-finite input or a plane normal
// without direction: refused, outputs untouched.
TEST(LineDirect, ExactDegenerateAndRefusedInput) {
    const giPoint2coDynArr two = {giPoint2(1, 1), giPoint2(4, 5)};
    giPoint2 p;
    giUnitVec2 u;
    double e = -1;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line(two, p, u, e), 1);
    EXPECT_LE(angle_between(u, giVector2(3, 4)), 1e-15);
    EXPECT_LT(e, 1e-15);
    const giPoint2coDynArr same = {giPoint2(2, 3), giPoint2(2, 3), giPoint2(2, 3)};
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_line(same, p, u, e), 1);
    EXPECT_EQ(p, giPoint2(2, 3));
    EXPECT_NEAR(u.length(), 1.0, 1e-15);
    EXPECT_EQ(e, 0.0);

    const giPoint2 p_sentinel(-1, -1);
    const giPoint3 q_sentinel(-1, -1, -1);
    const giPoint3coDynArr good3 = lifted(two);
    giPoint3coDynArr nan3 = good3;
    nan3[1] = giPoint3(0, NAN, 0);
    giPoint2coDynArr empty, one = two, inf2 = two;
    one.shrink(1, 0);
    inf2[0] = giPoint2(INFINITY, 0);
    for (const giPoint2coDynArr* bad : {&empty, &one, &inf2}) {
        p = p_sentinel;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line(*bad, p, u, e), 0);
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(*bad, ones(bad->size()),
                                                                giUnitVec2coDynArr(), p, u, e),
                  0);
        EXPECT_EQ(p, p_sentinel);
    }
    giPoint3 q = q_sentinel;
    giUnitVec3 v;
    const giPoint3 o(giOrigin);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line3(nan3, q, v, e), 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line2(o, giUnitVec3(giZAxis), nan3, q, v, e), 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line2(o, giUnitVec3(), good3, q, v, e), 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line2(giPoint3(NAN, 0, 0), giUnitVec3(giZAxis),
                                                     good3, q, v, e),
              0);
    giPoint3coDynArr one3 = good3;
    one3.shrink(1, 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_line3(one3, q, v, e), 0);
    EXPECT_EQ(q, q_sentinel);
    EXPECT_EQ(e, 0.0);  // from the last accepted call above
}

// Ball centres at rho_i on the side of a known line, contact directions along
// its normal: the fit is the touched line, the unit vector returned is its
// NORMAL pointing along the directions, the point is the foot of the origin
// minus the centroid's component along the line, and the fit is the
// least-squares optimum. Without directions the side of the balls is found.
TEST(LineProbed, FitsTheTouchedLineAndReturnsItsNormal) {
    const giUnitVec2 normal(-0.6, 0.8), along(0.8, 0.6);
    const double h = 30;  // the line normal . X = 30
    testsupport::Rng rng(71);
    giPoint2coDynArr centres;
    doublecoDynArr radii;
    giUnitVec2coDynArr directions;
    for (int i = 0; i < 80; ++i) {
        const double rho = rng.uniform(0.5, 2), t = rng.uniform(100, 140);
        centres.append(giPoint2(h * normal + t * along + (rho + rng.normal(1e-4)) * normal));
        radii.append(rho);
        directions.append(normal);
    }
    // Independent optimum: line (h, angle) with offsets +rho.
    const auto residuals = [&](const LongVector& p, LongVector& r) {
        for (int i = 0; i < centres.size(); ++i)
            r[i] =
                std::cos(p[1]) * centres[i].x() + std::sin(p[1]) * centres[i].y() - p[0] - radii[i];
    };
    const LongVector ref =
        testsupport::gauss_newton(residuals, {h, std::atan2(0.8L, -0.6L)}, centres.size());
    const giVector2 ref_n(std::cos(ref[1]), std::sin(ref[1]));

    giPoint2 p;
    giUnitVec2 n;
    double e = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(centres, radii, directions, p, n, e),
              1);
    EXPECT_GT(dot(n, normal), 0.999);
    EXPECT_LE(angle_between(n, ref_n), 1e-9);
    EXPECT_NEAR(dot(n, p.to_vector()), static_cast<double>(ref[0]), 1e-9 * 140);
    EXPECT_NEAR(e, 1e-4, 3e-5);
    giVector2 sum(0, 0);
    for (const giPoint2& c : centres) sum += c.to_vector();
    const giVector2 p0 = sum / centres.size();
    const giVector2 expected = static_cast<double>(ref[0]) * ref_n - (p0 - dot(ref_n, p0) * ref_n);
    EXPECT_LE(distance(p, giPoint2(expected)), 1e-6);

    giUnitVec2coDynArr reversed;
    for (const giUnitVec2& d : directions) reversed.append(-d);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(centres, radii, reversed, p, n, e), 1);
    EXPECT_LT(dot(n, normal), -0.999);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(centres, radii, giUnitVec2coDynArr(), p,
                                                            n, e),
              1);
    EXPECT_LE(angle_between(n, ref_n), 1e-9);
    EXPECT_NEAR(e, 1e-4, 3e-5);  // the wrong side would leave residuals of about 1

    // Mismatched arrays are refused, outputs untouched.
    doublecoDynArr fewer = radii;
    fewer.shrink(79, 0);
    giUnitVec2coDynArr one = {normal};
    const giPoint2 sentinel(7, 7);
    p = sentinel;
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(centres, fewer, directions, p, n, e),
              0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_line2(centres, radii, one, p, n, e), 0);
    EXPECT_EQ(p, sentinel);
}

// Gradients against differences along the unit circle of normals; the
// canonical form has a unit normal, a zero normal becoming (1, 0).
TEST(LineModel, GradientsMatchDifferencesAndCanonicalFormIsUnit) {
    giPoint2coDynArr pts;
    for (const giPoint3& q : testsupport::line_points3(12, 30, 1.0, 81))
        pts.append(giPoint2(q.x(), q.y()));
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(0.3 * i);
    for (const int side : {0, 1}) {
        tsLeastSquareProbedLine2 model(pts, radii, side);
        for (const mlVector& p : {mlVector{1, 0.6, 0.8}, mlVector{-4, -1, 0}, mlVector{2, 0, 1}})
            expect_gradient_matches(model, p, 1e-6);
        mlVector zero = {2, 0, 0};
        model.normalize_parameters(zero);
        EXPECT_TRUE(zero[0] == 2 && zero[1] == 1 && zero[2] == 0);
    }
}

}  // namespace
