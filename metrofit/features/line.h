// Line fits: direct fits of measured points in the plane, in a given plane of
// space and in space, and the least-squares model of probe-ball centres in
// the plane.
//
// Direct fits (tsLeastSquareEvaluator, defined in line.cpp). Each takes the
// principal axes of the centred points: the direction is the right singular
// vector of the largest singular value (the first of equal ones, so equal
// points give the decomposition's first axis), with the sense the
// decomposition gives; the point is the centroid (the foot of the centroid
// on the line); the error is the RMS distance of the points from the line.
// - evaluate_line(points2, point, direction, error): in the plane.
// - evaluate_line3(points3, point, direction, error): in space.
// - evaluate_line2(plane_point, plane_normal, points3, point, direction,
//   error): the points are projected into the plane through plane_point
//   normal to plane_normal (tsUtils::ProjectPointsToPlane), fitted there with
//   evaluate_line, and the 2D line is mapped back into space, so the line
//   lies in the plane. Its error is sqrt(sum |u x (P_i - point)|^2 / n) over
//   the given points: heights above the plane count in full.
// They refuse (0, outputs untouched) fewer than 2 points and non-finite
// coordinates; evaluate_line2 also a non-finite plane point and a plane
// normal without direction.
//
// tsLeastSquareProbedLine2: p = (h, nx, ny), the line n.X = h in the plane;
// slot 0 is the signed distance of the line from the origin along n, slots
// 1-2 the normal n. The probe radii rho_i are copied at construction
// (missing entries count as 0, extra ones are ignored); with side == 0 each
// copy is negated (q_i = -rho_i), otherwise kept (q_i = rho_i).
//   d(P_i) = n.P_i - h - q_i, with n as stored (not renormalised):
// positive on the side into which n points, zero for a ball centre at
// distance rho_i from the line on the side that `side` names (side != 0:
// along n, side == 0: against n). Gradient (-1, P_i - s n), s = n.P_i: the
// derivative along the unit circle of normals. normalize_parameters makes n
// a unit vector (a zero normal becomes (1, 0)) and keeps h. 3 parameters,
// 2 degrees of freedom.
//
// evaluate_probed_line2(points2, probe_radii, directions, point, normal,
// error): starts from evaluate_line of the ball centres (point p0, direction
// d0) with the normal n0 = d0 turned a quarter turn counter-clockwise, at
// (n0.p0, n0). The contact directions are summed into S (an unset direction
// adds nothing). The side is 1 when n0.S > 0 and 0 otherwise; when S is zero
// both sides are fitted (side 1 first) and the lower mean squared distance
// wins, a tie going to the first. Outputs:
// - normal: the line's fitted unit NORMAL (not its direction, unlike
//   evaluate_line), reversed when it points against S;
// - point: h n - (p0 - (n.p0) n), with n as fitted (before that reversal):
//   on the fitted line, but with the component of p0 along the line taken
//   with a MINUS sign; callers rely on this form;
// - error: the RMS of the fitted distances (ball centre to offset line).
// Refuses (0, outputs untouched) fewer than 2 points, non-finite
// coordinates, probe radii or directions, a probe-radius array whose length
// differs from the point count, a direction array that is neither empty nor
// of that length, a failure of evaluate_line, and the case where no solver
// run could evaluate the distances.
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"

class tsLeastSquareProbedLine2 : public tsLeastSquareDistance2 {
   public:
    tsLeastSquareProbedLine2(const giPoint2coDynArr& points, const doublecoDynArr& probe_radii,
                             int side);

    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return 2; }

   private:
    doublecoDynArr offsets_;  // q_i, signed by the side
};
