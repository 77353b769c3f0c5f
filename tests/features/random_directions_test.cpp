#include "metrofit/features/random_directions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "tests/support/sampling.h"

namespace {

constexpr double kPi = testsupport::kPi;
giAngle deg(double d) { return giAngle(giANGLE_DEGREES, d); }

// The seeded stream worked out in 64-bit arithmetic, apart from mlRandom.
struct Lcg {
    std::int64_t s = 1;
    double r() {
        s = (s * 214013 + 2531011) & 0xFFFFFFFF;
        return ((s >> 16) & 0x7FFF) / 32767.0;
    }
    // A point of the unit disc mapped onto the sphere, area for area.
    giVector3 sphere() {
        for (;;) {
            const double a = 2 * r() - 1, b = 2 * r() - 1, q = a * a + b * b;
            if (q < 1)
                return giVector3(2 * a * std::sqrt(1 - q), 2 * b * std::sqrt(1 - q), 2 * q - 1);
        }
    }
};

// Exposes the stream position and the direct-draw probability.
struct Probe : tsRandDirGenerator {
    using tsRandDirGenerator::tsRandDirGenerator;
    void skip() { random_.draw(); }
    double p() const { return probability_bias_region_only(); }
    void decay() { update_bias(); }
};

TEST(RandomDirections, FreshGeneratorReplaysTheSeededStream) {
    const giUnitVec3 c(0.3, -0.4, 0.5);
    tsRandDirGenerator g(10, c, deg(30), 0.9), h(10, c, deg(30), 0.9);
    Lcg ref;
    for (int i = 0; i < 5; ++i) {
        const giVector3 e = ref.sphere(), u = g.rand_vec();
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(u[k], e[k], 1e-15);
    }
    // The cap draw tilts the centre towards the sphere draw w by t.
    Lcg ref2;
    const giVector3 w = ref2.sphere(), across = giUnitVec3(w - dot(w, c) * c);
    const double cos_t = ref2.r() * (1 - std::cos(kPi / 6)) + std::cos(kPi / 6);
    const giVector3 e = cos_t * c + std::sqrt(1 - cos_t * cos_t) * across,
                    u = h.rand_vec_bias_region();
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(u[k], e[k], 1e-12);
}

// Every cap draw lies in the cap, and the inner half-angle cap receives
// its share of the area, not of the angle.
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

// With bias 1, or without any given direction, direction() is one probability
// draw followed by a uniform draw, from the first call on.
TEST(RandomDirections, UnbiasedStreamsAreUniformFromTheStart) {
    const giUnitVec3 c(1, 1, 0);
    tsRandDirGenerator g(1, c, deg(40), 0.9);
    tsRandDirGenMulti none(1000, giUnitVec3coDynArr(), deg(40), 0.9);
    Probe h(1, c, deg(40), 0.9), k(1, c, deg(40), 0.9);
    for (int i = 0; i < 300; ++i) {
        h.skip();
        k.skip();
        EXPECT_EQ(g.direction(), h.rand_vec());
        EXPECT_EQ(none.direction(), k.rand_vec());
    }
    EXPECT_EQ(none.rand_vec_bias_region(), k.rand_vec());
    EXPECT_EQ(none.invalid(), 0);
    // Default generators are invalid but still hand out unit vectors.
    tsRandDirGenerator d;
    tsRandDirGenMulti dm;
    EXPECT_EQ(d.invalid() + dm.invalid(), 2);
    EXPECT_NEAR(d.direction().length() + dm.direction().length(), 2, 1e-15);
}

// The cap is weighted b times as densely as the rest of the sphere; the
// excess over 1 decays away.
TEST(RandomDirections, BiasWeightsTheCapAndDecaysToUniform) {
    const giUnitVec3 c(0, 1, 0);
    const double f = (1 - std::cos(kPi / 6)) / 2, b = 5;  // cap share of the sphere
    tsRandDirGenerator steady(b, c, deg(30), 1.0);
    const double target = b * f / (b * f + 1 - f);
    int in = 0;
    for (int i = 0; i < 4000; ++i) in += dot(steady.direction(), c) >= std::cos(kPi / 6);
    EXPECT_NEAR(in / 4000.0, target, 0.03);  // 4 sigma, n = 4000
    Probe p(1e6, c, deg(30), 0.5);
    double last = p.p();
    for (int i = 0; i < 200; ++i) {
        p.decay();
        EXPECT_LE(p.p(), last);
        last = p.p();
    }
    EXPECT_NEAR(p.p(), 0, 1e-12);
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
