#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "metrofit/platform/maths/brent.h"
#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/down_hill_simplex.h"
#include "metrofit/platform/maths/function.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
using Vec = std::vector<double>;

// Objectives from lambdas, counting their evaluations.
struct Function1 : mlFunction {
    explicit Function1(std::function<double(double)> g) : f(std::move(g)) {}
    double function(double x) const override { return f(x); }
    std::function<double(double)> f;
};
struct FunctionN : mlFunctionN1 {
    explicit FunctionN(std::function<double(const mlSlice&)> g) : f(std::move(g)) {}
    double function(const mlSlice& x) override { return ++calls, f(x); }
    std::function<double(const mlSlice&)> f;
    int calls = 0;
};

double max_abs_difference(const mlVector& a, const Vec& b) {
    if (a.size() != static_cast<int>(b.size())) return INFINITY;
    double worst = 0.0;
    for (int i = 0; i < a.size(); ++i) worst = std::max(worst, std::fabs(a[i] - b[i]));
    return worst;
}

// max |p(t) - t^k| over the grid, p of degree k - 1: a non-smooth objective
// on which a single Nelder-Mead run stalls short of the minimum.
std::function<double(const mlSlice&)> chebyshev(int k) {
    return [k](const mlSlice& p) {
        double worst = 0.0;
        for (int i = 0; i <= 12; ++i) {
            const double t = std::cos(i * kPi / 12);
            double value = 0.0, power = 1.0;
            for (int j = 0; j < k; ++j, power *= t) value += p[j] * power;
            worst = std::max(worst, std::fabs(value - power));
        }
        return worst;
    };
}

TEST(DownHillSimplex, ReachesKnownMinimaRepeatably) {
    const auto precise = mlDownHillSimplexPrecise;
    const auto rosenbrock = [](const mlSlice& x) {
        return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2);
    };
    const auto nan_beyond = [](const mlSlice& x) {  // undefined for x + y > 1
        return x[0] + x[1] > 1.0 ? NAN : std::pow(x[0] + 2, 2) + std::pow(x[1] + 1, 2);
    };
    const struct {
        std::string name;
        std::function<double(const mlSlice&)> f;
        Vec start, minimum;
        double tolerance;  // in the parameters
        mlDownHillSimplexSpeed speed;
    } cases[] = {
        {"rosenbrock", rosenbrock, {-1.2, 1.0}, {1.0, 1.0}, 1e-12, precise},
        // Minimax polynomials of degree k - 1 for t^k on t = cos(i pi / 12):
        // t^k - T_k(t) / 2^(k-1), the error equioscillating on grid points.
        // Six parameters: each restart gains; without them the error is ~1.
        {"sextic", chebyshev(6), Vec(6), {1.0 / 32, 0, -0.5625, 0, 1.5, 0}, 1e-3, precise},
        // The start simplex reaches into the undefined region; the quick search.
        {"nan region", nan_beyond, {0.95, 0.0}, {-2.0, -1.0}, 1e-5, mlDownHillSimplexQuick},
    };
    for (const auto& c : cases) {
        FunctionN f(c.f);
        const int n = static_cast<int>(c.start.size());
        mlDownHillSimplex simplex(n), other(n);
        mlVector start, x, again;
        start.become(utConvert, c.start.data(), n);
        const double value = simplex.solve(f, start, c.speed);
        simplex.result(x);
        EXPECT_LT(max_abs_difference(x, c.minimum), c.tolerance) << c.name;
        EXPECT_EQ(value, c.f(x.as_slice())) << c.name;
        // Determinism: a second search on a fresh simplex repeats every bit.
        EXPECT_EQ(other.solve(f, start, c.speed), value) << c.name;
        other.result(again);
        EXPECT_EQ(max_abs_difference(again, Vec(x.begin(), x.end())), 0.0) << c.name;
    }
}

TEST(DownHillSimplex, DegenerateInputAndUnboundedObjectivesEndPromptly) {
    FunctionN unbounded([](const mlSlice& x) { return x[0] - x[1]; });
    FunctionN undefined([](const mlSlice&) { return NAN; });
    mlDownHillSimplex simplex(2);
    for (FunctionN* f : {&unbounded, &undefined}) {
        simplex.solve(*f, mlVector{0.0, 0.0}, mlDownHillSimplexPrecise);
        EXPECT_LE(f->calls, 17 * 1000 * 3 + 1);  // 1000 (n + 1) per run, 16 restarts
    }
    // Wrong size: DBL_MAX without an evaluation, the start back.
    unbounded.calls = 0;
    EXPECT_EQ(simplex.solve(unbounded, mlVector{1.0, 2.0, 3.0}, mlDownHillSimplexPrecise), DBL_MAX);
    mlVector back;
    simplex.result(back);
    EXPECT_TRUE(max_abs_difference(back, {1.0, 2.0, 3.0}) == 0.0 && unbounded.calls == 0);
    // Non-finite start: one evaluation at the start.
    EXPECT_TRUE(std::isnan(simplex.solve(unbounded, mlVector{NAN, 0.0}, mlDownHillSimplexQuick)));
    EXPECT_EQ(unbounded.calls, 1);
}

// Known minima inside the bracket; bad brackets or limits give f(b) at b.
TEST(BrentMinimumSearch, KnownMinimaIterationLimitAndBadBrackets) {
    const struct {
        std::function<double(double)> f;
        double a, b, c, minimum, value;
    } cases[] = {
        {[](double x) { return std::pow(x - 0.3, 2) + 1; }, 0.0, 0.5, 1.0, 0.3, 1.0},
        {[](double x) { return std::fabs(x - 0.7); }, 0.0, 0.5, 1.0, 0.7, 0.0},
        // Undefined beyond 0.6: the search must come back.
        {[](double x) { return x > 0.6 ? NAN : std::pow(x - 0.55, 2); }, 0.0, 0.2, 1.0, 0.55, 0.0},
    };
    for (const auto& k : cases) {
        double x = 0.0;
        const double value = ml_brent_minimum_search(Function1(k.f), k.a, k.b, k.c, 1e-8, 100, &x);
        EXPECT_NEAR(x, k.minimum, 1e-6);  // tol 1e-8 relative, kinks included
        EXPECT_NEAR(value, k.value, 1e-8);
        EXPECT_EQ(value, k.f(x));
    }
    const Function1 f([](double x) { return std::cos(x); });
    // A bad bracket or limit gives f(b) at b, whatever was preset; f(b) not
    // below the ends gives the better end, so a preset end is never replaced
    // by a worse point.
    const Function1 up([](double t) { return t; }), down([](double t) { return -t; });
    const struct {
        const mlFunction& f;
        double a, b, c;
        int limit;
        double x;
    } bad[] = {
        {f, 2, 5, 4, 5, 5}, {f, NAN, 3, 4, 5, 3}, {up, 0, 0.25, 1, 5, 0}, {down, 0, 0.25, 1, 5, 1}};
    for (const auto& k : bad) {
        double x = 0.5;
        EXPECT_EQ(ml_brent_minimum_search(k.f, k.a, k.b, k.c, 1e-5, k.limit, &x),
                  k.f.function(k.x));
        EXPECT_EQ(x, k.x);
    }
}

// ---- constrained quadratic -------------------------------------------------

mlMatrix matrix(int rows, int cols, std::initializer_list<double> values) {
    const Vec v(values);
    return mlMatrix(utConvert, v.data(), rows, cols);
}

TEST(ConstrainedQuadratic, KnownActiveSetsAndSingularM) {
    struct Case {
        std::string name;
        mlMatrix M;
        mlVector V, start;
        mlMatrix C;
        mlVector d;
        Vec expected;
        std::vector<int> active;
    };
    const mlMatrix I2(mlMatrixIdentity, 2), flat = matrix(2, 2, {1, 0, 0, 0}), none;
    const mlMatrix sum_le = matrix(1, 2, {1, 1});
    const mlMatrix both = matrix(3, 2, {1, 0, 0, 1, 1, 1});
    const Case cases[] = {
        {"two active", I2, {2, 2}, {0, 0}, both, {1, 0.5, 5}, {1, 0.5}, {0, 1}},
        // Singular M: the direction it does not see does not move.
        {"flat free", flat, {2, 0}, {0, 0.3}, none, {}, {2, 0.3}, {}},
        // Minimisers x = 2, y <= -1: the one nearest the start is (2, -1).
        {"flat pushed", flat, {2, 0}, {0, 0}, sum_le, {1}, {2, -1}, {0}},
        // Below the 1e-7 relative cut a direction counts as unseen.
        {"nearly flat", matrix(2, 2, {1, 0, 0, 1e-9}), {2, 1}, {0, 0}, none, {}, {2, 0}, {}},
    };
    for (const Case& c : cases) {
        mlConstrainedQuadraticMinimiser qp(c.C, c.d, 1);
        mlVector x = c.start;
        ASSERT_EQ(qp.solve(c.M, c.V, x), 1) << c.name;
        EXPECT_LT(max_abs_difference(x, c.expected), 1e-12) << c.name;
        const intcoDynArr& active = qp.active_constraints();
        EXPECT_EQ(std::vector<int>(active.begin(), active.end()), c.active) << c.name;
    }
}

TEST(ConstrainedQuadratic, RefusesBadInput) {
    using Qp = mlConstrainedQuadraticMinimiser;
    const mlMatrix C = matrix(2, 2, {1, 0, 0, 1}), I2(mlMatrixIdentity, 2);
    EXPECT_TRUE(Qp::are_valid(C, {1, 1}) && !Qp::are_valid(C, {1, INFINITY}));
    EXPECT_EQ(Qp::are_valid(mlMatrix(mlMatrixZero, 2, 0), {1, 1}), 0);

    // stage2 from an infeasible, a non-finite or a wrong-sized start, or with
    // M or V of the wrong size or not finite: 0, x untouched.
    Qp qp(C, {1, 1}, 1);
    const mlMatrix I3(mlMatrixIdentity, 3);
    const struct {
        const mlMatrix& M;
        mlVector V, x;
    } bad[] = {{I2, {1, 1}, {2, 0}},
               {I2, {1, 1}, {0, INFINITY}},
               {I2, {NAN, 1}, {0, 0}},
               {I3, {1, 1, 1}, {0, 0}}};
    for (const auto& k : bad) {
        mlVector x = k.x;
        EXPECT_EQ(qp.stage2(k.M, k.V, x), 0);
        EXPECT_EQ(max_abs_difference(x, Vec(k.x.begin(), k.x.end())), 0.0);
    }
}

}  // namespace
