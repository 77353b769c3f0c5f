#include "metrofit/features/fitted_records.h"

#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"

namespace {

// The marker of an unset double field.
constexpr double kUnset = -DBL_MAX;

// A point holds the unset marker: -DBL_MAX in x or +DBL_MAX anywhere.
bool point_unset(const giPoint3& p) {
    return p.x() == -DBL_MAX || p.x() == DBL_MAX || p.y() == DBL_MAX || p.z() == DBL_MAX;
}

// The two axes agree up to sense within angle_tolerance. Written as a
// negated >= so that a NaN dot product fails.
bool axes_agree(const giUnitVec3& a, const giUnitVec3& b, const giAngle& angle_tolerance) {
    if (!a.is_set() || !b.is_set()) return false;
    return std::fabs(dot(a, b)) >= angle_tolerance.cos();
}

}  // namespace

tsFittedCylinder::tsFittedCylinder() : radius_(kUnset), deviation_(kUnset) {}

tsFittedCylinder::tsFittedCylinder(const giPoint3& axis_point, const giUnitVec3& axis_dir,
                                   double radius, double deviation)
    : axis_point_(axis_point), axis_dir_(axis_dir), radius_(radius), deviation_(deviation) {}

int tsFittedCylinder::invalid() const {
    if (point_unset(axis_point_)) return 1;
    if (axis_dir_.x() == -DBL_MAX) return 1;
    if (!(radius_ > 0.0)) return 1;
    if (deviation_ < 0.0) return 1;
    return 0;
}

int tsFittedCylinder::coincident(const tsFittedCylinder& other, double tolerance,
                                 const giAngle& angle_tolerance) const {
    // Radial distance of the other axis point from this axis line: its
    // in-plane coordinates in the frame whose z axis is this axis. Without a
    // frame (unset or non-finite axis point or direction) or with an unset
    // other point the distance is taken as DBL_MAX.
    double d = DBL_MAX;
    const giXform3 to_local(axis_point_, axis_dir_, axis_dir_.any_normal());
    if (to_local.is_set() && !point_unset(other.axis_point_)) {
        const giPoint3 q = to_local * other.axis_point_;
        d = std::hypot(q.x(), q.y());
    }
    if (d == DBL_MAX) return 0;
    if (tolerance < 0.0) return 0;
    // Negated comparisons: NaN distances never coincide.
    if (!(d <= tolerance)) return 0;
    if (!(std::fabs(radius_ - other.radius_) <= tolerance)) return 0;
    if (!axes_agree(axis_dir_, other.axis_dir_, angle_tolerance)) return 0;
    return 1;
}

tsFittedCone::tsFittedCone() : deviation_(kUnset) {}

tsFittedCone::tsFittedCone(const giPoint3& apex, const giUnitVec3& axis_dir,
                           const giAngle& half_angle, double deviation)
    : apex_(apex), axis_dir_(axis_dir), half_angle_(half_angle), deviation_(deviation) {}

int tsFittedCone::invalid() const {
    if (point_unset(apex_)) return 1;
    if (axis_dir_.x() == -DBL_MAX) return 1;
    if (!(half_angle_ > giAngle()) || !(half_angle_ < giAngle(giANGLE_DEGREES, 90.0))) return 1;
    if (deviation_ < 0.0) return 1;
    return 0;
}

int tsFittedCone::coincident(const tsFittedCone& other, double tolerance,
                             const giAngle& angle_tolerance) const {
    // Two unset apexes would be at distance 0; an unset one is at DBL_MAX.
    const double d =
        (point_unset(apex_) || point_unset(other.apex_)) ? DBL_MAX : distance(apex_, other.apex_);
    if (d == DBL_MAX || tolerance < 0.0) return 0;
    if (!(d <= tolerance)) return 0;
    if (!half_angle_.coincident(other.half_angle_, angle_tolerance)) return 0;
    if (!axes_agree(axis_dir_, other.axis_dir_, angle_tolerance)) return 0;
    return 1;
}
