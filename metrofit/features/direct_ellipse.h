// Direct (closed-form) ellipse fits: no start values, no iterations.
//
// tsDirectEllipse2 fits the conic
//     A x^2 + B x y + C y^2 + D x + E y + F = 0
// that minimises the sum of squared algebraic residuals over the points under
// the constraint 4 A C - B^2 = 1. The constraint is positive only for
// ellipses, so the minimiser is an ellipse whenever one exists, and it is
// unchanged by moving, turning and scaling the points. It is solved in
// coordinates centred on the points' centroid and scaled by their RMS
// distance from it (far-off data keep their digits; the conic is mapped back
// afterwards), split into the quadratic block q = (A, B, C) and the linear
// block l = (D, E, F):
// - the columns L = [1 x y] of the linear block are decomposed, L =
//   U_L S_L V_L^T; for any q the best l is l = -L^+ Z1 q = -V_L S_L^-1 U_L^T
//   Z1 q, Z1 the n x 3 matrix of rows (x^2, xy, y^2), and the residual left
//   is Z q with Z = Z1 - U_L U_L^T Z1 (the span removed twice, so that Z is
//   orthogonal to it to rounding);
// - the singular value decomposition Z = U S V^T (V only) turns the problem
//   into a 3 x 3 symmetric eigenproblem: with w = S V^T q, minimise |w|^2
//   subject to w^T K w = 1, K = S^-1 V^T N V S^-1, N the constraint's matrix
//   (q^T N q = 4AC - B^2). N has one positive eigenvalue, so K has exactly
//   one (Sylvester), its largest; its eigenvector w gives q = V S^-1 w. That
//   eigenvalue grows as 1 / s_min^2 when the points near a conic, so it stays
//   resolved where the reciprocal form (V S)^T N^-1 (V S) would lose its
//   eigenvalue, proportional to s_min^2, in rounding. When the smallest
//   singular value is at most 1e-12 of the largest the points lie on a conic
//   to rounding, and the right singular vector of that value is q.
// The conic is an ellipse when 4 A C - B^2 > 1e-14 (A^2 + B^2 + C^2) and,
// with A + C > 0, its value at the centre is negative. Its centre solves the
// gradient equations; the semi-axes are sqrt(-F0 / l) for the eigenvalues l
// of [[A, B/2], [B/2, C]] (the smaller one from the determinant, so thin
// ellipses keep their digits), F0 the conic's value at the centre.
// Outputs: centre, semi_major >= semi_minor > 0, and the angle of the major
// axis from the x axis in [0, pi) (for a circle, whatever the rounding
// leaves). Exact on points of an exact ellipse (any 5 or more).
//
// Statuses (tsDirectFit): 1 fewer than 5 points; 3 (3D input only) no
// embedding plane; 4 degenerate: non-finite 2D coordinates, points whose RMS
// distance from their centroid is within the tolerance (1e-6) or that do not
// span the plane (spans_plane), or a best conic that is not an ellipse
// (hyperbola, parabola, or an empty or point ellipse); 5 fitted. Results are
// valid only at status 5 (the centre is left unset otherwise).
//
// tsDirectEllipse3 keeps a reference to the caller's 3D points (they must
// outlive it), fits tsDirectEllipse2 to their 2D points in the embedding
// plane (tsDirectFit) and maps the result back into space; after a fit its
// plane frame is moved to the ellipse's centre with its axes kept, so angle()
// is measured from plane().x_axis() towards plane().y_axis(), and
// major_axis() is the major axis in space (sense not meaningful).
#pragma once

#include "metrofit/features/direct_circle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"

class tsDirectEllipse2 : public tsDirectFit {
   public:
    // Fits at once when there are at least 5 finite points.
    explicit tsDirectEllipse2(const giPoint2coDynArr& points);

    const giPoint2& centre() const { return centre_; }
    double semi_major() const { return semi_major_; }
    double semi_minor() const { return semi_minor_; }
    double angle() const { return angle_; }

    // Whether the points span the plane: their RMS distance from their
    // centroid m exceeds 1e-12 max(|m.x|, |m.y|) (they are not all at one
    // spot to the rounding of their coordinates), and their RMS distance
    // from their principal line exceeds 1e-12 of the larger of that RMS
    // distance and max(|m.x|, |m.y|) (they are not on one line). False for no
    // points or non-finite coordinates.
    static bool spans_plane(const giPoint2coDynArr& points);

   private:
    void fit();

    giPoint2 centre_;
    double semi_major_ = 0.0, semi_minor_ = 0.0, angle_ = 0.0;
};

class tsDirectEllipse3 : public tsDirectFit {
   public:
    // Keeps a reference to points; fits at once when there are at least 5
    // points and an embedding plane exists.
    explicit tsDirectEllipse3(const giPoint3coDynArr& points);

    const giPoint3coDynArr& points() const { return points3_; }
    const giPoint3& centre() const { return centre_; }
    double semi_major() const { return semi_major_; }
    double semi_minor() const { return semi_minor_; }
    // Angle of the major axis from plane().x_axis(), in [0, pi).
    double angle() const { return angle_; }
    const giUnitVec3& major_axis() const { return major_axis_; }

   private:
    void fit();

    const giPoint3coDynArr& points3_;
    giPoint3 centre_;
    giUnitVec3 major_axis_;
    double semi_major_ = 0.0, semi_minor_ = 0.0, angle_ = 0.0;
};
