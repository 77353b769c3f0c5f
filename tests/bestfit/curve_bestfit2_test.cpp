// The profile and its bestfit: foot points, the text form's refusals, known
// motions of a cam profile, determinism and bad input.
#include "metrofit/bestfit/curve_bestfit2.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <vector>

#include "tests/support/random.h"

namespace {

// A closed cam, counterclockwise (normals inside): a flat, a semicircle of
// radius 10 about (50, 10), a sloped flat and a wide arc back.
const char* kCam =
    "# cam\n"
    "line 0 0 50 0\n"
    "arc 50 0 60 10 50 20   # nose\n"
    "line 50,20,20,25\n"
    "arc 20 25 3 18 0 0\n";

tsCurve2 cam() {
    tsCurve2 c;
    std::string error;
    EXPECT_EQ(tsCurve2::parse(kCam, c, error), 1) << error;
    return c;
}

struct Sample {
    giPoint2 point;    // on the curve
    giVector2 normal;  // the curve's normal there
};

// n points spread evenly over the elements, by parameter, ends excluded.
std::vector<Sample> sample(const tsCurve2& c, int n) {
    std::vector<Sample> out;
    for (int k = 0; k < n; ++k) {
        const tsCurveElement2& e = c.element(k % c.size());
        const double t = (k / c.size() + 0.5) / ((n + c.size() - 1) / c.size());
        if (e.type == tsCURVE_LINE2) {
            const giVector2 d = e.end - e.start;
            out.push_back({e.start + d * t, giVector2(-d.y(), d.x()) / d.length()});
        } else {
            const giVector2 s = e.start - e.centre;
            const double a = std::atan2(s.y(), s.x()) + t * e.sweep;
            const giVector2 r(std::cos(a), std::sin(a));
            out.push_back({e.centre + r * e.radius, e.sweep > 0 ? r * -1.0 : r});
        }
    }
    return out;
}

giXform2 motion(double degrees, double dx, double dy, const giPoint2& about = giPoint2(0, 0)) {
    return giXform2(giVector2(dx, dy)) *
           giXform2::rotation(about, giAngle(giANGLE_DEGREES, degrees));
}

// Probed from outside (against the normal), moved by `m`, with noise along
// the normal.
std::vector<tsFitPoint2coPrf> probes(const std::vector<Sample>& s, const giXform2& m, double radius,
                                     double sigma, std::uint64_t seed = 7) {
    testsupport::Rng rng(seed);
    std::vector<tsFitPoint2coPrf> out;
    for (const Sample& p : s) {
        const giVector2 a = p.normal * -1.0;
        const giPoint2 centre = p.point + a * (radius + rng.normal(sigma));
        out.push_back(tsFitPoint2coPrf(new tsProbedPoint2(m * centre, giUnitVec2(m * a), radius)));
    }
    return out;
}

// A fit of those probes, each within the band [lower, upper] when given.
tsCurveBestfit2 fitter(const std::vector<Sample>& s, const giXform2& m, double radius, double sigma,
                       std::uint64_t seed = 7, double lower = -DBL_MAX, double upper = DBL_MAX) {
    tsCurveBestfit2 fit;
    for (const tsFitPoint2coPrf& p : probes(s, m, radius, sigma, seed)) {
        if (lower > -DBL_MAX || upper < DBL_MAX)
            fit.add_point(p, lower, upper, 1.0);
        else
            fit.add_point(p);
    }
    return fit;
}

// The largest distance by which X m moves a nominal point from itself.
double residual_motion(const giXform2& X, const giXform2& m, const std::vector<Sample>& s) {
    double worst = 0.0;
    for (const Sample& p : s) worst = std::max(worst, (X * (m * p.point) - p.point).length());
    return worst;
}

struct Outcome {
    int ok, status;
    giXform2 X;
    double max_distance, max_signed, min_signed;
    int unprojected;
};

Outcome run(tsCurveBestfit2& fit, const tsFitPointProjector2* projector, double tolerance = 1e-12) {
    Outcome r{};
    fit.set_projector(projector);
    r.ok = fit.fit(tolerance, r.X, r.max_distance, r.max_signed, r.min_signed, r.unprojected);
    r.status = fit.status();
    return r;
}

TEST(Curve2, FootPointsOfKnownShapes) {
    const tsCurve2 c = cam();
    ASSERT_EQ(c.size(), 4);
    EXPECT_EQ(c.closed(), 1);
    const double h = std::sqrt(0.5);
    const struct {
        double x, y;    // the point
        double fx, fy;  // its nearest foot
        double nx, ny;  // the curve normal there
        int element;
    } cases[] = {
        {20, 3, 20, 0, 0, 1, 0},          // inside, above the flat
        {20, -4, 20, 0, 0, 1, 0},         // outside, below it: same foot and normal
        {65, 10, 60, 10, -1, 0, 1},       // beyond the nose: its tip, normal inwards
        {54, 13, 58, 16, -0.8, -0.6, 1},  // inside the nose, p - c = (4, 3)
        // Outside the corner at (0, 0): a joint foot, its normal along p - s
        // turned to the inside.
        {-1, -1, 0, 0, h, h, 3},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.x << " " << k.y);
        tsCurveFoot2 foot;
        ASSERT_EQ(c.nearest(giPoint2(k.x, k.y), foot), 1);
        EXPECT_NEAR(foot.position.x(), k.fx, 1e-12);
        EXPECT_NEAR(foot.position.y(), k.fy, 1e-12);
        EXPECT_NEAR(foot.normal.x(), k.nx, 1e-12);
        EXPECT_NEAR(foot.normal.y(), k.ny, 1e-12);
        EXPECT_EQ(foot.element, k.element);
    }
    // An open profile: past its ends nothing projects; the arc's centre has
    // no foot on the arc; above it only the near foot lies on the arc.
    tsCurve2 open;
    ASSERT_EQ(open.add_line(giPoint2(0, 0), giPoint2(10, 0)), 1);
    tsCurveFoot2coDynArr feet;
    EXPECT_EQ(open.project_all(giPoint2(-1, 1), feet), 0);
    EXPECT_EQ(open.project_all(giPoint2(11, -1), feet), 0);
    ASSERT_EQ(open.add_arc(giPoint2(10, 0), giPoint2(15, 5), giPoint2(20, 0)), 1);
    EXPECT_EQ(open.closed(), 0);
    EXPECT_EQ(open.project_all(giPoint2(15, 0), feet), 0);
    ASSERT_EQ(open.project_all(giPoint2(15, 3), feet), 1);
    EXPECT_NEAR(feet[0].position.y(), 5.0, 1e-12);
    EXPECT_NEAR(feet[0].distance, 2.0, 1e-12);
}

TEST(Curve2, ParseRefusesBadTextNamingTheLine) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"", "no element"},
        {"# only a comment\n", "no element"},
        {"line 0 0 1 0\ncircle 0 0 1\n", "line 2: unknown element 'circle'"},
        {"line 0 0 1\n", "line 1: line needs 4 numbers"},
        {"arc 0 0 1 1 2 0 5\n", "line 1: arc needs 6 numbers"},
        {"line 0 0 x 0\n", "line 1: 'x' is not a finite number"},
        {"line 0 0 inf 0\n", "line 1: 'inf' is not a finite number"},
        {"line 1 1 1 1\n", "line 1: the line has no length"},
        {"arc 0 0 1 1 2 2\n", "line 1: the arc's three points are on one line"},
        {"line 0 0 1 0\n\nline 1.001 0 2 0\n", "line 3: the line does not start where"},
    };
    for (const auto& k : cases) {
        tsCurve2 c;
        ASSERT_EQ(c.add_line(giPoint2(5, 5), giPoint2(6, 5)), 1);
        std::string error;
        EXPECT_EQ(tsCurve2::parse(k.text, c, error), 0) << k.text;
        EXPECT_NE(error.find(k.message), std::string::npos) << k.text << " -> " << error;
        EXPECT_EQ(c.size(), 0) << k.text;
    }
}

TEST(CurveBestfit2, RecoversAKnownMotion) {
    const tsCurve2 c = cam();
    const struct {
        const char* name;
        double degrees, dx, dy, radius, sigma, offset;
        int n;
        double bound;
    } cases[] = {
        {"exact", 3, 1, -0.5, 0, 0, 0, 200, 1e-9 * 60},
        {"exact, probe radius 2", -4, -0.7, 0.7, 2, 0, 0, 200, 1e-9 * 60},
        // The motion of a fit on n points with noise sigma moves a point of a
        // profile 60 across by a few sigma / sqrt(n): 6 sigma / sqrt(n) bounds it.
        {"noise", 2, 1, 0, 1, 0.002, 0, 400, 6 * 0.002 / 20},
        // Far from the origin the turn about the part must survive.
        {"far from the origin", 3, 1, 1, 0.5, 0, 1e4, 200, 1e-9 * 1e4},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        // The cam moved by the offset: arcs through their middle points.
        tsCurve2 moved;
        const giVector2 off(k.offset, k.offset);
        for (int i = 0; i < c.size(); ++i) {
            const tsCurveElement2& e = c.element(i);
            if (e.type == tsCURVE_LINE2) {
                moved.add_line(e.start + off, e.end + off);
                continue;
            }
            const giVector2 r = e.start - e.centre;
            const double a = std::atan2(r.y(), r.x()) + 0.5 * e.sweep;
            moved.add_arc(e.start + off,
                          e.centre + off + giVector2(std::cos(a), std::sin(a)) * e.radius,
                          e.end + off);
        }
        const tsCurveProjectorForFitting2 far(&moved);
        const std::vector<Sample> s = sample(moved, k.n);
        const giXform2 m = motion(k.degrees, k.dx, k.dy, giPoint2(k.offset, k.offset));
        tsCurveBestfit2 fit = fitter(s, m, k.radius, k.sigma);
        const Outcome r = run(fit, &far, 1e-11 * std::max(1.0, k.offset));
        EXPECT_EQ(r.ok, 1);
        EXPECT_EQ(r.unprojected, 0);
        EXPECT_LT(residual_motion(r.X, m, s), k.bound);
        EXPECT_TRUE(k.sigma > 0 || r.max_distance < k.bound) << r.max_distance;
        EXPECT_NEAR(r.X.determinant(), 1.0, 1e-12);  // rigid
    }
}

// A locked pivot stays put (a pure turn about it is recovered); a locked
// axis leaves a pure slide along it; a band [0, inf) lifts the deviations
// that least squares leaves below 0, and a band narrower than the noise is
// reported as over-determined.
TEST(CurveBestfit2, LocksAndBandsHold) {
    const tsCurve2 c = cam();
    const tsCurveProjectorForFitting2 projector(&c);
    const std::vector<Sample> s = sample(c, 200);
    const giPoint2 pivot(50, 10);
    tsCurveBestfit2 turned = fitter(s, motion(5, 0, 0, pivot), 1, 0);
    turned.lock_origin(pivot, pivot);
    Outcome r = run(turned, &projector);
    EXPECT_EQ(r.ok, 1);
    EXPECT_LT(residual_motion(r.X, motion(5, 0, 0, pivot), s), 1e-9 * 60);
    tsCurveBestfit2 slid = fitter(s, motion(2, 0.8, 0), 0.5, 0);
    slid.lock_axis(giVector2(1, 0), giVector2(1, 0));
    r = run(slid, &projector);
    EXPECT_EQ(r.ok, 1);
    EXPECT_NEAR(r.X(0, 0), 1.0, 1e-15);
    EXPECT_NEAR(r.X(1, 0), 0.0, 1e-15);
    EXPECT_NEAR(r.X(1, 2), 0.0, 1e-12);

    std::vector<Sample> open;
    for (std::size_t i = 0; i < s.size(); ++i)
        if (i % 4 < 2) open.push_back(s[i]);
    const giXform2 m = motion(1, 0.3, 0.2);
    tsCurveBestfit2 plain = fitter(open, m, 1, 0.01);
    EXPECT_LT(run(plain, &projector, 1e-10).min_signed, -0.01);
    tsCurveBestfit2 banded = fitter(open, m, 1, 0.01, 7, 0.0, DBL_MAX);
    r = run(banded, &projector, 1e-10);
    EXPECT_EQ(r.ok, 1);
    EXPECT_GT(r.min_signed, -1e-7);
    EXPECT_EQ(banded.overdetermined_constraints().size(), 0);
    tsCurveBestfit2 narrow = fitter(s, m, 0, 0.05, 9, -0.01, 0.01);
    EXPECT_EQ(run(narrow, &projector, 1e-10).ok, 1);
    EXPECT_GT(narrow.overdetermined_constraints().size(), 0);
}

TEST(CurveBestfit2, RefusesBadInputWithAStatus) {
    const tsCurve2 c = cam();
    const tsCurveProjectorForFitting2 projector(&c);
    const tsProjectorForFitting2 nothing;
    tsCurve2 open;
    open.add_line(giPoint2(0, 0), giPoint2(10, 0));
    const tsCurveProjectorForFitting2 short_line(&open);
    const std::vector<Sample> s = sample(c, 40);
    struct Case {
        const char* name;
        int points;  // of the cam's samples
        const tsFitPointProjector2* projector;
        double tolerance;
        bool zero_axis;
        int status;
    } cases[] = {
        {"no points", 0, &projector, 1e-9, false, tsCURVE_BESTFIT2_NO_POINTS},
        {"no projector", 40, nullptr, 1e-9, false, tsCURVE_BESTFIT2_NO_PROJECTOR},
        {"negative tolerance", 40, &projector, -1, false, tsCURVE_BESTFIT2_BAD_TOLERANCE},
        {"NaN tolerance", 40, &projector, NAN, false, tsCURVE_BESTFIT2_BAD_TOLERANCE},
        {"plain projector", 40, &nothing, 1e-9, false, tsCURVE_BESTFIT2_NOTHING_PROJECTED},
        {"no point over the line", 0, &short_line, 1e-9, false, tsCURVE_BESTFIT2_NOTHING_PROJECTED},
        {"lock without direction", 40, &projector, 1e-9, true, tsCURVE_BESTFIT2_STEP_FAILED},
    };
    for (const Case& k : cases) {
        tsCurveBestfit2 fit =
            fitter(std::vector<Sample>(s.begin(), s.begin() + k.points), motion(1, 0.1, 0), 0, 0);
        if (k.points == 0 && k.projector == &short_line)
            fit.add_point(tsFitPoint2coPrf(new tsProbedPoint2(giPoint2(30, 1), giUnitVec2(), 0)));
        if (k.zero_axis) fit.lock_axis(giVector2(0, 0), giVector2(0, 0));
        Outcome r = run(fit, k.projector, k.tolerance);
        EXPECT_EQ(r.ok, 0) << k.name;
        EXPECT_EQ(r.status, k.status) << k.name;
        EXPECT_TRUE(r.X.is_identity()) << k.name;
    }
}

TEST(CurveBestfit2, IsDeterministicAndIgnoresPointOrder) {
    const tsCurve2 c = cam();
    const tsCurveProjectorForFitting2 projector(&c);
    std::vector<Sample> s = sample(c, 120);
    const giXform2 m = motion(2, -0.5, 0.4);
    tsCurveBestfit2 a = fitter(s, m, 1, 0.003), b = fitter(s, m, 1, 0.003);
    const Outcome ra = run(a, &projector), rb = run(b, &projector);
    EXPECT_TRUE(equal(ra.X, rb.X, 0.0));
    EXPECT_EQ(ra.max_distance, rb.max_distance);
    // One object fitted twice, with a lock whose halves differ: the steps
    // re-base the lock, and the second fit still starts as the first.
    tsCurveBestfit2 again = fitter(s, m, 1, 0.003);
    again.lock_origin(m * giPoint2(50, 10), giPoint2(50, 10));
    const Outcome first = run(again, &projector), second = run(again, &projector);
    EXPECT_TRUE(equal(first.X, second.X, 0.0));
    // Reversed order with the same noise per point: the same fit to rounding.
    const std::vector<tsFitPoint2coPrf> points = probes(s, m, 1, 0.003);
    tsCurveBestfit2 reversed;
    for (auto it = points.rbegin(); it != points.rend(); ++it) reversed.add_point(*it);
    EXPECT_TRUE(equal(ra.X, run(reversed, &projector).X, 1e-12));
}

}  // namespace
