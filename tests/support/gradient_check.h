// Checks a least-squares model's derivatives and canonical form:
//
//   expect_gradient_matches(model, p, rel_tol)
//
// With q = normalize_parameters(p):
// - normalize_parameters is idempotent: normalising q again moves no entry by
//   more than a few roundings of the vector's largest entry;
// - it keeps the feature: every |d_i| at q equals |d_i| at p (to 1e-12 of the
//   scale below), so pass a p that describes the same feature in any of its
//   representations (a flipped direction, an axis of other length where the
//   distance ignores it);
// - at q, get_distance agrees with the distance of get_distance_and_gradient,
//   and every gradient entry j agrees with the central difference
//     (d_i(N(q + h_j e_j)) - d_i(N(q - h_j e_j))) / (2 h_j),
//   h_j = 1e-6 max(1, |q_j|), N = normalize_parameters, within
//   rel_tol * max(1, |gradient_i|). Each trial goes through N, as in the
//   solver, so a model whose normal or axis is kept at unit length is checked
//   along the directions the solver can move it in; choose q away from the
//   branch cuts of its canonical form (a sign flip at a zero component).
// The model is left holding q.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/vector.h"

namespace testsupport {

namespace gradient_check_detail {

inline std::vector<double> distances(mlDistanceLeastSquares& model, const mlVector& v) {
    model.set_parameters(v);
    std::vector<double> d(model.n_points());
    for (int i = 0; i < model.n_points(); ++i) model.get_distance(d[i], i);
    return d;
}

inline double largest_entry(const mlVector& v) {
    double m = 0.0;
    for (const double x : v) m = std::max(m, std::abs(x));
    return m;
}

}  // namespace gradient_check_detail

inline void expect_gradient_matches(mlDistanceLeastSquares& model, const mlVector& p,
                                    double rel_tol) {
    namespace detail = gradient_check_detail;
    const int np = model.n_parameters();
    ASSERT_EQ(p.size(), np);
    mlVector q(p);
    model.normalize_parameters(q);
    ASSERT_EQ(q.size(), np);
    const double scale = std::max(1.0, detail::largest_entry(q));

    mlVector twice(q);
    model.normalize_parameters(twice);
    for (int j = 0; j < np; ++j)
        EXPECT_NEAR(twice[j], q[j], 8 * DBL_EPSILON * scale) << "normalising twice, entry " << j;

    const std::vector<double> at_p = detail::distances(model, p);
    const std::vector<double> at_q = detail::distances(model, q);
    for (int i = 0; i < model.n_points(); ++i)
        EXPECT_NEAR(std::abs(at_q[i]), std::abs(at_p[i]), 1e-12 * scale)
            << "normalising changes |d| of point " << i;

    // Central differences of every point's distance, parameter by parameter.
    std::vector<std::vector<double>> fd(np);
    for (int j = 0; j < np; ++j) {
        const double h = 1e-6 * std::max(1.0, std::abs(q[j]));
        mlVector plus(q), minus(q);
        plus[j] += h;
        minus[j] -= h;
        model.normalize_parameters(plus);
        model.normalize_parameters(minus);
        const std::vector<double> dp = detail::distances(model, plus);
        const std::vector<double> dm = detail::distances(model, minus);
        fd[j].resize(model.n_points());
        for (int i = 0; i < model.n_points(); ++i) fd[j][i] = (dp[i] - dm[i]) / (2 * h);
    }

    model.set_parameters(q);
    for (int i = 0; i < model.n_points(); ++i) {
        double d = 0.0, d_only = 0.0;
        mlVector g(mlVectorZero, np);
        model.get_distance_and_gradient(d, g, i);
        model.get_distance(d_only, i);
        EXPECT_NEAR(d_only, d, 1e-12 * scale) << "get_distance disagrees at point " << i;
        ASSERT_EQ(g.size(), np);
        const double tol = rel_tol * std::max(1.0, detail::largest_entry(g));
        for (int j = 0; j < np; ++j)
            EXPECT_NEAR(g[j], fd[j][i], tol) << "gradient entry " << j << " of point " << i;
    }
}

}  // namespace testsupport

using testsupport::expect_gradient_matches;
