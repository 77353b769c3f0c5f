#include "metrofit/features/plane.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

struct Plane {
    giPoint3 p;
    giUnitVec3 n;
    double e = 0;
    bool operator==(const Plane& o) const { return p == o.p && n == o.n && e == o.e; }
};

int fit(const giPoint3coDynArr& pts, Plane& k) {
    return tsLeastSquareEvaluator::evaluate_plane(pts, k.p, k.n, k.e);
}
int fit_probed(const giPoint3coDynArr& pts, const doublecoDynArr& radii,
               const giUnitVec3coDynArr& directions, Plane& k) {
    return tsLeastSquareEvaluator::evaluate_probed_plane(pts, radii, directions, k.p, k.n, k.e);
}

double angle_between(const giVector3& u, const giVector3& v) {
    return testsupport::undirected_angle(u.x(), u.y(), u.z(), v.x(), v.y(), v.z());
}

// Every reference plane: the reference point on the fitted plane, the normal
// and the rms within the stated bounds.
TEST(PlaneReference, MatchesEveryReferenceFit) {
    const auto fits = testsupport::reference_fits("plane");
    ASSERT_EQ(fits.size(), 6u);
    for (const auto& f : fits) {
        SCOPED_TRACE(f.id);
        Plane k;
        ASSERT_EQ(fit(testsupport::reference_points3(f.file), k), 1);
        const giPoint3 ref(f.params[0], f.params[1], f.params[2]);
        EXPECT_LE(std::abs(dot(k.n, ref - k.p)), f.tol_position);
        EXPECT_LE(angle_between(k.n, giVector3(f.params[3], f.params[4], f.params[5])),
                  f.tol_orientation);
        EXPECT_NEAR(k.e, f.rms, f.tol_rms);
    }
}

// A noisy patch: the fit lies near the truth and repeats itself bit for bit;
// turned and moved by 1e5 it moves with the points.
TEST(PlaneKnownTruth, RecoversThePlaneAnywhere) {
    const giPoint3coDynArr flat = testsupport::plane_points(400, 60, 8, 1e-3, 21);
    Plane k, again;
    ASSERT_EQ(fit(flat, k), 1);
    ASSERT_EQ(fit(flat, again), 1);
    EXPECT_TRUE(again == k);
    EXPECT_LE(angle_between(k.n, giVector3(0, 0, 1)), 1e-3 / std::sqrt(400.0) * 10);  // ~ sigma/L
    EXPECT_NEAR(k.e, 1e-3, 1e-4);
    const giXform3 motion = testsupport::random_motion(63, 1e5, 22);
    Plane m;
    ASSERT_EQ(fit(testsupport::transformed(motion, flat), m), 1);
    EXPECT_LE(angle_between(m.n, motion * k.n), 1e-9);
    EXPECT_NEAR(dot(m.n, motion * k.p - m.p), 0.0, 1e-9 * 60 + 1e-12 * 1e5);
    EXPECT_NEAR(m.e, k.e, 1e-6 * k.e);
}

// Exact cases: three points give their plane; equal points are not refused
// (some unit normal through the point); two points, NaN
// coordinates, probe radii or directions not one finite value per point are
// refused with the outputs untouched.
TEST(PlaneDirect, FitsThreePointsAndRefusesBadInput) {
    const giPoint3coDynArr three = {giPoint3(1, 0, 2), giPoint3(0, 1, 2), giPoint3(0, 0, 3)};
    Plane k;
    ASSERT_EQ(fit(three, k), 1);
    EXPECT_LE(angle_between(k.n, giVector3(1, 1, 1)), 1e-15);
    EXPECT_LT(k.e, 1e-15);
    EXPECT_NEAR(dot(k.n, k.p - three[0]), 0.0, 1e-15);
    ASSERT_EQ(fit({giPoint3(1, 2, 3), giPoint3(1, 2, 3), giPoint3(1, 2, 3)}, k), 1);
    EXPECT_TRUE(k.p == giPoint3(1, 2, 3) && k.e == 0.0);
    EXPECT_NEAR(k.n.length(), 1.0, 1e-15);

    giPoint3coDynArr two = three, nan_pt = three;
    two.shrink(2, 0);
    nan_pt[0] = giPoint3(NAN, 0, 0);
    const Plane sentinel{giPoint3(5, 5, 5), giUnitVec3(giXAxis), -7};
    for (const giPoint3coDynArr& bad : {giPoint3coDynArr(), two, nan_pt}) {
        k = sentinel;
        doublecoDynArr radii;
        for (int i = 0; i < bad.size(); ++i) radii.append(1.0);
        EXPECT_EQ(fit(bad, k), 0);
        EXPECT_EQ(fit_probed(bad, radii, giUnitVec3coDynArr(), k), 0);
        EXPECT_TRUE(k == sentinel);
    }
    const giUnitVec3 z(giZAxis);
    const giUnitVec3coDynArr dirs = {z, z, z};
    for (const doublecoDynArr& radii : {doublecoDynArr{1, 1}, doublecoDynArr{1, NAN, 1}})
        EXPECT_EQ(fit_probed(three, radii, dirs, k), 0);
    EXPECT_EQ(fit_probed(three, {1, 1, 1}, {z}, k), 0);
    EXPECT_TRUE(k == sentinel);
}

// Ball centres rho_i off a known surface: the touched plane, its
// normal along the contact directions, the point the foot of the origin MINUS
// the in-plane part of the centres' centroid (not its projection).
TEST(PlaneProbed, FitsTheTouchedSurfaceAndOrientsTheNormal) {
    const giXform3 motion = testsupport::random_motion(40, 700, 31);
    const giUnitVec3 outward = motion * giUnitVec3(0, 0, -1);
    const double height = dot(outward, motion * giPoint3(0, 0, 0) - giPoint3(giOrigin));
    testsupport::Rng rng(32);
    giPoint3coDynArr centres;
    doublecoDynArr radii;
    giUnitVec3coDynArr directions, inward;
    for (const giPoint3& s : testsupport::plane_points(120, 30, 20, 0.0, 33)) {
        const double rho = rng.uniform(0.5, 2.0);
        centres.append(motion * s + outward * (rho + rng.normal(1e-4)));
        radii.append(rho);
        directions.append(outward);
        inward.append(-outward);
    }
    Plane k;
    ASSERT_EQ(fit_probed(centres, radii, directions, k), 1);
    EXPECT_GT(dot(k.n, outward), 0.0);
    EXPECT_LE(angle_between(k.n, outward), 1e-5);
    EXPECT_NEAR(k.e, 1e-4, 3e-5);
    // The output point: h n - (p0 - (n.p0) n), p0 the centres' centroid; the
    // normal's error (about 1e-5) times |p0| (about 700) bounds its error.
    giVector3 sum(0, 0, 0);
    for (const giPoint3& c : centres) sum += c.to_vector();
    const giVector3 p0 = sum / centres.size();
    EXPECT_LE(distance(k.p, giPoint3(height * outward - (p0 - dot(outward, p0) * outward))), 0.05);

    // Contact directions reversed: the normal follows them.
    ASSERT_EQ(fit_probed(centres, radii, inward, k), 1);
    EXPECT_LT(dot(k.n, outward), 0.0);
}

// Without contact directions both sides are fitted and the better kept: with
// radii that differ per point only the true side fits, on either side.
TEST(PlaneProbed, WithoutDirectionsFindsTheSideOfTheBalls) {
    testsupport::Rng rng(41);
    for (const double sense : {1.0, -1.0}) {
        giPoint3coDynArr centres;
        doublecoDynArr radii;
        for (const giPoint3& s : testsupport::plane_points(60, 10, 10, 0.0, 42)) {
            const double rho = rng.uniform(0.5, 2.0);
            centres.append(s + giVector3(0, 0, sense * rho));
            radii.append(rho);
        }
        Plane k;
        ASSERT_EQ(fit_probed(centres, radii, giUnitVec3coDynArr(), k), 1);
        EXPECT_LE(angle_between(k.n, giVector3(0, 0, 1)), 1e-12);
        EXPECT_NEAR(k.p.z(), 0.0, 1e-12);
        EXPECT_LT(k.e, 1e-12);
    }
}

}  // namespace
