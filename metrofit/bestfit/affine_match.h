// Least-squares transforms of restricted affine families between
// corresponding 3D points.
//
// Pairs (first, second): the transform T maps each second point s (the
// source) onto its first point f (the target), f ~ T s. The result is a
// giXform3 m (rows r = 0..2, column 3 the shift). Families, by type:
//   0 full:           f = A s + t, A a full 3 x 3 matrix        (12 unknowns)
//   1 xy:             fx, fy affine in (sx, sy); z unchanged    (6)
//   2 scale:          f_r = a_r s_r, no shift                    (3)
//   3 scale+shift:    f_r = a_r s_r + t_r                        (6)
//   4 xy scale:       fx = ax sx, fy = ay sy; z unchanged        (2)
//   5 xy scale, xyz shift: fx = ax sx + tx, fy = ay sy + ty, fz = sz + tz (5)
//   6, 7, 8 one axis (x, y, z): f_r = a s_r + t on that row only (2)
//
// Closed form: each family is linear in its unknowns x. Every pair gives a
// small design D (one row per fitted coordinate) and right-hand side g;
// N = sum D^T D, v = sum D^T g, and N x = v is solved through a singular
// value decomposition. All sums come from one pass over the pairs. Where a
// row has a shift, its coordinates are taken relative to the first pair
// (the shift absorbs the change and is restored afterwards), so data far
// from the origin keep their digits. N is scaled to a unit diagonal before
// the decomposition, so the singularity test compares directions, not the
// units of a scale against those of a shift.
//
// Entries of the result that a family does not name keep their values
// (pass an identity); the xy family clears the matrix first and sets
// m[2][2] = 1. The one-axis families write only their row.
//
// Statuses of xform: 1 and the result written; 0 and the result untouched
// when the type is outside 0..8 or the normal matrix is singular (no
// pairs, too few, degenerate sources, non-finite coordinates): its smallest
// singular value is at most eps times the largest.
#pragma once

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/xform.h"

enum tsAffineMatchXformType : int {
    tsAffineMatchFull = 0,
    tsAffineMatchXY = 1,
    tsAffineMatchScale = 2,
    tsAffineMatchScaleTranslate = 3,
    tsAffineMatchXYScale = 4,
    tsAffineMatchXYScaleXYZTranslate = 5,
    tsAffineMatchAxisX = 6,
    tsAffineMatchAxisY = 7,
    tsAffineMatchAxisZ = 8
};

class tsPointsAffineMatch {
   public:
    tsPointsAffineMatch() = default;

    // Appends first to the targets and second to the sources, unchecked.
    void add_pair(const giPoint3& first, const giPoint3& second);
    int count() const { return targets_.size(); }

    // Stored unchanged; xform refuses values outside the table.
    void set_transform_type(tsAffineMatchXformType type) { transform_type_ = type; }
    int transform_type() const { return transform_type_; }
    // Kept only when e > 0.
    void set_eps(double e) {
        if (e > 0.0) eps_ = e;
    }
    double eps() const { return eps_; }

    // The transform of the selected family; 1 on success, 0 (result
    // untouched) on a singular system or an unknown type.
    int xform(giXform3& result) const;

   private:
    int full_transform(giXform3& result) const;
    int xy_transform(giXform3& result) const;
    int scale_transform(giXform3& result) const;
    int scale_translate(giXform3& result) const;
    int xy_scale_transform(giXform3& result) const;
    int xy_scale_xyz_translate(giXform3& result) const;
    int transform_1d(int axis, giXform3& result) const;

    giPoint3coPageArr targets_;
    giPoint3coPageArr sources_;
    int transform_type_ = tsAffineMatchFull;
    double eps_ = 1e-7;
};
