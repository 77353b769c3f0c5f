#include "metrofit/features/random_directions.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/sampling.h"

namespace {

constexpr double kPi = testsupport::kPi;
giAngle deg(double d) { return giAngle(giANGLE_DEGREES, d); }

TEST(RandomDirections, CapDrawsAreUniformInAreaWithinTheCap) {
    testsupport::Rng rng(5);
    for (const double a : {5.0, 150.0}) {
        const giUnitVec3 c(rng.normal(), rng.normal(), rng.normal());
        tsRandDirGenerator g(1000, c, deg(a), 0.9);
        const int n = 4000;
        int inner = 0;
        for (int i = 0; i < n; ++i) {
            const double cos_u = dot(g.rand_vec_bias_region(), c);
            EXPECT_GE(cos_u, std::cos(a * kPi / 180) - 1e-12) << a;
            inner += cos_u >= std::cos(a * kPi / 360);
        }
        const double expected = (1 - std::cos(a * kPi / 360)) / (1 - std::cos(a * kPi / 180));
        // 4 binomial sigmas.
        EXPECT_NEAR(double(inner) / n, expected, 4 * std::sqrt(expected * (1 - expected) / n)) << a;
    }
}

// The cap is weighted b times as densely as the rest of the sphere.
TEST(RandomDirections, BiasWeightsTheCap) {
    const giUnitVec3 c(0, 1, 0);
    const double f = (1 - std::cos(kPi / 6)) / 2, b = 5;  // cap share of the sphere
    tsRandDirGenerator steady(b, c, deg(30), 1.0);
    const double target = b * f / (b * f + 1 - f);
    int in = 0;
    for (int i = 0; i < 4000; ++i) in += dot(steady.direction(), c) >= std::cos(kPi / 6);
    EXPECT_NEAR(in / 4000.0, target, 0.03);  // 4 sigma, n = 4000
}

TEST(RandomDirections, MultiHandsOutGivenDirectionsThenStaysNearThem) {
    const giUnitVec3coDynArr given{giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 1), giUnitVec3(0, -1, 1)};
    tsRandDirGenMulti g(1e6, given, deg(20), 1.0), twin(1e6, given, deg(20), 1.0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(g.direction(), given[i]);
    for (int i = 0; i < 3; ++i) twin.direction();
    int hits[3] = {0, 0, 0};
    for (int i = 0; i < 300; ++i) {
        const giUnitVec3 u = g.direction();
        EXPECT_EQ(u, twin.direction());
        for (int k = 0; k < 3; ++k) hits[k] += dot(u, given[k]) >= std::cos(kPi / 9) - 1e-12;
    }
    EXPECT_EQ(hits[0] + hits[1] + hits[2], 300);
    for (const int h : hits) EXPECT_GT(h, 50);
}

}  // namespace
