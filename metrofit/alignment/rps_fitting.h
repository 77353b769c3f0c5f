// tsRPSFitting: alignment of a measured part by a reference point system.
//
// A few positioning points hold the part like the locators of a fixture:
// each fixes one, two or three directions of a workplane (PLANE_LOCKED: held,
// PLANE_SOFT: held lightly, PLANE_SPARE: held back until the positioning
// needs it, PLANE_IGNORED: free). Many fitting points measured on the
// part's surfaces are projected onto the nominal geometry and best-fitted
// while the positioning holds. The fit drives an embedded tsPointsToPlanes
// iteration by iteration and composes the steps into transform()
// (measured -> nominal).
//
// One iteration (do_iteration):
// 1. extract_fitting_data: every fitting point is projected under the
//    accumulated transform (reproject_all_points; the very first projection
//    after construction or slow_first_iteration is the points' initial
//    projection, later ones project from the position reached). Each valid
//    projection becomes a bestfit entry of the embedded object: its measured
//    point moved by the accumulated transform, the tangent plane (nominal
//    point and normal) of its partner, and the two values given with the
//    point to add_point as the lower and upper limit of its signed deviation
//    (-DBL_MAX, DBL_MAX: no band). A balanced pair becomes one balanced entry
//    pair, or nothing when either of its points does not project.
// 2. The step, relative to where the points are: do_intermediate_bestfit
//    minimises the least-squares objective of the embedded direct fit
//    (positioning entries count 1000 times, a balanced pair is one residual;
//    with tolerance bands the minimax of the band excess). The first step
//    runs its multi-start downhill search over the rotation (shift in
//    closed form; 240 starts after slow_first_iteration), on an even sample
//    of about 256 fitting points when there are more and no bands; later
//    steps start from no motion. Without bands the result is then polished by
//    Gauss-Newton iterations of the same objective, kept while they lower
//    it: the simplex stops near the minimum when the positioning weight
//    makes the problem ill-conditioned, the polish reaches rounding (later
//    steps without bands need the polish only). `speed` is the
//    fitting-points attraction of that objective, speed * sum |v_t|^2 with
//    v_t the slide of a point along the tangent plane of its projection:
//    it limits the slide, which the projections of this iteration do not
//    see, without pulling on the deviations. 0: a pure tangent-plane step;
//    0.01: a light tie (the first try of every iteration); 1.0: a short and
//    safe step (the second try when the first did not lower the mean square
//    distance left by the previous iteration, and every step after 30
//    iterations).
// 3. The step is composed after the accumulated transform and the
//    positioning data of the embedded object follow it
//    (tsPointsToPlanes::transform_rps_data), so that every step is computed
//    for the part where it is; the positioning measure
//    standard_deviation_of_nominals() still judges the original points
//    under the accumulated transform.
// do_iteration returns 1 to go on, 0 when the points moved less than the
// tolerance, the iteration limit is exceeded, the status is negative or the
// step failed. fit() repeats it, stops at -3 when more than half of the
// first pass's projections are lost, stops when the mean square distance has
// not improved for more than 10 passes, and keeps the best transform met.
//
// Positioning: spare entries join the positioning set on the first
// iteration when the locked and soft entries leave the pose open
// (tsPointsToPlanes::fix_undetermined_positioning). With the over-
// constrained mode on, positioning entries that add nothing to the pose are
// moved to the spares on the first iteration, and without fitting
// projections the pose is the least-squares pose of the positioning alone.
//
// Locks, handed to the embedded object:
// - lock_direction(a, b, mode): the measured direction a is carried onto the
//   nominal b (mode != 0: onto b or -b, whichever fits);
// - lock_axis(measured, nominal, mode): the measured line is carried onto
//   the nominal line: its direction as lock_direction, and its point held on
//   the nominal line by two positioning entries with normals across the
//   line (turn about and slide along the line stay free);
// - lock_plane(measured, nominal, mode): the measured plane is carried onto
//   the nominal plane: its normal as lock_direction, and its point held on
//   the nominal plane by a positioning entry along the nominal normal (slide
//   in the plane and turn about the normal stay free).
// Balances (add_balance): two fitting points whose deviations d1, d2 enter
// as the one residual c1 d1 + c2 d2 (1 and -1 centre the part between two
// opposite faces, 1 and 1 between two faces whose normals face each other).
//
// Statuses (tsRPS_FITTING_STATUS): 0 running or fitted; 1 fitted, but the
// iteration limit was reached before the points settled; -1 fewer than 3
// valid projections and nothing that positions the part (no positioning
// entry, no locked direction); -2 an intermediate fit gave no usable
// transform (the transform stays where the last good step left it); -3 more
// than half of the projections of the first pass were lost during the fit.
#pragma once

#include <utility>
#include <vector>

#include "metrofit/alignment/points_to_planes.h"
#include "metrofit/bestfit/fit_points.h"
#include "metrofit/bestfit/surface_bestfit.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/geometry/inf_line.h"
#include "metrofit/platform/geometry/plane.h"
#include "metrofit/platform/geometry/workplane.h"
#include "metrofit/platform/geometry/xform.h"

enum tsRPS_FITTING_STATUS {
    tsRPS_FITTING_OK = 0,
    tsRPS_FITTING_NOT_CONVERGED = 1,
    tsRPS_FITTING_TOO_FEW_PROJECTIONS = -1,
    tsRPS_FITTING_STEP_FAILED = -2,
    tsRPS_FITTING_PROJECTIONS_LOST = -3
};

class tsRPSFitting {
   public:
    // At most max_iterations iterations; the fit ends when no valid point
    // moves by tolerance or more in a step.
    tsRPSFitting(int max_iterations, double tolerance);

    // Loading.
    void add_positioning(const giPoint3& measured, const giWorkplane3& frame,
                         const giPoint3& nominal, tsPointsToPlanes::PLANE_STATE x_state,
                         tsPointsToPlanes::PLANE_STATE y_state,
                         tsPointsToPlanes::PLANE_STATE z_state);
    // A fitting point with the band lower <= signed deviation <= upper of its
    // projection (-DBL_MAX, DBL_MAX: none).
    void add_point(const tsFitPoint3coPrf& point, double lower_limit, double upper_limit);
    // Two fitting points balanced as c1 d1 + c2 d2 (no bands).
    void add_balance(const tsFitPoint3coPrf& point1, double coefficient1,
                     const tsFitPoint3coPrf& point2, double coefficient2);
    void lock_axis(const giInfLine3& measured, const giInfLine3& nominal, int mode);
    void lock_plane(const giPlane& measured, const giPlane& nominal, int mode);
    void lock_direction(const giVector3& measured, const giVector3& nominal, int mode);
    void reserve_points(int n);
    // The projector of the nominal geometry (not owned; it must outlive the
    // fit).
    void set_projector(const tsFitPointProjector3* projector) { projector_ = projector; }

    // Fitting.
    tsRPS_FITTING_STATUS fit();
    int do_iteration();
    // Computes the motion of the embedded object's entries (see the header
    // comment) and applies it after step: step becomes motion * step. Pass the
    // identity to receive the bare motion. Returns 0 (step untouched) when
    // the fit gives no finite transform.
    int do_intermediate_bestfit(giXform3& step, double speed, int first);
    // Projects the fitting points under the accumulated transform and
    // rebuilds the bestfit entries of the embedded object from them.
    void extract_fitting_data();
    // Projects every fitting point under xform into the projected points
    // (invalid records without a projector).
    void reproject_all_points(giXform3& xform);

    // Clears the bestfit data; then 1 when the embedded object has enough
    // data and test_positioning(mode, xform) is not 0, else 0.
    int rps_determined(int mode, giXform3& xform);
    // Start again from the identity with 240 downhill starts in the first
    // intermediate fit and an initial projection of the points.
    void slow_first_iteration();

    // Queries.
    const giXform3& transform() const { return transform_; }
    // The mean square distance of the fitting points (see
    // get_square_distance) where the fit has put them.
    double square_deviation() const { return mean_square_distance_; }
    // The rms of the original positioning points' deviations under the
    // accumulated transform.
    double standard_deviation_of_nominals() {
        return fitter_.standard_deviation_of_nominals(transform_);
    }
    int get_iterations() const { return iterations_; }
    int nb_points() const { return points_.size(); }
    int num_valid_projections() const { return num_valid_projections_; }
    const tsFitPoint3coPrf& point(int i) const { return points_.read(i); }
    tsRPS_FITTING_STATUS status_code() const { return status_; }
    // The projections of the last extraction, one per fitting point in
    // order; their measured points lie where the accumulated transform put
    // them at that time.
    const tsProjectedPoint3coDynArr& projected_points() const { return projected_; }
    const tsPointsToPlanes& points_to_planes() const { return fitter_; }
    // The largest movement of a valid point in the last step.
    double last_movement() const { return last_movement_; }

    void overconstrained_mode(int mode) { overconstrained_mode_ = mode; }
    void set_status(tsRPS_FITTING_STATUS status) { status_ = status; }

    // Mean of the squared deviations of the valid points under xform: |X m -
    // q|^2 for a single point, (c1 d1 + c2 d2)^2 for a balanced pair (d the
    // signed deviation along the normal); the bare sum 0.0 without terms.
    double get_square_distance(const tsProjectedPoint3coDynArr& points,
                               const giXform3& xform) const;

   private:
    // One step from the current entries, composed into the accumulated
    // transform with the positioning data following it; records the largest
    // movement and the mean square distance under the step.
    void apply_step(const giXform3& step);
    // The bestfit entries of the embedded object from the projections: every
    // one (stride 1), or those of every stride-th fitting point.
    void load_entries(int stride);

    giXform3 transform_;
    double mean_square_distance_ = 0.0;
    int iterations_ = 0;
    tsRPS_FITTING_STATUS status_ = tsRPS_FITTING_OK;
    int overconstrained_mode_ = 0;
    tsPointsToPlanes fitter_;
    tsProjectedPoint3coDynArr projected_;
    int num_valid_projections_ = 0;
    int max_iterations_;
    double square_tolerance_;
    tsFitPoint3PtrcoPageArr points_;
    std::vector<std::pair<int, double>> balance_pairs_;
    doublecoPageArr lower_limits_;
    doublecoPageArr upper_limits_;
    // The largest movement of the last step (0 before any).
    double last_movement_ = 0.0;
    // 1 until the points have been projected once after construction or
    // slow_first_iteration: that projection is an initial one.
    int initial_projection_ = 1;
    const tsFitPointProjector3* projector_ = nullptr;
};

// Measures of one projected point p (measured m, nominal q, normal n):
// (X m - q) . n and |X m - q|^2.
double signed_norm_dev(const tsProjectedPoint3& p, const giXform3& xform);
double square_dev(const tsProjectedPoint3& p, const giXform3& xform);
