#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/gauss_newton.h"
#include "tests/support/maths_models.h"

namespace {

using testsupport::SphereModel;
using testsupport::Xyz;

// The least-squares sphere by an independent Gauss-Newton in long double.
mlVector reference_sphere(const std::vector<Xyz>& pts, Xyz c, double r) {
    const auto residuals = [&pts](const testsupport::LongVector& p, testsupport::LongVector& d) {
        for (size_t i = 0; i < pts.size(); ++i)
            d[i] = std::hypot(std::hypot(pts[i].x - p[0], pts[i].y - p[1]), pts[i].z - p[2]) - p[3];
    };
    const testsupport::LongVector p =
        testsupport::gauss_newton(residuals, {c.x, c.y, c.z, r}, static_cast<int>(pts.size()));
    return {double(p[0]), double(p[1]), double(p[2]), double(p[3])};
}

double mean_square(mlDistanceLeastSquares& model, const mlVector& p) {
    model.set_parameters(p);
    long double s = 0.0L;
    for (int i = 0; i < model.n_points(); ++i) {
        double d;
        model.get_distance(d, i);
        s += static_cast<long double>(d) * d;
    }
    return static_cast<double>(s / model.n_points());
}

// From a start 20% off the fit lands on the least-squares optimum within
// 1e-12 of the feature's size, returns the mean squared distance there, and
// does so bit for bit on a second call.
TEST(MathsLevenbergMarquardt, ReachesTheLeastSquaresOptimumOfSphereCaps) {
    const struct {
        const char* name;
        Xyz centre;
        double radius, cap, sigma;
    } cases[] = {{"whole", {1, -2, 3}, 25, 3.14159, 0.01},
                 {"hemisphere", {0, 0, 0}, 5, 1.5708, 0.002},
                 {"cap30deg", {10, 20, -5}, 40, 0.5236, 0.005},
                 {"far", {1e4, -5e3, 2e3}, 12, 1.2, 0.001},
                 {"exact", {2, 2, 2}, 3, 1.0, 0.0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto pts = testsupport::sphere_cap_points(200, c.centre, c.radius, c.cap, c.sigma);
        SphereModel model(pts);
        const double off = 0.2 * c.radius;
        const mlVector start = {c.centre.x + off, c.centre.y - off, c.centre.z + off,
                                1.2 * c.radius};
        mlVector result, again;
        const double value = mlLevenbergMarquardt(model).fit(start, result);
        const mlVector ref = reference_sphere(pts, c.centre, c.radius);
        const double size = std::max({std::fabs(c.centre.x), std::fabs(c.centre.y), c.radius});
        ASSERT_EQ(result.size(), 4);
        for (int k = 0; k < 4; ++k) EXPECT_NEAR(result[k], ref[k], 1e-12 * size) << k;
        EXPECT_EQ(mlLevenbergMarquardt(model).fit(start, again), value);  // deterministic
        for (int k = 0; k < 4; ++k) EXPECT_EQ(again[k], result[k]);
        EXPECT_NEAR(value, mean_square(model, result), 1e-13 * value);
        EXPECT_NEAR(model.get_last_square_distance(), value, 1e-12 * value);  // mean of d^2
    }
}

// A 2D line stored over-parameterised: point P and normal n, 2 components
// each, 2 degrees of freedom out of 4 (P slides along the line, n scales), so
// J^T J is singular twice. d = n.(Q - P) / |n|. Normalisation (optional):
// unit n, P the foot of the origin. The scales are given, garbage included.
class Line2Model : public mlDistanceLeastSquares {
   public:
    Line2Model(const std::vector<Xyz>& pts, bool normalise, const mlVector& scales)
        : mlDistanceLeastSquares(4, static_cast<int>(pts.size())),
          pts_(pts),
          norm_(normalise),
          scales_(scales) {}
    int n_independent_parameters() const override { return 2; }
    void parameter_scales(mlVector& s) const override { s = scales_; }
    void normalize_parameters(mlVector& p) const override {
        if (!norm_) return;
        const double l = std::hypot(p[2], p[3]);
        p[2] /= l;
        p[3] /= l;
        const double h = p[0] * p[2] + p[1] * p[3];
        p[0] = h * p[2];
        p[1] = h * p[3];
    }
    void get_distance(double& d, int i) const override {
        mlVector g;
        get_distance_and_gradient(d, g, i);
    }
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
        const mlVector& p = parameters();
        const double l = std::hypot(p[2], p[3]), e[2] = {p[2] / l, p[3] / l};
        const double w[2] = {pts_[i].x - p[0], pts_[i].y - p[1]};
        d = e[0] * w[0] + e[1] * w[1];
        for (int k = 0; k < 2; ++k) {
            g[k] = -e[k];
            g[k + 2] = (w[k] - d * e[k]) / l;
        }
    }

   private:
    const std::vector<Xyz>& pts_;
    bool norm_;
    mlVector scales_;
};

// The least-squares line is known in closed form: through the centroid, at
// the angle 0.5 atan2(2 Sxy, Sxx - Syy) of the centred second moments. The
// fit must find it with and without normalisation, whatever the scales, and
// come back in canonical form when the model has one.
TEST(MathsLevenbergMarquardt, FitsAnOverParameterisedLineHonouringNormalisationAndScales) {
    testsupport::Rng rng(11);
    std::vector<Xyz> pts;
    double mx = 0, my = 0, sxx = 0, syy = 0, sxy = 0;
    for (int i = 0; i < 120; ++i) {  // along (0.8, 0.6) through (5, -3)
        const double t = rng.uniform(-10, 10);
        pts.push_back({5 + 0.8 * t + rng.normal(0.01), -3 + 0.6 * t + rng.normal(0.01), 0});
        mx += pts.back().x / 120;
        my += pts.back().y / 120;
    }
    for (const Xyz& q : pts) {
        sxx += (q.x - mx) * (q.x - mx);
        syy += (q.y - my) * (q.y - my);
        sxy += (q.x - mx) * (q.y - my);
    }
    const double angle = 0.5 * std::atan2(2 * sxy, sxx - syy);
    const double nan = std::nan("");
    for (const mlVector& scales :
         {mlVector{1, 1, 1, 1}, mlVector{1, 1, 1e-3, 1e3}, mlVector{0, -1, nan, 1e6}}) {
        for (const bool normalise : {true, false}) {
            Line2Model model(pts, normalise, scales);
            mlVector r;
            mlLevenbergMarquardt(model).fit({4, -2, -0.5, 1.2}, r);
            const double l = std::hypot(r[2], r[3]);
            EXPECT_NEAR((r[2] * std::cos(angle) + r[3] * std::sin(angle)) / l, 0.0,
                        1e-14);                                                      // n normal
            EXPECT_NEAR(((mx - r[0]) * r[2] + (my - r[1]) * r[3]) / l, 0.0, 1e-11);  // 1e-12 x 10
            if (normalise) {
                EXPECT_NEAR(l, 1.0, 1e-15);
                EXPECT_NEAR(r[0] * r[3] - r[1] * r[2], 0.0, 1e-13);  // P on the normal
            }
        }
    }
}

// A sphere whose gradient points uphill (no step can be accepted), or whose
// distances are NaN for radii above 30 (such trials count as worse).
class BrokenSphere : public SphereModel {
   public:
    BrokenSphere(const std::vector<Xyz>& pts, bool uphill) : SphereModel(pts), uphill_(uphill) {}
    void get_distance(double& d, int i) const override {
        SphereModel::get_distance(d, i);
        if (!uphill_ && parameters()[3] > 30.0) d = std::nan("");
    }
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
        SphereModel::get_distance_and_gradient(d, g, i);
        get_distance(d, i);
        for (int k = 0; k < 4 && uphill_; ++k) g[k] = -g[k];
    }

   private:
    bool uphill_;
};

TEST(MathsLevenbergMarquardt, NeverReturnsWorseThanStartAndRefusesBadStarts) {
    const auto pts = testsupport::sphere_cap_points(100, {1, 2, 3}, 20.0, 2.0, 0.01);
    const mlVector optimum = reference_sphere(pts, {1, 2, 3}, 20.0);
    SphereModel sphere(pts);
    mlVector result;
    EXPECT_LE(mlLevenbergMarquardt(sphere).fit(optimum, result), mean_square(sphere, optimum));
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(result[k], optimum[k], 1e-12 * 20);

    BrokenSphere uphill(pts, true), fragile(pts, false);
    const mlVector start = {2, 3, 4, 25};
    EXPECT_EQ(mlLevenbergMarquardt(uphill).fit(start, result), mean_square(uphill, start));
    for (int k = 0; k < 4; ++k) EXPECT_EQ(result[k], start[k]);

    const double value = mlLevenbergMarquardt(fragile).fit({1, 2, 3, 29.0}, result);
    EXPECT_LE(value, mean_square(fragile, {1, 2, 3, 29.0}));
    EXPECT_LE(result[3], 30.0);

    const double nan = std::nan("");  // wrong size, NaN, NaN distance at the start
    for (const mlVector& bad :
         {mlVector{1, 2, 3}, mlVector{1, 2, nan, 20}, mlVector{1, 2, 3, 40}}) {
        mlVector untouched = {-1, -1};
        EXPECT_EQ(mlLevenbergMarquardt(fragile).fit(bad, untouched), DBL_MAX);
        EXPECT_EQ(untouched.size(), 2);
    }
}

// Uniform points over the whole sphere give J^T J / n = diag(1/3, 1/3, 1/3, 1),
// so the 4th eigenvalue is 1/3 and the measure sqrt(1/3); shrinking caps tell
// the centre and the radius apart less and less.
TEST(MathsPointDistributionQuality, FallsAsTheCapShrinks) {
    double previous = 1e9;
    for (const double cap : {3.14159, 1.5708, 0.8, 0.3}) {
        const auto pts = testsupport::sphere_cap_points(2000, {0, 1, 2}, 5.0, cap, 0.0);
        SphereModel model(pts);
        const double q = model.point_distribution_quality({0, 1, 2, 5});
        if (cap > 3) {
            EXPECT_NEAR(q, std::sqrt(1.0 / 3.0), 0.03);  // sampling, n = 2000
        }
        EXPECT_LT(q, previous) << cap;
        EXPECT_GT(q, 0.0);
        previous = q;
    }
    const auto three = testsupport::sphere_cap_points(3, {0, 1, 2}, 5.0, 3.0, 0.0);
    SphereModel few(three);
    EXPECT_EQ(few.point_distribution_quality({0, 1, 2, 5}), 0.0);  // 3 points, 4 freedoms
    EXPECT_EQ(SphereModel(three).point_distribution_quality({0, 1, 2}), 0.0);  // wrong size
}

}  // namespace
