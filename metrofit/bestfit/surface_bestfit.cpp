#include "metrofit/bestfit/surface_bestfit.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/workplane.h"
#include "metrofit/platform/maths/constrained_quadratic.h"

namespace {

bool point_set(const giPoint3& p) {
    return p.x() != -DBL_MAX && p.x() != DBL_MAX && p.y() != DBL_MAX && p.z() != DBL_MAX;
}

bool vector_set(const giVector3& v) { return v.x() != -DBL_MAX; }

}  // namespace

tsSurfaceBestfit::tsSurfaceBestfit() = default;

void tsSurfaceBestfit::reserve_points(int n) {
    points_.reserve(n);
    lower_limits_.reserve(n);
    upper_limits_.reserve(n);
    weights_.reserve(n);
}

void tsSurfaceBestfit::add_point(const tsFitPoint3coPrf& p) {
    add_point(p, -DBL_MAX, DBL_MAX, 1.0);
}

void tsSurfaceBestfit::add_point(const tsFitPoint3coPrf& p, double lower_limit, double upper_limit,
                                 double weight) {
    if (weight == 0.0) return;
    points_.append(p);
    lower_limits_.append(lower_limit);
    upper_limits_.append(upper_limit);
    weights_.append(weight);
}

void tsSurfaceBestfit::lock_axis(tsSurfaceBestfitLockedAxisType type,
                                 const giVector3& measured_direction,
                                 const giVector3& nominal_direction, const giPoint3& measured_point,
                                 const giPoint3& nominal_point) {
    has_locks_ = 1;
    lock_axis_type_ = type;
    lock_direction_measured_ = measured_direction;
    lock_direction_nominal_ = nominal_direction;
    lock_point_measured_ = measured_point;
    lock_point_nominal_ = nominal_point;
}

void tsSurfaceBestfit::lock_origin(const giPoint3& measured_point, const giPoint3& nominal_point) {
    has_locks_ = 1;
    lock_point_measured_ = measured_point;
    lock_point_nominal_ = nominal_point;
}

void tsSurfaceBestfit::lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c) {
    has_locks_ = 1;
    for (const giVector3* v : {&a, &b, &c})
        if (vector_set(*v)) locked_rotation_axes_.append(*v);
}

void tsSurfaceBestfit::reproject_all_points(giXform3& xform, tsProjectedPoint3coDynArr& out) const {
    const int n = points_.size();
    out.clear(0);
    out.expand(n);
    if (projector_) {
        projector_->project_batch([this](int i) -> const tsFitPoint3& { return *points_.read(i); },
                                  [&out](int i) -> tsProjectedPoint3& { return out[i]; }, n,
                                  first_projection_, xform);
    } else {
        for (int i = 0; i < n; ++i) out[i] = tsProjectedPoint3();
    }
    first_projection_ = 0;
}

void tsSurfaceBestfit::get_pointcloud_parameters(const tsProjectedPoint3coDynArr& pts,
                                                 double& max_distance, double& max_signed_distance,
                                                 double& min_signed_distance, int& n_invalid,
                                                 int& n_valid) {
    ts_pointcloud_parameters(pts, max_distance, max_signed_distance, min_signed_distance, n_invalid,
                             n_valid);
}

double get_maximum_movement(const tsProjectedPoint3coDynArr& pts, const giXform3& step) {
    double worst = 0.0;
    for (const tsProjectedPoint3& p : pts)
        if (!p.invalid())
            worst = std::max(worst, (step * p.measured_point() - p.measured_point()).length());
    return worst;
}

double get_maximum_movement(const tsProjectedPoint2coDynArr& pts, const giXform2& step) {
    double worst = 0.0;
    for (const tsProjectedPoint2& p : pts)
        if (!p.invalid())
            worst = std::max(worst, (step * p.measured_point() - p.measured_point()).length());
    return worst;
}

int tsSurfaceBestfit::do_iteration(giXform3& step) {
    if (!transformation_.is_set()) {
        transformation_.become(giIdentity);
        reproject_all_points(transformation_, projected_);
    }
    int n_valid = 0;
    for (const tsProjectedPoint3& p : projected_) n_valid += p.invalid() ? 0 : 1;
    tsPointsToPlanes solver;
    solver.reserve_bestfit(n_valid);

    // Limits the solver once found over-determined stay dropped: they are
    // numbered in the order finite limits occur, lower before upper.
    int k = 0, cursor = 0;
    const int n_over = overdetermined_.size();
    auto limit = [&](double value, double open) {
        if (value == open) return open;
        double kept = value;
        if (cursor < n_over && overdetermined_[cursor] == k) {
            ++cursor;
            kept = open;
        }
        ++k;
        return kept;
    };
    const int n = points_.size();
    for (int i = 0; i < n && i < projected_.size(); ++i) {
        const double lower = limit(lower_limits_.read(i), -DBL_MAX);
        const double upper = limit(upper_limits_.read(i), DBL_MAX);
        const double weight = weights_.size() > 0 ? weights_.read(i) : 1.0;
        const tsProjectedPoint3& p = projected_[i];
        if (!p.invalid())
            solver.add_bestfit(p.measured_point(), p.nominal_point(), p.nominal_normal(), lower,
                               upper, weight);
    }

    if (locked_rotation_axes_.size() > 0) {
        const int m = locked_rotation_axes_.size();
        solver.lock_rotations(locked_rotation_axes_[0],
                              m > 1 ? locked_rotation_axes_[1] : giVector3(),
                              m > 2 ? locked_rotation_axes_[2] : giVector3());
    } else if (vector_set(lock_direction_measured_)) {
        solver.lock_direction(lock_direction_measured_, lock_direction_nominal_, 0);
        if (point_set(lock_point_measured_))
            for (int r = 0; r < lock_axis_type_; ++r)
                solver.add_positioning(lock_point_measured_, lock_point_nominal_,
                                       giVector3(1, 0, 0), 0);
    } else if (point_set(lock_point_measured_)) {
        const giWorkplane3 frame(giPoint3(0, 0, 0), giUnitVec3(0, 1, 0), giUnitVec3(0, 0, 1));
        solver.add_positioning(lock_point_measured_, frame, lock_point_nominal_,
                               tsPointsToPlanes::PLANE_LOCKED, tsPointsToPlanes::PLANE_LOCKED,
                               tsPointsToPlanes::PLANE_LOCKED, 0);
    }

    solver.set_fitting_points_attraction(0.01);
    if (!solver.single_linear_step(step)) return 0;
    mlConstrainedQuadraticMinimiser::append_constraint_indices(solver.overdetermined_constraints(),
                                                               overdetermined_);
    if (overdetermined_.size() == 0) {
        last_good_transformation_ = transformation_;
    } else if (last_good_transformation_.is_set()) {
        transformation_ = last_good_transformation_;
        if (transformation_.is_identity()) first_projection_ = 1;
        reproject_all_points(transformation_, projected_);
        return 0;
    }
    transformation_ = step * transformation_;
    reproject_all_points(transformation_, projected_);

    if (point_set(lock_point_measured_) && point_set(lock_point_nominal_))
        lock_point_measured_ = lock_point_nominal_;
    if (vector_set(lock_direction_measured_) && vector_set(lock_direction_nominal_))
        lock_direction_measured_ = lock_direction_nominal_;
    return 1;
}

void tsSurfaceBestfit::fit(double tolerance, giXform3& xform, double& max_distance,
                           double& max_signed_distance, double& min_signed_distance,
                           int& n_unprojected) {
    if (!transformation_.is_identity(0.0)) {
        transformation_.become(giIdentity);
        reproject_all_points(transformation_, projected_);
    }
    if (points_.size() == 0) return;
    double sum = 0.0;
    for (int i = 0; i < weights_.size(); ++i) sum += std::fabs(weights_.read(i));
    if (sum > 0.0)
        for (int i = 0; i < weights_.size(); ++i) weights_.read(i) *= weights_.size() / sum;
    for (int iteration = 0;; ++iteration) {
        giXform3 step(giIdentity);
        const int ok = do_iteration(step);
        int n_valid = 0;
        get_pointcloud_parameters(projected_, max_distance, max_signed_distance,
                                  min_signed_distance, n_unprojected, n_valid);
        if (!ok) break;
        if (tolerance > get_maximum_movement(projected_, step)) break;
        if (iteration + 1 >= 50) break;
    }
    xform = transformation_;
}
