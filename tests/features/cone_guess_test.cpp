#include "metrofit/features/cone_guess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/gradient_check.h"
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

// The cone as a start vector: apex, axis, surface distance 0, half angle.
mlVector start_vector(const Cone& c) {
    return {c.apex.x(), c.apex.y(), c.apex.z(), c.axis.x(),
            c.axis.y(), c.axis.z(), 0.0,        c.half_angle};
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

// Gradient against central differences, and the model's own driver reaching
// the generic solver's minimum, for an axis off the cone's.
TEST(ConeFixedAxis, GradientAndOwnDriverMatchTheGenericSolver) {
    const Sample s = moved_cone(testsupport::random_motion(35, 50, 3), 60, 25, 240, 1e-3, 7);
    tsLeastSquareConeFixedAxis model(s.points);
    model.set_axis(giUnitVec3(s.truth.axis + giVector3(0.05, 0.02, 0)));
    const mlVector start = {dot(s.truth.apex.to_vector(), model.x_axis()) + 5.0,
                            dot(s.truth.apex.to_vector(), model.y_axis()) - 5.0};
    expect_gradient_matches(model, start, 1e-6);
    mlVector own, generic;
    const double v_own = model.fit(start, own);
    const double v_generic = mlLevenbergMarquardt(model).fit(start, generic);
    EXPECT_NEAR(v_own, v_generic, 1e-9 * v_generic);
    for (int k = 0; k < 2; ++k) EXPECT_NEAR(own[k], generic[k], 1e-6 * (1 + std::fabs(generic[k])));
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
    // Rings of radius 5 at height 0 and of radii 3 and 4 at height 9: every
    // later triple is exactly parallel to the first, and the first of them,
    // (3, 4, 5), is kept.
    const giPoint3coDynArr tied = {ring(5, 0, 0), ring(5, 0, 1), ring(5, 0, 2),
                                   ring(3, 9, 3), ring(3, 9, 4), ring(3, 9, 5),
                                   ring(4, 9, 6), ring(4, 9, 7), ring(4, 9, 8)};
    EXPECT_LT(two_circles(tied, guess), DBL_MAX);
    expect_cone(guess, {giPoint3(0, 0, 22.5), giUnitVec3(giZAxis), std::atan2(2.0, 9.0)}, 1e-9);
}

// Every strategy without a guess returns DBL_MAX and leaves out as it was.
TEST(ConeGuess, RefusalsLeaveOutputUntouched) {
    const Sample s = moved_cone(giXform3::identity(), 12, 30, 360, 0.0, 19);
    const auto rings = [](double r1, double z1, double r2, double z2) {
        return giPoint3coDynArr{ring(r1, z1, 0), ring(r1, z1, 1), ring(r1, z1, 2),
                                ring(r2, z2, 3), ring(r2, z2, 4), ring(r2, z2, 5)};
    };
    giPoint3coDynArr crossed = rings(5, 0, 5, 0), collinear = rings(1, 0, 3, 9), five(s.points);
    for (int k = 3; k < 6; ++k)  // a vertical circle
        crossed[k] = giPoint3(3 * std::cos(2.1 * k), 0, 9 + 3 * std::sin(2.1 * k));
    for (int k = 0; k < 3; ++k) collinear[k] = giPoint3(k, 0, 0);
    five.shrink(5, 0);
    const giPoint3coDynArr cylinder = rings(5, 0, 5, 9);
    // Radii 0.01 and 0.01 + 5e-8, 0.01 apart: the apex would lie within
    // reach, but the radii count as equal.
    const giPoint3coDynArr nearly = rings(0.01, 0, 0.01 + 5e-8, 0.01);
    const giUnitVec3coDynArr two = {s.normals[0], s.normals[1]};
    giUnitVec3coDynArr parallel, too_many(s.normals);
    for (int i = 0; i < s.points.size(); ++i) parallel.append(giUnitVec3(giZAxis));
    too_many.append(giUnitVec3(giXAxis));
    struct Case {
        const giPoint3coDynArr* points;
        const giUnitVec3coDynArr* normals;  // with normals: the normals strategy
    };
    for (const Case& c :
         {Case{&s.points, &two}, Case{&s.points, &parallel}, Case{&s.points, &too_many},
          Case{&cylinder, nullptr}, Case{&nearly, nullptr}, Case{&crossed, nullptr},
          Case{&collinear, nullptr}, Case{&five, nullptr}}) {
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

TEST(ConeGuess, DeviationIsSumOfSquaredSurfaceDistances) {
    // Points pushed off the nappe along their normals by known amounts.
    Sample s = moved_cone(testsupport::random_motion(20, 300, 23), 30, 35, 360, 0.0, 29);
    double expected = 0.0;
    for (int i = 0; i < s.points.size(); ++i) {
        const double delta = 0.01 * (i % 5 - 2);
        s.points[i] = s.points[i] + delta * s.normals[i];
        expected += delta * delta;
    }
    tsConeGuessGenerator generator(s.points, giVector3(), giAngle(1, 10), kNoNormals);
    mlVector p = start_vector(s.truth);
    EXPECT_NEAR(generator.deviation(p), expected, 1e-12);
    expect_cone(p, s.truth, 1e-9);  // canonical form keeps the cone
    mlVector wrong = {1, 2, 3};
    EXPECT_EQ(generator.deviation(wrong), DBL_MAX);
    const giPoint3coDynArr none;
    EXPECT_EQ(tsConeGuessGenerator(none, giVector3(), giAngle(1, 10), kNoNormals).deviation(p), 0);
}

TEST(ConeGuess, FixedAxisTrialsKeepWithinReferenceAndVary) {
    const Sample s = moved_cone(testsupport::random_motion(30, 100, 31), 60, 25, 360, 0.0, 37);
    const Cone& c = s.truth;
    const giAngle cone_angle(1, 20);
    tsConeGuessGenerator a(s.points, c.axis, cone_angle, kNoNormals);
    tsConeGuessGenerator b(s.points, c.axis, cone_angle, kNoNormals);
    mlVector previous;
    for (int call = 0; call < 2; ++call) {
        mlVector ga, gb;
        const double va = a.get_guess_fixed_axis_fit(ga), vb = b.get_guess_fixed_axis_fit(gb);
        EXPECT_EQ(va, vb);  // two generators draw alike
        EXPECT_TRUE(same(ga, gb));
        EXPECT_LT(va, DBL_MAX);
        EXPECT_GE(std::fabs(dot(read_cone(ga).axis, c.axis)), cone_angle.cos());
        EXPECT_FALSE(same(ga, previous));  // the random state carries over
        previous = ga;
    }
    // No axis within a tiny cone: the caller's vector stays, scored.
    tsConeGuessGenerator tight(s.points, c.axis + giVector3(0.1, 0, 0), giAngle(1, 1e-6),
                               kNoNormals);
    mlVector kept = start_vector(c);
    EXPECT_LT(tight.get_guess_fixed_axis_fit(kept), 1e-16);
    expect_cone(kept, c, 1e-9);
    // The random variant ignores the reference cone.
    mlVector random_guess = kept;
    EXPECT_LT(tight.get_guess_random(random_guess), DBL_MAX);
    EXPECT_FALSE(same(random_guess, kept));
}

}  // namespace
