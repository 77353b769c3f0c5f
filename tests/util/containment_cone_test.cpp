#include "metrofit/util/containment_cone.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "tests/support/random.h"

namespace {

constexpr double kPi = testsupport::Rng::kPi;
const double kMerge = std::sqrt(1e-5);  // near-duplicates of the support merge

double angle_between(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), dot(a, b));
}
// The direction at polar angle theta and azimuth phi around c.
giUnitVec3 around(const giUnitVec3& c, double theta, double phi) {
    const giUnitVec3 u = c.any_normal();
    return giUnitVec3(std::cos(theta) * c +
                      std::sin(theta) * (std::cos(phi) * u + std::sin(phi) * cross(c, u)));
}
// Up to n directions uniform in area in a cap around a random centre, no two
// closer than 1.5 kMerge (near-duplicates of the support would merge).
giUnitVec3coDynArr cap(int n, double cap_deg, testsupport::Rng& rng) {
    const giUnitVec3 c(rng.normal(), rng.normal(), rng.normal());
    const double zmin = std::cos(cap_deg * kPi / 180);
    giUnitVec3coDynArr dirs;
    for (int tries = 0; dirs.size() < n && tries < 50 * n; ++tries) {
        const giUnitVec3 d = around(c, std::acos(rng.uniform(zmin, 1)), rng.uniform(0, 2 * kPi));
        bool ok = true;
        for (const giUnitVec3& e : dirs) ok = ok && (d - e).length() > 1.5 * kMerge;
        if (ok) dirs.append(d);
    }
    return dirs;
}

struct Cone {
    int ok = -1;
    giUnitVec3 axis;
    giAngle angle;
    double worst = -kPi;  // largest angle by which a vector lies outside
};
Cone solve(const giUnitVec3coDynArr& dirs, bool slow = false) {
    Cone c;
    tsContainmentCone solver(dirs);
    c.ok = slow ? solver.solve_slow_and_simple_for_utest(c.axis, c.angle)
                : solver.solve(c.axis, c.angle);
    for (const giUnitVec3& d : dirs)
        if (c.ok == 1) c.worst = std::max(c.worst, angle_between(d, c.axis) - c.angle.radians());
    return c;
}

// Cones known by construction, for both solvers; no vectors give 1 and 2 pi.
TEST(ContainmentCone, KnownConesAreFoundByBothSolvers) {
    const giUnitVec3 z(0.3, -0.5, 0.8);
    giUnitVec3coDynArr ring;  // every vector on the boundary
    for (int k = 0; k < 60; ++k) ring.append(around(z, 0.5, k * 2 * kPi / 60));
    const struct {
        giUnitVec3coDynArr dirs;
        giUnitVec3 axis;
        double angle;
    } cases[] = {
        {{around(z, 0.4, 1.0)}, around(z, 0.4, 1.0), 0.0},
        {ring, z, 0.5},
    };
    for (const auto& c : cases)
        for (const Cone& r : {solve(c.dirs), solve(c.dirs, true)}) {
            ASSERT_EQ(r.ok, 1) << c.dirs.size();
            EXPECT_NEAR(r.angle.radians(), c.angle, 1e-12) << c.dirs.size();
            EXPECT_NEAR(angle_between(r.axis, c.axis), 0.0, 1e-9) << c.dirs.size();
        }
    for (const Cone& r : {solve({}), solve({}, true)})
        EXPECT_TRUE(r.ok == 1 && r.angle.radians() == 2 * kPi);
}

// Vectors beyond an open hemisphere fail in both solvers; unset or NaN
// vectors are refused with the outputs untouched.
TEST(ContainmentCone, FailuresAndRefusals) {
    const giUnitVec3 x(giXAxis), y(giYAxis), z(giZAxis);
    testsupport::Rng rng(41);
    giUnitVec3coDynArr equator;  // a closed, not an open, hemisphere
    for (int k = 0; k < 8; ++k) equator.append(around(z, kPi / 2, k * kPi / 4));
    const giUnitVec3coDynArr beyond[] = {
        {x, -x},
        equator,
        cap(60, 120, rng),
    };
    for (const giUnitVec3coDynArr& dirs : beyond)
        EXPECT_TRUE(solve(dirs).ok == 0 && solve(dirs, true).ok == 0) << dirs.size();
    giUnitVec3coDynArr bad[2] = {{x, giUnitVec3()}, {x, y}};
    bad[1][1] = giUnitVec3(giVector3(std::numeric_limits<double>::quiet_NaN(), 0, 1));
    for (const giUnitVec3coDynArr& dirs : bad) {
        tsContainmentCone solver(dirs);
        giUnitVec3 axis(giZAxis);
        giAngle angle(giANGLE_RADIANS, 0.25);
        EXPECT_EQ(solver.solve(axis, angle) + solver.solve_slow_and_simple_for_utest(axis, angle),
                  0);
        EXPECT_TRUE(axis == z && angle.radians() == 0.25);
    }
}

// Random caps of 1 to 85 degrees without near-duplicates: the fast cone
// contains every vector and is the narrowest, equal to the slow (O(n^4))
// solver's for up to 40 vectors, and for up to 200 to the slow cone of its
// own boundary vectors (containing all and narrowest of some, it is the
// narrowest of all). Repeats are bit-identical.
TEST(ContainmentCone, FastSolverFindsTheNarrowestCone) {
    testsupport::Rng rng(20240612);
    for (int t = 0; t < 300; ++t) {
        const bool small = t % 2 == 0;
        const giUnitVec3coDynArr dirs =
            cap(rng.integer(1, small ? 40 : 200), rng.uniform(1, 85), rng);
        const Cone f = solve(dirs);
        ASSERT_EQ(f.ok, 1) << t;
        EXPECT_LE(f.worst, 1e-12) << t;
        giUnitVec3coDynArr boundary;
        for (const giUnitVec3& d : dirs)
            if (small || angle_between(d, f.axis) > f.angle.radians() - 1e-9) boundary.append(d);
        const Cone s = solve(boundary, true);
        ASSERT_EQ(s.ok, 1) << t;
        EXPECT_NEAR(f.angle.radians(), s.angle.radians(), 2e-7) << t;  // slow admits 1e-7
        const Cone again = solve(dirs);
        EXPECT_TRUE(again.axis == f.axis && again.angle == f.angle) << t;
    }
}

}  // namespace
