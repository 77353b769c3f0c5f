#include "metrofit/bestfit/scaled_bestfit.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/bestfit/points_to_points.h"
#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

namespace {

using Matrix7 = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0, 7, 7>;
using Vector7 = Eigen::Matrix<double, Eigen::Dynamic, 1, 0, 7, 1>;

// Eigenvalues of the conditioned normal matrix at most this fraction of the
// largest leave their direction undetermined.
constexpr double kNullRatio = 1e-10;
// The scale counts as undetermined when its unit direction reaches into the
// undetermined directions by more than this (squared length of the part).
constexpr double kScaleInNull = 1e-6;

bool finite(const giPoint3& p) {
    return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z()) &&
           std::fabs(p.x()) < DBL_MAX && std::fabs(p.y()) < DBL_MAX && std::fabs(p.z()) < DBL_MAX;
}

bool finite(const giXform3& x) {
    if (!x.is_set()) return false;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!std::isfinite(x(r, c))) return false;
    return true;
}

// p -> centre + k (p - centre).
giXform3 scaling_about(const giPoint3& centre, double k) {
    const giVector3 c = centre - giPoint3(0.0, 0.0, 0.0);
    return giXform3::translation(c) * giXform3::scaling(k, k, k) * giXform3::translation(c * -1.0);
}

}  // namespace

void tsScaledSurfaceBestfit::reserve_points(int n) {
    points_.reserve(n);
    weights_.reserve(n);
}

void tsScaledSurfaceBestfit::add_point(const tsFitPoint3coPrf& p, double weight) {
    add_point(p, -DBL_MAX, DBL_MAX, weight);
}

void tsScaledSurfaceBestfit::add_point(const tsFitPoint3coPrf& p, double lower_limit,
                                       double upper_limit, double weight) {
    if (!std::isfinite(weight) || weight < 0.0) bad_input_ = true;
    if (std::isnan(lower_limit) || std::isnan(upper_limit) || lower_limit > upper_limit)
        bad_input_ = true;
    if (!(weight > 0.0) || !std::isfinite(weight)) return;
    points_.append(p);
    weights_.append(weight);
    lower_limits_.append(lower_limit);
    upper_limits_.append(upper_limit);
}

void tsScaledSurfaceBestfit::add_pair(const giPoint3& measured, const giPoint3& nominal) {
    if (!finite(measured) || !finite(nominal)) {
        bad_input_ = true;
        return;
    }
    pairs_measured_.append(measured);
    pairs_nominal_.append(nominal);
}

void tsScaledSurfaceBestfit::fix_scale(double scale) {
    scale_fixed_ = true;
    fixed_scale_ = scale;
}

void tsScaledSurfaceBestfit::clear_locks() {
    rotations_locked_ = origin_locked_ = axis_locked_ = axis_through_point_ = false;
    lock_point_given_ = false;
}

void tsScaledSurfaceBestfit::lock_origin(const giPoint3& measured_point,
                                         const giPoint3& nominal_point) {
    clear_locks();
    if (!finite(measured_point) || !finite(nominal_point)) bad_input_ = true;
    origin_locked_ = true;
    lock_point_measured_ = measured_point;
    lock_point_nominal_ = nominal_point;
    lock_point_given_ = true;
}

void tsScaledSurfaceBestfit::lock_axis(tsSurfaceBestfitLockedAxisType type,
                                       const giVector3& measured_direction,
                                       const giVector3& nominal_direction,
                                       const giPoint3& measured_point,
                                       const giPoint3& nominal_point) {
    clear_locks();
    const double lm = measured_direction.length(), ln = nominal_direction.length();
    if (!(lm > 0.0) || !(ln > 0.0) || !std::isfinite(lm) || !std::isfinite(ln)) {
        bad_input_ = true;
        return;
    }
    axis_locked_ = true;
    axis_through_point_ = type != tsSURFACE_BESTFIT_AXIS_DIRECTION;
    lock_direction_measured_ = measured_direction * (1.0 / lm);
    lock_direction_nominal_ = nominal_direction * (1.0 / ln);
    // Unset points (x = -DBL_MAX) leave the direction alone.
    lock_point_given_ = measured_point.x() != -DBL_MAX && nominal_point.x() != -DBL_MAX;
    if (lock_point_given_ && (!finite(measured_point) || !finite(nominal_point))) bad_input_ = true;
    if (axis_through_point_ && !lock_point_given_) bad_input_ = true;
    lock_point_measured_ = measured_point;
    lock_point_nominal_ = nominal_point;
}

void tsScaledSurfaceBestfit::lock_rotations(const giVector3& a, const giVector3& b,
                                            const giVector3& c) {
    clear_locks();
    rotations_locked_ = true;
    shift_axes_.clear(0);
    for (const giVector3* v : {&a, &b, &c}) {
        if (v->x() == -DBL_MAX) continue;  // unset: no shift along it
        const double length = v->length();
        if (length > 0.0 && std::isfinite(length)) shift_axes_.append(*v * (1.0 / length));
    }
}

giXform3 tsScaledSurfaceBestfit::get_rigid_part() const {
    if (!transformation_.is_set() || !(scale_ > 0.0)) return giXform3();
    giXform3 rigid = transformation_;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) rigid(r, c) /= scale_;
    rigid.set_shift(giVector3(0, 0, 0));
    // u = (1 - s) R c + t.
    const giVector3 rc = rigid * centre_ - giPoint3(0.0, 0.0, 0.0);
    rigid.set_shift(transformation_.shift() - rc * (1.0 - scale_));
    return rigid;
}

int tsScaledSurfaceBestfit::rough_start(giXform3& start, double& scale) const {
    const double s0 = scale_fixed_ ? fixed_scale_ : 1.0;
    const int n = pairs_measured_.size();
    if (n == 0) {
        start = scaling_about(centre_, s0);
        scale = s0;
        return tsSCALED_BESTFIT_CONVERGED;
    }
    if (n < 3) return tsSCALED_BESTFIT_TOO_FEW_PAIRS;
    tsPointsToPoints match;
    for (int i = 0; i < n; ++i) match.add_pair(pairs_measured_[i], pairs_nominal_[i]);
    giXform3 rigid;
    if (!match.get_xform(rigid)) return tsSCALED_BESTFIT_DEGENERATE_PAIRS;

    // Spreads about the centroids, each relative to its first point.
    giVector3 sum_a(0, 0, 0), sum_b(0, 0, 0);
    for (int i = 0; i < n; ++i) {
        sum_a = sum_a + (pairs_measured_[i] - pairs_measured_[0]);
        sum_b = sum_b + (pairs_nominal_[i] - pairs_nominal_[0]);
    }
    const giPoint3 mean_a = pairs_measured_[0] + sum_a * (1.0 / n);
    const giPoint3 mean_b = pairs_nominal_[0] + sum_b * (1.0 / n);
    double spread_a = 0.0, spread_b = 0.0;
    for (int i = 0; i < n; ++i) {
        spread_a += (pairs_measured_[i] - mean_a).length_squared();
        spread_b += (pairs_nominal_[i] - mean_b).length_squared();
    }
    if (!(spread_a > 0.0) || !(spread_b > 0.0)) return tsSCALED_BESTFIT_DEGENERATE_PAIRS;
    scale = scale_fixed_ ? fixed_scale_ : std::sqrt(spread_b / spread_a);

    // Linear part s R (R = I with rotations locked); the centroids match.
    start = rigid;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            start(r, c) = scale * (rotations_locked_ ? (r == c ? 1.0 : 0.0) : rigid(r, c));
    start.set_shift(giVector3(0, 0, 0));
    giVector3 shift = mean_b - start * mean_a;
    if (rotations_locked_) {
        // x -> c + s (x - c) + t with t the part along the permitted axes of
        // what carries the centroids onto each other.
        const giVector3 c = centre_ - giPoint3(0.0, 0.0, 0.0);
        shift = shift - c * (1.0 - scale);
        giVector3 kept(0, 0, 0);
        const int k = shift_axes_.size();
        Eigen::Matrix3d gram = Eigen::Matrix3d::Identity();
        Eigen::Vector3d rhs = Eigen::Vector3d::Zero();
        for (int i = 0; i < k; ++i) {
            rhs[i] = dot(shift_axes_[i], shift);
            for (int j = 0; j < k; ++j) gram(i, j) = dot(shift_axes_[i], shift_axes_[j]);
        }
        const Eigen::Vector3d alpha = gram.completeOrthogonalDecomposition().solve(rhs);
        for (int i = 0; i < k; ++i) kept = kept + shift_axes_[i] * alpha[i];
        shift = kept + c * (1.0 - scale);
    }
    start.set_shift(shift);
    return finite(start) ? tsSCALED_BESTFIT_CONVERGED : tsSCALED_BESTFIT_DEGENERATE_PAIRS;
}

void tsScaledSurfaceBestfit::enforce_lock(giXform3& start) const {
    if (origin_locked_) {
        start.premultiply(
            giXform3::translation(lock_point_nominal_ - start * lock_point_measured_));
        return;
    }
    if (!axis_locked_) return;
    // The shortest turn carrying the moved measured direction onto the
    // nominal one (half a turn about a perpendicular when they oppose).
    const giVector3 a = lock_direction_nominal_;
    giVector3 d = start * lock_direction_measured_;
    d = d * (1.0 / d.length());
    giVector3 axis = cross(d, a);
    const double sine = axis.length(), cosine = dot(d, a);
    if (!(sine > 0.0) && cosine < 0.0) {
        axis = cross(d, std::fabs(d.x()) < 0.6 ? giVector3(1, 0, 0) : giVector3(0, 1, 0));
    }
    const giPoint3 pivot = start * (lock_point_given_ ? lock_point_measured_ : centre_);
    if (axis.length() > 0.0)
        start.premultiply(
            giXform3::rotation(pivot, axis, giAngle(giANGLE_RADIANS, std::atan2(sine, cosine))));
    if (axis_through_point_) {
        giVector3 across = lock_point_nominal_ - start * lock_point_measured_;
        across = across - a * dot(a, across);
        start.premultiply(giXform3::translation(across));
    }
}

void tsScaledSurfaceBestfit::project(const giXform3& xform) {
    const int n = points_.size();
    projected_.clear(0);
    projected_.expand(n);
    for (int i = 0; i < n; ++i) projected_[i] = tsProjectedPoint3();
    if (!projector_) return;
    projector_->project_batch([this](int i) -> const tsFitPoint3& { return *points_.read(i); },
                              [this](int i) -> tsProjectedPoint3& { return projected_[i]; }, n, 0,
                              xform);
}

int tsScaledSurfaceBestfit::linear_step(const giXform3& current, giXform3& step,
                                        double& log_scale) {
    const int n = points_.size();
    // Weighted centroid and RMS radius of the moved points that projected.
    double total = 0.0;
    giVector3 sum(0, 0, 0);
    int first = -1;
    for (int i = 0; i < n; ++i) {
        if (projected_[i].invalid()) continue;
        if (first < 0) first = i;
        total += weights_[i];
        sum = sum +
              (projected_[i].measured_point() - projected_[first].measured_point()) * weights_[i];
    }
    if (first < 0) return tsSCALED_BESTFIT_NONE_PROJECTING;
    const giPoint3 g = projected_[first].measured_point() + sum * (1.0 / total);
    double spread = 0.0;
    for (int i = 0; i < n; ++i)
        if (!projected_[i].invalid())
            spread += weights_[i] * (projected_[i].measured_point() - g).length_squared();
    const double L = std::sqrt(spread / total);
    if (!(L > 0.0) || !std::isfinite(L)) return tsSCALED_BESTFIT_SINGULAR;

    // With restricted shifts the scale acts about the moved centre, which
    // the shift lock refers to; otherwise about g, which keeps the scale's
    // column apart from the shifts' (same map, better conditioned). A
    // locked origin, or an axis locked through a point, is the pivot of the
    // turn and the scale, which keeps it where the start put it.
    giPoint3 pivot = g;
    giPoint3 scale_origin = rotations_locked_ ? current * centre_ : g;
    if (origin_locked_ || axis_through_point_) pivot = scale_origin = lock_point_nominal_;

    // Reduced unknowns: the columns of the full row (w L, tau, sigma L) kept.
    // basis maps the reduced unknowns onto the full seven.
    const giVector3& a = lock_direction_nominal_;
    Eigen::Matrix<double, 7, 7> columns = Eigen::Matrix<double, 7, 7>::Zero();
    int m = 0;
    if (axis_locked_) {
        for (int j = 0; j < 3; ++j) columns(j, m) = a[j];
        ++m;
    } else if (!rotations_locked_) {
        for (int k = 0; k < 3; ++k) columns(k, m++) = 1.0;
    }
    if (rotations_locked_) {
        for (int k = 0; k < shift_axes_.size(); ++k, ++m)
            for (int j = 0; j < 3; ++j) columns(3 + j, m) = shift_axes_[k][j];
    } else if (axis_through_point_) {
        for (int j = 0; j < 3; ++j) columns(3 + j, m) = a[j];
        ++m;
    } else if (!origin_locked_) {
        for (int k = 0; k < 3; ++k) columns(3 + k, m++) = 1.0;
    }
    const int scale_column = scale_fixed_ ? -1 : m;
    if (!scale_fixed_) columns(6, m++) = 1.0;
    if (m == 0) return tsSCALED_BESTFIT_SINGULAR;
    const Eigen::Matrix<double, 7, Eigen::Dynamic, 0, 7, 7> basis = columns.leftCols(m);

    Matrix7 normal = Matrix7::Zero(m, m);
    Vector7 rhs = Vector7::Zero(m);
    struct Band {
        Vector7 row;  // row . x <= bound
        double bound;
        int point, upper;
    };
    std::vector<Band> bands;
    for (int i = 0; i < n; ++i) {
        const tsProjectedPoint3& p = projected_[i];
        if (p.invalid()) continue;
        const giVector3 r = p.measured_point() - pivot;
        const giVector3& nv = p.nominal_normal();
        const giVector3 rxn = cross(r, nv);
        Eigen::Matrix<double, 7, 1> full;
        full << rxn.x() / L, rxn.y() / L, rxn.z() / L, nv.x(), nv.y(), nv.z(),
            dot(nv, p.measured_point() - scale_origin) / L;
        const Vector7 row = basis.transpose() * full;
        normal.noalias() += weights_[i] * row * row.transpose();
        rhs.noalias() -= weights_[i] * p.signed_distance() * row;
        // Linearised bands: lower <= d + row . x <= upper.
        const double d = p.signed_distance();
        if (lower_limits_[i] != -DBL_MAX && !lower_dropped_[i])
            bands.push_back({-row, d - lower_limits_[i], i, 0});
        if (upper_limits_[i] != DBL_MAX && !upper_dropped_[i])
            bands.push_back({row, upper_limits_[i] - d, i, 1});
    }
    if (!normal.allFinite() || !rhs.allFinite()) return tsSCALED_BESTFIT_SINGULAR;

    Eigen::SelfAdjointEigenSolver<Matrix7> eigen(normal);
    if (eigen.info() != Eigen::Success) return tsSCALED_BESTFIT_SINGULAR;
    const Vector7& values = eigen.eigenvalues();  // ascending
    const Matrix7& vectors = eigen.eigenvectors();
    const double largest = values[m - 1];
    if (!(largest > 0.0)) return tsSCALED_BESTFIT_SINGULAR;
    Vector7 x = Vector7::Zero(m);
    double scale_in_null = 0.0;
    n_undetermined_ = 0;
    for (int k = 0; k < m; ++k) {
        if (values[k] <= kNullRatio * largest) {
            ++n_undetermined_;
            if (scale_column >= 0)
                scale_in_null += vectors(scale_column, k) * vectors(scale_column, k);
            continue;
        }
        x += vectors.col(k) * (vectors.col(k).dot(rhs) / values[k]);
    }
    if (scale_in_null > kScaleInNull) return tsSCALED_BESTFIT_SCALE_UNDETERMINED;
    if (!bands.empty()) {
        // The least-squares step under the bands: minimise 1/2 x' N x - b' x
        // subject to the rows; contradicting rows are dropped and recorded.
        const int k = static_cast<int>(bands.size());
        mlMatrix C(mlMatrixZero, k, m), M(mlMatrixZero, m, m);
        mlVector dv(mlVectorZero, k), V(mlVectorZero, m), y(mlVectorZero, m);
        for (int r = 0; r < k; ++r) {
            for (int j = 0; j < m; ++j) C(r, j) = bands[r].row[j];
            dv[r] = bands[r].bound;
        }
        for (int j = 0; j < m; ++j) {
            V[j] = rhs[j];
            for (int l = 0; l < m; ++l) M(j, l) = normal(j, l);
        }
        mlConstrainedQuadraticMinimiser qp(C, dv, 1);
        if (!qp.solve(M, V, y)) return tsSCALED_BESTFIT_SINGULAR;
        for (int r : qp.overdetermined_constraints()) {
            const Band& b = bands[r];
            (b.upper ? upper_dropped_ : lower_dropped_)[b.point] = 1;
            const int number = (b.upper ? upper_numbers_ : lower_numbers_)[b.point];
            // Kept ascending: shift the larger numbers up by one.
            overdetermined_.append(number);
            int at = overdetermined_.size() - 1;
            for (; at > 0 && overdetermined_[at - 1] > number; --at)
                overdetermined_[at] = overdetermined_[at - 1];
            overdetermined_[at] = number;
        }
        for (int j = 0; j < m; ++j) x[j] = y[j];
    }

    const Eigen::Matrix<double, 7, 1> full = basis * x;
    const giVector3 w(full[0] / L, full[1] / L, full[2] / L);
    const giVector3 tau(full[3], full[4], full[5]);
    log_scale = full[6] / L;
    const double angle = w.length();
    step = scaling_about(scale_origin, std::exp(log_scale));
    if (angle > 0.0)
        step.premultiply(giXform3::rotation(pivot, w, giAngle(giANGLE_RADIANS, angle)));
    step.premultiply(giXform3::translation(tau));
    return finite(step) ? tsSCALED_BESTFIT_CONVERGED : tsSCALED_BESTFIT_SINGULAR;
}

void tsScaledSurfaceBestfit::record_statistics() {
    int valid = 0;
    ts_pointcloud_parameters(projected_, max_distance_, max_signed_, min_signed_, n_unprojected_,
                             valid);
    double squares = 0.0;
    for (const tsProjectedPoint3& p : projected_)
        if (!p.invalid()) squares += p.signed_distance() * p.signed_distance();
    rms_ = valid > 0 ? std::sqrt(squares / valid) : 0.0;
}

int tsScaledSurfaceBestfit::fit(double tolerance, giXform3& xform, double& scale) {
    if (bad_input_ || !(tolerance >= 0.0) || !std::isfinite(tolerance) || !finite(centre_) ||
        (scale_fixed_ && !(fixed_scale_ > 0.0 && std::isfinite(fixed_scale_))))
        return tsSCALED_BESTFIT_BAD_INPUT;
    if (points_.size() == 0) return tsSCALED_BESTFIT_NO_POINTS;
    if (!projector_) return tsSCALED_BESTFIT_NONE_PROJECTING;

    giXform3 current;
    double s = 1.0;
    const int started = rough_start(current, s);
    if (started <= 0) return started;
    const double s_start = s;

    enforce_lock(current);
    if (!finite(current)) return tsSCALED_BESTFIT_SINGULAR;

    // Band limits: numbered in order, none dropped yet.
    const int n_points = points_.size();
    lower_dropped_.clear(0);
    upper_dropped_.clear(0);
    lower_numbers_.clear(0);
    upper_numbers_.clear(0);
    overdetermined_.clear(0);
    int number = 0;
    for (int i = 0; i < n_points; ++i) {
        lower_dropped_.append(0);
        upper_dropped_.append(0);
        lower_numbers_.append(lower_limits_[i] != -DBL_MAX ? number++ : -1);
        upper_numbers_.append(upper_limits_[i] != DBL_MAX ? number++ : -1);
    }

    int status = tsSCALED_BESTFIT_ITERATION_LIMIT;
    iterations_ = 0;
    project(current);
    for (int iteration = 0; iteration < max_iterations_; ++iteration) {
        giXform3 step;
        double log_scale = 0.0;
        const int stepped = linear_step(current, step, log_scale);
        if (stepped <= 0) return stepped;
        current.premultiply(step);
        s *= std::exp(log_scale);
        iterations_ = iteration + 1;
        if (!finite(current) || !(s >= 1e-3 * s_start && s <= 1e3 * s_start))
            return tsSCALED_BESTFIT_DIVERGED;
        double movement = 0.0;
        for (const tsProjectedPoint3& p : projected_)
            if (!p.invalid())
                movement =
                    std::max(movement, (step * p.measured_point() - p.measured_point()).length());
        project(current);
        if (movement < tolerance) {
            status = tsSCALED_BESTFIT_CONVERGED;
            break;
        }
    }
    record_statistics();
    if (n_unprojected_ == points_.size()) return tsSCALED_BESTFIT_NONE_PROJECTING;
    transformation_ = current;
    scale_ = scale_fixed_ ? fixed_scale_ : s;
    xform = transformation_;
    scale = scale_;
    return status;
}
