#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/box.h"
#include "metrofit/platform/geometry/circle.h"
#include "metrofit/platform/geometry/inf_line.h"
#include "metrofit/platform/geometry/plane.h"
#include "tests/support/random.h"

namespace {

TEST(GeometryInfLine, DistanceOfPointAndTwoPointForm) {
    const giInfLine3 line(giPoint3(1, 1, 1), giVector3(2, 0, 0));  // direction normalised
    EXPECT_EQ(line.direction(), giVector3(1, 0, 0));
    EXPECT_DOUBLE_EQ(line.distance_of_point(giPoint3(-40, 4, 5)), 5.0);
    EXPECT_EQ(line.distance_of_point(giPoint3(7, 1, 1)), 0.0);
    const giInfLine3 through(giPoint3(0, 0, 0), giPoint3(0, 0, -3));
    EXPECT_EQ(through.direction(), giVector3(0, 0, -1));
    EXPECT_EQ(through.parameter_of(giPoint3(5, 5, -2)), 2.0);
    EXPECT_FALSE(giInfLine3(giPoint3(1, 2, 3), giPoint3(1, 2, 3)).is_set());
    EXPECT_FALSE(giInfLine3().is_set());
    const giInfLine2 line2(giPoint2(0, 1), giVector2(1, 1));
    EXPECT_DOUBLE_EQ(line2.distance_of_point(giPoint2(1, 0)), std::sqrt(2.0));
}

TEST(GeometryInfLine, ClosestPointsOfSkewAndCrossingLines) {
    // Skew: x axis, and a parallel of the y axis one unit up.
    const giInfLine3 x_axis(giPoint3(0, 0, 0), giVector3(1, 0, 0));
    double t1 = 0, t2 = 0;
    int status = -5;
    closest_points(x_axis, giInfLine3(giPoint3(3, -2, 1), giVector3(0, 1, 0)), giAngle(1, 1e-3), t1,
                   t2, status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(std::fabs(t1 - 3.0) <= 1e-15 && std::fabs(t2 - 2.0) <= 1e-15);

    // Lines built to cross at a known point at known parameters.
    testsupport::Rng rng(13);
    for (int i = 0; i < 50; ++i) {
        const giPoint3 X(rng.uniform(-50, 50), rng.uniform(-50, 50), rng.uniform(-50, 50));
        const giUnitVec3 d1(rng.normal(), rng.normal(), rng.normal());
        const giUnitVec3 d2(rng.normal(), rng.normal(), rng.normal());
        const double a = rng.uniform(-20, 20), b = rng.uniform(-20, 20);
        const giInfLine3 l1(X - a * d1, d1), l2(X - b * d2, d2);
        closest_points(l1, l2, giAngle(), t1, t2, status);
        ASSERT_EQ(status, 1);
        // Conditioning falls with the angle between the lines.
        const double tol = 1e-12 / cross(d1, d2).length();
        EXPECT_NEAR(t1, a, tol);
        EXPECT_NEAR(t2, b, tol);
        EXPECT_LT(distance(l1.point_at(t1), X), tol);
    }

    const giInfLine2 l1(giPoint2(0, 0), giVector2(1, 0)), l2(giPoint2(3, -4), giVector2(0, 2));
    closest_points(l1, l2, giAngle(), t1, t2, status);
    EXPECT_TRUE(status == 1 && t1 == 3.0 && t2 == 4.0);
}

TEST(GeometryInfLine, ParallelWithinTheToleranceAngleGivesStatusZero) {
    const giInfLine3 base(giPoint3(0, 0, 0), giVector3(1, 0, 0));
    const double tilt = 1e-3;  // radians
    const giInfLine3 tilted(giPoint3(5, 2, 0), giVector3(std::cos(tilt), std::sin(tilt), 0));
    const giInfLine3 opposite(giPoint3(5, 2, 0), giVector3(-1, 0, 0));
    double t1 = 0, t2 = 0;
    int status = -5;
    closest_points(base, tilted, giAngle(0, 1e-2), t1, t2, status);
    EXPECT_TRUE(status == 0 && t1 == 0.0);
    closest_points(base, opposite, giAngle(), t1, t2, status);  // exactly parallel, zero tolerance
    EXPECT_TRUE(status == 0 && t1 == 0.0 && t2 == 5.0);  // foot of base's point on the other line
    closest_points(base, tilted, giAngle(0, 1e-4), t1, t2, status);
    EXPECT_EQ(status, 1);

    t1 = t2 = 42.0;  // an unset line: status -1, nothing written
    closest_points(base, giInfLine3(), giAngle(), t1, t2, status);
    EXPECT_TRUE(status == -1 && t1 == 42.0 && t2 == 42.0);
    const giInfLine2 a(giPoint2(0, 0), giVector2(1, 0)), b(giPoint2(0, 1), giVector2(-3, 0));
    closest_points(a, b, giAngle(), t1, t2, status);
    EXPECT_EQ(status, 0);
}

TEST(GeometryPlane, SignedDistanceIsPositiveOnTheNormalsSide) {
    const giPlane plane(giVector3(0, 0, 2), giPoint3(1, 1, 1));
    EXPECT_EQ(plane.normal(), giVector3(0, 0, 1));
    EXPECT_EQ(plane.distance(giPoint3(5, -7, 4)), 3.0);
    EXPECT_EQ(plane.distance(giPoint3(5, -7, -1)), -2.0);
    EXPECT_EQ(plane.project(giPoint3(5, -7, 4)), giPoint3(5, -7, 1));
    const giPlane flipped(giVector3(0, 0, -1), giPoint3(1, 1, 1));
    EXPECT_EQ(flipped.distance(giPoint3(5, -7, 4)), -3.0);
    EXPECT_FALSE(giPlane(giVector3(0, 0, 0), giPoint3(1, 1, 1)).is_set());

    // Normal (1, -2, 2) / 3: (4, -2, 3) lies 3 above (3, 0, 1) along it.
    const giPlane tilted(giVector3(1, -2, 2), giPoint3(3, 0, 1));
    EXPECT_NEAR(tilted.distance(giPoint3(4, -2, 3)), 3.0, 1e-15);
    EXPECT_NEAR(tilted.distance(tilted.project(giPoint3(-5, 7, 2))), 0.0, 1e-14);
}

TEST(GeometryCircle, ThroughThreePointsOrNone) {
    testsupport::Rng rng(17);
    for (int k = 0; k < 20; ++k) {
        // Three points of a known circle in a random plane, far from the origin.
        const giPoint3 c(rng.uniform(-1e4, 1e4), rng.uniform(-1e4, 1e4), rng.uniform(-1e4, 1e4));
        const giUnitVec3 n(rng.normal(), rng.normal(), rng.normal());
        const giUnitVec3 e1 = n.any_normal();
        const giUnitVec3 e2(cross(n, e1));
        const double r = rng.uniform(0.01, 100.0);
        giPoint3 p[3];
        for (int i = 0; i < 3; ++i) {
            const double t = rng.uniform(0.0, 6.2);
            p[i] = c + (r * std::cos(t)) * e1 + (r * std::sin(t)) * e2;
        }
        giCircle3 circle;
        ASSERT_EQ(circle.become_through_points(p[0], p[1], p[2]), 1);
        EXPECT_LT(distance(circle.centre(), c), 1e-9 * (r + 1e4) / r);
        EXPECT_NEAR(circle.radius(), r, 1e-9 * (r + 1e4) / r);
        EXPECT_NEAR(std::fabs(dot(circle.normal(), n)), 1.0, 1e-9);
    }
    // Collinear, coincident and unset points fail and leave the circle unset.
    giCircle3 circle;
    const giPoint3 fails[][3] = {{giPoint3(0, 0, 0), giPoint3(1, 1, 1), giPoint3(3, 3, 3)},
                                 {giPoint3(1, 2, 3), giPoint3(1, 2, 3), giPoint3(0, 0, 1)},
                                 {giPoint3(), giPoint3(1, 0, 0), giPoint3(0, 1, 0)}};
    for (const auto& p : fails) EXPECT_EQ(circle.become_through_points(p[0], p[1], p[2]), 0);
    EXPECT_FALSE(circle.is_set());
}

TEST(GeometryBox, StartsEmptyAndGrowsByMerging) {
    giBox3 box;
    EXPECT_TRUE(box.is_empty());
    EXPECT_EQ(box.diagonal(), 0.0);
    box.merge(giPoint3(1, 5, -2));
    EXPECT_FALSE(box.is_empty());
    EXPECT_EQ(box.min_corner(), box.max_corner());
    box.merge(giPoint3(4, 1, 10));
    box.merge(giPoint3(2, 3, std::numeric_limits<double>::quiet_NaN()));  // NaN coordinate skipped
    EXPECT_EQ(box.min_corner(), giPoint3(1, 1, -2));
    EXPECT_EQ(box.max_corner(), giPoint3(4, 5, 10));
    EXPECT_EQ(box.diagonal(), 13.0);
    giBox3 other;
    other.merge(giPoint3(-1, 0, 0));
    other.merge(giBox3());
    box.merge(other);
    EXPECT_EQ(box.min_corner(), giPoint3(-1, 0, -2));

    giBox2 flat;
    flat.merge(giPoint2(0, 0));
    flat.merge(giPoint2(-3, 4));
    EXPECT_EQ(flat.diagonal(), 5.0);
}

TEST(GeometryArrays, AutoGrowthFillsWithUnsetValues) {
    giPoint3coDynArr points;
    points[3] = giPoint3(1, 2, 3);
    ASSERT_EQ(points.size(), 4);
    EXPECT_FALSE(points[0].is_set());
    giUnitVec3coDynArr dirs;
    dirs[1] = giUnitVec3(0, 3, 4);
    EXPECT_FALSE(dirs[0].is_set());
    EXPECT_EQ(dirs[1].length_cache(), 1.0);
}

}  // namespace
