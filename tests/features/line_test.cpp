#include "metrofit/features/line.h"

#include <gtest/gtest.h>

#include <cmath>

#include "metrofit/platform/geometry/xform.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using Evaluator = tsLeastSquareEvaluator;

struct Line2 {
    giPoint2 p;
    giUnitVec2 u;  // the probed fit returns the normal here
    double e = 0;
};
struct Line3 {
    giPoint3 p;
    giUnitVec3 u;
    double e = 0;
    bool operator==(const Line3& o) const { return p == o.p && u == o.u && e == o.e; }
};

int fit(const giPoint2coDynArr& pts, Line2& k) {
    return Evaluator::evaluate_line(pts, k.p, k.u, k.e);
}
int fit(const giPoint3coDynArr& pts, Line3& k) {
    return Evaluator::evaluate_line3(pts, k.p, k.u, k.e);
}
int fit_in_plane(const giPoint3& at, const giUnitVec3& normal, const giPoint3coDynArr& pts,
                 Line3& k) {
    return Evaluator::evaluate_line2(at, normal, pts, k.p, k.u, k.e);
}
int fit_probed(const giPoint2coDynArr& pts, const doublecoDynArr& radii,
               const giUnitVec2coDynArr& directions, Line2& k) {
    return Evaluator::evaluate_probed_line2(pts, radii, directions, k.p, k.u, k.e);
}

double angle_between(const giVector3& u, const giVector3& v) {
    return testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z());
}
double angle_between(const giVector2& u, const giVector2& v) {
    return angle_between(giVector3(u.x(), u.y(), 0), giVector3(v.x(), v.y(), 0));
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
            Line3 k;
            const auto& q = f.params;
            if (flat) {
                Line2 k2;
                ASSERT_EQ(fit(testsupport::reference_points2(f.file), k2), 1);
                k = {giPoint3(k2.p.x(), k2.p.y(), 0), giUnitVec3(k2.u.x(), k2.u.y(), 0), k2.e};
            } else {
                ASSERT_EQ(fit(testsupport::reference_points3(f.file), k), 1);
            }
            const giPoint3 ref = flat ? giPoint3(q[0], q[1], 0) : giPoint3(q[0], q[1], q[2]);
            const giVector3 ref_u = flat ? giVector3(q[2], q[3], 0) : giVector3(q[3], q[4], q[5]);
            EXPECT_LE(cross(k.u, ref - k.p).length(), f.tol_position);
            EXPECT_LE(angle_between(k.u, ref_u), f.tol_orientation);
            EXPECT_NEAR(k.e, f.rms, f.tol_rms);
        }
    }
}

// A noisy segment: the line in space lies near the truth and repeats itself
// bit for bit; turned and moved by 1e5 it moves with the points.
TEST(LineKnownTruth, LineInSpaceMovesWithThePoints) {
    const giPoint3coDynArr base = testsupport::line_points3(300, 25, 1e-3, 51);
    Line3 k, again;
    ASSERT_EQ(fit(base, k), 1);
    ASSERT_EQ(fit(base, again), 1);
    EXPECT_TRUE(again == k);
    EXPECT_LE(angle_between(k.u, giVector3(1, 0, 0)), 1e-3 / 25 * 3);  // ~ sigma / length
    EXPECT_NEAR(k.e, 1e-3 * std::sqrt(2.0), 2e-4);  // two noisy coordinates across the line
    const giXform3 motion = testsupport::random_motion(71, 1e5, 52);
    Line3 m;
    ASSERT_EQ(fit(testsupport::transformed(motion, base), m), 1);
    EXPECT_LE(angle_between(m.u, motion * k.u), 1e-9);
    EXPECT_LE(cross(m.u, motion * k.p - m.p).length(), 1e-9 * 25 + 1e-12 * 1e5);
    EXPECT_NEAR(m.e, k.e, 1e-9 * 25 + 1e-12 * 1e5);
}

// In a given tilted plane: the line lies in the plane along the points, and
// its error counts the heights above the plane in full.
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
    Line3 k, q;
    ASSERT_EQ(fit_in_plane(origin, normal, in_plane, k), 1);
    ASSERT_EQ(fit_in_plane(origin, normal, raised, q), 1);
    EXPECT_NEAR(dot(normal, k.p - origin), 0.0, 1e-10);
    EXPECT_NEAR(dot(normal, k.u), 0.0, 1e-14);
    EXPECT_LE(angle_between(k.u, motion * giVector3(1, 0, 0)), 1e-4);
    // Raising every point by 0.25 moves nothing but the error.
    EXPECT_LE(distance(k.p, q.p), 1e-10);
    EXPECT_LE(angle_between(k.u, q.u), 1e-12);
    EXPECT_NEAR(q.e * q.e, k.e * k.e + 0.25 * 0.25, 1e-10);
}

// Two points: the line through them, error 0. Equal points: a unit direction
// and error 0. Fewer than 2 points, non-finite input or a plane normal
// without direction: refused, outputs untouched.
TEST(LineDirect, ExactDegenerateAndRefusedInput) {
    const giPoint2coDynArr two = {giPoint2(1, 1), giPoint2(4, 5)};
    Line2 k;
    ASSERT_EQ(fit(two, k), 1);
    EXPECT_LE(angle_between(k.u, giVector2(3, 4)), 1e-15);
    EXPECT_LT(k.e, 1e-15);
    ASSERT_EQ(fit({giPoint2(2, 3), giPoint2(2, 3), giPoint2(2, 3)}, k), 1);
    EXPECT_TRUE(k.p == giPoint2(2, 3) && k.e == 0.0);
    EXPECT_NEAR(k.u.length(), 1.0, 1e-15);

    giPoint2coDynArr one = two, inf2 = two;
    one.shrink(1, 0);
    inf2[0] = giPoint2(INFINITY, 0);
    for (const giPoint2coDynArr& bad : {giPoint2coDynArr(), one, inf2}) {
        k.p = giPoint2(-1, -1);
        doublecoDynArr radii;
        for (int i = 0; i < bad.size(); ++i) radii.append(1.0);
        EXPECT_EQ(fit(bad, k), 0);
        EXPECT_EQ(fit_probed(bad, radii, giUnitVec2coDynArr(), k), 0);
        EXPECT_EQ(k.p, giPoint2(-1, -1));
    }
    const giPoint3coDynArr good3 = lifted(two);
    giPoint3coDynArr nan3 = good3, one3 = good3;
    nan3[1] = giPoint3(0, NAN, 0);
    one3.shrink(1, 0);
    const Line3 sentinel{giPoint3(-1, -1, -1), giUnitVec3(giYAxis), -1};
    Line3 q = sentinel;
    const giPoint3 o(giOrigin);
    EXPECT_EQ(fit(nan3, q), 0);
    EXPECT_EQ(fit(one3, q), 0);
    EXPECT_EQ(fit_in_plane(o, giUnitVec3(giZAxis), nan3, q), 0);
    EXPECT_EQ(fit_in_plane(o, giUnitVec3(), good3, q), 0);
    EXPECT_EQ(fit_in_plane(giPoint3(NAN, 0, 0), giUnitVec3(giZAxis), good3, q), 0);
    EXPECT_TRUE(q == sentinel);
}

// Ball centres rho_i off a known line: the touched line, as its normal along
// the contact directions. Without directions the balls' side is found;
// mismatched arrays are refused, outputs untouched.
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
    Line2 k;
    ASSERT_EQ(fit_probed(centres, radii, directions, k), 1);
    EXPECT_LE(angle_between(k.u, normal), 1e-5);
    EXPECT_GT(dot(k.u, normal), 0.0);
    EXPECT_NEAR(dot(k.u, k.p.to_vector()), h, 5e-3);
    EXPECT_NEAR(k.e, 1e-4, 3e-5);
    ASSERT_EQ(fit_probed(centres, radii, giUnitVec2coDynArr(), k), 1);
    EXPECT_LE(angle_between(k.u, normal), 1e-5);
    EXPECT_NEAR(k.e, 1e-4, 3e-5);  // the wrong side would leave residuals of about 1

    doublecoDynArr fewer = radii;
    fewer.shrink(79, 0);
    k.p = giPoint2(7, 7);
    EXPECT_EQ(fit_probed(centres, fewer, directions, k), 0);
    EXPECT_EQ(fit_probed(centres, radii, {normal}, k), 0);
    EXPECT_EQ(k.p, giPoint2(7, 7));
}

}  // namespace
