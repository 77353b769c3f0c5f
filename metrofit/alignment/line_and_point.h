// tsLineAndPoint: one entry of the planar alignment, a measured point paired
// with a nominal line given by a point on it and its normal (as given: not
// normalised, not weighted). The points are held as vectors from the origin.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"

struct tsLineAndPoint {
    giVector2 line_point_;
    giVector2 line_normal_;
    giVector2 measured_point_;

    tsLineAndPoint() = default;
    tsLineAndPoint(const giPoint2& measured, const giPoint2& line_point, const giVector2& normal)
        : line_point_(line_point.x(), line_point.y()),
          line_normal_(normal),
          measured_point_(measured.x(), measured.y()) {}

    giPoint2 line_point() const { return giPoint2(line_point_.x(), line_point_.y()); }
    const giVector2& line_normal() const { return line_normal_; }
    giPoint2 measured_point() const { return giPoint2(measured_point_.x(), measured_point_.y()); }
    void set_line_point(const giPoint2& p) { line_point_.become(p.x(), p.y()); }
    void set_measured_point(const giPoint2& p) { measured_point_.become(p.x(), p.y()); }
};

using tsLineAndPointcoDynArr = coDynArr<tsLineAndPoint>;
