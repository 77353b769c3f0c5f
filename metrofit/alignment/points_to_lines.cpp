// tsPointsToLines: entries, linear steps and the fit iteration.

#include "metrofit/alignment/points_to_lines.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/maths/constrained_quadratic.h"
#include "metrofit/platform/maths/svd.h"

const double tsPointsToLines::POINT_TIE = 0.01;
const double tsPointsToLines::SINGULAR_CUT = 1e-7;

namespace {

constexpr int kMaxParameters = 3;
constexpr double kMaxScale = 1e7;

giVector2 perp(const giVector2& v) { return giVector2(-v.y(), v.x()); }

giXform2 turn(const giPoint2& centre, double theta) {
    return giXform2(centre, giAngle(giANGLE_RADIANS, theta));
}

// M += w a a^T, V += w r a.
void accumulate(mlMatrix& M, mlVector& V, const double* a, double r, double w, int k) {
    for (int i = 0; i < k; ++i) {
        double* row = M.row_data(i);
        const double wa = w * a[i];
        for (int j = 0; j < k; ++j) row[j] += wa * a[j];
        V[i] += wa * r;
    }
}

// Centroid of the measured points; the origin without entries.
giPoint2 centroid(const tsLineAndPointcoDynArr& entries) {
    const int n = entries.size();
    double cx = 0.0, cy = 0.0;
    for (const tsLineAndPoint& e : entries) {
        cx += e.measured_point_.x();
        cy += e.measured_point_.y();
    }
    return n > 0 ? giPoint2(cx / n, cy / n) : giPoint2(giOrigin);
}

bool lower_is_set(const doublecoDynArr& lower, int i) {
    return i < lower.size() && std::isfinite(lower[i]) && lower[i] != -DBL_MAX;
}
bool upper_is_set(const doublecoDynArr& upper, int i) {
    return i < upper.size() && std::isfinite(upper[i]) && upper[i] != DBL_MAX;
}

}  // namespace

// ---------------------------------------------------------------- motions

// A linearised planar motion: where a point stands before the free part of
// the step (start), the derivative of the moved point by the k parameters
// (J, 2 x k), and the exact transform of a parameter vector.
struct tsPointsToLines::Motion {
    int k = 0;
    virtual ~Motion() = default;
    virtual giPoint2 start(const giPoint2& m) const { return m; }
    virtual void jacobian(const giPoint2& m0, double J[2][kMaxParameters]) const = 0;
    virtual giXform2 xform(const mlVector& x) const = 0;
};

namespace {

// m -> m + t + theta perp(m), solved as m -> m + u + s phi perp(m - c):
// the turn taken about the centre c and scaled by s, then mapped back to
// (t, theta) = (u - s phi perp(c), s phi). With c the origin and s = 1 the
// rows are those of the turn about the origin.
struct FreeMotion : tsPointsToLines::Motion {
    giPoint2 c;
    double s;
    explicit FreeMotion(const giPoint2& centre = giPoint2(giOrigin), double scale = 1.0)
        : c(centre), s(scale) {
        k = 3;
    }
    void jacobian(const giPoint2& m0, double J[2][kMaxParameters]) const override {
        J[0][0] = 1.0;
        J[0][1] = 0.0;
        J[0][2] = -s * (m0.y() - c.y());
        J[1][0] = 0.0;
        J[1][1] = 1.0;
        J[1][2] = s * (m0.x() - c.x());
    }
    giXform2 xform(const mlVector& x) const override {
        const double theta = s * x[2];
        giXform2 X(giVector2(x[0] + theta * c.y(), x[1] - theta * c.x()));
        X.postmultiply(turn(giPoint2(giOrigin), theta));
        return X;
    }
};

// m -> b + (m - a) + theta perp(m - a).
struct PivotMotion : tsPointsToLines::Motion {
    giPoint2 a, b;
    PivotMotion(const giPoint2& measured, const giPoint2& nominal) : a(measured), b(nominal) {
        k = 1;
    }
    giPoint2 start(const giPoint2& m) const override { return m + (b - a); }
    void jacobian(const giPoint2& m0, double J[2][kMaxParameters]) const override {
        const giVector2 d = perp(m0 - b);
        J[0][0] = d.x();
        J[1][0] = d.y();
    }
    giXform2 xform(const mlVector& x) const override {
        giXform2 X(b - a);
        X.postmultiply(turn(a, x[0]));
        return X;
    }
};

// m -> L m + sum x_j d_j, d_0 the unit direction, d_1 its normal.
struct SlideMotion : tsPointsToLines::Motion {
    giXform2 L;
    giVector2 d[2];
    SlideMotion(const giXform2& pre, const giVector2& direction, int n) : L(pre) {
        const giUnitVec2 u(direction);
        if (!u.is_set() || !u.is_finite()) return;
        d[0] = u;
        d[1] = u.any_normal();
        k = std::min(std::max(n, 1), 2);
    }
    giPoint2 start(const giPoint2& m) const override { return L * m; }
    void jacobian(const giPoint2&, double J[2][kMaxParameters]) const override {
        for (int j = 0; j < k; ++j) {
            J[0][j] = d[j].x();
            J[1][j] = d[j].y();
        }
    }
    giXform2 xform(const mlVector& x) const override {
        giVector2 shift(0.0, 0.0);
        for (int j = 0; j < k; ++j) shift += d[j] * x[j];
        giXform2 X(shift);
        X.postmultiply(L);
        return X;
    }
};

}  // namespace

// ---------------------------------------------------------------- entries

tsPointsToLines::tsPointsToLines() = default;
tsPointsToLines::~tsPointsToLines() = default;

void tsPointsToLines::add_bestfit(const tsLineAndPoint& entry, double lower_limit,
                                  double upper_limit, double weight) {
    if (!entry.line_point_.is_finite() || !entry.line_normal_.is_finite() ||
        !entry.measured_point_.is_finite() || !std::isfinite(weight))
        return;
    entries_.append(entry);
    weights_.append(weight);
    lower_limits_.append(lower_limit);
    upper_limits_.append(upper_limit);
    if (lower_limit != -DBL_MAX || upper_limit != DBL_MAX) has_limits_ = 1;
}

void tsPointsToLines::lock_axis(const giVector2& a, const giVector2& b) {
    axis_measured_ = a;
    axis_nominal_ = b;
}

void tsPointsToLines::lock_origin(const giPoint2& measured, const giPoint2& nominal) {
    origin_measured_ = measured;
    origin_nominal_ = nominal;
}

double tsPointsToLines::best_fit_deviation_with_transform(const giXform2& X) const {
    double sum = 0.0;
    for (const tsLineAndPoint& e : entries_) {
        const double d = dot(X * e.measured_point() - e.line_point(), e.line_normal());
        sum += d * d;
    }
    return sum;
}

void tsPointsToLines::signed_deviations(const giXform2& X, doublecoDynArr& out) const {
    out.clear(0);
    out.reserve(entries_.size());
    for (const tsLineAndPoint& e : entries_)
        out.append(dot(X * e.measured_point() - e.line_point(), e.line_normal()));
}

// ---------------------------------------------------------------- equations

void tsPointsToLines::equations(const Motion& motion, int lines, mlMatrix& M, mlVector& V) const {
    const int k = motion.k;
    M.become(k, k);
    V.become(mlVectorZero, k);
    if (k == 0) return;
    double J[2][kMaxParameters], a[kMaxParameters];
    for (int i = 0; i < entries_.size(); ++i) {
        const tsLineAndPoint& e = entries_[i];
        const giPoint2 m0 = motion.start(e.measured_point());
        motion.jacobian(m0, J);
        const giVector2 v = e.line_point() - m0;
        const giVector2& n = e.line_normal();
        if (lines) {
            for (int j = 0; j < k; ++j) a[j] = n.x() * J[0][j] + n.y() * J[1][j];
            accumulate(M, V, a, dot(v, n), weights_[i], k);
        } else {
            accumulate(M, V, J[0], v.x(), weights_[i], k);
            accumulate(M, V, J[1], v.y(), weights_[i], k);
        }
    }
}

void tsPointsToLines::linear_step_free_points_to_lines(mlMatrix& M, mlVector& V) const {
    equations(FreeMotion(), 1, M, V);
}

void tsPointsToLines::linear_step_free_points_to_points(mlMatrix& M, mlVector& V) const {
    equations(FreeMotion(), 0, M, V);
}

void tsPointsToLines::linear_step_locked_origin_points_to_lines(const giPoint2& measured,
                                                                const giPoint2& nominal,
                                                                mlMatrix& M, mlVector& V) const {
    equations(PivotMotion(measured, nominal), 1, M, V);
}

void tsPointsToLines::linear_step_locked_origin_points_to_points(const giPoint2& measured,
                                                                 const giPoint2& nominal,
                                                                 mlMatrix& M, mlVector& V) const {
    equations(PivotMotion(measured, nominal), 0, M, V);
}

void tsPointsToLines::linear_step_fixed_shift_direction_points_to_lines(int n_directions,
                                                                        const giVector2& direction,
                                                                        mlMatrix& M,
                                                                        mlVector& V) const {
    equations(SlideMotion(giXform2(giIdentity), direction, n_directions), 1, M, V);
}

void tsPointsToLines::linear_step_fixed_shift_direction_points_to_points(int n_directions,
                                                                         const giVector2& direction,
                                                                         mlMatrix& M,
                                                                         mlVector& V) const {
    equations(SlideMotion(giXform2(giIdentity), direction, n_directions), 0, M, V);
}

// ---------------------------------------------------------------- bands

int tsPointsToLines::band_rows(const Motion& motion, const doublecoDynArr& lower,
                               const doublecoDynArr& upper) {
    const int k = motion.k;
    int rows = 0;
    for (int i = 0; i < entries_.size(); ++i)
        rows += (lower_is_set(lower, i) ? 1 : 0) + (upper_is_set(upper, i) ? 1 : 0);
    constraint_matrix_.become(rows, k);
    constraint_vector_.clear(0);
    constraint_vector_.reserve(rows);
    double J[2][kMaxParameters], a[kMaxParameters];
    int row = 0;
    for (int i = 0; i < entries_.size() && k > 0; ++i) {
        const bool low = lower_is_set(lower, i), up = upper_is_set(upper, i);
        if (!low && !up) continue;
        const tsLineAndPoint& e = entries_[i];
        const giPoint2 m0 = motion.start(e.measured_point());
        motion.jacobian(m0, J);
        const giVector2& n = e.line_normal();
        for (int j = 0; j < k; ++j) a[j] = n.x() * J[0][j] + n.y() * J[1][j];
        const double d0 = dot(m0 - e.line_point(), n);
        if (low) {
            for (int j = 0; j < k; ++j) constraint_matrix_(row, j) = -a[j];
            constraint_vector_.append(d0 - lower[i]);
            ++row;
        }
        if (up) {
            for (int j = 0; j < k; ++j) constraint_matrix_(row, j) = a[j];
            constraint_vector_.append(upper[i] - d0);
            ++row;
        }
    }
    return rows;
}

int tsPointsToLines::constraint_coefs_free(const doublecoDynArr& lower,
                                           const doublecoDynArr& upper) {
    return band_rows(FreeMotion(), lower, upper);
}

// ---------------------------------------------------------------- steps

int tsPointsToLines::solve_step(const Motion& motion, giXform2& step) {
    step = giXform2(giIdentity);
    const int k = motion.k;
    if (k == 0) return 0;
    mlMatrix M, M2;
    mlVector V, V2;
    equations(motion, 1, M, V);
    if (point_tie_) {
        equations(motion, 0, M2, V2);
        M2 *= POINT_TIE;
        V2 *= POINT_TIE;
        M += M2;
        V += V2;
    }
    mlVector x(mlVectorZero, k);
    if (!has_limits_) {
        const mlSingularValueDecomposition svd(M);
        mlVector solution;
        if (solution.become(mlMatrixProduct, svd.inverse(SINGULAR_CUT), V) && solution.size() == k)
            x = solution;
    } else {
        band_rows(motion, lower_limits_, upper_limits_);
        mlConstrainedQuadraticMinimiser minimiser(constraint_matrix_,
                                                  mlVector(utCopy, constraint_vector_), 1);
        minimiser.solve(M, V, x);
        mlConstrainedQuadraticMinimiser::append_constraint_indices(
            minimiser.overdetermined_constraints(), overdetermined_);
    }
    for (int j = 0; j < k; ++j)
        if (!std::isfinite(x[j])) return 0;
    const giXform2 X = motion.xform(x);
    if (!X.is_set()) return 0;
    step = X;
    return 1;
}

int tsPointsToLines::single_linear_step(giXform2& step) {
    if (axis_measured_.x() != -DBL_MAX) return single_linear_shift_direction_axis(step);
    const double ox = origin_measured_.x(), oy = origin_measured_.y();
    if (ox != -DBL_MAX && ox != DBL_MAX && oy != DBL_MAX)
        return single_linear_step_locked_point(step);
    return single_linear_step_free(step);
}

int tsPointsToLines::single_linear_step_free(giXform2& step) {
    // Centre and scale of the turn: the centroid c of the measured points and
    // 1 / rms |m - c|, so that the three columns have the same size wherever
    // the part lies. About the origin, a part of size 70 placed 1e3 away
    // gives a turn column 1e3 long that differs between the points by 70:
    // the turn about the part is then a singular value 1e-9 of the largest
    // of M and the cut 1e-7 would drop it.
    const int n = entries_.size();
    const giPoint2 c = centroid(entries_);
    double ss = 0.0;
    for (const tsLineAndPoint& e : entries_) ss += (e.measured_point() - c).length_squared();
    const double rms = n > 0 ? std::sqrt(ss / n) : 0.0;
    const double scale = rms > 0.0 && std::isfinite(rms) ? std::min(1.0 / rms, kMaxScale) : 1.0;
    return solve_step(FreeMotion(c, scale), step);
}

int tsPointsToLines::single_linear_step_locked_point(giXform2& step) {
    if (!origin_measured_.is_set() || !origin_measured_.is_finite() || !origin_nominal_.is_set() ||
        !origin_nominal_.is_finite()) {
        step = giXform2(giIdentity);
        return 0;
    }
    return solve_step(PivotMotion(origin_measured_, origin_nominal_), step);
}

int tsPointsToLines::single_linear_shift_direction_axis(giXform2& step) {
    step = giXform2(giIdentity);
    const giVector2& a = axis_measured_;
    if (!a.is_set() || !a.is_finite() || !(a.length() > 0.0)) return 0;
    const giVector2& b0 = axis_nominal_;
    if (b0.is_set() && !b0.is_finite()) return 0;
    const giVector2 b = b0.is_set() && b0.length() > 0.0 ? b0 : a;
    // The fixed turn carrying a onto b, about the centroid of the points.
    const giPoint2 c = centroid(entries_);
    const giXform2 L = turn(c, std::atan2(cross(a, b), dot(a, b)));
    if (!L.is_set()) return 0;
    return solve_step(SlideMotion(L, b, 1), step);
}

// ---------------------------------------------------------------- fit

double tsPointsToLines::fit(giXform2& X, double tolerance) {
    const tsLineAndPointcoDynArr saved = entries_;
    const giVector2 saved_axis = axis_measured_;
    const giPoint2 saved_origin = origin_measured_;
    const bool move_axis = axis_measured_.is_set() && axis_measured_.is_finite();
    const bool move_origin = origin_measured_.is_set() && origin_measured_.is_finite();
    overdetermined_.clear(0);
    X = giXform2(giIdentity);
    double largest_deviation = 0.0;
    for (int pass = 0; pass < MAX_PASSES; ++pass) {
        giXform2 step;
        if (!single_linear_step(step)) step = giXform2(giIdentity);
        double largest_move = 0.0;
        largest_deviation = 0.0;
        for (tsLineAndPoint& e : entries_) {
            const giPoint2 m = e.measured_point();
            const giPoint2 moved = step * m;
            largest_move = std::max(largest_move, distance(moved, m));
            largest_deviation = std::max(largest_deviation,
                                         std::fabs(dot(moved - e.line_point(), e.line_normal())));
            e.set_measured_point(moved);
        }
        // The locks' measured halves travel with the points, so that the
        // carry of a onto b (origin or direction) is made once.
        if (move_axis) axis_measured_ = step * axis_measured_;
        if (move_origin) origin_measured_ = step * origin_measured_;
        X.premultiply(step);
        if (largest_move < tolerance) break;
    }
    entries_ = saved;
    axis_measured_ = saved_axis;
    origin_measured_ = saved_origin;
    return largest_deviation;
}
