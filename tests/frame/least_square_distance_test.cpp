#include "metrofit/frame/least_square_distance.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/random.h"

namespace {

using L3 = tsLeastSquareDistance3;

TEST(FrameLeastSquareDistance, AxisTermDerivativesMatchCentralDifferences) {
    testsupport::Rng rng(3);
    for (int trial = 0; trial < 20; ++trial) {
        // Axis point far from the origin, unnormalised axis (length 0.5 .. 3)
        // and a point well off the axis, at two scales.
        const double scale = trial < 10 ? 1.0 : 1e3;
        const giPoint3 P(rng.uniform(-1, 1) * scale, rng.uniform(-1, 1) * scale, 1e3);
        giVector3 a(rng.normal(), rng.normal(), rng.normal());
        a = a * (rng.uniform(0.5, 3.0) / a.length());
        const giVector3 w(rng.uniform(-2, 2), rng.uniform(-2, 2), rng.uniform(-2, 2));
        const giPoint3 Q = P + w * scale;
        double F, G, dF[6], dG[6];
        L3::F_G_and_derivatives(P, a, Q, F, dF, G, dG);
        EXPECT_NEAR(F, L3::F(P, a, Q), 1e-13 * scale);
        for (int j = 0; j < 6; ++j) {
            // Differences of O(scale) values over a step of h: about 1e-9
            // relative to the derivative (O(1) in P, O(scale) in a).
            const double h = 1e-6 * (j < 3 ? scale : 1.0), size = j < 3 ? 1.0 : scale;
            const giVector3 e(j % 3 == 0 ? h : 0.0, j % 3 == 1 ? h : 0.0, j % 3 == 2 ? h : 0.0);
            const giVector3 dP = j < 3 ? e : giVector3(0, 0, 0), da = e - dP;
            const double nF = (L3::F(P + dP, a + da, Q) - L3::F(P - dP, a - da, Q)) / (2 * h);
            const double nG = (L3::G(P + dP, a + da, Q) - L3::G(P - dP, a - da, Q)) / (2 * h);
            EXPECT_NEAR(dF[j], nF, 1e-7 * size) << "trial " << trial << " j " << j;
            EXPECT_NEAR(dG[j], nG, 1e-7 * size) << "trial " << trial << " j " << j;
        }
    }
    // A point on the axis: F and its derivatives are zero, not NaN.
    double F, G, dF[6], dG[6];
    L3::F_G_and_derivatives(giPoint3(1, 2, 3), giVector3(0, 0, 2), giPoint3(1, 2, 7), F, dF, G, dG);
    EXPECT_TRUE(F == 0.0 && G == 4.0 && dG[2] == -1.0);
    for (int j = 0; j < 6; ++j) EXPECT_EQ(dF[j], 0.0);
}

}  // namespace
