#include "metrofit/platform/geometry/circle.h"

#include <cmath>
#include <initializer_list>

#include "metrofit/platform/geometry/vector.h"

namespace {

// Sine of the angle at the first point below which three points count as
// collinear.
constexpr double kCollinear = 1e-12;

}  // namespace

int giCircle3::become_through_points(const giPoint3& a, const giPoint3& b, const giPoint3& c) {
    for (const giPoint3* p : {&a, &b, &c})
        if (!p->is_set() || !p->is_finite()) return 0;
    const giVector3 u = b - a, v = c - a;
    const giVector3 w = cross(u, v);
    const double uu = dot(u, u), vv = dot(v, v), ww = dot(w, w);
    if (!(std::sqrt(ww) > kCollinear * std::sqrt(uu) * std::sqrt(vv))) return 0;
    const giVector3 offset = (uu * cross(v, w) + vv * cross(w, u)) / (2.0 * ww);
    const giPoint3 centre = a + offset;
    const giUnitVec3 normal(w);
    if (!centre.is_finite() || !normal.is_set()) return 0;
    centre_ = centre;
    normal_ = normal;
    radius_ = std::sqrt(dot(offset, offset));
    return 1;
}
