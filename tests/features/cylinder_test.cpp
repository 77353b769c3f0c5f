#include "metrofit/features/cylinder.h"

#include <gtest/gtest.h>

#include <cmath>

#include "metrofit/features/probed_cylinder.h"
#include "metrofit/platform/maths/least_squares.h"
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

// The axes and radii agree: want's axis point lies on got's axis.
void expect_same(const Cylinder& got, const Cylinder& want, double length_tol, double angle_tol,
                 double size_tol = -1.0) {
    EXPECT_LT(cross(want.point - got.point, got.axis).length(), length_tol);
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

struct TruthCase {
    const char* name;
    double radius, length, sector, sigma, offset;
    int n;
};

// Noisy samples of full surfaces, sectors and few points, small to large:
// the fit lies near the truth, repeats itself bit for bit, and moved to a
// pose up to 1e5 from the origin it moves with the points.
TEST(CylinderKnownTruth, NearTheTruthAndMovesWithThePoints) {
    const TruthCase cases[] = {TruthCase{"full", 10.0, 25.0, 360.0, 1e-3, 0.0, 60},
                               TruthCase{"large", 500.0, 300.0, 120.0, 1e-2, 1e5, 100},
                               TruthCase{"few", 8.0, 10.0, 300.0, 1e-3, 0.0, 8}};
    for (const TruthCase& k : cases) {
        SCOPED_TRACE(k.name);
        const giPoint3coDynArr base =
            testsupport::cylinder_points(k.n, k.radius, k.length, k.sector, k.sigma, 11);
        Cylinder c, again, m;
        ASSERT_EQ(fit(base, c), 1);
        ASSERT_EQ(fit(base, again), 1);
        EXPECT_TRUE(again.point == c.point && again.axis == c.axis && again.radius == c.radius &&
                    again.rms == c.rms);
        expect_same(c, {giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), k.radius},
                    20 * k.sigma * k.radius / std::sqrt(k.n * k.sector / 360.0), 1e-1);

        const giXform3 pose = testsupport::random_motion(67.0, k.offset, 5);
        ASSERT_EQ(fit(testsupport::transformed(pose, base), m), 1);
        const double tol = 1e-9 * std::fmax(k.radius, k.offset);
        expect_same(m, {pose * c.point, giUnitVec3(pose * c.axis), c.radius}, tol, 1e-9);
        EXPECT_NEAR(m.rms, c.rms, tol);
    }
}

// Normals all outward (boss) or inward (bore) keep the fit; probe radius 0 is the plain fit, balls
// of 1.5 shift the radius by 1.5. With n_added < 0 even a far addition is one solver run from the
// previous cylinder.
TEST(CylinderVariants, NormalsProbesAndUpdates) {
    giUnitVec3coDynArr outward, inward;
    const giPoint3coDynArr pts =
        testsupport::cylinder_points(40, 6.0, 20.0, 270.0, 1e-3, 21, &outward);
    for (int i = 0; i < outward.size(); ++i) inward.append(-outward[i]);
    Cylinder plain, boss, bore, as_zero, shaft, probed_bore;
    ASSERT_EQ(fit(pts, plain), 1);
    ASSERT_EQ(fit(pts, boss, outward), 1);
    ASSERT_EQ(fit(pts, bore, inward), 1);
    expect_same(boss, plain, 1e-9, 1e-9);
    expect_same(bore, plain, 1e-9, 1e-9);
    mlVector p;
    const doublecoDynArr balls = filled(pts.size(), 1.5);
    ASSERT_EQ(fit_probed(pts, filled(pts.size(), 0.0), 0, as_zero), 1);
    ASSERT_EQ(fit_probed(pts, balls, 0, shaft), 1);
    ASSERT_EQ(fit_probed(pts, balls, 1, probed_bore), 1);
    expect_same(as_zero, plain, 1e-9, 1e-9);
    EXPECT_NEAR(shaft.radius, plain.radius - 1.5, 1e-9);
    EXPECT_NEAR(probed_bore.radius, plain.radius + 1.5, 1e-9);

    giPoint3coDynArr old = pts, far = pts;
    old.shrink(35, 0);
    far.append(giPoint3(0.0, 0.0, 500.0));
    Cylinder previous;
    ASSERT_EQ(fit(old, previous), 1);
    Cylinder forced = previous;
    ASSERT_EQ(fit(far, forced, kNoNormals, -1), 1);
    tsLeastSquareCylinder model(far);
    const double v = mlLevenbergMarquardt(model).fit(
        {previous.point.x(), previous.point.y(), previous.point.z(), previous.axis.x(),
         previous.axis.y(), previous.axis.z(), previous.radius},
        p);
    EXPECT_TRUE(forced.radius == p[6] && forced.rms == std::sqrt(v));
}

// The reference set of five points lies exactly on two distinct cylinders.
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
}

// Too few or NaN points, normals or probe radii not one per point
// are refused with 0 and nothing written; points all equal or on one line do
// not crash and any answer given is finite.
TEST(CylinderRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr pts = testsupport::cylinder_points(20, 3.0, 9.0, 360.0, 1e-3, 81);
    giPoint3coDynArr four = pts, nan = pts, same, line;
    four.shrink(4, 0);
    nan[3] = giPoint3(NAN, 0, 0);
    Cylinder c;
    for (const giPoint3coDynArr& bad : {giPoint3coDynArr(), four, nan}) {
        EXPECT_EQ(fit(bad, c), 0);
        EXPECT_EQ(fit_probed(bad, filled(bad.size(), 1.0), 0, c), 0);
        tsFittedCylindercoDynArr results;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cylinders(bad, {}, 1.0, giAngle(1, 1.0),
                                                                      1, results),
                  0);
    }
    EXPECT_EQ(fit_probed(pts, filled(5, 1.0), 0, c), 0);
    EXPECT_EQ(fit(pts, c, {giUnitVec3(0, 0, 1)}), 0);
    EXPECT_TRUE(!c.point.is_set() && !c.axis.is_set() && c.radius == 0.0 && c.rms == 0.0);

    for (int i = 0; i < 8; ++i) {
        same.append(giPoint3(1, 2, 3));
        line.append(giPoint3(i, 2.0 * i, 0.5 * i));
    }
    for (const giPoint3coDynArr& degenerate : {same, line}) {
        Cylinder d;
        EXPECT_TRUE(!fit(degenerate, d) || (std::isfinite(d.radius) && std::isfinite(d.rms)));
    }
}
