#include "metrofit/frame/distribution_quality.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/support/sampling.h"

namespace {

using Q = tsLeastSquareDistributionQuality;
using testsupport::kPi;

giPoint3coDynArr moved(const giPoint3coDynArr& pts, const giXform3& t) {
    return testsupport::transformed(t, pts);
}

// ---- curved features -------------------------------------------------------

// Coverage down from the whole feature: the measure divided by its divisor
// is about 1 for the whole sphere or circle and falls as the cap or the arc
// shrinks. Noise-free points, so only the coverage matters.
TEST(DistributionQualitySphere, WholeSphereScoresOneAndCapsLess) {
    const giPoint3 c(3, -7, 11);
    const giPoint3coDynArr whole = testsupport::sphere_points(4000, c, 25.0, 180.0, 0.0, 5);
    // Sampling error of the second moments of 4000 directions: about 2 %.
    EXPECT_NEAR(Q::distribution_quality_sphere(whole, c, 25.0), 1.0, 0.03);
    double last = 2.0;
    for (const double cap : {180.0, 120.0, 90.0, 60.0, 30.0, 10.0}) {
        const giPoint3coDynArr pts = testsupport::sphere_points(1000, c, 25.0, cap, 0.0, 6);
        const double q = Q::distribution_quality_sphere(pts, c, 25.0);
        EXPECT_LT(q, last) << cap;
        EXPECT_GT(q, 0.0) << cap;
        last = q;
    }
    EXPECT_LT(last, 0.01);  // a 10 degree cap leaves the radius and the centre height entangled
}

TEST(DistributionQualityCircle, WholeCircleScoresOneAndArcsLess) {
    const giPoint2 c(-40, 15);
    const giPoint2coDynArr whole = testsupport::circle_points2(360, c, 8.0, 360.0, 0.0, 1);
    EXPECT_NEAR(Q::distribution_quality_circle(whole, c, 8.0), 1.0, 0.002);  // evenly spaced
    double last = 2.0;
    for (const double arc : {360.0, 270.0, 180.0, 90.0, 30.0, 5.0}) {
        const giPoint2coDynArr pts = testsupport::circle_points2(200, c, 8.0, arc, 0.0, 2);
        const double q = Q::distribution_quality_circle(pts, c, 8.0);
        EXPECT_LT(q, last) << arc;
        EXPECT_GT(q, 0.0) << arc;
        last = q;
    }
    EXPECT_LT(last, 0.001);
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

TEST(DistributionQualityCircle, ProbedCircleIsRawAndIgnoresTheOffsets) {
    // Probe offsets shift distances, not gradients: the raw probed measure is
    // the plain circle's measure times its divisor, for either side.
    const giPoint2 c(1, 2);
    const giPoint2coDynArr pts = testsupport::circle_points2(40, c, 10.0, 200.0, 0.0, 9);
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(0.5 + 0.1 * (i % 3));
    const double plain = Q::distribution_quality_circle(pts, c, 10.0);
    for (const int inside : {0, 1}) {
        EXPECT_NEAR(Q::distribution_quality_probed_circle(pts, radii, inside, c, 10.0),
                    0.708 * plain, 1e-12);
    }
    doublecoDynArr short_radii(radii);
    short_radii.shrink(pts.size() - 1, 0);
    EXPECT_EQ(Q::distribution_quality_probed_circle(pts, short_radii, 0, c, 10.0), 0.0);
}

TEST(DistributionQualityModels, TooFewOrBadPointsScoreZero) {
    const giPoint3coDynArr two3{giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
    const giPoint2coDynArr two2{giPoint2(1, 0), giPoint2(0, 1)};
    const doublecoDynArr radii{0.5, 0.5};
    EXPECT_EQ(Q::distribution_quality_sphere(two3, giPoint3(0, 0, 0), 1.0), 0.0);
    EXPECT_EQ(Q::distribution_quality_circle(two2, giPoint2(0, 0), 1.0), 0.0);
    EXPECT_EQ(Q::distribution_quality_probed_circle(two2, radii, 1, giPoint2(0, 0), 1.0), 0.0);
    EXPECT_EQ(Q::distribution_quality_circle3(two3, giPoint3(0, 0, 0), giVector3(0, 0, 1), 1.0),
              0.0);
    EXPECT_EQ(Q::distribution_quality_circle2(giPoint3(0, 0, 0), giVector3(0, 0, 1), two3,
                                              giPoint3(0, 0, 0), 1.0),
              0.0);

    const giPoint3coDynArr sphere =
        testsupport::sphere_points(50, giPoint3(0, 0, 0), 1.0, 180, 0, 1);
    EXPECT_GT(Q::distribution_quality_sphere(sphere, giPoint3(0, 0, 0), 1.0), 0.5);
    EXPECT_EQ(Q::distribution_quality_sphere(sphere, giPoint3(0, NAN, 0), 1.0), 0.0);
    EXPECT_EQ(Q::distribution_quality_sphere(sphere, giPoint3(0, 0, 0), INFINITY), 0.0);
    giPoint3coDynArr bad(sphere);
    bad[7] = giPoint3(INFINITY, 0, 0);
    EXPECT_EQ(Q::distribution_quality_sphere(bad, giPoint3(0, 0, 0), 1.0), 0.0);
    // A zero normal defines no plane.
    EXPECT_EQ(Q::distribution_quality_circle3(sphere, giPoint3(0, 0, 0), giVector3(0, 0, 0), 1.0),
              0.0);
}

// ---- lines -----------------------------------------------------------------

TEST(DistributionQualityLine, PointsAtOneSpotOrNoneScoreZero) {
    const giPoint2coDynArr spot{giPoint2(1, 1), giPoint2(1, 1), giPoint2(1, 1)};
    EXPECT_EQ(Q::distribution_quality_line(spot, giPoint2(0, 0), giUnitVec2(1, 0)), 0.0);
    EXPECT_EQ(Q::distribution_quality_line(giPoint2coDynArr(), giPoint2(0, 0), giUnitVec2(1, 0)),
              0.0);
    const giPoint3coDynArr spot3{giPoint3(1, 2, 3), giPoint3(1, 2, 3)};
    EXPECT_EQ(Q::distribution_quality_line3(spot3, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1)), 0.0);
    const giPoint2coDynArr bad{giPoint2(0, 0), giPoint2(NAN, 1)};
    EXPECT_EQ(Q::distribution_quality_line(bad, giPoint2(0, 0), giUnitVec2(1, 0)), 0.0);
}

TEST(DistributionQualityLine, WiderBandScoresLower) {
    // A band of half-width h around a 100 long segment: L / (L + 999 W) in
    // space, L / (L + 9 W) in the plane with W = max(h, 0.0001); points on
    // the line (h = 0) score near 1, a wider band lower.
    double last3 = 2.0, last2 = 2.0;
    for (const double h : {0.0, 0.001, 0.01, 0.1, 1.0}) {
        giPoint3coDynArr pts;
        giPoint2coDynArr flat;
        for (int i = 0; i <= 20; ++i) {
            const double s = (i % 2 == 0) ? h : -h;
            pts.append(giPoint3(5.0 * i, s * 0.6, s * 0.8));
            flat.append(giPoint2(5.0 * i, s));
        }
        const double q3 =
            Q::distribution_quality_line3(pts, giPoint3(0, 0, 0), giUnitVec3(1, 0, 0));
        const double q2 = Q::distribution_quality_line(flat, giPoint2(0, 0), giUnitVec2(1, 0));
        const double W = std::max(h, 0.0001);
        EXPECT_NEAR(q3, 100.0 / (100.0 + 999.0 * W), 1e-12);
        EXPECT_NEAR(q2, 100.0 / (100.0 + 9.0 * W), 1e-12);
        EXPECT_LT(q3, last3);
        EXPECT_LT(q2, last2);
        last3 = q3;
        last2 = q2;
    }
}

TEST(DistributionQualityLine, Line3IsRigidInvariantAndLine2IgnoresHeights) {
    const giPoint3coDynArr pts = testsupport::line_points3(30, 80.0, 0.05, 11);
    const double q = Q::distribution_quality_line3(pts, giPoint3(0, 0, 0), giUnitVec3(1, 0, 0));
    for (const double offset : {1e3, 1e5}) {
        const giXform3 t = testsupport::random_motion(71.0, offset, 3);
        EXPECT_NEAR(Q::distribution_quality_line3(moved(pts, t), t * giPoint3(0, 0, 0),
                                                  t * giUnitVec3(1, 0, 0)),
                    q, 1e-9 * (1 + offset * 1e-3));
    }

    // Points along x in the plane z = 2; raising them by different heights
    // changes nothing for line2, while line3 sees the heights as width.
    giPoint3coDynArr flat, raised;
    for (int i = 0; i < 10; ++i) {
        flat.append(giPoint3(i * 3.0, 0.0, 2.0));
        raised.append(giPoint3(i * 3.0, 0.0, 2.0 + (i % 3) * 0.5));
    }
    const giPoint3 pp(7, -4, 2);
    const giVector3 n(0, 0, -5);  // not of unit length
    const giUnitVec3 dx(1, 0, 0);
    const double q_flat = Q::distribution_quality_line2(pp, n, flat, giPoint3(0, 0, 2), dx);
    EXPECT_NEAR(q_flat, 27.0 / (27.0 + 999e-4), 1e-12);
    EXPECT_NEAR(Q::distribution_quality_line2(pp, n, raised, giPoint3(0, 0, 2), dx), q_flat, 1e-12);
    EXPECT_LT(Q::distribution_quality_line3(raised, giPoint3(0, 0, 2), dx), 0.1);
    EXPECT_EQ(Q::distribution_quality_line2(pp, giVector3(0, 0, 0), flat, giPoint3(0, 0, 2), dx),
              0.0);
}

// ---- plane -----------------------------------------------------------------

struct PatchCase {
    double a, b, sigma;
    double low, high;  // accepted range of the measure
};

class DistributionQualityPlane : public ::testing::TestWithParam<PatchCase> {};

// A flat square scores near 1; a strip of width b on length a scores about
// sqrt(b / a) (the patch's extents in its plane); noise across the plane
// lowers the score through the thickness.
TEST_P(DistributionQualityPlane, ScoresTheShapeOfThePatch) {
    const PatchCase& c = GetParam();
    const giPoint3coDynArr pts = testsupport::plane_points(400, c.a, c.b, c.sigma, 21);
    const double q = Q::distribution_quality_plane(pts, giPoint3(), giUnitVec3());
    EXPECT_GE(q, c.low);
    EXPECT_LE(q, c.high);
    // The given point and normal take no part, and a rigid motion far from
    // the origin changes nothing.
    EXPECT_EQ(Q::distribution_quality_plane(pts, giPoint3(1, 2, 3), giUnitVec3(1, 0, 0)), q);
    const giXform3 t = testsupport::random_motion(123.0, 1e5, 8);
    EXPECT_NEAR(Q::distribution_quality_plane(moved(pts, t), giPoint3(), giUnitVec3()), q,
                1e-6 * q + 1e-9);
}

INSTANTIATE_TEST_SUITE_P(
    DistributionQuality, DistributionQualityPlane,
    ::testing::Values(PatchCase{50, 50, 0.0, 0.93, 1.0},   // square: extents differ by sampling
                      PatchCase{100, 4, 0.0, 0.18, 0.22},  // strip: about sqrt(0.04) = 0.2
                      PatchCase{100, 1, 0.0, 0.09, 0.11},  // thinner strip: about 0.1
                      PatchCase{50, 50, 0.5, 0.2, 0.4}));  // thickness c of 4 to 6 sigma
// (400 normal samples): 999 c^2 = 4000 .. 9000 next to a b = 2500.

TEST(DistributionQualityPlaneEdges, TooFewOrBadPointsScoreZero) {
    EXPECT_EQ(Q::distribution_quality_plane(giPoint3coDynArr{giPoint3(1, 1, 1)}, giPoint3(),
                                            giUnitVec3()),
              0.0);
    EXPECT_EQ(Q::distribution_quality_plane(giPoint3coDynArr(), giPoint3(), giUnitVec3()), 0.0);
    const giPoint3coDynArr bad{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, INFINITY, 0)};
    EXPECT_EQ(Q::distribution_quality_plane(bad, giPoint3(), giUnitVec3()), 0.0);
    // Collinear points span no area.
    const giPoint3coDynArr line = testsupport::line_points3(10, 5.0, 0.0, 1);
    EXPECT_EQ(Q::distribution_quality_plane(line, giPoint3(), giUnitVec3()), 0.0);
}

}  // namespace
