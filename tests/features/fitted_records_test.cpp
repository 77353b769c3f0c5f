#include "metrofit/features/fitted_records.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "tests/support/sampling.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const giPoint3 kP(1, 2, 3);
const giUnitVec3 kU(0, 0, 1);
giAngle deg(double d) { return giAngle(giANGLE_DEGREES, d); }

// Unset markers, non-positive sizes and out-of-range half angles make a
// record invalid; a zero deviation does not.
TEST(FittedRecords, InvalidFlagsEachUnusableField) {
    EXPECT_EQ(tsFittedCylinder(kP, kU, 2.0, 0.0).invalid(), 0);
    const tsFittedCylinder cylinders[] = {
        tsFittedCylinder(), tsFittedCylinder(giPoint3(0, 0, DBL_MAX), kU, 2.0, 0.0),
        tsFittedCylinder(kP, giUnitVec3(), 2.0, 0.0), tsFittedCylinder(kP, kU, kNaN, 0.0),
        tsFittedCylinder(kP, kU, 2.0, -1e-300)};
    for (const auto& c : cylinders) EXPECT_EQ(c.invalid(), 1) << &c - cylinders;
    EXPECT_EQ(tsFittedCone(kP, kU, deg(45), 0.0).invalid(), 0);
    const tsFittedCone cones[] = {
        tsFittedCone(), tsFittedCone(giPoint3(-DBL_MAX, 0, 0), kU, deg(45), 0.0),
        tsFittedCone(kP, giUnitVec3(), deg(45), 0.0), tsFittedCone(kP, kU, deg(90), 0.0),
        tsFittedCone(kP, kU, deg(45), -1.0)};
    for (const auto& c : cones) EXPECT_EQ(c.invalid(), 1) << &c - cones;
}

// The cylinder test, in a random pose far from the origin: the other axis
// point may slide anywhere along this axis and the sense may flip; radial
// offset, radius difference and tilt are held to their tolerances.
TEST(FittedRecords, CylinderCoincidenceIsRadialAndOneSided) {
    const double tol = 0.01, r = 5.0, len = 1e3;
    const giAngle atol = deg(1);
    const giXform3 m = testsupport::random_motion(37, 1e5, 11);
    const giPoint3 c = m * giPoint3(0, 0, 0);
    const giUnitVec3 u = m * giUnitVec3(0, 0, 1), across = m * giUnitVec3(1, 0, 0);
    const tsFittedCylinder a(c, u, r, 0.3);
    const auto tilted = [&](double degrees) {
        return m * giUnitVec3(std::sin(degrees * testsupport::kPi / 180), 0,
                              std::cos(degrees * testsupport::kPi / 180));
    };
    const giPoint3 far = c + len * u;
    EXPECT_EQ(a.coincident(tsFittedCylinder(far, -u, r, 7.0), tol, atol), 1);
    EXPECT_EQ(a.coincident(tsFittedCylinder(far + 0.9 * tol * across, u, r, 0), tol, atol), 1);
    EXPECT_EQ(a.coincident(tsFittedCylinder(far + 1.1 * tol * across, u, r, 0), tol, atol), 0);
    EXPECT_EQ(a.coincident(tsFittedCylinder(c, u, r - 1.1 * tol, 0), tol, atol), 0);
    EXPECT_EQ(a.coincident(tsFittedCylinder(c, tilted(1.1), r, 0), tol, atol), 0);
    // Tilted by less than the angle tolerance about a point of this axis:
    // coincident from this side; seen from the tilted axis, this axis
    // point lies len * sin(0.9 deg) ~ 16 away.
    const tsFittedCylinder b(far, tilted(0.9), r, 0);
    EXPECT_EQ(a.coincident(b, tol, atol), 1);
    EXPECT_EQ(b.coincident(a, tol, atol), 0);
    EXPECT_EQ(a.coincident(a, -1e-9, atol), 0);
}

TEST(FittedRecords, ConeCoincidenceComparesApexAngleAndAxis) {
    const double tol = 0.01;
    const giAngle atol = deg(1);
    const giUnitVec3 u(1, 2, 2), across(2, -1, 0);
    const tsFittedCone a(giPoint3(1e4, -3, 7), u, deg(20), 0.1);
    const giPoint3& p = a.apex();
    EXPECT_EQ(a.coincident(tsFittedCone(p, -u, deg(20.9), 5.0), tol, atol), 1);
    EXPECT_EQ(a.coincident(tsFittedCone(p + 1.1 * tol * u, u, deg(20), 0), tol, atol), 0);
    EXPECT_EQ(a.coincident(tsFittedCone(p, u, deg(18.9), 0), tol, atol), 0);
    EXPECT_EQ(a.coincident(tsFittedCone(p, giUnitVec3(u + 0.03 * across), deg(20), 0), tol, atol),
              0);  // tilted by about 1.7 degrees
    EXPECT_EQ(a.coincident(a, -1e-9, atol), 0);
    // Unset apexes are never at distance 0 from each other.
    EXPECT_EQ(tsFittedCone().coincident(tsFittedCone(), 1.0, atol), 0);
}

}  // namespace
