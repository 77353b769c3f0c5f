#include "metrofit/platform/maths/function.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <utility>

namespace {

// Central differences balance truncation (step^2) against rounding
// (eps / step for a first derivative, eps / step^2 for a second one): the best
// relative steps are eps^(1/3) and eps^(1/4).
const double kFirstStep = std::cbrt(DBL_EPSILON);
const double kSecondStep = std::sqrt(std::sqrt(DBL_EPSILON));

// A step of relative size `relative` at x, rounded so that x + h and x - h are
// exact distances h away from x as far as the doubles allow (the difference
// quotient then divides by the step actually taken).
double step_at(double x, double relative) {
    const double h = relative * std::max(std::fabs(x), 1.0);
    const volatile double moved = x + h;
    return moved - x;
}

}  // namespace

double mlFunction::function_derivative(int order, double x) const {
    switch (order) {
        case 0:
            return function(x);
        case 1: {
            const double h = step_at(x, kFirstStep);
            return (function(x + h) - function(x - h)) / (2.0 * h);
        }
        case 2: {
            const double h = step_at(x, kSecondStep);
            return (function(x + h) - 2.0 * function(x) + function(x - h)) / (h * h);
        }
        default:
            return 0.0;
    }
}

mlFunction::~mlFunction() = default;

void mlFunctionN1::gradient(const mlSlice& x, mlVector& g) {
    const int n = x.size();
    mlVector at(x), result(mlVectorZero, n);
    for (int i = 0; i < n; ++i) {
        const double xi = x[i], h = step_at(xi, kFirstStep);
        at[i] = xi + h;
        const double up = function(at.as_slice());
        at[i] = xi - h;
        const double down = function(at.as_slice());
        at[i] = xi;
        result[i] = (up - down) / (2.0 * h);
    }
    g = std::move(result);
}

void mlFunctionN1::hessian(const mlSlice& x, mlMatrix& h) {
    const int n = x.size();
    mlMatrix result(mlMatrixZero, n, n);
    mlVector at(x), up, down;
    // Row i: the change of the gradient along coordinate i. The gradient may
    // be exact (a derived class) or itself a difference quotient, so the
    // outer step is the larger, second-derivative one.
    for (int i = 0; i < n; ++i) {
        const double xi = x[i], step = step_at(xi, kSecondStep);
        at[i] = xi + step;
        gradient(at.as_slice(), up);
        at[i] = xi - step;
        gradient(at.as_slice(), down);
        at[i] = xi;
        for (int j = 0; j < n && j < up.size() && j < down.size(); ++j)
            result(i, j) = (up[j] - down[j]) / (2.0 * step);
    }
    for (int i = 0; i < n; ++i)
        for (int j = i + 1; j < n; ++j) {
            const double mean = 0.5 * (result(i, j) + result(j, i));
            result(i, j) = mean;
            result(j, i) = mean;
        }
    h = std::move(result);
}

mlFunctionN1::~mlFunctionN1() = default;
