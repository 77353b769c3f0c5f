// Planar alignment of measured points onto nominal lines.
#include "metrofit/alignment/points_to_lines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>

#include "tests/support/random.h"

namespace {

using testsupport::Rng;

giXform2 motion(const giPoint2& centre, double degrees, double sx, double sy) {
    return giXform2(giVector2(sx, sy)) * giXform2(centre, giAngle(giANGLE_DEGREES, degrees));
}

// Points on the edges of a slanted quadrilateral placed at `at`; each
// nominal point is the entry's line point, the measured point is the nominal
// one carried by the inverse of `truth` plus noise along the normal.
void load_profile(tsPointsToLines& p, const giPoint2& at, const giXform2& truth, double sigma = 0,
                  int edges = 4, double lower = -DBL_MAX, double upper = DBL_MAX) {
    const double v[5][2] = {{0, 0}, {60, -5}, {70, 40}, {-10, 30}, {0, 0}};
    const giXform2 back = truth.inverse();
    Rng rng(11);
    for (int e = 0; e < edges; ++e)
        for (int k = 0; k < 8; ++k) {
            const double t = (k + 0.5) / 8.0;
            const giPoint2 q(at.x() + v[e][0] + t * (v[e + 1][0] - v[e][0]),
                             at.y() + v[e][1] + t * (v[e + 1][1] - v[e][1]));
            const giUnitVec2 n(v[e + 1][1] - v[e][1], v[e][0] - v[e + 1][0]);
            p.add_bestfit(tsLineAndPoint(back * (q + n * rng.normal(sigma)), q, n), lower, upper,
                          1.0 + k % 3);
        }
}

TEST(PointsToLines, RecoversKnownMotionNearAndFarFromOrigin) {
    for (const double offset : {0.0, 1e3, 1e5})
        for (const double degrees : {4.0, -25.0}) {
            const giPoint2 at(offset, -0.7 * offset);
            const giXform2 truth = motion(at, degrees, 3.0, -1.5);
            tsPointsToLines p;
            load_profile(p, at, truth);
            const tsPointsToLines copy = p;
            doublecoDynArr before, after;
            p.signed_deviations(giXform2(giIdentity), before);
            giXform2 X, again, copied;
            const double worst = p.fit(X, 1e-13);
            // Fitted again, or as a copy: bit for bit the same.
            EXPECT_EQ(p.fit(again, 1e-13), worst);
            EXPECT_EQ(tsPointsToLines(copy).fit(copied, 1e-13), worst);
            EXPECT_TRUE(equal(X, again, 0.0) && equal(X, copied, 0.0));
            // The entries of X far from the origin carry the rounding of
            // coordinates of 1e5; where X takes the points is what is fitted.
            double off_truth = 0.0;
            for (const tsLineAndPoint& e : p.entries())
                off_truth = std::max(off_truth,
                                     distance(X * e.measured_point(), truth * e.measured_point()));
            EXPECT_LT(off_truth, 1e-9) << offset << " " << degrees;
            EXPECT_LT(worst, 1e-9);
            p.signed_deviations(giXform2(giIdentity), after);
            for (int i = 0; i < before.size(); ++i) EXPECT_EQ(before[i], after[i]);  // restored
        }
}

TEST(PointsToLines, PointTieFixesTheSlideThatParallelLinesLeaveOpen) {
    tsPointsToLines p;
    const giXform2 truth = motion(giPoint2(0, 0), 0.0, 7.0, 0.4);
    load_profile(p, giPoint2(0, 0), truth, 0.0, 1);  // one edge: the slide along it is free
    giXform2 X;
    p.fit(X, 0.0);
    EXPECT_TRUE(equal(X, truth, 1e-9));
}

TEST(PointsToLines, EdgeCasesAndStopRule) {
    // No entries, and points already on their lines (all ten passes run).
    for (const int entries : {0, 1})
        for (const double tolerance : {1e-6, 0.0}) {
            tsPointsToLines p;
            if (entries) load_profile(p, giPoint2(5, 5), giXform2(giIdentity));
            giXform2 X;
            EXPECT_EQ(p.fit(X, tolerance), 0.0);
            EXPECT_TRUE(X.is_identity());
        }
    // One pass (huge tolerance) leaves the linearisation error of a 20 degree
    // turn; tolerance 0 iterates it away.
    const giXform2 truth = motion(giPoint2(30, 10), 20.0, 1.0, 1.0);
    tsPointsToLines p;
    load_profile(p, giPoint2(0, 0), truth);
    giXform2 X;
    EXPECT_GT(p.fit(X, 1e9), 1e-3);
    EXPECT_LT(p.fit(X, 0.0), 1e-10);
}

TEST(PointsToLines, BadInputIsIgnoredOrRefused) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    tsPointsToLines p;
    p.add_bestfit(tsLineAndPoint(giPoint2(nan, 0), giPoint2(0, 0), giVector2(0, 1)), 0, 0, 1);
    p.add_bestfit(tsLineAndPoint(giPoint2(0, 1), giPoint2(0, 0), giVector2(0, 1)), 0, 0, nan);
    EXPECT_EQ(p.entries().size() + p.has_limits(), 0);
    load_profile(p, giPoint2(0, 0), motion(giPoint2(0, 0), 5.0, 1.0, 0.0));
    // Locks without a usable value move nothing, in a step or a fit.
    for (const double bad : {nan, 0.0}) {
        tsPointsToLines locked = p;
        locked.lock_axis(giVector2(bad, 0), giVector2(1, 0));
        giXform2 step, X;
        EXPECT_EQ(locked.single_linear_step(step), 0);
        EXPECT_TRUE(step.is_identity());
        locked = p;
        locked.lock_origin(giPoint2(bad == 0.0 ? 1.0 : bad, 0), giPoint2(nan, 0));
        EXPECT_TRUE(std::isfinite(locked.fit(X, 0.0)));
        EXPECT_TRUE(X.is_identity());
    }
}

}  // namespace
