#include "metrofit/features/direct_circle.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

giPoint2coDynArr moved2(const giPoint2coDynArr& pts, double degrees, double dx, double dy,
                        double scale = 1.0) {
    const double a = degrees * testsupport::kPi / 180, c = std::cos(a), s = std::sin(a);
    giPoint2coDynArr out;
    for (const giPoint2& p : pts)
        out.append(
            giPoint2(scale * (c * p.x() - s * p.y()) + dx, scale * (s * p.x() + c * p.y()) + dy));
    return out;
}

// Exact circles of 3 and 50 points, turned and moved up to 1e5 from the
// origin: the 2D and 3D fits return them to the rounding the coordinates
// carry (the algebraic matrix is formed about the centroid).
TEST(DirectCircleExact, RecoversExactCirclesAnywhere) {
    for (const int n : {3, 50}) {
        for (const double offset : {0.0, 1e5}) {
            SCOPED_TRACE(testing::Message() << n << " points at " << offset);
            const double tol = 1e-10 * 7 + 1e-11 * offset;
            const giPoint2coDynArr flat =
                moved2(testsupport::circle_points2(n, giPoint2(0, 0), 7, 250, 0, 1), 25,
                       offset * 0.6, -offset * 0.8);
            const tsDirectCircle2 fit2(flat);
            ASSERT_EQ(fit2.status(), 5);
            EXPECT_LE(distance(fit2.centre(), giPoint2(offset * 0.6, -offset * 0.8)), tol);
            EXPECT_NEAR(fit2.radius(), 7, tol);

            const giXform3 motion = testsupport::random_motion(70, offset, 3);
            const giPoint3coDynArr space =
                testsupport::transformed(motion, testsupport::circle_points3(n, 7, 250, 0, 1));
            const tsDirectCircle3 fit3(space);
            ASSERT_EQ(fit3.status(), 5);
            EXPECT_LE(distance(fit3.centre(), motion * giPoint3(0, 0, 0)), tol);
            EXPECT_NEAR(fit3.radius(), 7, tol);
            const giVector3 u = fit3.plane().normal(), v = motion * giVector3(0, 0, 1);
            EXPECT_LE(testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z()),
                      1e-10);
        }
    }
}

// On noisy points the algebraic circle lies near the truth, moves with the
// points under rotation and translation, and scales with them: the
// constraint makes it independent of the coordinate frame.
TEST(DirectCircleNoisy, NearTruthAndIndependentOfTheFrame) {
    const giPoint2coDynArr base =
        testsupport::circle_points2(200, giPoint2(2, -1), 15, 90, 1e-3, 5);
    const tsDirectCircle2 fit(base);
    ASSERT_EQ(fit.status(), 5);
    // 6 sigma / sqrt(n), widened 10x for the 90-degree arc's conditioning.
    const double truth_tol = 10 * 6 * 1e-3 / std::sqrt(200.0), tol = 1e-9 * 45 + 1e-11 * 5e4;
    EXPECT_LE(distance(fit.centre(), giPoint2(2, -1)), truth_tol);
    EXPECT_NEAR(fit.radius(), 15, truth_tol);
    // Turned, scaled by 3 and moved 5e4.
    const tsDirectCircle2 moved(moved2(base, 33, 4e4, 3e4, 3.0));
    ASSERT_EQ(moved.status(), 5);
    EXPECT_LE(distance(moved.centre(), moved2({fit.centre()}, 33, 4e4, 3e4, 3.0)[0]), tol);
    EXPECT_NEAR(moved.radius(), 3 * fit.radius(), tol);
    const tsDirectCircle2 again(base);
    EXPECT_TRUE(again.centre() == fit.centre() && again.radius() == fit.radius());
}

// Two points: the circle on them as diameter. Degenerate sets get their
// status and leave the circle unset.
TEST(DirectCircleDegenerate, StatusesOfSmallAndDegenerateSets) {
    const tsDirectCircle2 two({giPoint2(1, 1), giPoint2(7, 9)});
    ASSERT_EQ(two.status(), 5);
    EXPECT_TRUE(two.centre() == giPoint2(4, 5) && two.radius() == 5);

    giPoint2coDynArr far_line;
    giPoint3coDynArr line3;
    for (int i = 0; i < 6; ++i) {
        far_line.append(giPoint2(1e5 + 0.3 * i, -2e4 - 0.9 * i));
        line3.append(giPoint3(1 + i, 2 - 2 * i, 3 + 0.5 * i));
    }
    // None, one; three collinear, three with two equal; collinear near and
    // far; all equal; a NaN.
    const std::pair<giPoint2coDynArr, int> flat[] = {
        {{}, 1},
        {{giPoint2(0, 0), giPoint2(1, 1), giPoint2(0, 0)}, 4},
        {far_line, 4},
        {{giPoint2(3, 3), giPoint2(3, 3), giPoint2(3, 3), giPoint2(3, 3)}, 4},
        {{giPoint2(0, 0), giPoint2(NAN, 1), giPoint2(1, 0), giPoint2(2, 2)}, 4}};
    for (const auto& [pts, status] : flat) {
        const tsDirectCircle2 fit(pts);
        EXPECT_TRUE(fit.status() == status && !fit.centre().is_set())
            << pts.size() << " " << status;
    }
    // One point; two or three equal; an infinite coordinate; collinear.
    const std::pair<giPoint3coDynArr, int> space[] = {
        {{giPoint3(1, 2, 3)}, 1},
        {{giPoint3(1, 2, 3), giPoint3(1, 2, 3), giPoint3(1, 2, 3)}, 3},
        {{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, INFINITY, 0)}, 3},
        {line3, 4}};
    for (const auto& [pts, status] : space) {
        const tsDirectCircle3 fit(pts);
        EXPECT_TRUE(fit.status() == status && !fit.centre().is_set())
            << pts.size() << " " << status;
    }
}

}  // namespace
