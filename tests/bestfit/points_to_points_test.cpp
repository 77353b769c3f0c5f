// Rigid motion between corresponding point sets: exact motions near and far,
// the least-squares optimum, the reflection guard, degenerate sets and the
// dimension rules.
#include "metrofit/bestfit/points_to_points.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/sampling.h"

namespace {

using testsupport::random_motion;
using testsupport::sphere_points;
using testsupport::transformed;

bool fit(const giPoint3coDynArr& a, const giPoint3coDynArr& b, giXform3& out) {
    tsPointsToPoints p2p;
    for (int i = 0; i < a.size(); ++i) p2p.add_pair(a[i], b[i]);
    return p2p.get_xform(out);
}

double sum_sq(const giXform3& T, const giPoint3coDynArr& a, const giPoint3coDynArr& b) {
    double e = 0.0;
    for (int i = 0; i < a.size(); ++i) e += (T * a[i] - b[i]).length_squared();
    return e;
}

// The least-squares optimum: a small turn about the centroid of b or a
// shift along any axis raises the residual sum.
void expect_least_squares(const giXform3& got, const giPoint3coDynArr& a,
                          const giPoint3coDynArr& b) {
    const double best = sum_sq(got, a, b), step = 1e-5;
    giVector3 centre(0.0, 0.0, 0.0);
    for (const giPoint3& p : b) centre += p.to_vector() / b.size();
    for (int k = 0; k < 6; ++k) {
        const double s = k < 3 ? step : -step;
        const giVector3 e(k % 3 == 0 ? s : 0.0, k % 3 == 1 ? s : 0.0, k % 3 == 2 ? s : 0.0);
        const giXform3 turn = giXform3::rotation(giPoint3(centre), e, giAngle(0, s)) * got;
        EXPECT_GT(sum_sq(turn, a, b), best) << k;
        EXPECT_GT(sum_sq(giXform3::translation(e) * got, a, b), best) << k;
    }
}

TEST(tsPointsToPoints, RecoversExactMotionsNearAndFarFromOrigin) {
    struct {
        bool flat;
        int n;
        double degrees, offset;
    } const cases[] = {{false, 3, 30.0, 0.0},
                       {false, 20, 179.0, 10.0},
                       {false, 50, 60.0, 1e3},
                       {false, 50, 75.0, 1e5},
                       {true, 30, 120.0, 1e5}};  // coplanar: the guard settles it
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset);
        giPoint3coDynArr a = c.flat ? testsupport::plane_points(c.n, 20.0, 10.0, 0.0, 5)
                                    : sphere_points(c.n, giPoint3(giOrigin), 10.0, 180.0, 0.0, 5);
        for (giPoint3& p : a) p += giVector3(c.offset, -0.7 * c.offset, 0.4 * c.offset);
        const giXform3 motion = random_motion(c.degrees, c.offset, 11);
        giXform3 got;
        ASSERT_TRUE(fit(a, transformed(motion, a), got));
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(got(r, k), motion(r, k), 1e-12);
        for (const giPoint3& p : a)  // relative to the size of the coordinates
            EXPECT_LT((got * p - motion * p).length(), 1e-9 * (1.0 + c.offset));
    }
}

// Noisy pairs, and a mirror image (neither the reflection nor another
// rotation): the least-squares proper rotation, bit-identical when repeated.
TEST(tsPointsToPoints, NoisyAndMirroredPairsGiveTheLeastSquaresMotion) {
    const giPoint3coDynArr a = sphere_points(60, giPoint3(5.0, 2.0, -1.0), 20.0, 90.0, 0.0, 21);
    giPoint3coDynArr noisy = transformed(random_motion(40.0, 30.0, 8), a), mirrored;
    testsupport::Rng rng(99);
    for (giPoint3& p : noisy) p += giVector3(rng.normal(0.05), rng.normal(0.05), rng.normal(0.05));
    for (const giPoint3& p : a) mirrored.append(giPoint3(-p.x(), p.y(), p.z()));
    for (const giPoint3coDynArr* b : {&noisy, &mirrored}) {
        giXform3 got, again;
        ASSERT_TRUE(fit(a, *b, got));
        ASSERT_TRUE(fit(a, *b, again));
        EXPECT_TRUE(equal(got, again, 0.0));
        EXPECT_NEAR(got.determinant(), 1.0, 1e-12);
        expect_least_squares(got, a, *b);
    }
}

TEST(tsPointsToPoints, PlaneMotionExactMirroredAndCollinear) {
    const giPoint2coDynArr a =
        testsupport::circle_points2(12, giPoint2(1e5, -2e5), 30.0, 200.0, 0.0, 3);
    const giXform2 motion = giXform2::translation(giVector2(-1e5, 4e4)) *
                            giXform2::rotation(giPoint2(3.0, 1.0), giAngle(1, -140.0));
    tsPointsToPoints exact, mirror, line;
    for (const giPoint2& p : a) {
        exact.add_pair(p, motion * p);
        mirror.add_pair(p, giPoint2(p.x(), -p.y()));
    }
    for (int i = 0; i < 5; ++i) line.add_pair(giPoint2(i, 2.0 * i), giPoint2(-2.0 * i, i));
    giXform2 got, flipped, on_line;
    ASSERT_TRUE(exact.get_xform(got));
    EXPECT_NEAR(got(0, 1), motion(0, 1), 1e-12);
    for (const giPoint2& p : a) EXPECT_LT((got * p - motion * p).length(), 1e-9 * 2e5);
    EXPECT_TRUE(mirror.get_xform(flipped));
    EXPECT_NEAR(flipped.determinant(), 1.0, 1e-12);
    EXPECT_FALSE(line.get_xform(on_line));
    EXPECT_TRUE(on_line.is_set());
}

TEST(tsPointsToPoints, DegenerateSetsReturnFalseButWriteTheTransform) {
    const giXform3 motion = random_motion(25.0, 3.0, 2);
    const giPoint3coDynArr sets[] = {testsupport::line_points3(15, 40.0, 0.0, 6),
                                     {giPoint3(1, 2, 3), giPoint3(4, -1, 0)},
                                     {giPoint3(1, 2, 3)},
                                     {giPoint3(1, 2, 3), giPoint3(1, 2, 3), giPoint3(1, 2, 3)}};
    for (const giPoint3coDynArr& a : sets) {
        giXform3 got;
        EXPECT_FALSE(fit(a, transformed(motion, a), got)) << a.size();
        // What is determined still holds: each point reaches its partner.
        for (const giPoint3& p : a) EXPECT_LT((got * p - motion * p).length(), 1e-9);
    }
}

TEST(tsPointsToPoints, DimensionRulesUnsetPointsAndRefusals) {
    const giXform3 motion = random_motion(70.0, 4.0, 10);
    tsPointsToPoints clean, mixed, empty, plane, nan;
    for (const giPoint3& p : sphere_points(8, giPoint3(giOrigin), 5.0, 180.0, 0.0, 9)) {
        clean.add_pair(p, motion * p);
        mixed.add_pair(p, motion * p);
        mixed.add_pair(giPoint2(p.x(), p.y()), giPoint2(1.0, 2.0));  // other kind: ignored
        mixed.add_pair(giPoint3(), p);                               // unset: dropped
        mixed.add_pair(p, giPoint3(-DBL_MAX, 0.0, 0.0));
        nan.add_pair(p, p);
    }
    nan.add_pair(giPoint3(std::nan(""), 0.0, 0.0), giPoint3(giOrigin));
    plane.add_pair(giPoint2(0.0, 0.0), giPoint2(1.0, 1.0));
    plane.add_pair(giPoint3(0.0, 0.0, 0.0), giPoint3(1.0, 1.0, 1.0));
    EXPECT_EQ(mixed.count(), clean.count());
    EXPECT_EQ(plane.dimension(), 2);
    giXform3 x_clean, x_mixed, untouched;
    giXform2 untouched2;
    ASSERT_TRUE(clean.get_xform(x_clean));
    ASSERT_TRUE(mixed.get_xform(x_mixed));
    EXPECT_TRUE(equal(x_clean, x_mixed, 0.0));
    EXPECT_FALSE(mixed.get_xform(untouched2) || empty.get_xform(untouched2) ||
                 empty.get_xform(untouched) || plane.get_xform(untouched) ||
                 nan.get_xform(untouched));
    EXPECT_FALSE(untouched.is_set() || untouched2.is_set());
}

}  // namespace
