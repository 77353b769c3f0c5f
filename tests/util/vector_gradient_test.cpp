#include "metrofit/util/vector_gradient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/support/random.h"

namespace {

constexpr double kPi = testsupport::Rng::kPi;

double angle_between(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), dot(a, b));
}

std::vector<giVector3> walk(const tsVectorGradient& g) {
    std::vector<giVector3> dirs;
    tsVectorGradientIterator it = g.iterator();
    for (int guard = 0; guard < 10000000 && it++; ++guard) dirs.push_back(it.vector());
    return dirs;
}

struct GridCase {
    giVector3 centre;
    double angle;
    int rings;
};

class VectorGradientGrid : public ::testing::TestWithParam<GridCase> {};

// Every direction is a unit vector at its ring's polar angle from the centre,
// the first is the centre itself, the walk visits total_steps() directions
// numbered 0, 1, ..., and the outermost ring lies at half the opening angle.
TEST_P(VectorGradientGrid, DirectionsLieOnTheirRings) {
    const GridCase& c = GetParam();
    const tsVectorGradient g(c.centre, c.angle, c.rings);
    const giUnitVec3 w(c.centre);
    EXPECT_NEAR(g.step_angle(), c.angle / (2.0 * (c.rings - 1)), 1e-15);
    EXPECT_NEAR(g.ring(c.rings - 1).theta, 0.5 * c.angle, 1e-12);

    tsVectorGradientIterator it = g.iterator();
    int visited = 0;
    while (it++) {
        ASSERT_EQ(it.step_number(), visited);
        const giVector3& d = it.vector();
        EXPECT_NEAR(d.length(), 1.0, 1e-14);
        EXPECT_NEAR(angle_between(d, w), it.ring().theta, 1e-7);
        if (visited == 0) {
            EXPECT_LT(angle_between(d, w), 1e-15);
        }
        ++visited;
        ASSERT_LE(visited, g.total_steps());
    }
    EXPECT_EQ(visited, g.total_steps());
}

// The grid covers its cone: every direction within half the opening angle
// of the centre has a grid direction within one ring step (rings are a step
// apart and neighbours on a ring about a step apart, so the worst gap is
// about 0.71 steps).
TEST_P(VectorGradientGrid, CoversTheConeWithinOneStep) {
    const GridCase& c = GetParam();
    const tsVectorGradient g(c.centre, c.angle, c.rings);
    const std::vector<giVector3> dirs = walk(g);
    testsupport::Rng rng(77);
    for (int k = 0; k < 300; ++k) {
        const double theta = std::acos(rng.uniform(std::cos(0.5 * c.angle), 1.0));
        const double phi = rng.uniform(0.0, 2 * kPi);
        const giVector3 probe = std::sin(theta) * std::cos(phi) * g.u() +
                                std::sin(theta) * std::sin(phi) * g.v() + std::cos(theta) * g.w();
        double nearest = 10.0;
        for (const giVector3& d : dirs) nearest = std::min(nearest, angle_between(d, probe));
        EXPECT_LE(nearest, g.step_angle()) << "theta " << theta << " phi " << phi;
    }
}

INSTANTIATE_TEST_SUITE_P(
    VectorGradient, VectorGradientGrid,
    ::testing::Values(GridCase{giVector3(0, 0, 1), kPi, 20},       // hemisphere, the axis search
                      GridCase{giVector3(3, -1, 2), 0.3, 6},       // narrow cone, non-unit centre
                      GridCase{giVector3(1, 0, 0), 1.0, 2},        // one ring around the centre
                      GridCase{giVector3(-1, 5, 1e-3), 2.0, 9}));  // wide cone

TEST(VectorGradient, TwoRingsPutTheOuterRingAtHalfTheAngle) {
    const tsVectorGradient g(giVector3(0, 0, 1), 0.8, 2);
    EXPECT_DOUBLE_EQ(g.step_angle(), 0.4);
    EXPECT_DOUBLE_EQ(g.ring(1).theta, 0.4);
    EXPECT_EQ(g.ring(0).count, 1);
    // Neighbours on the ring sit about one spot diameter apart: the azimuth
    // one spot subtends fits count times into a half turn, just.
    const double subtended = std::atan2(g.spot_radius(), std::sin(0.4));
    EXPECT_GE(g.ring(1).count * subtended, kPi);
    EXPECT_LT((g.ring(1).count - 1) * subtended, kPi);
}

TEST(VectorGradient, ReferenceAxisFollowsTheLargerOfXAndY) {
    // Centre along x: reference (0, 1, 0), u = unit(y x x) = -z.
    const tsVectorGradient gx(giVector3(2, 0, 0), 1.0, 3);
    EXPECT_NEAR(gx.u().z(), -1.0, 1e-15);
    // |x| <= |y|: reference (1, 0, 0), u = unit(x x w) = +z for w in the xy plane.
    const tsVectorGradient gxy(giVector3(1, 1, 0), 1.0, 3);
    EXPECT_NEAR(gxy.u().z(), 1.0, 1e-15);
    // (u, v, w) is right-handed: u x v = w.
    EXPECT_NEAR(dot(cross(gxy.u(), gxy.v()), gxy.w()), 1.0, 1e-15);
}

TEST(VectorGradient, ExhaustedIteratorKeepsItsLastDirection) {
    const tsVectorGradient g(giVector3(0, 1, 1), 0.5, 3);
    tsVectorGradientIterator it = g.iterator();
    EXPECT_FALSE(it.vector().is_set());  // nothing before the first step
    while (it++) {
    }
    const giVector3 last = it.vector();
    const int step = it.step_number();
    EXPECT_EQ(step, g.total_steps() - 1);
    // The last direction of a ring is at azimuth 2 pi: sin(theta) v + cos(theta) w.
    const double t = g.ring(2).theta;
    const giVector3 expected = std::sin(t) * g.v() + std::cos(t) * g.w();
    EXPECT_LT((last - expected).length(), 1e-15);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(it++, 0);
        EXPECT_EQ(it.vector(), last);
        EXPECT_EQ(it.step_number(), step);
    }
}

// Degenerate requests stay finite and bounded: a centre without direction
// falls back to z, zero or one ring hold no or one direction, a zero or
// non-finite angle collapses every ring onto the centre.
TEST(VectorGradient, DegenerateRequestsGiveBoundedFiniteGrids) {
    const tsVectorGradient zero(giVector3(0, 0, 0), 1.0, 5);
    const std::vector<giVector3> z = walk(zero);
    ASSERT_FALSE(z.empty());
    EXPECT_EQ(z.front(), giVector3(0, 0, 1));
    for (const giVector3& d : z) EXPECT_NEAR(d.length(), 1.0, 1e-14);

    EXPECT_EQ(walk(tsVectorGradient(giVector3(0, 0, 1), 1.0, 0)).size(), 0u);
    EXPECT_EQ(walk(tsVectorGradient(giVector3(0, 0, 1), 1.0, -3)).size(), 0u);
    const std::vector<giVector3> one = walk(tsVectorGradient(giVector3(0, 3, 4), 1.0, 1));
    ASSERT_EQ(one.size(), 1u);
    EXPECT_NEAR(one[0].z(), 0.8, 1e-15);

    for (const double a : {0.0, double(NAN), double(INFINITY)}) {
        const tsVectorGradient g(giVector3(0, 0, 1), a, 4);
        const std::vector<giVector3> dirs = walk(g);
        EXPECT_EQ(dirs.size(), 4u);
        for (const giVector3& d : dirs) EXPECT_NEAR(d.z(), 1.0, 1e-15);
    }

    // Absurd ring counts are capped, and the total stays an int.
    const tsVectorGradient huge(giVector3(0, 0, 1), 1e-300, 1 << 30);
    EXPECT_EQ(huge.rings(), tsVectorGradient::kMaxRings);
    EXPECT_GT(huge.total_steps(), 0);
}

}  // namespace
