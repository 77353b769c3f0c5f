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

// (u, v, w) is right-handed around the centre, the outer ring lies at half
// the opening angle. The walk starts at the centre and visits total_steps() unit directions,
// numbered 0, 1, ..., each at its ring's polar angle; every direction of the
// cone has one within a ring step (the worst gap is about 0.71 steps).
TEST(VectorGradientGrid, DirectionsOnTheirRingsCoverTheCone) {
    const GridCase cases[] = {{giVector3(0, 0, 1), kPi, 20},      // hemisphere, the axis search
                              {giVector3(3, -1, 2), 0.3, 6},      // narrow cone, non-unit centre
                              {giVector3(-1, 5, 1e-3), 2.0, 9}};  // wide cone
    for (const GridCase& c : cases) {
        SCOPED_TRACE(c.rings);
        const tsVectorGradient g(c.centre, c.angle, c.rings);
        const giUnitVec3 w(c.centre);
        EXPECT_NEAR(dot(cross(g.u(), g.v()), w), 1.0, 1e-15);
        EXPECT_NEAR(g.ring(c.rings - 1).theta, 0.5 * c.angle, 1e-12);
        std::vector<giVector3> dirs;
        for (tsVectorGradientIterator it = g.iterator(); it++; dirs.push_back(it.vector())) {
            ASSERT_EQ(it.step_number(), static_cast<int>(dirs.size()));
            EXPECT_NEAR(it.vector().length(), 1.0, 1e-14);
            EXPECT_NEAR(angle_between(it.vector(), w), it.ring().theta,
                        dirs.empty() ? 1e-15 : 1e-7);
        }
        EXPECT_EQ(static_cast<int>(dirs.size()), g.total_steps());
        testsupport::Rng rng(77);
        for (int k = 0; k < 300; ++k) {
            const double theta = std::acos(rng.uniform(std::cos(0.5 * c.angle), 1.0));
            const double phi = rng.uniform(0.0, 2 * kPi);
            const giVector3 probe = std::sin(theta) * std::cos(phi) * g.u() +
                                    std::sin(theta) * std::sin(phi) * g.v() +
                                    std::cos(theta) * g.w();
            double nearest = 10.0;
            for (const giVector3& d : dirs) nearest = std::min(nearest, angle_between(d, probe));
            EXPECT_LE(nearest, g.step_angle()) << "theta " << theta << " phi " << phi;
        }
    }
}

// Degenerate requests stay bounded: a centre without direction falls back to
// z, zero or one ring hold no or one direction, a zero or non-finite angle
// collapses every ring onto the centre, absurd ring counts are capped.
TEST(VectorGradient, DegenerateRequestsGiveBoundedFiniteGrids) {
    const std::vector<giVector3> z = walk(tsVectorGradient(giVector3(0, 0, 0), 1.0, 5));
    EXPECT_TRUE(!z.empty() && z.front() == giVector3(0, 0, 1));
    for (const int rings : {0, -3})
        EXPECT_EQ(walk(tsVectorGradient(giVector3(0, 0, 1), 1.0, rings)).size(), 0u);
    for (const double a : {0.0, double(NAN), double(INFINITY)}) {
        const std::vector<giVector3> dirs = walk(tsVectorGradient(giVector3(0, 0, 1), a, 4));
        EXPECT_EQ(dirs.size(), 4u);
        for (const giVector3& d : dirs) EXPECT_NEAR(d.z(), 1.0, 1e-15);
    }
    EXPECT_EQ(tsVectorGradient(giVector3(0, 0, 1), 1e-300, 1 << 30).rings(),
              tsVectorGradient::kMaxRings);
}

}  // namespace
