// Workplanes: an origin with right-handed orthonormal axes, in space
// (giWorkplane3) and in the plane (giWorkplane2).
//
// giWorkplane3 is given as (origin, z_axis, x_axis), the same convention as
// the frames of giXform3: Z = z_axis (the workplane's normal), X = x_axis
// with its component along Z removed and renormalised, Y = Z x X. With the
// normal alone, X is Z.any_normal(). A default workplane is the world frame.
// become(...) returns 0 and leaves the workplane as it was when the axes are
// unset or parallel (sine below 1e-12) or the origin is unset or not finite;
// a constructor given such input leaves the world frame.
//
// to_work(p) gives the coordinates of a world point in the workplane
// (((p - O).X, (p - O).Y, (p - O).Z)); to_world(q) is its inverse
// (O + qx X + qy Y + qz Z). Vectors map through the axes alone.
//
// giWorkplane2 is (origin, x_axis) with Y the x axis turned by +90 degrees.
#pragma once

#include <cmath>

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"

class giWorkplane3 {
   public:
    giWorkplane3() = default;
    giWorkplane3(const giPoint3& origin, const giUnitVec3& z_axis, const giUnitVec3& x_axis) {
        become(origin, z_axis, x_axis);
    }
    giWorkplane3(const giPoint3& origin, const giUnitVec3& z_axis) { become(origin, z_axis); }

    int become(const giPoint3& origin, const giUnitVec3& z_axis, const giUnitVec3& x_axis) {
        if (!origin.is_set() || !origin.is_finite() || !z_axis.is_set() || !x_axis.is_set())
            return 0;
        const giVector3 across = x_axis - dot(x_axis, z_axis) * z_axis;
        if (!(across.length() > 1e-12)) return 0;
        origin_ = origin;
        z_ = z_axis;
        x_ = giUnitVec3(across);
        y_ = giUnitVec3(cross(z_, x_));
        return 1;
    }
    int become(const giPoint3& origin, const giUnitVec3& z_axis) {
        return become(origin, z_axis, z_axis.any_normal());
    }
    // Moves the workplane to a new origin, axes unchanged.
    void set_origin(const giPoint3& origin) { origin_ = origin; }

    const giPoint3& origin() const { return origin_; }
    const giUnitVec3& x_axis() const { return x_; }
    const giUnitVec3& y_axis() const { return y_; }
    const giUnitVec3& z_axis() const { return z_; }
    const giUnitVec3& normal() const { return z_; }

    giPoint3 to_work(const giPoint3& p) const {
        const giVector3 d = p - origin_;
        return giPoint3(dot(d, x_), dot(d, y_), dot(d, z_));
    }
    giPoint3 to_world(const giPoint3& q) const {
        return origin_ + q.x() * x_ + q.y() * y_ + q.z() * z_;
    }
    giVector3 to_work(const giVector3& v) const {
        return giVector3(dot(v, x_), dot(v, y_), dot(v, z_));
    }
    giVector3 to_world(const giVector3& v) const { return v.x() * x_ + v.y() * y_ + v.z() * z_; }
    giUnitVec3 to_work(const giUnitVec3& u) const {
        return u.is_set() ? giUnitVec3(to_work(static_cast<const giVector3&>(u))) : giUnitVec3();
    }
    giUnitVec3 to_world(const giUnitVec3& u) const {
        return u.is_set() ? giUnitVec3(to_world(static_cast<const giVector3&>(u))) : giUnitVec3();
    }

    // The same maps as transforms.
    giXform3 xform_to_work() const { return giXform3::world_to_local(origin_, z_, x_); }
    giXform3 xform_to_world() const { return giXform3::local_to_world(origin_, z_, x_); }

   private:
    giPoint3 origin_{giOrigin};
    giUnitVec3 x_{giXAxis};
    giUnitVec3 y_{giYAxis};
    giUnitVec3 z_{giZAxis};
};

class giWorkplane2 {
   public:
    giWorkplane2() = default;
    giWorkplane2(const giPoint2& origin, const giUnitVec2& x_axis) { become(origin, x_axis); }

    int become(const giPoint2& origin, const giUnitVec2& x_axis) {
        if (!origin.is_set() || !origin.is_finite() || !x_axis.is_set()) return 0;
        origin_ = origin;
        x_ = x_axis;
        y_ = x_axis.any_normal();
        return 1;
    }
    void set_origin(const giPoint2& origin) { origin_ = origin; }

    const giPoint2& origin() const { return origin_; }
    const giUnitVec2& x_axis() const { return x_; }
    const giUnitVec2& y_axis() const { return y_; }

    giPoint2 to_work(const giPoint2& p) const {
        const giVector2 d = p - origin_;
        return giPoint2(dot(d, x_), dot(d, y_));
    }
    giPoint2 to_world(const giPoint2& q) const { return origin_ + q.x() * x_ + q.y() * y_; }
    giVector2 to_work(const giVector2& v) const { return giVector2(dot(v, x_), dot(v, y_)); }
    giVector2 to_world(const giVector2& v) const { return v.x() * x_ + v.y() * y_; }

    giXform2 xform_to_work() const { return giXform2::world_to_local(origin_, x_); }
    giXform2 xform_to_world() const { return giXform2::local_to_world(origin_, x_); }

   private:
    giPoint2 origin_{giOrigin};
    giUnitVec2 x_{giXAxis};
    giUnitVec2 y_{giYAxis};
};
