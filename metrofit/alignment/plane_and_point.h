// tsPlaneAndPoint: one entry of a rigid alignment, a measured point paired
// with a nominal plane (kind 1) or a nominal point (kind 0).
//
// The stored normal is the caller's normal multiplied by the weight, so a
// least-squares row built from it carries the weight and its square enters
// the normal equations. The signed deviation under a transform T is
//   d = ((T m - q) . normal) / weight,
// the distance along the normal as the caller gave it (for a unit normal: the
// signed distance from the plane, positive on the side the normal points to).
// For a point entry the distance is |T m - q| |normal| / weight, never
// negative.
//
// Limits: lower_limit <= d <= upper_limit is the tolerance band of the entry;
// -DBL_MAX and DBL_MAX mark an open end. A default entry has unset geometry,
// kind 1, an open band and weight 1.
#pragma once

#include <cfloat>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/plane.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"

struct tsPlaneAndPoint {
    giPoint3 nominal_point;
    giVector3 normal;
    giPoint3 measured_point;
    int kind = 1;
    double lower_limit = -DBL_MAX;
    double upper_limit = DBL_MAX;
    double weight = 1.0;

    tsPlaneAndPoint() = default;
    tsPlaneAndPoint(const giPoint3& measured, const giPoint3& nominal, const giVector3& normal,
                    int kind, double lower_limit, double upper_limit, double weight);
    tsPlaneAndPoint(const giPoint3& measured, const giPlane& nominal, int kind, double lower_limit,
                    double upper_limit, double weight);

    bool is_bounded() const { return lower_limit != -DBL_MAX || upper_limit != DBL_MAX; }
    // Every coordinate and the weight finite.
    bool is_finite() const;
    // The weighted residual (T m - q) . normal (point entries: its length).
    double weighted_deviation(const giXform3& T) const;
    // The signed deviation d defined above.
    double deviation(const giXform3& T) const { return weighted_deviation(T) / weight; }
};

using tsPlaneAndPointcoDynArr = coDynArr<tsPlaneAndPoint>;
