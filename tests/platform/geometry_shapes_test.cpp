#include <gtest/gtest.h>

#include <cmath>

#include "metrofit/platform/geometry/circle.h"
#include "metrofit/platform/geometry/inf_line.h"
#include "tests/support/random.h"

namespace {

TEST(GeometryInfLine, DistanceOfPointAndTwoPointForm) {
    const giInfLine3 line(giPoint3(1, 1, 1), giVector3(2, 0, 0));  // direction normalised
    EXPECT_DOUBLE_EQ(line.distance_of_point(giPoint3(-40, 4, 5)), 5.0);
    const giInfLine3 through(giPoint3(0, 0, 0), giPoint3(0, 0, -3));
    EXPECT_EQ(through.parameter_of(giPoint3(5, 5, -2)), 2.0);
    EXPECT_FALSE(giInfLine3(giPoint3(1, 2, 3), giPoint3(1, 2, 3)).is_set());
}

TEST(GeometryInfLine, ClosestPointsOfSkewAndCrossingLines) {
    double t1 = 0, t2 = 0;
    int status = -5;
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
        EXPECT_TRUE(std::fabs(t1 - a) <= tol && std::fabs(t2 - b) <= tol) << i;
    }
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

    t1 = t2 = 42.0;  // an unset line: status -1, nothing written
    closest_points(base, giInfLine3(), giAngle(), t1, t2, status);
    EXPECT_TRUE(status == -1 && t1 == 42.0 && t2 == 42.0);
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

}  // namespace
