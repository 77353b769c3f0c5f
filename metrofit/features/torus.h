// Least-squares torus through measured points and through the centres of
// probe balls that touched it.
//
// tsLeastSquareTorus, p = (cx, cy, cz, ax, ay, az, R, r): the centre C, the
//   axis a (any non-zero length while the solver runs), the major radius R
//   (of the centre circle of the tube) and the minor radius r (of the tube).
//   With u = a / |a|, v = Q - C, rho = |u x v| the distance of Q from the axis
//   and h = u . v its height above the equatorial plane,
//     s(Q) = sqrt((rho - R)^2 + h^2), the distance of Q from the centre circle,
//     d(Q) = s(Q) - r,
//   the orthogonal distance from the tube, positive outside it. 8 parameters,
//   7 degrees of freedom (|a| is not free). Gradient, with the radial part
//   w = v - h u and e = rho - R:
//     dd/dC = -(e w / rho + h u) / s,   dd/da = h R w / (rho |a| s),
//     dd/dR = -e / s,                   dd/dr = -1.
//   On the axis (rho = 0) the terms in w / rho vanish with w; on the centre
//   circle (s = 0), where s is not differentiable, only dd/dr = -1 is kept.
//   normalize_parameters makes a a unit vector (a zero axis becomes
//   (1, 0, 0)) and leaves everything else: a and -a describe the same torus,
//   and a negative radius describes no torus at all, so there is nothing to
//   turn round. Column scales (1, 1, 1, S, S, S, 1, 1), S = sqrt(R^2 + r^2)
//   (1 when that is 0): a turn of the axis by a small angle t moves the
//   surface along its normal by R t sin(theta) sin(phi) (theta round the
//   ring, phi round the tube), so R would make the scaled tilt columns as
//   large as the centre's; the r in S keeps a tilt about a near-sphere
//   (R -> 0), which moves nothing, from looking determined.
//
// tsLeastSquareProbedTorus: the same parameters for points that are centres
//   of probe balls of radius rho_i. The radii are copied at construction
//   (missing entries count as 0) and negated when inside == 0, giving q_i;
//     d(Q_i) = s(Q_i) + q_i - r.
//   With inside == 0 the ball touched the tube from outside (its centre lies
//   at r + rho_i from the centre circle), otherwise from inside a hollow
//   tube (at r - rho_i); r is the tube radius of the touched surface. The
//   gradient is the plain torus's.
//
// Entry points (tsLeastSquareEvaluator, declared in least_square_evaluator.h):
// - evaluate_torus(points, centre, axis, major_radius, minor_radius, error).
//   Given its axis line, a torus is a circle in the meridian half-plane of
//   that line, where each point has the coordinates (rho, h); the torus fit
//   is that circle fit minimised over the axis line. The start search uses
//   this. Axis directions: the three principal axes of the centred points,
//   least spread first (a whole ring is flat along its axis; a short arc of
//   a fat ring, a quarter of a ring with R = 2 r, spreads about as much
//   along the axis as across the chord, so any of the three may be the
//   closest). Axis positions: a 9 x 9 grid in the plane through the
//   centroid normal to the direction, reaching 3 times the points' RMS
//   distance from their centroid on either side (the centre of a quarter
//   ring lies about twice that distance from the points' centroid). For
//   each axis line the algebraic circle of the meridian points gives R and
//   the centre's height, and the mean distance from that centre circle
//   gives r; the torus is scored by its RMS distance. The 3 best-scored
//   lines of each direction start one solver run each, and the lowest
//   result with R > 0 and r > 0 (the earliest on a tie) starts the final
//   run. The screening and these 9 runs use at most 200 of the points,
//   spread evenly over the array; the final run uses all of them. A plane
//   fit with the projected circle as start (the obvious start) fails on
//   short fat arcs: their projection into the plane is a blob whose
//   least-squares circle is far smaller than the ring. No random numbers
//   are drawn.
// - evaluate_torus_with_guess(...): the final run alone, from the torus held
//   in the outputs on entry (centre, axis, major and minor radius), for a
//   caller that knows roughly where the torus lies; a guess that is unset,
//   not finite or has a zero axis is refused.
// - evaluate_probed_torus(points, probe_radii, inside, ...): evaluate_torus's
//   search on the probed model; the start's r is the mean of s + q_i. The
//   radii are those of the touched surface.
// A final run that ends at the solver's limit of 200 passes is continued
// once; a second such end means the sum of squares has no minimum in reach
// (points on a cylinder are approached by ever larger tori) and the fit is
// refused. Outputs: the centre, the unit axis with its largest component (by
// magnitude; the first of equal ones) positive, R, r, and the RMS distance of
// the points from the tube. Spindle tori (0 < R < r) are accepted: the
// distance above is still the distance from the surface swept by the tube.
// All three return 0 and write nothing for: fewer than 4 points; a non-finite
// coordinate or probe radius; a probe-radius array whose length differs from
// the point count; all points equal, on one line or in one plane (smallest
// principal spread at most 1e-10 of the largest: a plane of points is
// approached by ever larger tori, a circle of them leaves R and r free); a
// result with R <= 0 or r <= 0 (a sphere or a circle, not a torus); a
// result that the points do not determine: fewer than 7 points, or points
// that leave one of the 7 degrees of freedom free, such as two circles
// about the axis (raw distribution measure at most 1e-7); and the search
// without a minimum above.
//
// tsLeastSquareDistributionQuality::distribution_quality_torus(points,
//   centre, axis, R, r) (defined in torus.cpp): the torus model's
//   point_distribution_quality at (centre, axis, R, r), divided by 0.51.
//   With the scales above and points spread evenly over a whole torus the
//   7 eigenvalues are about 1 (r), 0.5 (R, the centre along the axis), 0.25
//   (the centre across the axis) and 0.25 R^2 / (R^2 + r^2) (the two
//   tilts): the measure is 0.86 for R = 2 r, 0.94 for R = 5 r, 0.96 for
//   R = 20 r; a quarter of the ring gives about 0.09, half of the tube
//   (outer side) of a whole ring about 0.5, a 30 x 90 degree patch 0.006.
//   0.0 below 3 points, for non-finite arguments or a zero axis.
#pragma once

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/maths/vector.h"

class tsLeastSquareTorus : public tsLeastSquareDistance3 {
   public:
    // Keeps a reference to points: the array must outlive the model.
    explicit tsLeastSquareTorus(const giPoint3coDynArr& points);

    // Stores p and keeps the centre, the unit axis, 1 / |a| and the radii for
    // the distances.
    void set_parameters(const mlVector& p) override;
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;
    int n_independent_parameters() const override { return 7; }
    void parameter_scales(mlVector& s) const override;

   protected:
    // s(Q_i), the distance from the centre circle.
    double circle_distance(int i) const;
    // d = s - r + shift and its gradient.
    void distance_and_gradient(int i, double shift, double& d, mlVector& gradient) const;

   private:
    double c_[3] = {0.0, 0.0, 0.0};
    double u_[3] = {1.0, 0.0, 0.0};
    double inv_length_ = 1.0;
    double major_ = 0.0, minor_ = 0.0;
};

class tsLeastSquareProbedTorus : public tsLeastSquareTorus {
   public:
    // Keeps a reference to points (the array must outlive the model) and a
    // copy of the radii.
    tsLeastSquareProbedTorus(const giPoint3coDynArr& points, const doublecoDynArr& probe_radii,
                             int inside);

    void get_distance_and_gradient(double& d, mlVector& gradient, int i) const override;
    void get_distance(double& d, int i) const override;

    // The signed radii q_i as the distance adds them (negated for inside == 0).
    const doublecoDynArr& probe_radii() const { return offsets_; }

   private:
    doublecoDynArr offsets_;
};
