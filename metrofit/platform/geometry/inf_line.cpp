#include "metrofit/platform/geometry/inf_line.h"

#include <cmath>

namespace {

// Lines are parallel when the sine of the angle between their directions is
// exactly zero or the angle (of either sense, from atan2 so that small angles
// keep their precision) is within the tolerance.
bool parallel(double sine, double cosine, const giAngle& tolerance) {
    return sine == 0.0 || std::atan2(std::fabs(sine), std::fabs(cosine)) <= tolerance.radians();
}

}  // namespace

void closest_points(const giInfLine3& line1, const giInfLine3& line2,
                    const giAngle& angle_tolerance, double& t1, double& t2, int& status) {
    if (!line1.is_set() || !line2.is_set()) {
        status = -1;
        return;
    }
    const giUnitVec3& d1 = line1.direction();
    const giUnitVec3& d2 = line2.direction();
    const giVector3 w = line1.point() - line2.point();
    const double b = dot(d1, d2), c = dot(d1, w), e = dot(d2, w);
    const double sine_sq = cross(d1, d2).length_squared();
    if (parallel(std::sqrt(sine_sq), b, angle_tolerance)) {
        t1 = 0.0;
        t2 = e;
        status = 0;
        return;
    }
    // Zero derivatives of |w + t1 d1 - t2 d2|^2 in t1 and t2; the determinant
    // 1 - b^2 is taken as the squared sine, which keeps its relative precision.
    t1 = (b * e - c) / sine_sq;
    t2 = (e - b * c) / sine_sq;
    status = 1;
}

void closest_points(const giInfLine2& line1, const giInfLine2& line2,
                    const giAngle& angle_tolerance, double& t1, double& t2, int& status) {
    if (!line1.is_set() || !line2.is_set()) {
        status = -1;
        return;
    }
    const giUnitVec2& d1 = line1.direction();
    const giUnitVec2& d2 = line2.direction();
    const double s = cross(d1, d2);
    if (parallel(s, dot(d1, d2), angle_tolerance)) {
        t1 = 0.0;
        t2 = dot(d2, line1.point() - line2.point());
        status = 0;
        return;
    }
    // p1 + t1 d1 = p2 + t2 d2: cross with d2 and with d1.
    const giVector2 w = line2.point() - line1.point();
    t1 = cross(w, d2) / s;
    t2 = cross(w, d1) / s;
    status = 1;
}
