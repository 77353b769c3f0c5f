#include "metrofit/frame/distribution_quality.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>

#include "tests/support/sampling.h"

namespace {

using Q = tsLeastSquareDistributionQuality;
using testsupport::transformed;

// ---- curved features -------------------------------------------------------

// Coverage down from the whole feature: the measure divided by its divisor
// is about 1 for the whole sphere or circle and falls as the cap or the arc
// shrinks. Noise-free points, so only the coverage matters.
TEST(DistributionQualityCurved, WholeSphereOrCircleScoresOneAndCapsOrArcsLess) {
    const giPoint3 c3(3, -7, 11);
    const giPoint2 c2(-40, 15);
    const auto sphere = [&](int n, double cap, std::uint64_t seed) {
        return Q::distribution_quality_sphere(
            testsupport::sphere_points(n, c3, 25.0, cap, 0.0, seed), c3, 25.0);
    };
    const auto circle = [&](int n, double arc, std::uint64_t seed) {
        return Q::distribution_quality_circle(
            testsupport::circle_points2(n, c2, 8.0, arc, 0.0, seed), c2, 8.0);
    };
    // Sampling error of the second moments of 4000 directions: about 2 %;
    // 360 evenly spaced points of a circle leave hardly any.
    EXPECT_TRUE(std::fabs(sphere(4000, 180.0, 5) - 1) < 0.03 &&
                std::fabs(circle(360, 360.0, 1) - 1) < 0.002);
    double last3 = 2.0, last2 = 2.0;
    const double caps[][2] = {{180, 360}, {90, 180}, {30, 30}, {10, 5}};
    for (const auto& span : caps) {
        const double q3 = sphere(1000, span[0], 6), q2 = circle(200, span[1], 2);
        EXPECT_TRUE(q3 > 0.0 && q3 < last3) << span[0];
        EXPECT_TRUE(q2 > 0.0 && q2 < last2) << span[1];
        last3 = q3;
        last2 = q2;
    }
    EXPECT_LT(last3, 0.01);  // a 10 degree cap leaves the radius and the centre height entangled
    EXPECT_LT(last2, 0.001);
}

// The 3D circle measures are the 2D measure in the circle's plane, wherever
// that plane lies; heights above the plane do not count.
TEST(DistributionQualityCircle, SpaceCircleMatchesThePlaneMeasure) {
    const giPoint2coDynArr flat =
        testsupport::circle_points2(60, giPoint2(0, 0), 5.0, 140.0, 0.0, 3);
    const double q2 = Q::distribution_quality_circle(flat, giPoint2(0, 0), 5.0);
    for (const double offset : {0.0, 1e3, 1e5}) {
        const giXform3 t = testsupport::random_motion(52.0, offset, 4);
        giPoint3coDynArr pts;
        for (int i = 0; i < flat.size(); ++i)
            pts.append(t * giPoint3(flat[i].x(), flat[i].y(), 0.01 * (i % 5)));
        const giPoint3 centre = t * giPoint3(0, 0, 0);
        const giVector3 normal = t * giVector3(0, 0, 2);
        const double tol = 1e-9 * (1.0 + offset * 1e-3);
        EXPECT_NEAR(Q::distribution_quality_circle3(pts, centre, normal, 5.0), q2, tol);
        // Any point of the plane serves as plane point.
        EXPECT_NEAR(
            Q::distribution_quality_circle2(t * giPoint3(9, -4, 0), normal, pts, centre, 5.0), q2,
            tol);
    }
}

// Too few points, a spot, a non-finite coordinate or argument, a zero normal
// (no plane) or collinear points on a plane: 0.
TEST(DistributionQuality, TooFewOrBadPointsScoreZero) {
    const giPoint3 o(0, 0, 0);
    const giPoint2 o2(0, 0);
    const giVector3 z(0, 0, 1), zero(0, 0, 0);
    const giPoint3coDynArr two3{giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
    const giPoint2coDynArr two2{giPoint2(1, 0), giPoint2(0, 1)};
    const giPoint3coDynArr sphere = testsupport::sphere_points(50, o, 1.0, 180, 0, 1);
    giPoint3coDynArr bad(sphere);
    bad[7] = giPoint3(INFINITY, 0, 0);
    const giPoint2coDynArr spot{giPoint2(1, 1), giPoint2(1, 1), giPoint2(1, 1)};
    const giPoint3coDynArr line = testsupport::line_points3(10, 5.0, 0.0, 1);
    const double zeros[] = {
        Q::distribution_quality_sphere(two3, o, 1.0),
        Q::distribution_quality_probed_circle(two2, doublecoDynArr{0.5, 0.5}, 1, o2, 1.0),
        Q::distribution_quality_circle3(two3, o, z, 1.0),
        Q::distribution_quality_sphere(bad, o, 1.0),
        Q::distribution_quality_circle3(sphere, o, zero, 1.0),
        Q::distribution_quality_line2(o, zero, line, o, giUnitVec3(1, 0, 0)),
        Q::distribution_quality_line(spot, o2, giUnitVec2(1, 0)),
        Q::distribution_quality_plane(line, giPoint3(), giUnitVec3()),
    };
    for (size_t i = 0; i < std::size(zeros); ++i) EXPECT_EQ(zeros[i], 0.0) << i;
}

// ---- lines -----------------------------------------------------------------

TEST(DistributionQualityLine, WiderBandScoresLower) {
    // A band of half-width h around a 100 long segment: L / (L + 999 W) in
    // space, L / (L + 9 W) in the plane with W = max(h, 0.0001); points on
    // the line (h = 0) score near 1, a wider band lower.
    for (const double h : {0.0, 0.001, 0.01, 0.1, 1.0}) {
        giPoint3coDynArr pts;
        giPoint2coDynArr flat;
        for (int i = 0; i <= 20; ++i) {
            const double s = (i % 2 == 0) ? h : -h;
            pts.append(giPoint3(5.0 * i, s * 0.6, s * 0.8));
            flat.append(giPoint2(5.0 * i, s));
        }
        const double W = std::max(h, 0.0001);
        EXPECT_NEAR(Q::distribution_quality_line3(pts, giPoint3(0, 0, 0), giUnitVec3(1, 0, 0)),
                    100.0 / (100.0 + 999.0 * W), 1e-12);
        EXPECT_NEAR(Q::distribution_quality_line(flat, giPoint2(0, 0), giUnitVec2(1, 0)),
                    100.0 / (100.0 + 9.0 * W), 1e-12);
    }
}

// ---- plane -----------------------------------------------------------------

// A flat square scores near 1; a strip of width b on length a scores about
// sqrt(b / a) (the patch's extents in its plane); noise across the plane
// lowers the score through the thickness. The given point and normal take
// no part, and a rigid motion far from the origin changes nothing.
TEST(DistributionQualityPlane, ScoresTheShapeOfThePatch) {
    const struct {
        double a, b, sigma, low, high;  // the patch, the accepted range of the measure
    } cases[] = {
        {50, 50, 0.0, 0.93, 1.0},   // square: extents differ by sampling
        {100, 4, 0.0, 0.18, 0.22},  // strip: about sqrt(0.04) = 0.2
        // Thickness c of 4 to 6 sigma (400 normal samples): 999 c^2 = 4000 ..
        // 9000 next to a b = 2500.
        {50, 50, 0.5, 0.2, 0.4},
    };
    const giXform3 t = testsupport::random_motion(123.0, 1e5, 8);
    for (const auto& c : cases) {
        const giPoint3coDynArr pts = testsupport::plane_points(400, c.a, c.b, c.sigma, 21);
        const double q = Q::distribution_quality_plane(pts, giPoint3(), giUnitVec3());
        EXPECT_TRUE(q >= c.low && q <= c.high) << q;
        EXPECT_EQ(Q::distribution_quality_plane(pts, giPoint3(1, 2, 3), giUnitVec3(1, 0, 0)), q);
        EXPECT_NEAR(Q::distribution_quality_plane(transformed(t, pts), giPoint3(), giUnitVec3()), q,
                    1e-6 * q + 1e-9);
    }
}

}  // namespace
