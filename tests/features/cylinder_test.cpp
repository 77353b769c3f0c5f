#include "metrofit/features/cylinder.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <utility>

#include "metrofit/features/probed_cylinder.h"
#include "metrofit/features/projected_circles.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

struct Cylinder {
    giPoint3 point;
    giUnitVec3 axis;
    double radius = 0.0, rms = 0.0;
};

const giUnitVec3coDynArr kNoNormals;

int fit(const giPoint3coDynArr& pts, Cylinder& c, const giUnitVec3coDynArr& normals = kNoNormals,
        int n_added = 0) {
    return tsCalculateLeastSquareCylinder(pts, c.point, c.axis, c.radius, c.rms, giUnitVec3(),
                                          giAngle(1, 10.0), normals, n_added);
}

int fit_probed(const giPoint3coDynArr& pts, const doublecoDynArr& radii, int inside, Cylinder& c) {
    return tsCalculateLeastSquareProbedCylinder(pts, radii, inside, c.point, c.axis, c.radius,
                                                c.rms, giUnitVec3(), giAngle(1, 10.0), kNoNormals,
                                                0);
}

doublecoDynArr filled(int n, double value) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(value);
    return out;
}

double axis_angle(const giVector3& a, const giVector3& b) {  // either sense
    return std::atan2(cross(a, b).length(), std::fabs(dot(a, b)));
}

double off_line(const giPoint3& q, const giPoint3& p, const giUnitVec3& u) {
    return cross(q - p, u).length();
}

// The least-squares cylinder near `near`, by the test's own Gauss-Newton in
// a minimal parameterisation: axis point shifted across the axis (s, t),
// axis turned (a, b), radius.
Cylinder refine(const giPoint3coDynArr& pts, const Cylinder& near) {
    const giUnitVec3 u0 = near.axis, e1 = u0.any_normal(), e2(cross(u0, e1));
    const auto at = [&](const testsupport::LongVector& p, long double(&P)[3], long double(&u)[3]) {
        long double len = 0;
        for (int k = 0; k < 3; ++k) {
            P[k] = near.point[k] + p[0] * e1[k] + p[1] * e2[k];
            u[k] = u0[k] + p[2] * e1[k] + p[3] * e2[k];
            len += u[k] * u[k];
        }
        for (long double& x : u) x /= std::sqrt(len);
    };
    const auto residuals = [&](const testsupport::LongVector& p, testsupport::LongVector& r) {
        long double P[3], u[3];
        at(p, P, u);
        for (int i = 0; i < pts.size(); ++i) {
            const long double w[3] = {pts[i].x() - P[0], pts[i].y() - P[1], pts[i].z() - P[2]};
            const long double c[3] = {u[1] * w[2] - u[2] * w[1], u[2] * w[0] - u[0] * w[2],
                                      u[0] * w[1] - u[1] * w[0]};
            r[i] = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]) - p[4];
        }
    };
    const auto p = testsupport::gauss_newton(residuals, {0, 0, 0, 0, near.radius}, pts.size());
    long double P[3], u[3];
    at(p, P, u);
    return {giPoint3(P[0], P[1], P[2]), giUnitVec3(u[0], u[1], u[2]), static_cast<double>(p[4])};
}

// The axes and radii agree: want's axis point lies on got's axis.
void expect_same(const Cylinder& got, const Cylinder& want, double length_tol, double angle_tol,
                 double size_tol = -1.0) {
    EXPECT_LT(off_line(want.point, got.point, got.axis), length_tol);
    EXPECT_LT(axis_angle(got.axis, want.axis), angle_tol);
    EXPECT_NEAR(got.radius, want.radius, size_tol < 0 ? length_tol : size_tol);
}

}  // namespace

TEST(CylinderReference, MatchesEveryReferenceFit) {
    for (const auto& f : testsupport::reference_fits("cylinder")) {
        if (f.fit != 0) continue;  // alternatives are checked with their case
        SCOPED_TRACE(f.id);
        const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
        Cylinder c;
        ASSERT_EQ(fit(pts, c), 1);
        EXPECT_NEAR(c.rms, f.rms, f.tol_rms);
        if (f.rms < 1e-30) {  // an exact set is met by any cylinder through all its points
            for (const giPoint3& q : pts)
                EXPECT_LT(std::fabs(tsLeastSquareDistance3::F(c.point, c.axis, q) - c.radius),
                          f.tol_position);
            continue;
        }
        const auto& p = f.params;
        expect_same(c, {giPoint3(p[0], p[1], p[2]), giUnitVec3(p[3], p[4], p[5]), p[6]},
                    f.tol_position, f.tol_orientation, f.tol_size);
    }
}

// The search's projected circles are least-squares circles of the projected
// points: the circle evaluate_circle2 fits for axes near the cylinder's, and
// never a worse one for axes far from it (where the projection has several
// local minima); their sum of squares and largest residual are the cylinder's.
TEST(CylinderProjectedCircles, AgreeWithTheCircleInThePlane) {
    const giXform3 pose = testsupport::random_motion(30.0, 1e3, 2);
    const giPoint3coDynArr pts =
        testsupport::transformed(pose, testsupport::cylinder_points(50, 7.0, 15.0, 120.0, 1e-3, 1));
    tsProjectedCircles circles(pts, nullptr);
    tsLeastSquareCylinder model(pts);
    double d = 0.0, sum = 0.0, worst = 0.0;
    // Sum of squares and largest |d| of the cylinder (centre, u, r).
    const auto measure = [&](const giPoint3& centre, const giUnitVec3& u, double r) {
        model.set_parameters({centre.x(), centre.y(), centre.z(), u.x(), u.y(), u.z(), r});
        sum = worst = 0.0;
        for (int i = 0; i < pts.size(); ++i) {
            model.get_distance(d, i);
            sum += d * d;
            worst = std::fmax(worst, std::fabs(d));
        }
    };
    const giUnitVec3 axes[] = {giUnitVec3(pose * giVector3(0, 0, 1)),
                               giUnitVec3(pose * giVector3(0.05, 0, 1)), giUnitVec3(0.1, 0.2, 1),
                               giUnitVec3(1, 1, 0), giUnitVec3(1, 0, 0)};
    for (int k = 0; k < 5; ++k) {
        SCOPED_TRACE(k);
        tsProjectedCircle c;
        giPoint3 centre;
        double r = 0.0, error = 0.0;
        ASSERT_TRUE(circles.fit(axes[k], c, true));
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), axes[k], pts, centre,
                                                           r, error),
                  1);
        measure(c.centre, axes[k], c.radius);
        EXPECT_NEAR(c.sum_squares, sum, 1e-9 * sum);
        EXPECT_NEAR(c.max_residual, worst, 1e-9 * worst);
        measure(centre, axes[k], r);
        EXPECT_LE(c.sum_squares, sum * (1 + 1e-12));
        if (k < 2) {
            EXPECT_LT(distance(c.centre, centre), 1e-7 * r);
            EXPECT_NEAR(c.radius, r, 1e-7 * r);
        }
    }
}

TEST(CylinderModel, GradientAndCanonicalForm) {
    const giPoint3coDynArr pts = testsupport::cylinder_points(30, 4.0, 10.0, 360.0, 0.05, 3);
    tsLeastSquareCylinder model(pts);
    // An axis of other length and reversed sense, and an axis point far along it.
    testsupport::expect_gradient_matches(model, {0.3, -0.2, 40.0, 0.1, 0.05, -2.0, 4.1}, 1e-6);
    mlVector p = {1.0, 2.0, 3.0, 0.0, 0.0, 5.0, 2.0};
    model.normalize_parameters(p);
    EXPECT_TRUE(p[2] == 0.0 && p[5] == 1.0 && p[6] == 2.0);  // the axis point nearest the origin
    EXPECT_EQ(model.n_independent_parameters(), 5);
}

struct TruthCase {
    const char* name;
    double radius, length, sector, sigma, offset;
    int n;
};

class CylinderKnownTruth : public ::testing::TestWithParam<TruthCase> {};

// Noisy samples of full surfaces, sectors and short cylinders of many sizes,
// each in its own pose up to 1e5 from the origin: the fit is the least-squares
// cylinder (so the pose moves nothing but the result), near the truth, and
// repeated calls are bit-identical.
TEST_P(CylinderKnownTruth, ReachesTheLeastSquaresCylinderInAnyPose) {
    const TruthCase& k = GetParam();
    const giXform3 pose = testsupport::random_motion(67.0, k.offset, 5);
    const giPoint3coDynArr pts = testsupport::transformed(
        pose, testsupport::cylinder_points(k.n, k.radius, k.length, k.sector, k.sigma, 11));
    Cylinder c, again;
    ASSERT_EQ(fit(pts, c), 1);
    const double scale = std::fmax(k.radius, k.offset);
    expect_same(c, refine(pts, c), 1e-9 * scale, 1e-9);
    const Cylinder truth{pose * giPoint3(0, 0, 0), giUnitVec3(pose * giVector3(0, 0, 1)), k.radius};
    expect_same(c, truth,
                20 * k.sigma * k.radius / std::sqrt(k.n * k.sector / 360.0) + 1e-9 * scale, 1e-1);

    ASSERT_EQ(fit(pts, again), 1);
    EXPECT_TRUE(again.point == c.point && again.axis == c.axis && again.radius == c.radius &&
                again.rms == c.rms);
}

INSTANTIATE_TEST_SUITE_P(Cylinder, CylinderKnownTruth,
                         ::testing::Values(TruthCase{"full", 10.0, 25.0, 360.0, 1e-3, 0.0, 60},
                                           TruthCase{"sector90", 20.0, 30.0, 90.0, 1e-3, 1e3, 80},
                                           TruthCase{"sector60", 50.0, 60.0, 60.0, 1e-3, 1e3, 120},
                                           TruthCase{"short", 30.0, 12.0, 360.0, 1e-3, 1e3, 80},
                                           TruthCase{"small", 0.5, 3.0, 200.0, 1e-4, 1e5, 50},
                                           TruthCase{"large", 500.0, 300.0, 120.0, 1e-2, 1e5, 100},
                                           TruthCase{"few", 8.0, 10.0, 300.0, 1e-3, 0.0, 8}),
                         [](const auto& info) { return std::string(info.param.name); });

// On one sector: normals all outward (a boss) or all inward (a bore) leave
// the fit as it is, a mixture or an axis outside the angle limit fails the
// normals test; probe radius 0 is the plain fit, and a ball of radius 1.5
// leaves the touched radius 1.5 inside (shaft) or outside (bore) the centres.
TEST(CylinderVariants, NormalsAndProbes) {
    giUnitVec3coDynArr outward, inward, mixed;
    const giPoint3coDynArr pts =
        testsupport::cylinder_points(40, 6.0, 20.0, 270.0, 1e-3, 21, &outward);
    for (int i = 0; i < outward.size(); ++i) {
        inward.append(-outward[i]);
        mixed.append(i % 2 ? outward[i] : inward[i]);
    }
    Cylinder plain, boss, bore, as_zero, shaft, probed_bore;
    ASSERT_EQ(fit(pts, plain), 1);
    ASSERT_EQ(fit(pts, boss, outward), 1);
    ASSERT_EQ(fit(pts, bore, inward), 1);
    expect_same(boss, plain, 1e-9, 1e-9);
    expect_same(bore, plain, 1e-9, 1e-9);
    const giAngle limit(1, 10.0);
    const giUnitVec3 z(0, 0, 1);
    mlVector p = {plain.point.x(), plain.point.y(), plain.point.z(), -plain.axis.x(),
                  -plain.axis.y(), -plain.axis.z(), plain.radius};
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, outward, p), 1);
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, inward, p), 1);
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, mixed, p), 0);
    EXPECT_EQ(
        tsLeastSquareCylinder::are_normals_in_limit(pts, limit, giUnitVec3(0, 1, 1), kNoNormals, p),
        0);

    const doublecoDynArr balls = filled(pts.size(), 1.5);
    ASSERT_EQ(fit_probed(pts, filled(pts.size(), 0.0), 0, as_zero), 1);
    ASSERT_EQ(fit_probed(pts, balls, 0, shaft), 1);
    ASSERT_EQ(fit_probed(pts, balls, 1, probed_bore), 1);
    expect_same(as_zero, plain, 1e-9, 1e-9);
    EXPECT_NEAR(shaft.radius, plain.radius - 1.5, 1e-9);
    EXPECT_NEAR(probed_bore.radius, plain.radius + 1.5, 1e-9);
}

// Close additions are one solver run from the previous cylinder; a far-off
// addition sends the update to the full search, unless the caller asks for
// the refinement unconditionally (n_added < 0).
TEST(CylinderUpdate, RefinesCloseAdditionsAndSearchesAfterFarOnes) {
    const giPoint3coDynArr all = testsupport::cylinder_points(60, 12.0, 40.0, 360.0, 1e-3, 31);
    giPoint3coDynArr old, far = all;
    for (int i = 0; i < 55; ++i) old.append(all[i]);
    far.append(giPoint3(0.0, 0.0, 500.0));
    Cylinder previous;
    ASSERT_EQ(fit(old, previous), 1);
    // One solver run from the previous cylinder: its radius and rms.
    const auto one_run = [&](const giPoint3coDynArr& pts) {
        tsLeastSquareCylinder model(pts);
        mlVector p;
        const double v = mlLevenbergMarquardt(model).fit(
            {previous.point.x(), previous.point.y(), previous.point.z(), previous.axis.x(),
             previous.axis.y(), previous.axis.z(), previous.radius},
            p);
        return std::make_pair(p[6], std::sqrt(v));
    };
    Cylinder updated = previous, searched = previous, full, forced = previous;
    ASSERT_EQ(fit(all, updated, kNoNormals, 5), 1);
    EXPECT_EQ(std::make_pair(updated.radius, updated.rms), one_run(all));
    ASSERT_EQ(fit(far, searched, kNoNormals, 6), 1);
    ASSERT_EQ(fit(far, full), 1);
    EXPECT_EQ(searched.radius, full.radius);
    ASSERT_EQ(fit(far, forced, kNoNormals, -1), 1);
    EXPECT_EQ(std::make_pair(forced.radius, forced.rms), one_run(far));
}

// Five points fix a cylinder only up to a few alternatives: the reference set
// of five points lies exactly on two distinct cylinders.
TEST(CylinderMultiple, FindsBothCylindersThroughFivePoints) {
    giPoint3coDynArr pts;
    giUnitVec3coDynArr axes;
    for (const auto& f : testsupport::reference_fits("cylinder"))
        if (f.id == "cylinder_min5") {
            pts = testsupport::reference_points3(f.file);
            axes.append(giUnitVec3(f.params[3], f.params[4], f.params[5]));
        }
    ASSERT_EQ(axes.size(), 2);
    const giAngle angle(1, 1.0);
    tsFittedCylindercoDynArr results, one;
    EXPECT_EQ(
        tsLeastSquareEvaluator::evaluate_multiple_cylinders(pts, axes, 1e-6, angle, 3, results), 2);
    ASSERT_EQ(results.size(), 2);
    EXPECT_FALSE(results[0].coincident(results[1], 1e-6, angle));
    for (const tsFittedCylinder& c : results) {
        EXPECT_LT(c.deviation(), 1e-6);
        for (const giPoint3& q : pts)
            EXPECT_NEAR(tsLeastSquareDistance3::F(c.axis_point(), c.axis_dir(), q), c.radius(),
                        1e-6);
    }
    // Records already present count towards the number wanted and keep
    // duplicates out.
    EXPECT_EQ(tsCalculateMultipleLeastSquareCylinders(pts, axes, 1e-6, angle, 2, results), 2);
    one.append(results[0]);
    EXPECT_EQ(tsCalculateMultipleLeastSquareCylinders(pts, axes, 1e-6, angle, 3, one), 2);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cylinders(pts, axes, 1e-6, angle, 0, one),
              2);
}

// The initial direction: exact for six points on two rings; near the axis for
// probed points.
TEST(CylinderStart, InitialDirections) {
    giPoint3coDynArr pts;
    const giXform3 pose = testsupport::random_motion(50.0, 100.0, 61);
    for (int i = 0; i < 6; ++i) {
        const double phi = 2.0 * testsupport::kPi * (i % 3) / 3.0 + (i / 3) * 0.4;
        pts.append(pose * giPoint3(7.0 * std::cos(phi), 7.0 * std::sin(phi), (i / 3) * 9.0));
    }
    giVector3 direction, probed;
    ASSERT_EQ(tsCylinder_InitialSolution(pts, direction), 1);
    EXPECT_LT(axis_angle(direction, pose * giVector3(0, 0, 1)), 1e-12);
    const giPoint3coDynArr sector = testsupport::cylinder_points(50, 15.0, 30.0, 180.0, 1e-3, 71);
    ASSERT_EQ(tsCylinder_InitialSolutionProbed(sector, filled(50, 1.5), 1, probed), 1);
    EXPECT_LT(axis_angle(probed, giVector3(0, 0, 1)), 0.1);
}

// Too few, NaN or infinite points, normals or probe radii not one per point
// are refused with 0 and nothing written; points all equal or on one line do
// not crash and any answer given is finite.
TEST(CylinderRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr pts = testsupport::cylinder_points(20, 3.0, 9.0, 360.0, 1e-3, 81);
    giPoint3coDynArr empty, four, nan = pts, inf = pts, same, line;
    for (int i = 0; i < 4; ++i) four.append(pts[i]);
    nan[3] = giPoint3(NAN, 0, 0);
    inf[7] = giPoint3(0, INFINITY, 0);
    const doublecoDynArr radii = filled(pts.size(), 1.0), short_radii = filled(5, 1.0);
    giUnitVec3coDynArr short_normals;
    short_normals.append(giUnitVec3(0, 0, 1));
    Cylinder c;
    for (const giPoint3coDynArr* bad : {&empty, &four, &nan, &inf}) {
        EXPECT_EQ(fit(*bad, c), 0);
        EXPECT_EQ(fit_probed(*bad, radii, 0, c), 0);
        tsFittedCylindercoDynArr results;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cylinders(*bad, {}, 1.0,
                                                                      giAngle(1, 1.0), 1, results),
                  0);
    }
    EXPECT_EQ(fit_probed(pts, short_radii, 0, c), 0);
    EXPECT_EQ(fit(pts, c, short_normals), 0);
    EXPECT_TRUE(!c.point.is_set() && !c.axis.is_set() && c.radius == 0.0 && c.rms == 0.0);

    for (int i = 0; i < 8; ++i) {
        same.append(giPoint3(1, 2, 3));
        line.append(giPoint3(i, 2.0 * i, 0.5 * i));
    }
    for (const giPoint3coDynArr* degenerate : {&same, &line}) {
        Cylinder d;
        if (fit(*degenerate, d)) {
            EXPECT_TRUE(std::isfinite(d.radius) && std::isfinite(d.rms));
        }
    }
}

// The whole surface scores highest (plain about 0.69, probed about 1.0, the
// probed one higher by the ratio of their divisors) and the score falls with
// the sector; shifting points and axis together changes nothing; two points
// score 0.
TEST(CylinderDistribution, WholeSurfaceScoresHighestAndOriginDoesNotMatter) {
    using Quality = tsLeastSquareDistributionQuality;
    const giVector3 z(0, 0, 1), shift(3e3, -2e3, 5e3);
    const giPoint3 o(0, 0, 0);
    double last = DBL_MAX;
    for (const double sector : {360.0, 180.0, 90.0, 30.0}) {
        SCOPED_TRACE(sector);
        const giPoint3coDynArr pts = testsupport::cylinder_points(400, 10.0, 20.0, sector, 0, 91);
        giPoint3coDynArr far;
        for (const giPoint3& p : pts) far.append(p + shift);
        const double q = Quality::distribution_quality_cylinder(pts, o, z, 10.0);
        const double probed = Quality::distribution_quality_probed_cylinder(
            pts, filled(pts.size(), 0.5), 1, o, z, 10.0);
        EXPECT_LT(q, last);
        last = q;
        EXPECT_NEAR(Quality::distribution_quality_cylinder(far, o + shift, z, 10.0), q, 1e-9);
        EXPECT_NEAR(probed, q * 0.26 / 0.177, 1e-12);
        if (sector == 360.0) {
            EXPECT_NEAR(q, 0.69, 0.05);
            EXPECT_NEAR(probed, 1.0, 0.05);
        }
    }
    const giPoint3coDynArr two = {giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
    EXPECT_EQ(Quality::distribution_quality_cylinder(two, o, z, 1.0), 0.0);
}
