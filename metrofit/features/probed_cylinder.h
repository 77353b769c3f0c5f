// Least-squares cylinder through the centres of probe balls that touched it.
//
// tsLeastSquareProbedCylinder: the parameters, canonical form, scales and
//   degrees of freedom of tsLeastSquareCylinder; the model keeps its own copy
//   of the probe radii (one per point; a missing entry counts as 0), negated
//   when inside == 0. With s_i that stored radius:
//     d(Q_i) = F(Q_i) + s_i - r,
//   so a ball that touched a shaft from outside (inside == 0) has its centre
//   at r + rho from the axis, one that touched a bore from inside at r - rho;
//   r is the radius of the touched surface. The gradient is the plain
//   cylinder's.
//
// tsCalculateLeastSquareProbedCylinder(points, radii, inside, axis_point,
//   axis_dir, radius, deviation, nominal_axis, angle, normals, n_added):
//   tsCalculateLeastSquareCylinder step by step (same constants, same update
//   mode, same selection rules) on the probed model; its first start axis is
//   tsCylinder_InitialSolutionProbed's, and every projected circle is the
//   least-squares probed circle (evaluate_probed_circle's) of the ball
//   centres projected along the trial axis. A candidate axis whose probed
//   circle fit fails is dropped. The normals test is the plain cylinder's.
//   Refuses (0, outputs untouched) what the plain fit refuses, and probe radii
//   that are not one finite value per point.
//
// tsCylinder_InitialSolutionProbed(points, radii, inside, direction): the
//   direction search of tsCylinder_InitialSolution with the probed circle and
//   its residuals |(|Q - C| - r) + s rho| (s = +1 inside, -1 outside).
//   Returns 1; 0 (direction untouched) for fewer than 3 points, non-finite
//   input or radii that are not one per point.
//
// tsLeastSquareEvaluator::evaluate_probed_cylinder, two forms, in the
//   argument order of the plain cylinder with the probe radii and side flag
//   after the points:
//     (points, radii, inside, axis_point, axis, radius, error, nominal_axis,
//      angle, n_added)
//     (points, radii, inside, axis_point, axis, radius, error, normals, angle,
//      n_added)
// The models and drivers are defined with the plain cylinder's in
// cylinder.cpp, which holds the search both share.
#pragma once

#include "metrofit/features/cylinder.h"
#include "metrofit/platform/containers/dyn_arr.h"

class tsLeastSquareProbedCylinder : public tsLeastSquareCylinder {
   public:
    // Keeps a reference to points (the array must outlive the model) and a
    // copy of the radii.
    tsLeastSquareProbedCylinder(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                                int inside);

    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;

    // The signed radii as the distance uses them (negated for inside == 0).
    const doublecoDynArr& probe_radii() const { return radii_; }

   private:
    doublecoDynArr radii_;
};

int tsCalculateLeastSquareProbedCylinder(const giPoint3coDynArr& points,
                                         const doublecoDynArr& radii, int inside,
                                         giPoint3& axis_point, giUnitVec3& axis_dir, double& radius,
                                         double& deviation, const giUnitVec3& nominal_axis,
                                         const giAngle& angle, const giUnitVec3coDynArr& normals,
                                         int n_added);

int tsCylinder_InitialSolutionProbed(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                                     int inside, giVector3& direction);
