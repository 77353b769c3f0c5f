#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "tests/support/random.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(GeometryVector, LengthSurvivesOverflowAndUnderflowOfTheSquare) {
    EXPECT_DOUBLE_EQ(giVector3(3e200, 4e200, 0.0).length(), 5e200);
    EXPECT_DOUBLE_EQ(giVector2(3e-200, 4e-200).length(), 5e-200);
    EXPECT_EQ(giVector2(1.0, -kInf).length(), kInf);
    EXPECT_TRUE(std::isnan(giVector3(1.0, kNaN, 0.0).length()));
}

TEST(GeometryPoint, UnsetOriginArithmeticAndCoincidence) {
    EXPECT_FALSE(giPoint3().is_set());

    const giPoint3 p(1, 2, 3), q(4, 6, 15);
    EXPECT_TRUE(p + (q - p) == q && distance(p, q) == 13.0);

    EXPECT_FALSE(p.coincident(giPoint3(1, 2, 3 + 1e-15), 0.0));
    // Exact even where the squared distance underflows to zero.
    EXPECT_FALSE(giPoint3(giOrigin).coincident(giPoint3(1e-200, 0, 0), 0.0));
    EXPECT_TRUE(p.coincident(giPoint3(4, 6, 3), 5.0));     // distance exactly 5
    EXPECT_FALSE(p.coincident(giPoint3(4.5, 6, 3), 5.0));  // each axis within 5, distance not
}

// Axes, near-axes and random directions over 500 decades, from coordinates
// and from vectors: a unit vector (flagged so in its cache) of v's sense, and
// a unit normal across it.
TEST(GeometryUnitVec, NormalisesAndFindsANormalForEveryDirection) {
    std::vector<giVector3> dirs = {
        giVector3(1, 0, 0), giVector3(0, 1, 0),      giVector3(0, 0, 1),       giVector3(-1, 0, 0),
        giVector3(1, 1, 1), giVector3(1, 1e-300, 0), giVector3(1e-9, 1e-9, -1)};
    testsupport::Rng rng(11);
    for (int i = 0; i < 300; ++i) {
        const double scale = std::pow(10.0, rng.uniform(-250, 250));
        dirs.push_back(giVector3(scale * rng.normal(), scale * rng.normal(), scale * rng.normal()));
    }
    for (const giVector3& v : dirs) {
        for (const giUnitVec3& u : {giUnitVec3(v), giUnitVec3(v.x(), v.y(), v.z())}) {
            ASSERT_TRUE(u.is_set());
            EXPECT_EQ(u.length_cache(), 1.0);
            EXPECT_NEAR(cross(u, giVector3(v / v.length())).length(), 0.0, 1e-15);
            EXPECT_GT(dot(u, v), 0.0);
            const giUnitVec3 n = u.any_normal();
            ASSERT_TRUE(n.is_set());
            EXPECT_NEAR(dot(n, u), 0.0, 1e-15);
        }
    }
    EXPECT_GT(cross(giUnitVec2(3, 4), giUnitVec2(3, 4).any_normal()), 0.99);  // counterclockwise
}

TEST(GeometryUnitVec, NoDirectionGivesAnUnsetUnitVector) {
    for (const giVector3& v :
         {giVector3(0, 0, 0), giVector3(kNaN, 1, 0), giVector3(1, kInf, 0), giVector3()})
        EXPECT_EQ(giUnitVec3(v).x(), -DBL_MAX);
    EXPECT_FALSE(giUnitVec2(0.0, 0.0).is_set());
    EXPECT_FALSE(giUnitVec3().any_normal().is_set());
    const giUnitVec3 n = -giUnitVec3(1, 2, 2);  // negation keeps a unit vector
    EXPECT_TRUE(n.length_cache() == 1.0 && std::fabs(n.y() + 2.0 / 3.0) < 1e-16);
}

// Binary fractions of 180 degrees convert exactly both ways; the cosine is
// clamped, two tangent components keep the quadrant, an undefined tangent has
// status 0, and a negative tolerance admits nothing.
TEST(GeometryAngle, ConversionsClampsQuadrantsAndCoincidence) {
    for (const auto& c : {std::pair(90.0, kPi / 2), std::pair(-360.0, -2 * kPi)}) {
        EXPECT_EQ(giAngle(giANGLE_DEGREES, c.first).radians(), c.second);
        EXPECT_EQ(giAngle(giANGLE_RADIANS, c.second).degrees(), c.first);
    }
    EXPECT_TRUE(std::isnan(giAngle(2, 1.0).radians()));
    EXPECT_EQ(giAngle(giAngleCosine, -1.0 - 1e-15).radians(), kPi);
    EXPECT_NEAR(giAngle(giAngleTangent2, 1.0, -1.0).degrees(), 135.0, 1e-12);
    int status = 7;
    giAngle(giANGLE_DEGREES, -90.0).tan(status);
    EXPECT_EQ(status, 0);
    EXPECT_NEAR(giAngle(1, 45).tan(status), 1.0, 1e-15);
    EXPECT_EQ(status, 1);
    const giAngle tol(giANGLE_DEGREES, 1.0);
    EXPECT_TRUE(giAngle(1, 30).coincident(giAngle(1, 30.9), tol));
    EXPECT_FALSE(giAngle(1, 30).coincident(giAngle(1, 31.1), tol));
    EXPECT_FALSE(giAngle(1, 30).coincident(giAngle(1, 30), giAngle(1, -1)));
}

}  // namespace
