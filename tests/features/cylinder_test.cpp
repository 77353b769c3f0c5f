#include "metrofit/features/cylinder.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "metrofit/features/probed_cylinder.h"
#include "metrofit/features/projected_circles.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::distance_from_line;
using testsupport::undirected_angle;

struct Cylinder {
    giPoint3 point;
    giUnitVec3 axis;
    double radius = 0.0, rms = 0.0;
};

const giUnitVec3coDynArr kNoNormals;

int fit(const giPoint3coDynArr& pts, Cylinder& c, const giUnitVec3coDynArr& normals = kNoNormals,
        int n_added = 0, const giUnitVec3& nominal = giUnitVec3(), double degrees = 10.0) {
    return tsCalculateLeastSquareCylinder(pts, c.point, c.axis, c.radius, c.rms, nominal,
                                          giAngle(1, degrees), normals, n_added);
}

// The least-squares cylinder near `near`, by the test's own Gauss-Newton in
// a minimal parameterisation: axis point shifted across the axis (s, t),
// axis turned (a, b), radius.
Cylinder refine(const giPoint3coDynArr& pts, const Cylinder& near) {
    const giUnitVec3 u0 = near.axis;
    const giUnitVec3 e1 = u0.any_normal();
    const giUnitVec3 e2(cross(u0, e1));
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
    Cylinder out;
    out.point = giPoint3(P[0], P[1], P[2]);
    out.axis = giUnitVec3(u[0], u[1], u[2]);
    out.radius = p[4];
    return out;
}

void expect_same(const Cylinder& got, const Cylinder& want, double length_tol, double angle_tol) {
    EXPECT_LT(
        distance_from_line(want.point.x(), want.point.y(), want.point.z(), got.point.x(),
                           got.point.y(), got.point.z(), got.axis.x(), got.axis.y(), got.axis.z()),
        length_tol);
    EXPECT_LT(undirected_angle(got.axis.x(), got.axis.y(), got.axis.z(), want.axis.x(),
                               want.axis.y(), want.axis.z()),
              angle_tol);
    EXPECT_NEAR(got.radius, want.radius, length_tol);
}

Cylinder moved(const giXform3& t, const Cylinder& c) {
    Cylinder out = c;
    out.point = t * c.point;
    out.axis = giUnitVec3(t * giVector3(c.axis));
    return out;
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
        // An exact set is met by any cylinder through all its points.
        double worst = 0.0;
        for (const giPoint3& q : pts)
            worst = std::fmax(worst,
                              std::fabs(tsLeastSquareDistance3::F(c.point, c.axis, q) - c.radius));
        if (f.rms < 1e-30) {  // an exact set
            EXPECT_LT(worst, f.tol_position);
            continue;
        }
        const auto& p = f.params;
        EXPECT_LT(distance_from_line(p[0], p[1], p[2], c.point.x(), c.point.y(), c.point.z(),
                                     c.axis.x(), c.axis.y(), c.axis.z()),
                  f.tol_position);
        EXPECT_LT(undirected_angle(p[3], p[4], p[5], c.axis.x(), c.axis.y(), c.axis.z()),
                  f.tol_orientation);
        EXPECT_NEAR(c.radius, p[6], f.tol_size);
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
    const giUnitVec3 axes[] = {giUnitVec3(pose * giVector3(0, 0, 1)),
                               giUnitVec3(pose * giVector3(0.05, 0, 1)), giUnitVec3(0.1, 0.2, 1),
                               giUnitVec3(1, 1, 0), giUnitVec3(1, 0, 0)};
    for (int k = 0; k < 5; ++k) {
        const giUnitVec3& u = axes[k];
        tsProjectedCircle c;
        ASSERT_TRUE(circles.fit(u, c, true));
        tsLeastSquareCylinder model(pts);
        const auto sums = [&](const giPoint3& centre, double r, double& worst) {
            model.set_parameters({centre.x(), centre.y(), centre.z(), u.x(), u.y(), u.z(), r});
            double sum = 0.0;
            worst = 0.0;
            for (int i = 0; i < pts.size(); ++i) {
                double d = 0.0;
                model.get_distance(d, i);
                sum += d * d;
                worst = std::fmax(worst, std::fabs(d));
            }
            return sum;
        };
        double worst = 0.0, unused = 0.0;
        const double sum = sums(c.centre, c.radius, worst);
        EXPECT_NEAR(c.sum_squares, sum, 1e-9 * sum);
        EXPECT_NEAR(c.max_residual, worst, 1e-9 * worst);
        giPoint3 centre;
        double r = 0.0, error = 0.0;
        ASSERT_EQ(
            tsLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), u, pts, centre, r, error),
            1);
        EXPECT_LE(sum, sums(centre, r, unused) * (1 + 1e-12));
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
    EXPECT_EQ(p[2], 0.0);  // the axis point nearest the origin
    EXPECT_EQ(p[5], 1.0);
    EXPECT_EQ(p[6], 2.0);
    EXPECT_EQ(model.n_independent_parameters(), 5);
}

struct TruthCase {
    const char* name;
    double radius, length, sector, sigma, offset;
    int n;
};

class CylinderKnownTruth : public ::testing::TestWithParam<TruthCase> {};

// The fit reaches the least-squares cylinder of noisy samples of full
// surfaces, sectors and short cylinders of many sizes in any pose, and moving
// the points moves nothing but the pose.
TEST_P(CylinderKnownTruth, ReachesTheLeastSquaresCylinderInAnyPose) {
    const TruthCase& k = GetParam();
    const giPoint3coDynArr base =
        testsupport::cylinder_points(k.n, k.radius, k.length, k.sector, k.sigma, 11);
    const giXform3 pose = testsupport::random_motion(67.0, k.offset, 5);
    const giPoint3coDynArr pts = testsupport::transformed(pose, base);
    Cylinder c;
    ASSERT_EQ(fit(pts, c), 1);
    const double scale = std::fmax(k.radius, k.offset);
    expect_same(c, refine(pts, c), 1e-9 * scale, 1e-9);
    Cylinder truth;
    truth.point = pose * giPoint3(0, 0, 0);
    truth.axis = giUnitVec3(pose * giVector3(0, 0, 1));
    truth.radius = k.radius;
    expect_same(c, truth,
                20 * k.sigma * k.radius / std::sqrt(k.n * k.sector / 360.0) + 1e-9 * scale, 1e-1);

    // The same points moved again: the cylinder moves with them.
    const giXform3 motion = testsupport::random_motion(141.0, 1e3, 9);
    Cylinder m;
    ASSERT_EQ(fit(testsupport::transformed(motion, pts), m), 1);
    expect_same(m, moved(motion, c), 1e-9 * (scale + 1e3), 1e-9);
    EXPECT_NEAR(m.rms, c.rms, 1e-9 * scale);

    // Repeated calls are bit-identical.
    Cylinder again;
    ASSERT_EQ(fit(pts, again), 1);
    EXPECT_EQ(again.point, c.point);
    EXPECT_EQ(again.axis, c.axis);
    EXPECT_EQ(again.radius, c.radius);
    EXPECT_EQ(again.rms, c.rms);
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

TEST(CylinderNormals, BoresAndBossesPassMixturesFail) {
    giUnitVec3coDynArr outward;
    const giPoint3coDynArr pts =
        testsupport::cylinder_points(40, 6.0, 20.0, 270.0, 1e-3, 21, &outward);
    giUnitVec3coDynArr inward, mixed;
    for (int i = 0; i < outward.size(); ++i) {
        const giUnitVec3& v = outward[i];
        inward.append(giUnitVec3(-v.x(), -v.y(), -v.z()));
        mixed.append(i % 2 ? v : inward[i]);
    }
    Cylinder plain, boss, bore;
    ASSERT_EQ(fit(pts, plain), 1);
    ASSERT_EQ(fit(pts, boss, outward), 1);
    ASSERT_EQ(fit(pts, bore, inward), 1);
    expect_same(boss, plain, 1e-9, 1e-9);
    expect_same(bore, plain, 1e-9, 1e-9);

    const giAngle limit(1, 10.0);
    mlVector p = {plain.point.x(), plain.point.y(), plain.point.z(), -plain.axis.x(),
                  -plain.axis.y(), -plain.axis.z(), plain.radius};
    const giUnitVec3 z(0, 0, 1);
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, outward, p), 1);
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, inward, p), 1);
    EXPECT_EQ(tsLeastSquareCylinder::are_normals_in_limit(pts, limit, z, mixed, p), 0);
    EXPECT_EQ(
        tsLeastSquareCylinder::are_normals_in_limit(pts, limit, giUnitVec3(0, 1, 1), kNoNormals, p),
        0);
    // Normals not one per point are refused.
    giUnitVec3coDynArr short_list = outward;
    short_list.shrink(outward.size() - 1, 1);
    Cylinder untouched;
    EXPECT_EQ(fit(pts, untouched, short_list), 0);
    EXPECT_FALSE(untouched.point.is_set());
}

TEST(CylinderUpdate, RefinesCloseAdditionsAndSearchesAfterFarOnes) {
    const giPoint3coDynArr all = testsupport::cylinder_points(60, 12.0, 40.0, 360.0, 1e-3, 31);
    giPoint3coDynArr old;
    for (int i = 0; i < 55; ++i) old.append(all[i]);
    Cylinder previous;
    ASSERT_EQ(fit(old, previous), 1);
    const mlVector start = {previous.point.x(), previous.point.y(), previous.point.z(),
                            previous.axis.x(),  previous.axis.y(),  previous.axis.z(),
                            previous.radius};
    // One solver run from the previous cylinder, as the test makes it.
    const auto one_run = [&](const giPoint3coDynArr& pts, Cylinder& out) {
        tsLeastSquareCylinder model(pts);
        mlVector p;
        out.rms = std::sqrt(mlLevenbergMarquardt(model).fit(start, p));
        out.point = giPoint3(p[0], p[1], p[2]);
        out.axis = giUnitVec3(p[3], p[4], p[5]);
        out.radius = p[6];
    };

    Cylinder updated = previous, expected;
    ASSERT_EQ(fit(all, updated, kNoNormals, 5), 1);
    one_run(all, expected);
    EXPECT_EQ(updated.radius, expected.radius);
    EXPECT_EQ(updated.rms, expected.rms);

    // A far-off new point sends the update to the full search...
    giPoint3coDynArr far = all;
    far.append(giPoint3(0.0, 0.0, 500.0));
    Cylinder searched = previous, full;
    ASSERT_EQ(fit(far, searched, kNoNormals, 6), 1);
    ASSERT_EQ(fit(far, full), 1);
    EXPECT_EQ(searched.radius, full.radius);
    // ... unless the caller asks for the refinement unconditionally.
    Cylinder forced = previous;
    ASSERT_EQ(fit(far, forced, kNoNormals, -1), 1);
    one_run(far, expected);
    EXPECT_EQ(forced.radius, expected.radius);
}

// Five points fix a cylinder only up to a few alternatives: the reference set
// of five points lies exactly on two distinct cylinders.
TEST(CylinderMultiple, FindsBothCylindersThroughFivePoints) {
    const auto fits = testsupport::reference_fits("cylinder");
    giPoint3coDynArr pts;
    giUnitVec3coDynArr axes;
    for (const auto& f : fits)
        if (f.id == "cylinder_min5") {
            pts = testsupport::reference_points3(f.file);
            axes.append(giUnitVec3(f.params[3], f.params[4], f.params[5]));
        }
    ASSERT_EQ(axes.size(), 2);
    const giAngle angle(1, 1.0);
    tsFittedCylindercoDynArr results;
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
    tsFittedCylindercoDynArr one;
    one.append(results[0]);
    EXPECT_EQ(tsCalculateMultipleLeastSquareCylinders(pts, axes, 1e-6, angle, 3, one), 2);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cylinders(pts, axes, 1e-6, angle, 0, one),
              2);
}

TEST(CylinderStart, SixPointsOnTwoRingsGiveTheirAxis) {
    giPoint3coDynArr pts;
    const giXform3 pose = testsupport::random_motion(50.0, 100.0, 61);
    for (int ring = 0; ring < 2; ++ring)
        for (int k = 0; k < 3; ++k) {
            const double phi = 2.0 * testsupport::kPi * k / 3.0 + ring * 0.4;
            pts.append(pose * giPoint3(7.0 * std::cos(phi), 7.0 * std::sin(phi), ring * 9.0));
        }
    giVector3 direction;
    ASSERT_EQ(tsCylinder_InitialSolution(pts, direction), 1);
    const giVector3 axis = pose * giVector3(0, 0, 1);
    EXPECT_LT(
        undirected_angle(direction.x(), direction.y(), direction.z(), axis.x(), axis.y(), axis.z()),
        1e-12);
}

TEST(ProbedCylinder, CompensatesTheProbeOnEitherSide) {
    const giPoint3coDynArr pts = testsupport::cylinder_points(50, 15.0, 30.0, 180.0, 1e-3, 71);
    doublecoDynArr zero, balls;
    for (int i = 0; i < pts.size(); ++i) {
        zero.append(0.0);
        balls.append(1.5);
    }
    Cylinder plain, as_zero, shaft, bore;
    ASSERT_EQ(fit(pts, plain), 1);
    const auto probed = [&](const doublecoDynArr& radii, int inside, Cylinder& c) {
        return tsCalculateLeastSquareProbedCylinder(pts, radii, inside, c.point, c.axis, c.radius,
                                                    c.rms, giUnitVec3(), giAngle(1, 10.0),
                                                    kNoNormals, 0);
    };
    ASSERT_EQ(probed(zero, 0, as_zero), 1);
    expect_same(as_zero, plain, 1e-9, 1e-9);
    ASSERT_EQ(probed(balls, 0, shaft), 1);
    ASSERT_EQ(probed(balls, 1, bore), 1);
    EXPECT_NEAR(shaft.radius, plain.radius - 1.5, 1e-9);
    EXPECT_NEAR(bore.radius, plain.radius + 1.5, 1e-9);
    EXPECT_NEAR(bore.radius - shaft.radius, 3.0, 1e-9);

    giVector3 direction;
    ASSERT_EQ(tsCylinder_InitialSolutionProbed(pts, balls, 1, direction), 1);
    EXPECT_LT(undirected_angle(direction.x(), direction.y(), direction.z(), 0, 0, 1), 0.1);
}

TEST(CylinderRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr pts = testsupport::cylinder_points(20, 3.0, 9.0, 360.0, 1e-3, 81);
    giPoint3coDynArr empty, four, nan = pts, inf = pts;
    for (int i = 0; i < 4; ++i) four.append(pts[i]);
    nan[3] = giPoint3(NAN, 0, 0);
    inf[7] = giPoint3(0, INFINITY, 0);
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(1.0);
    doublecoDynArr short_radii = radii;
    short_radii.shrink(5, 1);
    for (const giPoint3coDynArr* bad : {&empty, &four, &nan, &inf}) {
        Cylinder c;
        EXPECT_EQ(fit(*bad, c), 0);
        EXPECT_EQ(
            tsCalculateLeastSquareProbedCylinder(*bad, radii, 0, c.point, c.axis, c.radius, c.rms,
                                                 giUnitVec3(), giAngle(1, 5.0), kNoNormals, 0),
            0);
        EXPECT_FALSE(c.point.is_set());
        tsFittedCylindercoDynArr results;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cylinders(*bad, {}, 1.0,
                                                                      giAngle(1, 1.0), 1, results),
                  0);
    }
    Cylinder c;
    EXPECT_EQ(
        tsCalculateLeastSquareProbedCylinder(pts, short_radii, 0, c.point, c.axis, c.radius, c.rms,
                                             giUnitVec3(), giAngle(1, 5.0), kNoNormals, 0),
        0);
    // Degenerate but finite: all points equal, or on one line. No crash, and
    // any answer given is finite.
    giPoint3coDynArr same, line;
    for (int i = 0; i < 8; ++i) {
        same.append(giPoint3(1, 2, 3));
        line.append(giPoint3(i, 2.0 * i, 0.5 * i));
    }
    for (const giPoint3coDynArr* degenerate : {&same, &line}) {
        Cylinder d;
        if (fit(*degenerate, d)) {
            EXPECT_TRUE(std::isfinite(d.radius));
            EXPECT_TRUE(std::isfinite(d.rms));
        }
    }
}

TEST(CylinderDistribution, WholeSurfaceScoresHighestAndOriginDoesNotMatter) {
    double last = DBL_MAX;
    for (const double sector : {360.0, 180.0, 90.0, 30.0}) {
        const giPoint3coDynArr pts = testsupport::cylinder_points(400, 10.0, 20.0, sector, 0, 91);
        const auto plain = [](const giPoint3coDynArr& p, const giPoint3& c) {
            return tsLeastSquareDistributionQuality::distribution_quality_cylinder(
                p, c, giVector3(0, 0, 1), 10.0);
        };
        const double q = plain(pts, giPoint3(0, 0, 0));
        EXPECT_LT(q, last);
        last = q;
        const giVector3 shift(3e3, -2e3, 5e3);
        giPoint3coDynArr far;
        for (const giPoint3& p : pts) far.append(p + shift);
        EXPECT_NEAR(plain(far, giPoint3(0, 0, 0) + shift), q, 1e-9);
        doublecoDynArr radii;
        for (int i = 0; i < pts.size(); ++i) radii.append(0.5);
        // The probed measure has the plain gradient and a smaller divisor.
        const double probed =
            tsLeastSquareDistributionQuality::distribution_quality_probed_cylinder(
                pts, radii, 1, giPoint3(0, 0, 0), giVector3(0, 0, 1), 10.0);
        EXPECT_NEAR(probed, q * 0.26 / 0.177, 1e-12);
        if (sector == 360.0) {
            EXPECT_NEAR(q, 0.69, 0.05);
            EXPECT_NEAR(probed, 1.0, 0.05);
        }
    }
    giPoint3coDynArr two;
    two.append(giPoint3(1, 0, 0));
    two.append(giPoint3(0, 1, 0));
    EXPECT_EQ(tsLeastSquareDistributionQuality::distribution_quality_cylinder(
                  two, giPoint3(0, 0, 0), giVector3(0, 0, 1), 1.0),
              0.0);
}
