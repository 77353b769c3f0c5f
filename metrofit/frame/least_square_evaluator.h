// tsLeastSquareEvaluator: the static entry points of the least-squares
// feature fits.
//
// Every entry point returns an int: 0 when it refuses (too few points,
// non-finite coordinates, mismatched array lengths, or a failure its fit
// names), otherwise 1. Outputs are written only on success. Where a fit ends
// with a solver run, its error is the square root of the solver's mean
// squared distance, i.e. the RMS orthogonal deviation of the points.
//
// The points are the caller's: models keep a reference to the array for the
// duration of the call and never copy or change it. Randomised starts seed
// their own generator on every call, so equal inputs give bit-identical
// results.
//
// Each member is defined in the source file of its feature family.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

class tsFittedCylinder;
class tsFittedCone;
using tsFittedCylindercoDynArr = coDynArr<tsFittedCylinder>;
using tsFittedConecoDynArr = coDynArr<tsFittedCone>;

class tsLeastSquareEvaluator {
   public:
    // Sphere: centre and radius. Refuses fewer than 4 points.
    static int evaluate_sphere(const giPoint3coDynArr& points, giPoint3& centre, double& radius,
                               double& error);
    // Sphere touched by probe balls of the given radii (one per point), from
    // outside (inside == 0) or from inside (inside != 0); the radius is that
    // of the touched surface.
    static int evaluate_probed_sphere(const giPoint3coDynArr& points,
                                      const doublecoDynArr& probe_radii, int inside,
                                      giPoint3& centre, double& radius, double& error);

    // Plane through the points: a point on it (the centroid) and its normal.
    static int evaluate_plane(const giPoint3coDynArr& points, giPoint3& point, giUnitVec3& normal,
                              double& error);
    // Plane touched by probe balls along the given contact directions.
    static int evaluate_probed_plane(const giPoint3coDynArr& points,
                                     const doublecoDynArr& probe_radii,
                                     const giUnitVec3coDynArr& directions, giPoint3& point,
                                     giUnitVec3& normal, double& error);

    // Lines: in the plane, in a given plane of space, and in space.
    static int evaluate_line(const giPoint2coDynArr& points, giPoint2& point, giUnitVec2& direction,
                             double& error);
    static int evaluate_line2(const giPoint3& plane_point, const giUnitVec3& plane_normal,
                              const giPoint3coDynArr& points, giPoint3& point,
                              giUnitVec3& direction, double& error);
    static int evaluate_line3(const giPoint3coDynArr& points, giPoint3& point,
                              giUnitVec3& direction, double& error);
    // Line in the plane touched by probe balls; `normal` receives the line's
    // normal (oriented along the summed contact directions), not its direction.
    static int evaluate_probed_line2(const giPoint2coDynArr& points,
                                     const doublecoDynArr& probe_radii,
                                     const giUnitVec2coDynArr& directions, giPoint2& point,
                                     giUnitVec2& normal, double& error);

    // Circles: in the plane, in a given plane of space, free in space, and
    // touched by probe balls in the plane.
    static int evaluate_circle(const giPoint2coDynArr& points, giPoint2& centre, double& radius,
                               double& error);
    static int evaluate_circle2(const giPoint3& plane_point, const giUnitVec3& plane_normal,
                                const giPoint3coDynArr& points, giPoint3& centre, double& radius,
                                double& error);
    static int evaluate_circle3(const giPoint3coDynArr& points, giPoint3& centre,
                                giUnitVec3& normal, double& radius, double& error);
    static int evaluate_probed_circle(const giPoint2coDynArr& points,
                                      const doublecoDynArr& probe_radii, int inside,
                                      giPoint2& centre, double& radius, double& error);

    // Cylinders: with an optional nominal axis (unset: x == -DBL_MAX) and the
    // angle it may deviate by, or with measured surface normals (one per
    // point, or empty) and the angle they may deviate by. n_added != 0 asks
    // for an update of the previous solution held in the outputs.
    static int evaluate_cylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                 giUnitVec3& axis, double& radius, double& error,
                                 const giUnitVec3& nominal_axis, const giAngle& angle,
                                 int n_added = 0);
    static int evaluate_cylinder(const giPoint3coDynArr& points, giPoint3& axis_point,
                                 giUnitVec3& axis, double& radius, double& error,
                                 const giUnitVec3coDynArr& normals, const giAngle& angle,
                                 int n_added = 0);
    static int evaluate_probed_cylinder(const giPoint3coDynArr& points,
                                        const doublecoDynArr& probe_radii, int inside,
                                        giPoint3& axis_point, giUnitVec3& axis, double& radius,
                                        double& error, const giUnitVec3& nominal_axis,
                                        const giAngle& angle, int n_added = 0);
    static int evaluate_probed_cylinder(const giPoint3coDynArr& points,
                                        const doublecoDynArr& probe_radii, int inside,
                                        giPoint3& axis_point, giUnitVec3& axis, double& radius,
                                        double& error, const giUnitVec3coDynArr& normals,
                                        const giAngle& angle, int n_added = 0);
    // Several distinct cylinders, one search per given direction.
    static int evaluate_multiple_cylinders(const giPoint3coDynArr& points,
                                           const giUnitVec3coDynArr& directions, double tolerance,
                                           const giAngle& angle, int n_wanted,
                                           tsFittedCylindercoDynArr& results);

    // Cones: apex, axis (pointing from the cone towards the apex) and half
    // angle in radians; the same two forms as the cylinder.
    static int evaluate_cone(const giPoint3coDynArr& points, giPoint3& apex, giUnitVec3& axis,
                             double& half_angle, double& error, const giUnitVec3& nominal_axis,
                             const giAngle& angle, int n_added = 0);
    static int evaluate_cone(const giPoint3coDynArr& points, giPoint3& apex, giUnitVec3& axis,
                             double& half_angle, double& error, const giUnitVec3coDynArr& normals,
                             const giAngle& angle, int n_added = 0);
    static int evaluate_probed_cone(const giPoint3coDynArr& points,
                                    const doublecoDynArr& probe_radii, int inside,
                                    const giPoint3coDynArr& contact_points, giPoint3& apex,
                                    giUnitVec3& axis, double& half_angle, double& error,
                                    const giUnitVec3& nominal_axis, const giAngle& angle,
                                    int n_added = 0);
    static int evaluate_probed_cone(const giPoint3coDynArr& points,
                                    const doublecoDynArr& probe_radii, int inside,
                                    const giPoint3coDynArr& contact_points, giPoint3& apex,
                                    giUnitVec3& axis, double& half_angle, double& error,
                                    const giUnitVec3coDynArr& normals, const giAngle& angle,
                                    int n_added = 0);
    static int evaluate_multiple_cones(const giPoint3coDynArr& points,
                                       const giUnitVec3coDynArr& directions, double tolerance,
                                       const giAngle& angle, int n_wanted,
                                       tsFittedConecoDynArr& results);
    // Process-wide tolerance of the cone fit's non-physical classes; returns
    // the previous value.
    static double set_cone_non_physical_tolerance(double tolerance);

    // Torus: centre, axis, major (centre-circle) and minor (tube) radius.
    static int evaluate_torus(const giPoint3coDynArr& points, giPoint3& centre, giUnitVec3& axis,
                              double& major_radius, double& minor_radius, double& error);
    // The same from the caller's start values held in the outputs.
    static int evaluate_torus_with_guess(const giPoint3coDynArr& points, giPoint3& centre,
                                         giUnitVec3& axis, double& major_radius,
                                         double& minor_radius, double& error);
    static int evaluate_probed_torus(const giPoint3coDynArr& points,
                                     const doublecoDynArr& probe_radii, int inside,
                                     giPoint3& centre, giUnitVec3& axis, double& major_radius,
                                     double& minor_radius, double& error);

    // Ellipse in the plane: centre, semi-axes and the angle of the major axis
    // from the x axis (radians).
    static int evaluate_ellipse(const giPoint2coDynArr& points, giPoint2& centre,
                                double& semi_major, double& semi_minor, double& angle,
                                double& error);
    // Ellipse in the plane through plane_point spanned by the orthonormal
    // axes x_axis and y_axis, fitted to 3D points.
    static int evaluate_ellipse2(const giPoint3& plane_point, const giUnitVec3& x_axis,
                                 const giUnitVec3& y_axis, const giPoint3coDynArr& points,
                                 giPoint3& centre, giUnitVec3& major_axis, double& semi_major,
                                 double& semi_minor, double& error);

    // Axis of a surface of revolution from points with unit surface normals
    // (one per point). A set axis (and point) in the outputs is taken as the
    // start; an unset axis (x == -DBL_MAX) asks for a search.
    static int evaluate_axis_rev(const giPoint3coDynArr& points, const giUnitVec3coDynArr& normals,
                                 giPoint3& point, giUnitVec3& axis, double& error);

   private:
    friend class tsLeastSquareDistributionQuality;

    // Principal axes of a point set: the centroid, the singular values of the
    // centred n x 3 matrix (largest first) and its right singular vectors
    // (columns of V). Fails (0) below 2 points or on non-finite coordinates.
    static int principal_axes(const giPoint3coDynArr& points, giPoint3& centroid,
                              mlVector& singular_values, mlMatrix& V);
};
