// Sphere fits: a direct algebraic fit and the geometric least-squares models
// of measured points and of probe-ball centres.
//
// tsSphereFit: the algebraic sphere x^2 + y^2 + z^2 + D x + E y + F z + G = 0
// through the points in the least-squares sense, from the 4 x 5 augmented
// normal equations of the raw coordinate sums, reduced by matrix_rowred.
// Centre (-D/2, -E/2, -F/2), radius sqrt(|centre|^2 - G). It needs no start
// value but minimises an algebraic residual, not the distances, and its sums
// are taken about the origin: use it for rough starts near the origin, not as
// a result. status(): 1 too few points (below 4), 2 a non-finite coordinate,
// 5 fitted; before a fit the centre is unset (DBL_MAX) and the radius 0.
// Coplanar or otherwise degenerate points are not detected: pivots of 1e-20
// or less are skipped and the result is what the reduction leaves, a NaN
// radius included. chi() is the RMS of |P - centre| - radius (DBL_MAX when
// not fitted).
//
// tsLeastSquareSphere: p = (cx, cy, cz, r), slots 0-2 the centre C, slot 3
// the radius. d(Q) = |Q - C| - r: orthogonal, positive outside the sphere.
// Gradient (-(Q - C) / |Q - C|, -1); within 1e-7 of the centre, where the
// direction is undefined, (0, 0, 0, -1). 4 parameters, 4 degrees of freedom;
// normalize_parameters leaves the vector as it is, so a negative radius is
// kept (it describes the same surface with d of opposite sign).
//
// tsLeastSquareProbedSphere: the same parameters for points that are centres
// of probe balls of radius rho_i. The radii are copied at construction
// (missing entries count as 0, extra ones are ignored); with inside == 0 each
// copy is negated, so q_i = -rho_i (ball touching the sphere from outside),
// otherwise q_i = rho_i (ball touching the wall of a hollow sphere from
// inside). d(Q_i) = |Q_i - C| + q_i - r; r is the radius of the touched
// surface. Gradient and canonical form as for the plain sphere.
//
// Entry points (tsLeastSquareEvaluator, defined in sphere.cpp):
// - evaluate_sphere(points, centre, radius, error): the random multi-start
//   least-squares fit. Attempt 0 starts at the centroid with radius
//   R0 = 3 range(); if its mean squared distance is then below 0.001 R0 (a
//   length compared with a squared length: the rule that decides how often
//   the random attempts run) the fit ends. Otherwise 19 more attempts each
//   start from the best of 100 random candidates, drawn from a generator
//   seeded with 1 on every call: centre uniform within +-s of the centroid on
//   each axis and radius uniform in [0, s], s = R0 for candidates 0-29, 2 R0
//   for 30-59, 3 R0 for 60-89 and 4 R0 for 90-99, scored by their sum of
//   squared distances (the earliest wins a tie). The lowest solver result
//   wins; error is its RMS distance.
// - evaluate_probed_sphere(points, probe_radii, inside, ...): the same with
//   the probed model; radius is that of the touched surface.
// Both refuse (return 0, outputs untouched) fewer than 4 points, a non-finite
// coordinate or probe radius, a probe-radius array whose length differs from
// the point count, and the case where no solver run could evaluate the
// distances (sums that overflow). All points equal give that point with
// radius 0.
#pragma once

#include <cmath>

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"

class tsSphereFit {
   public:
    // Fits at once; the array must outlive the object.
    explicit tsSphereFit(const giPoint3coDynArr& points);

    // Fits and writes centre and radius; returns 1 when the status is 5,
    // otherwise 0 with the outputs untouched.
    static int fit(const giPoint3coDynArr& points, giPoint3& centre, double& radius);

    // Gauss-Jordan reduction in place of the row-major rows x cols matrix m.
    // Column k (k < min(rows, cols)) takes as pivot row the LAST row r > k
    // with |m[r][k]| above the diagonal entry |m[k][k]| as it stood before
    // the search (not the largest entry), exchanging whole rows; then, if
    // |m[k][k]| > 1e-20, removes column k from every other row whose entry
    // exceeds 1e-20 in magnitude. Finally every row k < min(rows, cols) with
    // |m[k][k]| > 1e-20 is divided by it from column k on, so that a square
    // system's solution stands in the last column.
    static void matrix_rowred(double* m, int rows, int cols);

    int status() const { return status_; }
    const giPoint3& centre() const { return centre_; }
    double radius() const { return radius_; }
    double chi() const;

   private:
    const giPoint3coDynArr& points_;
    giPoint3 centre_;
    double radius_ = 0.0;
    int status_ = 1;
};

class tsLeastSquareSphere : public tsLeastSquareDistance3 {
   public:
    explicit tsLeastSquareSphere(const giPoint3coDynArr& points);

    // Stores p and keeps its centre and radius at hand for the distances.
    void set_parameters(const mlVector& p) override;
    void normalize_parameters(mlVector& p) const override;
    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;

    // RMS distance of the points from centre: sqrt(sum |P - centre|^2 / n);
    // 0 for no points.
    double evaluate_radius(const giPoint3& centre) const;

   protected:
    // d = |Q_i - C| + shift and its gradient; shift = q_i - r.
    void distance_and_gradient(int i, double shift, double& d, mlVector& g) const {
        const giPoint3& q = point(i);
        const double vx = q.x() - cx_, vy = q.y() - cy_, vz = q.z() - cz_;
        const double length = std::sqrt(vx * vx + vy * vy + vz * vz);
        d = length + shift;
        // Within kCentreGuard of the centre the direction is undefined: the
        // centre gets no gradient there.
        const double inv = length > kCentreGuard ? 1.0 / length : 0.0;
        if (g.size() < 4) grow_gradient(g);
        double* const gc = g.data();
        gc[0] = -vx * inv;
        gc[1] = -vy * inv;
        gc[2] = -vz * inv;
        gc[3] = -1.0;
    }
    double shifted_distance(int i, double shift) const {
        const giPoint3& q = point(i);
        const double vx = q.x() - cx_, vy = q.y() - cy_, vz = q.z() - cz_;
        return std::sqrt(vx * vx + vy * vy + vz * vz) + shift;
    }
    double radius_parameter() const { return r_; }
    // Sizes a short gradient vector to the 4 parameters (kept out of line:
    // the solver always passes vectors of that size).
    static void grow_gradient(mlVector& g);

    static constexpr double kCentreGuard = 1e-7;

   private:
    double cx_ = 0.0, cy_ = 0.0, cz_ = 0.0, r_ = 0.0;
};

class tsLeastSquareProbedSphere : public tsLeastSquareSphere {
   public:
    tsLeastSquareProbedSphere(const giPoint3coDynArr& points, const doublecoDynArr& probe_radii,
                              int inside);

    void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
    void get_distance(double& d, int i) const override;

   private:
    doublecoDynArr offsets_;  // q_i, signed by the side
};
