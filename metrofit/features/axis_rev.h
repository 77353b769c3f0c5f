// Axis of a surface of revolution of unknown profile, from points that carry
// unit surface normals.
//
// On a surface of revolution every normal lies in the meridian plane of its
// point, so every normal line meets the axis. The fit looks for the line that
// the normal lines of all points meet best.
//
// tsLeastSquareAxisRev, p = (cx, cy, cz, ax, ay, az): a point c on the axis
//   and the axis direction a (any non-zero length while the solver runs).
//   For point P_i with normal n_i, w = n_i x a (not normalised):
//     d(P_i) = (P_i - c) . w / |w|,
//   the signed distance of P_i from the plane through the axis spanned by a
//   and n_i; it is 0 exactly when the normal line of P_i meets the axis, and
//   positive on the side of n_i x a. A point whose normal is within 1e-7 of
//   parallel to a (|w|^2 <= 9.999999999999998e-15: a point of a flat face
//   across the axis), a point without a normal (index beyond the normals) and
//   a point whose w is not finite (an unset normal) have distance 0 and a
//   zero gradient.
//   Gradient: -u for c (u = w / |w|); for a_k, (P_i - c) . du_k, where du_k
//   is the change of u when w changes by n_i x e_k (srkUnitVectorDifferentiator3;
//   its map is symmetric, so one derivative of P_i - c gives all three). The
//   part of the axis gradient along a, zero in exact arithmetic, is removed,
//   so that rounding cannot make the solver step along |a|.
//   6 parameters, 4 degrees of freedom (c slides along the axis, |a| is not
//   free). normalize_parameters makes a a unit vector (a zero axis becomes
//   (1, 0, 0)) and moves c to the point of the axis nearest the origin; the
//   sense of a is left as it is. Column scales (1, 1, 1, L, L, L), L the
//   largest distance from c to a point: a turn of the axis moves the planes
//   by up to about L times the angle.
//
// evaluate_with_guess(point, axis, error): one solver run from (point, axis);
//   an unset point (x == -DBL_MAX or any coordinate DBL_MAX) starts from the
//   centroid. point receives the solver's axis point (already in canonical
//   form, since the solver normalises every trial), axis the unit axis, error
//   the solver's value as it stands: the MEAN SQUARED distance, no square
//   root. Returns 1; 0 (outputs untouched) for an unset or non-finite axis, a
//   non-finite start point, or a start the solver refuses (its distances not
//   finite).
//
// evaluate(point, axis, error): evaluate_with_guess from the start point
//   (`point` if set, else the centroid) along each of the 7 guess directions
//   of tsLeastSquareDistance3 in turn, keeping the result of strictly
//   smallest error. As soon as the kept error is 0.01 or less the remaining
//   directions are skipped. The threshold is compared with the mean squared
//   distance (units squared), not with the RMS: a fit whose RMS is up to 0.1
//   already stops the search. Returns 1, or 0 (outputs untouched) when no
//   direction gave a fit.
//
// tsLeastSquareEvaluator::evaluate_axis_rev(points, normals, point, axis,
//   error): refuses (0, outputs untouched) fewer than 6 points, a normals
//   array of another length than the points, a non-finite coordinate in the
//   points, an unset or non-finite normal, and a set but non-finite start
//   point. With an unset axis (x == -DBL_MAX) it runs evaluate, otherwise
//   evaluate_with_guess from the given axis and point (the centroid when the
//   point is unset). error is the RMS distance, the square root of the
//   solver's value. Returns 1.
//
// Where every normal is parallel to the trial axis, or none belongs to a
// point, every distance is 0: the fit returns its (normalised) start with
// error 0. A sphere is no surface of revolution about a unique axis: every
// line through its centre fits, and which one is returned depends on the
// start.
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareAxisRev : public tsLeastSquareDistance3 {
   public:
    // Keeps references to points and normals: both must outlive the model.
    tsLeastSquareAxisRev(const giPoint3coDynArr& points, const giUnitVec3coDynArr& normals);

    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return 4; }
    void parameter_scales(mlVector& s) const override;

    int evaluate_with_guess(giPoint3& point, giUnitVec3& axis, double& error);
    int evaluate(giPoint3& point, giUnitVec3& axis, double& error);

    const giUnitVec3coDynArr& normals() const { return normals_; }

   private:
    // w = n_i x a at the current parameters; false when point i contributes
    // nothing (no normal, normal along the axis, w not finite).
    bool across_axis(int i, giVector3& w) const;

    const giUnitVec3coDynArr& normals_;
};
