// mlDownHillSimplex: Nelder-Mead minimisation of an mlFunctionN1 in n
// variables, without derivatives.
//
// solve(f, start, speed) builds a simplex of n + 1 vertices around start
// (start itself and start + h e_i for each coordinate i, h = step(), 0.1 by
// default: the parameters are expected to be of order one, as angles in
// radians and lengths in units of the part size are), then reflects,
// expands, contracts and shrinks with the standard coefficients (1, 2, 1/2,
// 1/2) until it has converged, and returns the smallest value found; result(v)
// then gives its vertex. Ties between vertices keep the earlier vertex, so
// the search is deterministic.
//
// Convergence: the spread of the values over the simplex is at most
// ftol * (|f_best| + |f_worst|) + tiny (never while a value is infinite), or
// the simplex has shrunk below xtol * (1 + max |x_best|) in every coordinate.
// Nelder-Mead can collapse onto a face, or stall on a kink of a non-smooth
// (max-type) function, short of the minimum, so a converged search is
// restarted from its best vertex with a fresh simplex of the first size; the
// search ends when a restart confirms the vertex (it finds no lower value, or
// a lower one within 10 xtol (1 + max |x_best|) of it) or after the restarts
// the speed allows. Smooth functions end after one or two restarts; on
// max-type functions each restart makes progress, hence the larger count of
// the precise speed. The speed settles the tolerances:
//   mlDownHillSimplexQuick    (0): ftol 1e-8,  xtol 1e-6,  1 restart;
//   mlDownHillSimplexStandard (1): ftol 1e-12, xtol 1e-9,  2 restarts;
//   mlDownHillSimplexPrecise  (2): ftol 1e-15, xtol 1e-15, 16 restarts: to
//                                  the rounding level of the function (a few
//                                  ulps of x when the minimum value is 0).
// Another speed value counts as the standard one. Every search is bounded: at
// most 1000 (n + 1) evaluations per run, (restarts + 1) runs.
//
// A function value that is NaN counts as +infinity, so the simplex walks away
// from points where the objective is undefined; the value returned is then
// +infinity when no defined value was met. n = 0, a start of the wrong size or
// a start with a non-finite entry: solve returns f at start (DBL_MAX, without
// calling f, when the size is wrong) and result gives start. A step that is
// zero or not finite counts as 0.1.
#pragma once

#include "metrofit/platform/maths/function.h"
#include "metrofit/platform/maths/vector.h"

enum mlDownHillSimplexSpeed {
    mlDownHillSimplexQuick = 0,
    mlDownHillSimplexStandard = 1,
    mlDownHillSimplexPrecise = 2
};

class mlDownHillSimplex {
   public:
    explicit mlDownHillSimplex(int n);

    double solve(mlFunctionN1& f, const mlVector& start, mlDownHillSimplexSpeed speed);
    // The vertex of the smallest value of the last solve (size n), or the
    // start that solve gave back unsearched.
    void result(mlVector& v) const;

    void set_step(double h) { step_ = h; }
    double step() const { return step_; }
    // Function evaluations of the last solve.
    int evaluations() const { return evaluations_; }
    int dimension() const { return n_; }

   private:
    int n_;
    double step_ = 0.1;
    int evaluations_ = 0;
    mlVector best_;
};
