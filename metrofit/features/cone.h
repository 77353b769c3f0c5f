// Least-squares circular cone through measured points.
//
// tsLeastSquareCone, p = (cx, cy, cz, ax, ay, az, h, a): a reference point C
//   on the axis, the axis direction (any non-zero length while the solver
//   runs) pointing from C towards the apex, the surface distance h (the
//   perpendicular distance from C to the surface: the radius at C times
//   cos a) and the half angle a in radians. With u the unit axis,
//   F = |u x (Q - C)| the distance of Q from the axis and G = u.(Q - C) its
//   position along it:
//     d(Q) = F cos a + G sin a - h,
//   the signed distance from the cone's surface (the nappe, for points whose
//   foot lies on it), positive outside. The apex is C + u h / sin a.
//   8 parameters, 6 degrees of freedom (C slides along the axis with h
//   following, |u| is not free). normalize_parameters makes u a unit vector
//   (a zero axis becomes (1, 0, 0)), brings a into [0, pi/2] (turning the
//   axis round where needed, with h following so that no distance changes)
//   and moves C to the point of the axis nearest the origin, h following.
//   set_parameters also caches sin a and cos a. Column scales
//   (1, 1, 1, L, L, L, 1 / sin a, L) with L the largest distance of a point
//   from the apex.
//
// tsGetConeNormal(apex, axis, half_angle, point): the outward unit normal of
//   the cone at the foot of the point (axis pointing from the cone towards
//   the apex); for a point beyond the apex, the direction from the apex to
//   it; `axis` where no direction exists.
//
// are_normals_in_limit(points, angle, nominal_axis, normals, p): the axis of
//   p within `angle` of a set nominal axis (either sense); with normals (one
//   per point), the cone's normals at all points within `angle` of the
//   measured ones, or all of their reversed ones (a countersink).
//
// tsCalculateLeastSquareCone(points, apex, axis, half_angle, deviation,
//   nominal_axis, angle, normals, n_added): axis points from the cone towards
//   the apex, half_angle in radians.
//   - n_added != 0 (negative, or at most n - 6): update of the previous cone
//     held in the outputs, started as (apex, axis, 0, half angle); see
//     axial_common.h. A failed test falls back to the full search.
//   - Full search: sweeps of start values from tsConeGuessGenerator (from the
//     normals, in the first sweep only; from two circles; six fixed-axis
//     searches), each refined by one solver run. Sweep 0 takes every axis;
//     later sweeps look near the nominal axis (no normals; one such sweep)
//     or near the 7 guess directions (with normals, 25 degrees), and run
//     only while no physical cone passes the normals and nominal-axis test.
//     A sweep's remaining guesses are skipped once one reaches an RMS
//     deviation below 0.001 of the points' range (more than 15 points) or
//     1e-8 of it. Results are kept in two classes: non-physical (half angle
//     within the tolerance of 0 or pi/2) and physical; in each the best that
//     passes the test wins unless the best of all is better by 0.001 of the
//     range in RMS. The non-physical cone is returned only when its mean
//     squared distance is below 0.01 of the physical one's, or below it while
//     the physical cone's half angle is within twice the tolerance of a limit.
//   deviation is the RMS distance from the surface. Returns 1, or 0 (outputs
//   untouched) for fewer than 6 points, non-finite coordinates, normals that
//   are neither empty nor one finite, set vector per point, when no guess gave
//   a fit, or when the chosen cone has no finite apex (half angle 0).
//
// tsCalculateMultipleLeastSquareCones(points, directions, tolerance, angle,
//   n_wanted, results, min_half_angle, max_half_angle): one cone fit per
//   given direction (as nominal axis, 30 degrees); a cone with an RMS
//   deviation below `tolerance` and a half angle strictly between the limits
//   is appended as a record (its axis pointing from the apex into the cone)
//   unless it coincides with one already in `results`, which is not cleared.
//   Stops once `results` holds n_wanted records; returns their count (0 for
//   fewer than 6 points or non-finite coordinates).
//   tsLeastSquareEvaluator::evaluate_multiple_cones: limits 0 and 90 degrees.
//
// tsLeastSquareEvaluator::evaluate_cone, two forms in the argument order of
//   the cylinder's: (points, apex, axis, half_angle, error, nominal_axis,
//   angle, n_added) without normals, (..., normals, angle, n_added) with an
//   unset nominal axis. A normals array of the wrong length is refused.
//
// tsSetLeastSquareConeNonPhysicalTolerance(t) (also
//   tsLeastSquareEvaluator::set_cone_non_physical_tolerance): the process-wide
//   tolerance (radians, default 0.05) within which a half angle counts as
//   non-physical (near 0: a cylinder; near pi/2: a plane); returns the
//   previous value. Relaxed atomics: calls from several threads are safe.
#pragma once

#include "metrofit/features/fitted_records.h"
#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareCone : public tsLeastSquareDistance3 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareCone(const giPoint3coDynArr& points);

    // Stores p and keeps sin a, cos a, the reference point, the unit axis and
    // 1 / |axis| for the distances.
    void set_parameters(const mlVector& p) override;
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return n_parameters() - 2; }
    void parameter_scales(mlVector& s) const override;

    static int are_normals_in_limit(const giPoint3coDynArr& points, const giAngle& angle,
                                    const giUnitVec3& nominal_axis,
                                    const giUnitVec3coDynArr& normals, mlVector& parameters);
    static void add_distinct_result(const tsFittedCone& result, double tolerance,
                                    giAngle angle_tolerance, tsFittedConecoDynArr& results);

   protected:
    double sin_ = 0.0, cos_ = 1.0;
    double c_[3] = {0.0, 0.0, 0.0};
    double u_[3] = {1.0, 0.0, 0.0};
    double inv_length_ = 1.0;
};

giUnitVec3 tsGetConeNormal(const giPoint3& apex, const giUnitVec3& axis, const giAngle& half_angle,
                           const giPoint3& point);

double tsSetLeastSquareConeNonPhysicalTolerance(double tolerance);

int tsCalculateLeastSquareCone(const giPoint3coDynArr& points, giPoint3& apex, giUnitVec3& axis,
                               double& half_angle, double& deviation,
                               const giUnitVec3& nominal_axis, const giAngle& angle,
                               const giUnitVec3coDynArr& normals, int n_added);

int tsCalculateMultipleLeastSquareCones(const giPoint3coDynArr& points,
                                        const giUnitVec3coDynArr& directions, double tolerance,
                                        const giAngle& angle, int n_wanted,
                                        tsFittedConecoDynArr& results,
                                        const giAngle& min_half_angle,
                                        const giAngle& max_half_angle);
