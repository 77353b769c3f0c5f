// giPlane: a plane in space from a unit normal and a point on it.
//
// The normal given is normalised; one without direction leaves the plane
// unset (is_set() false), as does default construction. distance(p) is
// signed: positive on the side the normal points to. project(p) is the foot
// of p on the plane.
#pragma once

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"

class giPlane {
   public:
    giPlane() = default;
    giPlane(const giVector3& normal, const giPoint3& point) : normal_(normal), point_(point) {}

    bool is_set() const { return normal_.is_set() && point_.is_set(); }
    const giUnitVec3& normal() const { return normal_; }
    const giPoint3& point() const { return point_; }

    double distance(const giPoint3& p) const { return dot(p - point_, normal_); }
    giPoint3 project(const giPoint3& p) const { return p - distance(p) * normal_; }

   private:
    giUnitVec3 normal_;
    giPoint3 point_;
};
