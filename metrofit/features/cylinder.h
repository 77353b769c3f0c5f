// Least-squares cylinder through measured points.
//
// tsLeastSquareCylinder, p = (cx, cy, cz, ax, ay, az, r): a point C on the
//   axis, the axis direction a (any non-zero length while the solver runs)
//   and the radius r. With u = a / |a|:
//     d(Q) = F(Q) - r,  F(Q) = |u x (Q - C)|, the distance of Q from the axis,
//   positive outside the cylinder. 7 parameters, 5 degrees of freedom (C may
//   slide along the axis, |a| is not free). normalize_parameters makes a a
//   unit vector (a zero axis becomes (1, 0, 0)) and moves C to the point of
//   the axis line nearest the origin; the radius and the sense of a are left
//   as they are. Column scales (1, 1, 1, s, s, s, 1) with s = sqrt(L^2 + r^2),
//   L the axial extent of the points: a turn of the axis moves the surface by
//   up to about s times the angle.
//
// are_normals_in_limit(points, angle, nominal_axis, normals, p): the axis of p
//   must lie within `angle` of a set nominal axis (either sense); then, when
//   normals are given (one per point), the radial directions of the points
//   must all lie within `angle` of their normals (a boss), or all of their
//   reversed normals (a bore). A point on the axis has no radial direction
//   and fails the test.
//
// tsCalculateLeastSquareCylinder(points, axis_point, axis_dir, radius,
//   deviation, nominal_axis, angle, normals, n_added):
//   - n_added == 0: full search. Start axes: the direction search of
//     tsCylinder_InitialSolution, the direction of the farthest pair of
//     points, and (with more than 2 normals) the normal of the plane through
//     the tips of the normals; each gives a circle fit of the points projected
//     along it and one solver run. Then random sweeps: batches of 100 axes
//     drawn from a generator seeded 1 on one hemisphere, each screened by its
//     projected circle, the best of a batch refined by one solver run; sweep
//     0 takes every direction, later sweeps only those near the nominal axis
//     (no normals; at most one such sweep) or near the 7 guess directions
//     (with normals, 25 degrees). The sweeps stop once an accepted result has
//     a mean squared distance below 0.001 times the points' range. Of the
//     results that pass are_normals_in_limit (10 degrees for the
//     deterministic starts, `angle` for the sweeps) the best is returned,
//     unless the best of all results is better by more than 0.001 times the
//     range in RMS deviation.
//   - n_added != 0 (update): axis_point, axis_dir and radius hold a previous
//     solution and the last n_added points are new. When n_added < 0, or the
//     new points lie within max(10 e, 0.001 range) of that cylinder (e: the
//     largest residual of the old points when there are more than 20 points,
//     else their 90% quantile) and after one solver run from it every
//     residual stays below max(1.1 e_max, 1e-6 range), the refined cylinder is
//     returned; otherwise the full search runs. Update mode needs at least
//     n_added + 5 points (any count when n_added < 0) and a finite previous
//     solution with a non-zero axis; without them the full search runs.
//   deviation is the RMS distance of the points from the cylinder. Returns 1,
//   or 0 (outputs untouched) for fewer than 5 points, non-finite coordinates,
//   normals that are neither empty nor one finite, set vector per point, or
//   when no start gave a fit.
//
//   The projected circles of the search are those of tsProjectedCircles
//   (projected_circles.h): least-squares circles as evaluate_circle2 fits
//   them, computed without allocation per axis, whose sum of squares is also
//   the screening sum of the candidate cylinder. A batch without a new start
//   makes no solver run (it would repeat the previous batch's).
//
// tsCylinder_InitialSolution(points, direction): a start axis by a coarse to
//   fine search over a grid of directions (up to 3 passes), scoring each by
//   the largest residual of its projected circle and stopping once that is
//   below 0.1 (a length in the points' units); for exactly 6 points, the
//   common normal of the circles through points 0-2 and 3-5 when they agree
//   (normals within |cos| 0.1 of parallel, radii within 1.0). Returns 1.
//
// tsLeastSquareEvaluator::evaluate_multiple_cylinders(points, directions,
//   tolerance, angle, n_wanted, results): up to 150 n_wanted trial axes, the
//   given directions first and then random ones around them
//   (tsRandDirGenMulti), each refined by one solver run; every result with an
//   RMS deviation below `tolerance` that does not coincide (tolerance, angle)
//   with a record already in `results` is appended. Stops when `results`
//   holds n_wanted records; returns their count (0 for fewer than 5 points or
//   non-finite coordinates, with `results` untouched). `results` is not
//   cleared first. tsCalculateMultipleLeastSquareCylinders is the same.
//
// tsLeastSquareEvaluator::evaluate_cylinder, two forms, arguments in the
//   order of the other entry points (points, then outputs, then options):
//     (points, axis_point, axis, radius, error, nominal_axis, angle, n_added)
//     (points, axis_point, axis, radius, error, normals, angle, n_added)
//   The first passes no normals, the second an unset nominal axis; both call
//   tsCalculateLeastSquareCylinder. A normals array of the wrong length is
//   refused (0), since the normals test matches normals to points by index.
#pragma once

#include "metrofit/features/fitted_records.h"
#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareCylinder : public tsLeastSquareDistance3 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareCylinder(const giPoint3coDynArr& points);

    // Stores p and keeps the axis point, the unit axis and 1 / |a| for the
    // distances.
    void set_parameters(const mlVector& p) override;
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return n_parameters() - 2; }
    void parameter_scales(mlVector& s) const override;

    static int are_normals_in_limit(const giPoint3coDynArr& points, const giAngle& angle,
                                    const giUnitVec3& nominal_axis,
                                    const giUnitVec3coDynArr& normals, mlVector& parameters);
    static void add_distinct_result(const tsFittedCylinder& result, double tolerance,
                                    giAngle angle_tolerance, tsFittedCylindercoDynArr& results);

   protected:
    double c_[3] = {0.0, 0.0, 0.0};
    double u_[3] = {1.0, 0.0, 0.0};
    double inv_length_ = 1.0;
};

int tsCalculateLeastSquareCylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                   giUnitVec3& axis_dir, double& radius, double& deviation,
                                   const giUnitVec3& nominal_axis, const giAngle& angle,
                                   const giUnitVec3coDynArr& normals, int n_added);

int tsCylinder_InitialSolution(const giPoint3coDynArr& points, giVector3& direction);

int tsCalculateMultipleLeastSquareCylinders(const giPoint3coDynArr& points,
                                            const giUnitVec3coDynArr& directions, double tolerance,
                                            const giAngle& angle, int n_wanted,
                                            tsFittedCylindercoDynArr& results);
