#include "metrofit/features/axis_rev.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>

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

}  // namespace

struct SearchCase {
    const char* name;
    const Shape* shape;
    double sector;
    double sigma;  // miss of the normal lines
};

class AxisRevSearch : public ::testing::TestWithParam<SearchCase> {};

// Surfaces of revolution 1e3 from the origin: exact data give the axis to
// rounding; the entry point reports the RMS of the model's mean square.
TEST_P(AxisRevSearch, FindsTheAxis) {
    const SearchCase& k = GetParam();
    const giXform3 pose = testsupport::random_motion(110.0, 1e3, 11);
    const Surface s = revolve(*k.shape, 100, k.sector, k.sigma, 11, pose);
    const giUnitVec3 truth = pose * giUnitVec3(giZAxis);

    tsLeastSquareAxisRev model(s.points, s.normals);
    Axis r, entry;
    ASSERT_EQ(model.evaluate(r.point, r.axis, r.error), 1);
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

INSTANTIATE_TEST_SUITE_P(Surfaces, AxisRevSearch,
                         ::testing::Values(SearchCase{"cylinder", &kCylinder, 360.0, 0.0},
                                           SearchCase{"torus", &kTorus, 200.0, 0.0},
                                           SearchCase{"profile_sigma_0_2", &kProfile, 360.0, 0.2}),
                         [](const ::testing::TestParamInfo<SearchCase>& info) {
                             return info.param.name;
                         });

// Noisy normal lines: the fit moves with the points at offsets up to 1e5 and
// is bit-identical on a repeated call.
TEST(AxisRevNoisy, MovesWithThePointsAtAnyOffset) {
    const Surface base = revolve(kProfile, 200, 240.0, 0.02, 7);
    Axis best;
    ASSERT_EQ(fit(base, best), 1);
    EXPECT_GT(best.error, 0.01);  // the normal lines do miss the axis
    for (const double offset : {1e3, 1e5}) {
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
        EXPECT_NEAR(r.error, best.error, 1e-9 * best.error);
    }
}

// An unset point argument means the centroid, for both operations and the
// entry point; a given axis is one solver run from it.
TEST(AxisRevStart, UnsetPointMeansTheCentroid) {
    const Surface s = revolve(kTorus, 60, 150.0, 0.05, 13, testsupport::random_motion(33, 50, 15));
    tsLeastSquareAxisRev model(s.points, s.normals);
    const giPoint3 c = model.centroid();
    const giUnitVec3 guess(0.2, 0.9, -0.3);
    Axis a{giPoint3(), guess}, b{c, guess}, e{giPoint3(1, 2, DBL_MAX), giUnitVec3()},
        f{c, giUnitVec3()}, g{a};
    ASSERT_TRUE(model.evaluate_with_guess(a.point, a.axis, a.error) &&
                model.evaluate_with_guess(b.point, b.axis, b.error) &&
                model.evaluate(e.point, e.axis, e.error) &&
                model.evaluate(f.point, f.axis, f.error) && fit(s, g));
    EXPECT_TRUE(a == b && e == f);
    EXPECT_TRUE(g.point == a.point && g.axis == a.axis && g.error == std::sqrt(a.error));
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
