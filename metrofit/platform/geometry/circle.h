// giCircle3: a circle in space, given by its centre, the unit normal of its
// plane and its radius.
//
// become_through_points(a, b, c) makes it the circle through three points
// (the circumscribed circle of the triangle). With u = b - a, v = c - a and
// w = u x v the centre is
//   a + (|u|^2 (v x w) + |v|^2 (w x u)) / (2 |w|^2),
// the normal is w made a unit vector (its sense follows the order of the
// points: a, b, c run counter-clockwise about it), and the radius is the
// distance of the centre from a. Collinear or coincident points (|w| at most
// 1e-12 |u| |v|, the sine of the angle at a below 1e-12), non-finite or unset
// points fail: the call returns 0 and leaves the circle as it was. A
// default-constructed circle is unset (unset centre and normal, radius
// -DBL_MAX).
#pragma once

#include <cfloat>

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"

class giCircle3 {
   public:
    giCircle3() = default;
    giCircle3(const giPoint3& centre, const giUnitVec3& normal, double radius)
        : centre_(centre), normal_(normal), radius_(radius) {}

    int become_through_points(const giPoint3& a, const giPoint3& b, const giPoint3& c);

    const giPoint3& centre() const { return centre_; }
    const giUnitVec3& normal() const { return normal_; }
    double radius() const { return radius_; }
    bool is_set() const { return radius_ != -DBL_MAX; }

   private:
    giPoint3 centre_;
    giUnitVec3 normal_;
    double radius_ = -DBL_MAX;
};
