// Plane fits: the direct fit of measured points and the least-squares model
// of probe-ball centres.
//
// evaluate_plane(points, point, normal, error) (tsLeastSquareEvaluator):
// principal axes of the centred points. The normal is the right singular
// vector of the smallest singular value (the first of equal ones); its sense
// is whatever the decomposition gives. point is the centroid, error the RMS
// of the signed distances n.(P - point). Refuses fewer than 3 points and
// non-finite coordinates. Collinear or equal points are not refused: the
// normal is then one of the directions across the line, as the
// decomposition orders them.
//
// tsLeastSquareProbedPlane: p = (h, nx, ny, nz), the plane n.X = h; slot 0 is
// the signed distance of the plane from the origin along n, slots 1-3 the
// normal n. The probe radii rho_i are copied at construction (missing
// entries count as 0, extra ones are ignored); with side == 0 each copy is
// negated (q_i = -rho_i), otherwise kept (q_i = rho_i).
//   d(P_i) = n.P_i - h - q_i, with n as stored (not renormalised):
// positive on the side into which n points, zero for a ball centre at
// distance rho_i from the plane on the side that `side` names (side != 0:
// along n, side == 0: against n). Gradient (-1, P_i - s n), s = n.P_i: the
// derivative along the unit sphere of normals. normalize_parameters makes n
// a unit vector (a zero normal becomes (1, 0, 0)) and keeps h, so the
// canonical form has |n| = 1; n and -n with h and -h are the same plane with
// d of opposite sign, and the solver keeps the sense it starts with.
// 4 parameters, 3 degrees of freedom.
//
// evaluate_probed_plane(points, probe_radii, directions, point, normal,
// error): starts from evaluate_plane of the ball centres (point p0, normal
// n0) at (n0.p0, n0). The contact directions are summed into S (an unset
// direction adds nothing). The side is 1 when n0.S > 0 and 0 otherwise; when
// S is zero both sides are fitted (side 1 first) and the lower mean squared
// distance wins, a tie going to the first. Outputs:
// - normal: the fitted unit normal, reversed when it points against S;
// - point: h n - (p0 - (n.p0) n), with n as fitted (before that reversal):
//   the foot of the perpendicular from the origin moved by the in-plane part
//   of p0 taken with a MINUS sign. It lies on the fitted plane but is not the
//   projection of p0; callers rely on this form;
// - error: the RMS of the fitted distances (ball centre to offset plane).
// Refuses (0, outputs untouched) fewer than 3 points, non-finite
// coordinates, probe radii or directions, a probe-radius array whose length
// differs from the point count, a direction array that is neither empty nor
// of that length, a failure of evaluate_plane, and the case where no solver
// run could evaluate the distances.
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"

class tsLeastSquareProbedPlane : public tsLeastSquareDistance3 {
   public:
    tsLeastSquareProbedPlane(const giPoint3coDynArr& points, const doublecoDynArr& probe_radii,
                             int side);

    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return 3; }

   private:
    doublecoDynArr offsets_;  // q_i, signed by the side
};
