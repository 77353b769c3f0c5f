#include "metrofit/features/cone.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "metrofit/features/probed_cone.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;

struct Cone {
    giPoint3 apex;
    giUnitVec3 axis;  // towards the apex
    double half_angle = 0.0, rms = 0.0;
};

const giUnitVec3coDynArr kNoNormals;

int fit(const giPoint3coDynArr& pts, Cone& c, const giUnitVec3coDynArr& normals = kNoNormals,
        int n_added = 0, const giUnitVec3& nominal = giUnitVec3(), double degrees = 10.0) {
    return tsCalculateLeastSquareCone(pts, c.apex, c.axis, c.half_angle, c.rms, nominal,
                                      giAngle(1, degrees), normals, n_added);
}

// Signed distance of q from the cone, as the reference data define it.
long double cone_distance(const long double (&apex)[3], const long double (&u)[3], long double a,
                          const giPoint3& q) {
    const long double w[3] = {q.x() - apex[0], q.y() - apex[1], q.z() - apex[2]};
    const long double t = -(u[0] * w[0] + u[1] * w[1] + u[2] * w[2]);  // into the cone
    const long double c[3] = {u[1] * w[2] - u[2] * w[1], u[2] * w[0] - u[0] * w[2],
                              u[0] * w[1] - u[1] * w[0]};
    const long double rho = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
    return rho * std::cos(a) - t * std::sin(a);
}

// The least-squares cone near `near` by the test's own Gauss-Newton over
// apex (3), axis turn (2) and half angle.
Cone refine(const giPoint3coDynArr& pts, const Cone& near) {
    const giUnitVec3 u0 = near.axis;
    const giUnitVec3 e1 = u0.any_normal();
    const giUnitVec3 e2(cross(u0, e1));
    const auto at = [&](const testsupport::LongVector& p, long double(&apex)[3],
                        long double(&u)[3]) {
        long double len = 0;
        for (int k = 0; k < 3; ++k) {
            apex[k] = near.apex[k] + p[k];
            u[k] = u0[k] + p[3] * e1[k] + p[4] * e2[k];
            len += u[k] * u[k];
        }
        for (long double& x : u) x /= std::sqrt(len);
    };
    const auto residuals = [&](const testsupport::LongVector& p, testsupport::LongVector& r) {
        long double apex[3], u[3];
        at(p, apex, u);
        for (int i = 0; i < pts.size(); ++i) r[i] = cone_distance(apex, u, p[5], pts[i]);
    };
    const auto p =
        testsupport::gauss_newton(residuals, {0, 0, 0, 0, 0, near.half_angle}, pts.size());
    long double apex[3], u[3];
    at(p, apex, u);
    Cone out;
    out.apex = giPoint3(apex[0], apex[1], apex[2]);
    out.axis = giUnitVec3(u[0], u[1], u[2]);
    out.half_angle = p[5];
    return out;
}

double directed_angle(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), dot(a, b));
}

void expect_same(const Cone& got, const Cone& want, double length_tol, double angle_tol) {
    EXPECT_LT(distance(got.apex, want.apex), length_tol);
    EXPECT_LT(directed_angle(got.axis, want.axis), angle_tol);
    EXPECT_NEAR(got.half_angle, want.half_angle, angle_tol);
}

}  // namespace

TEST(ConeReference, MatchesEveryReferenceFit) {
    const auto fits = testsupport::reference_fits("cone");
    for (const auto& f : fits) {
        if (f.fit != 0) continue;
        SCOPED_TRACE(f.id);
        const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
        Cone c;
        ASSERT_EQ(fit(pts, c), 1);
        EXPECT_NEAR(c.rms, f.rms, f.tol_rms);
        if (f.rms < 1e-30) {  // an exact set: any cone through all its points
            const long double apex[3] = {c.apex.x(), c.apex.y(), c.apex.z()};
            const long double u[3] = {c.axis.x(), c.axis.y(), c.axis.z()};
            for (const giPoint3& q : pts)
                EXPECT_LT(std::fabs(static_cast<double>(cone_distance(apex, u, c.half_angle, q))),
                          f.tol_position);
            continue;
        }
        const auto& p = f.params;  // apex, axis into the cone, half angle
        EXPECT_LT(distance(c.apex, giPoint3(p[0], p[1], p[2])), f.tol_position);
        EXPECT_LT(directed_angle(-c.axis, giVector3(p[3], p[4], p[5])), f.tol_orientation);
        EXPECT_NEAR(c.half_angle, p[6], f.tol_size);
    }
}

TEST(ConeModel, GradientCanonicalFormAndNormals) {
    const giPoint3coDynArr pts = testsupport::cone_points(30, 25.0, 2.0, 9.0, 360.0, 0.05, 3);
    tsLeastSquareCone model(pts);
    // An axis of other length, a half angle beyond pi/2 and a point far along.
    testsupport::expect_gradient_matches(model, {0.2, -0.1, 30.0, 0.1, -0.05, 2.0, 1.0, 2.6}, 1e-6);
    mlVector p = {0.0, 0.0, 5.0, 0.0, 0.0, 2.0, 1.0, -0.4 + 2 * kPi};
    model.normalize_parameters(p);
    EXPECT_NEAR(p[7], 0.4, 1e-12);
    EXPECT_EQ(p[2], 0.0);
    EXPECT_EQ(model.n_independent_parameters(), 6);

    const giPoint3 apex(1, 2, 3);
    const giUnitVec3 up(0, 0, 1);
    const giAngle a(giANGLE_DEGREES, 30.0);
    // Beyond the apex on the axis: away from the apex; at the apex: the axis.
    const giUnitVec3 beyond = tsGetConeNormal(apex, up, a, giPoint3(1, 2, 8));
    EXPECT_NEAR(beyond.z(), 1.0, 1e-15);
    const giUnitVec3 at_apex = tsGetConeNormal(apex, up, a, apex);
    EXPECT_EQ(at_apex, up);
    // On the surface: across the generating line, pointing out.
    const giPoint3 on(1 + std::sin(a.radians()), 2, 3 - std::cos(a.radians()));
    const giUnitVec3 n = tsGetConeNormal(apex, up, a, on);
    EXPECT_NEAR(dot(n, on - apex), 0.0, 1e-15);
    EXPECT_GT(n.x(), 0.0);
}

struct TruthCase {
    const char* name;
    double half_angle, s0, s1, sector, sigma, offset;
    int n;
};

class ConeKnownTruth : public ::testing::TestWithParam<TruthCase> {};

TEST_P(ConeKnownTruth, ReachesTheLeastSquaresConeInAnyPose) {
    const TruthCase& k = GetParam();
    const giXform3 pose = testsupport::random_motion(71.0, k.offset, 7);
    const giPoint3coDynArr pts = testsupport::transformed(
        pose, testsupport::cone_points(k.n, k.half_angle, k.s0, k.s1, k.sector, k.sigma, 13));
    Cone c;
    ASSERT_EQ(fit(pts, c), 1);
    const double scale = std::fmax(k.s1, k.offset);
    const double rad = k.half_angle * kPi / 180.0;
    // Apex and axis of flat and narrow cones are poorly determined: compare
    // through the independent refinement, at the precision it resolves.
    expect_same(c, refine(pts, c), 1e-8 * scale / std::sin(rad), 1e-9 / std::sin(rad));
    EXPECT_NEAR(c.half_angle, rad, 0.01);
    EXPECT_LT(directed_angle(c.axis, pose * giVector3(0, 0, 1)), 0.05);

    Cone again;
    ASSERT_EQ(fit(pts, again), 1);
    EXPECT_EQ(again.apex, c.apex);
    EXPECT_EQ(again.axis, c.axis);
    EXPECT_EQ(again.half_angle, c.half_angle);
    EXPECT_EQ(again.rms, c.rms);
}

INSTANTIATE_TEST_SUITE_P(
    Cone, ConeKnownTruth,
    ::testing::Values(TruthCase{"a2", 2.0, 20.0, 60.0, 360.0, 1e-3, 0.0, 80},
                      TruthCase{"a10_sector180", 10.0, 5.0, 30.0, 180.0, 1e-3, 1e3, 80},
                      TruthCase{"a30_sector90", 30.0, 5.0, 20.0, 90.0, 1e-3, 1e3, 100},
                      TruthCase{"a60", 60.0, 2.0, 10.0, 360.0, 1e-3, 1e5, 60},
                      TruthCase{"a80_sector180", 80.0, 3.0, 15.0, 180.0, 1e-3, 1e3, 80}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ConeNonPhysical, CylindersAndPlanesOnlyByTheSelectionRule) {
    // Points of a cylinder: the cone that fits them is nearly a cylinder.
    const giPoint3coDynArr cylinder = testsupport::cylinder_points(60, 5.0, 20.0, 360.0, 1e-3, 5);
    Cone c;
    ASSERT_EQ(fit(cylinder, c), 1);
    EXPECT_LT(c.half_angle, 0.05);
    EXPECT_LT(c.rms, 2e-3);
    EXPECT_GT(distance(c.apex, giPoint3(0, 0, 10)), 1e3);
    // A nearly flat cone (89.5 degrees), measured ring by ring so that the
    // two-circle start finds it: it lands in the non-physical class and is
    // reported because it fits clearly better than any physical cone.
    giPoint3coDynArr flat = testsupport::cone_points(3, 89.5, 6.0, 6.0, 300.0, 0.0, 9);
    for (const giPoint3& q : testsupport::cone_points(3, 89.5, 18.0, 18.0, 300.0, 0.0, 10))
        flat.append(q);
    for (const giPoint3& q : testsupport::cone_points(80, 89.5, 2.0, 20.0, 360.0, 1e-4, 11))
        flat.append(q);
    Cone f;
    ASSERT_EQ(fit(flat, f), 1);
    EXPECT_GT(f.half_angle, 0.5 * kPi - 0.05);
    EXPECT_LT(f.rms, 2e-4);
    // With a tolerance that makes it physical it is the same cone.
    tsSetLeastSquareConeNonPhysicalTolerance(0.001);
    Cone g;
    ASSERT_EQ(fit(flat, g), 1);
    tsSetLeastSquareConeNonPhysicalTolerance(0.05);
    EXPECT_NEAR(g.half_angle, f.half_angle, 1e-9);

    // The tolerances are process-wide, independent, and hand back the old value.
    EXPECT_EQ(tsSetLeastSquareConeNonPhysicalTolerance(0.1), 0.05);
    EXPECT_EQ(tsLeastSquareEvaluator::set_cone_non_physical_tolerance(0.2), 0.1);
    EXPECT_EQ(tsSetLeastSquareProbedConeNonPhysicalTolerance(0.07), 0.05);
    EXPECT_EQ(tsSetLeastSquareConeNonPhysicalTolerance(0.05), 0.2);
    EXPECT_EQ(tsSetLeastSquareProbedConeNonPhysicalTolerance(0.05), 0.07);
}

TEST(ConeNormals, CountersinksPassMixturesFail) {
    giUnitVec3coDynArr outward;
    const giPoint3coDynArr pts =
        testsupport::cone_points(40, 35.0, 3.0, 12.0, 270.0, 1e-4, 21, &outward);
    giUnitVec3coDynArr inward, mixed;
    for (int i = 0; i < outward.size(); ++i) {
        inward.append(-outward[i]);
        mixed.append(i % 2 ? outward[i] : inward[i]);
    }
    Cone plain, boss, sink;
    ASSERT_EQ(fit(pts, plain), 1);
    ASSERT_EQ(fit(pts, boss, outward), 1);
    ASSERT_EQ(fit(pts, sink, inward), 1);
    expect_same(boss, plain, 1e-9, 1e-9);
    expect_same(sink, plain, 1e-9, 1e-9);
    mlVector p = {plain.apex.x(),
                  plain.apex.y(),
                  plain.apex.z(),
                  plain.axis.x(),
                  plain.axis.y(),
                  plain.axis.z(),
                  0.0,
                  plain.half_angle};
    const giAngle limit(1, 5.0);
    EXPECT_EQ(tsLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), outward, p), 1);
    EXPECT_EQ(tsLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), inward, p), 1);
    EXPECT_EQ(tsLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), mixed, p), 0);
    EXPECT_EQ(
        tsLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(0, 0, -1), kNoNormals, p),
        1);
    EXPECT_EQ(
        tsLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(0, 1, 0), kNoNormals, p), 0);
}

TEST(ConeUpdate, RefinesCloseAdditions) {
    const giPoint3coDynArr all = testsupport::cone_points(50, 20.0, 4.0, 16.0, 360.0, 1e-3, 31);
    giPoint3coDynArr old;
    for (int i = 0; i < 45; ++i) old.append(all[i]);
    Cone previous;
    ASSERT_EQ(fit(old, previous), 1);
    Cone updated = previous;
    ASSERT_EQ(fit(all, updated, kNoNormals, 5), 1);
    tsLeastSquareCone model(all);
    mlVector p;
    const double v = mlLevenbergMarquardt(model).fit(
        {previous.apex.x(), previous.apex.y(), previous.apex.z(), previous.axis.x(),
         previous.axis.y(), previous.axis.z(), 0.0, previous.half_angle},
        p);
    // The same refinement; the fit works on centred coordinates, so equal to
    // the last digits rather than bit for bit.
    EXPECT_NEAR(updated.rms, std::sqrt(v), 1e-12);
    EXPECT_NEAR(updated.half_angle, p[7], 1e-9);
}

TEST(ConeMultiple, FindsTheExactConesThroughSixPoints) {
    giPoint3coDynArr pts;
    giUnitVec3coDynArr axes;
    for (const auto& f : testsupport::reference_fits("cone"))
        if (f.id == "cone_min6") {
            pts = testsupport::reference_points3(f.file);
            axes.append(giUnitVec3(-f.params[3], -f.params[4], -f.params[5]));
        }
    ASSERT_GE(axes.size(), 2);
    tsFittedConecoDynArr results;
    const int found = tsLeastSquareEvaluator::evaluate_multiple_cones(
        pts, axes, 1e-6, giAngle(1, 1.0), axes.size() + 1, results);
    EXPECT_EQ(found, results.size());
    EXPECT_GE(found, 2);
    EXPECT_LE(found, axes.size());  // at most one per direction
    for (int i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].invalid(), 0);
        for (int j = 0; j < i; ++j)
            EXPECT_FALSE(results[i].coincident(results[j], 1e-6, giAngle(1, 1.0)));
    }
}

TEST(ProbedCone, CompensatesTheProbeOnEitherSide) {
    giUnitVec3coDynArr normals;
    const giPoint3coDynArr surface =
        testsupport::cone_points(60, 30.0, 4.0, 14.0, 360.0, 1e-4, 41, &normals);
    const double rho = 0.8;
    giPoint3coDynArr outside, inside;
    doublecoDynArr radii, zero;
    for (int i = 0; i < surface.size(); ++i) {
        outside.append(surface[i] + rho * normals[i]);
        inside.append(surface[i] - rho * normals[i]);
        radii.append(rho);
        zero.append(0.0);
    }
    Cone plain, as_zero, from_out, from_in;
    ASSERT_EQ(fit(surface, plain), 1);
    const auto probed = [&](const giPoint3coDynArr& pts, const doublecoDynArr& r, int side,
                            Cone& c) {
        return tsCalculateLeastSquareProbedCone(pts, r, side, surface, c.apex, c.axis, c.half_angle,
                                                c.rms, giUnitVec3(), giAngle(1, 10.0), kNoNormals,
                                                0);
    };
    ASSERT_EQ(probed(surface, zero, 0, as_zero), 1);
    expect_same(as_zero, plain, 1e-9, 1e-9);
    ASSERT_EQ(probed(outside, radii, 0, from_out), 1);
    ASSERT_EQ(probed(inside, radii, 1, from_in), 1);
    expect_same(from_out, plain, 1e-3, 1e-3);
    expect_same(from_in, plain, 1e-3, 1e-3);
}

TEST(ConeRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr pts = testsupport::cone_points(20, 30.0, 2.0, 9.0, 360.0, 1e-3, 81);
    giPoint3coDynArr empty, five, nan = pts;
    for (int i = 0; i < 5; ++i) five.append(pts[i]);
    nan[4] = giPoint3(0, NAN, 0);
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(1.0);
    for (const giPoint3coDynArr* bad : {&empty, &five, &nan}) {
        Cone c;
        EXPECT_EQ(fit(*bad, c), 0);
        EXPECT_EQ(
            tsCalculateLeastSquareProbedCone(*bad, radii, 0, pts, c.apex, c.axis, c.half_angle,
                                             c.rms, giUnitVec3(), giAngle(1, 5.0), kNoNormals, 0),
            0);
        EXPECT_FALSE(c.apex.is_set());
        tsFittedConecoDynArr results;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cones(*bad, {giUnitVec3(0, 0, 1)}, 1.0,
                                                                  giAngle(1, 1.0), 1, results),
                  0);
    }
    Cone c;
    giUnitVec3coDynArr short_normals;
    short_normals.append(giUnitVec3(0, 0, 1));
    EXPECT_EQ(fit(pts, c, short_normals), 0);
    doublecoDynArr short_radii = radii;
    short_radii.shrink(3, 1);
    EXPECT_EQ(
        tsCalculateLeastSquareProbedCone(pts, short_radii, 0, pts, c.apex, c.axis, c.half_angle,
                                         c.rms, giUnitVec3(), giAngle(1, 5.0), kNoNormals, 0),
        0);
    EXPECT_FALSE(c.apex.is_set());
}

TEST(ConeDistribution, WholeFrustumScoresHighestAndOriginDoesNotMatter) {
    double last = DBL_MAX;
    for (const double sector : {360.0, 120.0, 30.0}) {
        const giPoint3coDynArr pts =
            testsupport::cone_points(300, 30.0, 5.0, 20.0, sector, 0.0, 91);
        const auto measure = [](const giPoint3coDynArr& p, const giPoint3& apex) {
            return tsLeastSquareDistributionQuality::distribution_quality_cone(
                p, apex, giVector3(0, 0, 1), 30.0 * kPi / 180.0);
        };
        const double q = measure(pts, giPoint3(0, 0, 0));
        EXPECT_GT(q, 0.0);
        EXPECT_LT(q, last);
        last = q;
        const giVector3 shift(2e3, 4e3, -1e3);
        giPoint3coDynArr far;
        for (const giPoint3& p : pts) far.append(p + shift);
        EXPECT_NEAR(measure(far, giPoint3(0, 0, 0) + shift), q, 1e-9);
    }
}
