// Least-squares circles of a point set projected along many trial axes, for
// the axis searches of the axial fits.
//
// For an axis u, the points are projected along u onto the plane through the
// origin normal to u, and the circle minimising
//   S = sum_i (L_i + q_i - r)^2,
// L_i the distance of projected point i from the centre and q_i a signed
// probe radius (0 without probe radii), is fitted: the circle
// evaluate_circle2 (evaluate_probed_circle with probe radii) fits to the same
// projection. For a cylinder with that axis through the circle's centre, S is
// the cylinder's sum of squared distances, since a point's distance from the
// axis is its distance from the projected centre.
//
// The fit is made for speed, without allocation per axis and with one pass
// over the points per iteration:
//   1. the points are held centred at their centroid (no digits are lost far
//      from the origin); one pass projects them and gathers the moments of
//      Taubin's algebraic circle, the start (nearly unbiased on short arcs,
//      where the simpler algebraic fit shrinks the circle);
//   2. Newton's method over the centre alone, the radius eliminated as
//      r = mean (L_i + q_i); where the full Hessian is not positive definite
//      the Gauss-Newton step is taken. A step that does not lower S is halved
//      (up to 12 times); a step that repeats the last one, longer, is
//      stretched (up to 64 times), for arcs whose centre lies far out;
//   3. the iteration ends when the centre moves by less than 1e-9 of the
//      circle's size, when S falls by less than 1e-7 of itself (S then holds
//      about 14 digits, more than any comparison of candidates needs, and the
//      centre lies within about 1e-7 of the size of the minimum; the solver
//      runs that follow refine it), or after 60 passes.
// fit() fails (false) for fewer than 3 points, an axis without direction,
// points that all project onto one spot, or non-finite sums.
#pragma once

#include <cfloat>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"

// A projected circle: its centre (in the plane through the origin normal to
// the axis), radius, and at that circle S and the largest |L_i + q_i - r|.
class tsProjectedCircle {
   public:
    giPoint3 centre;
    double radius = 0.0;
    double sum_squares = DBL_MAX;
    double max_residual = DBL_MAX;
};

class tsProjectedCircles {
   public:
    // Copies the points (centred); offsets: the signed probe radii, one per
    // point, or null. The offsets array must outlive this object.
    tsProjectedCircles(const giPoint3coDynArr& points, const double* offsets);

    // The circle for one axis (any non-zero length); the largest residual
    // only when want_max is set (it costs two comparisons per point and pass;
    // otherwise it is left at DBL_MAX).
    bool fit(const giVector3& axis, tsProjectedCircle& out, bool want_max = false);

   private:
    struct Pass;

    bool algebraic_circle(double sx, double sy, double sxx, double sxy, double syy, double sxz,
                          double syz, double szz, double& a, double& b, double& r,
                          double& spread) const;
    Pass evaluate(double a, double b, double r_ref) const;
    template <bool kOffsets, bool kExtremes>
    Pass evaluate_with(double a, double b, double r_ref) const;

    int n_ = 0;
    double mean_[3] = {0.0, 0.0, 0.0};
    doublecoDynArr px_, py_, pz_;
    // Work arrays of the current axis: projected coordinates, distances from
    // the centre and their reciprocals.
    mutable doublecoDynArr x_, y_, l_, inv_;
    const double* q_;
    // Of the current axis: the sums of the projected coordinates, and whether
    // the largest residual is wanted.
    double sx_ = 0.0, sy_ = 0.0;
    bool want_max_ = false;
};
