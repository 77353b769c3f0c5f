#include "metrofit/features/plane.h"

#include <cfloat>
#include <cmath>

#include "metrofit/frame/input_checks.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/maths/least_squares.h"

int tsLeastSquareEvaluator::evaluate_plane(const giPoint3coDynArr& points, giPoint3& point,
                                           giUnitVec3& normal, double& error) {
    if (points.size() < 3) return 0;
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (!principal_axes(points, centroid, sv, V)) return 0;
    // The normal is the axis of least spread; the first wins a tie.
    int k = 0;
    for (int j = 1; j < sv.size(); ++j)
        if (std::abs(sv[j]) < std::abs(sv[k])) k = j;
    const giUnitVec3 n(V(0, k), V(1, k), V(2, k));
    if (!n.is_set()) return 0;
    // Two partial sums (even and odd points) keep the additions independent.
    const int count = points.size();
    double even = 0.0, odd = 0.0;
    int i = 0;
    for (; i + 1 < count; i += 2) {
        const double d0 = dot(n, points[i] - centroid), d1 = dot(n, points[i + 1] - centroid);
        even += d0 * d0;
        odd += d1 * d1;
    }
    if (i < count) {
        const double d0 = dot(n, points[i] - centroid);
        even += d0 * d0;
    }
    point = centroid;
    normal = n;
    error = std::sqrt((even + odd) / count);
    return 1;
}

namespace {

// Copies the probe radii, one per point (missing ones 0), negated for side 0.
doublecoDynArr signed_offsets(const doublecoDynArr& probe_radii, int n, int side) {
    doublecoDynArr offsets;
    offsets.reserve(n);
    for (int i = 0; i < n; ++i) {
        const double rho = i < probe_radii.size() ? probe_radii[i] : 0.0;
        offsets.append(side == 0 ? -rho : rho);
    }
    return offsets;
}

}  // namespace

tsLeastSquareProbedPlane::tsLeastSquareProbedPlane(const giPoint3coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int side)
    : tsLeastSquareDistance3(4, points),
      offsets_(signed_offsets(probe_radii, points.size(), side)) {}

void tsLeastSquareProbedPlane::normalize_parameters(mlVector& p) const {
    const giUnitVec3 n(p[1], p[2], p[3]);
    if (n.is_set()) {
        p[1] = n.x();
        p[2] = n.y();
        p[3] = n.z();
    } else {
        p[1] = 1.0;
        p[2] = 0.0;
        p[3] = 0.0;
    }
}

void tsLeastSquareProbedPlane::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    const mlVector& p = parameters();
    const giPoint3& q = point(i);
    const double s = p[1] * q.x() + p[2] * q.y() + p[3] * q.z();
    d = s - p[0] - offsets_[i];
    // Turning n within the unit sphere moves d by the part of P across n.
    g[0] = -1.0;
    g[1] = q.x() - s * p[1];
    g[2] = q.y() - s * p[2];
    g[3] = q.z() - s * p[3];
}

void tsLeastSquareProbedPlane::get_distance(double& d, int i) const {
    const mlVector& p = parameters();
    const giPoint3& q = point(i);
    d = p[1] * q.x() + p[2] * q.y() + p[3] * q.z() - p[0] - offsets_[i];
}

int tsLeastSquareEvaluator::evaluate_probed_plane(const giPoint3coDynArr& points,
                                                  const doublecoDynArr& probe_radii,
                                                  const giUnitVec3coDynArr& directions,
                                                  giPoint3& point, giUnitVec3& normal,
                                                  double& error) {
    const int n = points.size();
    if (n < 3 || probe_radii.size() != n || (directions.size() != 0 && directions.size() != n) ||
        !ts_all_finite(probe_radii) || !ts_all_finite(directions))
        return 0;
    giPoint3 p0;
    giUnitVec3 n0;
    double direct_error = 0.0;
    if (!evaluate_plane(points, p0, n0, direct_error)) return 0;

    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (const giUnitVec3& u : directions) {
        if (!u.is_set()) continue;
        sx += u.x();
        sy += u.y();
        sz += u.z();
    }
    const giVector3 sum(sx, sy, sz);
    const bool have_sense = sx != 0.0 || sy != 0.0 || sz != 0.0;

    const mlVector start = {dot(n0, p0.to_vector()), n0.x(), n0.y(), n0.z()};
    double best = DBL_MAX;
    mlVector kept, result;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int side = have_sense ? (dot(n0, sum) > 0.0 ? 1 : 0) : (attempt == 0 ? 1 : 0);
        tsLeastSquareProbedPlane model(points, probe_radii, side);
        mlLevenbergMarquardt solver(model);
        const double value = solver.fit(start, result);
        if (value < best) {
            best = value;
            kept = result;
        }
        if (have_sense) break;
    }
    if (kept.size() != 4) return 0;
    const giUnitVec3 fitted(kept[1], kept[2], kept[3]);
    if (!fitted.is_set()) return 0;
    const double h = kept[0];
    // The foot of the origin on the plane, minus the in-plane part of p0.
    const giVector3 in_plane = p0.to_vector() - dot(fitted, p0.to_vector()) * fitted;
    point = giPoint3(h * fitted - in_plane);
    normal = dot(fitted, sum) < 0.0 ? -fitted : fitted;
    error = std::sqrt(best);
    return 1;
}
