// Least-squares cone through the centres of probe balls that touched it.
//
// tsLeastSquareProbedCone: the parameters, canonical form, scales and degrees
//   of freedom of tsLeastSquareCone; the model keeps its own copy of the
//   probe radii (one per point; a missing entry counts as 0), negated when
//   inside == 0. With s_i that stored radius:
//     d(Q_i) = F cos a + G sin a - h + s_i,
//   so a ball that touched the cone from outside (inside == 0) has its centre
//   a radius outside the surface, one that touched a countersink from inside
//   a radius inside it; the fitted cone is the touched surface. The gradient
//   is the plain cone's.
//
// tsCalculateLeastSquareProbedCone(points, radii, inside, guess_points, apex,
//   axis, half_angle, deviation, nominal_axis, angle, normals, n_added):
//   tsCalculateLeastSquareCone step by step on the probed model, with its
//   start values generated from guess_points (for instance the points moved
//   onto the surface along their contact directions; the ball centres
//   themselves do as well, their cone shares the axis) and with its own
//   non-physical tolerance. Refuses (0, outputs untouched) what the plain fit
//   refuses, probe radii that are not one finite value per point, and
//   non-finite guess points.
//
// tsSetLeastSquareProbedConeNonPhysicalTolerance(t): the probed fit's
//   process-wide tolerance (radians, default 0.05), independent of the plain
//   cone's; returns the previous value.
//
// tsLeastSquareEvaluator::evaluate_probed_cone, two forms in the order of the
//   plain cone's with (probe radii, inside, contact points) after the points;
//   the contact points are the guess points.
// The model and driver are defined with the plain cone's in cone.cpp.
#pragma once

#include "metrofit/features/cone.h"
#include "metrofit/platform/containers/dyn_arr.h"

class tsLeastSquareProbedCone : public tsLeastSquareCone {
   public:
    // Keeps a reference to points (the array must outlive the model) and a
    // copy of the radii.
    tsLeastSquareProbedCone(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                            int inside);

    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;

    // The signed radii as the distance uses them (negated for inside == 0).
    const doublecoDynArr& probe_radii() const { return radii_; }

   private:
    doublecoDynArr radii_;
};

int tsCalculateLeastSquareProbedCone(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                                     int inside, const giPoint3coDynArr& guess_points,
                                     giPoint3& apex, giUnitVec3& axis, double& half_angle,
                                     double& deviation, const giUnitVec3& nominal_axis,
                                     const giAngle& angle, const giUnitVec3coDynArr& normals,
                                     int n_added);

double tsSetLeastSquareProbedConeNonPhysicalTolerance(double tolerance);
