#include "metrofit/features/circle.h"

#include <cfloat>
#include <cmath>

#include "metrofit/features/axial_common.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/random.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/util/utils.h"

namespace {

// Below this distance from the centre a point gives no direction.
constexpr double kCentreGuard = 1e-7;
// Working set of the free 3D fit.
constexpr int kCircle3Budget = 10000;
constexpr double kCircle3SpreadFrom = 12000.0;
// Random starts of the probed fit.
constexpr int kProbedAttempts = 10;

double mean_distance(const giPoint2coDynArr& points, const giPoint2& c) {
    double sum = 0.0;
    for (const giPoint2& p : points) sum += distance(p, c);
    return sum / points.size();
}

// The first n entries of a gradient vector, grown to n when shorter (the
// solver hands over vectors of the right size; growing keeps other callers
// safe).
inline double* gradient_slots(mlVector& g, int n) {
    if (g.size() < n) g[n - 1] = 0.0;
    return g.data();
}

// One solver run of a planar circle model; false when the solver could not
// even evaluate the start (its sums overflow), which leaves result unset.
bool run_solver(mlDistanceLeastSquares& model, const mlVector& start, mlVector& result,
                double& mean_square) {
    mlLevenbergMarquardt solver(model);
    mean_square = solver.fit(start, result);
    return mean_square < DBL_MAX && result.size() == model.n_parameters();
}

// evaluate_circle2 without its error: the points projected into the plane's
// 2D frame, fitted there, and the centre mapped back into space.
int circle_in_plane(const giPoint3& plane_point, const giUnitVec3& plane_normal,
                    const giPoint3coDynArr& points, giPoint3& centre, double& radius) {
    if (points.size() < 3 || !ts_all_finite(points)) return 0;
    giPoint2coDynArr flat;
    giXform3 to_world;
    if (!tsUtils::project_into_plane(points, plane_point, plane_normal, flat, to_world)) return 0;
    giPoint2 c2;
    double r = 0.0, error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_circle(flat, c2, r, error)) return 0;
    centre = to_world * giPoint3(c2.x(), c2.y(), 0.0);
    radius = r;
    return 1;
}

// A circle in space: centre, unit axis, radius.
struct SpaceCircle {
    double c[3];
    double u[3];
    double r;
};

// One pass over the points at x: the sum of squared distances and the normal
// equations A t = b of the two components of each point's offset from the
// circle, e = rho - r (radial) and h (height above the plane), whose squares
// add up to d^2. Unknowns, in the frame (e1, e2, u) of the circle: the
// centre's shift t0 e1 + t1 e2 + t2 u, the turn of the axis towards e1 and e2
// (t3, t4) and the change of radius t5. With (p, q) the direction of the
// point's radial offset in that frame the rows are
//   e: (-p, -q, 0, -h p, -h q, -1),   h: (0, 0, -1, rho p, rho q, 0),
// so A and b need only a few sums over the points.
long double split_normal_equations(const giPoint3coDynArr& points, const SpaceCircle& x,
                                   const double* e1, const double* e2, double a[6][6],
                                   double b[6]) {
    double spp = 0, spq = 0, sqq = 0, shpp = 0, shpq = 0, shqq = 0, sp = 0, sq = 0;
    double srp = 0, srq = 0, smpp = 0, smpq = 0, smqq = 0, shp = 0, shq = 0;
    double spe = 0, sqe = 0, sh = 0, se = 0;
    long double sum = 0.0L;
    const double ux = x.u[0], uy = x.u[1], uz = x.u[2];
    for (const giPoint3& pt : points) {
        const double vx = pt.x() - x.c[0], vy = pt.y() - x.c[1], vz = pt.z() - x.c[2];
        const double v1 = vx * e1[0] + vy * e1[1] + vz * e1[2];
        const double v2 = vx * e2[0] + vy * e2[1] + vz * e2[2];
        const double h = vx * ux + vy * uy + vz * uz;
        const double rho = std::sqrt(v1 * v1 + v2 * v2);
        const double e = rho - x.r;
        sum += static_cast<long double>(e * e + h * h);
        const double k = rho > 0.0 ? 1.0 / rho : 0.0;  // no direction on the axis
        const double p = v1 * k, q = v2 * k;
        const double pp = p * p, pq = p * q, qq = q * q, m = h * h + rho * rho;
        spp += pp;
        spq += pq;
        sqq += qq;
        shpp += h * pp;
        shpq += h * pq;
        shqq += h * qq;
        sp += p;
        sq += q;
        srp += rho * p;
        srq += rho * q;
        smpp += m * pp;
        smpq += m * pq;
        smqq += m * qq;
        shp += h * p;
        shq += h * q;
        spe += p * e;
        sqe += q * e;
        sh += h;
        se += e;
    }
    const double n = points.size();
    const double upper[6][6] = {{spp, spq, 0.0, shpp, shpq, sp}, {0.0, sqq, 0.0, shpq, shqq, sq},
                                {0.0, 0.0, n, -srp, -srq, 0.0},  {0.0, 0.0, 0.0, smpp, smpq, shp},
                                {0.0, 0.0, 0.0, 0.0, smqq, shq}, {0.0, 0.0, 0.0, 0.0, 0.0, n}};
    for (int j = 0; j < 6; ++j)
        for (int k = 0; k < 6; ++k) a[j][k] = k >= j ? upper[j][k] : upper[k][j];
    // b = -J^T f; the turn rows combine to r h p since rho - e = r.
    b[0] = spe;
    b[1] = sqe;
    b[2] = sh;
    b[3] = -x.r * shp;
    b[4] = -x.r * shq;
    b[5] = se;
    return sum;
}

// Brings x to the least-squares circle of the points by Gauss-Newton on the
// split components (e, h). The unsigned distance d = |(e, h)| has a kink at
// the circle that its gradient cannot show: Gauss-Newton on d alone misses
// the curvature across each point's offset direction, so it converges only
// linearly and stops short of the minimum on short arcs. With the two
// components the iteration converges fast (quadratically for small
// residuals). A step that raises the sum of squares is not taken; the
// iteration ends after a step below 1e-10 of the radius (the next would be
// at the rounding level), when the steps stop shrinking, or after 8 passes.
void polish_circle3(const giPoint3coDynArr& points, SpaceCircle& x) {
    constexpr int kPasses = 8;
    constexpr double kRise = 1e-12;   // tolerated relative rise of the sum
    constexpr double kShrink = 0.5;   // each step at most half the last
    constexpr double kFinal = 1e-10;  // relative step taken without a check
    SpaceCircle best = x;
    long double best_sum = 0.0L;
    double last_step = DBL_MAX;
    for (int pass = 0; pass < kPasses; ++pass) {
        const giUnitVec3 axis(x.u[0], x.u[1], x.u[2]);
        if (!axis.is_set()) break;
        const giUnitVec3 n1 = axis.any_normal();
        const giUnitVec3 n2(cross(axis, n1));
        const double e1[3] = {n1.x(), n1.y(), n1.z()}, e2[3] = {n2.x(), n2.y(), n2.z()};
        double a[6][6], b[6];
        const long double sum = split_normal_equations(points, x, e1, e2, a, b);
        if (!std::isfinite(static_cast<double>(sum))) break;
        if (pass > 0 && sum > best_sum + kRise * best_sum) break;
        best = x;
        best_sum = sum;
        // Jacobi-scaled solve: the centre and radius unknowns are lengths, the
        // turns angles.
        double scale[6];
        mlMatrix m(mlMatrixZero, 6, 6);
        mlVector rhs(mlVectorZero, 6), t;
        for (int j = 0; j < 6; ++j) scale[j] = a[j][j] > 0.0 ? 1.0 / std::sqrt(a[j][j]) : 1.0;
        for (int j = 0; j < 6; ++j) {
            rhs[j] = b[j] * scale[j];
            for (int k = 0; k < 6; ++k) m(j, k) = a[j][k] * scale[j] * scale[k];
        }
        if (!mlSingularValueDecomposition(m).solve(rhs, t)) break;
        for (int j = 0; j < 6; ++j) t[j] *= scale[j];
        const double size = std::fmax(std::fabs(x.r), DBL_MIN);
        double moved =
            std::fmax(std::fabs(t[5]), size * std::fmax(std::fabs(t[3]), std::fabs(t[4])));
        for (int j = 0; j < 3; ++j) moved = std::fmax(moved, std::fabs(t[j]));
        if (!(moved <= kShrink * last_step)) break;
        last_step = moved;
        SpaceCircle next = x;
        for (int j = 0; j < 3; ++j) next.c[j] += t[0] * e1[j] + t[1] * e2[j] + t[2] * x.u[j];
        const giUnitVec3 turned(x.u[0] + t[3] * e1[0] + t[4] * e2[0],
                                x.u[1] + t[3] * e1[1] + t[4] * e2[1],
                                x.u[2] + t[3] * e1[2] + t[4] * e2[2]);
        if (!turned.is_set()) break;
        next.u[0] = turned.x();
        next.u[1] = turned.y();
        next.u[2] = turned.z();
        next.r += t[5];
        x = next;
        if (moved <= kFinal * size) return;
    }
    x = best;
}

}  // namespace

// ---------------------------------------------------------------------------
// Models

tsLeastSquareCircle2::tsLeastSquareCircle2(const giPoint2coDynArr& points)
    : tsLeastSquareDistance2(3, points) {}

void tsLeastSquareCircle2::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    cx_ = p.size() > 0 ? p[0] : 0.0;
    cy_ = p.size() > 1 ? p[1] : 0.0;
    r_ = p.size() > 2 ? p[2] : 0.0;
}

void tsLeastSquareCircle2::get_distance(double& d, int i) const {
    const giPoint2& q = point(i);
    const double vx = q.x() - cx_, vy = q.y() - cy_;
    d = std::sqrt(vx * vx + vy * vy) - r_;
}

void tsLeastSquareCircle2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    const giPoint2& q = point(i);
    const double vx = q.x() - cx_, vy = q.y() - cy_;
    const double l = std::sqrt(vx * vx + vy * vy);
    d = l - r_;
    // Moving C by dC changes |Q - C| by -(Q - C).dC / |Q - C|.
    const double k = l > kCentreGuard ? -1.0 / l : 0.0;
    double* out = gradient_slots(g, 3);
    out[0] = k * vx;
    out[1] = k * vy;
    out[2] = -1.0;
}

tsLeastSquareProbedCircle2::tsLeastSquareProbedCircle2(const giPoint2coDynArr& points,
                                                       const doublecoDynArr& probe_radii, int side)
    : tsLeastSquareCircle2(points), radii_(probe_radii) {
    // One radius per point: a short array is padded with zeros so that no
    // point reads beyond it.
    radii_.expand(points.size());
    if (side == 0)
        for (double& q : radii_) q = -q;
}

void tsLeastSquareProbedCircle2::get_distance(double& d, int i) const {
    tsLeastSquareCircle2::get_distance(d, i);
    d += radii_[i];
}

void tsLeastSquareProbedCircle2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    tsLeastSquareCircle2::get_distance_and_gradient(d, g, i);
    d += radii_[i];
}

tsLeastSquareCircle3::tsLeastSquareCircle3(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(7, points) {}

void tsLeastSquareCircle3::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    if (p.size() < 7) return;
    cx_ = p[0];
    cy_ = p[1];
    cz_ = p[2];
    const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
    if (length > 0.0) {
        inv_length_ = 1.0 / length;
        ux_ = p[3] * inv_length_;
        uy_ = p[4] * inv_length_;
        uz_ = p[5] * inv_length_;
    } else {  // the canonical axis of a zero vector
        inv_length_ = 1.0;
        ux_ = 1.0;
        uy_ = uz_ = 0.0;
    }
    r_ = p[6];
}

void tsLeastSquareCircle3::normalize_parameters(mlVector& p) const {
    if (p.size() >= 7) ts_unit_axis(p);
}

void tsLeastSquareCircle3::parameter_scales(mlVector& scales) const {
    scales.become(mlVectorZero, 7);
    scales.fill(1.0);
    scales[3] = scales[4] = scales[5] = r_;
}

void tsLeastSquareCircle3::get_distance(double& d, int i) const {
    const giPoint3& q = point(i);
    const double vx = q.x() - cx_, vy = q.y() - cy_, vz = q.z() - cz_;
    const double h = ux_ * vx + uy_ * vy + uz_ * vz;
    // |u x v| rather than |v - h u|: it keeps its relative accuracy near the axis.
    const double cx = uy_ * vz - uz_ * vy, cy = uz_ * vx - ux_ * vz, cz = ux_ * vy - uy_ * vx;
    const double e = std::sqrt(cx * cx + cy * cy + cz * cz) - r_;
    last_square_ = e * e + h * h;
    d = std::sqrt(last_square_);
}

void tsLeastSquareCircle3::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    const giPoint3& q = point(i);
    const double vx = q.x() - cx_, vy = q.y() - cy_, vz = q.z() - cz_;
    const double h = ux_ * vx + uy_ * vy + uz_ * vz;
    const double cx = uy_ * vz - uz_ * vy, cy = uz_ * vx - ux_ * vz, cz = ux_ * vy - uy_ * vx;
    const double rho = std::sqrt(cx * cx + cy * cy + cz * cz);
    const double e = rho - r_;
    last_square_ = e * e + h * h;
    d = std::sqrt(last_square_);
    double* out = gradient_slots(g, 7);
    if (!(d > 0.0)) {  // on the circle: no direction to move away in
        for (int j = 0; j < 7; ++j) out[j] = 0.0;
        return;
    }
    // w / rho, the unit radial direction; zero on the axis, where w vanishes.
    // One division gives both 1/d and 1/rho.
    double inv_d, wx = 0.0, wy = 0.0, wz = 0.0;
    if (rho > 0.0) {
        const double inv_both = 1.0 / (rho * d);
        inv_d = rho * inv_both;
        const double inv_rho = d * inv_both;
        wx = (vx - h * ux_) * inv_rho;
        wy = (vy - h * uy_) * inv_rho;
        wz = (vz - h * uz_) * inv_rho;
    } else {
        inv_d = 1.0 / d;
    }
    // d = |(e, h)|: each parameter moves d by (e de + h dh) / d. Moving C moves
    // rho by -w/rho and h by -u; turning a (by da, |a| fixed to first order)
    // moves h by w.da / |a| and rho by -h w.da / (rho |a|).
    const double kc_w = -e * inv_d, kc_u = -h * inv_d;
    out[0] = kc_w * wx + kc_u * ux_;
    out[1] = kc_w * wy + kc_u * uy_;
    out[2] = kc_w * wz + kc_u * uz_;
    const double ka = h * r_ * inv_length_ * inv_d;
    out[3] = ka * wx;
    out[4] = ka * wy;
    out[5] = ka * wz;
    out[6] = kc_w;
}

// ---------------------------------------------------------------------------
// Entry points

int tsLeastSquareEvaluator::evaluate_circle(const giPoint2coDynArr& points, giPoint2& centre,
                                            double& radius, double& error) {
    if (points.size() < 3 || !ts_all_finite(points)) return 0;
    tsLeastSquareCircle2 model(points);
    const giPoint2 c = model.centroid();
    const mlVector start = {c.x(), c.y(), mean_distance(points, c)};
    mlVector result;
    double mean_square = 0.0;
    if (!run_solver(model, start, result, mean_square)) return 0;
    centre = giPoint2(result[0], result[1]);
    radius = result[2];
    error = std::sqrt(mean_square);
    return 1;
}

int tsLeastSquareEvaluator::evaluate_circle2(const giPoint3& plane_point,
                                             const giUnitVec3& plane_normal,
                                             const giPoint3coDynArr& points, giPoint3& centre,
                                             double& radius, double& error) {
    giPoint3 c;
    double r = 0.0;
    if (!circle_in_plane(plane_point, plane_normal, points, c, r)) return 0;
    // Distances from the circle in space, measured with the given normal.
    const giUnitVec3& n = plane_normal;
    double sum = 0.0;
    for (const giPoint3& p : points) {
        const giVector3 v = p - c;
        const giVector3 across = cross(n, v);
        const double e = std::sqrt(dot(across, across)) - r, h = dot(n, v);
        sum += e * e + h * h;
    }
    centre = c;
    radius = r;
    error = std::sqrt(sum / points.size());
    return 1;
}

int tsLeastSquareEvaluator::evaluate_circle3(const giPoint3coDynArr& points, giPoint3& centre,
                                             giUnitVec3& normal, double& radius, double& error) {
    const int count = points.size();
    if (count < 3 || !ts_all_finite(points)) return 0;
    // Past the budget the fit runs on a subset: the first points when there
    // are only a few more, an even spread over all of them otherwise.
    giPoint3coDynArr subset;
    if (count > kCircle3Budget) {
        subset.reserve(kCircle3Budget);
        for (int i = 0; i < kCircle3Budget; ++i) {
            const double spread_index =
                std::trunc(static_cast<double>(count) * i / static_cast<double>(kCircle3Budget));
            const int k = count < kCircle3SpreadFrom
                              ? i
                              : static_cast<int>(static_cast<long long>(spread_index) % count);
            subset.append(points[k]);
        }
    }
    const giPoint3coDynArr& working = count > kCircle3Budget ? subset : points;

    giPoint3 plane_point;
    giUnitVec3 plane_normal;
    double plane_error = 0.0;
    if (!evaluate_plane(working, plane_point, plane_normal, plane_error)) return 0;
    // The circle in that plane, as evaluate_circle2 fits it (its error, a pass
    // over the points, is not needed here).
    giPoint3 c;
    double r = 0.0;
    if (!circle_in_plane(plane_point, plane_normal, working, c, r)) return 0;

    // The in-plane circle is brought to the least-squares circle in space
    // before the solver run, which then confirms it: on the unsigned distance
    // alone the solver converges too slowly to finish the job (see
    // polish_circle3).
    SpaceCircle x = {
        {c.x(), c.y(), c.z()}, {plane_normal.x(), plane_normal.y(), plane_normal.z()}, r};
    polish_circle3(working, x);

    tsLeastSquareCircle3 model(working);
    const mlVector start = {x.c[0], x.c[1], x.c[2], x.u[0], x.u[1], x.u[2], x.r};
    mlVector result;
    double mean_square = 0.0;
    if (!run_solver(model, start, result, mean_square)) return 0;
    const giUnitVec3 axis(result[3], result[4], result[5]);
    if (!axis.is_set()) return 0;
    centre = giPoint3(result[0], result[1], result[2]);
    normal = axis;
    radius = result[6];
    error = std::sqrt(mean_square);
    return 1;
}

int tsLeastSquareEvaluator::evaluate_probed_circle(const giPoint2coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int inside,
                                                   giPoint2& centre, double& radius,
                                                   double& error) {
    if (points.size() < 3 || probe_radii.size() != points.size()) return 0;
    if (!ts_all_finite(points) || !ts_all_finite(probe_radii)) return 0;
    tsLeastSquareProbedCircle2 model(points, probe_radii, inside);
    const giPoint2 c = model.centroid();
    const double m = mean_distance(points, c);
    double spread = 0.0;
    for (const double q : probe_radii) spread = std::fmax(spread, std::fabs(q));

    // Starts scattered by the probe radius around the centroid and the mean
    // distance: the ball centres lie a probe radius off the touched circle.
    mlRandom random(1);
    double best = DBL_MAX;
    mlVector kept;
    for (int attempt = 0; attempt < kProbedAttempts; ++attempt) {
        const double x = random.uniform(c.x() - spread, c.x() + spread);
        const double y = random.uniform(c.y() - spread, c.y() + spread);
        double r = random.uniform(m - spread, m + spread);
        if (r < 0.1 * m) r = 0.1 * m;
        mlVector result;
        double mean_square = 0.0;
        if (!run_solver(model, mlVector{x, y, r}, result, mean_square)) continue;
        const double attempt_error = std::sqrt(mean_square);
        if (attempt_error < best) {
            best = attempt_error;
            kept = result;
        }
    }
    if (kept.size() != 3) return 0;
    centre = giPoint2(kept[0], kept[1]);
    radius = kept[2];
    error = best;
    return 1;
}
