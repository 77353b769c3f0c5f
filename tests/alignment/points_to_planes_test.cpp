// Points onto nominal planes: known motions by the direct fit and by linear
// steps, the least-squares pose, balances, positioning and bad input.
#include "metrofit/alignment/points_to_planes.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/alignment/direct_shift_objective.h"
#include "tests/support/random.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::random_motion;
using testsupport::Rng;

struct Sample {
    giPoint3 nominal;
    giVector3 normal;
};

// Points on the faces of the block [0, 100] x [0, 60] x [0, 40] moved by
// `offset`, with outward normals.
std::vector<Sample> block(int per_face, const giVector3& offset, std::uint64_t seed) {
    const double size[3] = {100, 60, 40};
    Rng rng(seed);
    std::vector<Sample> out;
    for (int f = 0; f < 6; ++f) {
        const int axis = f / 2;
        const double side = f % 2 ? 1.0 : -1.0;
        for (int k = 0; k < per_face; ++k) {
            double p[3], n[3] = {0, 0, 0};
            for (int c = 0; c < 3; ++c) p[c] = rng.uniform(0.0, size[c]);
            p[axis] = f % 2 ? size[axis] : 0.0;
            n[axis] = side;
            out.push_back({giPoint3(p[0], p[1], p[2]) + offset, giVector3(n[0], n[1], n[2])});
        }
    }
    return out;
}

giXform3 motion_about(const giXform3& motion, const giVector3& offset) {
    return giXform3(offset) * motion * giXform3(giVector3(0, 0, 0) - offset);
}

// A bestfit entry without limits.
void add(tsPointsToPlanes& p, const giPoint3& m, const giPoint3& q, const giVector3& n,
         double weight = 1.0) {
    p.add_bestfit(m, q, n, -DBL_MAX, DBL_MAX, weight);
}

// The samples as bestfit entries, measured = motion * nominal + noise along
// the normal.
tsPointsToPlanes loaded(const std::vector<Sample>& s, const giXform3& motion, double sigma = 0.0,
                        std::uint64_t seed = 7) {
    tsPointsToPlanes p;
    Rng rng(seed);
    for (const Sample& e : s)
        add(p, motion * (e.nominal + e.normal * rng.normal(sigma)), e.nominal, e.normal);
    return p;
}

giXform3 fitted(tsPointsToPlanes& p) {
    giXform3 T;
    p.fit(T, 1e-9, nullptr);
    return T;
}

// 3-2-1 positioning points of the block and their outward normals, and a
// seventh on the x face.
const giPoint3 kPos[7] = {{10, 10, 0}, {90, 10, 0}, {50, 50, 0}, {10, 0, 10},
                          {90, 0, 10}, {0, 30, 20}, {0, 40, 30}};
const giVector3 kNrm[7] = {{0, 0, -1}, {0, 0, -1}, {0, 0, -1}, {0, -1, 0},
                           {0, -1, 0}, {-1, 0, 0}, {-1, 0, 0}};

// Largest distance between where T and E put the sample points.
double pose_error(const giXform3& T, const giXform3& E, const std::vector<Sample>& s) {
    double worst = 0.0;
    for (const Sample& e : s) worst = std::max(worst, (T * e.nominal - E * e.nominal).length());
    return worst;
}

// Iterates linear steps, re-loading the moved points each time, as an
// iterative caller does; returns the composed transform.
template <class Setup>
giXform3 iterate_steps(const std::vector<Sample>& s, const giXform3& motion, Setup setup) {
    giXform3 total(giIdentity);
    for (int k = 0; k < 30; ++k) {
        tsPointsToPlanes p = loaded(s, total * motion);
        setup(p, total * motion);
        giXform3 step;
        if (!p.single_linear_step(step)) break;
        total = step * total;
    }
    return total;
}

TEST(PointsToPlanes, DirectFitAndLinearStepsRecoverKnownMotion) {
    struct Case {
        double degrees, shift, offset;
    } cases[] = {{30, 100, 0}, {10, 20, 1e3}, {5, 5, 1e5}};
    int seed = 1;
    for (const Case& c : cases) {
        const giVector3 offset(c.offset, -0.5 * c.offset, 0.25 * c.offset);
        const std::vector<Sample> s = block(6, offset, seed);
        const giXform3 motion = motion_about(random_motion(c.degrees, c.shift, seed++), offset);
        const giXform3 truth = motion.inverse();
        const double tol = 1e-9 * std::max(1.0, c.offset / 100.0);

        tsPointsToPlanes p = loaded(s, motion);
        giXform3 T, again;
        double max_dev = -1.0;
        const double worst = p.fit(T, 1e-9, &max_dev);
        EXPECT_LT(pose_error(T, truth, s), tol) << c.degrees << " " << c.offset;
        EXPECT_LT(worst, tol);
        EXPECT_EQ(max_dev, 0.0);  // no positioning entries
        EXPECT_EQ(p.fit(again, 1e-9, nullptr), worst);
        EXPECT_TRUE(equal(T, again, 0.0));

        // The free step drops turns below 1e-7 rad: it stops within that
        // angle times the part size.
        const giXform3 stepped =
            iterate_steps(s, motion, [](tsPointsToPlanes&, const giXform3&) {});
        EXPECT_LT(pose_error(stepped * motion, giXform3(giIdentity), s), 1e-7 * 120.0) << c.offset;
    }
}

TEST(PointsToPlanes, NoisyDataGiveTheLeastSquaresPose) {
    // At the least-squares pose the linear step has nothing left to do, and
    // the direct fit lands there too.
    const std::vector<Sample> s = block(20, giVector3(0, 0, 0), 3);
    const giXform3 motion = random_motion(12, 30, 3);
    tsPointsToPlanes p = loaded(s, motion, 0.01, 5);
    const giXform3 T = fitted(p);
    tsPointsToPlanes moved = loaded(s, T * motion, 0.01, 5);
    mlMatrix M;
    mlVector V;
    moved.linear_step_free_points_to_planes(M, V);
    // The gradient of the plane sum of squares vanishes: V = 0 to the
    // precision of the pose (M^-1 V ~ 1e-10 in translation and turn).
    for (int j = 0; j < 6; ++j) EXPECT_NEAR(V[j], 0.0, 1e-10 * M(j, j)) << j;
    EXPECT_LT(pose_error(T, motion.inverse(), s), 0.05);
}

TEST(PointsToPlanes, PositioningDominatesBestfit) {
    // 3-2-1 positioning from one motion, bestfit points from another: the
    // pose follows the positioning, the bestfit absorbs the disagreement.
    const std::vector<Sample> s = block(6, giVector3(0, 0, 0), 21);
    const giXform3 m1 = random_motion(8, 10, 6), m2 = giXform3(giVector3(0.3, -0.2, 0.1)) * m1;
    tsPointsToPlanes p = loaded(s, m2);
    for (int i = 0; i < 6; ++i) p.add_positioning(m1 * kPos[i], kPos[i], kNrm[i], 1);
    giXform3 T;
    double positioning_max = -1.0;
    const double worst = p.fit(T, 1e-9, &positioning_max);
    EXPECT_LT(positioning_max, 1e-5);
    EXPECT_GT(worst, 0.05);
    EXPECT_LT(pose_error(T, m1.inverse(), s), 1e-5);
    EXPECT_LT(p.standard_deviation_of_nominals(T), 1e-5);
    EXPECT_GT(p.standard_deviation_of_nominals(giXform3(giIdentity)), 1.0);
}

TEST(PointsToPlanes, BalancedPairsCentreThePart) {
    // A slab 10.2 thick between nominal faces x = 0 and x = 10, shifted by 3:
    // balanced pairs (1, -1) centre it, 0.1 over on each side.
    tsPointsToPlanes p;
    for (int k = 0; k < 4; ++k) {
        const double y = 10.0 * k, z = 5.0 * (k % 2);
        p.add_balance(giPoint3(3.0 - 0.1, y, z), giPoint3(0, y, z), giVector3(-1, 0, 0), 1.0,
                      giPoint3(3.0 + 10.1, y, z), giPoint3(10, y, z), giVector3(1, 0, 0), -1.0,
                      1.0);
    }
    // The other directions pinned by ordinary entries on the y and z faces.
    for (int k = 0; k < 3; ++k) {
        add(p, giPoint3(3.0 + 3.0 * k, 0, 1.0 + k), giPoint3(3.0 * k, 0, 1.0 + k),
            giVector3(0, -1, 0));
        add(p, giPoint3(4.0 + 2.0 * k, 5.0 + 9.0 * k, 0), giPoint3(1.0 + 2.0 * k, 5.0 + 9.0 * k, 0),
            giVector3(0, 0, -1));
    }
    EXPECT_EQ(p.balance_pairs().size(), 8u);
    auto centred = [&](const giXform3& T) {
        EXPECT_NEAR(p.bestfit_entries()[0].deviation(T), 0.1, 1e-9);
        EXPECT_NEAR(p.bestfit_entries()[1].deviation(T), 0.1, 1e-9);
        EXPECT_NEAR(p.best_fit_deviation_with_transform(T), 0.0, 1e-15);
    };
    giXform3 T;
    ASSERT_EQ(p.single_linear_step(T), 1);
    centred(T);
    p.fit(T, 1e-9, nullptr);
    centred(T);
}

TEST(PointsToPlanes, BadInputAndLoadingRules) {
    tsPointsToPlanes p;
    giXform3 T;
    EXPECT_EQ(p.fit(T, 1e-6, nullptr), 0.0);
    EXPECT_TRUE(T.is_identity());
    EXPECT_FALSE(p.have_enough_data());
    const double nan = std::nan("");
    const giPoint3 o(0, 0, 0);
    add(p, giPoint3(nan, 0, 0), o, giVector3(0, 0, 1));
    for (const double weight : {0.0, HUGE_VAL}) add(p, o, o, giVector3(0, 0, 1), weight);
    p.add_positioning(o, o, giVector3(nan, 0, 1), 1);
    p.add_balance(o, o, giVector3(1, 0, 0), 1.0, giPoint3(1, 0, 0), giPoint3(1, 0, 0),
                  giVector3(1, 0, 0), -1.0, 0.0);
    EXPECT_EQ(p.bestfit_entries().size() + p.positioning_entries().size(), 0);
    EXPECT_EQ(p.fit(T, 1e-6, nullptr), 0.0);
    // Open limits do not count as limits; the weight is carried by the normal.
    add(p, giPoint3(0, 0, 1), o, giVector3(0, 0, 2), 3.0);
    EXPECT_EQ(p.has_limits(), 0);
    EXPECT_EQ(p.bestfit_entries()[0].normal.z(), 6.0);
    EXPECT_EQ(p.bestfit_entries()[0].deviation(giXform3(giIdentity)), 2.0);
    EXPECT_TRUE(p.have_enough_data());
    EXPECT_FALSE(p.have_constraints());
    p.increase_num_guesses();
    EXPECT_EQ(p.num_guesses(), 240);
    p.fit(T, 1e-6, nullptr);
    EXPECT_EQ(p.num_guesses(), 60);
    // The objective's parameter count follows the locks and the mode.
    giVector3coDynArr none, two;
    two.append(giVector3(1, 0, 0));
    two.append(giVector3(0, 1, 0));
    EXPECT_EQ(tsAmoebaPointsToPlanesDirectShift::get_dimension(false, none, 0), 3);
    EXPECT_EQ(tsAmoebaPointsToPlanesDirectShift::get_dimension(true, none, 1), 4);
    EXPECT_EQ(tsAmoebaPointsToPlanesDirectShift::get_dimension(true, two, 1), 2);
}

}  // namespace
