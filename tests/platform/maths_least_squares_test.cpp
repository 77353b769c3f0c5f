#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <ostream>
#include <vector>

#include "metrofit/platform/maths/least_squares.h"
#include "tests/support/maths_models.h"

namespace {

using testsupport::SphereModel;
using testsupport::Xyz;

// Independent reference: Gauss-Newton on the sphere, normal equations built
// and solved (Gauss elimination with partial pivoting) in long double,
// iterated until the step stops shrinking.
mlVector reference_sphere(const std::vector<Xyz>& pts, Xyz c, double r) {
    long double p[4] = {c.x, c.y, c.z, r}, last = 1e300L;
    for (int it = 0; it < 100; ++it) {
        long double a[4][5] = {}, step[4], size = 0.0L;
        for (const Xyz& q : pts) {
            const long double v[3] = {q.x - p[0], q.y - p[1], q.z - p[2]};
            const long double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            const long double j[5] = {-v[0] / l, -v[1] / l, -v[2] / l, -1.0L, p[3] - l};
            for (int s = 0; s < 4; ++s)
                for (int t = 0; t < 5; ++t) a[s][t] += j[s] * j[t];
        }
        for (int k = 0; k < 4; ++k) {
            int piv = k;
            for (int s = k + 1; s < 4; ++s)
                if (std::fabs(a[s][k]) > std::fabs(a[piv][k])) piv = s;
            std::swap(a[k], a[piv]);
            for (int s = k + 1; s < 4; ++s)
                for (int t = 4; t >= k; --t) a[s][t] -= a[s][k] / a[k][k] * a[k][t];
        }
        for (int k = 3; k >= 0; --k) {
            step[k] = a[k][4];
            for (int t = k + 1; t < 4; ++t) step[k] -= a[k][t] * step[t];
            p[k] += (step[k] /= a[k][k]);
            size = std::max(size, std::fabs(step[k]));
        }
        if (size >= last) break;
        last = size;
    }
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

struct SphereCase {
    const char* name;
    Xyz centre;
    double radius, cap, sigma;
};
void PrintTo(const SphereCase& c, std::ostream* os) { *os << c.name; }

class MathsLevenbergMarquardtSphere : public ::testing::TestWithParam<SphereCase> {};

// From a start 20% off the fit lands on the least-squares optimum within
// 1e-12 of the feature's size, returns the mean squared distance there, and
// does so bit for bit on a second call.
TEST_P(MathsLevenbergMarquardtSphere, ReachesTheLeastSquaresOptimum) {
    const SphereCase& c = GetParam();
    const auto pts = testsupport::sphere_cap_points(200, c.centre, c.radius, c.cap, c.sigma);
    SphereModel model(pts);
    const double off = 0.2 * c.radius;
    mlVector result;
    const double value = mlLevenbergMarquardt(model).fit(
        {c.centre.x + off, c.centre.y - off, c.centre.z + off, 1.2 * c.radius}, result);
    const mlVector ref = reference_sphere(pts, c.centre, c.radius);
    const double size = std::max({std::fabs(c.centre.x), std::fabs(c.centre.y), c.radius});
    ASSERT_EQ(result.size(), 4);
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(result[k], ref[k], 1e-12 * size) << k;
    mlVector again;  // deterministic: a second fit is bit-identical
    EXPECT_EQ(mlLevenbergMarquardt(model).fit(
                  {c.centre.x + off, c.centre.y - off, c.centre.z + off, 1.2 * c.radius}, again),
              value);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(again[k], result[k]);
    EXPECT_NEAR(value, mean_square(model, result), 1e-13 * value);
    EXPECT_NEAR(model.get_last_square_distance(), value, 1e-12 * value);  // base: mean of d^2
}

INSTANTIATE_TEST_SUITE_P(MathsCaps, MathsLevenbergMarquardtSphere,
                         ::testing::Values(SphereCase{"whole", {1, -2, 3}, 25, 3.14159, 0.01},
                                           SphereCase{"hemisphere", {0, 0, 0}, 5, 1.5708, 0.002},
                                           SphereCase{"cap30deg", {10, 20, -5}, 40, 0.5236, 0.005},
                                           SphereCase{"far", {1e4, -5e3, 2e3}, 12, 1.2, 0.001},
                                           SphereCase{"exact", {2, 2, 2}, 3, 1.0, 0.0}),
                         [](const auto& info) { return std::string(info.param.name); });

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

// Gradient pointing uphill: no step can be accepted.
class UphillSphere : public SphereModel {
   public:
    using SphereModel::SphereModel;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
        SphereModel::get_distance_and_gradient(d, g, i);
        for (int k = 0; k < 4; ++k) g[k] = -g[k];
    }
};

// Distances are NaN for radii above 30: such trials count as worse.
class FragileSphere : public SphereModel {
   public:
    using SphereModel::SphereModel;
    void get_distance(double& d, int i) const override {
        SphereModel::get_distance(d, i);
        if (parameters()[3] > 30.0) d = std::nan("");
    }
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
        SphereModel::get_distance_and_gradient(d, g, i);
        get_distance(d, i);
    }
};

TEST(MathsLevenbergMarquardt, NeverReturnsWorseThanStartAndRefusesBadStarts) {
    const auto pts = testsupport::sphere_cap_points(100, {1, 2, 3}, 20.0, 2.0, 0.01);
    const mlVector optimum = reference_sphere(pts, {1, 2, 3}, 20.0);
    SphereModel sphere(pts);
    mlVector result;
    EXPECT_LE(mlLevenbergMarquardt(sphere).fit(optimum, result), mean_square(sphere, optimum));
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(result[k], optimum[k], 1e-12 * 20);

    UphillSphere uphill(pts);
    const mlVector start = {2, 3, 4, 25};
    EXPECT_EQ(mlLevenbergMarquardt(uphill).fit(start, result), mean_square(uphill, start));
    for (int k = 0; k < 4; ++k) EXPECT_EQ(result[k], start[k]);

    FragileSphere fragile(pts);
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
