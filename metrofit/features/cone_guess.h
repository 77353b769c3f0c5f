// Start values for the cone fit, and the cone about a fixed axis direction.
//
// Every start vector is in the layout of tsLeastSquareCone (cone.h):
// (cx, cy, cz, ax, ay, az, h, a), a point C on the axis, the axis direction
// pointing from C towards the apex, the surface distance h and the half
// angle a in radians. The starts made here all put C at the apex (h = 0).
//
// tsLeastSquareConeFixedAxis, p = (a, b): the cone's axis has a given
//   direction w and passes through the point (a, b) of the plane across w;
//   only that position is fitted. set_axis(w) builds a frame from w and a
//   coordinate axis e ((1, 0, 0) when |w.y| > |w.x|, else (0, 1, 0)):
//     u = w x e,  v = w x u,
//   neither normalised (for a unit w both have the length sin(w, e)), and
//   maps every point P to (x, y, z) = (P.u, P.v, P.w). w is taken as given;
//   the generator passes unit vectors. For an axis through (a, b) the radius
//   of point i is rho_i = |(a, b) - (x_i, y_i)|, and the generating line of
//   the cone is the least-squares line z = c0 + c1 rho through the pairs
//   (rho_i, z_i), solved in closed form for every (a, b):
//     D = n S(rho^2) - S(rho)^2,  c1 = (n S(rho z) - S(rho) S(z)) / D,
//     c0 = (S(rho^2) S(z) - S(rho) S(rho z)) / D = mean z - c1 mean rho.
//   The distance is the residual along the axis,
//     d_i = z_i - c0 - c1 rho_i,
//   and its gradient is exact: c0 and c1 are differentiated through rho_i,
//     g_a = -c1 drho_i/da - dc0/da - rho_i dc1/da   (likewise for b),
//   drho_i/da = (a - x_i) / rho_i. A point within 2^-23 of the axis has no
//   radial direction: its rho derivatives, and its whole gradient, are 0.
//   When |D| < 2^-23 (all radii alike: no line) c0, c1 and their derivatives
//   are 0. The sums are gathered about the first point's radius and height,
//   which changes nothing in exact arithmetic and keeps D and the slope free
//   of cancellation far from the origin. set_parameters makes one pass over
//   the points (radii, their derivatives and the sums); get_distance and its
//   gradient then read the stored values. normalize_parameters does nothing
//   (a and b are free coordinates). Nothing is allocated after construction.
//
//   fit(start, result): the Levenberg-Marquardt driver of the model. The
//   generic solver needs three passes per step (the line, the gradients, the
//   normal equations); here one pass at a trial position gathers the sums
//   from which the line, its derivatives, the sum of squares and the normal
//   equations all follow:
//     J^T J = sum g_i g_i^T with g_i = -(c1 drho_i + dc0 + rho_i dc1), and
//     J^T d = -c1 sum d_i drho_i, since sum d_i = sum rho_i d_i = 0 for
//   the least-squares line. Residuals are summed relative to the previous
//   position's line, so that the sum of squares keeps its digits as the
//   iteration settles. The damping schedule and the stopping rules are the
//   generic solver's (lambda from 1e-3 in the Jacobi-scaled basis, divided
//   by 10 after a success and multiplied by 10 after a failure, at most 200
//   passes, ending at a relative decrease or step at the rounding level), so
//   it reaches the same minimum; a rejected trial costs one pass as well.
//
//   full_fit_parameters(out): the 8-vector of the cone found: with
//   L = (a, b, c0) the point (L.u, L.v, L.w), the axis -w (turned to +w when
//   c1 < 0, so that it points towards the apex, where rho = 0 and z is
//   largest) and the half angle pi/2 - atan|c1|. The point is the frame map
//   applied to L once more, not its inverse: for w along x or z it is the
//   apex itself. For other axes it is not: the point lies off the fitted
//   apex, and since |u| = |v| = sin(w, e) < 1 scales the radii, the half
//   angle comes out too small as well. The vector is then a start for the
//   cone fit, not the fixed-axis cone.
//
// tsConeGuessGenerator(points, reference, angle, normals): keeps a reference
//   to the points (they must outlive it), a copy of the normals, a cone model
//   on the points to score starts, the points' centroid, and a random source
//   seeded with 6983277 whose state carries over from call to call. The
//   reference direction is unset when its x is -DBL_MAX; a set one is
//   unitised, and only axes within `angle` of it (either sense) are tried.
//
//   deviation(p): brings p into the cone model's canonical form in place,
//     makes it current and returns the SUM (not the mean) of the squared
//     distances of the points (0 for no points). A vector that is not of
//     size 8 is left alone and gives DBL_MAX, as does a non-finite sum.
//
//   The strategies fill `out` with a start and return its deviation, or
//   return DBL_MAX and leave `out` untouched when they have none:
//   - get_guess_from_normals: the normals of a cone make a constant angle
//     with its axis, so their tips lie in a plane across it: the axis is the
//     normal of the least-squares plane through the tips; the apex is the
//     least-squares point common to all tangent planes n_i.X = n_i.P_i
//     (pseudo-inverse, singular values below 1e-7 of the largest dropped);
//     the axis is turned towards the apex (away from the first point), and
//     the half angle is pi/2 minus the mean angle between axis and normals.
//     No guess for fewer than 3 normals, more normals than points, a
//     non-finite normal, a failed plane fit or a singular normal matrix.
//   - get_guess_two_circles: the circle through points 0-2, and of the
//     circles through (3,4,5), (4,5,6), (5,6,7), (6,7,8) (those whose points
//     exist and make a circle) the one most nearly parallel to it, the first
//     of equals; the line of the two centres is the axis, pointing from the
//     larger circle to the smaller, and the radii give the half angle
//     atan(|r1 - r2| / L) and the apex (similar triangles). No guess when the best |n1.n2| < 0.85,
//     the centres lie less than 1e-7 apart, the radii differ by less than 1e-7 (a cylinder), or the
//     apex would lie more than 1e7 from the larger circle's centre.
//   - get_guess_fixed_axis_fit: 200 trials. Each draws an axis direction
//     (three draws: (2 r1 - 1, 2 r2 - 1, 2 r3 - 1), unitised), skips it when
//     a reference is set and the axis lies outside `angle` of it, draws the
//     start position (a, b) uniformly within s of the centroid's frame
//     coordinates (s = 3 R for trials 0-59, 6 R for 60-119, 9 R, 12 R; R
//     the points' range), fits the fixed-axis cone by Levenberg-Marquardt and
//     scores full_fit_parameters by deviation; the best (strictly lower)
//     becomes `out`. Returns the deviation of `out`: if every trial was
//     skipped, `out` keeps its content (brought to canonical form) and the
//     value is its deviation (DBL_MAX for a vector that is not of size 8).
//     Successive calls draw other axes, since the random state carries over.
//   - get_guess_random: the same 200 random-axis trials, but every drawn
//     axis is tried whatever the reference cone: a plain random search over
//     all directions, sharing the generator's random state.
#pragma once

#include "metrofit/features/cone.h"
#include "metrofit/frame/least_square_distance.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/maths/random.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareConeFixedAxis : public tsLeastSquareDistance3 {
   public:
    // Keeps a reference to points: the array must outlive the model. The
    // frame starts on the z axis.
    explicit tsLeastSquareConeFixedAxis(const giPoint3coDynArr& points);

    void set_axis(const giVector3& w);
    void set_parameters(const mlVector& p) override;  // one pass: radii, line, derivatives
    void normalize_parameters(mlVector&) const override {}
    void get_distance(double& d, int i) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;

    void full_fit_parameters(mlVector& out) const;

    // Levenberg-Marquardt over (a, b) from start, on sums gathered in one
    // pass per trial position (see below); returns the mean squared distance
    // at the result and leaves the result current, as mlLevenbergMarquardt
    // does, or DBL_MAX (result untouched) for a start without a line.
    double fit(const mlVector& start, mlVector& result);
    const giVector3& x_axis() const { return u_; }
    const giVector3& y_axis() const { return v_; }

   private:
    giVector3 w_, u_, v_;
    // The points in the frame, and per point the radius and its derivatives.
    doublecoDynArr x_, y_, z_, rho_, rho_a_, rho_b_;
    // The generating line z = c0 + c1 rho and its derivatives in a and b.
    double c0_ = 0.0, c1_ = 0.0, c0_a_ = 0.0, c0_b_ = 0.0, c1_a_ = 0.0, c1_b_ = 0.0;

    struct Pass;
    // One pass of fit() at (a, b), residuals taken relative to the line
    // z = q0 + q1 rho.
    bool evaluate(double a, double b, double q0, double q1, Pass& out) const;
};

class tsConeGuessGenerator {
   public:
    tsConeGuessGenerator(const giPoint3coDynArr& points, const giVector3& reference,
                         const giAngle& angle, const giUnitVec3coDynArr& normals);

    double deviation(mlVector& parameters);

    double get_guess_from_normals(mlVector& out);
    double get_guess_two_circles(mlVector& out);
    double get_guess_fixed_axis_fit(mlVector& out);
    double get_guess_random(mlVector& out);

   private:
    double fixed_axis_search(mlVector& out, bool within_reference);

    const giPoint3coDynArr& points_;
    mlRandom random_;
    tsLeastSquareCone cone_;
    giPoint3 centroid_;
    giVector3 reference_;
    giAngle angle_;
    giUnitVec3coDynArr normals_;
};
