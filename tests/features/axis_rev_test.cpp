#include "metrofit/features/axis_rev.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>

#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;

struct Surface {
    giPoint3coDynArr points;
    giUnitVec3coDynArr normals;
};

// A point of a meridian in the (rho, z) half plane with its unit normal, and
// a surface of revolution as its meridian over [t0, t1] and its largest extent.
struct Meridian {
    double rho, z, n_rho, n_z;
};
struct Shape {
    Meridian (*at)(double t);
    double t0, t1, size;
};

Meridian cylinder_at(double z) { return {8.0, z, 1.0, 0.0}; }
Meridian torus_at(double t) {  // centre-circle radius 20, tube 5
    return {20.0 + 5.0 * std::cos(t), 5.0 * std::sin(t), std::cos(t), std::sin(t)};
}
Meridian profile_at(double z) {  // r(z) = 10 + 2 sin(z / 5)
    const double slope = 0.4 * std::cos(z / 5.0), len = std::sqrt(1.0 + slope * slope);
    return {10.0 + 2.0 * std::sin(z / 5.0), z, 1.0 / len, -slope / len};
}
const Shape kCylinder{cylinder_at, 0.0, 30.0, 30.0};
const Shape kTorus{torus_at, -70.0 * kPi / 180.0, 110.0 * kPi / 180.0, 50.0};  // outer side
const Shape kProfile{profile_at, 0.0, 40.0, 40.0};

// n points of a surface swept about the z axis (parameters uniform in
// [t0, t1], angles in the sector centred on +x) with unit normals, moved
// across their meridian planes by noise sigma with normals tilted by
// sigma / 50 (the normal lines miss the axis by about sigma), then by pose.
Surface revolve(const Shape& shape, int n, double sector_degrees, double sigma, std::uint64_t seed,
                const giXform3& pose = giXform3::identity()) {
    testsupport::Rng rng(seed), noise(seed + 1);
    const double half = 0.5 * sector_degrees * kPi / 180.0;
    Surface s;
    for (int i = 0; i < n; ++i) {
        const double t = rng.uniform(shape.t0, shape.t1), phi = rng.uniform(-half, half);
        const Meridian m = shape.at(t);
        const double c = std::cos(phi), sn = std::sin(phi);
        const giUnitVec3 across(-m.rho * sn, m.rho * c, 0.0);
        const giPoint3 p = giPoint3(m.rho * c, m.rho * sn, m.z) + noise.normal(sigma) * across;
        const giUnitVec3 normal(m.n_rho * c, m.n_rho * sn, m.n_z);
        s.points.append(pose * p);
        s.normals.append(pose * giUnitVec3(normal + noise.normal(0.02 * sigma) * across));
    }
    return s;
}

bool same(const mlVector& a, const mlVector& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

struct Axis {
    giPoint3 point;
    giUnitVec3 axis;
    double error = -1.0;
    bool operator==(const Axis& o) const {
        return point == o.point && axis == o.axis && error == o.error;
    }
};

int fit(const Surface& s, Axis& a) {
    return tsLeastSquareEvaluator::evaluate_axis_rev(s.points, s.normals, a.point, a.axis, a.error);
}

double axis_angle(const giVector3& a, const giVector3& b) {  // either sense
    return std::atan2(cross(a, b).length(), std::fabs(dot(a, b)));
}

double off_line(const giPoint3& q, const giPoint3& p, const giUnitVec3& u) {
    return cross(q - p, u).length();
}

// The axis that minimises the summed squared distances of the normal lines,
// by the test's own Gauss-Newton near `near` (points within about 100 of it):
// the axis point moved across the axis (2) and the axis turned (2).
Axis refine(const Surface& s, const Axis& near) {
    const giUnitVec3 u0 = near.axis, e1 = u0.any_normal(), e2(cross(u0, e1));
    const auto at = [&](const testsupport::LongVector& p, long double(&c)[3], long double(&u)[3]) {
        long double len = 0;
        for (int k = 0; k < 3; ++k) {
            c[k] = near.point[k] + p[0] * e1[k] + p[1] * e2[k];
            u[k] = u0[k] + p[2] * e1[k] + p[3] * e2[k];
            len += u[k] * u[k];
        }
        for (long double& x : u) x /= std::sqrt(len);
    };
    const auto residuals = [&](const testsupport::LongVector& p, testsupport::LongVector& r) {
        long double c[3], u[3];
        at(p, c, u);
        for (int i = 0; i < s.points.size(); ++i) {
            const giUnitVec3& n = s.normals[i];
            const long double w[3] = {n[1] * u[2] - n[2] * u[1], n[2] * u[0] - n[0] * u[2],
                                      n[0] * u[1] - n[1] * u[0]};
            long double d = 0, len = 0;
            for (int k = 0; k < 3; ++k) {
                d += (s.points[i][k] - c[k]) * w[k];
                len += w[k] * w[k];
            }
            r[i] = d / std::sqrt(len);
        }
    };
    long double c[3], u[3];
    at(testsupport::gauss_newton(residuals, {0, 0, 0, 0}, s.points.size()), c, u);
    return {giPoint3(c[0], c[1], c[2]), giUnitVec3(u[0], u[1], u[2])};
}

}  // namespace

// Gradients near, tilted from and far from the fit; the canonical form; a
// normal along the axis (a flat end face) counts nothing up to 1e-7 rad off.
TEST(AxisRevModel, GradientCanonicalFormAndFlatFaces) {
    const Surface s = revolve(kProfile, 40, 300.0, 0.3, 3);
    tsLeastSquareAxisRev model(s.points, s.normals);
    for (const mlVector& p :
         {mlVector{0.1, -0.2, 0.0, 0.01, 0.02, 1.0}, mlVector{-4.0, 6.0, 9.0, 1.0, 0.7, 0.4}})
        testsupport::expect_gradient_matches(model, p, 1e-6);
    mlVector p = {1.0, 2.0, 3.0, 0.0, 0.0, -4.0}, q = {1.0, 2.0, 3.0, 0.0, 0.0, 0.0};
    model.normalize_parameters(p);
    model.normalize_parameters(q);
    EXPECT_TRUE(same(p, {1.0, 2.0, 0.0, 0.0, 0.0, -1.0}));
    EXPECT_TRUE(same(q, {0.0, 2.0, 3.0, 1.0, 0.0, 0.0}));

    const giUnitVec3 a(0.3, -0.4, 0.5), e = a.any_normal();
    const giPoint3coDynArr pts = {giPoint3(5, 1, 2), giPoint3(5, 1, 2)};
    const giUnitVec3coDynArr normals = {giUnitVec3(a + 0.9e-7 * e), giUnitVec3(a + 1.1e-7 * e)};
    tsLeastSquareAxisRev flat(pts, normals);
    flat.set_parameters({0.0, 0.0, 0.0, -a.x(), -a.y(), -a.z()});
    for (int i = 0; i < 2; ++i) {
        double d = 7.0, d_only = 7.0;
        mlVector g = {7, 7, 7, 7, 7, 7};
        flat.get_distance_and_gradient(d, g, i);
        flat.get_distance(d_only, i);
        EXPECT_EQ(d, d_only);
        EXPECT_EQ(same(g, {0, 0, 0, 0, 0, 0}) && d == 0.0, i == 0) << i;
    }
}

struct SearchCase {
    const char* name;
    const Shape* shape;
    double sector;
    double sigma;      // miss of the normal lines; the search stops once sigma^2 <= 0.01
    bool every_start;  // every guess direction alone reaches the axis
};

class AxisRevSearch : public ::testing::TestWithParam<SearchCase> {};

// Surfaces of revolution 1e3 from the origin: exact data give the axis to
// rounding (on a cylinder from every guess alone). The search stops after the first guess with mean
// squared distance <= 0.01 (an RMS of 0.05 stops it, 0.2 does not); the entry point reports the
// RMS.
TEST_P(AxisRevSearch, StopsAtTheFirstGoodStartAndFindsTheAxis) {
    const SearchCase& k = GetParam();
    const giXform3 pose = testsupport::random_motion(110.0, 1e3, 11);
    const Surface s = revolve(*k.shape, 100, k.sector, k.sigma, 11, pose);
    const giUnitVec3 truth = pose * giUnitVec3(giZAxis);

    int stop = 7;  // where the search must stop (7: nowhere)
    Axis at_stop;
    for (int j = 6; j >= 0; --j) {
        tsLeastSquareAxisRev alone(s.points, s.normals);
        Axis a{giPoint3(), tsLeastSquareDistance3::guess_direction(j)};
        ASSERT_EQ(alone.evaluate_with_guess(a.point, a.axis, a.error), 1);
        EXPECT_TRUE(!k.every_start || axis_angle(a.axis, truth) < 1e-9) << j;
        if (a.error <= 0.01) stop = j, at_stop = a;
    }
    ASSERT_EQ(stop == 7, k.sigma * k.sigma > 0.01) << stop;

    tsLeastSquareAxisRev model(s.points, s.normals);
    Axis r, entry;
    ASSERT_EQ(model.evaluate(r.point, r.axis, r.error), 1);
    EXPECT_TRUE(stop == 7 || r == at_stop);
    ASSERT_EQ(fit(s, entry), 1);
    EXPECT_TRUE(entry.point == r.point && entry.axis == r.axis);
    EXPECT_EQ(entry.error, std::sqrt(r.error));
    if (k.sigma > 0.0) {
        EXPECT_GT(entry.error, 0.5 * k.sigma);  // the misses are real
        return;
    }
    EXPECT_LT(entry.error, 1e-9 * k.shape->size);
    EXPECT_LT(axis_angle(entry.axis, truth), 1e-9);
    for (const double z : {0.0, k.shape->size})
        EXPECT_LT(off_line(pose * giPoint3(0, 0, z), entry.point, entry.axis),
                  1e-9 * k.shape->size);
}

INSTANTIATE_TEST_SUITE_P(
    Surfaces, AxisRevSearch,
    ::testing::Values(SearchCase{"cylinder", &kCylinder, 360.0, 0.0, true},
                      SearchCase{"torus", &kTorus, 200.0, 0.0, false},
                      SearchCase{"profile_sigma_0_05", &kProfile, 360.0, 0.05, false},
                      SearchCase{"profile_sigma_0_2", &kProfile, 360.0, 0.2, false}),
    [](const ::testing::TestParamInfo<SearchCase>& info) { return info.param.name; });

// Noisy normal lines: the fit is the least-squares axis, found equally in
// every pose at offsets up to 1e5, bit-identical on a repeated call.
TEST(AxisRevNoisy, ReachesTheLeastSquaresAxisAtAnyOffset) {
    const Surface base = revolve(kProfile, 200, 240.0, 0.02, 7);
    Axis at_origin;
    ASSERT_EQ(fit(base, at_origin), 1);
    const Axis best = refine(base, at_origin);
    EXPECT_GT(at_origin.error, 0.01);  // the normal lines do miss the axis
    for (const double offset : {0.0, 1e3, 1e5}) {
        SCOPED_TRACE(offset);
        const giXform3 pose = testsupport::random_motion(75.0, offset, 9);
        const Surface s = revolve(kProfile, 200, 240.0, 0.02, 7, pose);
        Axis r, again;
        ASSERT_EQ(fit(s, r), 1);
        ASSERT_EQ(fit(s, again), 1);
        EXPECT_TRUE(r == again);
        const giXform3 back = pose.inverse();  // to the frame of the unmoved points
        EXPECT_LT(axis_angle(back * r.axis, best.axis), 1e-9);
        EXPECT_LT(off_line(best.point, back * r.point, back * r.axis), 1e-9 * 40.0);
        EXPECT_NEAR(r.error, at_origin.error, 1e-9 * at_origin.error);
    }
}

// An unset point argument means the centroid, for both operations and the
// entry point; a given axis is one solver run from it.
TEST(AxisRevStart, UnsetPointMeansTheCentroid) {
    const Surface s = revolve(kTorus, 60, 150.0, 0.05, 13, testsupport::random_motion(33, 50, 15));
    tsLeastSquareAxisRev model(s.points, s.normals);
    const giPoint3 c = model.centroid();
    const giUnitVec3 guess(0.2, 0.9, -0.3);
    for (const giPoint3& unset : {giPoint3(), giPoint3(1, 2, DBL_MAX)}) {
        Axis a{unset, guess}, b{c, guess}, e{unset, giUnitVec3()}, f{c, giUnitVec3()}, g{a};
        const bool ok = model.evaluate_with_guess(a.point, a.axis, a.error) &&
                        model.evaluate_with_guess(b.point, b.axis, b.error) &&
                        model.evaluate(e.point, e.axis, e.error) &&
                        model.evaluate(f.point, f.axis, f.error) && fit(s, g);
        ASSERT_TRUE(ok);
        EXPECT_TRUE(a == b && e == f);
        EXPECT_TRUE(g.point == a.point && g.axis == a.axis && g.error == std::sqrt(a.error));
    }
}

// Bad input is refused with 0 and the outputs keep what they held, bit for
// bit; six points are enough.
TEST(AxisRevEdges, RefusesBadInput) {
    const Surface good = revolve(kCylinder, 6, 360.0, 0.0, 21);
    const struct {
        const char* name;
        std::function<void(Surface&, Axis&)> spoil;
    } cases[] = {
        {"five points", [](Surface& s, Axis&) { s.points.shrink(5, 0), s.normals.shrink(5, 0); }},
        {"one normal less", [](Surface& s, Axis&) { s.normals.shrink(5, 0); }},
        {"NaN point", [](Surface& s, Axis&) { s.points[3] = giPoint3(1, NAN, 2); }},
        {"NaN normal", [](Surface& s, Axis&) { s.normals[2] = giUnitVec3(NAN, 0, 1); }},
        {"NaN start point", [](Surface&, Axis& a) { a.point = giPoint3(NAN, 0, 0); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Surface s = good;
        Axis sentinel{giPoint3(1, 2, 3), giUnitVec3(), 42.0};
        c.spoil(s, sentinel);
        Axis r = sentinel;
        EXPECT_EQ(fit(s, r), 0);
        EXPECT_EQ(std::memcmp(&r.point, &sentinel.point, sizeof(giPoint3)), 0);
        EXPECT_TRUE(!r.axis.is_set() && r.error == 42.0);
    }
    Axis r;
    ASSERT_EQ(fit(good, r), 1);
    EXPECT_LT(axis_angle(r.axis, giUnitVec3(giZAxis)), 1e-9);
}
