// Records of fitted cylinders and cones, as the multi-solution searches hand
// them back in tsFittedCylindercoDynArr / tsFittedConecoDynArr.
//
// tsFittedCylinder: a point on the axis, the unit axis direction (its sense
// carries no meaning), the radius and the fit's deviation.
// tsFittedCone: the apex, the unit axis direction pointing from the apex into
// the cone, the half opening angle and the fit's deviation.
// The constructors store their arguments unchecked. A default record holds
// the geometry defaults (unset point and direction, zero angle) and
// -DBL_MAX in its double fields, so it is invalid.
//
// invalid() is 1 when the record describes no usable feature, tested in this
// order: the point (axis point or apex) is unset (x == -DBL_MAX, or any
// coordinate == +DBL_MAX); the direction is unset (x == -DBL_MAX); the
// cylinder radius is not strictly positive (NaN included), or the cone's half
// angle is not strictly between 0 and 90 degrees; the deviation is negative.
// A deviation of 0 is valid.
//
// coincident(other, tol, angle_tol) is 1 when other describes the same
// feature within a length and an angle tolerance; the deviation takes no
// part. Axes of opposite sense count as equal (|u.v| >= cos angle_tol). A
// negative tol, an unset point or an unset direction on either side gives 0.
// - Cylinder: the radial distance of other's axis point from this record's
//   axis line (measured in the frame whose z axis is this axis), and the
//   difference of the radii, both at most tol. Nothing is compared along the
//   axis, and the test is one-sided: for axes that are not parallel
//   a.coincident(b) and b.coincident(a) may differ.
// - Cone: the distance between the apexes at most tol, and the half angles
//   within angle_tol of each other.
#pragma once

#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"

class tsFittedCylinder {
   public:
    tsFittedCylinder();
    tsFittedCylinder(const giPoint3& axis_point, const giUnitVec3& axis_dir, double radius,
                     double deviation);
    tsFittedCylinder(const tsFittedCylinder&) = default;
    tsFittedCylinder& operator=(const tsFittedCylinder&) = default;
    ~tsFittedCylinder() = default;

    const giPoint3& axis_point() const { return axis_point_; }
    const giUnitVec3& axis_dir() const { return axis_dir_; }
    double radius() const { return radius_; }
    double deviation() const { return deviation_; }

    int invalid() const;
    int coincident(const tsFittedCylinder& other, double tolerance,
                   const giAngle& angle_tolerance) const;

   private:
    giPoint3 axis_point_;
    giUnitVec3 axis_dir_;
    double radius_;
    double deviation_;
};

class tsFittedCone {
   public:
    tsFittedCone();
    tsFittedCone(const giPoint3& apex, const giUnitVec3& axis_dir, const giAngle& half_angle,
                 double deviation);
    tsFittedCone(const tsFittedCone&) = default;
    tsFittedCone& operator=(const tsFittedCone&) = default;
    ~tsFittedCone() = default;

    const giPoint3& apex() const { return apex_; }
    const giUnitVec3& axis_dir() const { return axis_dir_; }
    const giAngle& half_angle() const { return half_angle_; }
    double deviation() const { return deviation_; }

    int invalid() const;
    int coincident(const tsFittedCone& other, double tolerance,
                   const giAngle& angle_tolerance) const;

   private:
    giPoint3 apex_;
    giUnitVec3 axis_dir_;
    giAngle half_angle_;
    double deviation_;
};
