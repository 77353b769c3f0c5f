// tsLeastSquareDistributionQuality: how well measured points cover a fitted
// feature. Points bunched on one side of a circle or along one line of a
// plane pin the feature down poorly even when their residuals are small.
// Every member returns a double, larger for a better spread, 0.0 when there
// are too few points or a coordinate or argument is not finite.
//
// Curved features (sphere, circle, probed circle) use the model measure
// mlDistanceLeastSquares::point_distribution_quality on the feature's
// least-squares model at the given parameters: the RMS change of the
// distances under a unit change of the worst-determined parameter
// combination. It is divided by a constant of the feature, the raw value of
// a well-spread set (whole sphere 0.578, whole circle 0.708), so that a
// well-spread set scores about 1 and a cap or an arc scores less. The probed
// circle returns the raw value, undivided. Fewer than 3 points give 0.0.
//
// Lines and planes use ratios of the points' extents:
// - line (2D), with p the line point and d its unit direction: along the
//   line t = d.(P - p), across it w = |d x (P - p)|; L = max t - min t,
//   W = max w but at least 0.0001; the measure is L / (L + 9 W).
// - line3: the same in space with the factor 999: L / (L + 999 W).
// - line2: line3 on the points moved along the plane normal onto the plane.
// - plane: the given point and normal are not used. The points' principal
//   axes e1, e2, e3 (largest singular value first) give the extents a, b, c
//   of the centred points (c at least 0.0001); with
//   x = min(a, b) / (max(a, b) + 0.0001) the measure is
//   sqrt(x) a b / (999 c^2 + a b): near 1 for a flat square patch, smaller
//   for a narrow strip (through sqrt(b / a)) or a thick cloud.
// The floors 0.0001 and the factors are in the points' length unit.
//
// Cylinders use the cylinder model (point on the axis, axis, radius),
// evaluated on the points moved to their centroid (the model weighs turns of
// the axis about its canonical point, the one nearest the origin: centring
// makes the measure independent of where the origin lies). The plain measure
// is divided by 0.26, the probed one by 0.177; their models have the same
// gradient, so the probed measure scores the same points higher by a factor
// of about 1.47. Raw values: about 0.18 for the whole surface of a cylinder
// twice as long as its radius (plain 0.69, probed 1.0), 0.2 for long ones,
// falling with the covered sector and for short cylinders.
//
// Cones use the cone model at (apex, axis towards the apex, surface distance
// 0, half angle in radians), on the centred points as for cylinders, divided
// by 0.15 (the whole surface of a frustum of half angle 30 degrees scores
// about 0.96, a 120-degree sector of it 0.16; flatter cones score less);
// the probed cone uses the probed model and returns the raw value.
// Its contact points (the guess points of the probed fit) are not needed for
// the measure and are not read.
//
// Arguments of the circle families: circle2 projects the 3D points into the
// 2D frame of the plane (plane point, normal) and evaluates the 2D circle
// measure there; circle3 takes the circle's own centre and normal as that
// plane. Normals need not be of unit length; one of length zero gives 0.0.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"

class tsLeastSquareDistributionQuality {
   public:
    static double distribution_quality_sphere(const giPoint3coDynArr& points,
                                              const giPoint3& centre, double radius);
    static double distribution_quality_circle(const giPoint2coDynArr& points,
                                              const giPoint2& centre, double radius);
    // Probe-ball centres with one probe radius each (inside == 0: the balls
    // touched the circle from outside); the raw model measure.
    static double distribution_quality_probed_circle(const giPoint2coDynArr& points,
                                                     const doublecoDynArr& probe_radii, int inside,
                                                     const giPoint2& centre, double radius);
    static double distribution_quality_circle2(const giPoint3& plane_point,
                                               const giVector3& plane_normal,
                                               const giPoint3coDynArr& points,
                                               const giPoint3& centre, double radius);
    static double distribution_quality_circle3(const giPoint3coDynArr& points,
                                               const giPoint3& centre, const giVector3& normal,
                                               double radius);

    static double distribution_quality_cylinder(const giPoint3coDynArr& points,
                                                const giPoint3& axis_point, const giVector3& axis,
                                                double radius);
    static double distribution_quality_probed_cylinder(const giPoint3coDynArr& points,
                                                       const doublecoDynArr& probe_radii,
                                                       int inside, const giPoint3& axis_point,
                                                       const giVector3& axis, double radius);

    static double distribution_quality_cone(const giPoint3coDynArr& points, const giPoint3& apex,
                                            const giVector3& axis, double half_angle);
    static double distribution_quality_probed_cone(const giPoint3coDynArr& points,
                                                   const doublecoDynArr& probe_radii, int inside,
                                                   const giPoint3coDynArr& contact_points,
                                                   const giPoint3& apex, const giVector3& axis,
                                                   double half_angle);

    // Torus of the given centre, axis (any length but zero), centre-circle
    // radius and tube radius.
    static double distribution_quality_torus(const giPoint3coDynArr& points,
                                             const giPoint3& centre, const giVector3& axis,
                                             double major_radius, double minor_radius);
    // Ellipse of the given centre, semi-axes and angle of the major axis from
    // the x axis (radians); the raw model measure.
    static double distribution_quality_ellipse(const giPoint2coDynArr& points,
                                               const giPoint2& centre, double semi_major,
                                               double semi_minor, double angle);

    static double distribution_quality_line(const giPoint2coDynArr& points, const giPoint2& point,
                                            const giUnitVec2& direction);
    static double distribution_quality_line3(const giPoint3coDynArr& points, const giPoint3& point,
                                             const giUnitVec3& direction);
    static double distribution_quality_line2(const giPoint3& plane_point,
                                             const giVector3& plane_normal,
                                             const giPoint3coDynArr& points, const giPoint3& point,
                                             const giUnitVec3& direction);
    static double distribution_quality_plane(const giPoint3coDynArr& points, const giPoint3& point,
                                             const giUnitVec3& normal);
};
