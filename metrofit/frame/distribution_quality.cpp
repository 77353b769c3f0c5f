#include "metrofit/frame/distribution_quality.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "metrofit/features/circle.h"
#include "metrofit/features/probed_cone.h"
#include "metrofit/features/probed_cylinder.h"
#include "metrofit/features/sphere.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"
#include "metrofit/util/utils.h"

namespace {

// Smallest width of a line's point band and thickness of a plane's: keeps
// the ratios finite for points exactly on the feature.
constexpr double kMinWidth = 0.0001;

bool finite2(const giVector2& v) { return std::isfinite(v.x()) && std::isfinite(v.y()); }
bool finite2(const giPoint2& p) { return std::isfinite(p.x()) && std::isfinite(p.y()); }

// Raw model measures of well-spread sets (the whole sphere, the whole
// circle): dividing by them puts such sets near 1.
constexpr double kSphereDivisor = 0.578;
constexpr double kCircleDivisor = 0.708;
constexpr double kCylinderDivisor = 0.26;
constexpr double kProbedCylinderDivisor = 0.177;
constexpr double kConeDivisor = 0.15;

bool finite_axis(const giPoint3& point, const giVector3& axis, double radius) {
    return ts_finite(point) && axis.is_set() && ts_finite(axis) && axis.length() > 0.0 &&
           std::isfinite(radius);
}

// The points and the axis point moved by minus the points' centroid. The
// axial models' canonical axis point is the one nearest the origin, and the
// measure weighs a turn of the axis about that point: centring makes it the
// foot of the centroid, so the measure does not depend on where the origin
// lies. Returns the moved axis point.
giPoint3 centre_points(const giPoint3coDynArr& points, const giPoint3& axis_point,
                       giPoint3coDynArr& centred) {
    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (const giPoint3& p : points) {
        sx += p.x();
        sy += p.y();
        sz += p.z();
    }
    const giVector3 shift(sx / points.size(), sy / points.size(), sz / points.size());
    centred.reserve(points.size());
    for (const giPoint3& p : points) centred.append(p - shift);
    return axis_point - shift;
}

mlVector cylinder_parameters(const giPoint3& c, const giVector3& axis, double radius) {
    return {c.x(), c.y(), c.z(), axis.x(), axis.y(), axis.z(), radius};
}

// The cone with its apex as reference point, at surface distance 0.
mlVector cone_parameters(const giPoint3& apex, const giVector3& axis, double half_angle) {
    return {apex.x(), apex.y(), apex.z(), axis.x(), axis.y(), axis.z(), 0.0, half_angle};
}

// Extent of the positions along a line (L) and largest distance from it
// (W, at least kMinWidth); no points give L = 0.
double extent_ratio(double L, double W, double factor) { return L / (L + factor * W); }

}  // namespace

double tsLeastSquareDistributionQuality::distribution_quality_sphere(const giPoint3coDynArr& points,
                                                                     const giPoint3& centre,
                                                                     double radius) {
    if (points.size() < 3 || !ts_all_finite(points) || !ts_finite(centre) || !std::isfinite(radius))
        return 0.0;
    tsLeastSquareSphere model(points);
    return model.point_distribution_quality({centre.x(), centre.y(), centre.z(), radius}) /
           kSphereDivisor;
}

double tsLeastSquareDistributionQuality::distribution_quality_circle(const giPoint2coDynArr& points,
                                                                     const giPoint2& centre,
                                                                     double radius) {
    if (points.size() < 3 || !ts_all_finite(points) || !finite2(centre) || !std::isfinite(radius))
        return 0.0;
    tsLeastSquareCircle2 model(points);
    return model.point_distribution_quality({centre.x(), centre.y(), radius}) / kCircleDivisor;
}

double tsLeastSquareDistributionQuality::distribution_quality_probed_circle(
    const giPoint2coDynArr& points, const doublecoDynArr& probe_radii, int inside,
    const giPoint2& centre, double radius) {
    if (points.size() < 3 || probe_radii.size() != points.size() || !ts_all_finite(points) ||
        !ts_all_finite(probe_radii) || !finite2(centre) || !std::isfinite(radius))
        return 0.0;
    tsLeastSquareProbedCircle2 model(points, probe_radii, inside);
    // Raw, undivided: the probe offsets shift the distances but not their
    // gradients, so this is on the scale of the plain circle's raw measure.
    return model.point_distribution_quality({centre.x(), centre.y(), radius});
}

double tsLeastSquareDistributionQuality::distribution_quality_circle2(
    const giPoint3& plane_point, const giVector3& plane_normal, const giPoint3coDynArr& points,
    const giPoint3& centre, double radius) {
    const giUnitVec3 n(plane_normal);
    if (!n.is_set() || !ts_finite(plane_point) || !ts_finite(centre) || !ts_all_finite(points))
        return 0.0;
    giPoint2coDynArr flat;
    giXform3 frame;
    tsUtils::ProjectPointsToPlane(points, plane_point, n, flat, &frame);
    const giPoint3 c = frame * centre;
    return distribution_quality_circle(flat, giPoint2(c.x(), c.y()), radius);
}

double tsLeastSquareDistributionQuality::distribution_quality_circle3(
    const giPoint3coDynArr& points, const giPoint3& centre, const giVector3& normal,
    double radius) {
    if (points.size() < 3) return 0.0;
    return distribution_quality_circle2(centre, normal, points, centre, radius);
}

double tsLeastSquareDistributionQuality::distribution_quality_cylinder(
    const giPoint3coDynArr& points, const giPoint3& axis_point, const giVector3& axis,
    double radius) {
    if (points.size() < 3 || !ts_all_finite(points) || !finite_axis(axis_point, axis, radius))
        return 0.0;
    giPoint3coDynArr centred;
    const mlVector p =
        cylinder_parameters(centre_points(points, axis_point, centred), axis, radius);
    tsLeastSquareCylinder model(centred);
    return model.point_distribution_quality(p) / kCylinderDivisor;
}

double tsLeastSquareDistributionQuality::distribution_quality_probed_cylinder(
    const giPoint3coDynArr& points, const doublecoDynArr& probe_radii, int inside,
    const giPoint3& axis_point, const giVector3& axis, double radius) {
    if (points.size() < 3 || probe_radii.size() != points.size() || !ts_all_finite(points) ||
        !ts_all_finite(probe_radii) || !finite_axis(axis_point, axis, radius))
        return 0.0;
    giPoint3coDynArr centred;
    const mlVector p =
        cylinder_parameters(centre_points(points, axis_point, centred), axis, radius);
    tsLeastSquareProbedCylinder model(centred, probe_radii, inside);
    return model.point_distribution_quality(p) / kProbedCylinderDivisor;
}

double tsLeastSquareDistributionQuality::distribution_quality_cone(const giPoint3coDynArr& points,
                                                                   const giPoint3& apex,
                                                                   const giVector3& axis,
                                                                   double half_angle) {
    if (points.size() < 3 || !ts_all_finite(points) || !finite_axis(apex, axis, half_angle))
        return 0.0;
    giPoint3coDynArr centred;
    const mlVector p = cone_parameters(centre_points(points, apex, centred), axis, half_angle);
    tsLeastSquareCone model(centred);
    return model.point_distribution_quality(p) / kConeDivisor;
}

double tsLeastSquareDistributionQuality::distribution_quality_probed_cone(
    const giPoint3coDynArr& points, const doublecoDynArr& probe_radii, int inside,
    const giPoint3coDynArr&, const giPoint3& apex, const giVector3& axis, double half_angle) {
    if (points.size() < 3 || probe_radii.size() != points.size() || !ts_all_finite(points) ||
        !ts_all_finite(probe_radii) || !finite_axis(apex, axis, half_angle))
        return 0.0;
    giPoint3coDynArr centred;
    const mlVector p = cone_parameters(centre_points(points, apex, centred), axis, half_angle);
    tsLeastSquareProbedCone model(centred, probe_radii, inside);
    return model.point_distribution_quality(p);
}

double tsLeastSquareDistributionQuality::distribution_quality_line(const giPoint2coDynArr& points,
                                                                   const giPoint2& point,
                                                                   const giUnitVec2& direction) {
    if (!ts_all_finite(points) || !finite2(point) || !finite2(direction)) return 0.0;
    double t_min = 0.0, t_max = 0.0, W = kMinWidth;
    for (int i = 0; i < points.size(); ++i) {
        const giVector2 r = points[i] - point;
        const double t = dot(direction, r), w = std::fabs(cross(direction, r));
        if (i == 0 || t < t_min) t_min = t;
        if (i == 0 || t > t_max) t_max = t;
        W = std::max(W, w);
    }
    return extent_ratio(t_max - t_min, W, 9.0);
}

double tsLeastSquareDistributionQuality::distribution_quality_line3(const giPoint3coDynArr& points,
                                                                    const giPoint3& point,
                                                                    const giUnitVec3& direction) {
    if (!ts_all_finite(points) || !ts_finite(point) || !ts_finite(direction)) return 0.0;
    double t_min = 0.0, t_max = 0.0, W = kMinWidth;
    for (int i = 0; i < points.size(); ++i) {
        const giVector3 r = points[i] - point;
        const double t = dot(direction, r), w = cross(direction, r).length();
        if (i == 0 || t < t_min) t_min = t;
        if (i == 0 || t > t_max) t_max = t;
        W = std::max(W, w);
    }
    return extent_ratio(t_max - t_min, W, 999.0);
}

double tsLeastSquareDistributionQuality::distribution_quality_line2(const giPoint3& plane_point,
                                                                    const giVector3& plane_normal,
                                                                    const giPoint3coDynArr& points,
                                                                    const giPoint3& point,
                                                                    const giUnitVec3& direction) {
    const giUnitVec3 n(plane_normal);
    if (!n.is_set() || !ts_finite(plane_point) || !ts_all_finite(points)) return 0.0;
    // Each point moved back along the normal by its height above the plane.
    giPoint3coDynArr flat;
    flat.reserve(points.size());
    for (const giPoint3& p : points) flat.append(p - dot(n, p - plane_point) * n);
    return distribution_quality_line3(flat, point, direction);
}

double tsLeastSquareDistributionQuality::distribution_quality_plane(const giPoint3coDynArr& points,
                                                                    const giPoint3&,
                                                                    const giUnitVec3&) {
    giPoint3 centroid;
    mlVector sv;
    mlMatrix V;
    if (!tsLeastSquareEvaluator::principal_axes(points, centroid, sv, V)) return 0.0;

    // Axes by singular value, largest first, in three compare-and-swap steps
    // (the decomposition sorts them already; this keeps the order explicit).
    int idx[3] = {0, 1, 2};
    if (std::fabs(sv[idx[1]]) > std::fabs(sv[idx[0]])) std::swap(idx[0], idx[1]);
    if (std::fabs(sv[idx[2]]) > std::fabs(sv[idx[0]])) std::swap(idx[0], idx[2]);
    if (std::fabs(sv[idx[2]]) > std::fabs(sv[idx[1]])) std::swap(idx[1], idx[2]);

    double lo[3] = {0.0, 0.0, 0.0}, hi[3] = {0.0, 0.0, 0.0};
    for (int i = 0; i < points.size(); ++i) {
        const giVector3 r = points[i] - centroid;
        for (int k = 0; k < 3; ++k) {
            const int col = idx[k];
            const double s = r.x() * V(0, col) + r.y() * V(1, col) + r.z() * V(2, col);
            if (i == 0 || s < lo[k]) lo[k] = s;
            if (i == 0 || s > hi[k]) hi[k] = s;
        }
    }
    const double a = hi[0] - lo[0], b = hi[1] - lo[1], c = std::max(hi[2] - lo[2], kMinWidth);
    const double x = std::min(a, b) / (std::max(a, b) + kMinWidth);
    return std::sqrt(x) * a * b / (999.0 * c * c + a * b);
}
