#include "metrofit/features/axis_rev.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <ostream>

#include "metrofit/platform/surface/unit_vector_differentiator.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/gradient_check.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::kPi;

struct Surface {
    giPoint3coDynArr points;
    giUnitVec3coDynArr normals;
};

// A point of a meridian in the (rho, z) half plane with its unit normal.
struct Meridian {
    double rho, z, n_rho, n_z;
};

// n points of the surface swept by a meridian about the z axis: parameters t
// uniform in [t0, t1], angles uniform in the sector of `sector_degrees`
// centred on +x, with their exact unit normals.
Surface revolve(int n, const std::function<Meridian(double)>& meridian, double t0, double t1,
                double sector_degrees, std::uint64_t seed) {
    testsupport::Rng rng(seed);
    const double half = 0.5 * sector_degrees * kPi / 180.0;
    Surface s;
    for (int i = 0; i < n; ++i) {
        const double t = rng.uniform(t0, t1), phi = rng.uniform(-half, half);
        const Meridian m = meridian(t);
        const double c = std::cos(phi), sn = std::sin(phi);
        s.points.append(giPoint3(m.rho * c, m.rho * sn, m.z));
        s.normals.append(giUnitVec3(m.n_rho * c, m.n_rho * sn, m.n_z));
    }
    return s;
}

// A torus section (centre-circle radius 20, tube 5): tube angles in [-70, 110]
// degrees around the outer equator.
Surface torus_section(int n, double sector_degrees, std::uint64_t seed) {
    const auto m = [](double t) {
        return Meridian{20.0 + 5.0 * std::cos(t), 5.0 * std::sin(t), std::cos(t), std::sin(t)};
    };
    return revolve(n, m, -70.0 * kPi / 180.0, 110.0 * kPi / 180.0, sector_degrees, seed);
}

// A turned profile r(z) = 10 + 2 sin(z / 5), z in [0, 40].
Surface turned_profile(int n, double sector_degrees, std::uint64_t seed) {
    const auto m = [](double z) {
        const double slope = 0.4 * std::cos(z / 5.0), len = std::sqrt(1.0 + slope * slope);
        return Meridian{10.0 + 2.0 * std::sin(z / 5.0), z, 1.0 / len, -slope / len};
    };
    return revolve(n, m, 0.0, 40.0, sector_degrees, seed);
}

Surface torus(int n, std::uint64_t seed) { return torus_section(n, 200.0, seed); }
Surface profile(int n, std::uint64_t seed) { return turned_profile(n, 360.0, seed); }

Surface cylinder(int n, std::uint64_t seed) {
    Surface s;
    s.points = testsupport::cylinder_points(n, 8.0, 30.0, 360.0, 0.0, seed, &s.normals);
    return s;
}

Surface cone(int n, std::uint64_t seed) {
    Surface s;
    s.points = testsupport::cone_points(n, 25.0, 5.0, 30.0, 270.0, 0.0, seed, &s.normals);
    return s;
}

// Moves every point across its meridian plane (around the z axis) by normal
// noise sigma and tilts its normal out of that plane by noise sigma / 50
// radians, so that the normal lines of points about 10 from the axis miss it
// by about sigma.
void swirl(Surface& s, double sigma, std::uint64_t seed) {
    testsupport::Rng rng(seed);
    for (int i = 0; i < s.points.size(); ++i) {
        const giPoint3& p = s.points[i];
        const giUnitVec3 across(-p.y(), p.x(), 0.0);
        s.points[i] = p + rng.normal(sigma) * across;
        s.normals[i] = giUnitVec3(s.normals[i] + rng.normal(0.02 * sigma) * across);
    }
}

Surface moved(const Surface& s, const giXform3& pose) {
    Surface out;
    out.points = testsupport::transformed(pose, s.points);
    for (const giUnitVec3& v : s.normals) out.normals.append(pose * v);
    return out;
}

bool same(const mlVector& a, const mlVector& b) {
    if (a.size() != b.size()) return false;
    for (int j = 0; j < a.size(); ++j)
        if (a[j] != b[j]) return false;
    return true;
}

// Bit for bit, NaN included.
bool same(const giPoint3& a, const giPoint3& b) {
    return std::memcmp(&a, &b, sizeof(giPoint3)) == 0;
}

struct Axis {
    giPoint3 point;
    giUnitVec3 axis;
    double error = -1.0;
};

int fit(const Surface& s, Axis& a) {
    return tsLeastSquareEvaluator::evaluate_axis_rev(s.points, s.normals, a.point, a.axis, a.error);
}

// Angle between two axes, either sense.
double axis_angle(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), std::fabs(dot(a, b)));
}

// Distance of q from the line (p, u).
double off_line(const giPoint3& q, const giPoint3& p, const giUnitVec3& u) {
    return cross(q - p, u).length();
}

// The axis that minimises the summed squared distances of the normal lines,
// by the test's own Gauss-Newton near `near`: the axis point moved across the
// axis (2) and the axis turned (2). The axis point starts at the foot of the
// centroid, and the points are taken relative to it (exactly, in long
// double), so that far from the origin the differences see no rounding of
// the offset.
Axis refine(const Surface& s, const Axis& near) {
    const giUnitVec3 u0 = near.axis, e1 = u0.any_normal(), e2(cross(u0, e1));
    giVector3 sum(0, 0, 0);
    for (const giPoint3& q : s.points) sum += q - near.point;
    const giPoint3 c0 = near.point + dot(sum, u0) / s.points.size() * u0;
    const auto at = [&](const testsupport::LongVector& p, long double(&c)[3], long double(&u)[3]) {
        long double len = 0;
        for (int k = 0; k < 3; ++k) {
            c[k] = p[0] * e1[k] + p[1] * e2[k];  // relative to c0
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
                d += ((static_cast<long double>(s.points[i][k]) - c0[k]) - c[k]) * w[k];
                len += w[k] * w[k];
            }
            r[i] = d / std::sqrt(len);
        }
    };
    const auto p = testsupport::gauss_newton(residuals, {0, 0, 0, 0}, s.points.size());
    long double c[3], u[3];
    at(p, c, u);
    Axis out;
    out.point = giPoint3(c0[0] + c[0], c0[1] + c[1], c0[2] + c[2]);
    out.axis = giUnitVec3(u[0], u[1], u[2]);
    return out;
}

// Remembers which guess directions a search started from: a solver run first
// sets its normalised start, which is (start point, guess direction k) in
// canonical form, bit for bit.
class StartRecorder : public tsLeastSquareAxisRev {
   public:
    using tsLeastSquareAxisRev::tsLeastSquareAxisRev;
    void set_parameters(const mlVector& p) override {
        tsLeastSquareAxisRev::set_parameters(p);
        for (int k = 0; k < num_guess_directions(); ++k)
            if (same(p, start(k))) started[k] = true;
    }
    mlVector start(int k) const {
        const giPoint3 c = centroid();
        const giUnitVec3 a = guess_direction(k);
        mlVector v = {c.x(), c.y(), c.z(), a.x(), a.y(), a.z()};
        normalize_parameters(v);
        return v;
    }
    bool started[7] = {};
};

}  // namespace

TEST(UnitVectorDifferentiator, MatchesCentralDifferencesAndHandlesZero) {
    testsupport::Rng rng(4);
    for (const double scale : {1e-200, 1e-3, 1.0, 1e200}) {
        const giVector3 w(scale * rng.normal(), scale * rng.normal(), scale * rng.normal());
        const giVector3 dw(scale * rng.normal(), scale * rng.normal(), scale * rng.normal());
        const srkUnitVectorDifferentiator3 du(w);
        EXPECT_NEAR(du.length() / w.length(), 1.0, 1e-15);
        EXPECT_NEAR(du.unit().length(), 1.0, 1e-15);
        giVector3 out;
        du.first_derivative(dw, out);
        const double h = 1e-6;
        const giUnitVec3 plus(w + h * dw), minus(w - h * dw);
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(out[k], (plus[k] - minus[k]) / (2 * h), 1e-8) << scale;
        EXPECT_NEAR(dot(out, du.unit()), 0.0, 1e-14);  // a unit vector only turns
    }
    for (const giVector3& w : {giVector3(0, 0, 0), giVector3(), giVector3(NAN, 1, 0)}) {
        const srkUnitVectorDifferentiator3 du(w);
        giVector3 out(7, 7, 7);
        du.first_derivative(giVector3(1, 2, 3), out);
        EXPECT_EQ(du.length(), 0.0);
        EXPECT_EQ(du.unit(), giVector3(0, 0, 0));
        EXPECT_EQ(out, giVector3(0, 0, 0));
    }
}

TEST(AxisRevModel, GradientAndCanonicalForm) {
    Surface s = turned_profile(40, 300.0, 3);
    swirl(s, 0.3, 4);
    tsLeastSquareAxisRev model(s.points, s.normals);
    // Near the axis, tilted with an axis of other length and reversed sense,
    // and far from any fit.
    testsupport::expect_gradient_matches(model, {0.1, -0.2, 0.0, 0.01, 0.02, 1.0}, 1e-6);
    testsupport::expect_gradient_matches(model, {2.0, 1.0, 5.0, 0.3, -0.2, -3.0}, 1e-6);
    testsupport::expect_gradient_matches(model, {-4.0, 6.0, 9.0, 1.0, 0.7, 0.4}, 1e-6);
    mlVector p = {1.0, 2.0, 3.0, 0.0, 0.0, -4.0};
    model.normalize_parameters(p);
    EXPECT_TRUE(same(p, {1.0, 2.0, 0.0, 0.0, 0.0, -1.0}));
    p = mlVector({1.0, 2.0, 3.0, 0.0, 0.0, 0.0});
    model.normalize_parameters(p);
    EXPECT_TRUE(same(p, {0.0, 2.0, 3.0, 1.0, 0.0, 0.0}));
}

// A normal along the axis (a point of a flat end face) has no meridian plane:
// it contributes nothing, up to 1e-7 radians off the axis, and counts beyond.
TEST(AxisRevModel, NormalAlongTheAxisContributesNothing) {
    const giUnitVec3 a(0.3, -0.4, 0.5);
    const giUnitVec3 e = a.any_normal();
    giPoint3coDynArr pts = {giPoint3(5, 1, 2), giPoint3(5, 1, 2)};
    giUnitVec3coDynArr normals = {giUnitVec3(a + 0.9e-7 * e), giUnitVec3(a + 1.1e-7 * e)};
    tsLeastSquareAxisRev model(pts, normals);
    model.set_parameters({0.0, 0.0, 0.0, -a.x(), -a.y(), -a.z()});
    for (int i = 0; i < 2; ++i) {
        double d = 7.0, d_only = 7.0;
        mlVector g = {7, 7, 7, 7, 7, 7};
        model.get_distance_and_gradient(d, g, i);
        model.get_distance(d_only, i);
        EXPECT_EQ(d, d_only);
        EXPECT_EQ(same(g, {0, 0, 0, 0, 0, 0}), i == 0) << i;
        EXPECT_EQ(d == 0.0, i == 0) << i;
    }
}

// A start along a coordinate axis puts the axis's own (gauge) direction in a
// single gradient column: every start, those three included, reaches the
// axis of a whole turned profile.
TEST(AxisRevModel, EveryGuessDirectionReachesTheAxis) {
    for (const std::uint64_t seed : {31u, 32u}) {
        const giXform3 pose = testsupport::random_motion(50.0, 1e3, seed);
        const Surface s = moved(profile(100, seed), pose);
        for (int k = 0; k < tsLeastSquareDistance3::num_guess_directions(); ++k) {
            tsLeastSquareAxisRev model(s.points, s.normals);
            Axis a;
            a.axis = tsLeastSquareDistance3::guess_direction(k);
            ASSERT_EQ(model.evaluate_with_guess(a.point, a.axis, a.error), 1);
            EXPECT_LT(axis_angle(a.axis, pose * giUnitVec3(giZAxis)), 1e-9) << seed << " " << k;
        }
    }
}

struct KnownSurface {
    const char* name;
    Surface (*make)(int, std::uint64_t);
    double size;  // largest extent
};
void PrintTo(const KnownSurface& k, std::ostream* os) { *os << k.name; }

class AxisRevKnownTruth : public ::testing::TestWithParam<KnownSurface> {};

// Exact points and normals of surfaces of revolution in any pose, 1e3 from the
// origin: the search finds the axis to rounding.
TEST_P(AxisRevKnownTruth, RecoversTheAxisInAnyPose) {
    const KnownSurface& k = GetParam();
    for (const std::uint64_t seed : {1u, 2u, 3u}) {
        const giXform3 pose = testsupport::random_motion(20.0 + 50.0 * seed, 1e3, seed);
        const Surface s = moved(k.make(80, seed), pose);
        Axis r;
        ASSERT_EQ(fit(s, r), 1) << seed;
        const giUnitVec3 truth = pose * giUnitVec3(giZAxis);
        EXPECT_LT(r.error, 1e-9 * k.size) << seed;
        EXPECT_LT(axis_angle(r.axis, truth), 1e-9) << seed;
        for (const double z : {0.0, k.size})
            EXPECT_LT(off_line(pose * giPoint3(0, 0, z), r.point, r.axis), 1e-9 * k.size) << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Surfaces, AxisRevKnownTruth,
    ::testing::Values(KnownSurface{"cylinder", cylinder, 30.0}, KnownSurface{"cone", cone, 30.0},
                      KnownSurface{"torus", torus, 50.0}, KnownSurface{"profile", profile, 40.0}),
    [](const ::testing::TestParamInfo<KnownSurface>& info) { return info.param.name; });

// Noisy normal lines: the fit is the least-squares axis, found equally in
// every pose and offset, bit-identical on a repeated call.
TEST(AxisRevNoisy, ReachesTheLeastSquaresAxisAtAnyOffset) {
    Surface base = turned_profile(200, 240.0, 7);
    swirl(base, 0.02, 8);
    const double size = 40.0;
    Axis first;  // the fit at the origin
    for (const double offset : {0.0, 1e3, 1e5}) {
        SCOPED_TRACE(offset);
        const giXform3 pose = testsupport::random_motion(75.0, offset, 9);
        const Surface s = moved(base, pose);
        Axis r, again;
        ASSERT_EQ(fit(s, r), 1);
        ASSERT_EQ(fit(s, again), 1);
        EXPECT_TRUE(r.point == again.point && r.axis == again.axis && r.error == again.error);
        const Axis best = refine(s, r);
        EXPECT_LT(axis_angle(r.axis, best.axis), 1e-9);
        EXPECT_LT(off_line(best.point, r.point, r.axis), 1e-9 * size);
        EXPECT_GT(r.error, 0.01);  // the normal lines do miss the axis
        // Back in the frame of the unmoved points, the same axis.
        const giXform3 back = pose.inverse();
        const Axis here{back * best.point, back * r.axis, r.error};
        if (offset == 0.0) first = here;
        EXPECT_NEAR(here.error, first.error, 1e-9 * first.error);
        EXPECT_LT(axis_angle(here.axis, first.axis), 1e-9);
        EXPECT_LT(off_line(here.point, first.point, first.axis), 1e-9 * size);
    }
}

struct StopCase {
    const char* name;
    Surface (*make)(int, std::uint64_t);
    double sigma;  // miss of the normal lines; the search stops once sigma^2 <= 0.01
};
void PrintTo(const StopCase& k, std::ostream* os) { *os << k.name; }

class AxisRevSearch : public ::testing::TestWithParam<StopCase> {};

// The search runs the guess directions in order and stops after the first
// whose mean squared distance is at most 0.01; the threshold applies to the
// mean square, so an RMS of 0.05 stops it and an RMS of 0.2 does not.
TEST_P(AxisRevSearch, StopsAtTheFirstGoodStart) {
    const StopCase& k = GetParam();
    for (const std::uint64_t seed : {11u, 12u}) {
        Surface base = k.make(100, seed);
        swirl(base, k.sigma, seed + 1);
        const Surface s = moved(base, testsupport::random_motion(110.0, 1e3, seed));

        // What each start gives on its own, and where the search must stop
        // (7: nowhere).
        int stop = 7;
        Axis at_stop;
        for (int j = 6; j >= 0; --j) {
            tsLeastSquareAxisRev alone(s.points, s.normals);
            Axis a;
            a.axis = tsLeastSquareDistance3::guess_direction(j);
            ASSERT_EQ(alone.evaluate_with_guess(a.point, a.axis, a.error), 1);
            if (a.error <= 0.01) {
                stop = j;
                at_stop = a;
            }
        }
        const bool stops = k.sigma * k.sigma < 0.01;
        if (stops) {
            ASSERT_LT(stop, 6) << "no start converged";
        } else {
            ASSERT_EQ(stop, 7);
        }

        StartRecorder model(s.points, s.normals);
        Axis r;
        ASSERT_EQ(model.evaluate(r.point, r.axis, r.error), 1);
        for (int j = 0; j < 7; ++j) EXPECT_EQ(model.started[j], j <= stop) << seed << " " << j;
        if (stops) {
            EXPECT_TRUE(r.point == at_stop.point && r.axis == at_stop.axis &&
                        r.error == at_stop.error);
        }
        if (k.sigma > 0.0) {
            EXPECT_GT(std::sqrt(r.error), 0.5 * k.sigma);  // the misses are real
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Noise, AxisRevSearch,
                         ::testing::Values(StopCase{"cylinder_exact", cylinder, 0.0},
                                           StopCase{"torus_exact", torus, 0.0},
                                           StopCase{"profile_exact", profile, 0.0},
                                           StopCase{"profile_sigma_0_05", profile, 0.05},
                                           StopCase{"profile_sigma_0_2", profile, 0.2}),
                         [](const ::testing::TestParamInfo<StopCase>& info) {
                             return info.param.name;
                         });

// An unset point argument means the centroid, for both operations and the
// entry point; a given axis is one solver run from it.
TEST(AxisRevStart, UnsetPointMeansTheCentroid) {
    Surface s = torus_section(60, 150.0, 13);
    swirl(s, 0.05, 14);
    s = moved(s, testsupport::random_motion(33.0, 50.0, 15));
    tsLeastSquareAxisRev model(s.points, s.normals);
    const giPoint3 c = model.centroid();
    const giUnitVec3 guess(0.2, 0.9, -0.3);
    for (const giPoint3& unset : {giPoint3(), giPoint3(-DBL_MAX, 0, 0), giPoint3(1, 2, DBL_MAX)}) {
        Axis a{unset, guess}, b{c, guess};
        ASSERT_EQ(model.evaluate_with_guess(a.point, a.axis, a.error), 1);
        ASSERT_EQ(model.evaluate_with_guess(b.point, b.axis, b.error), 1);
        EXPECT_TRUE(a.point == b.point && a.axis == b.axis && a.error == b.error);
        Axis e{unset, giUnitVec3()}, f{c, giUnitVec3()};
        ASSERT_EQ(model.evaluate(e.point, e.axis, e.error), 1);
        ASSERT_EQ(model.evaluate(f.point, f.axis, f.error), 1);
        EXPECT_TRUE(e.point == f.point && e.axis == f.axis && e.error == f.error);
        Axis g{unset, guess};
        ASSERT_EQ(fit(s, g), 1);
        EXPECT_TRUE(g.point == a.point && g.axis == a.axis);
        EXPECT_EQ(g.error, std::sqrt(a.error));  // the entry point reports the RMS
    }
}

// Every normal along the trial axis: all distances vanish and the start comes
// back with error 0.
TEST(AxisRevStart, AllNormalsAlongTheAxisReturnTheStart) {
    Surface s;
    for (int i = 0; i < 8; ++i) {
        s.points.append(giPoint3(i % 3, i / 3, 4.0));
        s.normals.append(giUnitVec3(giZAxis));
    }
    Axis r{giPoint3(), giUnitVec3(giZAxis)};
    ASSERT_EQ(fit(s, r), 1);
    EXPECT_EQ(r.error, 0.0);
    EXPECT_EQ(r.axis, giUnitVec3(giZAxis));
    EXPECT_LT(off_line(giPoint3(7.0 / 8, 7.0 / 8, 0), r.point, r.axis), 1e-15);
}

// Bad input is refused with 0 and the outputs keep what they held; six
// points are enough.
TEST(AxisRevRefusals, RefusesBadInputAndLeavesTheOutputs) {
    const Surface good = cylinder(8, 21);
    struct Case {
        const char* name;
        std::function<void(Surface&, Axis&)> spoil;
    };
    const Case cases[] = {
        {"five points",
         [](Surface& s, Axis&) {
             s.points.shrink(5, 0);
             s.normals.shrink(5, 0);
         }},
        {"one normal less", [](Surface& s, Axis&) { s.normals.shrink(7, 0); }},
        {"one normal more", [](Surface& s, Axis&) { s.normals.append(giUnitVec3(giXAxis)); }},
        {"no normals", [](Surface& s, Axis&) { s.normals.clear(0); }},
        {"NaN point", [](Surface& s, Axis&) { s.points[3] = giPoint3(1, NAN, 2); }},
        {"infinite point", [](Surface& s, Axis&) { s.points[7] = giPoint3(HUGE_VAL, 1, 2); }},
        {"NaN normal", [](Surface& s, Axis&) { s.normals[2] = giUnitVec3(NAN, 0, 1); }},
        {"NaN start point", [](Surface&, Axis& a) { a.point = giPoint3(NAN, 0, 0); }},
    };
    for (const Case& c : cases) {
        Surface s = good;
        Axis sentinel{giPoint3(1, 2, 3), giUnitVec3(), 42.0};
        c.spoil(s, sentinel);
        Axis r = sentinel;
        EXPECT_EQ(fit(s, r), 0) << c.name;
        EXPECT_TRUE(same(r.point, sentinel.point)) << c.name;
        EXPECT_FALSE(r.axis.is_set()) << c.name;
        EXPECT_EQ(r.error, 42.0) << c.name;
    }
    Surface six = good;
    six.points.shrink(6, 0);
    six.normals.shrink(6, 0);
    Axis r;
    ASSERT_EQ(fit(six, r), 1);
    EXPECT_LT(axis_angle(r.axis, giUnitVec3(giZAxis)), 1e-9);
}
