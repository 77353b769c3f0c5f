#include <gtest/gtest.h>

#include <cmath>
#include <utility>
#include <vector>

#include "metrofit/platform/geometry/workplane.h"
#include "metrofit/platform/geometry/xform.h"
#include "tests/support/random.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

giUnitVec3 RandomDir(testsupport::Rng& rng) {
    return giUnitVec3(rng.normal(), rng.normal(), rng.normal());
}
giPoint3 RandomPoint(testsupport::Rng& rng, double r) {
    return giPoint3(rng.uniform(-r, r), rng.uniform(-r, r), rng.uniform(-r, r));
}

// About z by 90 degrees x turns onto y (a unit vector stays flagged unit);
// about any axis the axis line stays, distances are kept and, by the right-hand
// rule, b across the axis a turns towards a x b by the angle.
TEST(GeometryXform, RotationKeepsItsAxisLineAndIsRigid) {
    const giXform3 quarter =
        giXform3::rotation(giPoint3(giOrigin), giUnitVec3(giZAxis), giAngle::right());
    EXPECT_EQ((quarter * giUnitVec3(giXAxis)).length_cache(), 1.0);
    EXPECT_LE(distance(quarter * giPoint3(0, 2, 5), giPoint3(-2, 0, 5)), 1e-15);
    testsupport::Rng rng(21);
    for (int i = 0; i < 50; ++i) {
        const giPoint3 c = RandomPoint(rng, 100);
        const giUnitVec3 a = RandomDir(rng);
        const double angle = rng.uniform(-kPi, kPi);
        // An axis given with any length gives the same rotation.
        const giXform3 r(c, 3.5 * a, giAngle(giANGLE_RADIANS, angle));
        EXPECT_LE(distance(r * (c + 7.0 * a), c + 7.0 * a), 1e-12);
        const giPoint3 p = RandomPoint(rng, 100), q = RandomPoint(rng, 100);
        EXPECT_NEAR(distance(r * p, r * q), distance(p, q), 1e-11);
        const giUnitVec3 b = a.any_normal();
        const giVector3 rb = r * b;
        EXPECT_NEAR(dot(rb, b), std::cos(angle), 1e-14);
        EXPECT_NEAR(dot(rb, cross(a, b)), std::sin(angle), 1e-14);
    }
    // A zero angle is exactly the identity, whatever the axis.
    EXPECT_TRUE(giXform3(giPoint3(1, 2, 3), giVector3(1, 2, 3), giAngle::zero()).is_identity());
}

TEST(GeometryXform, ProductTimesInverseIsTheIdentity) {
    testsupport::Rng rng(9);
    std::vector<giXform3> cases = {giXform3::scaling(2, 3, 4), giXform3::scaling(1e-5, 1, 1e5),
                                   giXform3::translation(giVector3(5, -6, 7))};
    for (int i = 0; i < 20; ++i) {  // general affine maps
        double m[12];
        for (double& e : m) e = rng.uniform(-3, 3);
        cases.push_back(giXform3(utConvert, m));
    }
    for (const giXform3& t : cases) {
        giXform3 inv;
        ASSERT_EQ(t.inverse(inv), 1);
        EXPECT_TRUE((t * inv).is_identity(1e-9) && (inv * t).is_identity(1e-9));
        EXPECT_TRUE(equal(t.inverse(), inv, 0.0));
    }
}

// Singular and unset transforms have no inverse (the output untouched); an
// unset factor makes an unset product; degenerate rotations make no
// transform, and become_rotation keeps the old one.
TEST(GeometryXform, SingularUnsetAndIdentityQueries) {
    const giXform3 sentinel = giXform3::translation(giVector3(9, 9, 9));
    double flat[12] = {1, 2, 3, 0, 2, 4, 6, 1, 0, 1, 1, 0};  // row 1 = 2 row 0
    // |det| = 1e-13 against a row-length product of sqrt(2): singular to working precision.
    double thin[12] = {1, 0, 0, 0, 0, 1, 0, 0, 1, 1, 1e-13, 0};
    for (const giXform3& t : {giXform3::scaling(1, 0, 1), giXform3(utConvert, flat),
                              giXform3(utConvert, thin), giXform3()}) {
        giXform3 out = sentinel;
        EXPECT_EQ(t.inverse(out), 0);
        EXPECT_TRUE(equal(out, sentinel, 0.0));
        EXPECT_FALSE(t.inverse().is_set());
    }
    const giXform3 unset;
    EXPECT_FALSE((unset * giXform3::identity()).is_set() ||
                 (giXform3::identity() * unset).is_set());
    EXPECT_FALSE(giXform3(giPoint3(giOrigin), giVector3(0, 0, 0), giAngle::right()).is_set());
    EXPECT_FALSE(giXform3(giPoint3(giOrigin), giUnitVec3(giZAxis), giAngle(3, 1.0)).is_set());
    giXform3 t = giXform3::identity();
    EXPECT_TRUE(t.become_rotation(giPoint3(giOrigin), giVector3(), giAngle::right()) == 0 &&
                t.is_identity());
}

TEST(GeometryXform, FrameMapsItsOriginAndAxesAsDocumented) {
    const giPoint3 o(1, 2, 3);
    const giUnitVec3 z(0, 0, 1);
    const giUnitVec3 x_ref(1, 0, 1);  // not orthogonal to z: only its part across z counts
    const giXform3 to_local(o, z, x_ref);
    // Y = Z x X.
    for (const auto& [p, q] :
         {std::pair(o, giPoint3(0, 0, 0)), std::pair(giPoint3(2, 2, 3), giPoint3(1, 0, 0)),
          std::pair(giPoint3(1, 3, 3), giPoint3(0, 1, 0)),
          std::pair(giPoint3(1, 2, 4), giPoint3(0, 0, 1))})
        EXPECT_LE(distance(to_local * p, q), 1e-15);
    EXPECT_TRUE(equal(giXform3::local_to_world(o, z, x_ref), to_local.inverse(), 1e-15));
    // Parallel or missing axes make no frame.
    EXPECT_FALSE(giXform3(o, z, giUnitVec3(0, 0, -1)).is_set());
    giXform3 t = giXform3::identity();
    EXPECT_TRUE(t.become_local_to_world(o, z, z) == 0 && t.is_identity());
}

}  // namespace
