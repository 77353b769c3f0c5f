#include "metrofit/features/axis_rev.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "metrofit/features/axial_common.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/surface/unit_vector_differentiator.h"

namespace {

constexpr int kMinPoints = 6;
// |n x a|^2 at or below (1e-7)^2: the normal runs along the axis and its
// meridian plane is undefined.
constexpr double kAlongAxisSquared = 9.999999999999998e-15;
// Mean squared distance (not RMS) at which the search over the guess
// directions stops.
constexpr double kGoodEnough = 0.01;

}  // namespace

tsLeastSquareAxisRev::tsLeastSquareAxisRev(const giPoint3coDynArr& points,
                                           const giUnitVec3coDynArr& normals)
    : tsLeastSquareDistance3(6, points), normals_(normals) {}

void tsLeastSquareAxisRev::normalize_parameters(mlVector& p) const {
    if (p.size() < 6) return;
    // The unit vector's own normalisation scales huge and tiny axes first, so
    // only a true zero (or a non-finite axis) falls back to (1, 0, 0).
    const giUnitVec3 a(p[3], p[4], p[5]);
    p[3] = a.is_set() ? a.x() : 1.0;
    p[4] = a.is_set() ? a.y() : 0.0;
    p[5] = a.is_set() ? a.z() : 0.0;
    ts_axis_point_to_origin(p);
}

bool tsLeastSquareAxisRev::across_axis(int i, giVector3& w) const {
    const mlVector& p = parameters();
    if (i >= normals_.size() || p.size() < 6) return false;
    const giUnitVec3& n = normals_[i];
    w.become(n.y() * p[5] - n.z() * p[4], n.z() * p[3] - n.x() * p[5], n.x() * p[4] - n.y() * p[3]);
    const double sq = w.length_squared();  // cached: the differentiator reuses it
    return sq > kAlongAxisSquared && sq <= DBL_MAX;
}

void tsLeastSquareAxisRev::get_distance(double& d, int i) const {
    giVector3 w;
    d = 0.0;
    if (!across_axis(i, w)) return;
    const double* p = parameters().data();
    const srkUnitVectorDifferentiator3 du(w);
    const giVector3& u = du.unit();
    const giPoint3& q = point(i);
    d = (q.x() - p[0]) * u.x() + (q.y() - p[1]) * u.y() + (q.z() - p[2]) * u.z();
}

void tsLeastSquareAxisRev::get_distance_and_gradient(double& d, mlVector& gradient, int i) const {
    if (gradient.size() < 6) gradient[5] = 0.0;
    double* g = gradient.data();
    giVector3 w;
    d = 0.0;
    if (!across_axis(i, w)) {
        std::fill(g, g + 6, 0.0);
        return;
    }
    const double* p = parameters().data();
    const giPoint3& q = point(i);
    const giVector3 r(q.x() - p[0], q.y() - p[1], q.z() - p[2]);
    const srkUnitVectorDifferentiator3 du(w);
    const giVector3& u = du.unit();
    d = r.x() * u.x() + r.y() * u.y() + r.z() * u.z();
    g[0] = -u.x();
    g[1] = -u.y();
    g[2] = -u.z();
    // Changing a_k by 1 changes w = n x a by n x e_k, so entry 3 + k is
    // r . D(n x e_k), D the derivative of w / |w|. D is symmetric (a
    // projection across u scaled by 1 / |w|), hence r . D(n x e_k) =
    // D(r) . (n x e_k) = e_k . (D(r) x n): one derivative serves all three.
    giVector3 dr;
    du.first_derivative(r, dr);
    const giUnitVec3& n = normals_[i];
    double ga[3] = {dr.y() * n.z() - dr.z() * n.y(), dr.z() * n.x() - dr.x() * n.z(),
                    dr.x() * n.y() - dr.y() * n.x()};
    // Stretching a changes nothing, so the part of ga along a is zero; in
    // doubles it is rounding noise. Remove it: along a coordinate axis (the
    // first guess directions) that noise would fill one gradient column
    // alone, and the solver's column scaling would blow it up into a
    // direction it steps along instead of a gauge direction it leaves out.
    const double a2 = p[3] * p[3] + p[4] * p[4] + p[5] * p[5];
    const double along = (ga[0] * p[3] + ga[1] * p[4] + ga[2] * p[5]) / a2;
    for (int k = 0; k < 3; ++k) g[3 + k] = ga[k] - along * p[3 + k];
}

void tsLeastSquareAxisRev::parameter_scales(mlVector& s) const {
    const mlVector& p = parameters();
    double largest = 0.0;
    if (p.size() >= 6) {
        const giPoint3 c(p[0], p[1], p[2]);
        for (const giPoint3& q : points()) {
            const giVector3 r = q - c;
            largest = std::max(largest, dot(r, r));
        }
    }
    const double L = std::sqrt(largest);
    s = mlVector({1.0, 1.0, 1.0, L, L, L});
}

int tsLeastSquareAxisRev::evaluate_with_guess(giPoint3& point, giUnitVec3& axis, double& error) {
    if (!axis.is_set() || !axis.is_finite()) return 0;
    const giPoint3 start = point.is_set() ? point : centroid();
    if (!start.is_finite()) return 0;
    mlVector result;
    mlLevenbergMarquardt solver(*this);
    const double value =
        solver.fit({start.x(), start.y(), start.z(), axis.x(), axis.y(), axis.z()}, result);
    if (!(value < DBL_MAX)) return 0;
    const giUnitVec3 a(result[3], result[4], result[5]);
    if (!a.is_set()) return 0;
    point = giPoint3(result[0], result[1], result[2]);
    axis = a;
    error = value;
    return 1;
}

int tsLeastSquareAxisRev::evaluate(giPoint3& point, giUnitVec3& axis, double& error) {
    const giPoint3 start = point.is_set() ? point : centroid();
    double best = DBL_MAX;
    giPoint3 best_point;
    giUnitVec3 best_axis;
    for (int k = 0; k < num_guess_directions(); ++k) {
        giPoint3 p = start;
        giUnitVec3 a = guess_direction(k);
        double e = DBL_MAX;
        if (!evaluate_with_guess(p, a, e) || !(e < best)) continue;
        best = e;
        best_point = p;
        best_axis = a;
        if (best <= kGoodEnough) break;
    }
    if (best == DBL_MAX) return 0;
    point = best_point;
    axis = best_axis;
    error = best;
    return 1;
}

int tsLeastSquareEvaluator::evaluate_axis_rev(const giPoint3coDynArr& points,
                                              const giUnitVec3coDynArr& normals, giPoint3& point,
                                              giUnitVec3& axis, double& error) {
    if (points.size() < kMinPoints || normals.size() != points.size()) return 0;
    if (!ts_all_finite(points) || !ts_normals_fit_points(points, normals)) return 0;
    if ((point.is_set() && !point.is_finite()) || (axis.is_set() && !axis.is_finite())) return 0;
    tsLeastSquareAxisRev model(points, normals);
    giPoint3 p = point;
    giUnitVec3 a = axis;
    double value = 0.0;
    const int done =
        axis.is_set() ? model.evaluate_with_guess(p, a, value) : model.evaluate(p, a, value);
    if (!done) return 0;
    point = p;
    axis = a;
    error = std::sqrt(value);
    return 1;
}
