#include "metrofit/features/line.h"

#include <cfloat>
#include <cmath>

#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/util/utils.h"

namespace {

// Index of the singular value of largest magnitude; the first wins a tie.
int largest(const mlVector& sv) {
    int k = 0;
    for (int j = 1; j < sv.size(); ++j)
        if (std::abs(sv[j]) > std::abs(sv[k])) k = j;
    return k;
}

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

int tsLeastSquareEvaluator::evaluate_line(const giPoint2coDynArr& points, giPoint2& point,
                                          giUnitVec2& direction, double& error) {
    const int n = points.size();
    if (n < 2 || !ts_all_finite(points)) return 0;
    double sx = 0.0, sy = 0.0;
    for (const giPoint2& p : points) {
        sx += p.x();
        sy += p.y();
    }
    const giPoint2 c(sx / n, sy / n);
    // The centred n x 2 matrix itself, not its scatter: a short segment far
    // from the origin keeps its direction's digits.
    mlMatrix centred(mlMatrixZero, n, 2);
    for (int i = 0; i < n; ++i) {
        double* row = centred.row_data(i);
        row[0] = points[i].x() - c.x();
        row[1] = points[i].y() - c.y();
    }
    const mlSingularValueDecomposition svd(centred, mlJOB_V);
    if (!svd.status()) return 0;
    const int k = largest(svd.diagonal());
    const giUnitVec2 u(svd.V()(0, k), svd.V()(1, k));
    if (!u.is_set()) return 0;
    double sum = 0.0;
    for (const giPoint2& p : points) {
        const double d = cross(u, p - c);  // signed distance from the line
        sum += d * d;
    }
    point = c;
    direction = u;
    error = std::sqrt(sum / n);
    return 1;
}

int tsLeastSquareEvaluator::evaluate_line2(const giPoint3& plane_point,
                                           const giUnitVec3& plane_normal,
                                           const giPoint3coDynArr& points, giPoint3& point,
                                           giUnitVec3& direction, double& error) {
    const int n = points.size();
    if (n < 2 || !ts_all_finite(points)) return 0;
    giPoint2coDynArr flat;
    giXform3 to_world;
    if (!tsUtils::project_into_plane(points, plane_point, plane_normal, flat, to_world)) return 0;
    giPoint2 p2;
    giUnitVec2 u2;
    double flat_error = 0.0;
    const int status = evaluate_line(flat, p2, u2, flat_error);
    if (!status) return 0;
    const giPoint3 p = to_world * giPoint3(p2.x(), p2.y(), 0.0);
    const giUnitVec3 u(to_world * giVector3(u2.x(), u2.y(), 0.0));
    if (!u.is_set()) return 0;
    // Distances in space: heights above the plane count.
    double sum = 0.0;
    for (const giPoint3& q : points) sum += cross(u, q - p).length_squared();
    point = p;
    direction = u;
    error = std::sqrt(sum / n);
    return status;
}

int tsLeastSquareEvaluator::evaluate_line3(const giPoint3coDynArr& points, giPoint3& point,
                                           giUnitVec3& direction, double& error) {
    const int n = points.size();
    if (n < 2) return 0;
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (!principal_axes(points, centroid, sv, V)) return 0;
    const int k = largest(sv);
    const giUnitVec3 u(V(0, k), V(1, k), V(2, k));
    if (!u.is_set()) return 0;
    // The squared distance from the line, |u x (P - c)|^2, needs no root; two
    // partial sums (even and odd points) keep the additions independent.
    const double ux = u.x(), uy = u.y(), uz = u.z();
    const auto squared_distance = [&](const giPoint3& p) {
        const double wx = p.x() - centroid.x(), wy = p.y() - centroid.y(),
                     wz = p.z() - centroid.z();
        const double cx = uy * wz - uz * wy, cy = uz * wx - ux * wz, cz = ux * wy - uy * wx;
        return cx * cx + cy * cy + cz * cz;
    };
    double even = 0.0, odd = 0.0;
    int i = 0;
    for (; i + 1 < n; i += 2) {
        even += squared_distance(points[i]);
        odd += squared_distance(points[i + 1]);
    }
    if (i < n) even += squared_distance(points[i]);
    const double sum = even + odd;
    point = centroid;
    direction = u;
    error = std::sqrt(sum / n);
    return 1;
}

tsLeastSquareProbedLine2::tsLeastSquareProbedLine2(const giPoint2coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int side)
    : tsLeastSquareDistance2(3, points),
      offsets_(signed_offsets(probe_radii, points.size(), side)) {}

void tsLeastSquareProbedLine2::normalize_parameters(mlVector& p) const {
    const giUnitVec2 n(p[1], p[2]);
    if (n.is_set()) {
        p[1] = n.x();
        p[2] = n.y();
    } else {
        p[1] = 1.0;
        p[2] = 0.0;
    }
}

void tsLeastSquareProbedLine2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
    const mlVector& p = parameters();
    const giPoint2& q = point(i);
    const double s = p[1] * q.x() + p[2] * q.y();
    d = s - p[0] - offsets_[i];
    // Turning n within the unit circle moves d by the part of P across n.
    g[0] = -1.0;
    g[1] = q.x() - s * p[1];
    g[2] = q.y() - s * p[2];
}

void tsLeastSquareProbedLine2::get_distance(double& d, int i) const {
    const mlVector& p = parameters();
    const giPoint2& q = point(i);
    d = p[1] * q.x() + p[2] * q.y() - p[0] - offsets_[i];
}

int tsLeastSquareEvaluator::evaluate_probed_line2(const giPoint2coDynArr& points,
                                                  const doublecoDynArr& probe_radii,
                                                  const giUnitVec2coDynArr& directions,
                                                  giPoint2& point, giUnitVec2& normal,
                                                  double& error) {
    const int n = points.size();
    if (n < 2 || probe_radii.size() != n || (directions.size() != 0 && directions.size() != n) ||
        !ts_all_finite(probe_radii) || !ts_all_finite(directions))
        return 0;
    giPoint2 p0;
    giUnitVec2 d0;
    double direct_error = 0.0;
    if (!evaluate_line(points, p0, d0, direct_error)) return 0;
    const giUnitVec2 n0 = d0.any_normal();  // d0 turned by +90 degrees

    double sx = 0.0, sy = 0.0;
    for (const giUnitVec2& u : directions) {
        if (!u.is_set()) continue;
        sx += u.x();
        sy += u.y();
    }
    const giVector2 sum(sx, sy);
    const bool have_sense = sx != 0.0 || sy != 0.0;

    const mlVector start = {dot(n0, p0.to_vector()), n0.x(), n0.y()};
    double best = DBL_MAX;
    mlVector kept, result;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int side = have_sense ? (dot(n0, sum) > 0.0 ? 1 : 0) : (attempt == 0 ? 1 : 0);
        tsLeastSquareProbedLine2 model(points, probe_radii, side);
        mlLevenbergMarquardt solver(model);
        const double value = solver.fit(start, result);
        if (value < best) {
            best = value;
            kept = result;
        }
        if (have_sense) break;
    }
    if (kept.size() != 3) return 0;
    const giUnitVec2 fitted(kept[1], kept[2]);
    if (!fitted.is_set()) return 0;
    const double h = kept[0];
    // The foot of the origin on the line, minus the part of p0 along it.
    const giVector2 along = p0.to_vector() - dot(fitted, p0.to_vector()) * fitted;
    point = giPoint2(h * fitted - along);
    normal = dot(fitted, sum) < 0.0 ? -fitted : fitted;
    error = std::sqrt(best);
    return 1;
}
