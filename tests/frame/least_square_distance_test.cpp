#include "metrofit/frame/least_square_distance.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/random.h"

namespace {

TEST(FrameLeastSquareDistance, AxisTermDerivativesMatchCentralDifferences) {
    testsupport::Rng rng(3);
    for (int trial = 0; trial < 20; ++trial) {
        // Axis point, unnormalised axis (length 0.5 .. 3) and a point well
        // off the axis, at several scales and far from the origin.
        const double scale = trial < 10 ? 1.0 : 1e3;
        const giPoint3 P(rng.uniform(-1, 1) * scale, rng.uniform(-1, 1) * scale, 1e3);
        giVector3 a(rng.normal(), rng.normal(), rng.normal());
        a = a * (rng.uniform(0.5, 3.0) / a.length());
        const giPoint3 Q(P.x() + rng.uniform(-2, 2) * scale, P.y() + rng.uniform(-2, 2) * scale,
                         P.z() + rng.uniform(-2, 2) * scale);
        double F, G, dF[6], dG[6];
        tsLeastSquareDistance3::F_G_and_derivatives(P, a, Q, F, dF, G, dG);
        EXPECT_NEAR(F, tsLeastSquareDistance3::F(P, a, Q), 1e-13 * scale);
        EXPECT_NEAR(G, tsLeastSquareDistance3::G(P, a, Q), 1e-13 * scale);
        for (int j = 0; j < 6; ++j) {
            const double h = 1e-6 * (j < 3 ? scale : 1.0);
            double v[6] = {P.x(), P.y(), P.z(), a.x(), a.y(), a.z()};
            v[j] += h;
            const giPoint3 Pp(v[0], v[1], v[2]);
            const giVector3 ap(v[3], v[4], v[5]);
            v[j] -= 2 * h;
            const giPoint3 Pm(v[0], v[1], v[2]);
            const giVector3 am(v[3], v[4], v[5]);
            const double nF =
                (tsLeastSquareDistance3::F(Pp, ap, Q) - tsLeastSquareDistance3::F(Pm, am, Q)) /
                (2 * h);
            const double nG =
                (tsLeastSquareDistance3::G(Pp, ap, Q) - tsLeastSquareDistance3::G(Pm, am, Q)) /
                (2 * h);
            // Differences of O(scale) values over a step of h: about 1e-9
            // relative to the derivative's size (which is O(1) in P, O(scale)
            // in a).
            const double size = j < 3 ? 1.0 : scale;
            EXPECT_NEAR(dF[j], nF, 1e-7 * size) << "trial " << trial << " j " << j;
            EXPECT_NEAR(dG[j], nG, 1e-7 * size) << "trial " << trial << " j " << j;
        }
    }
}

TEST(FrameLeastSquareDistance, PointOnTheAxisGetsZeroDistanceDerivatives) {
    double F, G, dF[6], dG[6];
    tsLeastSquareDistance3::F_G_and_derivatives(giPoint3(1, 2, 3), giVector3(0, 0, 2),
                                                giPoint3(1, 2, 7), F, dF, G, dG);
    EXPECT_EQ(F, 0.0);
    EXPECT_DOUBLE_EQ(G, 4.0);
    for (int j = 0; j < 6; ++j) EXPECT_EQ(dF[j], 0.0);
    EXPECT_DOUBLE_EQ(dG[2], -1.0);
}

// A model with no distance of its own, to reach the point-set bases.
class Bare3 : public tsLeastSquareDistance3 {
   public:
    explicit Bare3(const giPoint3coDynArr& p) : tsLeastSquareDistance3(1, p) {}
    void get_distance_and_gradient(double& d, mlVector&, int) const override { d = 0; }
    void get_distance(double& d, int) const override { d = 0; }
};
class Bare2 : public tsLeastSquareDistance2 {
   public:
    explicit Bare2(const giPoint2coDynArr& p) : tsLeastSquareDistance2(1, p) {}
    void get_distance_and_gradient(double& d, mlVector&, int) const override { d = 0; }
    void get_distance(double& d, int) const override { d = 0; }
};

TEST(FrameLeastSquareDistance, CentroidRangeAndStartDirections) {
    giPoint3coDynArr pts{giPoint3(1, 0, 0), giPoint3(3, 4, 0), giPoint3(2, 2, 12)};
    const Bare3 model(pts);
    EXPECT_EQ(model.n_points(), 3);
    EXPECT_DOUBLE_EQ(model.centroid().x(), 2.0);
    EXPECT_DOUBLE_EQ(model.centroid().z(), 4.0);
    EXPECT_DOUBLE_EQ(model.range(), std::sqrt(164.0));  // box 2 x 4 x 12
    pts.append(giPoint3(100, 0, 0));                    // the model refers to the caller's array
    EXPECT_EQ(&model.point(0), &pts[0]);

    const giPoint2coDynArr flat{giPoint2(-1, -1), giPoint2(2, 3)};
    const Bare2 model2(flat);
    EXPECT_DOUBLE_EQ(model2.centroid().x(), 0.5);
    EXPECT_DOUBLE_EQ(model2.range(), 5.0);

    EXPECT_EQ(tsLeastSquareDistance3::num_guess_directions(), 7);
    const giUnitVec3 d3 = tsLeastSquareDistance3::guess_direction(3);
    EXPECT_NEAR(d3.x(), 1 / std::sqrt(3.0), 1e-15);
    const giUnitVec3 d6 = tsLeastSquareDistance3::guess_direction(6);
    EXPECT_NEAR(d6.x(), -1 / std::sqrt(3.0), 1e-15);
    EXPECT_NEAR(d6.y(), -1 / std::sqrt(3.0), 1e-15);
    EXPECT_NEAR(d6.z(), 1 / std::sqrt(3.0), 1e-15);
    for (int i = 0; i < 7; ++i)
        EXPECT_NEAR(tsLeastSquareDistance3::guess_direction(i).length(), 1.0, 1e-15);
}

}  // namespace
