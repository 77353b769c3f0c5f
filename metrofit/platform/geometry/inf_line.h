// Infinite lines in the plane (giInfLine2) and in space (giInfLine3): a point
// and a unit direction. The direction given is normalised; one without
// direction (zero, unset, non-finite) leaves the line unset (is_set()
// false), as does a default-constructed line. The 3D line through two points
// runs from the first towards the second; equal points make it unset.
//
// Parameters t along a line count from its point in units of length along
// its unit direction: point_at(t) = point + t direction.
//
// closest_points(line1, line2, angle_tolerance, t1, t2, status):
//   status 1: t1, t2 locate the closest points (in the plane, the crossing
//             point) line1.point_at(t1) and line2.point_at(t2);
//   status 0: the lines are parallel within angle_tolerance (the angle
//             between them, of either sense, is at most the tolerance, or
//             the directions are exactly parallel); t1 = 0 and t2 locates the
//             foot of line1's point on line2, a valid pair of closest points
//             of exactly parallel lines;
//   status -1: a line is unset; t1 and t2 are left untouched.
#pragma once

#include <cmath>

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"

class giInfLine2 {
   public:
    giInfLine2() = default;
    giInfLine2(const giPoint2& point, const giVector2& direction)
        : point_(point), dir_(direction) {}

    bool is_set() const { return point_.is_set() && dir_.is_set(); }
    const giPoint2& point() const { return point_; }
    const giUnitVec2& direction() const { return dir_; }

    giPoint2 point_at(double t) const { return point_ + t * dir_; }
    double parameter_of(const giPoint2& p) const { return dot(p - point_, dir_); }
    giPoint2 project(const giPoint2& p) const { return point_at(parameter_of(p)); }
    // Unsigned distance of p from the line.
    double distance_of_point(const giPoint2& p) const { return std::fabs(cross(dir_, p - point_)); }

   private:
    giPoint2 point_;
    giUnitVec2 dir_;
};

class giInfLine3 {
   public:
    giInfLine3() = default;
    giInfLine3(const giPoint3& point, const giVector3& direction)
        : point_(point), dir_(direction) {}
    giInfLine3(const giPoint3& from, const giPoint3& to) : point_(from), dir_(to - from) {}

    bool is_set() const { return point_.is_set() && dir_.is_set(); }
    const giPoint3& point() const { return point_; }
    const giUnitVec3& direction() const { return dir_; }

    giPoint3 point_at(double t) const { return point_ + t * dir_; }
    double parameter_of(const giPoint3& p) const { return dot(p - point_, dir_); }
    giPoint3 project(const giPoint3& p) const { return point_at(parameter_of(p)); }
    // Distance of p from the line: the length of the part of p - point across
    // the direction.
    double distance_of_point(const giPoint3& p) const { return cross(dir_, p - point_).length(); }

   private:
    giPoint3 point_;
    giUnitVec3 dir_;
};

void closest_points(const giInfLine3& line1, const giInfLine3& line2,
                    const giAngle& angle_tolerance, double& t1, double& t2, int& status);
void closest_points(const giInfLine2& line1, const giInfLine2& line2,
                    const giAngle& angle_tolerance, double& t1, double& t2, int& status);
