#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "metrofit/platform/maths/random.h"

namespace {

// The first draws of seed 1, worked out by hand from
// state' = state * 214013 + 2531011 (mod 2^32), draw = (state' >> 16) & 0x7fff:
//   1 * 214013 + 2531011 = 2745024;              2745024 >> 16 = 41
//   2745024 * 214013 + 2531011 = 587473352323;   mod 2^32 = 3357800067;
//                                                >> 16 = 51235; & 0x7fff = 18467
//   3357800067 * 214013 + 2531011 = 718612868269882; mod 2^32 = 415139642;
//                                                >> 16 = 6334
// Wrap-around from 2^32 - 1 (-1 as signed): -214013 + 2531011 = 2316998; >> 16 = 35.
TEST(MathsRandom, DrawsFollowTheRecurrenceAndWrapAround) {
    mlRandom r(1);
    mlRandom w(-1);
    const std::vector<int> draws = {r.draw(), r.draw(), r.draw(), w.draw()};
    EXPECT_EQ(draws, (std::vector<int>{41, 18467, 6334, 35}));
    EXPECT_TRUE(r.state() == 415139642 && w.state() == 2316998);
}

// Uniform doubles reach both ends of [lo, hi] (the draws cover 0 .. 32767).
TEST(MathsRandom, UniformReachesBothEnds) {
    mlRandom c(6983277);
    double lo = 1e9, hi = -1e9;
    for (int i = 0; i < 400000; ++i) {
        const double u = c.uniform(-2.0, 3.0);
        lo = std::min(lo, u);
        hi = std::max(hi, u);
    }
    EXPECT_TRUE(lo == -2 && hi == 3);
}

}  // namespace
