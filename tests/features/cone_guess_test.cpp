#include "metrofit/features/cone_guess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "tests/support/sampling.h"

namespace {

using testsupport::cone_points;
using testsupport::kPi;

const giUnitVec3coDynArr kNoNormals;

// A cone read from an 8-vector in the cone model's layout.
struct Cone {
    giPoint3 apex;
    giUnitVec3 axis;  // towards the apex
    double half_angle;
};

Cone read_cone(const mlVector& p) {
    const giUnitVec3 axis(p[3], p[4], p[5]);
    return {giPoint3(p[0], p[1], p[2]) + (p[6] / std::sin(p[7])) * axis, axis, p[7]};
}

// The cone of cone_points (apex at the origin, axis +z) moved by t, with
// its normals when asked for.
struct Sample {
    giPoint3coDynArr points;
    giUnitVec3coDynArr normals;
    Cone truth;
};

Sample moved_cone(const giXform3& t, int n, double half_degrees, double sector, double sigma,
                  std::uint64_t seed) {
    Sample s;
    giUnitVec3coDynArr normals;
    s.points = testsupport::transformed(
        t, cone_points(n, half_degrees, 20.0, 80.0, sector, sigma, seed, &normals));
    for (const giUnitVec3& m : normals) s.normals.append(t * m);
    s.truth = {t * giPoint3(giOrigin), t * giUnitVec3(giZAxis), half_degrees * kPi / 180.0};
    return s;
}

// Point k of the ring of radius r at height z about the z axis.
giPoint3 ring(double r, double z, int k) {
    return giPoint3(r * std::cos(2.1 * k), r * std::sin(2.1 * k), z);
}

double two_circles(const giPoint3coDynArr& points, mlVector& out) {
    return tsConeGuessGenerator(points, giVector3(), giAngle(1, 10), kNoNormals)
        .get_guess_two_circles(out);
}

// Bit-identical vectors.
bool same(const mlVector& a, const mlVector& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

void expect_cone(const mlVector& guess, const Cone& truth, double tol) {
    const Cone c = read_cone(guess);
    EXPECT_LT(distance(c.apex, truth.apex), tol);
    EXPECT_GT(dot(c.axis, truth.axis), 1.0 - tol);  // same sense: towards the apex
    EXPECT_NEAR(c.half_angle, truth.half_angle, tol);
}

TEST(ConeGuess, FromNormalsRecoversExactCone) {
    struct Case {
        double half_degrees, sector;
    };
    // Each cone also turned over, so that the plane's normal comes out
    // pointing away from the apex in one of the two and has to be reversed.
    for (const Case& c : {Case{60, 120}, Case{10, 360}})
        for (const double flip : {0.0, 180.0}) {
            const giXform3 t =
                testsupport::random_motion(40, 1e3, 7) *
                giXform3::rotation(giPoint3(giOrigin), giVector3(1, 0, 0), giAngle(1, flip));
            const Sample s = moved_cone(t, 25, c.half_degrees, c.sector, 0.0, 13);
            tsConeGuessGenerator generator(s.points, giVector3(), giAngle(1, 10), s.normals);
            mlVector guess;
            EXPECT_LT(generator.get_guess_from_normals(guess), 1e-16);  // 25 exact points
            expect_cone(guess, s.truth, 1e-9);
        }
}

TEST(ConeGuess, TwoCirclesRecoverExactCone) {
    const giXform3 t = testsupport::random_motion(50, 100, 17);
    const giPoint3 apex = t * giPoint3(giOrigin);
    const giUnitVec3 axis = t * giUnitVec3(giZAxis);
    const double half = 30 * kPi / 180;
    // A point of the nappe at slant s and angle phi.
    const auto at = [&](double s, double phi) {
        return t * giPoint3(s * std::sin(half) * std::cos(phi), s * std::sin(half) * std::sin(phi),
                            -s * std::cos(half));
    };
    const Cone truth{apex, axis, half};
    // The far ring given first.
    giPoint3coDynArr points = {at(70, 0.1), at(70, 2.0), at(70, 4.5),
                               at(20, 0.7), at(20, 3.0), at(20, 5.1)};
    mlVector guess;
    EXPECT_LT(two_circles(points, guess), 1e-18);
    expect_cone(guess, truth, 1e-9);
}

// Every strategy without a guess returns DBL_MAX and leaves out as it was.
TEST(ConeGuess, RefusalsLeaveOutputUntouched) {
    const Sample s = moved_cone(giXform3::identity(), 12, 30, 360, 0.0, 19);
    const auto rings = [](double r1, double z1, double r2, double z2) {
        return giPoint3coDynArr{ring(r1, z1, 0), ring(r1, z1, 1), ring(r1, z1, 2),
                                ring(r2, z2, 3), ring(r2, z2, 4), ring(r2, z2, 5)};
    };
    giPoint3coDynArr crossed = rings(5, 0, 5, 0);
    for (int k = 3; k < 6; ++k)  // a vertical circle
        crossed[k] = giPoint3(3 * std::cos(2.1 * k), 0, 9 + 3 * std::sin(2.1 * k));
    const giPoint3coDynArr cylinder = rings(5, 0, 5, 9);
    // Radii 0.01 and 0.01 + 5e-8, 0.01 apart: the apex would lie within
    // reach, but the radii count as equal.
    const giPoint3coDynArr nearly = rings(0.01, 0, 0.01 + 5e-8, 0.01);
    const giUnitVec3coDynArr two = {s.normals[0], s.normals[1]};
    giUnitVec3coDynArr parallel;
    for (int i = 0; i < s.points.size(); ++i) parallel.append(giUnitVec3(giZAxis));
    struct Case {
        const giPoint3coDynArr* points;
        const giUnitVec3coDynArr* normals;  // with normals: the normals strategy
    };
    for (const Case& c :
         {Case{&s.points, &two}, Case{&s.points, &parallel}, Case{&cylinder, nullptr},
          Case{&nearly, nullptr}, Case{&crossed, nullptr}}) {
        tsConeGuessGenerator generator(*c.points, giVector3(), giAngle(1, 10),
                                       c.normals ? *c.normals : kNoNormals);
        mlVector out = {1, 2, 3, 4, 5, 6, 7, 8};
        const mlVector before(out);
        EXPECT_EQ(c.normals ? generator.get_guess_from_normals(out)
                            : generator.get_guess_two_circles(out),
                  DBL_MAX);
        EXPECT_TRUE(same(out, before));
    }
}

}  // namespace
