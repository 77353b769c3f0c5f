// Least-squares circles: in the plane, touched by probe balls in the plane,
// and free in space.
//
// tsLeastSquareCircle2, p = (cx, cy, r): centre C and radius r.
//   d(Q) = |Q - C| - r, positive outside the circle. 3 parameters, 3 degrees
//   of freedom; normalize_parameters leaves p as it is (a negative radius is
//   not turned round). Gradient (-(Q - C) / |Q - C|, -1); for a point within
//   1e-7 of the centre, where the direction is undefined, (0, 0, -1).
//
// tsLeastSquareProbedCircle2, same p; the model keeps its own copy of the
//   signed probe radii q (one per point; a missing entry counts as 0), negated
//   when side == 0. d(Q) = |Q - C| + q - r, so with side == 0 the ball centre
//   lies at r + rho from C (the ball touched the circle from outside, e.g. a
//   shaft), with side != 0 at r - rho (it touched a bore from inside); r is
//   the radius of the touched circle. Gradient as for the plain circle.
//
// tsLeastSquareCircle3, p = (cx, cy, cz, ax, ay, az, r): centre C, axis a
//   (the normal of the circle's plane, any non-zero length) and radius r.
//   With u = a / |a|, v = Q - C, rho = |u x v| (distance from the axis) and
//   h = u . v (height above the circle's plane):
//     d(Q) = sqrt((rho - r)^2 + h^2), the true distance from Q to the circle
//   in space, never negative. 7 parameters, 6 degrees of freedom (the length
//   of a is not free). normalize_parameters makes a a unit vector (a zero
//   axis becomes (1, 0, 0)); a and -a describe the same circle and neither
//   is preferred. Column scales (1, 1, 1, r, r, r, 1): a turn of the axis
//   moves the circle by about r times the angle. get_distance (and the
//   gradient call) also keep the square of the distance just computed, which
//   get_last_square_distance returns.
//   Gradient, with the radial part w = v - h u, e = rho - r:
//     dd/dC = -(e w / rho + h u) / d,   dd/da = h r w / (rho |a| d),
//     dd/dr = -e / d.
//   On the axis (rho = 0) the terms with w / rho are zero (w is zero there);
//   on the circle itself (d = 0), where d is not differentiable, the
//   gradient is zero.
//
// Entry points (tsLeastSquareEvaluator, declared in least_square_evaluator.h):
//   evaluate_circle(points2, centre, radius, error): one solver run from the
//     centroid with the mean distance from it as radius; error = RMS of d.
//   evaluate_circle2(plane point, plane normal, points3, centre, radius,
//     error): the circle in the given plane. The points are projected into
//     the plane's 2D frame and fitted with evaluate_circle; the centre is
//     mapped back into space. The error is the RMS distance of the points
//     from that circle in space, so heights above the plane count in full
//     although the fit ignores them.
//   evaluate_circle3(points3, centre, normal, radius, error): plane fit, then
//     evaluate_circle2 in that plane, then one solver run of the 3D model;
//     error = RMS of d from that run. Between the in-plane circle and the
//     solver run the start is brought to the least-squares circle in space by
//     Gauss-Newton on the two components (rho - r, h) of each point's offset,
//     whose squares add up to d^2 (same minimum): on d alone Gauss-Newton
//     cannot see the curvature across each point's offset direction and
//     converges only linearly, which stops the solver short of the minimum
//     on short arcs. With more than 10000 points the fit works on 10000 of
//     them: the first 10000 when there are fewer than 12000, otherwise an even
//     spread (index trunc(count * i / 10000.0)). The normal's sense follows
//     the plane fit and carries no meaning.
//   evaluate_probed_circle(points2, probe radii, inside, centre, radius,
//     error): ten solver runs from starts drawn with a generator seeded 1
//     around the centroid (spread: the largest probe radius); the lowest
//     error wins, the earlier run on a tie.
// Each returns 0 and writes nothing for fewer than 3 points, a non-finite
// coordinate or probe radius, probe radii not one per point, an unset or
// non-finite plane normal or point (evaluate_circle2), or a failed plane or
// in-plane fit (evaluate_circle3); otherwise 1. Degenerate but finite input
// (collinear or coincident points) is not refused: the solver returns what
// it reaches, e.g. a very large circle for points on a line.
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareCircle2 : public tsLeastSquareDistance2 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareCircle2(const giPoint2coDynArr& points);

    void set_parameters(const mlVector& p) override;  // caches C and r
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;

   protected:
    double cx_ = 0.0, cy_ = 0.0, r_ = 0.0;
};

class tsLeastSquareProbedCircle2 : public tsLeastSquareCircle2 {
   public:
    tsLeastSquareProbedCircle2(const giPoint2coDynArr& points, const doublecoDynArr& probe_radii,
                               int side);

    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;

    // The signed radii as the distance uses them (negated for side == 0).
    const doublecoDynArr& probe_radii() const { return radii_; }

   private:
    doublecoDynArr radii_;
};

class tsLeastSquareCircle3 : public tsLeastSquareDistance3 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareCircle3(const giPoint3coDynArr& points);

    void set_parameters(const mlVector& p) override;  // caches C, u, 1/|a| and r
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;
    double get_last_square_distance() const override { return last_square_; }
    int n_independent_parameters() const override { return 6; }
    void parameter_scales(mlVector& scales) const override;

   private:
    double cx_ = 0.0, cy_ = 0.0, cz_ = 0.0;
    double ux_ = 1.0, uy_ = 0.0, uz_ = 0.0, inv_length_ = 1.0;
    double r_ = 0.0;
    mutable double last_square_ = 0.0;
};
