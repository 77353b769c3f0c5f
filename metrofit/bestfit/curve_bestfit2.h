// tsCurveBestfit2: the rigid motion of the plane that carries probed points
// onto a nominal profile (tsCurve2) in the least-squares sense.
//
// Points and projectors. A tsProbedPoint2 is a probe-ball centre m, the
// approximate normal a0 at the contact (the probing direction reversed; it
// only picks the side, and may be unset) and the ball radius r (0: no
// compensation). Projection is a double dispatch as in space: the
// projector's project_batch asks each point to project itself, and a probed
// point hands itself to the projector's rotate_and_project, so new point
// kinds and new nominal objects are added independently.
//
// Probe compensation (tsCurveProjectorForFitting2). For p = X m and
// a = X a0 every foot point s of p on the curve, with curve normal n_s and
// d = p - s, is a candidate. On the curve (|d| at most 1e-9 of the curve's
// size) n = n_s turned towards a; off it d is made unit and counts only when
// |n_s x d| <= 0.01, with n = d turned towards a. Without an approximate
// normal n is n_s as it stands (the ball touched the curve's normal side).
// The partner is the ball centre on the nominal, c = s + r n, and the
// candidate scores |p - c|: on the approach side that is ||d| - r|, behind
// the point |d| + r, so the approach side wins. The lowest score wins, ties
// keep the nearer foot; no candidate gives an invalid projection. The
// signed deviation (p - c) . n is the deviation of the touched point,
// positive on the side the probe came from.
//
// Objective. The sum of w_i d_i^2 over the projected points, d_i the signed
// deviation, where the weights are normalised so that their mean absolute
// value is 1 (a weight of 0 leaves the point out), optionally under bands
// lower_i <= d_i <= upper_i (-DBL_MAX, DBL_MAX: open).
//
// Iteration. Each step projects every point under the current transform,
// hands every valid projection to a fresh tsPointsToLines as one entry
// (measured point, partner as line point, normal as line normal, band and
// weight), takes one linear step and composes it after the current
// transform: Gauss-Newton on the tangent lines of the profile, whose
// contact moves with the points. fit() starts from the identity and stops
//   - when the largest movement of a valid point in a step is below the
//     tolerance (converged),
//   - after 50 steps (iteration limit: the last transform is kept),
//   - when no point projects or the step fails (the transform is the last
//     good one).
// Band limits that a step's constrained minimum finds over-determined (in
// conflict with the others) are recorded in overdetermined_constraints(),
// numbered in the order finite limits occur over all points, lower before
// upper, and left out of every later step: the bands are met where they can
// be and the rest are reported. The loop is bounded by the step count, and
// every projection by the curve's element count.
//
// Locks, handed to the linear step and re-based onto their nominal halves
// after every step (the moved points already carry the measured ones); fit()
// gives them back as set at its end, so that every fit starts alike:
//   - lock_origin(measured point, nominal point): the measured point is
//     carried onto the nominal one and the part only turns about it;
//   - lock_axis(measured direction, nominal direction): the measured
//     direction is turned onto the nominal one and the part then only
//     slides along it (a part on a guide). The later call replaces the other.
//
// Statuses (status(); fit returns 1 for the first two, 0 otherwise; the
// outputs are written in every case, the transform being the identity when
// nothing could be done, else the last transform reached):
//   tsCURVE_BESTFIT2_CONVERGED, tsCURVE_BESTFIT2_ITERATION_LIMIT,
//   tsCURVE_BESTFIT2_NO_PROJECTOR,
//   tsCURVE_BESTFIT2_NO_POINTS, tsCURVE_BESTFIT2_NOTHING_PROJECTED,
//   tsCURVE_BESTFIT2_STEP_FAILED (a lock without direction or with a
//   non-finite coordinate), tsCURVE_BESTFIT2_BAD_TOLERANCE (negative or
//   not finite).
#pragma once

#include <functional>

#include "metrofit/bestfit/curve2.h"
#include "metrofit/bestfit/fit_points.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"

class tsProbedPoint2 : public tsFitPoint2 {
   public:
    tsProbedPoint2() = default;
    tsProbedPoint2(const giPoint2& measured, const giUnitVec2& approximate_normal, double radius)
        : measured_point_(measured), approximate_normal_(approximate_normal), radius_(radius) {}

    void initial_projection(tsProjectedPoint2& out,
                            const tsFitPointProjector2* projector) const override;
    // Hands the point to the projector's rotate_and_project; a projector
    // that is null or cannot project probed points gives an invalid result.
    void project_from_position(const giXform2& xform, tsProjectedPoint2& out,
                               const tsFitPointProjector2* projector) const override;
    ~tsProbedPoint2() override;
    const giPoint2& measured_point() const { return measured_point_; }
    const giUnitVec2& approximate_normal() const { return approximate_normal_; }
    double radius() const { return radius_; }

   private:
    giPoint2 measured_point_;
    giUnitVec2 approximate_normal_;
    double radius_ = 0.0;
};

class tsFitPointProjector2 {
   public:
    // For i = 0 .. count - 1: the point get_point(i) projects itself into
    // get_result(i), initially (initial != 0) or under xform.
    virtual void project_batch(const std::function<const tsFitPoint2&(int)>& get_point,
                               const std::function<tsProjectedPoint2&(int)>& get_result, int count,
                               int initial, const giXform2& xform) const;
    virtual ~tsFitPointProjector2();
};

// The projector of the plain nominal object: every projection is invalid.
class tsProjectorForFitting2 : public tsFitPointProjector2 {
   public:
    ~tsProjectorForFitting2() override;
    virtual void rotate_and_project(const giXform2& xform, const tsProbedPoint2* point,
                                    tsProjectedPoint2& out) const;
};

// Probe-compensated projection onto a profile (header comment). The curve
// is not owned: its owner must outlive the projector.
class tsCurveProjectorForFitting2 : public tsProjectorForFitting2 {
   public:
    explicit tsCurveProjectorForFitting2(const tsCurve2* curve) : curve_(curve) {}
    void rotate_and_project(const giXform2& xform, const tsProbedPoint2* point,
                            tsProjectedPoint2& out) const override;

   private:
    const tsCurve2* curve_;
};

enum tsCurveBestfit2Status {
    tsCURVE_BESTFIT2_NOT_RUN = 0,
    tsCURVE_BESTFIT2_CONVERGED = 1,
    tsCURVE_BESTFIT2_ITERATION_LIMIT = 2,
    tsCURVE_BESTFIT2_NO_PROJECTOR = 3,
    tsCURVE_BESTFIT2_NO_POINTS = 4,
    tsCURVE_BESTFIT2_NOTHING_PROJECTED = 5,
    tsCURVE_BESTFIT2_STEP_FAILED = 6,
    tsCURVE_BESTFIT2_BAD_TOLERANCE = 7
};

class tsCurveBestfit2 {
   public:
    static constexpr int MAX_ITERATIONS = 50;

    void set_projector(const tsFitPointProjector2* projector) { projector_ = projector; }
    void reserve_points(int n);
    void add_point(const tsFitPoint2coPrf& p);
    void add_point(const tsFitPoint2coPrf& p, double lower_limit, double upper_limit,
                   double weight);
    void lock_origin(const giPoint2& measured_point, const giPoint2& nominal_point);
    void lock_axis(const giVector2& measured_direction, const giVector2& nominal_direction);

    // One step from the current transform (the identity before the first);
    // 1 done, 0 when nothing projects or the linear step fails.
    int do_iteration(giXform2& step);
    // The whole fit (header comment); returns 1 when the transform is a fit.
    int fit(double tolerance, giXform2& xform, double& max_distance, double& max_signed_distance,
            double& min_signed_distance, int& n_unprojected);

    // Over the valid records: the largest distance, the largest signed
    // deviation (at least 0) and the smallest (at most 0), with the counts.
    static void get_pointcloud_parameters(const tsProjectedPoint2coDynArr& pts,
                                          double& max_distance, double& max_signed_distance,
                                          double& min_signed_distance, int& n_invalid,
                                          int& n_valid);

    int status() const { return status_; }
    int iterations() const { return iterations_; }
    const giXform2& get_transformation() const { return transformation_; }
    const tsProjectedPoint2coDynArr& get_pointcloud() const { return projected_; }
    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }
    int nb_points() const { return points_.size(); }

   private:
    void reproject_all_points(const giXform2& xform, tsProjectedPoint2coDynArr& out) const;

    giPoint2 lock_point_measured_;
    giPoint2 lock_point_nominal_;
    giVector2 lock_direction_measured_;
    giVector2 lock_direction_nominal_;
    coDynArr<tsFitPoint2coPrf> points_;
    doublecoDynArr lower_limits_;
    doublecoDynArr upper_limits_;
    doublecoDynArr weights_;
    intcoDynArr overdetermined_;
    tsProjectedPoint2coDynArr projected_;
    giXform2 transformation_;
    giXform2 last_good_transformation_;
    const tsFitPointProjector2* projector_ = nullptr;
    mutable int first_projection_ = 1;
    int status_ = tsCURVE_BESTFIT2_NOT_RUN;
    int iterations_ = 0;
    double last_movement_ = 0.0;
    double weight_scale_ = 1.0;  // mean absolute weight 1 (set by fit)
};
