#include "metrofit/features/ellipse.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "metrofit/features/direct_ellipse.h"
#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/ellipse_points.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/reference.h"
#include "tests/support/sampling.h"

namespace {

using testsupport::axis_angle_gap;
using testsupport::ellipse_points;
using testsupport::kPi;

struct Fit {
    giPoint2 c = giPoint2(-7, -7);
    double a = -7, b = -7, t = -7, e = -7;
    bool operator==(const Fit& o) const {
        return c == o.c && a == o.a && b == o.b && t == o.t && e == o.e;
    }
};
int fit(const giPoint2coDynArr& pts, Fit& k) {
    return tsLeastSquareEvaluator::evaluate_ellipse(pts, k.c, k.a, k.b, k.t, k.e);
}
Fit direct(const giPoint2coDynArr& pts) {  // the direct fit, which must succeed
    const tsDirectEllipse2 d(pts);
    EXPECT_EQ(d.status(), 5);
    return {d.centre(), d.semi_major(), d.semi_minor(), d.angle()};
}
// Same ellipse within tol (lengths) and angle_tol (the axis, sense free).
void expect_same(const Fit& f, const Fit& g, double tol, double angle_tol) {
    EXPECT_LE(distance(f.c, g.c), tol);
    EXPECT_NEAR(f.a, g.a, tol);
    EXPECT_NEAR(f.b, g.b, tol);
    EXPECT_LE(axis_angle_gap(f.t, g.t), angle_tol);
    EXPECT_TRUE(f.t >= 0 && f.t < kPi);
}
void expect_same3(const giPoint3& c, const giUnitVec3& m, double a, double b, const giPoint3& c0,
                  const giUnitVec3& m0, double a0, double b0, double tol, double angle_tol) {
    EXPECT_LE(distance(c, c0), tol);
    EXPECT_NEAR(a, a0, tol);
    EXPECT_NEAR(b, b0, tol);
    EXPECT_LE(testsupport::undirected_angle(m.x(), m.y(), m.z(), m0.x(), m0.y(), m0.z()),
              angle_tol);
}

// Exact ellipses, circle to ratio 10, arcs down to 90 degrees, up to 1e5
// away: the least-squares and direct fits (2D, 3D) reproduce them to rounding;
// so does the fit in a given plane (axes turned, y off square by 1e-7), whose
// error counts the heights above the plane (+-0.25) in full.
TEST(EllipseFit, AllFitsReproduceExactEllipses) {
    const struct {
        int n;
        double ratio, arc, angle;
    } cases[] = {{40, 1.0, 360, 0.4}, {40, 1.01, 90, 0.4}, {5, 1.5, 250, 2.5}, {40, 10, 90, 2.4}};
    for (const auto& k : cases) {
        for (const double offset : {0.0, 1e5}) {
            SCOPED_TRACE(testing::Message() << k.n << " " << k.ratio << " " << offset);
            const double a = 8, b = a / k.ratio, tol = 1e-9 * a + 1e-13 * offset;
            const double angle_tol = k.ratio > 1 ? tol / (a - b) : kPi;  // a circle: any angle
            const Fit truth{giPoint2(0.6 * offset - 2, 3 - 0.8 * offset), a, b, k.angle, 0};
            const giXform3 motion = testsupport::random_motion(70, offset, 3);
            const giPoint2coDynArr pts = ellipse_points(k.n, truth.c, a, b, k.angle, k.arc, 0, 7);
            giPoint3coDynArr space, lifted;
            for (const giPoint2& p : pts) {
                const giPoint3 q(p.x() - truth.c.x(), p.y() - truth.c.y(), 0);
                space.append(motion * q);
                lifted.append(motion * giPoint3(q.x(), q.y(), space.size() % 2 ? 0.25 : -0.25));
            }
            Fit f;
            ASSERT_EQ(fit(pts, f), 1);
            EXPECT_LE(f.e, tol);
            expect_same(f, truth, tol, angle_tol);
            expect_same(direct(pts), truth, tol, angle_tol);

            const giPoint3 c0 = motion * giPoint3(0, 0, 0);
            const giUnitVec3 m0 = motion * giUnitVec3(std::cos(k.angle), std::sin(k.angle), 0);
            const tsDirectEllipse3 d3(space);
            ASSERT_EQ(d3.status(), 5);
            expect_same3(d3.centre(), d3.major_axis(), d3.semi_major(), d3.semi_minor(), c0, m0, a,
                         b, tol, angle_tol);
            giPoint3 c;
            giUnitVec3 m;
            double a3 = 0, b3 = 0, e3 = 0;
            ASSERT_EQ(tsLeastSquareEvaluator::evaluate_ellipse2(
                          motion * giPoint3(-1, 4, 0), motion * giUnitVec3(0.9, 0.4, 0),
                          motion * giUnitVec3(-0.4 + 1e-7, 0.9, 0), lifted, c, m, a3, b3, e3),
                      1);
            expect_same3(c, m, a3, b3, c0, m0, a, b, tol, angle_tol);
            EXPECT_NEAR(e3, 0.25, tol);
        }
    }
}

// Noisy points: the fit is the least-squares solution (an independent
// Gauss-Newton over the ellipse and every foot parameter); the fit moves with
// the points and repeats bit for bit.
TEST(EllipseFit, NoisyFitIsTheLeastSquaresSolutionInAnyPose) {
    const struct { double ratio, arc, angle; } cases[] = {{1.01, 360, 0.5}, {10, 120, 0.3}};
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.ratio << " " << k.arc);
        const double a = 12, tol = 1e-8 * a;
        doublecoDynArr ts;
        const giPoint2coDynArr pts =
            ellipse_points(30, giPoint2(5, -4), a, a / k.ratio, k.angle, k.arc, 1e-3 * a, 11, &ts);
        const int n = pts.size();
        const auto residuals = [&](const testsupport::LongVector& p, testsupport::LongVector& r) {
            const long double ct = std::cos(p[4]), st = std::sin(p[4]);
            for (int i = 0; i < n; ++i) {
                const long double x = p[2] * std::cos(p[5 + i]), y = p[3] * std::sin(p[5 + i]);
                r[2 * i] = pts[i].x() - (p[0] + ct * x - st * y);
                r[2 * i + 1] = pts[i].y() - (p[1] + st * x + ct * y);
            }
        };
        testsupport::LongVector p = {5, -4, a, a / k.ratio, k.angle}, r(2 * n);
        for (const double t : ts) p.push_back(t);
        p = testsupport::gauss_newton(residuals, p, 2 * n);
        residuals(p, r);
        long double sum = 0;
        for (const long double v : r) sum += v * v;
        Fit f, again;
        ASSERT_EQ(fit(pts, f), 1);
        const Fit ref{giPoint2(p[0], p[1]), double(p[2]), double(p[3]), double(p[4])};
        expect_same(f, ref, tol, tol / (f.a - f.b));
        EXPECT_NEAR(f.e, std::sqrt(sum / n), 1e-8 * f.e);
        ASSERT_EQ(fit(pts, again), 1);
        EXPECT_TRUE(f == again);

        // Turned, scaled by 2 and moved 1e5: the fit moves with the points.
        const auto move = [&](const giPoint2& q) {
            return giPoint2(1.2 * q.x() - 1.6 * q.y() + 6e4, 1.6 * q.x() + 1.2 * q.y() - 8e4);
        };
        giPoint2coDynArr moved;
        for (const giPoint2& q : pts) moved.append(move(q));
        Fit m;
        ASSERT_EQ(fit(moved, m), 1);
        const double pose_tol = 2 * tol + 1e-13 * 1e5, turn = std::atan2(0.8, 0.6);
        expect_same(m, {move(f.c), 2 * f.a, 2 * f.b, f.t + turn}, pose_tol, pose_tol / (f.a - f.b));
        EXPECT_NEAR(m.e, 2 * f.e, pose_tol);
    }
}

// A 45-degree arc of a thin ellipse with noise: the minimum lies far along a
// flat valley (an ellipse five times too large) that one solver run does not
// finish. The result must be a minimum: a fresh run from it gains nothing.
TEST(EllipseFit, FinishesFlatValleysOfShortNoisyArcs) {
    const giPoint2coDynArr pts = ellipse_points(30, giPoint2(5, -4), 12, 1.2, 0.37, 45, 0.01, 1);
    Fit f;
    ASSERT_EQ(fit(pts, f), 1);
    tsLeastSquareEllipse2 model(pts);
    mlVector again;
    const double mean_square = mlLevenbergMarquardt(model).fit(
        tsLeastSquareEllipse2::parameters_of(f.c, f.a, f.b, f.t), again);
    EXPECT_GE(mean_square, f.e * f.e * (1 - 1e-12));  // the solver's rounding level of S
}

// Too few, non-finite, equal or collinear points and conics that are no
// ellipse (a parabola has no minimum) are refused, outputs kept; the direct
// fit gives its status. The fit in a plane refuses skewed axes, unset points.
TEST(EllipseFit, RefusesBadInputAndLeavesOutputs) {
    giPoint2coDynArr line, equal, parabola;
    giPoint2coDynArr nan_pts(ellipse_points(9, {0, 0}, 5, 3, 0, 360, 0, 1));
    giPoint3coDynArr space;
    for (int i = 0; i < 9; ++i) {
        line.append(giPoint2(1e5 + 0.3 * i, -2e4 - 0.9 * i));
        equal.append(giPoint2(3, -1));
        parabola.append(giPoint2(0.25 * i + 2, (0.25 * i - 1) * (0.25 * i - 1)));
        space.append(giPoint3(nan_pts[i].x(), nan_pts[i].y(), 1));
    }
    nan_pts[4] = giPoint2(NAN, 0);
    const std::pair<giPoint2coDynArr, int> cases[] = {
        {{}, 1},      {ellipse_points(4, {0, 0}, 5, 3, 0, 360, 0, 1), 1},
        {nan_pts, 4}, {line, 4},
        {equal, 4},   {parabola, 4}};
    for (const auto& k : cases) {
        Fit f;
        EXPECT_EQ(fit(k.first, f), 0);
        EXPECT_TRUE(f == Fit());
        const tsDirectEllipse2 direct(k.first);
        EXPECT_EQ(direct.status(), k.second);
        EXPECT_FALSE(direct.centre().is_set());
    }
    giPoint3 c(-7, -7, -7);
    giUnitVec3 m;
    double a = -7;
    const giUnitVec3 x(1, 0, 0), y(0, 1, 0), skewed(0.01, 1, 0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_ellipse2({0, 0, 1}, x, skewed, space, c, m, a, a, a),
              0);
    EXPECT_EQ(tsLeastSquareEvaluator::evaluate_ellipse2({}, x, y, space, c, m, a, a, a), 0);
    EXPECT_TRUE(c == giPoint3(-7, -7, -7) && !m.is_set() && a == -7);
}

}  // namespace
