// Rigid motion between corresponding point sets, in closed form.
//
// Model: pairs (a, b) of 3D points (or of 2D points), b = R a + t with R a
// proper rotation (no scale). The least-squares R and t minimise
// sum |R a + t - b|^2.
//
// Closed form (Kabsch with a reflection guard): centre the cross-covariance
// H = sum (a - mean a)(b - mean b)^T, decompose H = U S V^T, take R = V U^T;
// when det R < 0 the last column of V (smallest singular value) changes sign
// so that R is a proper rotation. Then t = mean b - R mean a.
//
// The object is an accumulator of fixed size: add_pair updates running sums
// (one pass over the pairs, no heap memory) and get_xform extracts the motion
// once. The sums are kept relative to the first pair added, which removes the
// cancellation of large coordinates (data far from the origin) without a
// second pass. The first pair fixes the dimension: later pairs of the other
// kind are ignored, and so are pairs with an unset point.
//
// get_xform consumes the accumulator: it centres the sums in place and keeps
// the means, so a second call without new pairs works on those values and
// does not reproduce the first answer. Extract once.
//
// Statuses of get_xform:
// - false, transform untouched: no pair of that dimension was added, or a sum
//   is not finite;
// - false, transform written: the set is degenerate, s0 > s1 * 1e10 for the
//   two largest singular values of H, or H = 0 (all pairs coincide, a single
//   pair, two pairs, points on one line): the rotation about that line is not
//   determined. A flat set in space is accepted, the guard settles it;
// - true: the motion is written, b = xform * a.
#pragma once

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/xform.h"

class tsPointsToPoints {
   public:
    tsPointsToPoints() = default;

    // A pair of space points; ignored when either is unset or when the first
    // pair was a plane pair.
    void add_pair(const giPoint3& a, const giPoint3& b);
    // A pair of plane points; ignored when either is unset or when the first
    // pair was a space pair.
    void add_pair(const giPoint2& a, const giPoint2& b);

    // The motion carrying every first point a onto its partner b.
    bool get_xform(giXform3& xform);
    bool get_xform(giXform2& xform);

    int count() const { return count_; }
    // 0 before the first pair, then 2 or 3.
    int dimension() const { return dimension_; }

   protected:
    // Accumulates a pair of dimension_ coordinates each.
    void add_pair(const double* a, const double* b);
    // Zeroes the dimension_^2 cross sums and the dimension_ entries of each
    // vector of sums.
    void initialise_matrix();

   private:
    // Centres the sums, replaces them by the means and fills h (row-major,
    // dimension_ x dimension_) with sum (a - mean a)(b - mean b)^T.
    void centre(double* h);

    // Entry (k, j), at k * dimension_ + j: sum of b_k a_j.
    double cross_sums_[9] = {};
    double first_sums_[3] = {};   // sum of a
    double second_sums_[3] = {};  // sum of b
    int count_ = 0;
    int dimension_ = 0;
    // The first pair: the sums hold coordinates relative to it until
    // get_xform turns them into absolute means.
    double first_origin_[3] = {};
    double second_origin_[3] = {};
};
