// Least-squares ellipse in the plane, fitted by true orthogonal distance.
//
// tsLeastSquareEllipse2, p = (cx, cy, r, e1, e2). The ellipse is the image of
// the unit circle under the symmetric matrix
//     M = | r + e1   e2   |
//         |   e2   r - e1 |,   X(u) = C + M u, |u| = 1,
// so r is the mean of the semi-axes and e = (e1, e2) = ((a - b) / 2)
// (cos 2t, sin 2t) carries the half difference of the semi-axes a >= b and
// the major axis' angle t in doubled form. All five entries are lengths. The
// layout has no singularity at a circle (e = 0, where an angle would be
// undetermined): near-circles keep a well-conditioned Jacobian and the
// solver moves freely between circles and ellipses of any orientation.
// Conversions: a = r + |e|, b = r - |e|, t = atan2(e2, e1) / 2.
//
// Distance: d(Q) = signed distance from Q to its nearest point (the foot) on
// the ellipse, positive outside. The foot is found in the ellipse's own frame
// with the point reflected into the first quadrant: for a point (x, y), x, y
// > 0, and s = t + b^2 it is the root of the monotone function
//     F(s) = (a x / (s + (a - b)(a + b)))^2 + (b y / s)^2 - 1,   s > 0,
// which is convex and decreasing, so Newton's method from the left of the
// root climbs to it without overshooting. It starts at s = b^2, the value at
// which a point on the curve is solved (outside, F(b^2) > 0), or, inside, one
// Newton step from there, which lands left of the root, clamped to the lower
// bound max(b y, a x - (a - b)(a + b)); points near the curve so start within
// their squared distance of the root. A bisection (geometric while the
// bracket spans more than a factor 4) against the upper bound hypot(a x, b y)
// takes over whenever a Newton step does not shrink (near the pole of a point
// close to the major axis), so the root is found to rounding in a bounded
// number of steps (at most 100). Points on an axis are solved in closed
// form: on the minor axis the foot is the vertex (0, b); on the major axis
// inside the evolute (a x < a^2 - b^2) it is off the axis, (a^2 x / (a^2 -
// b^2), b sqrt(1 - (X / a)^2)), else the vertex (a, 0). So the distance is
// exact to rounding for points at the centre, on the axes, far away and for
// a = b. The solution runs in units of the larger semi-axis (a power of two),
// so the ellipse's size does not matter.
// The foot is not unique on the inner part of the major axis; there the one
// with non-negative minor coordinate is taken (the gradient is then one of
// the two one-sided gradients).
// Gradient, by implicit differentiation at the foot: with u the unit vector
// that M maps to the foot (X = C + M u) and n the unit outward normal there,
// d = n.(Q - X); the foot's own motion along the curve is tangent and drops
// out, so
//     dd/dC = -n, dd/dr = -n.u, dd/de1 = -(n1 u1 - n2 u2),
//     dd/de2 = -(n1 u2 + n2 u1).
// 5 parameters, 5 degrees of freedom. Any vector with M regular describes the
// ellipse with semi-axes |r + |e||, |r - |e|| (M and -M give the same set);
// normalize_parameters brings it to the canonical form r >= |e| (a >= b >= 0)
// and leaves canonical vectors as they are. An ellipse whose minor semi-axis
// is at most 2^-500 of the major one (a singular M included) is its axis
// segment to rounding, and one seen from farther than 2^500 of its size is a
// point: there the distance from the segment is used.
//
// Entry points (tsLeastSquareEvaluator, declared in least_square_evaluator.h):
//   evaluate_ellipse(points2, centre, semi_major, semi_minor, angle, error):
//     start from the direct ellipse fit (tsDirectEllipse2); when that finds
//     no ellipse (nearly circular or nearly straight arcs can give a
//     hyperbola), from the least-squares circle with e = 0. The solver
//     refines it. On a noisy short arc the minimum can lie far along a
//     flat valley towards very large ellipses that one run does not finish:
//     while a run takes more than 20 passes and still lowers the sum of
//     squares, another starts afresh from its result, up to 10 runs; if the
//     last stopped at the solver's pass limit (200) no minimum was reached
//     and the fit is refused. Well-posed data take one run of a few passes.
//     On such arcs (60 degrees and less, with noise) the valley is so flat
//     that the solver can stop where its sum of squares no longer resolves
//     the descent: another far-off minimum may then be lower by some 1e-5.
//     Outputs: a >= b > 0, angle of the major axis from the x axis in
//     [0, pi) (for a circle, a = b and the angle is whatever the solver's e
//     leaves), error = RMS orthogonal distance.
//   evaluate_ellipse2(plane point O, x_axis, y_axis, points3, centre,
//     major_axis, semi_major, semi_minor, error): the ellipse in the plane
//     through O spanned by the axes. The axes are unit vectors by type; they
//     must be orthogonal within 1e-6 (|x.y|), and y is then made exactly
//     perpendicular to x. The points are taken into that frame ((P - O).x,
//     (P - O).y), fitted with evaluate_ellipse, and the centre and the major
//     axis (a unit vector in the plane, sense not meaningful) are mapped back.
//     The error is the RMS distance in space: a point's height h above the
//     plane adds h^2 to its squared distance from the ellipse exactly.
// Each returns 0 and writes nothing for fewer than 5 points, a non-finite
// coordinate, points that do not span the plane (all at one spot, or on one
// line, to 1e-12 of their extent and position), a bad plane (unset or
// non-finite point or axis, axes not orthogonal), or a result that is not an
// ellipse (b at most 1e-12 a, or not finite, or no minimum reached);
// otherwise 1.
//
// distribution_quality_ellipse (tsLeastSquareDistributionQuality) is the raw
// model measure of this model at (centre, a, b, angle); 0.0 below 3 points,
// for non-finite arguments and for semi-axes that are not positive. Raw
// values, evenly spread points: a whole circle 0.707, a whole ellipse of axis
// ratio 2 0.58, of ratio 10 0.30; half of the ratio-2 ellipse 0.033, a
// quarter 0.0024 (the measure falls steeply with the arc: short arcs leave
// the ellipse poorly determined).
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareEllipse2 : public tsLeastSquareDistance2 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareEllipse2(const giPoint2coDynArr& points);

    void set_parameters(const mlVector& p) override;  // caches C and M's eigen frame
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;

    // The parameter vector of the ellipse with the given centre, semi-axes
    // (semi_major along angle, semi_minor across it) and angle in radians.
    static mlVector parameters_of(const giPoint2& centre, double semi_major, double semi_minor,
                                  double angle);
    // The ellipse of a parameter vector of 5 entries: a >= b >= 0 and the
    // angle of the major axis in [0, pi). Returns 0 for a vector of another
    // size.
    static int ellipse_of(const mlVector& p, giPoint2& centre, double& semi_major,
                          double& semi_minor, double& angle);

    // An axis angle brought into [0, pi).
    static double half_turn(double angle);

    // Signed distance (positive outside) of the point (x, y), given in the
    // ellipse's frame, from the ellipse with semi-axes a along x and b along y
    // (a, b >= 0 in either order), and its foot (fx, fy) in that frame.
    static double foot_point(double a, double b, double x, double y, double& fx, double& fy);

   private:
    // What the foot point needs of the semi-axes: their order, whether the
    // ellipse is its segment, and the power-of-two unit of the larger.
    struct FootFrame {
        bool swap = false, segment = true;
        double big = 0.0, small = 0.0, to = 1.0, back = 1.0;
    };
    static FootFrame foot_frame(double a, double b);
    static double foot_with(const FootFrame& f, double x, double y, double& fx, double& fy);

    // Distance of point i, the foot's preimage u and its outward normal n,
    // both in the world frame.
    double distance_terms(int i, double* u, double* n) const;

    double cx_ = 0.0, cy_ = 0.0;
    // M = l1 v v^T + l2 w w^T with v = (c, s) and w = (-s, c).
    double c_ = 1.0, s_ = 0.0, l1_ = 0.0, l2_ = 0.0;
    FootFrame foot_;
};
