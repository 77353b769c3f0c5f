// tsSurfaceBestfit: the rigid transform that moves probed points onto a
// nominal surface in the least-squares sense.
//
// Each iteration projects every moved point onto the nominal object (its
// projector, tsFitPointProjector3), takes each valid projection as a
// tangent plane (nominal point and normal), asks a fresh tsPointsToPlanes
// for one linear step and composes it after the current transform. fit()
// starts from the identity and stops when the largest movement of a valid
// point in a step falls below the tolerance, when a step fails, or after 50
// iterations; it reports the largest distance, the extreme signed distances
// and the count of points that did not project.
//
// Per point: a tolerance band lower <= signed deviation <= upper (open ends
// -DBL_MAX, DBL_MAX) and a weight (normalised by fit so that the mean
// absolute weight is 1; a weight of 0 leaves the point out).
//
// Locks, handed to the linear step:
// - lock_rotations(a, b, c): no rotation, shifts along the given axes only;
// - lock_axis(type, measured direction, nominal direction, measured point,
//   nominal point): the measured direction is carried onto the nominal one
//   (turn about it and shift free); the type counts how many times the axis
//   point enters as a point positioning entry (0: the direction alone,
//   tsSURFACE_BESTFIT_AXIS_THROUGH_POINT: the axis also passes through the
//   point; larger values pin it harder);
// - lock_origin(measured point, nominal point): the point is carried onto
//   its nominal and the part turns about it.
// After every step the locks are re-based onto their nominal targets, since
// the moved points already carry the measured ones there.
//
// Tolerance constraints that the step's constrained minimum reports as
// over-determined are recorded (numbered in the order finite limits occur,
// lower before upper), dropped in all later iterations, and the iteration
// that found them rolls back to the last transform without any and ends
// the fit.
#pragma once

#include "metrofit/alignment/points_to_planes.h"
#include "metrofit/bestfit/fit_points.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/geometry/arrays.h"

enum tsSurfaceBestfitLockedAxisType {
    tsSURFACE_BESTFIT_AXIS_DIRECTION = 0,
    tsSURFACE_BESTFIT_AXIS_THROUGH_POINT = 1
};

class tsSurfaceBestfit {
   public:
    tsSurfaceBestfit();

    void set_projector(const tsFitPointProjector3* projector) { projector_ = projector; }
    void reserve_points(int n);
    void add_point(const tsFitPoint3coPrf& p);
    void add_point(const tsFitPoint3coPrf& p, double lower_limit, double upper_limit,
                   double weight);
    void lock_axis(tsSurfaceBestfitLockedAxisType type, const giVector3& measured_direction,
                   const giVector3& nominal_direction, const giPoint3& measured_point,
                   const giPoint3& nominal_point);
    void lock_origin(const giPoint3& measured_point, const giPoint3& nominal_point);
    void lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c);

    int do_iteration(giXform3& step);
    void fit(double tolerance, giXform3& xform, double& max_distance, double& max_signed_distance,
             double& min_signed_distance, int& n_unprojected);

    static void get_pointcloud_parameters(const tsProjectedPoint3coDynArr& pts,
                                          double& max_distance, double& max_signed_distance,
                                          double& min_signed_distance, int& n_invalid,
                                          int& n_valid);

    const giXform3& get_transformation() const { return transformation_; }
    const tsProjectedPoint3coDynArr& get_pointcloud() const { return projected_; }
    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }
    int nb_points() const { return points_.size(); }
    const tsFitPoint3coPrf& point(int i) const { return points_.read(i); }
    int has_locks() const { return has_locks_; }

   protected:
    // Projects every point under xform into out (invalid records without a
    // projector); only the very first projection is an initial one.
    void reproject_all_points(giXform3& xform, tsProjectedPoint3coDynArr& out) const;

   private:
    giVector3 lock_direction_measured_;
    giVector3 lock_direction_nominal_;
    int lock_axis_type_ = 0;
    giPoint3 lock_point_measured_ = giPoint3(-DBL_MAX, 0.0, 0.0);
    giPoint3 lock_point_nominal_ = giPoint3(-DBL_MAX, 0.0, 0.0);
    giVector3coDynArr locked_rotation_axes_;
    int has_locks_ = 0;
    doublecoPageArr lower_limits_;
    doublecoPageArr upper_limits_;
    doublecoPageArr weights_;
    intcoDynArr overdetermined_;
    tsFitPoint3PtrcoPageArr points_;
    tsProjectedPoint3coDynArr projected_;
    giXform3 transformation_;
    const tsFitPointProjector3* projector_ = nullptr;
    mutable int first_projection_ = 1;
    giXform3 last_good_transformation_;
};

// The largest distance a valid point's measured point moves under step;
// 0 for none.
double get_maximum_movement(const tsProjectedPoint3coDynArr& pts, const giXform3& step);
double get_maximum_movement(const tsProjectedPoint2coDynArr& pts, const giXform2& step);
