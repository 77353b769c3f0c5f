// Least-squares distance models and their Levenberg-Marquardt driver.
//
// mlDistanceLeastSquares is the base of every model: p parameters, n points,
// and for the current parameter vector the signed distance d_i of point i
// from the feature with its gradient. The driver minimises
// S(p) = sum_i d_i(p)^2.
//
// Virtual operations, in this order (derived models rely on it):
//   set_parameters, normalize_parameters, get_distance_and_gradient,
//   get_distance, get_last_square_distance, n_independent_parameters,
//   parameter_scales, destructor.
// Base behaviour: set_parameters stores the vector; normalize_parameters
// leaves it as it is; get_last_square_distance is the mean of the squared
// get_distance over all points at the current parameters (0 for no points);
// n_independent_parameters is the parameter count; parameter_scales are ones.
//
// get_distance_and_gradient writes the entries 0 .. p-1 of the gradient; the
// driver hands it a vector of size p whose entries are 0 on entry, so an
// entry left unwritten counts as 0. get_distance must give the same distance.
//
// point_distribution_quality(v): how well the points pin the feature down.
// With v brought into canonical form and made current, and with the gradient
// columns divided by parameter_scales, it is the square root of the k-th
// largest eigenvalue of J^T J / n, k = n_independent_parameters(): the RMS
// change of distance that a unit (scaled) step causes along the worst
// determined of the k best-determined parameter directions. 0 when there are fewer points than k,
// when v has the wrong size, or when the gradients are not finite. It leaves v (normalised) as the
// current parameters.
#pragma once

#include "metrofit/platform/maths/vector.h"

class mlDistanceLeastSquares {
   public:
    mlDistanceLeastSquares(int n_parameters, int n_points);

    virtual void set_parameters(const mlVector& v);
    virtual void normalize_parameters(mlVector& v) const;
    virtual void get_distance_and_gradient(double& d, mlVector& gradient, int i) const = 0;
    virtual void get_distance(double& d, int i) const = 0;
    virtual double get_last_square_distance() const;
    virtual int n_independent_parameters() const;
    virtual void parameter_scales(mlVector& scales) const;
    virtual ~mlDistanceLeastSquares();

    const mlVector& parameters() const { return parameters_; }
    int n_parameters() const { return n_parameters_; }
    int n_points() const { return n_points_; }

    double point_distribution_quality(const mlVector& v);

   private:
    int n_parameters_;
    int n_points_;
    mlVector parameters_;
};

// Levenberg-Marquardt minimisation of a model's sum of squared distances.
//
// fit(start, result) returns the MEAN of the squared distances at result
// (sum / point count), so that its square root is the RMS deviation; result
// receives the parameters in the model's canonical form, and they are left
// current in the model. The result is never worse than the (normalised)
// start. A start whose size differs from the parameter count, or at which a
// coordinate or the sum of squared distances is not finite, is refused: the
// return value is DBL_MAX and result is untouched. With no points the
// normalised start is returned with value 0.
//
// The method, for a reader checking the code:
// - One pass over the points gives the sum S = sum d_i^2 (accumulated in
//   extended precision) and the normal equations A = J^T J, g = J^T d, built
//   point by point in blocks (no n x p Jacobian is stored), the columns of J
//   divided by parameter_scales (a scale that is not finite and positive
//   counts as 1).
// - Marquardt damping (A + lambda diag A) delta = -g is solved in the
//   Jacobi-scaled basis (unit diagonal) through the eigen decomposition of
//   that p x p matrix, so every lambda costs O(p^2). Directions of a vanishing
//   eigenvalue are left out of the step: those at most 1e-14 of the largest,
//   and, for a model with k = n_independent_parameters() < p, the p - k
//   smallest when they are below 1e-8 of the largest. This lets
//   over-parameterised models (an axis stored as three components) fit
//   without drifting along their gauge directions. Marquardt's form makes the
//   step itself independent of the column scales; they condition the
//   accumulated matrix.
// - Every trial vector goes through normalize_parameters before it is
//   evaluated, and is accepted only when its S is finite and strictly smaller.
//   The first trial of an iteration is evaluated with its normal equations
//   (it is usually accepted, and then the next iteration needs no extra
//   pass); retries only evaluate S. lambda starts at 1e-3, is divided by 10
//   after an accepted step (down to 1e-15) and multiplied by 10 after a
//   rejected one (at least to 1e-4); the iteration stops trying once lambda
//   exceeds 1e10.
// - The damped phase ends when the predicted or the achieved relative
//   decrease of S falls to 1e-14 (its rounding level), when no trial lowers S,
//   when the step is negligible (1e-15 relative, both the step and the
//   parameter vector measured by the change of distance they cause), when
//   the least damped trial of an iteration is rejected although its step is
//   at most 1e-13 relative (S no longer tells the points apart, as on exact
//   data), or after 200 passes.
// - Models with up to 16 parameters run on fixed-capacity matrices on the
//   stack, so a fit makes only a handful of small heap allocations.
// - S cannot resolve the last digits of the optimum, but g can: a polishing
//   phase takes up to 6 undamped Gauss-Newton steps, each kept only if the
//   step computed at the new point is at most half the previous one (the
//   iteration still contracts) and S has not grown by more than 1e-12
//   relative. This brings the parameters to the optimum within the rounding
//   of the gradient.
// - If the end point's S exceeds the start's, the start is returned.
class mlLevenbergMarquardt {
   public:
    explicit mlLevenbergMarquardt(mlDistanceLeastSquares& model) : model_(model) {}

    double fit(const mlVector& start, mlVector& result);

    // Passes with normal equations (distances and gradients of every point)
    // made by the last fit, the start's included; retries that evaluate only
    // the distances are not counted.
    int iterations() const { return iterations_; }

   private:
    mlDistanceLeastSquares& model_;
    int iterations_ = 0;
};
