#include "metrofit/bestfit/curve_bestfit2.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/alignment/points_to_lines.h"
#include "metrofit/bestfit/surface_bestfit.h"

namespace {

bool point_set(const giPoint2& p) { return p.is_set(); }
bool vector_set(const giVector2& v) { return v.x() != -DBL_MAX; }

}  // namespace

tsProbedPoint2::~tsProbedPoint2() = default;
tsFitPointProjector2::~tsFitPointProjector2() = default;
tsProjectorForFitting2::~tsProjectorForFitting2() = default;

void tsProbedPoint2::initial_projection(tsProjectedPoint2& out,
                                        const tsFitPointProjector2* projector) const {
    project_from_position(giXform2(giIdentity), out, projector);
}

void tsProbedPoint2::project_from_position(const giXform2& xform, tsProjectedPoint2& out,
                                           const tsFitPointProjector2* projector) const {
    const auto* fitting = dynamic_cast<const tsProjectorForFitting2*>(projector);
    if (!fitting) {
        out = tsProjectedPoint2();
        return;
    }
    fitting->rotate_and_project(xform, this, out);
}

void tsFitPointProjector2::project_batch(const std::function<const tsFitPoint2&(int)>& get_point,
                                         const std::function<tsProjectedPoint2&(int)>& get_result,
                                         int count, int initial, const giXform2& xform) const {
    for (int i = 0; i < count; ++i) {
        if (initial)
            get_point(i).initial_projection(get_result(i), this);
        else
            get_point(i).project_from_position(xform, get_result(i), this);
    }
}

void tsProjectorForFitting2::rotate_and_project(const giXform2&, const tsProbedPoint2*,
                                                tsProjectedPoint2& out) const {
    out = tsProjectedPoint2();
}

void tsCurveProjectorForFitting2::rotate_and_project(const giXform2& xform,
                                                     const tsProbedPoint2* point,
                                                     tsProjectedPoint2& out) const {
    out = tsProjectedPoint2();
    if (!curve_ || !point || !xform.is_set() || !(point->radius() >= 0.0)) return;
    const giPoint2 p = xform * point->measured_point();
    if (!p.is_finite()) return;
    const bool has_side = point->approximate_normal().is_set();
    const giVector2 a = has_side ? xform * giVector2(point->approximate_normal()) : giVector2();
    const double r = point->radius();

    tsCurveFoot2coDynArr feet;
    curve_->project_all(p, feet);
    // On the curve: within 1e-9 of the curve's size (its join tolerance is
    // 1e-6 of it).
    const double on_curve = 1e-3 * curve_->join_tolerance();
    double best = DBL_MAX;
    for (const tsCurveFoot2& s : feet) {
        const giVector2 ns = s.normal;
        const giVector2 d = p - s.position;
        const double length = d.length();
        giVector2 n = ns;
        if (length > on_curve) {
            const giVector2 u = d / length;
            if (!(std::fabs(cross(ns, u)) <= 0.01)) continue;
            if (has_side) n = dot(a, u) < 0.0 ? u * -1.0 : u;
        } else if (has_side && dot(a, ns) < 0.0) {
            n = ns * -1.0;
        }
        const giPoint2 centre = s.position + n * r;
        const double score = (p - centre).length();
        if (score < best) {
            best = score;
            out = tsProjectedPoint2(p, centre, giUnitVec2(n));
        }
    }
}

void tsCurveBestfit2::reserve_points(int n) {
    points_.reserve(n);
    lower_limits_.reserve(n);
    upper_limits_.reserve(n);
    weights_.reserve(n);
}

void tsCurveBestfit2::add_point(const tsFitPoint2coPrf& p) { add_point(p, -DBL_MAX, DBL_MAX, 1.0); }

void tsCurveBestfit2::add_point(const tsFitPoint2coPrf& p, double lower_limit, double upper_limit,
                                double weight) {
    if (!p || weight == 0.0 || !std::isfinite(weight)) return;
    points_.append(p);
    lower_limits_.append(std::isnan(lower_limit) ? -DBL_MAX : lower_limit);
    upper_limits_.append(std::isnan(upper_limit) ? DBL_MAX : upper_limit);
    weights_.append(weight);
}

void tsCurveBestfit2::lock_origin(const giPoint2& measured_point, const giPoint2& nominal_point) {
    lock_direction_measured_ = lock_direction_nominal_ = giVector2();
    lock_point_measured_ = measured_point;
    lock_point_nominal_ = nominal_point;
}

void tsCurveBestfit2::lock_axis(const giVector2& measured_direction,
                                const giVector2& nominal_direction) {
    lock_point_measured_ = lock_point_nominal_ = giPoint2();
    lock_direction_measured_ = measured_direction;
    lock_direction_nominal_ = nominal_direction;
}

void tsCurveBestfit2::reproject_all_points(const giXform2& xform,
                                           tsProjectedPoint2coDynArr& out) const {
    const int n = points_.size();
    out.clear(0);
    out.expand(n);
    for (int i = 0; i < n; ++i) out[i] = tsProjectedPoint2();
    if (projector_)
        projector_->project_batch([this](int i) -> const tsFitPoint2& { return *points_[i]; },
                                  [&out](int i) -> tsProjectedPoint2& { return out[i]; }, n,
                                  first_projection_, xform);
    first_projection_ = 0;
}

void tsCurveBestfit2::get_pointcloud_parameters(const tsProjectedPoint2coDynArr& pts,
                                                double& max_distance, double& max_signed_distance,
                                                double& min_signed_distance, int& n_invalid,
                                                int& n_valid) {
    ts_pointcloud_parameters(pts, max_distance, max_signed_distance, min_signed_distance, n_invalid,
                             n_valid);
}

int tsCurveBestfit2::do_iteration(giXform2& step) {
    step = giXform2(giIdentity);
    if (!transformation_.is_set()) {
        transformation_.become(giIdentity);
        reproject_all_points(transformation_, projected_);
    }
    tsPointsToLines solver;
    // row_limit[k]: the number, over all points, of the k-th finite limit the
    // solver sees, so that its over-determined rows map back to points.
    intcoDynArr row_limit;
    int next_limit = 0, n_valid = 0;
    auto kept = [&](double value, double open, int valid) {
        if (value == open || std::isinf(value)) return open;
        const int number = next_limit++;
        for (int dropped : overdetermined_)
            if (dropped == number) return open;
        if (valid) row_limit.append(number);
        return value;
    };
    // The solver takes its turn about the origin and its shift as they come
    // out of the linear solve, which misplaces a part far from the origin
    // by about theta^2 / 2 times its distance. Centring the entries on the
    // valid measured points' centroid o keeps that error at the size of the
    // part; the step is moved back as T(o) step T(-o).
    const int n = points_.size();
    double ox = 0.0, oy = 0.0;
    for (int i = 0; i < n && i < projected_.size(); ++i)
        if (!projected_[i].invalid()) {
            ox += projected_[i].measured_point().x();
            oy += projected_[i].measured_point().y();
            ++n_valid;
        }
    if (n_valid == 0) return 0;
    const giVector2 o(ox / n_valid, oy / n_valid);
    for (int i = 0; i < n && i < projected_.size(); ++i) {
        const tsProjectedPoint2& p = projected_[i];
        const int valid = p.invalid() ? 0 : 1;
        const double lower = kept(lower_limits_[i], -DBL_MAX, valid);
        const double upper = kept(upper_limits_[i], DBL_MAX, valid);
        if (!valid) continue;
        solver.add_bestfit(
            tsLineAndPoint(p.measured_point() - o, p.nominal_point() - o, p.nominal_normal()),
            lower, upper, weights_[i] * weight_scale_);
    }
    if (vector_set(lock_direction_measured_))
        solver.lock_axis(lock_direction_measured_, lock_direction_nominal_);
    else if (point_set(lock_point_measured_))
        solver.lock_origin(lock_point_measured_ - o, lock_point_nominal_ - o);
    giXform2 centred;
    if (!solver.single_linear_step(centred)) return 0;
    step = giXform2(o) * centred * giXform2(giVector2(-o.x(), -o.y()));
    for (int row : solver.overdetermined_constraints())
        if (row >= 0 && row < row_limit.size()) overdetermined_.append(row_limit[row]);
    std::sort(overdetermined_.begin(), overdetermined_.end());
    overdetermined_.resize(static_cast<int>(
        std::unique(overdetermined_.begin(), overdetermined_.end()) - overdetermined_.begin()));

    last_movement_ = get_maximum_movement(projected_, step);
    transformation_ = step * transformation_;
    reproject_all_points(transformation_, projected_);
    // The moved points carry the measured halves of the locks onto the
    // nominal ones: the next step starts from there.
    if (point_set(lock_point_measured_) && point_set(lock_point_nominal_))
        lock_point_measured_ = lock_point_nominal_;
    if (vector_set(lock_direction_measured_) && vector_set(lock_direction_nominal_))
        lock_direction_measured_ = lock_direction_nominal_;
    return 1;
}

int tsCurveBestfit2::fit(double tolerance, giXform2& xform, double& max_distance,
                         double& max_signed_distance, double& min_signed_distance,
                         int& n_unprojected) {
    transformation_.become(giIdentity);
    overdetermined_.clear(0);
    iterations_ = 0;
    first_projection_ = 1;
    projected_.clear(0);
    max_distance = max_signed_distance = min_signed_distance = 0.0;
    n_unprojected = points_.size();
    xform = transformation_;
    if (!(tolerance >= 0.0) || !std::isfinite(tolerance)) {
        status_ = tsCURVE_BESTFIT2_BAD_TOLERANCE;
        return 0;
    }
    if (!projector_) {
        status_ = tsCURVE_BESTFIT2_NO_PROJECTOR;
        return 0;
    }
    if (points_.size() == 0) {
        status_ = tsCURVE_BESTFIT2_NO_POINTS;
        return 0;
    }
    double sum = 0.0;
    for (double w : weights_) sum += std::fabs(w);
    weight_scale_ = sum > 0.0 && std::isfinite(sum) ? weights_.size() / sum : 1.0;
    // The steps re-base the locks onto their nominal halves; the fit leaves
    // them as the caller set them, so that every fit starts alike.
    const giPoint2 lock_point = lock_point_measured_;
    const giVector2 lock_direction = lock_direction_measured_;

    reproject_all_points(transformation_, projected_);
    status_ = tsCURVE_BESTFIT2_ITERATION_LIMIT;
    int n_valid = 0;
    for (; iterations_ < MAX_ITERATIONS; ++iterations_) {
        get_pointcloud_parameters(projected_, max_distance, max_signed_distance,
                                  min_signed_distance, n_unprojected, n_valid);
        if (n_valid == 0) {
            status_ = tsCURVE_BESTFIT2_NOTHING_PROJECTED;
            break;
        }
        giXform2 step;
        if (!do_iteration(step)) {
            status_ = tsCURVE_BESTFIT2_STEP_FAILED;
            break;
        }
        if (last_movement_ < tolerance) {
            ++iterations_;
            status_ = tsCURVE_BESTFIT2_CONVERGED;
            break;
        }
    }
    get_pointcloud_parameters(projected_, max_distance, max_signed_distance, min_signed_distance,
                              n_unprojected, n_valid);
    lock_point_measured_ = lock_point;
    lock_direction_measured_ = lock_direction;
    xform = transformation_;
    return status_ == tsCURVE_BESTFIT2_CONVERGED || status_ == tsCURVE_BESTFIT2_ITERATION_LIMIT;
}
