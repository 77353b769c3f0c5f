// tsInterpolatedSquareDistsSumFree: the line-search objective of the free
// linear step of tsPointsToPlanes.
//
// It moves along the segment from the parameter vector a (no motion) to the
// step solution b: p = (1 - t) a + t b, shift tau = (p0, p1, p2), rotation
// vector omega = s (p3, p4, p5) about the centre c (the origin unless given).
// interpolate_xform(t) is the translation by tau followed by, when
// |omega| >= min_rotation, the rotation about c around omega / |omega| by
// atan2(|omega|, 1): the linearised motion tau + omega x (x - c) carried onto
// an exact rotation whose tangent is the linear step's.
//
// function(t) = sum over the entries of (v . n)^2 + c_points |v|^2 with
// v = X(t) m - q: weighted point-to-plane distances plus the weak
// point-to-point tie of the step's normal equations. With balance pairs
// (one slot per entry, as tsPointsToPlanes keeps them) a pair contributes
// (c1 v1 . n1 + c2 v2 . n2)^2 instead of its two plane terms.
// The entries, a and b are referenced: they must outlive the objective.
#pragma once

#include "metrofit/alignment/points_to_planes.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/function.h"
#include "metrofit/platform/maths/vector.h"

class tsInterpolatedSquareDistsSumFree : public mlFunction {
   public:
    tsInterpolatedSquareDistsSumFree(const tsPlaneAndPointcoDynArr& entries, const mlVector& a,
                                     const mlVector& b, double s, double c, double min_rotation,
                                     const giPoint3& centre = giPoint3(0.0, 0.0, 0.0),
                                     const tsBalancePairs* pairs = nullptr);

    double function(double t) const override;
    const giXform3& interpolate_xform(double t) const;

   private:
    const tsPlaneAndPointcoDynArr& entries_;
    const mlVector& a_;
    const mlVector& b_;
    double s_, c_, min_rotation_;
    giPoint3 centre_;
    const tsBalancePairs* pairs_;
    mutable giXform3 xform_;
};

// The same sum of squares for a given transform, shared by the line searches
// of every linear step.
double ts_square_dists_sum(const tsPlaneAndPointcoDynArr& entries, const tsBalancePairs* pairs,
                           double c, const giXform3& X);
