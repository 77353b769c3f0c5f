#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/length.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "tests/support/random.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(GeometryVector, CacheGoesUnknownThenMinusSquareThenLength) {
    const giVector3 v(3.0, 4.0, 12.0);
    EXPECT_EQ(v.length_cache(), giVector3::kLengthUnknown);
    EXPECT_EQ(v.length_squared(), 169.0);
    EXPECT_EQ(v.length_cache(), -169.0);  // the root is still owed
    EXPECT_EQ(v.length(), 13.0);
    EXPECT_EQ(v.length_cache(), 13.0);
    EXPECT_EQ(v.length_squared(), 169.0);
    const giVector2 w(6.0, 8.0);
    w.length_squared();
    EXPECT_EQ(w.length_cache(), -100.0);
}

// Every coordinate change must drop a cached length; a stale cache would
// report the old length.
template <class V>
void ExpectEachChangeResetsTheCache(V start, const std::vector<std::function<void(V&)>>& changes) {
    for (size_t i = 0; i < changes.size(); ++i) {
        V v = start;
        v.length();
        changes[i](v);
        EXPECT_EQ(v.length_cache(), V::kLengthUnknown) << "change " << i;
        EXPECT_DOUBLE_EQ(v.length() * v.length(), dot(v, v)) << "change " << i;
    }
}

TEST(GeometryVector, EveryCoordinateChangeResetsTheCache) {
    ExpectEachChangeResetsTheCache<giVector3>(
        giVector3(2, -3, 6),
        {[](giVector3& v) { v += giVector3(1, 2, 3); },
         [](giVector3& v) { v -= giVector3(1, 2, 3); }, [](giVector3& v) { v *= 3.0; },
         [](giVector3& v) { v /= 4.0; }, [](giVector3& v) { v.set_x(7.0); },
         [](giVector3& v) { v.set_y(7.0); }, [](giVector3& v) { v.set_z(7.0); },
         [](giVector3& v) { v.become(1, 1, 1); }});
    ExpectEachChangeResetsTheCache<giVector2>(
        giVector2(3, -4),
        {[](giVector2& v) { v += giVector2(1, 2); }, [](giVector2& v) { v -= giVector2(1, 2); },
         [](giVector2& v) { v *= 3.0; }, [](giVector2& v) { v /= 4.0; },
         [](giVector2& v) { v.set_x(7.0); }, [](giVector2& v) { v.set_y(7.0); },
         [](giVector2& v) { v.become(1, 1); }});
}

TEST(GeometryVector, LengthSurvivesOverflowAndUnderflowOfTheSquare) {
    EXPECT_DOUBLE_EQ(giVector3(3e200, 4e200, 0.0).length(), 5e200);
    EXPECT_DOUBLE_EQ(giVector3(0.0, 3e-200, 4e-200).length(), 5e-200);
    EXPECT_DOUBLE_EQ(giVector2(3e-200, 4e-200).length(), 5e-200);
    EXPECT_EQ(giVector3(0.0, 0.0, 0.0).length(), 0.0);
    EXPECT_EQ(giVector3(kInf, 0.0, 0.0).length(), kInf);
    EXPECT_EQ(giVector2(1.0, -kInf).length(), kInf);
    EXPECT_TRUE(std::isnan(giVector3(1.0, kNaN, 0.0).length()));
}

TEST(GeometryVector, DotAndCrossKnownTruths) {
    EXPECT_EQ(cross(giVector3(1, 0, 0), giVector3(0, 1, 0)), giVector3(0, 0, 1));
    EXPECT_EQ(cross(giVector3(1, 2, 3), giVector3(4, 5, 6)), giVector3(-3, 6, -3));
    EXPECT_EQ(dot(giVector3(1, 2, 3), giVector3(4, 5, 6)), 32.0);
    EXPECT_EQ(cross(giVector2(1, 0), giVector2(0, 1)), 1.0);
    EXPECT_EQ(cross(giVector2(2, 1), giVector2(4, 2)), 0.0);
}

TEST(GeometryPoint, UnsetOriginArithmeticAndCoincidence) {
    EXPECT_FALSE(giPoint3().is_set());
    EXPECT_FALSE(giPoint3(-DBL_MAX, 0, 0).is_set());
    EXPECT_EQ(giPoint3(giOrigin), giPoint3(0, 0, 0));

    const giPoint3 p(1, 2, 3), q(4, 6, 15);
    const giVector3 d = q - p;
    EXPECT_EQ(d, giVector3(3, 4, 12));
    EXPECT_EQ(p + d, q);
    EXPECT_EQ(q - d, p);
    EXPECT_EQ(distance(p, q), 13.0);

    EXPECT_FALSE(p.coincident(giPoint3(1, 2, 3 + 1e-15), 0.0));
    // Exact even where the squared distance underflows to zero.
    EXPECT_FALSE(giPoint3(giOrigin).coincident(giPoint3(1e-200, 0, 0), 0.0));
    EXPECT_TRUE(p.coincident(giPoint3(4, 6, 3), 5.0));     // distance exactly 5
    EXPECT_FALSE(p.coincident(giPoint3(4.5, 6, 3), 5.0));  // each axis within 5, distance not
    EXPECT_FALSE(p.coincident(p, -1.0));
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
            EXPECT_NEAR(std::sqrt(u.x() * u.x() + u.y() * u.y() + u.z() * u.z()), 1.0, 1e-15);
            EXPECT_NEAR(cross(u, giVector3(v / v.length())).length(), 0.0, 1e-15);
            EXPECT_GT(dot(u, v), 0.0);
            const giUnitVec3 n = u.any_normal();
            ASSERT_TRUE(n.is_set());
            EXPECT_NEAR(std::sqrt(n.x() * n.x() + n.y() * n.y() + n.z() * n.z()), 1.0, 1e-15);
            EXPECT_NEAR(dot(n, u), 0.0, 1e-15);
        }
        const double h = std::hypot(v.x(), v.y());
        if (h > 0) {  // the 2D unit vector of (x, y)
            EXPECT_NEAR(dot(giUnitVec2(v.x(), v.y()), giVector2(v.x(), v.y())) / h, 1.0, 1e-15);
        }
    }
    const giUnitVec2 u2(3, 4);
    EXPECT_EQ(dot(u2, u2.any_normal()), 0.0);
    EXPECT_GT(cross(u2, u2.any_normal()), 0.0);  // turned counterclockwise
}

TEST(GeometryUnitVec, NoDirectionGivesAnUnsetUnitVector) {
    for (const giVector3& v :
         {giVector3(0, 0, 0), giVector3(kNaN, 1, 0), giVector3(1, kInf, 0), giVector3()})
        EXPECT_EQ(giUnitVec3(v).x(), -DBL_MAX);
    EXPECT_FALSE(giUnitVec2(0.0, 0.0).is_set());
    EXPECT_FALSE(giUnitVec3().any_normal().is_set());
    giUnitVec3 u(giXAxis);
    EXPECT_EQ(u.become(0, 0, 0), 0);
    EXPECT_FALSE(u.is_set());
    const giUnitVec3 n = -giUnitVec3(1, 2, 2);  // negation keeps a unit vector
    EXPECT_EQ(n.length_cache(), 1.0);
    EXPECT_DOUBLE_EQ(n.y(), -2.0 / 3.0);
}

TEST(GeometryLength, ThreeStatesAndValidation) {
    const giLength sq = giLength::from_squared(25.0);
    EXPECT_EQ(sq.state(), -25.0);
    EXPECT_EQ(sq.squared(), 25.0);
    EXPECT_EQ(static_cast<double>(sq), 5.0);
    EXPECT_EQ(sq.state(), 5.0);  // validated once
    EXPECT_EQ(giLength(-2.5).value(), 2.5);
    EXPECT_EQ(giLength::from_squared(0.0).value(), 0.0);
    EXPECT_FALSE(giLength().is_known());
    EXPECT_LT(giLength::from_squared(4.0), giLength(2.5));
}

TEST(GeometryAngle, DegreesAndRadiansRoundTrip) {
    // Binary fractions of 180 degrees convert exactly both ways.
    const double table[][2] = {{0, 0}, {90, kPi / 2}, {180, kPi}, {45, kPi / 4}, {-360, -2 * kPi}};
    for (const auto& c : table) {
        EXPECT_EQ(giAngle(giANGLE_DEGREES, c[0]).radians(), c[1]);
        EXPECT_EQ(giAngle(giANGLE_RADIANS, c[1]).degrees(), c[0]);
    }
    EXPECT_NEAR(giAngle(0, giAngle(1, -123.456).radians()).degrees(), -123.456, 1e-12);
    EXPECT_TRUE(std::isnan(giAngle(2, 1.0).radians()));
}

TEST(GeometryAngle, FromCosineClampsAndFromTangentComponentsKeepsTheQuadrant) {
    EXPECT_EQ(giAngle(giAngleCosine, 1.0 + 1e-15).radians(), 0.0);
    EXPECT_EQ(giAngle(giAngleCosine, -1.0 - 1e-15).radians(), kPi);
    EXPECT_NEAR(giAngle(giAngleCosine, 0.5).degrees(), 60.0, 1e-12);
    EXPECT_TRUE(std::isnan(giAngle(giAngleCosine, kNaN).radians()));
    EXPECT_NEAR(giAngle(giAngleTangent2, 1.0, -1.0).degrees(), 135.0, 1e-12);
    EXPECT_NEAR(giAngle(giAngleTangent2, -2.0, 0.0).degrees(), -90.0, 1e-12);
    EXPECT_NEAR(giAngle(giAngleTangent2, 0.0, -3.0).degrees(), 180.0, 1e-12);
}

// The tangent's status is 0 where it is undefined; angles order and
// coincide by their radians, a negative tolerance admitting nothing.
TEST(GeometryAngle, TangentStatusOrderingAndCoincidence) {
    for (double deg : {90.0, -90.0, 270.0}) {
        int status = 7;
        giAngle(giANGLE_DEGREES, deg).tan(status);
        EXPECT_EQ(status, 0) << deg;
    }
    int status = 0;
    EXPECT_NEAR(giAngle(1, 45).tan(status), 1.0, 1e-15);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(giAngle().tan(status), 0.0);
    EXPECT_EQ(status, 1);
    EXPECT_LT(giAngle::zero(), giAngle(1, 10));
    EXPECT_LT(giAngle(1, 10), giAngle::right());
    EXPECT_LE(giAngle::right(), giAngle(1, 90));
    const giAngle tol(giANGLE_DEGREES, 1.0);
    EXPECT_TRUE(giAngle(1, 30).coincident(giAngle(1, 30.9), tol));
    EXPECT_FALSE(giAngle(1, 30).coincident(giAngle(1, 31.1), tol));
    EXPECT_FALSE(giAngle(1, 30).coincident(giAngle(1, 30), giAngle(1, -1)));
}

}  // namespace
