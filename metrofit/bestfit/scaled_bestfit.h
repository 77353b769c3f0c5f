// tsScaledSurfaceBestfit: the rigid motion and the uniform scale that carry
// probed points onto a nominal surface in the least-squares sense, for scans
// whose scale is off (an uncalibrated scanner, shrinkage, thermal expansion).
//
// Model. A measured point x goes to X x = R (c + s (x - c)) + t: a scale s
// about the given centre c (the origin unless set), then a rotation R and a
// shift t. The fitted map is the affine X x = A x + u with A = s R. Since the
// shift is free, the centre does not change the fitted map, only how it is
// split: t = u - (1 - s) R c, so R c + t is where the centre ends up. The
// report is X (get_transformation, A = s R), s (get_scale) and the rigid part
// x -> R x + t (get_rigid_part).
//
// Objective: sum w_i (n_i . (X m_i - q_i))^2 over the points that project,
// where q_i and n_i are the partner point and the nominal normal that the
// projector (tsFitPointProjector3) gives for the moved point X m_i. Weights
// must be finite and at least 0; a weight of 0 leaves the point out.
//
// Iteration (iterated projection and linear step): project every point under
// the current X, then solve the linearised objective for a small step about
// the weighted centroid g of the moved points, p -> g + e^sigma R(w) (p - g)
// + tau, and compose it after X. The step's unknowns are conditioned: the
// rotation w and the log-scale sigma are multiplied by the points' RMS
// radius L about g, so that all seven columns of the normal equations are
// lengths of the same order and independent of where the part lies.
// The 7 x 7 (or smaller, with locks) normal matrix is solved by its
// eigen-decomposition. Eigenvalues at most 1e-10 times the largest span the
// directions the points do not determine: a rigid motion that leaves the
// surface in place (a turn of a sphere about its centre, a slide along a
// plane) is left where it started, as the plain bestfit does; but a scale
// that the points do not determine (a plane alone: any scale about a point
// of the plane keeps it) is refused, because a fitted scale is the answer
// the caller asked for. A sphere alone does determine the scale (its radius)
// but not its turn.
//
// Start. Without pairs: the identity, or the fixed scale about c. With pairs
// of corresponding points (measured, nominal), at least 3 and not all on one
// line: the rotation and shift of the pairs' rigid match (tsPointsToPoints),
// the scale the ratio of the pairs' spreads about their centroids (RMS
// distance nominal / measured), or the fixed scale. This brings in starts
// far off (tens of degrees) that the local iteration would not recover.
//
// Locks (lock_rotations, lock_origin and lock_axis exclude each other: the
// last call holds; fix_scale goes with any of them). Each is made exact at
// the start and kept exactly by the form of every step, so nothing needs
// re-basing between steps:
// - fix_scale(s): the scale stays s (s = 1: the plain rigid bestfit);
// - lock_rotations(a, b, c): no rotation, and shifts along the set ones of
//   the given axes only; with pairs, the rough start keeps no rotation too;
// - lock_origin(measured point, nominal point): the start is shifted to
//   carry the measured point onto the nominal one; every step turns and
//   scales about that nominal point (no shift), which keeps it there;
// - lock_axis(type, measured direction, nominal direction, measured point,
//   nominal point): the start is turned (about where the measured point,
//   or without one the centre, lies) to carry the measured direction onto
//   the nominal one as given (sense included); every step turns only about
//   the nominal direction. With tsSURFACE_BESTFIT_AXIS_DIRECTION the shift
//   stays free and the scale acts about the points' centroid; with
//   tsSURFACE_BESTFIT_AXIS_THROUGH_POINT the measured axis line (through the
//   measured point) is also carried onto the nominal one (through the
//   nominal point): the start slides across it, and every step turns about
//   that line, shifts along it and scales about the nominal point, all of
//   which keep the line.
//
// Tolerance bands: add_point(p, lower, upper, weight) asks that the point's
// signed deviation stay within [lower, upper] (open ends -DBL_MAX, DBL_MAX).
// With bands present each linear step is the least-squares step under the
// linearised bands (the constrained quadratic minimiser on the conditioned
// normal equations). Bands that contradict each other are reported by the
// minimiser as over-determined: they are recorded (numbered in the order
// finite limits occur over the added points, lower before upper), dropped
// from that step on, and the fit goes on with the rest.
//
// Stopping rules: the fit stops as converged when no valid point moves by
// the tolerance or more in a step; after max_iterations steps (50 unless
// set, at most 1000) it stops and reports the iteration limit, with the
// result written. A step that fails ends the fit with a failure status.
//
// Statuses returned by fit() (tsScaledBestfitStatus): > 0 the result is
// written (CONVERGED, ITERATION_LIMIT); <= 0 the outputs are untouched:
// NO_POINTS, NONE_PROJECTING (no projector, or no point projects at some
// iteration), SINGULAR (the moved points coincide or the normal matrix is
// zero or not finite), SCALE_UNDETERMINED (see above), TOO_FEW_PAIRS (1 or 2
// pairs), DEGENERATE_PAIRS (pairs on one line or coinciding), DIVERGED (the
// scale left [1e-3, 1e3] times its start, or a non-finite transform), and
// BAD_INPUT (a negative or non-finite tolerance, weight or fixed scale, a
// non-finite centre or pair, a band with lower > upper or a NaN limit, a
// lock with a direction of no length or a non-finite point).
#pragma once

#include "metrofit/bestfit/fit_points.h"
#include "metrofit/bestfit/surface_bestfit.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/xform.h"

enum tsScaledBestfitStatus {
    tsSCALED_BESTFIT_CONVERGED = 1,
    tsSCALED_BESTFIT_ITERATION_LIMIT = 2,
    tsSCALED_BESTFIT_NO_POINTS = 0,
    tsSCALED_BESTFIT_NONE_PROJECTING = -1,
    tsSCALED_BESTFIT_SINGULAR = -2,
    tsSCALED_BESTFIT_SCALE_UNDETERMINED = -3,
    tsSCALED_BESTFIT_TOO_FEW_PAIRS = -4,
    tsSCALED_BESTFIT_DEGENERATE_PAIRS = -5,
    tsSCALED_BESTFIT_DIVERGED = -6,
    tsSCALED_BESTFIT_BAD_INPUT = -7
};

class tsScaledSurfaceBestfit {
   public:
    tsScaledSurfaceBestfit() = default;

    // The projector is not owned: it must outlive the fit.
    void set_projector(const tsFitPointProjector3* projector) { projector_ = projector; }
    void reserve_points(int n);
    void add_point(const tsFitPoint3coPrf& p, double weight = 1.0);
    void add_point(const tsFitPoint3coPrf& p, double lower_limit, double upper_limit,
                   double weight);
    // A pair of corresponding points for the rough start: the measured
    // point and where it belongs on the nominal.
    void add_pair(const giPoint3& measured, const giPoint3& nominal);
    void set_scale_centre(const giPoint3& centre) { centre_ = centre; }
    void fix_scale(double scale);
    void lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c);
    void lock_origin(const giPoint3& measured_point, const giPoint3& nominal_point);
    void lock_axis(tsSurfaceBestfitLockedAxisType type, const giVector3& measured_direction,
                   const giVector3& nominal_direction, const giPoint3& measured_point,
                   const giPoint3& nominal_point);
    void set_max_iterations(int n) { max_iterations_ = n < 1 ? 1 : n > 1000 ? 1000 : n; }

    // Fits and writes the map (measured -> nominal, linear part s R) and
    // the scale on success (status > 0); leaves them untouched otherwise.
    int fit(double tolerance, giXform3& xform, double& scale);

    // After a successful fit:
    const giXform3& get_transformation() const { return transformation_; }
    double get_scale() const { return scale_; }
    // x -> R x + t with get_transformation() x = R (c + s (x - c)) + t.
    giXform3 get_rigid_part() const;
    const tsProjectedPoint3coDynArr& get_pointcloud() const { return projected_; }
    // Over the points that project after the fit: the largest distance to
    // the partner, the extreme signed deviations (>= 0 and <= 0), the RMS
    // of the signed deviations, and the count of points that do not.
    double max_distance() const { return max_distance_; }
    double max_signed_distance() const { return max_signed_; }
    double min_signed_distance() const { return min_signed_; }
    double rms_distance() const { return rms_; }
    int n_unprojected() const { return n_unprojected_; }
    int n_iterations() const { return iterations_; }
    // Degrees of freedom the last step left undetermined (turn of a sphere).
    int n_undetermined() const { return n_undetermined_; }
    int nb_points() const { return points_.size(); }
    // Band limits found over-determined during the last fit (see above).
    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }

   private:
    int rough_start(giXform3& start, double& scale) const;
    // Makes the start meet the origin or axis lock exactly.
    void enforce_lock(giXform3& start) const;
    void clear_locks();
    void project(const giXform3& xform);
    // One linear step from the current projections; a status <= 0 on failure.
    int linear_step(const giXform3& current, giXform3& step, double& log_scale);
    void record_statistics();

    tsFitPoint3PtrcoPageArr points_;
    doublecoDynArr weights_;
    doublecoDynArr lower_limits_, upper_limits_;
    intcoDynArr lower_dropped_, upper_dropped_;
    intcoDynArr lower_numbers_, upper_numbers_;  // -1: no limit
    intcoDynArr overdetermined_;
    giPoint3coDynArr pairs_measured_;
    giPoint3coDynArr pairs_nominal_;
    giVector3coDynArr shift_axes_;
    const tsFitPointProjector3* projector_ = nullptr;
    giPoint3 centre_ = giPoint3(0.0, 0.0, 0.0);
    double fixed_scale_ = 0.0;  // 0: the scale is fitted
    bool scale_fixed_ = false;
    bool rotations_locked_ = false;
    bool origin_locked_ = false;
    bool axis_locked_ = false;
    bool axis_through_point_ = false;
    giVector3 lock_direction_measured_ = giVector3(0.0, 0.0, 1.0);
    giVector3 lock_direction_nominal_ = giVector3(0.0, 0.0, 1.0);  // unit
    giPoint3 lock_point_measured_ = giPoint3(0.0, 0.0, 0.0);
    giPoint3 lock_point_nominal_ = giPoint3(0.0, 0.0, 0.0);
    bool lock_point_given_ = false;
    bool bad_input_ = false;
    int max_iterations_ = 50;

    tsProjectedPoint3coDynArr projected_;
    giXform3 transformation_;
    double scale_ = 1.0;
    double max_distance_ = 0.0, max_signed_ = 0.0, min_signed_ = 0.0, rms_ = 0.0;
    int n_unprojected_ = 0;
    int iterations_ = 0;
    int n_undetermined_ = 0;
};
