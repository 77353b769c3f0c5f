// Direct (closed-form) circle fits: no start values, no iterations.
//
// tsDirectFit is the common base of the direct fits (circles here, ellipses
// elsewhere): it holds the 2D points of the fit, the plane frame those points
// live in for 3D input, and a status:
//   0 ready to fit, 1 fewer than 2 points, 3 no embedding plane (coincident
//   or non-finite 3D points), 4 degenerate (collinear points, or non-finite
//   2D coordinates), 5 fitted.
// The tolerance (1e-6, a length) decides that points coincide.
// Embedding plane of 3D points: for two points the frame has the midpoint as
// origin and the points' direction as x axis (its normal is any unit vector
// perpendicular to that); for more, the least-squares plane (evaluate_plane)
// gives the origin (the centroid) and the normal, and the x axis is any unit
// vector in the plane. Points that all lie within the tolerance of the first
// one build no frame. The 2D points are the frame's x and y of the points.
//
// tsDirectCircle2 fits a circle to 2D points:
//   n = 2: the circle with the two points as diameter (radius 0 for equal
//     points);
//   n = 3: three_points_fit, the circumscribed circle; status 4 when two of
//     the points coincide within the tolerance or the three are collinear to
//     rounding (twice the triangle's area at most 1e-12 times the square of
//     its longest side);
//   n >= 4: the algebraic circle A (x^2 + y^2) + B x + C y + D = 0 that
//     minimises the sum of squared algebraic residuals under the constraint
//     B^2 + C^2 - 4 A D = 1 (the circle's radius times 2A held fixed), which
//     makes the fit independent of position, rotation and scale. It is solved
//     through the singular value decomposition of the n x 4 matrix of rows
//     (x^2 + y^2, x, y, 1) / n and the eigenvectors of (V S)^T N (V S), N the
//     inverse of the constraint's matrix; when the smallest singular value is
//     at most 1e-12 of the largest the points lie on a circle (or a line) to
//     rounding and the right singular vector of that value gives the
//     coefficients directly. The matrix is formed in coordinates centred on
//     the points' centroid and scaled by their RMS distance from it: the
//     result is the same, but the squared coordinates keep their digits far
//     from the origin. A counts as zero (status 4, the points lie on a line)
//     when it is at most 1e-12 of the length of the coefficient vector in
//     those coordinates; points whose RMS distance from their centroid is
//     within the tolerance get status 4 too. Centre (-B / 2A, -C / 2A), radius
//     sqrt(B^2 + C^2 - 4 A D) / (2 |A|).
// tsDirectCircle3 keeps a reference to the caller's 3D points (they must
// outlive it), fits tsDirectCircle2 to their 2D points in the embedding plane
// and maps the centre back into space; after a successful fit its plane frame
// is moved to the circle's centre with its axes kept, so plane().normal() is
// the circle's normal (sense not meaningful).
// The constructors fit at once when the points allow it; the results are
// valid only when status() is 5 (centre and radius are left unset otherwise).
#pragma once

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/workplane.h"

class tsDirectFit {
   public:
    enum Status { kReady = 0, kTooFewPoints = 1, kNoPlane = 3, kDegenerate = 4, kFitted = 5 };

    // Copies 2D points as they are: status 1 below 2 points, else 0.
    explicit tsDirectFit(const giPoint2coDynArr& points);
    // Status 1 below 2 points; otherwise takes the points into their
    // embedding plane (status 3 when there is none, else 0).
    explicit tsDirectFit(const giPoint3coDynArr& points);
    virtual ~tsDirectFit() = default;

    // Builds the plane frame and the 2D points of points; 1 on success, else
    // 0 and status 3.
    int find_embedding_plane(const giPoint3coDynArr& points);

    int status() const { return status_; }
    double tolerance() const { return tolerance_; }
    const giWorkplane3& plane() const { return plane_; }
    const giPoint2coDynArr& points2() const { return points2_; }

   protected:
    giWorkplane3 plane_;
    giPoint2coDynArr points2_;
    int status_ = kReady;
    double tolerance_ = 1e-6;
};

class tsDirectCircle2 : public tsDirectFit {
   public:
    // Fits at once when there are at least 2 points.
    explicit tsDirectCircle2(const giPoint2coDynArr& points);

    // The circle through exactly the three points held; status 5 or 4.
    void three_points_fit();

    const giPoint2& centre() const { return centre_; }
    double radius() const { return radius_; }

   private:
    void fit();
    void algebraic_fit();

    giPoint2 centre_;
    double radius_ = 0.0;
};

class tsDirectCircle3 : public tsDirectFit {
   public:
    // Keeps a reference to points; fits at once when an embedding plane exists.
    explicit tsDirectCircle3(const giPoint3coDynArr& points);

    const giPoint3coDynArr& points() const { return points3_; }
    const giPoint3& centre() const { return centre_; }
    double radius() const { return radius_; }

   private:
    void fit();

    const giPoint3coDynArr& points3_;
    giPoint3 centre_;
    double radius_ = 0.0;
};
