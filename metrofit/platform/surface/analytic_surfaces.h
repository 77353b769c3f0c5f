// Analytic surfaces of the surface kernel: plane, sphere, cylinder, cone and
// torus, each with closed-form foot points and exact normals.
//
// Every surface keeps a right-handed orthonormal frame (origin O, axes X, Y,
// Z) and its sizes. O and Z are the given point and direction (the plane's
// normal, the axis of the others; for a sphere O is the centre and the frame
// starts as the world axes); X = Z.any_normal(), Y = Z x X. A point p has the
// local coordinates (a, b, h) = ((p - O).X, (p - O).Y, (p - O).Z) and, about
// the axis, the radial distance rho = hypot(a, b) and radial direction e.
//
// project_all(p, out, info) appends the foot points, nearest first (ties keep
// the order below), and returns their number (also written to info):
//   plane     1: p moved along the normal;
//   sphere    2: the near and the far point on the line through the centre;
//   cylinder  2: the near and the far point on the line through p that
//                meets the axis at right angles;
//   cone   0..2: in the meridian half-plane of p, the foot on the generating
//                line on p's side and the foot on the opposite generating
//                line, each only when it lies on the nappe (axial height
//                t > 0); the apex is never a foot point;
//   torus  0..4: the near and the far point of each of the two tube circles
//                of p's meridian plane on the line through p and the tube
//                centre (a tube centre that coincides with p gives none).
// Where every point of a circle or of the sphere is a foot point (p on the
// axis, p at the centre) the surface returns 0. "On" means within a few
// rounding units of the coordinates' magnitude. A non-finite or unset p, or
// a degenerate surface, gives 0 as well.
//
// normal_at(s, tolerance) reads s.position only (the tolerance is ignored)
// and gives the exact unit normal there: the plane's given normal; for the
// closed surfaces the outward one (away from the centre, the axis, or the
// tube centre). A position on the axis of a cylinder or cone, at a sphere's
// centre or on a torus's tube centre circle has no normal: the result is an
// unset unit vector, as on a degenerate surface.
//
// The surface parameters u, v of the foot points (for the caller's use):
//   plane     u = a, v = b (coordinates in the plane);
//   sphere    u = longitude atan2(b, a), v = latitude atan2(h, rho);
//   cylinder  u = atan2(b, a) of the foot, v = h;
//   cone      u = atan2(b, a) of the foot, v = h (height above the apex);
//   torus     u = atan2(b, a) of the foot, v = angle round the tube,
//             atan2(h, rho - R): 0 on the outer equator, pi/2 on top.
// Angles are in (-pi, pi]; the facet is -1.
//
// Construction refuses bad input by leaving the surface degenerate
// (valid() false, project_all 0): a non-finite or unset point, a zero,
// unset or non-finite direction, a radius <= 0 or non-finite, a cone half
// angle outside (0, 90) degrees, a torus with r >= R.
//
// srkSurf::transform moves the frame by the rigid part and scales every
// length by s = cbrt(det A); the cone's half angle stays. A transform whose
// result would not be finite is refused (0, surface unchanged).
#pragma once

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/surface/surf.h"

// The frame and validity shared by the analytic surfaces.
class srkAnalyticSurf : public srkSurf {
   public:
    bool valid() const { return valid_; }
    const giPoint3& origin() const { return origin_; }
    const giUnitVec3& axis() const { return z_; }

   protected:
    srkAnalyticSurf() = default;
    // Sets O, Z and the derived X, Y; false (frame unset) on bad input.
    bool set_frame(const giPoint3& origin, const giVector3& axis);
    int transform_in_place(const giXform3& xform) override;
    // Multiplies every length by s > 0; false, nothing changed, when a
    // result would not be finite or positive.
    virtual bool scale_sizes(double s) = 0;

    // Local coordinates of p (see the header comment).
    void local(const giPoint3& p, double& a, double& b, double& h) const;
    // The point O + a X + b Y + h Z.
    giPoint3 at(double a, double b, double h) const;
    // The vector a X + b Y + h Z as a unit vector.
    giUnitVec3 direction(double a, double b, double h) const;

    // A foot point before sorting: local coordinates, parameters, |p - s|.
    struct Foot {
        double a = 0.0, b = 0.0, h = 0.0;
        double u = 0.0, v = 0.0, dist = 0.0;
    };
    // Appends feet[0..n) to out nearest first (equal distances keep their
    // order); returns n and writes it to info.
    int append_feet(Foot* feet, int n, srkSurfPointList& out, int& info) const;
    // The foot of p's meridian plane at signed radial distance r along the
    // radial direction (ea, eb) (r < 0: the opposite half-plane) and height
    // h; its u is the angle of its own radial direction.
    static Foot meridian_foot(double ea, double eb, double r, double h, double v, double dist);

    giPoint3 origin_;
    giUnitVec3 x_, y_, z_;
    bool valid_ = false;
};

class srkPlaneSurf : public srkAnalyticSurf {
   public:
    srkPlaneSurf(const giPoint3& point, const giVector3& normal);

    const giUnitVec3& normal() const { return z_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    bool scale_sizes(double s) override;
};

class srkSphereSurf : public srkAnalyticSurf {
   public:
    srkSphereSurf(const giPoint3& centre, double radius);

    double radius() const { return radius_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    bool scale_sizes(double s) override;

   private:
    double radius_ = 0.0;
};

class srkCylinderSurf : public srkAnalyticSurf {
   public:
    srkCylinderSurf(const giPoint3& axis_point, const giVector3& axis_direction, double radius);

    double radius() const { return radius_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    bool scale_sizes(double s) override;

   private:
    double radius_ = 0.0;
};

// The one-sided cone apex + t axis (t >= 0) of the given half angle.
class srkConeSurf : public srkAnalyticSurf {
   public:
    srkConeSurf(const giPoint3& apex, const giVector3& axis_direction, const giAngle& half_angle);

    const giPoint3& apex() const { return origin_; }
    const giAngle& half_angle() const { return half_angle_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    bool scale_sizes(double s) override;

   private:
    giAngle half_angle_;
    double sin_ = 0.0, cos_ = 1.0;
};

class srkTorusSurf : public srkAnalyticSurf {
   public:
    srkTorusSurf(const giPoint3& centre, const giVector3& axis_direction, double major_radius,
                 double minor_radius);

    double major_radius() const { return major_; }
    double minor_radius() const { return minor_; }

    int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const override;
    giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const override;
    srkSurfPtr clone() const override;

   protected:
    bool scale_sizes(double s) override;

   private:
    double major_ = 0.0, minor_ = 0.0;
};
