#include "metrofit/features/ellipse.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/features/direct_ellipse.h"
#include "metrofit/frame/distribution_quality.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/maths/least_squares.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
// Newton and bisection steps of the foot-point root; convergence takes a
// handful, the bound only keeps every input finite in time.
constexpr int kFootSteps = 100;
// Largest binary exponent the foot point's unit takes (2^1000 and its
// reciprocal are normal doubles).
constexpr int kScaleExponent = 1000;
// A Newton step this small relative to s leaves an error below rounding.
constexpr double kFootSettled = 1e-9;
// A result whose minor semi-axis is at most this fraction of the major one
// cannot be told from its axis segment: it is not taken as an ellipse.
constexpr double kFlatLevel = 1e-12;
// Chained solver runs: on a noisy short arc the minimum can lie far out
// along a flat, curved valley (towards very large ellipses) that one run does
// not finish, either stopping at the solver's pass limit (least_squares.h) or
// taking its relative decrease for convergence. Each further run starts
// afresh from where the last stopped. A run that needs only a few passes, or
// gains nothing, ends the chain; a last run still at the pass limit means no
// minimum was reached (the data may have none at a finite ellipse), and the
// fit is refused.
constexpr int kSolverPasses = 200;
constexpr int kSettledPasses = 20;
constexpr int kSolverRuns = 10;
constexpr double kNoGain = 1e-12;  // relative decrease of S at its rounding level
// Largest |x.y| of the plane axes given to evaluate_ellipse2.
constexpr double kSkewLimit = 1e-6;

// The eigen frame of M = [[r + e1, e2], [e2, r - e1]]: unit eigenvector
// v = (c, s) of l1 = r + |e|, and l2 = r - |e| on w = (-s, c). The half
// angle of e is taken from whichever of (|e| + e1, e2) and (e2, |e| - e1)
// does not cancel; both point along v (up to sense).
struct EigenFrame {
    double c, s, l1, l2;
};
EigenFrame eigen_frame(double r, double e1, double e2) {
    const double eps = std::hypot(e1, e2);
    EigenFrame f = {1.0, 0.0, r + eps, r - eps};
    if (eps > 0.0) {
        const double vx = e1 >= 0.0 ? eps + e1 : e2, vy = e1 >= 0.0 ? e2 : eps - e1;
        const double len = std::hypot(vx, vy);
        f.c = vx / len;
        f.s = vy / len;
    }
    return f;
}

// Brings (r, e1, e2) of a 5-vector to r >= |e|, leaving canonical vectors
// as they are. The same ellipse has semi-axes |r + |e|| on e's axis and
// |r - |e|| across it; turning the major axis by 90 degrees reverses e.
void make_canonical(mlVector& p) {
    const double r = p[2], eps = std::hypot(p[3], p[4]);
    if (r >= eps) return;
    const double m1 = std::fabs(r + eps), m2 = std::fabs(r - eps);
    const double half_diff = 0.5 * std::fabs(m1 - m2);
    const double k = eps > 0.0 ? (m1 >= m2 ? half_diff : -half_diff) / eps : 0.0;
    p[2] = 0.5 * (m1 + m2);
    p[3] *= k;
    p[4] *= k;
}

// F(s) of the foot-point equation and -F'(s) / 2, for a x, b y and
// D = a^2 - b^2.
inline double foot_function(double ax, double by, double D, double s, double* slope) {
    const double i1 = 1.0 / (s + D), i2 = 1.0 / s;
    const double p = ax * i1, q = by * i2;
    if (slope) *slope = p * p * i1 + q * q * i2;
    return p * p + q * q - 1.0;
}

// Foot of (x, y), x, y >= 0, on the ellipse with semi-axes a >= b > 0 along
// x and y; returns the signed distance.
double quadrant_foot(double a, double b, double x, double y, double& fx, double& fy) {
    const double D = (a - b) * (a + b);
    const double ax = a * x, by = b * y;
    // Coordinates that vanish against the semi-axes (below the smallest
    // normal double, in units of a) count as on the axis.
    if (!(by >= DBL_MIN)) {
        // On the major axis: inside the evolute the foot leaves the axis.
        if (ax < D) {
            const double k = ax / D;
            fx = a * k;
            fy = b * std::sqrt((1.0 - k) * (1.0 + k));
            return -std::hypot(x - fx, fy);
        }
        fx = a;
        fy = 0.0;
        return x - a;
    }
    if (!(ax >= DBL_MIN)) {
        fx = 0.0;
        fy = b;
        return y - b;
    }
    // F is convex and decreasing on s > 0, F(lo) >= 0 >= F(hi). Newton's
    // method from the left never passes the root. The start is s = b^2, the
    // foot parameter of a point on the curve: a point outside has F(b^2) > 0
    // and starts there; one inside takes one Newton step from b^2, which
    // lands left of the root (by convexity), clamped to lo. Points near the
    // curve, the common case, so start within their squared distance of the
    // root. Where Newton's steps stop shrinking (near the pole of a point
    // close to the major axis) a bisection of [lo, hi] follows, geometric
    // while the bracket spans a large ratio.
    double lo = std::max(by, ax - D), hi = std::sqrt(ax * ax + by * by);
    const double b2 = b * b;
    double slope = 0.0;
    const double f0 = foot_function(ax, by, D, b2, &slope);
    if (f0 >= 0.0) {
        lo = std::max(lo, b2);
    } else {
        hi = std::min(hi, b2);
        lo = std::max(lo, b2 + 0.5 * f0 / slope);
    }
    double last_step = DBL_MAX;
    for (int k = 0; k < kFootSteps && lo < hi; ++k) {
        const double f = foot_function(ax, by, D, lo, &slope);
        if (!(f > 0.0)) break;  // at the root to rounding
        const double next = lo + 0.5 * f / slope;
        if (!(next > lo)) break;  // the step is below rounding
        if (next < hi) {
            const double step = next - lo;
            lo = next;
            // Newton's error is about (3 / s) step^2 here: below rounding.
            if (step <= kFootSettled * lo) break;
            const bool shrinking = step < 0.5 * last_step;
            last_step = step;
            if (shrinking) continue;
        }
        const double mid = hi > 4.0 * lo ? std::sqrt(lo) * std::sqrt(hi) : lo + 0.5 * (hi - lo);
        if (!(mid > lo && mid < hi)) break;
        (foot_function(ax, by, D, mid, nullptr) >= 0.0 ? lo : hi) = mid;
    }
    const double s = lo, i1 = 1.0 / (s + D), i2 = 1.0 / s, u = x * i1, v = y * i2;
    fx = a * ax * i1;
    fy = b * by * i2;
    // Q - foot = (s - b^2) (x / (s + D), y / s): the sign says inside or out.
    return (s - b2) * std::sqrt(u * u + v * v);
}

// Whether the ellipse with semi-axes big >= small is its axis segment (or
// its centre) to rounding: the smaller at most 2^-500 of the larger, so that
// it lies within far less than a rounding of the larger from the segment.
inline bool collapsed(double big, double small) { return !(small > 0x1.0p-500 * big); }

// For a collapsed ellipse: the unit vector u that M maps to the foot (in the
// eigen frame, along the segment fx / l1 or fy / l2, across it what keeps u a
// unit vector, on the point's side) and the normal, from the foot to the
// point (zero on the segment).
void collapsed_terms(double fx, double fy, double l1, double l2, double x, double y, double* u,
                     double* n) {
    const double m1 = std::fabs(l1), m2 = std::fabs(l2);
    if (m1 == 0.0 && m2 == 0.0) {  // the centre: any u, the point's direction
        const double len = std::sqrt(x * x + y * y);
        u[0] = len > 0.0 ? x / len : 1.0;
        u[1] = len > 0.0 ? y / len : 0.0;
    } else {
        const bool first = m1 >= m2;
        const double along = first ? fx / l1 : fy / l2;
        const double side = first ? y * l2 : x * l1;
        const double across = std::sqrt(std::max(0.0, 1.0 - along * along));
        u[first ? 0 : 1] = along;
        u[first ? 1 : 0] = side < 0.0 ? -across : across;
    }
    const double n1 = x - fx, n2 = y - fy, len = std::sqrt(n1 * n1 + n2 * n2);
    n[0] = len > 0.0 ? n1 / len : 0.0;
    n[1] = len > 0.0 ? n2 / len : 0.0;
}

}  // namespace

// ---------------------------------------------------------------------------
// tsLeastSquareEllipse2

tsLeastSquareEllipse2::tsLeastSquareEllipse2(const giPoint2coDynArr& points)
    : tsLeastSquareDistance2(5, points) {}

void tsLeastSquareEllipse2::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    if (p.size() < 5) return;
    cx_ = p[0];
    cy_ = p[1];
    const EigenFrame f = eigen_frame(p[2], p[3], p[4]);
    c_ = f.c;
    s_ = f.s;
    l1_ = f.l1;
    l2_ = f.l2;
    foot_ = foot_frame(l1_, l2_);
}

void tsLeastSquareEllipse2::normalize_parameters(mlVector& p) const {
    if (p.size() == 5) make_canonical(p);
}

tsLeastSquareEllipse2::FootFrame tsLeastSquareEllipse2::foot_frame(double a, double b) {
    FootFrame f;
    const double sa = std::fabs(a), sb = std::fabs(b);
    f.swap = sb > sa;
    f.big = f.swap ? sb : sa;
    f.small = f.swap ? sa : sb;
    f.segment = collapsed(f.big, f.small);
    // The unit: the larger semi-axis rounded to a power of two, so that the
    // scaling is exact and the squares stay in range at any magnitude.
    const int e =
        f.big > 0.0 ? std::max(-kScaleExponent, std::min(kScaleExponent, std::ilogb(f.big))) : 0;
    f.to = std::ldexp(1.0, -e);
    f.back = std::ldexp(1.0, e);
    return f;
}

double tsLeastSquareEllipse2::foot_with(const FootFrame& f, double x, double y, double& fx,
                                        double& fy) {
    // Work in the first quadrant with the larger semi-axis first.
    const double u = std::fabs(f.swap ? y : x), v = std::fabs(f.swap ? x : y);
    double fu = 0.0, fv = 0.0, d = 0.0;
    // A collapsed ellipse is its axis segment; seen from a point farther than
    // 2^500 of its size it is a point, and the segment serves as well.
    if (!f.segment && !collapsed(std::max(u, v), f.big)) {
        d = f.back * quadrant_foot(f.big * f.to, f.small * f.to, u * f.to, v * f.to, fu, fv);
        fu *= f.back;
        fv *= f.back;
    } else {
        fu = std::min(u, f.big);
        d = std::hypot(u - fu, v);
    }
    const double px = f.swap ? fv : fu, py = f.swap ? fu : fv;
    fx = x < 0.0 ? -px : px;
    fy = y < 0.0 ? -py : py;
    return d;
}

double tsLeastSquareEllipse2::foot_point(double a, double b, double x, double y, double& fx,
                                         double& fy) {
    return foot_with(foot_frame(a, b), x, y, fx, fy);
}

double tsLeastSquareEllipse2::distance_terms(int i, double* u, double* n) const {
    const giPoint2& q = point(i);
    const double dx = q.x() - cx_, dy = q.y() - cy_;
    const double x = c_ * dx + s_ * dy, y = -s_ * dx + c_ * dy;
    double fx = 0.0, fy = 0.0;
    const double d = foot_with(foot_, x, y, fx, fy);
    double ul[2], nl[2];
    const double m1 = std::fabs(l1_), m2 = std::fabs(l2_);
    if (foot_.segment) {
        collapsed_terms(fx, fy, l1_, l2_, x, y, ul, nl);
    } else {
        // M maps u = (fx / l1, fy / l2) to the foot; the outward normal of
        // (X / a)^2 + (Y / b)^2 = 1 is along (X / a^2, Y / b^2), here times
        // a b / max(a, b) so that neither component overflows or vanishes.
        ul[0] = fx / l1_;
        ul[1] = fy / l2_;
        const double n1 = fx / m1 * (m2 / foot_.big), n2 = fy / m2 * (m1 / foot_.big);
        const double len = std::sqrt(n1 * n1 + n2 * n2);
        nl[0] = n1 / len;
        nl[1] = n2 / len;
    }
    const double u1 = ul[0], u2 = ul[1], n1 = nl[0], n2 = nl[1];
    u[0] = c_ * u1 - s_ * u2;
    u[1] = s_ * u1 + c_ * u2;
    n[0] = c_ * n1 - s_ * n2;
    n[1] = s_ * n1 + c_ * n2;
    return d;
}

void tsLeastSquareEllipse2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    double u[2], n[2];
    d = distance_terms(i, u, n);
    if (g.size() < 5) g[4] = 0.0;
    // d = n.(Q - C - M u) with u held at the foot: minus n.dX for each
    // parameter, dX/dr = u, dX/de1 = (u1, -u2), dX/de2 = (u2, u1).
    g[0] = -n[0];
    g[1] = -n[1];
    g[2] = -(n[0] * u[0] + n[1] * u[1]);
    g[3] = -(n[0] * u[0] - n[1] * u[1]);
    g[4] = -(n[0] * u[1] + n[1] * u[0]);
}

void tsLeastSquareEllipse2::get_distance(double& d, int i) const {
    const giPoint2& q = point(i);
    const double dx = q.x() - cx_, dy = q.y() - cy_;
    double fx = 0.0, fy = 0.0;
    d = foot_with(foot_, c_ * dx + s_ * dy, -s_ * dx + c_ * dy, fx, fy);
}

double tsLeastSquareEllipse2::half_turn(double angle) {
    double t = std::fmod(angle, kPi);
    if (t < 0.0) t += kPi;
    return t < kPi ? t : 0.0;
}

mlVector tsLeastSquareEllipse2::parameters_of(const giPoint2& centre, double semi_major,
                                              double semi_minor, double angle) {
    const double half_diff = 0.5 * (semi_major - semi_minor);
    return {centre.x(), centre.y(), 0.5 * (semi_major + semi_minor),
            half_diff * std::cos(2.0 * angle), half_diff * std::sin(2.0 * angle)};
}

int tsLeastSquareEllipse2::ellipse_of(const mlVector& p, giPoint2& centre, double& semi_major,
                                      double& semi_minor, double& angle) {
    if (p.size() != 5) return 0;
    mlVector q(p);
    make_canonical(q);
    const EigenFrame f = eigen_frame(q[2], q[3], q[4]);
    centre = giPoint2(q[0], q[1]);
    semi_major = f.l1;
    semi_minor = f.l2;
    angle = half_turn(std::atan2(f.s, f.c));
    return 1;
}

// ---------------------------------------------------------------------------
// Entry points

int tsLeastSquareEvaluator::evaluate_ellipse(const giPoint2coDynArr& points, giPoint2& centre,
                                             double& semi_major, double& semi_minor, double& angle,
                                             double& error) {
    if (points.size() < 5 || !ts_all_finite(points)) return 0;
    if (!tsDirectEllipse2::spans_plane(points)) return 0;
    // The algebraic ellipse is close to the geometric one whenever it
    // exists; without it, the circle (e = 0) is the natural start.
    mlVector start;
    const tsDirectEllipse2 direct(points);
    if (direct.status() == tsDirectFit::kFitted) {
        start = tsLeastSquareEllipse2::parameters_of(direct.centre(), direct.semi_major(),
                                                     direct.semi_minor(), direct.angle());
    } else {
        giPoint2 c;
        double r = 0.0, circle_error = 0.0;
        if (!evaluate_circle(points, c, r, circle_error)) return 0;
        start = mlVector{c.x(), c.y(), r, 0.0, 0.0};
    }
    tsLeastSquareEllipse2 model(points);
    mlLevenbergMarquardt solver(model);
    mlVector result;
    double mean_square = DBL_MAX;
    bool settled = false;
    for (int run = 0; run < kSolverRuns && !settled; ++run) {
        mlVector next;
        const double last = mean_square;
        mean_square = solver.fit(run == 0 ? start : result, next);
        if (!(mean_square < DBL_MAX) || next.size() != 5) return 0;
        result = next;
        settled = solver.iterations() <= kSettledPasses ||
                  (run > 0 && !(mean_square < last * (1.0 - kNoGain)));
    }
    if (!settled && solver.iterations() > kSolverPasses) return 0;
    giPoint2 c;
    double a = 0.0, b = 0.0, t = 0.0;
    tsLeastSquareEllipse2::ellipse_of(result, c, a, b, t);
    if (!c.is_finite() || !std::isfinite(a) || !(b > kFlatLevel * a)) return 0;
    centre = c;
    semi_major = a;
    semi_minor = b;
    angle = t;
    error = std::sqrt(mean_square);
    return 1;
}

int tsLeastSquareEvaluator::evaluate_ellipse2(const giPoint3& plane_point, const giUnitVec3& x_axis,
                                              const giUnitVec3& y_axis,
                                              const giPoint3coDynArr& points, giPoint3& centre,
                                              giUnitVec3& major_axis, double& semi_major,
                                              double& semi_minor, double& error) {
    if (points.size() < 5 || !ts_all_finite(points)) return 0;
    if (!plane_point.is_set() || !ts_finite(plane_point) || !x_axis.is_set() || !y_axis.is_set() ||
        !ts_finite(x_axis) || !ts_finite(y_axis))
        return 0;
    const double skew = dot(x_axis, y_axis);
    if (!(std::fabs(skew) <= kSkewLimit)) return 0;
    // y made exactly perpendicular to x, so that the frame is orthonormal.
    const giUnitVec3 y_unit(y_axis - skew * x_axis);
    if (!y_unit.is_set()) return 0;
    const giUnitVec3 normal(cross(x_axis, y_unit));
    giPoint2coDynArr flat;
    flat.reserve(points.size());
    double heights = 0.0;
    for (const giPoint3& p : points) {
        const giVector3 v = p - plane_point;
        const double h = dot(v, normal);
        heights += h * h;
        flat.append(giPoint2(dot(v, x_axis), dot(v, y_unit)));
    }
    giPoint2 c;
    double a = 0.0, b = 0.0, t = 0.0, flat_error = 0.0;
    if (!evaluate_ellipse(flat, c, a, b, t, flat_error)) return 0;
    centre = plane_point + c.x() * x_axis + c.y() * y_unit;
    major_axis = giUnitVec3(std::cos(t) * x_axis + std::sin(t) * y_unit);
    semi_major = a;
    semi_minor = b;
    // A point at height h above the plane is sqrt(d^2 + h^2) from the ellipse.
    error = std::sqrt(flat_error * flat_error + heights / points.size());
    return 1;
}

double tsLeastSquareDistributionQuality::distribution_quality_ellipse(
    const giPoint2coDynArr& points, const giPoint2& centre, double semi_major, double semi_minor,
    double angle) {
    if (points.size() < 3 || !ts_all_finite(points) || !centre.is_set() || !centre.is_finite())
        return 0.0;
    if (!std::isfinite(semi_major) || !std::isfinite(semi_minor) || !std::isfinite(angle) ||
        !(semi_major > 0.0) || !(semi_minor > 0.0))
        return 0.0;
    tsLeastSquareEllipse2 model(points);
    return model.point_distribution_quality(
        tsLeastSquareEllipse2::parameters_of(centre, semi_major, semi_minor, angle));
}
