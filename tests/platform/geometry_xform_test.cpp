#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "metrofit/platform/geometry/workplane.h"
#include "metrofit/platform/geometry/xform.h"
#include "tests/support/random.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

void ExpectNear(const giPoint3& a, const giPoint3& b, double tol) {
    EXPECT_NEAR(a.x(), b.x(), tol);
    EXPECT_NEAR(a.y(), b.y(), tol);
    EXPECT_NEAR(a.z(), b.z(), tol);
}

giUnitVec3 RandomDir(testsupport::Rng& rng) {
    return giUnitVec3(rng.normal(), rng.normal(), rng.normal());
}
giPoint3 RandomPoint(testsupport::Rng& rng, double r) {
    return giPoint3(rng.uniform(-r, r), rng.uniform(-r, r), rng.uniform(-r, r));
}
giXform3 RandomRigid(testsupport::Rng& rng) {
    return giXform3::rotation(RandomPoint(rng, 100), RandomDir(rng),
                              giAngle(giANGLE_RADIANS, rng.uniform(-kPi, kPi)));
}

// About z by 90 degrees x turns onto y (a unit vector stays flagged unit);
// about any axis the axis line stays, distances are kept and, by the right-hand
// rule, b across the axis a turns towards a x b by the angle.
TEST(GeometryXform, RotationKeepsItsAxisLineAndIsRigid) {
    const giXform3 quarter =
        giXform3::rotation(giPoint3(giOrigin), giUnitVec3(giZAxis), giAngle::right());
    const giUnitVec3 x = quarter * giUnitVec3(giXAxis);
    EXPECT_TRUE(std::fabs(x.x()) <= 1e-16 && std::fabs(x.y() - 1) <= 1e-16);
    EXPECT_EQ(x.length_cache(), 1.0);
    ExpectNear(quarter * giPoint3(0, 2, 5), giPoint3(-2, 0, 5), 1e-15);
    const giXform2 r2 = giXform2::rotation(giPoint2(1, 1), giAngle::right());
    EXPECT_LT(distance(r2 * giPoint2(2, 1), giPoint2(1, 2)), 1e-15);
    testsupport::Rng rng(21);
    for (int i = 0; i < 50; ++i) {
        const giPoint3 c = RandomPoint(rng, 100);
        const giUnitVec3 a = RandomDir(rng);
        const double angle = rng.uniform(-kPi, kPi);
        // An axis given with any length gives the same rotation.
        const giXform3 r(c, 3.5 * a, giAngle(giANGLE_RADIANS, angle));
        ExpectNear(r * c, c, 1e-12);
        ExpectNear(r * (c + 7.0 * a), c + 7.0 * a, 1e-12);
        EXPECT_NEAR(r.determinant(), 1.0, 1e-14);
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

TEST(GeometryXform, ProductAppliesTheRightFactorFirst) {
    const giXform3 t = giXform3::translation(giVector3(1, 0, 0));
    const giXform3 r =
        giXform3::rotation(giPoint3(giOrigin), giUnitVec3(giZAxis), giAngle::right());
    const giPoint3 x(1, 0, 0);
    ExpectNear((t * r) * x, giPoint3(1, 1, 0), 1e-15);  // rotate, then shift
    ExpectNear((r * t) * x, giPoint3(0, 2, 0), 1e-15);  // shift, then rotate
    giXform3 pre = r, post = r, both;
    pre.premultiply(t);
    post.postmultiply(t);
    both.become(t, r);
    EXPECT_TRUE(equal(pre, t * r, 0.0) && equal(both, t * r, 0.0) && equal(post, r * t, 0.0));
    EXPECT_EQ(t * giVector3(1, 2, 3), giVector3(1, 2, 3));  // vectors ignore the shift
    // Composition of rotations about one axis adds the angles.
    testsupport::Rng rng(4);
    const giPoint3 c = RandomPoint(rng, 10);
    const giUnitVec3 a = RandomDir(rng);
    const giXform3 r1(c, a, giAngle(1, 25)), r2(c, a, giAngle(1, 50)), r3(c, a, giAngle(1, 75));
    EXPECT_TRUE(equal(r1 * r2, r3, 1e-13));
}

TEST(GeometryXform, ProductTimesInverseIsTheIdentity) {
    testsupport::Rng rng(9);
    std::vector<giXform3> cases = {giXform3::scaling(2, 3, 4), giXform3::scaling(1e-5, 1, 1e5),
                                   giXform3::translation(giVector3(5, -6, 7))};
    for (int i = 0; i < 20; ++i) cases.push_back(RandomRigid(rng));
    for (int i = 0; i < 20; ++i) {  // general affine maps
        double m[12];
        for (double& e : m) e = rng.uniform(-3, 3);
        cases.push_back(giXform3(utConvert, m));
    }
    for (const giXform3& t : cases) {
        giXform3 inv;
        ASSERT_EQ(t.inverse(inv), 1);
        EXPECT_TRUE((t * inv).is_identity(1e-9));
        EXPECT_TRUE((inv * t).is_identity(1e-9));
        EXPECT_TRUE(equal(t.inverse(), inv, 0.0));
    }
    const giXform3 s = giXform3::scaling(2, 3, 4);
    EXPECT_EQ(s * giPoint3(1, 1, 1), giPoint3(2, 3, 4));
    EXPECT_TRUE(equal(s.inverse(), giXform3::scaling(0.5, 1.0 / 3.0, 0.25), 1e-16));
    const giUnitVec3 u = s * giUnitVec3(1, 1, 0);  // renormalised image
    EXPECT_DOUBLE_EQ(u.x(), 2.0 / std::sqrt(13.0));
    giXform2 r2 = giXform2::rotation(giPoint2(3, -1), giAngle(1, 33));
    r2.premultiply(giXform2::translation(giVector2(2, 5)));
    EXPECT_TRUE((r2 * r2.inverse()).is_identity(1e-14));
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
    double flat2[6] = {1, 2, 0, 2, 4, 0};
    EXPECT_FALSE(giXform2(utConvert, flat2).inverse().is_set());

    const giXform3 unset;
    EXPECT_FALSE((unset * giXform3::identity()).is_set());
    EXPECT_FALSE((giXform3::identity() * unset).is_set());
    EXPECT_TRUE(giXform2::identity().is_identity());
    const giXform3 tiny = giXform3::translation(giVector3(0, 1e-12, 0));
    EXPECT_TRUE(!tiny.is_identity() && tiny.is_identity(1e-11));
    EXPECT_TRUE(!equal(tiny, giXform3::identity(), 1e-13) &&
                equal(tiny, giXform3::identity(), 1e-12));
    EXPECT_FALSE(giXform3(giPoint3(giOrigin), giVector3(0, 0, 0), giAngle::right()).is_set());
    EXPECT_FALSE(giXform3(giPoint3(), giUnitVec3(giZAxis), giAngle::right()).is_set());
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
    ExpectNear(to_local * o, giPoint3(0, 0, 0), 1e-15);
    ExpectNear(to_local * giPoint3(2, 2, 3), giPoint3(1, 0, 0), 1e-15);
    ExpectNear(to_local * giPoint3(1, 3, 3), giPoint3(0, 1, 0), 1e-15);  // Y = Z x X
    ExpectNear(to_local * giPoint3(1, 2, 4), giPoint3(0, 0, 1), 1e-15);
    const giXform3 to_world = giXform3::local_to_world(o, z, x_ref);
    EXPECT_TRUE(equal(to_world, to_local.inverse(), 1e-15));
    ExpectNear(to_world * giPoint3(0, 1, 0), giPoint3(1, 3, 3), 1e-15);

    // Points of the plane through o normal to n come out with local z = 0.
    testsupport::Rng rng(2);
    const giUnitVec3 n = RandomDir(rng);
    const giXform3 plane_frame(o, n, n.any_normal());
    for (int i = 0; i < 20; ++i) {
        const giVector3 across = cross(n, giVector3(rng.normal(), rng.normal(), rng.normal()));
        EXPECT_NEAR((plane_frame * (o + across)).z(), 0.0, 1e-13);
    }
    // Parallel or missing axes make no frame.
    EXPECT_FALSE(giXform3(o, z, giUnitVec3(0, 0, -1)).is_set());
    giXform3 t = giXform3::identity();
    EXPECT_TRUE(t.become_local_to_world(o, z, z) == 0 && t.is_identity());

    const giXform2 f2(giPoint2(1, 1), giUnitVec2(0, 1));
    EXPECT_LT(distance(f2 * giPoint2(1, 3), giPoint2(2, 0)), 1e-15);
    EXPECT_TRUE(
        equal(giXform2::local_to_world(giPoint2(1, 1), giUnitVec2(0, 1)), f2.inverse(), 1e-15));
}

TEST(GeometryWorkplane, ToWorkAndToWorldAreInversesAndMatchTheFrameTransform) {
    testsupport::Rng rng(17);
    const giUnitVec3 n = RandomDir(rng);
    const giWorkplane3 wp(giPoint3(4, -5, 6), n);
    EXPECT_NEAR(dot(wp.x_axis(), n), 0.0, 1e-15);
    EXPECT_NEAR(dot(cross(wp.x_axis(), wp.y_axis()), n), 1.0, 1e-15);  // right-handed
    const giXform3 to_work = wp.xform_to_work();
    for (int i = 0; i < 20; ++i) {
        const giPoint3 p = RandomPoint(rng, 50);
        ExpectNear(wp.to_world(wp.to_work(p)), p, 1e-12);
        ExpectNear(wp.to_work(p), to_work * p, 1e-12);
        const giVector3 v(rng.normal(), rng.normal(), rng.normal());
        EXPECT_NEAR((wp.to_world(wp.to_work(v)) - v).length(), 0.0, 1e-14);
    }
    giWorkplane3 world;  // bad axes leave a workplane unchanged
    EXPECT_EQ(world.become(giPoint3(1, 1, 1), n, n), 0);
    EXPECT_EQ(world.to_work(giPoint3(1, 2, 3)), giPoint3(1, 2, 3));

    const giWorkplane2 wp2(giPoint2(1, 2), giUnitVec2(1, 1));
    EXPECT_LT(distance(wp2.to_work(giPoint2(2, 3)), giPoint2(std::sqrt(2.0), 0)), 1e-15);
    EXPECT_LT(distance(wp2.to_world(giPoint2(std::sqrt(2.0), 0)), giPoint2(2, 3)), 1e-15);
}

}  // namespace
