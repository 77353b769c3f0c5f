#include "metrofit/features/torus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "metrofit/frame/distribution_quality.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;

struct Torus {
    giPoint3 centre;
    giUnitVec3 axis;
    double major = -1.0, minor = -1.0, rms = -1.0;
};

// n points on the torus about the z axis through the origin (R, r), ring
// angles uniform in `ring` degrees centred on +x, tube angles uniform in
// [lo, hi] degrees (0 on the outer equator, 90 on top), moved along the
// surface normal by normal noise sigma; `extra` widens the tube.
giPoint3coDynArr torus_points(int n, double R, double r, double ring, double lo, double hi,
                              double sigma, std::uint64_t seed, double extra = 0.0) {
    testsupport::Rng rng(seed);
    giPoint3coDynArr pts;
    const double k = kPi / 180.0;
    for (int i = 0; i < n; ++i) {
        const double t = rng.uniform(-0.5 * ring * k, 0.5 * ring * k), f = rng.uniform(lo, hi) * k;
        const double s = r + extra + rng.normal(sigma), rho = R + s * std::cos(f);
        pts.append(giPoint3(rho * std::cos(t), rho * std::sin(t), s * std::sin(f)));
    }
    return pts;
}

int fit(const giPoint3coDynArr& pts, Torus& t) {
    return tsLeastSquareEvaluator::evaluate_torus(pts, t.centre, t.axis, t.major, t.minor, t.rms);
}
int fit_probed(const giPoint3coDynArr& pts, const doublecoDynArr& radii, int inside, Torus& t) {
    return tsLeastSquareEvaluator::evaluate_probed_torus(pts, radii, inside, t.centre, t.axis,
                                                         t.major, t.minor, t.rms);
}
int fit_guess(const giPoint3coDynArr& pts, Torus& t) {
    return tsLeastSquareEvaluator::evaluate_torus_with_guess(pts, t.centre, t.axis, t.major,
                                                             t.minor, t.rms);
}

doublecoDynArr filled(int n, double value) {
    doublecoDynArr out;
    for (int i = 0; i < n; ++i) out.append(value);
    return out;
}

// A refused call leaves the outputs as Torus{} set them.
bool untouched(const Torus& t) {
    return !t.centre.is_set() && !t.axis.is_set() && t.major == -1.0 && t.minor == -1.0 &&
           t.rms == -1.0;
}

Torus moved(const giXform3& T, double R, double r) {
    return {T * giPoint3(0, 0, 0), giUnitVec3(T * giVector3(0, 0, 1)), R, r, 0.0};
}

// Lengths within tol, the axes (either sense) within tol / L radians.
void expect_same(const Torus& got, const Torus& want, double tol, double L) {
    EXPECT_LT((got.centre - want.centre).length(), tol);
    EXPECT_LT(std::atan2(cross(got.axis, want.axis).length(), std::fabs(dot(got.axis, want.axis))),
              tol / L);
    EXPECT_NEAR(got.major, want.major, tol);
    EXPECT_NEAR(got.minor, want.minor, tol);
}

struct Coverage {
    double ring, lo, hi, ratio;  // degrees of ring and tube; R / r
};
const Coverage kCoverages[] = {
    {360, -180, 180, 20},
    {180, 0, 180, 3},
    {60, -180, 180, 2},  // as thick as long: any principal axis may be the closest
};

}  // namespace

// Points 1e3 from the origin. Exact: the sampled torus. Noisy: near it with
// the noise's RMS, bit for bit again, and moving with the points 1e5 away.
TEST(TorusFit, FindsTheLeastSquaresTorusInAnyPose) {
    const double r = 4.0;
    const giXform3 T = testsupport::random_motion(70.0, 1e3, 8);
    const giXform3 far = testsupport::random_motion(130.0, 1e5, 12);
    for (const double sigma : {0.0, 0.01}) {
        for (const Coverage& c : kCoverages) {
            SCOPED_TRACE(testing::Message()
                         << sigma << ": " << c.ring << " " << c.lo << " " << c.ratio);
            const double R = c.ratio * r;
            const auto pts =
                testsupport::transformed(T, torus_points(200, R, r, c.ring, c.lo, c.hi, sigma, 9));
            Torus t, again, m;
            ASSERT_EQ(fit(pts, t), 1);
            // The axis's largest component is positive.
            EXPECT_EQ(
                std::max({t.axis.x(), t.axis.y(), t.axis.z()}),
                std::max({std::fabs(t.axis.x()), std::fabs(t.axis.y()), std::fabs(t.axis.z())}));
            if (sigma == 0.0) {
                expect_same(t, moved(T, R, r), 1e-9 * 1e3, 1e3);  // 1e-9 of the scale
                EXPECT_LT(t.rms, 1e-9 * 1e3);
                continue;
            }
            expect_same(t, moved(T, R, r), 0.05 * r, R);
            EXPECT_LT(t.rms, 1.2 * sigma);
            ASSERT_EQ(fit(pts, again), 1);
            EXPECT_TRUE(again.centre == t.centre && again.axis == t.axis && again.rms == t.rms &&
                        again.major == t.major && again.minor == t.minor);
            ASSERT_EQ(fit(testsupport::transformed(far, pts), m), 1);
            expect_same(m, {far * t.centre, giUnitVec3(far * t.axis), t.major, t.minor, 0.0},
                        1e-9 * 1e5, 1e5);  // 1e-9 of the offset
            EXPECT_NEAR(m.rms, t.rms, 1e-9 * 1e5);
        }
    }
}

// Ball centres at r + p (outside) or r - p (inside) from the centre circle:
// the probed fit reports the touched tube.
TEST(TorusFit, ProbedFitCompensatesTheProbeRadius) {
    const double R = 12.0, r = 4.0, p = 1.5;
    const giXform3 T = testsupport::random_motion(25.0, 1e3, 4);
    for (const int inside : {0, 1}) {
        SCOPED_TRACE(inside);
        const double extra = inside ? -p : p;
        const auto pts = testsupport::transformed(
            T, torus_points(200, R, r, 180, -180, 180, 0.01, 6 + inside, extra));
        Torus probed, plain;
        ASSERT_EQ(fit_probed(pts, filled(pts.size(), p), inside, probed), 1);
        ASSERT_EQ(fit(pts, plain), 1);
        plain.minor -= extra;
        expect_same(probed, plain, 1e-9 * 1e3, 1e3);
        EXPECT_NEAR(probed.rms, plain.rms, 1e-9 * 1e3);
        EXPECT_NEAR(probed.minor, r, 0.01);  // sigma 0.01, 200 points
    }
}

TEST(TorusFit, RefusesBadAndDegenerateInput) {
    const auto good = torus_points(40, 10.0, 3.0, 360, -180, 180, 0.0, 15);
    giPoint3coDynArr nan_pt = good, circle, two_circles;
    nan_pt[7] = giPoint3(1.0, NAN, 2.0);
    for (int i = 0; i < 40; ++i) {
        const double c = 10 * std::cos(0.4 * i), s = 10 * std::sin(0.4 * i);
        circle.append(giPoint3(c, s, 0.0));  // the equator of many tori
        two_circles.append(giPoint3(c, s, i % 2 ? 2.0 : -2.0));
    }
    const struct {
        const char* name;
        giPoint3coDynArr pts;
    } cases[] = {
        {"three points", torus_points(3, 10.0, 3.0, 360, -180, 180, 0.0, 18)},
        {"NaN", nan_pt},
        {"one circle", circle},
        {"two parallel circles", two_circles},
        {"cylinder (no minimum)", testsupport::cylinder_points(60, 5, 20, 360, 1e-3, 17)},
        {"sphere (R = 0)", testsupport::sphere_points(60, giPoint3(1, 2, 3), 5, 180, 0, 23)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Torus t;
        EXPECT_EQ(fit(c.pts, t), 0);
        EXPECT_EQ(fit_probed(c.pts, filled(c.pts.size(), 0.0), 1, t), 0);
        EXPECT_TRUE(untouched(t));
    }
    // Every torus with (10 - R)^2 + 2^2 = r^2 holds both circles exactly: a
    // guess on that family is refused although it fits; so is no guess.
    Torus t, unset, g = {giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 8.0, std::sqrt(8.0), -1.0};
    EXPECT_EQ(fit_probed(good, filled(good.size() - 1, 1.0), 0, t), 0);
    EXPECT_EQ(fit_guess(good, unset), 0);
    EXPECT_TRUE(untouched(t) && untouched(unset));
    EXPECT_EQ(fit_guess(two_circles, g), 0);
    EXPECT_EQ(g.rms, -1.0);
}

TEST(TorusDistributionQuality, WholeTorusNearOnePatchesLower) {
    const auto quality = [](const giPoint3coDynArr& pts, const giVector3& axis) {
        return tsLeastSquareDistributionQuality::distribution_quality_torus(pts, giPoint3(0, 0, 0),
                                                                            axis, 12.0, 3.0);
    };
    const struct {
        double ring, lo, hi, low, high;
    } cases[] = {{360, -180, 180, 0.85, 1.05},  // whole torus, R = 4 r
                 {20, -40, 40, 0.0, 0.01}};     // a small patch
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ring);
        const double q =
            quality(torus_points(2000, 12.0, 3.0, c.ring, c.lo, c.hi, 0.0, 21), giVector3(0, 0, 2));
        EXPECT_GT(q, c.low);
        EXPECT_LT(q, c.high);
    }
}
