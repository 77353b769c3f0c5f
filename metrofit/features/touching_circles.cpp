#include "metrofit/features/touching_circles.h"

#include <cmath>
#include <utility>

#include "metrofit/platform/geometry/unit_vec.h"

namespace {

constexpr double kMinLength = 1e-7;
constexpr double kMaxSine = 0.9999999;

bool finite(const giPoint2& p, double r) {
    return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(r);
}
bool finite(const giPoint3& p, double r) {
    return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z()) && std::isfinite(r);
}

// The image of circle (p, r) under z -> 1 / (z - p0), for p0 outside or
// inside it but not on it: 0 when the circle passes through p0.
int invert(const giPoint2& p0, const giPoint2& p, double r, giPoint2& image, double& image_r) {
    const giVector2 d = p - p0;
    const double D = d.length_squared() - r * r;
    if (D == 0.0 || !std::isfinite(D)) return 0;
    image = giPoint2(d.x() / D, -d.y() / D);  // conj(d) / (|d|^2 - r^2)
    image_r = r / std::fabs(D);
    return 1;
}

// The common tangent of the image circles (c2, r2) and (c3, r3) that leaves
// both on one side, turned from w = c3 - c2 by asin(s): its direction n, its
// normal nu pointing away from the circles, and its touching point t on c2.
void tangent(const giVector2& w, double s, const giPoint2& c2, double r2, bool left, giUnitVec2& n,
             giVector2& nu, giPoint2& t) {
    const double c = std::sqrt(1.0 - s * s);
    n = giUnitVec2(w.x() * c - w.y() * s, w.y() * c + w.x() * s);
    nu = left ? giVector2(-n.y(), n.x()) : giVector2(n.y(), -n.x());
    t = c2 + r2 * nu;
}

}  // namespace

int CircleTouchingThreeCircles2D(giPoint2 centre1, double radius1, giPoint2 centre2, double radius2,
                                 giPoint2 centre3, double radius3, int enclosing, giPoint2& centre,
                                 double& radius) {
    if (!finite(centre1, radius1) || !finite(centre2, radius2) || !finite(centre3, radius3))
        return 0;
    if (distance(centre1, centre2) < kMinLength || distance(centre2, centre3) < kMinLength ||
        distance(centre3, centre1) < kMinLength)
        return 0;
    const double sigma = enclosing ? 1.0 : -1.0;

    // The smallest circle first; it shrinks to a point, the others by r0.
    if (radius1 > radius2) {
        std::swap(centre1, centre2);
        std::swap(radius1, radius2);
    }
    if (radius1 > radius3) {
        std::swap(centre1, centre3);
        std::swap(radius1, radius3);
    }
    const giPoint2 p0 = centre1;
    const double r0 = radius1;

    giPoint2 c2, c3;
    double r2 = 0.0, r3 = 0.0;
    if (!invert(p0, centre2, radius2 - r0, c2, r2) || !invert(p0, centre3, radius3 - r0, c3, r3))
        return 0;

    const giVector2 w = c3 - c2;
    const double len = w.length();
    if (!(len >= kMinLength)) return 0;
    const double s = (r3 - r2) / len;
    if (!(std::fabs(s) <= kMaxSine)) return 0;

    // The origin (the image of infinity) must lie beyond the line, seen from
    // the image circles, for an enclosing circle, and on their side for one
    // touching from outside.
    giUnitVec2 n;
    giVector2 nu;
    giPoint2 t;
    tangent(w, s, c2, r2, true, n, nu, t);
    if (sigma * dot(t.to_vector(), nu) > 0.0) {
        tangent(w, -s, c2, r2, false, n, nu, t);
        if (sigma * dot(t.to_vector(), nu) > 0.0) return 0;
    }

    // The line back through the inversion: a circle through p0.
    const double e = t.y() * n.x() - t.x() * n.y();
    if (!(std::fabs(e) >= kMinLength)) return 0;
    const double a = n.x() / e, b = n.y() / e;
    const giPoint2 c(p0.x() - 0.5 * b, p0.y() - 0.5 * a);
    const double r = 0.5 * std::sqrt(a * a + b * b) + sigma * r0;
    if (!finite(c, r)) return 0;
    centre = c;
    radius = r;
    return 1;
}

int CircleTouchingThreeCircles3D(giPoint3 centre1, double radius1, giPoint3 centre2, double radius2,
                                 giPoint3 centre3, double radius3, int enclosing, giVector3& normal,
                                 giPoint3& centre, double& radius) {
    if (!finite(centre1, radius1) || !finite(centre2, radius2) || !finite(centre3, radius3))
        return 0;
    const giVector3 m = cross(centre2 - centre1, centre3 - centre2);
    const double len = m.length();
    if (!(len >= kMinLength) || !std::isfinite(len)) return 0;
    const giVector3 z = m / len;

    // An in-plane axis from the coordinate axis least aligned with the normal.
    const giVector3 axis =
        std::fabs(z.y()) > std::fabs(z.x()) ? giVector3(1.0, 0.0, 0.0) : giVector3(0.0, 1.0, 0.0);
    const giUnitVec3 e1(axis - dot(axis, z) * z);
    const giVector3 e2 = cross(e1, z);
    const auto to_plane = [&](const giPoint3& p) {
        return giPoint2(dot(e1, p.to_vector()), dot(e2, p.to_vector()));
    };

    giPoint2 c2d;
    double r = 0.0;
    if (!CircleTouchingThreeCircles2D(to_plane(centre1), radius1, to_plane(centre2), radius2,
                                      to_plane(centre3), radius3, enclosing, c2d, r))
        return 0;
    const double h = dot(z, centre1.to_vector());
    const giPoint3 c(giOrigin);
    const giPoint3 result = c + c2d.x() * e1 + c2d.y() * e2 + h * z;
    if (!finite(result, r)) return 0;
    normal = z;
    centre = result;
    radius = r;
    return 1;
}
