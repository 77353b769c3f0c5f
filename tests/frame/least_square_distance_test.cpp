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
        EXPECT_NEAR(G, L3::G(P, a, Q), 1e-13 * scale);
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
    EXPECT_EQ(F, 0.0);
    EXPECT_DOUBLE_EQ(G, 4.0);
    for (int j = 0; j < 6; ++j) EXPECT_EQ(dF[j], 0.0);
    EXPECT_DOUBLE_EQ(dG[2], -1.0);
}

// A model with no distance of its own, to reach the point-set bases.
template <class Base, class Points>
struct Bare : Base {
    explicit Bare(const Points& p) : Base(1, p) {}
    void get_distance_and_gradient(double& d, mlVector&, int) const override { d = 0; }
    void get_distance(double& d, int) const override { d = 0; }
};

TEST(FrameLeastSquareDistance, CentroidRangeAndStartDirections) {
    giPoint3coDynArr pts{giPoint3(1, 0, 0), giPoint3(3, 4, 0), giPoint3(2, 2, 12)};
    const Bare<L3, giPoint3coDynArr> model(pts);
    EXPECT_DOUBLE_EQ(model.centroid().x(), 2.0);
    EXPECT_DOUBLE_EQ(model.centroid().z(), 4.0);
    EXPECT_DOUBLE_EQ(model.range(), std::sqrt(164.0));  // box 2 x 4 x 12
    pts.append(giPoint3(100, 0, 0));                    // the model refers to the caller's array
    EXPECT_EQ(&model.point(0), &pts[0]);

    const giPoint2coDynArr flat{giPoint2(-1, -1), giPoint2(2, 3)};
    const Bare<tsLeastSquareDistance2, giPoint2coDynArr> model2(flat);
    EXPECT_DOUBLE_EQ(model2.centroid().x(), 0.5);
    EXPECT_DOUBLE_EQ(model2.range(), 5.0);

    // The coordinate axes, then the body diagonals, each of unit length.
    const double s = 1 / std::sqrt(3.0),
                 dirs[7][3] = {{1, 0, 0},  {0, 1, 0},  {0, 0, 1},  {s, s, s},
                               {-s, s, s}, {s, -s, s}, {-s, -s, s}};
    for (int i = 0; i < 7; ++i)
        EXPECT_LT((giVector3(dirs[i][0], dirs[i][1], dirs[i][2]) - L3::guess_direction(i)).length(),
                  2e-16)
            << i;
    EXPECT_FALSE(L3::guess_direction(7).is_set());
}

}  // namespace
