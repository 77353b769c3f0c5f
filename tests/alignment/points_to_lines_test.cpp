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

TEST(PointsToLines, LocksRestrictTheMotion) {
    const giPoint2 a(12, 7), b(15, 5);
    const giVector2 u(3, 4);
    // Motions a lock allows are recovered; the axis lock wins over the origin lock.
    for (const bool axis : {false, true}) {
        const giXform2 truth =
            axis ? giXform2(u * 0.8) : giXform2(b - a) * giXform2(a, giAngle(giANGLE_DEGREES, 9));
        tsPointsToLines p;
        load_profile(p, giPoint2(0, 0), truth);
        p.lock_origin(a, b);
        if (axis) p.lock_axis(u, u);
        giXform2 X;
        EXPECT_LT(p.fit(X, 0.0), 1e-9);
        EXPECT_TRUE(equal(X, truth, 1e-9)) << axis;
    }
    // Data wanting another motion: the lock point still lands on b, rigidly...
    tsPointsToLines p;
    load_profile(p, giPoint2(0, 0), motion(giPoint2(30, 10), 10.0, 2.0, 1.0));
    tsPointsToLines q = p;
    p.lock_origin(a, b);
    giXform2 X;
    EXPECT_GT(p.fit(X, 0.0), 0.1);
    EXPECT_LT(distance(X * a, b), 1e-9);
    EXPECT_NEAR(X.determinant(), 1.0, 1e-12);
    // ...and a locked axis turns the measured direction onto the nominal one,
    // then lets the centroid move along it only.
    const giVector2 ma(1, 0.2), na(1, -0.1);
    giPoint2 c(0, 0);
    for (const tsLineAndPoint& e : q.entries())
        c = c + e.measured_point().to_vector() / q.entries().size();
    q.lock_axis(ma, na);
    q.fit(X, 0.0);
    EXPECT_NEAR(cross(X * ma, na) / (X * ma).length(), 0.0, 1e-12);
    EXPECT_GT(dot(X * ma, na), 0.0);
    EXPECT_NEAR(cross(X * c - c, na), 0.0, 1e-9);
    EXPECT_GT((X * c - c).length(), 0.1);
}

TEST(PointsToLines, BandsAreMetOrReported) {
    const giXform2 truth = motion(giPoint2(20, 10), 7.0, 1.0, -2.0);
    tsPointsToLines free_fit;
    load_profile(free_fit, giPoint2(0, 0), truth, 0.05);
    giXform2 X0;
    const double worst = free_fit.fit(X0, 0.0);
    // A band at half its least-squares deviation on the worst entry is met.
    doublecoDynArr d0;
    free_fit.signed_deviations(X0, d0);
    int k = 0;
    for (int i = 1; i < d0.size(); ++i) k = std::fabs(d0[i]) > std::fabs(d0[k]) ? i : k;
    const double h = 0.5 * worst;
    tsPointsToLines banded;
    for (int i = 0; i < free_fit.entries().size(); ++i)
        banded.add_bestfit(free_fit.entries()[i], i == k ? -h : -DBL_MAX, i == k ? h : DBL_MAX,
                           free_fit.weights()[i]);
    giXform2 X;
    banded.fit(X, 0.0);
    doublecoDynArr d;
    banded.signed_deviations(X, d);
    EXPECT_LE(std::fabs(d[k]), h + 1e-9);
    EXPECT_EQ(banded.overdetermined_constraints().size(), 0);
    // Infinite limits set the band flag but give no rows: the same fit.
    tsPointsToLines open;
    const double inf = std::numeric_limits<double>::infinity();
    load_profile(open, giPoint2(0, 0), truth, 0.05, 4, -inf, inf);
    giXform2 X1;
    EXPECT_NEAR(open.fit(X1, 0.0), worst, 1e-9);
    EXPECT_TRUE(equal(X1, X0, 1e-9));
    EXPECT_EQ(open.has_limits() - free_fit.has_limits(), 1);
    // An empty band (lower above upper) on one entry conflicts with itself.
    tsPointsToLines conflict;
    load_profile(conflict, giPoint2(0, 0), truth, 0.05);
    conflict.add_bestfit(tsLineAndPoint(giPoint2(5, 5), giPoint2(5, 0), giVector2(0, 1)), 0.2, 0.1,
                         1.0);
    giXform2 X2;
    EXPECT_TRUE(std::isfinite(conflict.fit(X2, 0.0)));
    const intcoDynArr& dropped = conflict.overdetermined_constraints();
    ASSERT_GT(dropped.size(), 0);
    for (const int i : dropped) EXPECT_TRUE(i == 0 || i == 1);
}

TEST(PointsToLines, ConstraintRowsAreTheBandsOfTheLinearisedDeviation) {
    tsPointsToLines p;
    p.add_bestfit(tsLineAndPoint(giPoint2(0, 0.3), giPoint2(0, 0), giVector2(0, 1)), -DBL_MAX, 0.1,
                  1.0);
    p.add_bestfit(tsLineAndPoint(giPoint2(4, 1), giPoint2(2, 0), giVector2(1, 0)), -DBL_MAX,
                  DBL_MAX, 1.0);
    p.add_bestfit(tsLineAndPoint(giPoint2(1, 1), giPoint2(0, 0), giVector2(1, 1)), -0.5, 0.5, 1.0);
    ASSERT_EQ(p.constraint_coefs_free(p.lower_limits(), p.upper_limits()), 3);
    // For a shift the linearised deviation is exact: rows hold iff the bands do.
    for (const giVector2 t : {giVector2(0, 0), giVector2(0, -0.25), giVector2(-0.8, 0.1)}) {
        doublecoDynArr d;
        p.signed_deviations(giXform2(t), d);
        bool inside = true, rows = true;
        for (int i = 0; i < 3; ++i)
            inside = inside && p.lower_limits()[i] <= d[i] && d[i] <= p.upper_limits()[i];
        const mlMatrix& C = p.constraint_matrix();
        for (int r = 0; r < 3; ++r)
            rows = rows && C(r, 0) * t.x() + C(r, 1) * t.y() <= p.constraint_vector()[r] + 1e-12;
        EXPECT_EQ(inside, rows) << t.x() << " " << t.y();
    }
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

TEST(PointsToLines, DeviationsAreSignedScaledByTheNormalAndUnweighted) {
    for (const double weight : {0.0, 7.0}) {
        tsPointsToLines p;
        p.add_bestfit(tsLineAndPoint(giPoint2(3, 1.5), giPoint2(0, 0), giVector2(0, 2)), -DBL_MAX,
                      DBL_MAX, weight);
        p.add_bestfit(tsLineAndPoint(giPoint2(2, 0), giPoint2(0, 9), giVector2(-1, 0)), -DBL_MAX,
                      DBL_MAX, 1.0);
        doublecoDynArr d;
        p.signed_deviations(giXform2(giVector2(0, -1)), d);
        ASSERT_EQ(d.size(), 2);
        EXPECT_DOUBLE_EQ(d[0], 1.0);
        EXPECT_DOUBLE_EQ(d[1], -2.0);
        EXPECT_DOUBLE_EQ(p.best_fit_deviation_with_transform(giXform2(giIdentity)), 13.0);
    }
    EXPECT_EQ(tsPointsToLines().best_fit_deviation_with_transform(giXform2(giIdentity)), 0.0);
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
