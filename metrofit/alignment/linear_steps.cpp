// The linear steps of tsPointsToPlanes: motion models, normal equations,
// constrained solution and line search.

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/alignment/interpolated_square_dists.h"
#include "metrofit/alignment/points_to_planes.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/maths/brent.h"
#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/svd.h"

namespace {

constexpr int kMaxParameters = 6;
constexpr double kPointTie = 0.01;
// The free step skips turns below 1e-7 (its line search objective is built
// with that smallest rotation); the locked steps, whose rotation is the only
// way their points can move, apply every turn the rotation constructor can
// represent, so that iterating them converges to rounding.
constexpr double kSmallestRotation = 1e-7;
constexpr double kSmallestLockedRotation = 1e-15;
constexpr double kMaxRotationScale = 1e7;

// Columns of -[d]x scaled by s: the derivative of (s w) x d by w.
void cross_columns(const giVector3& d, double s, double J[3][kMaxParameters], int first) {
    J[0][first] = 0.0;
    J[0][first + 1] = s * d.z();
    J[0][first + 2] = -s * d.y();
    J[1][first] = -s * d.z();
    J[1][first + 1] = 0.0;
    J[1][first + 2] = s * d.x();
    J[2][first] = s * d.y();
    J[2][first + 1] = -s * d.x();
    J[2][first + 2] = 0.0;
}

// The exact rotation about centre whose tangent is the linearised turn
// omega: angle atan(|omega|); nothing below the smallest rotation.
giXform3 turn(const giPoint3& centre, const giVector3& omega,
              double smallest = kSmallestLockedRotation) {
    const double angle = omega.length();
    if (!(angle >= smallest)) return giXform3(giIdentity);
    return giXform3(centre, omega, giAngle(giANGLE_RADIANS, std::atan2(angle, 1.0)));
}

void accumulate(mlMatrix& M, mlVector& V, const double* a, double r, int n) {
    for (int i = 0; i < n; ++i) {
        double* row = M.row_data(i);
        for (int j = 0; j < n; ++j) row[j] += a[i] * a[j];
        V[i] += r * a[i];
    }
}

// The fraction of the step to take: the whole step when it does not raise
// f, else the first of five halvings that lowers it, refined by Brent on
// (0, t, 1), else nothing.
double line_search(const mlFunction& f) {
    const double f0 = f.function(0.0);
    if (f.function(1.0) <= f0) return 1.0;
    double t = 1.0;
    for (int k = 0; k < 5; ++k) {
        t *= 0.5;
        if (f.function(t) < f0) {
            double x = 0.0;
            ml_brent_minimum_search(f, 0.0, t, 1.0, 1e-5, 5, &x);
            return x;
        }
    }
    return 0.0;
}

bool partner_of(const tsBalancePairs& pairs, int i, int n) {
    return i < static_cast<int>(pairs.size()) && pairs[i].first != -1 && i + 1 < n;
}

double pair_coefficient(const tsBalancePairs& pairs, int i) {
    return i < static_cast<int>(pairs.size()) ? pairs[i].second : 0.0;
}

}  // namespace

// ---------------------------------------------------------------- models

// A linearised rigid motion: the point before the motion, the derivative of
// the moved point by the parameters, and the transform of a fraction of a
// step.
struct tsPointsToPlanes::StepModel {
    int n = 0;
    virtual ~StepModel() = default;
    virtual giPoint3 start(const giPoint3& m) const { return m; }
    virtual void jacobian(const giPoint3& m0, double J[3][kMaxParameters]) const = 0;
    virtual giXform3 xform(const mlVector& x, double t) const = 0;
};

struct tsPointsToPlanes::StepRows {
    mlMatrix M1, M2, MP;  // bestfit plane rows, bestfit point rows, positioning rows
    mlVector V1, V2, VP;
    mlMatrix plane_rows;  // one plane row per bestfit entry (with limits only)
    mlVector plane_rhs;
};

namespace {

// x -> x + t + (s w) x (x - c).
struct FreeModel : tsPointsToPlanes::StepModel {
    giPoint3 c;
    double s;
    FreeModel(const giPoint3& centre, double scale) : c(centre), s(scale) { n = 6; }
    void jacobian(const giPoint3& m0, double J[3][kMaxParameters]) const override {
        for (int r = 0; r < 3; ++r)
            for (int k = 0; k < 3; ++k) J[r][k] = r == k ? 1.0 : 0.0;
        cross_columns(m0 - c, s, J, 3);
    }
    giXform3 xform(const mlVector& x, double t) const override {
        giXform3 X(giVector3(t * x[0], t * x[1], t * x[2]));
        X.postmultiply(
            turn(c, giVector3(t * s * x[3], t * s * x[4], t * s * x[5]), kSmallestRotation));
        return X;
    }
};

// x -> x + sum x_j d_j.
struct TranslatesModel : tsPointsToPlanes::StepModel {
    giVector3 d[3];
    explicit TranslatesModel(const giVector3coDynArr& locks) {
        n = std::min(3, locks.size());
        for (int j = 0; j < n; ++j) d[j] = locks[j];
    }
    void jacobian(const giPoint3&, double J[3][kMaxParameters]) const override {
        for (int j = 0; j < n; ++j) {
            J[0][j] = d[j].x();
            J[1][j] = d[j].y();
            J[2][j] = d[j].z();
        }
    }
    giXform3 xform(const mlVector& x, double t) const override {
        giVector3 shift(0.0, 0.0, 0.0);
        for (int j = 0; j < n; ++j) shift = shift + d[j] * (t * x[j]);
        return giXform3(shift);
    }
};

// x -> b + (x - a) + w x (x - a): a is carried onto b whatever the fraction,
// the line search scales the turn only.
struct PivotModel : tsPointsToPlanes::StepModel {
    giPoint3 a, b;
    PivotModel(const giPoint3& pivot, const giPoint3& target) : a(pivot), b(target) { n = 3; }
    giPoint3 start(const giPoint3& m) const override { return m + (b - a); }
    void jacobian(const giPoint3& m0, double J[3][kMaxParameters]) const override {
        cross_columns(m0 - b, 1.0, J, 0);
    }
    giXform3 xform(const mlVector& x, double t) const override {
        giXform3 X(b - a);
        X.postmultiply(turn(a, giVector3(t * x[0], t * x[1], t * x[2])));
        return X;
    }
};

// x -> L x + (b - a) + s theta axis x (L x - a) + sum x_j o_j.
struct AxisModel : tsPointsToPlanes::StepModel {
    giXform3 L;
    giPoint3 a, b;
    giVector3 axis;
    giVector3 orts[3];
    double s;
    AxisModel(const giXform3& pre, const giPoint3& pivot, const giPoint3& target,
              const giVector3& direction, int n_orts, double scale)
        : L(pre), a(pivot), b(target), s(scale) {
        const int k = tsPointsToPlanes::linear_step_fixed_axis_orts(n_orts, direction, orts);
        axis = k > 0 ? orts[0] : giVector3(0.0, 0.0, 0.0);
        n = 1 + k;
    }
    giPoint3 start(const giPoint3& m) const override { return L * m + (b - a); }
    void jacobian(const giPoint3& m0, double J[3][kMaxParameters]) const override {
        const giVector3 c = cross(axis, m0 - b) * s;
        J[0][0] = c.x();
        J[1][0] = c.y();
        J[2][0] = c.z();
        for (int j = 1; j < n; ++j) {
            J[0][j] = orts[j - 1].x();
            J[1][j] = orts[j - 1].y();
            J[2][j] = orts[j - 1].z();
        }
    }
    giXform3 xform(const mlVector& x, double t) const override {
        giVector3 shift = b - a;
        for (int j = 1; j < n; ++j) shift = shift + orts[j - 1] * (t * x[j]);
        giXform3 X(shift);
        X.postmultiply(turn(a, axis * (t * s * x[0])));
        X.postmultiply(L);
        return X;
    }
};

// Line search objective of the locked steps: the bestfit sum of squares of
// the free step plus the positioning entries at their weight.
class StepLine : public mlFunction {
   public:
    StepLine(const tsPointsToPlanes::StepModel& model, const mlVector& x,
             const tsPlaneAndPointcoDynArr& bestfit, const tsBalancePairs* pairs,
             const tsPlaneAndPointcoDynArr& positioning)
        : model_(model), x_(x), bestfit_(bestfit), pairs_(pairs), positioning_(positioning) {}
    double function(double t) const override {
        const giXform3 X = model_.xform(x_, t);
        return ts_square_dists_sum(bestfit_, pairs_, kPointTie, X) +
               ts_square_dists_sum(positioning_, nullptr, 0.0, X);
    }

   private:
    const tsPointsToPlanes::StepModel& model_;
    const mlVector& x_;
    const tsPlaneAndPointcoDynArr& bestfit_;
    const tsBalancePairs* pairs_;
    const tsPlaneAndPointcoDynArr& positioning_;
};

}  // namespace

// ---------------------------------------------------------------- sums

double ts_square_dists_sum(const tsPlaneAndPointcoDynArr& entries, const tsBalancePairs* pairs,
                           double c, const giXform3& X) {
    double sum = 0.0;
    const int n = entries.size();
    for (int i = 0; i < n; ++i) {
        const tsPlaneAndPoint& e = entries[i];
        const giVector3 v = X * e.measured_point - e.nominal_point;
        const double vv = v.length_squared();
        if (e.kind == 0) {
            sum += (e.normal.length_squared() + c) * vv;
            continue;
        }
        double r = dot(v, e.normal);
        sum += c * vv;
        if (pairs && partner_of(*pairs, i, n)) {
            const tsPlaneAndPoint& f = entries[i + 1];
            const giVector3 v2 = X * f.measured_point - f.nominal_point;
            r = pair_coefficient(*pairs, i) * r +
                pair_coefficient(*pairs, i + 1) * dot(v2, f.normal);
            sum += c * v2.length_squared();
            ++i;
        }
        sum += r * r;
    }
    return sum;
}

tsInterpolatedSquareDistsSumFree::tsInterpolatedSquareDistsSumFree(
    const tsPlaneAndPointcoDynArr& entries, const mlVector& a, const mlVector& b, double s,
    double c, double min_rotation, const giPoint3& centre, const tsBalancePairs* pairs)
    : entries_(entries),
      a_(a),
      b_(b),
      s_(s),
      c_(c),
      min_rotation_(min_rotation),
      centre_(centre),
      pairs_(pairs) {}

const giXform3& tsInterpolatedSquareDistsSumFree::interpolate_xform(double t) const {
    double p[6];
    for (int j = 0; j < 6; ++j)
        p[j] = (1.0 - t) * (j < a_.size() ? a_[j] : 0.0) + t * (j < b_.size() ? b_[j] : 0.0);
    xform_.become_translation(giVector3(p[0], p[1], p[2]));
    const giVector3 omega(s_ * p[3], s_ * p[4], s_ * p[5]);
    const double angle = omega.length();
    if (angle >= min_rotation_)
        xform_.postmultiply(
            giXform3(centre_, omega, giAngle(giANGLE_RADIANS, std::atan2(angle, 1.0))));
    return xform_;
}

double tsInterpolatedSquareDistsSumFree::function(double t) const {
    return ts_square_dists_sum(entries_, pairs_, c_, interpolate_xform(t));
}

// ---------------------------------------------------------------- equations

void tsPointsToPlanes::build_rows(const StepModel& model, int with_positioning,
                                  StepRows& out) const {
    const int n = model.n;
    for (mlMatrix* M : {&out.M1, &out.M2, &out.MP}) M->become(n, n);
    for (mlVector* V : {&out.V1, &out.V2, &out.VP}) V->become(mlVectorZero, n);
    const int count = bestfit_entries_.size();
    if (has_limits_) {
        out.plane_rows.become(count, n);
        out.plane_rhs.become(mlVectorZero, count);
    }
    double J[3][kMaxParameters];
    // Plane row and point rows of one entry; the plane row is returned.
    auto rows_of = [&](const tsPlaneAndPoint& e, double a[kMaxParameters], double& r, bool points) {
        const giPoint3 m0 = model.start(e.measured_point);
        model.jacobian(m0, J);
        const giVector3 v = e.nominal_point - m0;
        for (int j = 0; j < n; ++j)
            a[j] = e.normal.x() * J[0][j] + e.normal.y() * J[1][j] + e.normal.z() * J[2][j];
        r = dot(v, e.normal);
        if (!points) return;
        const double rhs[3] = {v.x(), v.y(), v.z()};
        for (int k = 0; k < 3; ++k) accumulate(out.M2, out.V2, J[k], rhs[k], n);
    };
    double a[kMaxParameters], a2[kMaxParameters];
    for (int i = 0; i < count; ++i) {
        double r, r2;
        rows_of(bestfit_entries_[i], a, r, true);
        if (has_limits_) {
            for (int j = 0; j < n; ++j) out.plane_rows(i, j) = a[j];
            out.plane_rhs[i] = r;
        }
        if (partner_of(balance_pairs_, i, count)) {
            rows_of(bestfit_entries_[i + 1], a2, r2, true);
            if (has_limits_) {
                for (int j = 0; j < n; ++j) out.plane_rows(i + 1, j) = a2[j];
                out.plane_rhs[i + 1] = r2;
            }
            const double c1 = pair_coefficient(balance_pairs_, i),
                         c2 = pair_coefficient(balance_pairs_, i + 1);
            for (int j = 0; j < n; ++j) a[j] = c1 * a[j] + c2 * a2[j];
            r = c1 * r + c2 * r2;
            ++i;
        }
        accumulate(out.M1, out.V1, a, r, n);
    }
    if (!with_positioning) return;
    for (const tsPlaneAndPoint& e : positioning_entries_) {
        const giPoint3 m0 = model.start(e.measured_point);
        model.jacobian(m0, J);
        const giVector3 v = e.nominal_point - m0;
        if (e.kind == 0) {
            const double w = POSITIONING_WEIGHT * e.normal.length();
            const double rhs[3] = {v.x(), v.y(), v.z()};
            for (int k = 0; k < 3; ++k) {
                for (int j = 0; j < n; ++j) a[j] = w * J[k][j];
                accumulate(out.MP, out.VP, a, w * rhs[k], n);
            }
        } else {
            const giVector3 nw = e.normal * POSITIONING_WEIGHT;
            for (int j = 0; j < n; ++j)
                a[j] = nw.x() * J[0][j] + nw.y() * J[1][j] + nw.z() * J[2][j];
            accumulate(out.MP, out.VP, a, dot(v, nw), n);
        }
    }
}

void tsPointsToPlanes::equations_of(const StepModel& model, int planes, mlMatrix& M,
                                    mlVector& V) const {
    StepRows rows;
    build_rows(model, 0, rows);
    M = planes ? rows.M1 : rows.M2;
    V = planes ? rows.V1 : rows.V2;
}

void tsPointsToPlanes::linear_step_free_points_to_planes(mlMatrix& M, mlVector& V) const {
    equations_of(FreeModel(step_centre_, rotation_scale_), 1, M, V);
}

void tsPointsToPlanes::linear_step_free_points_to_points(mlMatrix& M, mlVector& V) const {
    equations_of(FreeModel(step_centre_, rotation_scale_), 0, M, V);
}

void tsPointsToPlanes::linear_step_rotation_points_to_planes(const giPoint3& a, const giPoint3& b,
                                                             mlMatrix& M, mlVector& V) const {
    equations_of(PivotModel(a, b), 1, M, V);
}

void tsPointsToPlanes::linear_step_rotation_points_to_points(const giPoint3& a, const giPoint3& b,
                                                             mlMatrix& M, mlVector& V) const {
    equations_of(PivotModel(a, b), 0, M, V);
}

void tsPointsToPlanes::linear_step_translates_points_to_planes(mlMatrix& M, mlVector& V) const {
    equations_of(TranslatesModel(rotation_locks_), 1, M, V);
}

void tsPointsToPlanes::linear_step_translates_points_to_points(mlMatrix& M, mlVector& V) const {
    equations_of(TranslatesModel(rotation_locks_), 0, M, V);
}

void tsPointsToPlanes::linear_step_fixed_axis_points_to_planes(int n_orts, const giPoint3& a,
                                                               const giPoint3& b,
                                                               const giVector3& axis, mlMatrix& M,
                                                               mlVector& V) const {
    equations_of(AxisModel(giXform3(giIdentity), a, b, axis, n_orts, rotation_scale_), 1, M, V);
}

void tsPointsToPlanes::linear_step_fixed_axis_points_to_points(int n_orts, const giPoint3& a,
                                                               const giPoint3& b,
                                                               const giVector3& axis, mlMatrix& M,
                                                               mlVector& V) const {
    equations_of(AxisModel(giXform3(giIdentity), a, b, axis, n_orts, rotation_scale_), 0, M, V);
}

int tsPointsToPlanes::linear_step_fixed_axis_orts(int n, const giVector3& axis, giVector3* orts) {
    const giUnitVec3 u(axis);
    if (!u.is_set() || n <= 0) return 0;
    const giUnitVec3 e1 = u.any_normal();
    const giVector3 all[3] = {u, e1, cross(u, e1)};
    const int count = std::min(n, 3);
    for (int j = 0; j < count; ++j) orts[j] = all[j];
    return count;
}

// ---------------------------------------------------------------- solution

int tsPointsToPlanes::constraint_coefs(const mlMatrix& rows, const mlVector& rhs) {
    const int n = rows.cols();
    const int count = std::min(rows.rows(), bestfit_entries_.size());
    int m = 0;
    for (int i = 0; i < count; ++i) {
        m += bestfit_entries_[i].lower_limit != -DBL_MAX ? 1 : 0;
        m += bestfit_entries_[i].upper_limit != DBL_MAX ? 1 : 0;
    }
    constraint_matrix_.become(m, n);
    constraint_bounds_.become(mlVectorZero, m);
    int k = 0;
    for (int i = 0; i < count; ++i) {
        const tsPlaneAndPoint& e = bestfit_entries_[i];
        // d(x) = g . x - h is the linearised deviation.
        const double h = rhs[i] / e.weight;
        if (e.lower_limit != -DBL_MAX) {
            for (int j = 0; j < n; ++j) constraint_matrix_(k, j) = -rows(i, j) / e.weight;
            constraint_bounds_[k++] = -(e.lower_limit + h);
        }
        if (e.upper_limit != DBL_MAX) {
            for (int j = 0; j < n; ++j) constraint_matrix_(k, j) = rows(i, j) / e.weight;
            constraint_bounds_[k++] = e.upper_limit + h;
        }
    }
    return m;
}

int tsPointsToPlanes::search_constrained_minimum(const mlMatrix& M, const mlVector& V, int n,
                                                 mlVector& start, mlVector& solution) {
    start.become(mlVectorZero, n);
    if (!has_limits_) {
        const mlSingularValueDecomposition svd(M);
        solution.become(mlMatrixProduct, svd.inverse(TINY_DOUBLE), V);
        if (solution.size() != n) solution.become(mlVectorZero, n);
        return 1;
    }
    if (!mlConstrainedQuadraticMinimiser::are_valid(constraint_matrix_, constraint_bounds_) ||
        constraint_matrix_.cols() != n)
        return 0;
    // No motion is the first candidate start: when it meets every band the
    // search starts there, else stage one looks for the nearest point that
    // does.
    solution.become(mlVectorZero, n);
    mlConstrainedQuadraticMinimiser minimiser(constraint_matrix_, constraint_bounds_,
                                              overdetermined_resolution_disabled_ == 0 ? 1 : 0);
    if (!minimiser.stage1(solution)) minimiser.delete_overdetermined_constraints();
    start = solution;
    constraint_start_ = solution;
    minimiser.stage2(M, V, solution);
    mlConstrainedQuadraticMinimiser::append_constraint_indices(
        minimiser.overdetermined_constraints(), overdetermined_);
    return 1;
}

// ---------------------------------------------------------------- steps

giPoint3 tsPointsToPlanes::update_rotation_scale(const giXform3& pre, int with_positioning) {
    double s[3] = {0, 0, 0};
    int n = 0;
    auto add = [&](const tsPlaneAndPointcoDynArr& entries) {
        for (const tsPlaneAndPoint& e : entries) {
            const giPoint3 p = pre * e.measured_point;
            s[0] += p.x();
            s[1] += p.y();
            s[2] += p.z();
            ++n;
        }
    };
    add(bestfit_entries_);
    if (with_positioning) add(positioning_entries_);
    if (n == 0) return giPoint3(0.0, 0.0, 0.0);
    const giPoint3 c(s[0] / n, s[1] / n, s[2] / n);
    double ss = 0.0;
    for (const tsPlaneAndPoint& e : bestfit_entries_)
        ss += (pre * e.measured_point - c).length_squared();
    if (with_positioning)
        for (const tsPlaneAndPoint& e : positioning_entries_)
            ss += (pre * e.measured_point - c).length_squared();
    const double rms = std::sqrt(ss / n);
    if (rms > 0.0 && std::isfinite(rms)) rotation_scale_ = std::min(1.0 / rms, kMaxRotationScale);
    return c;
}

int tsPointsToPlanes::single_linear_step(giXform3& xform) {
    if (rotation_locks_.size() > 0) return single_linear_step_translates(xform);
    if (lock_points_.size() > 0) return single_linear_step_locked_axis(xform);
    if (positioning_entries_.size() > 0) return single_linear_step_locked_point(xform);
    return single_linear_step_free(xform);
}

int tsPointsToPlanes::solve_and_search(const StepModel& model, int with_positioning,
                                       int search_line, giXform3& xform) {
    StepRows rows;
    build_rows(model, with_positioning, rows);
    mlMatrix M = rows.M2;
    M *= kPointTie;
    M += rows.M1;
    M += rows.MP;
    mlVector V = rows.V2;
    V *= kPointTie;
    V += rows.V1;
    V += rows.VP;
    if (has_limits_) constraint_coefs(rows.plane_rows, rows.plane_rhs);
    mlVector a, x;
    if (!search_constrained_minimum(M, V, model.n, a, x)) return 0;
    if (!search_line) {
        xform = model.xform(x, 1.0);
        return 1;
    }
    tsPlaneAndPointcoDynArr positioning;
    if (with_positioning) {
        positioning.reserve(positioning_entries_.size());
        for (tsPlaneAndPoint e : positioning_entries_) {
            e.normal = e.normal * POSITIONING_WEIGHT;
            positioning.append(e);
        }
    }
    const StepLine line(model, x, bestfit_entries_,
                        balance_pairs_.empty() ? nullptr : &balance_pairs_, positioning);
    xform = model.xform(x, line_search(line));
    return 1;
}

int tsPointsToPlanes::single_linear_step_free(giXform3& xform) {
    const giPoint3 c = update_rotation_scale(giXform3(giIdentity), 0);
    const FreeModel model(c, rotation_scale_);
    StepRows rows;
    build_rows(model, 0, rows);
    mlMatrix M = rows.M2;
    M *= kPointTie;
    M += rows.M1;
    mlVector V = rows.V2;
    V *= kPointTie;
    V += rows.V1;
    if (has_limits_) constraint_coefs(rows.plane_rows, rows.plane_rhs);
    mlVector a, b;
    if (!search_constrained_minimum(M, V, 6, a, b)) return 0;
    const tsInterpolatedSquareDistsSumFree line(bestfit_entries_, a, b, rotation_scale_, kPointTie,
                                                kSmallestRotation, c,
                                                balance_pairs_.empty() ? nullptr : &balance_pairs_);
    xform = line.interpolate_xform(line_search(line));
    return 1;
}

int tsPointsToPlanes::single_linear_step_translates(giXform3& xform) {
    return solve_and_search(TranslatesModel(rotation_locks_), 1, 0, xform);
}

int tsPointsToPlanes::single_linear_step_locked_point(giXform3& xform) {
    if (positioning_entries_.size() == 0) return 0;
    const tsPlaneAndPoint& first = positioning_entries_[0];
    return solve_and_search(PivotModel(first.measured_point, first.nominal_point), 1, 1, xform);
}

int tsPointsToPlanes::single_linear_step_locked_axis(giXform3& xform) {
    if (lock_points_.size() == 0) return 0;
    const giVector3& measured = lock_points_[0];
    const giVector3& nominal = lock_directions_[0];
    if (!giUnitVec3(measured).is_set() || !giUnitVec3(nominal).is_set()) return 0;
    const int flip = direction_flip_mode_ != 0 && dot(measured, nominal) < 0.0 ? 1 : 0;
    const giPoint3 c = update_rotation_scale(giXform3(giIdentity), 1);
    giXform3 lock;
    if (!find_lock_matrix(measured, nominal, flip, c, lock)) return 0;
    const giVector3 axis = flip ? giVector3(-giUnitVec3(nominal)) : giVector3(giUnitVec3(nominal));
    return solve_and_search(AxisModel(lock, c, c, axis, 3, rotation_scale_), 1, 1, xform);
}
