#include "metrofit/features/cone.h"

#include <gtest/gtest.h>

#include <cmath>

#include "metrofit/features/probed_cone.h"
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
        int n_added = 0) {
    return tsCalculateLeastSquareCone(pts, c.apex, c.axis, c.half_angle, c.rms, giUnitVec3(),
                                      giAngle(1, 10.0), normals, n_added);
}

int fit_probed(const giPoint3coDynArr& pts, const doublecoDynArr& radii, int inside,
               const giPoint3coDynArr& guess, Cone& c) {
    return tsCalculateLeastSquareProbedCone(pts, radii, inside, guess, c.apex, c.axis, c.half_angle,
                                            c.rms, giUnitVec3(), giAngle(1, 10.0), kNoNormals, 0);
}

doublecoDynArr filled(int n, double value) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(value);
    return out;
}

// Signed distance of q from the cone, positive outside.
double cone_distance(const Cone& c, const giPoint3& q) {
    const giVector3 w = q - c.apex;
    return cross(c.axis, w).length() * std::cos(c.half_angle) +
           dot(c.axis, w) * std::sin(c.half_angle);
}

double directed_angle(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), dot(a, b));
}

void expect_same(const Cone& got, const Cone& want, double length_tol, double angle_tol,
                 double size_tol = -1.0) {
    EXPECT_LT(distance(got.apex, want.apex), length_tol);
    EXPECT_LT(directed_angle(got.axis, want.axis), angle_tol);
    EXPECT_NEAR(got.half_angle, want.half_angle, size_tol < 0 ? angle_tol : size_tol);
}

}  // namespace

TEST(ConeReference, MatchesEveryReferenceFit) {
    for (const auto& f : testsupport::reference_fits("cone")) {
        if (f.fit != 0) continue;
        SCOPED_TRACE(f.id);
        const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
        Cone c;
        ASSERT_EQ(fit(pts, c), 1);
        EXPECT_NEAR(c.rms, f.rms, f.tol_rms);
        if (f.rms < 1e-30) {  // an exact set: any cone through all its points
            for (const giPoint3& q : pts) EXPECT_LT(std::fabs(cone_distance(c, q)), f.tol_position);
            continue;
        }
        const auto& p = f.params;  // apex, axis into the cone, half angle
        expect_same(c, {giPoint3(p[0], p[1], p[2]), giUnitVec3(-p[3], -p[4], -p[5]), p[6]},
                    f.tol_position, f.tol_orientation, f.tol_size);
    }
}

// The surface normal at the apex is the axis.
TEST(ConeModel, NormalAtTheApexIsTheAxis) {
    const giPoint3 apex(1, 2, 3);
    const giUnitVec3 up(0, 0, 1);
    EXPECT_EQ(tsGetConeNormal(apex, up, giAngle(giANGLE_DEGREES, 30.0), apex), up);
}

struct TruthCase {
    const char* name;
    double half_angle, s0, s1, sector, sigma, offset;
    int n;
};

// Noisy frustums, nearly cylindrical to flat: the fit is near the truth, bit
// for bit repeatable, and moves with the points up to 1e5 away (to the
// precision the points resolve apex and axis of flat and narrow cones).
TEST(ConeKnownTruth, NearTheTruthAndMovesWithThePoints) {
    const TruthCase cases[] = {TruthCase{"a2", 2.0, 20.0, 60.0, 360.0, 1e-3, 0.0, 80},
                               TruthCase{"a30_sector90", 30.0, 5.0, 20.0, 90.0, 1e-3, 1e5, 100},
                               TruthCase{"a80_sector180", 80.0, 3.0, 15.0, 180.0, 1e-3, 1e3, 80}};
    for (const TruthCase& k : cases) {
        SCOPED_TRACE(k.name);
        const giPoint3coDynArr base =
            testsupport::cone_points(k.n, k.half_angle, k.s0, k.s1, k.sector, k.sigma, 13);
        Cone c, again, m;
        ASSERT_EQ(fit(base, c), 1);
        ASSERT_EQ(fit(base, again), 1);
        EXPECT_TRUE(again.apex == c.apex && again.axis == c.axis &&
                    again.half_angle == c.half_angle && again.rms == c.rms);
        const double rad = k.half_angle * kPi / 180.0;
        EXPECT_NEAR(c.half_angle, rad, 0.01);
        EXPECT_LT(directed_angle(c.axis, giVector3(0, 0, 1)), 0.05);

        const giXform3 pose = testsupport::random_motion(71.0, k.offset, 7);
        ASSERT_EQ(fit(testsupport::transformed(pose, base), m), 1);
        expect_same(m, {pose * c.apex, pose * c.axis, c.half_angle},
                    1e-8 * std::fmax(k.s1, k.offset) / std::sin(rad), 1e-9 / std::sin(rad));
    }
}

// A nearly flat cone (89.5 degrees) is non-physical but reported as it fits clearly better,
// and is the same cone when a tolerance makes it physical. The tolerances
// are process-wide, independent, and hand back the old value.
TEST(ConeNonPhysical, NearlyFlatConesByTheSelectionRule) {
    Cone f, g;
    giPoint3coDynArr flat = testsupport::cone_points(3, 89.5, 6.0, 6.0, 300.0, 0.0, 9);
    for (const giPoint3& q : testsupport::cone_points(3, 89.5, 18.0, 18.0, 300.0, 0.0, 10))
        flat.append(q);
    for (const giPoint3& q : testsupport::cone_points(80, 89.5, 2.0, 20.0, 360.0, 1e-4, 11))
        flat.append(q);
    ASSERT_EQ(fit(flat, f), 1);
    EXPECT_GT(f.half_angle, 0.5 * kPi - 0.05);
    EXPECT_LT(f.rms, 2e-4);
    EXPECT_EQ(tsSetLeastSquareConeNonPhysicalTolerance(0.001), 0.05);
    EXPECT_EQ(tsSetLeastSquareProbedConeNonPhysicalTolerance(0.07), 0.05);
    ASSERT_EQ(fit(flat, g), 1);
    EXPECT_EQ(tsLeastSquareEvaluator::set_cone_non_physical_tolerance(0.05), 0.001);
    EXPECT_EQ(tsSetLeastSquareProbedConeNonPhysicalTolerance(0.05), 0.07);
    EXPECT_NEAR(g.half_angle, f.half_angle, 1e-9);
}

// Normals all outward (boss) or inward (countersink) keep the fit; ball centres off the surface
// give the touched cone, probe radius 0 the plain fit.
TEST(ConeVariants, NormalsProbesAndUpdates) {
    giUnitVec3coDynArr outward, inward;
    const giPoint3coDynArr pts =
        testsupport::cone_points(60, 30.0, 4.0, 14.0, 270.0, 1e-4, 41, &outward);
    giPoint3coDynArr outside;
    for (int i = 0; i < outward.size(); ++i) {
        inward.append(-outward[i]);
        outside.append(pts[i] + 0.8 * outward[i]);
    }
    Cone plain, boss, sink, as_zero, from_out;
    ASSERT_EQ(fit(pts, plain), 1);
    ASSERT_EQ(fit(pts, boss, outward), 1);
    ASSERT_EQ(fit(pts, sink, inward), 1);
    expect_same(boss, plain, 1e-9, 1e-9);
    expect_same(sink, plain, 1e-9, 1e-9);
    ASSERT_EQ(fit_probed(pts, filled(pts.size(), 0.0), 0, pts, as_zero), 1);
    ASSERT_EQ(fit_probed(outside, filled(pts.size(), 0.8), 0, pts, from_out), 1);
    expect_same(as_zero, plain, 1e-9, 1e-9);
    expect_same(from_out, plain, 1e-3, 1e-3);
}

// The reference set of six points lies exactly on several cones: distinct
// valid records come back, at most one per direction.
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
    EXPECT_LE(found, axes.size());
    for (int i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].invalid(), 0);
        for (int j = 0; j < i; ++j)
            EXPECT_FALSE(results[i].coincident(results[j], 1e-6, giAngle(1, 1.0)));
    }
}

// Too few or non-finite points, normals or probe radii not one per point and
// non-finite guess points are refused with 0 and nothing written.
TEST(ConeRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr pts = testsupport::cone_points(20, 30.0, 2.0, 9.0, 360.0, 1e-3, 81);
    giPoint3coDynArr empty, five, nan = pts;
    for (int i = 0; i < 5; ++i) five.append(pts[i]);
    nan[4] = giPoint3(0, NAN, 0);
    const doublecoDynArr radii = filled(pts.size(), 1.0);
    Cone c;
    for (const giPoint3coDynArr* bad : {&empty, &five, &nan}) {
        EXPECT_EQ(fit(*bad, c), 0);
        EXPECT_EQ(fit_probed(*bad, radii, 0, pts, c), 0);
        tsFittedConecoDynArr results;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_multiple_cones(*bad, {giUnitVec3(0, 0, 1)}, 1.0,
                                                                  giAngle(1, 1.0), 1, results),
                  0);
    }
    EXPECT_EQ(fit(pts, c, {giUnitVec3(0, 0, 1)}), 0);
    EXPECT_EQ(fit_probed(pts, filled(3, 1.0), 0, pts, c), 0);
    EXPECT_EQ(fit_probed(pts, radii, 0, nan, c), 0);
    EXPECT_TRUE(!c.apex.is_set() && !c.axis.is_set() && c.half_angle == 0.0 && c.rms == 0.0);
}
