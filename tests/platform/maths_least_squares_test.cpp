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

}  // namespace
