#include "metrofit/features/sphere.h"

#include <gtest/gtest.h>

#include <cmath>
#include <ostream>

#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

struct Sphere {
    giPoint3 c;
    double r = 0, e = 0;
    bool operator==(const Sphere& o) const { return c == o.c && r == o.r && e == o.e; }
};

int fit(const giPoint3coDynArr& pts, Sphere& s) {
    return tsLeastSquareEvaluator::evaluate_sphere(pts, s.c, s.r, s.e);
}
int fit_probed(const giPoint3coDynArr& pts, const doublecoDynArr& radii, int inside, Sphere& s) {
    return tsLeastSquareEvaluator::evaluate_probed_sphere(pts, radii, inside, s.c, s.r, s.e);
}

doublecoDynArr filled(int n, double value) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(value);
    return out;
}

// Every reference sphere: centre, radius and rms within the stated bounds.
TEST(SphereReference, MatchesEveryReferenceFit) {
    const auto fits = testsupport::reference_fits("sphere");
    ASSERT_EQ(fits.size(), 7u);
    for (const auto& f : fits) {
        SCOPED_TRACE(f.id);
        Sphere s;
        ASSERT_EQ(fit(testsupport::reference_points3(f.file), s), 1);
        EXPECT_LE(distance(s.c, giPoint3(f.params[0], f.params[1], f.params[2])), f.tol_position);
        EXPECT_NEAR(s.r, f.params[3], f.tol_size);
        EXPECT_NEAR(s.e, f.rms, f.tol_rms);
    }
}

struct SphereCase {
    const char* name;
    double radius, cap_degrees, sigma;
    int n;
};

// Noisy samples: the fit is close to the truth with RMS near sigma and
// repeats itself bit for bit; moved by 1e5 the centre moves with the
// points and the radius stays.
TEST(SphereKnownTruth, RecoversTheSphereAnywhere) {
    const SphereCase cases[] = {SphereCase{"whole", 25, 180, 1e-3, 300},
                                SphereCase{"cap15", 8, 15, 1e-5, 200}};
    for (const SphereCase& k : cases) {
        SCOPED_TRACE(k.name);
        const giPoint3 truth(3, -7, 11);
        const giPoint3coDynArr base =
            testsupport::sphere_points(k.n, truth, k.radius, k.cap_degrees, k.sigma, 17);
        Sphere s, again;
        ASSERT_EQ(fit(base, s), 1);
        ASSERT_EQ(fit(base, again), 1);
        EXPECT_TRUE(again == s);
        EXPECT_LE(distance(s.c, truth), 50 * k.sigma);  // a weak bound even for the small cap
        EXPECT_NEAR(s.e, k.sigma, 0.3 * k.sigma);       // n >= 200: rms within 30% of sigma
        const giXform3 motion = testsupport::random_motion(37, 1e5, 5);
        Sphere m;
        ASSERT_EQ(fit(testsupport::transformed(motion, base), m), 1);
        // Coordinates of size 1e5 carry rounding of 1e-11 per point.
        const double tol = 1e-9 * k.radius + 1e-11 * 1e5;
        EXPECT_LE(distance(m.c, motion * s.c), tol);
        EXPECT_NEAR(m.r, s.r, tol);
        EXPECT_NEAR(m.e, s.e, tol);
    }
}

// Centres R + rho from the centre: R touched from outside, R + 2 rho from
// inside.
TEST(SphereProbed, ReportsTheTouchedSurface) {
    const giPoint3 truth(1, 2, 3);
    const double radius = 20, rho = 1.5;
    const giPoint3coDynArr centres =
        testsupport::sphere_points(200, truth, radius + rho, 120, 0.0, 3);
    Sphere s;
    ASSERT_EQ(fit_probed(centres, filled(200, rho), 0, s), 1);
    EXPECT_NEAR(s.r, radius, 1e-10);
    EXPECT_LE(distance(s.c, truth), 1e-10);
    EXPECT_LT(s.e, 1e-10);
    ASSERT_EQ(fit_probed(centres, filled(200, rho), 1, s), 1);
    EXPECT_NEAR(s.r, radius + 2 * rho, 1e-10);
}

// Refusals return 0 and leave the sentinels in the outputs. All points equal
// are no refusal: range 0, so every start is the point with radius 0.
TEST(SphereRefusal, RefusesBadInputAndWritesNothing) {
    const giPoint3coDynArr good = testsupport::sphere_points(10, giPoint3(0, 0, 0), 5, 180, 0, 1);
    const doublecoDynArr radii = filled(10, 0.5);
    giPoint3coDynArr three = good, nan_pt = good;
    three.shrink(3, 0);
    nan_pt[4] = giPoint3(NAN, 0, 0);
    doublecoDynArr fewer = radii, nan_r = radii;
    fewer.shrink(9, 0);
    nan_r[3] = NAN;
    const struct {
        const char* what;
        giPoint3coDynArr pts;
        doublecoDynArr radii;
        bool bad_points;  // the plain fit refuses them too
    } cases[] = {{"three points", three, filled(3, 0.5), true},
                 {"NaN point", nan_pt, radii, true},
                 {"fewer radii", good, fewer, false},
                 {"NaN radius", good, nan_r, false}};
    const Sphere sentinel{giPoint3(-1, -2, -3), -4, -5};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        Sphere s = sentinel;
        EXPECT_EQ(fit_probed(k.pts, k.radii, 0, s), 0);
        EXPECT_EQ(k.bad_points ? fit(k.pts, s) : 0, 0);
        EXPECT_TRUE(s == sentinel);
    }

    giPoint3coDynArr equal;
    for (int i = 0; i < 6; ++i) equal.append(giPoint3(4, -2, 7));
    Sphere s{giPoint3(), -1, -1};
    ASSERT_EQ(fit(equal, s), 1);
    EXPECT_TRUE(s == (Sphere{giPoint3(4, -2, 7), 0.0, 0.0}));
}

// Four points on a known sphere: the algebraic fit is exact. Non-finite
// points: not fitted, outputs untouched.
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
    giPoint3coDynArr bad = pts;
    bad[1] = giPoint3(0, NAN, 0);
    giPoint3 out(9, 9, 9);
    double r = 0;
    EXPECT_EQ(tsSphereFit(bad).status(), 2);
    EXPECT_EQ(tsSphereFit::fit(bad, out, r), 0);
    EXPECT_EQ(out, giPoint3(9, 9, 9));
}

}  // namespace
