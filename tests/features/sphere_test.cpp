#include "metrofit/features/sphere.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <ostream>

#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::LongVector;

// Independent least-squares sphere (centre, radius) of the points, probe
// offsets q_i (|P - C| + q_i - r) included, from a start at the truth.
LongVector reference_sphere(const giPoint3coDynArr& pts, const doublecoDynArr& q, const giPoint3& c,
                            double r) {
    const auto residuals = [&](const LongVector& p, LongVector& res) {
        for (int i = 0; i < pts.size(); ++i) {
            const long double dx = pts[i].x() - p[0], dy = pts[i].y() - p[1],
                              dz = pts[i].z() - p[2];
            res[i] = std::sqrt(dx * dx + dy * dy + dz * dz) + (i < q.size() ? q[i] : 0) - p[3];
        }
    };
    return testsupport::gauss_newton(residuals, {c.x(), c.y(), c.z(), r}, pts.size());
}

// Every reference sphere: centre, radius and rms within the stated bounds.
TEST(SphereReference, MatchesEveryReferenceFit) {
    const auto fits = testsupport::reference_fits("sphere");
    ASSERT_EQ(fits.size(), 7u);
    for (const auto& f : fits) {
        SCOPED_TRACE(f.id);
        const giPoint3coDynArr pts = testsupport::reference_points3(f.file);
        ASSERT_EQ(pts.size(), f.n);
        giPoint3 c;
        double r = 0, error = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(pts, c, r, error), 1);
        EXPECT_LE(distance(c, giPoint3(f.params[0], f.params[1], f.params[2])), f.tol_position);
        EXPECT_NEAR(r, f.params[3], f.tol_size);
        EXPECT_NEAR(error, f.rms, f.tol_rms);
    }
}

struct SphereCase {
    const char* name;
    double radius, cap_degrees, sigma;
    int n;
};
void PrintTo(const SphereCase& c, std::ostream* os) { *os << c.name; }

class SphereKnownTruth : public ::testing::TestWithParam<SphereCase> {};

// Noisy samples moved far from the origin: the fit is the least-squares
// optimum (to 1e-9 of the radius), close to the truth, with RMS near sigma;
// moved by 1e3 or 1e5 the centre moves with the points and the radius stays.
TEST_P(SphereKnownTruth, RecoversLeastSquaresSphereAnywhere) {
    const SphereCase& s = GetParam();
    const giPoint3 truth(3, -7, 11);
    const giPoint3coDynArr base =
        testsupport::sphere_points(s.n, truth, s.radius, s.cap_degrees, s.sigma, 17);
    giPoint3 c0;
    double r0 = 0, e0 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(base, c0, r0, e0), 1);
    const LongVector ref = reference_sphere(base, doublecoDynArr(), truth, s.radius);
    EXPECT_LE(distance(c0, giPoint3(ref[0], ref[1], ref[2])), 1e-9 * s.radius);
    EXPECT_NEAR(r0, static_cast<double>(ref[3]), 1e-9 * s.radius);
    EXPECT_LE(distance(c0, truth), 50 * s.sigma);  // a weak bound even for the small cap
    EXPECT_NEAR(e0, s.sigma, 0.3 * s.sigma);       // n >= 200: rms within 30% of sigma

    for (const double offset : {1e3, 1e5}) {
        SCOPED_TRACE(offset);
        const giXform3 motion = testsupport::random_motion(37, offset, 5);
        giPoint3 c;
        double r = 0, e = 0;
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(testsupport::transformed(motion, base), c,
                                                          r, e),
                  1);
        // Coordinates of size offset carry rounding of 1e-16 offset per point.
        const double tol = 1e-9 * s.radius + 1e-11 * offset;
        EXPECT_LE(distance(c, motion * c0), tol);
        EXPECT_NEAR(r, r0, tol);
        EXPECT_NEAR(e, e0, tol);
    }
}

INSTANTIATE_TEST_SUITE_P(Sphere, SphereKnownTruth,
                         ::testing::Values(SphereCase{"whole", 25, 180, 1e-3, 300},
                                           SphereCase{"cap60", 40, 60, 1e-3, 300},
                                           SphereCase{"cap15", 8, 15, 1e-5, 200}));

// Probed centres at distance R + rho from the centre: touched from outside
// the radius is R; the same centres read as touching a hollow sphere from
// inside give R + 2 rho. Varying radii with noise reach the optimum.
TEST(SphereProbed, ReportsTheTouchedSurface) {
    const giPoint3 truth(1, 2, 3);
    const double radius = 20, rho = 1.5;
    const giPoint3coDynArr centres =
        testsupport::sphere_points(200, truth, radius + rho, 120, 0.0, 3);
    doublecoDynArr radii;
    for (int i = 0; i < centres.size(); ++i) radii.append(rho);
    giPoint3 c;
    double r = 0, e = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_sphere(centres, radii, 0, c, r, e), 1);
    EXPECT_NEAR(r, radius, 1e-10);
    EXPECT_LE(distance(c, truth), 1e-10);
    EXPECT_LT(e, 1e-10);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_sphere(centres, radii, 1, c, r, e), 1);
    EXPECT_NEAR(r, radius + 2 * rho, 1e-10);

    // Each ball of its own radius, noisy, touching from outside.
    testsupport::Rng rng(8);
    giPoint3coDynArr noisy;
    doublecoDynArr varying, offsets;
    for (const giPoint3& p : testsupport::sphere_points(300, truth, radius, 90, 2e-3, 4)) {
        const double b = rng.uniform(0.5, 3.0);
        noisy.append(p + (p - truth) * (b / distance(p, truth)));
        varying.append(b);
        offsets.append(-b);
    }
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_sphere(noisy, varying, 0, c, r, e), 1);
    const LongVector ref = reference_sphere(noisy, offsets, truth, radius);
    EXPECT_LE(distance(c, giPoint3(ref[0], ref[1], ref[2])), 1e-9 * radius);
    EXPECT_NEAR(r, static_cast<double>(ref[3]), 1e-9 * radius);
}

// Zero probe radii make the probed fit the plain one, bit for bit, on either
// side; and every fit repeats itself bit for bit.
TEST(SphereProbed, ZeroRadiiAndRepeatedCallsGiveIdenticalResults) {
    const giPoint3coDynArr pts = testsupport::sphere_points(150, giPoint3(5, 5, 5), 9, 40, 1e-3, 9);
    doublecoDynArr zeros;
    for (int i = 0; i < pts.size(); ++i) zeros.append(0.0);
    giPoint3 c, c1, c2;
    double r = 0, e = 0, r1 = 0, e1 = 0, r2 = 0, e2 = 0;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(pts, c, r, e), 1);
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(pts, c1, r1, e1), 1);
    EXPECT_TRUE(c == c1 && r == r1 && e == e1);
    for (const int inside : {0, 1}) {
        ASSERT_EQ(tsLeastSquareEvaluator::evaluate_probed_sphere(pts, zeros, inside, c2, r2, e2),
                  1);
        EXPECT_TRUE(c2 == c && r2 == r && e2 == e) << "inside " << inside;
    }
}

// All points equal: range 0, so every start is the point with radius 0.
TEST(SphereDegenerate, EqualPointsGiveThePointWithRadiusZero) {
    giPoint3coDynArr pts;
    for (int i = 0; i < 6; ++i) pts.append(giPoint3(4, -2, 7));
    giPoint3 c;
    double r = -1, e = -1;
    ASSERT_EQ(tsLeastSquareEvaluator::evaluate_sphere(pts, c, r, e), 1);
    EXPECT_EQ(c, giPoint3(4, -2, 7));
    EXPECT_EQ(r, 0.0);
    EXPECT_EQ(e, 0.0);
}

// Refusals return 0 promptly and leave the sentinels in the outputs.
TEST(SphereRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr good = testsupport::sphere_points(10, giPoint3(0, 0, 0), 5, 180, 0, 1);
    doublecoDynArr radii;
    for (int i = 0; i < 10; ++i) radii.append(0.5);
    giPoint3coDynArr three = good, nan_pt = good, inf_pt = good;
    three.shrink(3, 0);
    nan_pt[4] = giPoint3(NAN, 0, 0);
    inf_pt[2] = giPoint3(0, INFINITY, 0);
    doublecoDynArr fewer = radii, more = radii, nan_r = radii;
    fewer.shrink(9, 0);
    more.append(0.5);
    nan_r[3] = NAN;
    const giPoint3coDynArr none;
    const doublecoDynArr no_radii;
    const struct {
        const char* what;
        const giPoint3coDynArr& pts;
        const doublecoDynArr& radii;
        bool bad_points;  // the plain fit refuses them too
    } cases[] = {{"empty", none, no_radii, true},     {"three points", three, fewer, true},
                 {"NaN point", nan_pt, radii, true},  {"infinite point", inf_pt, radii, true},
                 {"fewer radii", good, fewer, false}, {"more radii", good, more, false},
                 {"NaN radius", good, nan_r, false}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        const giPoint3 sentinel(-1, -2, -3);
        giPoint3 c = sentinel;
        double r = -4, e = -5;
        EXPECT_EQ(tsLeastSquareEvaluator::evaluate_probed_sphere(k.pts, k.radii, 0, c, r, e), 0);
        if (k.bad_points) {
            EXPECT_EQ(tsLeastSquareEvaluator::evaluate_sphere(k.pts, c, r, e), 0);
        }
        EXPECT_TRUE(c == sentinel && r == -4 && e == -5);
    }
}

// Four points on a known sphere: the algebraic fit is exact.
TEST(SphereDirectFit, FourPointsOnASphereAreFittedExactly) {
    const giPoint3 c(1, -2, 0.5);
    giPoint3coDynArr pts;
    for (const giVector3& v :
         {giVector3(3, 0, 0), giVector3(0, 3, 0), giVector3(0, 0, -3), giVector3(-1.8, -2.4, 0)})
        pts.append(c + v);
    const tsSphereFit fit(pts);
    ASSERT_EQ(fit.status(), 5);
    EXPECT_LE(distance(fit.centre(), c), 1e-13);
    EXPECT_NEAR(fit.radius(), 3.0, 1e-13);
    EXPECT_LT(fit.chi(), 1e-13);
    giPoint3 out;
    double r = 0;
    EXPECT_EQ(tsSphereFit::fit(pts, out, r), 1);
    EXPECT_EQ(out, fit.centre());

    // Too few or non-finite points: not fitted, outputs untouched.
    giPoint3coDynArr bad = pts;
    bad.shrink(3, 0);
    EXPECT_EQ(tsSphereFit(bad).status(), 1);
    bad = pts;
    bad[1] = giPoint3(0, NAN, 0);
    EXPECT_EQ(tsSphereFit(bad).status(), 2);
    out = giPoint3(9, 9, 9);
    EXPECT_EQ(tsSphereFit::fit(bad, out, r), 0);
    EXPECT_EQ(out, giPoint3(9, 9, 9));
}

// The pivot is the LAST row below the diagonal whose entry beats it, and a
// pivot of 1e-20 or less leaves its column alone: here row 2 (1e-25) is
// taken over row 1 (1), so column 0 is never eliminated. Worked by hand,
// every operation exact.
TEST(SphereDirectFit, RowReductionPivotsOnTheLastLargerRow) {
    double m[9] = {0, 1, 1, 1, 0, 2, 1e-25, 1, 3};
    tsSphereFit::matrix_rowred(m, 3, 3);
    const double expected[9] = {1e-25, 0, 0, 0, 1, 0, 1, 0, 1};
    for (int k = 0; k < 9; ++k) EXPECT_EQ(m[k], expected[k]) << "entry " << k;

    // A regular 4 x 5 system ends with its solution in the last column.
    double a[20] = {2, 1, 0, 0, 3, 1, 3, 1, 0, 5, 0, 1, 4, 1, 6, 0, 0, 1, 5, 6};
    tsSphereFit::matrix_rowred(a, 4, 5);
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(a[5 * k + 4], 1.0, 1e-15);
}

// Gradients against central differences, for points anywhere including the
// centre itself, which gets (0, 0, 0, -1) and distance -r; a negative radius
// is kept as it is.
TEST(SphereModel, GradientsMatchDifferencesAndCanonicalFormIsKept) {
    giPoint3coDynArr pts = testsupport::sphere_points(20, giPoint3(1, 2, 3), 4, 180, 0.5, 2);
    doublecoDynArr radii;
    for (int i = 0; i < pts.size(); ++i) radii.append(0.1 * i);
    tsLeastSquareSphere sphere(pts);
    tsLeastSquareProbedSphere outside(pts, radii, 0), inside(pts, radii, 1);
    for (const mlVector& p :
         {mlVector{1, 2, 3, 4}, mlVector{0.5, 2.5, 2, 6}, mlVector{1, 2, 3, -4}}) {
        expect_gradient_matches(sphere, p, 1e-6);
        expect_gradient_matches(outside, p, 1e-6);
        expect_gradient_matches(inside, p, 1e-6);
    }
    mlVector negative = {1, 2, 3, -4};
    sphere.normalize_parameters(negative);
    EXPECT_EQ(negative[3], -4.0);

    pts.append(giPoint3(7, 8, 9));
    tsLeastSquareSphere at_centre(pts);
    at_centre.set_parameters({7, 8, 9, 2.5});
    double d = 0;
    mlVector g(mlVectorZero, 4);
    at_centre.get_distance_and_gradient(d, g, pts.size() - 1);
    EXPECT_EQ(d, -2.5);
    EXPECT_TRUE(g[0] == 0 && g[1] == 0 && g[2] == 0 && g[3] == -1);
    // evaluate_radius: the RMS distance from a given centre.
    EXPECT_NEAR(tsLeastSquareSphere(testsupport::sphere_points(50, giPoint3(1, 1, 1), 6, 180, 0, 3))
                    .evaluate_radius(giPoint3(1, 1, 1)),
                6.0, 1e-13);
}

}  // namespace
