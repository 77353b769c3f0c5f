#include "metrofit/alignment/points_to_planes.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/alignment/direct_shift_objective.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/maths/down_hill_simplex.h"
#include "metrofit/platform/maths/random.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/util/utils.h"

const double tsPointsToPlanes::POSITIONING_TOLERANCE = 1e-5;
const double tsPointsToPlanes::POSITIONING_WEIGHT = 1000.0;
const double tsPointsToPlanes::TINY_DOUBLE = 1e-7;

// ---------------------------------------------------------------- entries

tsPlaneAndPoint::tsPlaneAndPoint(const giPoint3& measured, const giPoint3& nominal,
                                 const giVector3& n, int kind_, double lower, double upper,
                                 double w)
    : nominal_point(nominal),
      normal(n.x() * w, n.y() * w, n.z() * w),
      measured_point(measured),
      kind(kind_),
      lower_limit(lower),
      upper_limit(upper),
      weight(w) {}

tsPlaneAndPoint::tsPlaneAndPoint(const giPoint3& measured, const giPlane& nominal, int kind_,
                                 double lower, double upper, double w)
    : tsPlaneAndPoint(measured, nominal.point(), nominal.normal(), kind_, lower, upper, w) {}

bool tsPlaneAndPoint::is_finite() const {
    return measured_point.is_finite() && nominal_point.is_finite() && normal.is_finite() &&
           std::isfinite(weight) && !std::isnan(lower_limit) && !std::isnan(upper_limit);
}

double tsPlaneAndPoint::weighted_deviation(const giXform3& T) const {
    const giVector3 v = T * measured_point - nominal_point;
    if (kind == 0) return v.length() * normal.length();
    return dot(v, normal);
}

// ---------------------------------------------------------------- loading

tsPointsToPlanes::tsPointsToPlanes() = default;
tsPointsToPlanes::~tsPointsToPlanes() = default;

void tsPointsToPlanes::add_positioning(const giPoint3& measured, const giPoint3& nominal,
                                       const giVector3& normal, int kind) {
    const tsPlaneAndPoint e(measured, nominal, normal, kind, -DBL_MAX, DBL_MAX, 1.0);
    if (e.is_finite()) positioning_entries_.append(e);
}

void tsPointsToPlanes::add_positioning(const giPoint3& measured, const giWorkplane3& frame,
                                       const giPoint3& nominal, PLANE_STATE x_state,
                                       PLANE_STATE y_state, PLANE_STATE z_state, int kind) {
    const giVector3 axes[3] = {frame.x_axis(), frame.y_axis(), frame.z_axis()};
    const PLANE_STATE states[3] = {x_state, y_state, z_state};
    for (int i = 0; i < 3; ++i) {
        const double w = states[i] == PLANE_SOFT ? 0.001 : 1.0;
        const tsPlaneAndPoint e(measured, nominal, axes[i], kind, -DBL_MAX, DBL_MAX, w);
        if (!e.is_finite()) continue;
        if (states[i] == PLANE_LOCKED || states[i] == PLANE_SOFT)
            positioning_entries_.append(e);
        else if (states[i] == PLANE_SPARE)
            spare_entries_.append(e);
    }
}

void tsPointsToPlanes::add_bestfit(const giPoint3& measured, const giPoint3& nominal,
                                   const giVector3& normal, double lower_limit, double upper_limit,
                                   double weight) {
    if (weight == 0.0) return;
    const tsPlaneAndPoint e(measured, nominal, normal, 1, lower_limit, upper_limit, weight);
    if (!e.is_finite()) return;
    bestfit_entries_.append(e);
    if (e.is_bounded()) has_limits_ = 1;
}

void tsPointsToPlanes::add_balance(const giPoint3& measured1, const giPoint3& nominal1,
                                   const giVector3& normal1, double coefficient1,
                                   const giPoint3& measured2, const giPoint3& nominal2,
                                   const giVector3& normal2, double coefficient2, double weight) {
    if (weight == 0.0) return;
    const tsPlaneAndPoint e1(measured1, nominal1, normal1, 1, -DBL_MAX, DBL_MAX, weight);
    const tsPlaneAndPoint e2(measured2, nominal2, normal2, 1, -DBL_MAX, DBL_MAX, weight);
    if (!e1.is_finite() || !e2.is_finite() || !std::isfinite(coefficient1) ||
        !std::isfinite(coefficient2))
        return;
    const int first = bestfit_entries_.size();
    balance_pairs_.resize(first, std::make_pair(-1, 0.0));
    bestfit_entries_.append(e1);
    bestfit_entries_.append(e2);
    balance_pairs_.emplace_back(first + 1, coefficient1);
    balance_pairs_.emplace_back(first, coefficient2);
}

void tsPointsToPlanes::lock_direction(const giVector3& point, const giVector3& direction,
                                      int mode) {
    lock_points_.append(point);
    lock_directions_.append(direction);
    direction_flip_mode_ = mode;
}

void tsPointsToPlanes::lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c) {
    for (const giVector3* v : {&a, &b, &c}) {
        if (v != &a && v->x() == -DBL_MAX) continue;
        const giUnitVec3 u(*v);
        if (u.is_set()) rotation_locks_.append(u);
    }
}

void tsPointsToPlanes::clear_bestfit_data() {
    bestfit_entries_.clear(0);
    balance_pairs_.clear();
    overdetermined_.clear(0);
    has_limits_ = 0;
}

bool tsPointsToPlanes::have_constraints() const {
    return positioning_entries_.size() > 0 || lock_points_.size() > 0;
}

bool tsPointsToPlanes::have_enough_data() const {
    return have_constraints() || bestfit_entries_.size() > 0;
}

// ---------------------------------------------------------------- measures

double tsPointsToPlanes::best_fit_deviation_with_transform(const giXform3& T) const {
    double sum = 0.0;
    const int n = bestfit_entries_.size();
    const int slots = static_cast<int>(balance_pairs_.size());
    for (int i = 0; i < n; ++i) {
        double d = bestfit_entries_[i].deviation(T);
        if (i < slots && balance_pairs_[i].first != -1 && i + 1 < n) {
            const double d2 = bestfit_entries_[i + 1].deviation(T);
            const double c2 = i + 1 < slots ? balance_pairs_[i + 1].second : 0.0;
            d = d * balance_pairs_[i].second + d2 * c2;
            ++i;
        }
        sum += d * d;
    }
    return sum;
}

double tsPointsToPlanes::standard_deviation_of_nominals(const giXform3& T) {
    const int n = positioning_entries_.size();
    if (n == 0) return 0.0;
    // The first measured point of every positioning entry is kept: entries
    // moved later (by a transformation of the positioning data) are judged
    // from where they were measured. Entries added since the last call get
    // their current point.
    if (positioning_cache_points_.size() < n) {
        for (int i = positioning_cache_points_.size(); i < n; ++i)
            positioning_cache_points_.append(positioning_entries_[i].measured_point);
        positioning_cache_spares_.clear(0);
        for (const tsPlaneAndPoint& e : spare_entries_)
            positioning_cache_spares_.append(e.measured_point);
        positioning_cache_locks_ = lock_points_;
    }
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        const tsPlaneAndPoint& e = positioning_entries_[i];
        const double d =
            dot(T * positioning_cache_points_[i] - e.nominal_point, e.normal) / e.weight;
        sum += d * d;
    }
    return std::sqrt(sum / n);
}

int tsPointsToPlanes::pop_back_rps(tsRPSData& data) {
    const int n = positioning_entries_.size();
    if (n == 0) return 0;
    data.entry = positioning_entries_[n - 1];
    data.point = positioning_cache_points_.size() >= n ? positioning_cache_points_[n - 1]
                                                       : data.entry.measured_point;
    positioning_entries_.shrink(n - 1, 0);
    // The cache follows the entries, so that an entry added later is not
    // judged from the point of the one taken out.
    if (positioning_cache_points_.size() > n - 1) positioning_cache_points_.shrink(n - 1, 0);
    return 1;
}

void tsPointsToPlanes::undo_pop_back_rps(const tsRPSData& data) {
    const int n = positioning_entries_.size();
    if (n > 0 && positioning_cache_points_.size() == n)
        positioning_cache_points_.append(data.point);
    positioning_entries_.append(data.entry);
}

void tsPointsToPlanes::transform_rps_data(const giXform3& T) {
    for (tsPlaneAndPoint& e : positioning_entries_) e.measured_point = T * e.measured_point;
    for (tsPlaneAndPoint& e : spare_entries_) e.measured_point = T * e.measured_point;
    for (giVector3& v : lock_points_) v = T * v;
}

// ---------------------------------------------------------------- direct fit

int tsPointsToPlanes::data_for_downhill(tsPlaneAndPointcoDynArr& data, tsBalancePairs& pairs,
                                        int skip_bestfit, int points_only) const {
    data.clear(0);
    pairs.clear();
    const int np = positioning_entries_.size();
    data.reserve(np + (skip_bestfit ? 0 : bestfit_entries_.size()));
    for (tsPlaneAndPoint e : positioning_entries_) {
        // Weight and normal both scaled: the least-squares rows count 1000
        // times more, the deviation stays a distance.
        e.normal = e.normal * POSITIONING_WEIGHT;
        e.weight *= POSITIONING_WEIGHT;
        if (points_only) e.kind = 0;
        data.append(e);
    }
    if (skip_bestfit) return np;
    for (const tsPlaneAndPoint& e : bestfit_entries_) data.append(e);
    if (!balance_pairs_.empty()) {
        pairs.assign(data.size(), std::make_pair(-1, 0.0));
        for (int i = 0; i < static_cast<int>(balance_pairs_.size()); ++i)
            if (balance_pairs_[i].first != -1)
                pairs[np + i] =
                    std::make_pair(balance_pairs_[i].first + np, balance_pairs_[i].second);
    }
    return np;
}

double tsPointsToPlanes::fit(giXform3& T, double tolerance, double* max_deviation) const {
    T.become(giIdentity);
    tsPlaneAndPointcoDynArr data;
    tsBalancePairs pairs;
    const int np = data_for_downhill(data, pairs, 0, 0);
    if (data.size() == 0) return 0.0;

    giVector3coDynArr directions;
    if (lock_points_.size() > 0) {
        directions.append(lock_points_[0]);
        directions.append(lock_directions_[0]);
    }
    bool bounded = false;
    for (const tsPlaneAndPoint& e : data) bounded = bounded || e.is_bounded();

    double deviation = 0.0, result = 0.0;
    mlVector parameters;
    int flip = 0;
    if (!(bounded && multiple_guesses_ == 0)) {
        tsAmoebaPointsToPlanesDirectShift objective(data, pairs, directions, rotation_locks_,
                                                    fitting_points_attraction_, 0, np);
        result = fit_pairs_downhill(objective, T, tolerance, &deviation, &parameters);
        flip = objective.flip();
        if (bounded) {
            mlVector start;
            objective.convert_to_min_max_parameter(parameters, start);
            parameters = start;
        }
    } else {
        parameters.become(mlVectorZero, tsAmoebaPointsToPlanesDirectShift::get_dimension(
                                            directions.size() > 0, rotation_locks_, 1));
    }
    if (bounded) {
        tsAmoebaPointsToPlanesDirectShift objective(data, pairs, directions, rotation_locks_,
                                                    fitting_points_attraction_, 1, np);
        objective.set_flip(flip);
        mlDownHillSimplex simplex(objective.dimension());
        simplex.solve(objective, parameters, mlDownHillSimplexPrecise);
        simplex.result(parameters);
        double a = 0.0, b = 0.0;
        objective.get_max_deviations(parameters, a, b);
        objective.function(parameters.as_slice());
        T.become(giXform3(objective.get_shift()), objective.get_matrix());
        result = b;
        deviation = a;
    }
    if (max_deviation) *max_deviation = deviation;
    return result;
}

double tsPointsToPlanes::fit_pairs_downhill(tsAmoebaPointsToPlanesDirectShift& objective,
                                            giXform3& T, double tolerance, double* max_deviation,
                                            mlVector* parameters) const {
    mlRandom random(1);
    const int dim = objective.dimension();
    double best_max = DBL_MAX, best_measure = DBL_MAX;
    int best_ok = 0, best_flip = 0, best_tiny = 0;
    mlVector best(mlVectorZero, dim);

    if (!objective.rotations_locked()) {
        mlDownHillSimplex simplex(dim);
        mlVector start(mlVectorZero, dim);
        for (int k = 0; k < num_guesses_; ++k) {
            if (k == 0 && multiple_guesses_ == 0) {
                start.become(mlVectorZero, dim);
            } else {
                for (int j = 0; j < dim; ++j) start[j] = 20.0 * random.uniform(-1.0, 1.0);
                if (dim > 0) start[0] *= giAngle::kPi;
            }
            // The flip bit is drawn on every start so that the sequence of
            // starts does not depend on the mode; it only counts when the
            // locked direction may be reversed.
            const int drawn_flip = random.uniform(-1.0, 1.0) < 0.0 ? 1 : 0;
            const int flip = direction_flip_mode_ != 0 ? drawn_flip : 0;
            if (direction_flip_mode_ != 0) objective.set_flip(flip);
            simplex.solve(objective, start, mlDownHillSimplexPrecise);
            simplex.result(start);

            double a = 0.0, b = 0.0, r = 0.0;
            objective.get_max_deviations(start, a, b);
            const double c = std::max(a, b);
            const int ok = objective.check_transformation(r);
            const double q = std::sqrt(r);

            const bool equal = std::fabs(best_max - c) <= 1e-5;
            const int tiny = (a <= 1e-5 && c <= 0.01) ? 1 : 0;
            const double m = std::max(best_max, c);
            const bool ambiguous = best_measure != DBL_MAX &&
                                   std::fabs(best_measure - q) > 100.0 * m &&
                                   fit_dev_limit_for_ambiguity_ > m;
            bool accept;
            if (!equal && !ambiguous && !(best_tiny && tiny)) {
                accept = c < best_max;
            } else if (ok != best_ok) {
                accept = ok > best_ok;
            } else if (std::fabs(q - best_measure) <= 1e-5) {
                if ((direction_flip_mode_ != 0 && flip < best_flip) || best_max > c)
                    accept = true;
                else if (c != best_max)
                    accept = false;
                else
                    accept = q < best_measure;
            } else {
                accept = q < best_measure;
            }
            if (accept) {
                best_max = c;
                best_measure = q;
                best = start;
                best_flip = flip;
                best_tiny = tiny;
                best_ok = ok;
            }
            if ((tolerance > best_max && best_ok != 0 && best_flip == 0) ||
                (k > 20 && 10.0 * tolerance > best_max && best_ok != 0) ||
                (multiple_guesses_ == 0 && best_ok != 0))
                break;
        }
        if (direction_flip_mode_ != 0) objective.set_flip(best_flip);
    }

    objective.function(best.as_slice());
    T.become(giXform3(objective.get_shift()), objective.get_matrix());
    double a = 0.0, b = 0.0;
    objective.get_max_deviations(best, a, b);
    if (max_deviation) *max_deviation = a;
    if (parameters) *parameters = best;
    num_guesses_ = 60;
    return std::max(a, b);
}

// ---------------------------------------------------------------- positioning

namespace {

// Basis of the rigid motions (t, omega L) that the locks leave free, as
// columns of a 6 x dof matrix.
mlMatrix free_motions(const giVector3coDynArr& rotation_locks,
                      const giVector3coDynArr& directions) {
    mlMatrix B;
    if (rotation_locks.size() > 0) {
        B.become(6, rotation_locks.size());
        for (int j = 0; j < rotation_locks.size(); ++j) {
            B(0, j) = rotation_locks[j].x();
            B(1, j) = rotation_locks[j].y();
            B(2, j) = rotation_locks[j].z();
        }
    } else if (directions.size() > 0 && giUnitVec3(directions[0]).is_set()) {
        const giUnitVec3 b(directions[0]);
        B.become(6, 4);
        for (int j = 0; j < 3; ++j) B(j, j) = 1.0;
        B(3, 3) = b.x();
        B(4, 3) = b.y();
        B(5, 3) = b.z();
    } else {
        B.become(mlMatrixIdentity, 6);
    }
    return B;
}

// Appends the constraint rows of one positioning entry (unit directions) in
// the motion basis B, about centre g with length unit L.
void append_positioning_rows(const tsPlaneAndPoint& e, const giXform3& T, const giPoint3& g,
                             double L, const mlMatrix& B, std::vector<double>& rows) {
    const giPoint3 y = T * e.measured_point;
    giVector3 dirs[3];
    int count = 0;
    if (e.kind == 0) {
        dirs[0] = giVector3(1, 0, 0);
        dirs[1] = giVector3(0, 1, 0);
        dirs[2] = giVector3(0, 0, 1);
        count = 3;
    } else {
        const giUnitVec3 n(e.normal);
        if (!n.is_set()) return;
        dirs[0] = n;
        count = 1;
    }
    for (int k = 0; k < count; ++k) {
        const giVector3 rot = cross(y - g, dirs[k]) / L;
        const double twist[6] = {dirs[k].x(), dirs[k].y(), dirs[k].z(), rot.x(), rot.y(), rot.z()};
        for (int j = 0; j < B.cols(); ++j) {
            double v = 0.0;
            for (int i = 0; i < 6; ++i) v += twist[i] * B(i, j);
            rows.push_back(v);
        }
    }
}

int rank_of_rows(const std::vector<double>& rows, int cols) {
    const int n_rows = cols > 0 ? static_cast<int>(rows.size()) / cols : 0;
    if (n_rows == 0) return 0;
    const mlMatrix A(utConvert, rows.data(), n_rows, cols);
    const mlSingularValueDecomposition svd(A, 0);
    if (!svd.status()) return 0;
    return svd.rank(1e-6);
}

// Centroid and rms radius (1 when the points coincide) of the entries'
// measured points under T.
void centre_and_radius(const tsPlaneAndPointcoDynArr& entries, const giXform3& T, giPoint3& g,
                       double& L) {
    double sx = 0, sy = 0, sz = 0;
    const int n = entries.size();
    for (const tsPlaneAndPoint& e : entries) {
        const giPoint3 y = T * e.measured_point;
        sx += y.x();
        sy += y.y();
        sz += y.z();
    }
    g = n > 0 ? giPoint3(sx / n, sy / n, sz / n) : giPoint3(0, 0, 0);
    double ss = 0.0;
    for (const tsPlaneAndPoint& e : entries) ss += (T * e.measured_point - g).length_squared();
    L = n > 0 ? std::sqrt(ss / n) : 0.0;
    if (!(L > 0.0) || !std::isfinite(L)) L = 1.0;
}

}  // namespace

tsPointsToPlanes::POSITIONING_STATE tsPointsToPlanes::test_positioning(
    int mode, const giXform3& xform) const {
    const giXform3 T = xform.is_set() ? xform : giXform3(giIdentity);
    const mlMatrix B = free_motions(rotation_locks_, lock_directions_);
    const int dof = B.cols();
    const int n = positioning_entries_.size();
    giPoint3 g;
    double L;
    centre_and_radius(positioning_entries_, T, g, L);
    std::vector<double> rows;
    for (int i = 0; i + 1 < n; ++i)
        append_positioning_rows(positioning_entries_[i], T, g, L, B, rows);
    const int rank_before = rank_of_rows(rows, dof);
    if (n > 0) append_positioning_rows(positioning_entries_[n - 1], T, g, L, B, rows);
    const int rank_all = rank_of_rows(rows, dof);
    const int rows_all = static_cast<int>(rows.size()) / dof;
    if (mode == 1) {
        if (n == 0 || rank_all == rank_before) return POSITIONING_REDUNDANT;
        return rank_all >= dof ? POSITIONING_COMPLETE : POSITIONING_OPEN;
    }
    if (rank_all < dof) return POSITIONING_OPEN;
    return rows_all > rank_all ? POSITIONING_REDUNDANT : POSITIONING_COMPLETE;
}

int tsPointsToPlanes::fix_undetermined_positioning(giXform3& T) {
    if (spare_entries_.size() == 0) return 0;
    int i = 0;
    while (i < spare_entries_.size()) {
        positioning_entries_.append(spare_entries_[i]);
        const POSITIONING_STATE state = test_positioning(1, T);
        if (state == POSITIONING_REDUNDANT) {
            positioning_entries_.shrink(positioning_entries_.size() - 1, 0);
            ++i;
            continue;
        }
        std::copy(spare_entries_.begin() + i + 1, spare_entries_.end(), spare_entries_.begin() + i);
        spare_entries_.shrink(spare_entries_.size() - 1, 0);
        if (state == POSITIONING_COMPLETE) return 1;
    }
    return 0;
}

int tsPointsToPlanes::fix_overdetermined_positioning(giXform3& xform) {
    if (!xform.is_set()) xform.become(giIdentity);
    const mlMatrix B = free_motions(rotation_locks_, lock_directions_);
    giPoint3 g;
    double L;
    centre_and_radius(positioning_entries_, xform, g, L);
    tsPlaneAndPointcoDynArr kept;
    std::vector<double> rows;
    int rank = 0, moved = 0;
    for (const tsPlaneAndPoint& e : positioning_entries_) {
        std::vector<double> trial = rows;
        append_positioning_rows(e, xform, g, L, B, trial);
        const int r = rank_of_rows(trial, B.cols());
        if (r > rank) {
            rows.swap(trial);
            rank = r;
            kept.append(e);
        } else {
            spare_entries_.append(e);
            moved = 1;
        }
    }
    positioning_entries_ = kept;
    fit_positioning(xform);
    return moved;
}

void tsPointsToPlanes::fit_positioning(giXform3& T) const {
    const mlMatrix B = free_motions(rotation_locks_, lock_directions_);
    const int dof = B.cols();
    if (positioning_entries_.size() == 0) return;
    for (int iteration = 0; iteration < 30; ++iteration) {
        giPoint3 g;
        double L;
        centre_and_radius(positioning_entries_, T, g, L);
        // Weighted rows: the unit-direction rows of the rank test times the
        // entry's weighted normal length, right-hand side the distance still
        // to go along that direction.
        std::vector<double> rows, rhs;
        for (const tsPlaneAndPoint& e : positioning_entries_) {
            const size_t before = rows.size();
            append_positioning_rows(e, T, g, L, B, rows);
            const int added = static_cast<int>(rows.size() - before) / dof;
            const giVector3 v = e.nominal_point - T * e.measured_point;
            const double w = e.normal.length();
            for (int k = 0; k < added; ++k) {
                double r;
                if (e.kind == 0)
                    r = k == 0 ? v.x() : (k == 1 ? v.y() : v.z());
                else
                    r = dot(v, giUnitVec3(e.normal));
                for (int j = 0; j < dof; ++j) rows[before + k * dof + j] *= w;
                rhs.push_back(r * w);
            }
        }
        const int m = static_cast<int>(rhs.size());
        if (m == 0) return;
        const mlMatrix A(utConvert, rows.data(), m, dof);
        const mlSingularValueDecomposition svd(A);
        mlVector b, x;
        b.become(utConvert, rhs.data(), m);
        if (!svd.solve(b, x, TINY_DOUBLE)) return;
        double twist[6] = {0, 0, 0, 0, 0, 0};
        for (int i = 0; i < 6; ++i)
            for (int j = 0; j < dof; ++j) twist[i] += B(i, j) * x[j];
        const giVector3 t(twist[0], twist[1], twist[2]);
        const giVector3 w(twist[3] / L, twist[4] / L, twist[5] / L);
        giXform3 step(t);
        const double angle = w.length();
        if (angle > 0.0) step.postmultiply(giXform3(g, w, giAngle(giANGLE_RADIANS, angle)));
        T.premultiply(step);
        if (t.length() + angle * L <= 1e-14 * (L + (g - giPoint3(0, 0, 0)).length())) return;
    }
}

// ---------------------------------------------------------------- frames

void tsPointsToPlanes::find_flip_matrix(const giVector3& v, giXform3& out) {
    const giUnitVec3 u(v);
    giVector3 orthogonal;
    tsUtils::get_orthogonal(u.is_set() ? giVector3(u) : giVector3(1, 0, 0), orthogonal);
    out.become_rotation(giPoint3(0, 0, 0), orthogonal, giAngle(giANGLE_RADIANS, 0.0));
}

int tsPointsToPlanes::find_lock_matrix(const giVector3& measured, const giVector3& nominal,
                                       int flip, const giPoint3& centre, giXform3& out) {
    const giUnitVec3 a(measured), b0(nominal);
    if (!a.is_set() || !b0.is_set()) return 0;
    const giVector3 b = flip ? giVector3(-b0) : giVector3(b0);
    const giVector3 axis = cross(a, b);
    const double sine = axis.length(), cosine = dot(a, b);
    if (sine <= 1e-15) {
        if (cosine > 0.0) {
            out.become(giIdentity);
            return 1;
        }
        return out.become_rotation(centre, a.any_normal(), giAngle(giANGLE_RADIANS, giAngle::kPi));
    }
    return out.become_rotation(centre, axis, giAngle(giAngleTangent2, sine, cosine));
}
