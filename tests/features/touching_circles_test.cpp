#include "metrofit/features/touching_circles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "tests/support/sampling.h"

namespace {

struct Circle2 {
    giPoint2 c;
    double r;
};

int solve2(const Circle2& a, const Circle2& b, const Circle2& c, int enclosing, giPoint2& centre,
           double& radius) {
    return CircleTouchingThreeCircles2D(a.c, a.r, b.c, b.r, c.c, c.r, enclosing, centre, radius);
}

// Refusals leave the outputs as they were.
TEST(TouchingCircles, DegenerateInputIsRefused) {
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        const char* what;
        Circle2 k[3];
        int enclosing;
    };
    const Case cases[] = {
        {"coincident centres", {{{0, 0}, 1}, {{0, 5e-8}, 2}, {{5, 0}, 1}}, 1},
        {"infinite radius", {{{0, 0}, 1}, {{0, 4}, inf}, {{5, 0}, 1}}, 0},
        // The smallest circle touches the second from inside: the shrunk
        // second circle passes through the centre of inversion.
        {"image through the centre", {{{0, 0}, 1}, {{2, 0}, 3}, {{0, 9}, 2}}, 1},
        // No circle through the middle of a row can hold both ends.
        {"smallest between the others", {{{-6, 0}, 2}, {{0, 0}, 0.5}, {{6, 0}, 2}}, 1},
        // Equal circles in a row: the touching "circle" is a line.
        {"equal circles in a row", {{{-6, 0}, 1}, {{0, 0}, 1}, {{6, 0}, 1}}, 0},
    };
    for (const Case& c : cases) {
        giPoint2 centre(-7, -7);
        double radius = -7;
        EXPECT_EQ(solve2(c.k[0], c.k[1], c.k[2], c.enclosing, centre, radius), 0) << c.what;
        EXPECT_TRUE(centre == giPoint2(-7, -7) && radius == -7) << c.what;
    }
    giVector3 normal(-7, -7, -7);
    giPoint3 centre(-7, -7, -7);
    double radius = -7;
    EXPECT_EQ(CircleTouchingThreeCircles3D(giPoint3(0, 0, 0), 1, giPoint3(1, 2, 3), 0.5,
                                           giPoint3(3, 6, 9), 1, 1, normal, centre, radius),
              0);  // collinear centres: no plane
    EXPECT_TRUE(normal == giVector3(-7, -7, -7) && centre == giPoint3(-7, -7, -7) && radius == -7);
}

// Random disjoint circles, in the plane and in a random plane of space far
// away: a returned circle touches all three in the requested sense
// (|C - Ck| = R - sigma rk, 1e-9 of R); most have one of each sense.
TEST(TouchingCircles, RandomConfigurationsAreTangentInTheRequestedSense) {
    testsupport::Rng rng(20240607);
    const int trials = 200;
    for (const int enclosing : {1, 0}) {
        const double sigma = enclosing ? 1.0 : -1.0;
        int found3 = 0;
        for (int t = 0; t < trials; ++t) {
            Circle2 k[3];
            for (int i = 0, guard = 0; i < 3 && guard < 1000; ++guard) {
                k[i] = {giPoint2(rng.uniform(-10, 10), rng.uniform(-10, 10)), rng.uniform(0.1, 3)};
                bool apart = true;
                for (int m = 0; m < i; ++m) apart &= distance(k[i].c, k[m].c) > k[i].r + k[m].r;
                i += apart;
            }
            giPoint2 c;
            double radius = 0.0;
            const bool solved = solve2(k[0], k[1], k[2], enclosing, c, radius);
            for (int i = 0; solved && i < 3; ++i)
                EXPECT_NEAR(distance(c, k[i].c), radius - sigma * k[i].r,
                            1e-9 * std::max(1.0, radius));
            const giXform3 motion = testsupport::random_motion(rng.uniform(0, 180), 1e3, t + 1);
            giPoint3 p[3];
            for (int i = 0; i < 3; ++i) p[i] = motion * giPoint3(k[i].c.x(), k[i].c.y(), 0.0);
            giVector3 normal;
            giPoint3 centre;
            double radius3 = 0.0;
            if (CircleTouchingThreeCircles3D(p[0], k[0].r, p[1], k[1].r, p[2], k[2].r, enclosing,
                                             normal, centre, radius3)) {
                ++found3;
                const double tol = 1e-9 * std::max(1.0, radius3);
                EXPECT_NEAR(std::fabs(dot(normal, motion * giVector3(0, 0, 1))), 1.0, 1e-12);
                EXPECT_NEAR(dot(normal, centre - p[0]), 0.0, tol);
                for (int i = 0; i < 3; ++i)
                    EXPECT_NEAR(distance(centre, p[i]), radius3 - sigma * k[i].r, tol);
            }
        }
        // About 95% of such configurations have a circle of each sense.
        EXPECT_GT(found3, 0.85 * trials) << enclosing;
    }
}

}  // namespace
