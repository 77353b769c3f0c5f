// tsAmoebaPointsToPlanesDirectShift: the objective that the downhill simplex
// of the direct points-to-planes fit minimises.
//
// Motion. A trial transform turns the measured points about their centroid g
// by a rotation R and shifts them by t:  x -> R (x - g) + g + t,  so that
// get_matrix() is R (no shift) and get_shift() is g - R g + t.
//
// Parameters. The first component is always a rotation angle:
// - free rotation (3): angle phi about the unit axis
//   (cos p1 cos p2, sin p1 cos p2, sin p2);
// - a locked direction (1): R = Rot(b, phi) L, where L is the smallest
//   rotation that carries the measured direction a onto the nominal b (onto
//   -b when the flip flag is set);
// - rotation locks (0): R is the identity.
// Mode 0 (least squares) solves the shift for each rotation in closed form
// (the "direct shift"): the minimum of the weighted sum of squares below is
// linear in t, a 3 x 3 system (k x k in the span of the k rotation-lock
// vectors), solved by pseudo-inverse so that shifts the data leave free do
// not move. The simplex thus searches the rotation alone.
// Mode 1 (minimax) adds the shift to the parameters, in units of the rms
// radius L of the measured points about g (coordinates along x, y, z, or
// along the rotation-lock vectors), because the minimax shift has no closed
// form. get_dimension(has_direction, rotation_locks, mode) counts them:
// rotation 3, 1 or 0, plus 3 (or k) in mode 1 (only the first three
// rotation-lock vectors are used).
//
// Values. With v = T m - q and n the weighted normal of an entry:
// - the residual of a plane entry is n . v, of a point entry the vector
//   |n| v, of a balanced pair c1 n1 . v1 + c2 n2 . v2;
// - mode 0: f = sum of squared residuals + attraction * sum over the bestfit
//   plane entries of |v_t|^2, v_t the part of v across the entry's normal:
//   the fitting-points attraction restrains the slide of the points along
//   their tangent planes (where the planes leave a motion free it picks the
//   motion that keeps the points nearest their nominal points) without
//   pulling on the deviations the planes measure;
// - mode 1: f = E + sqrt(S / N), E the largest excess of a bounded entry
//   over its band, max(d - upper, lower - d) (negative inside: minimising it
//   centres the points in their bands), S the sum of squared residuals of the
//   unbounded entries (positioning entries included, with their weight) and N
//   their number.
//
// Cost. The matrix A of the shift's normal equations does not depend on the
// rotation, so its pseudo-inverse is formed once. A mode-0 value then takes
// one pass over the data: the residuals are formed at the shift of the
// previous evaluation t0, and with h = sum a e (at t0) the shift is
// t = t0 - A^+ h and the value S + 2 dt . h + dt^T A dt. Successive simplex
// vertices lie close together, so dt is small and the value keeps its
// precision near the minimum. get_max_deviations evaluates from scratch (the
// shift solved at t0 = 0, then the residuals at the shift) for the final
// figures.
//
// After get_max_deviations the objective keeps: the transform, the positioning
// maximum a (largest |d| over the first n_positioning entries) and the
// bestfit maximum b (largest |d| over the others, a balanced pair counting
// once with its combined deviation), the acceptance flag and the measure of
// check_transformation:
//   flag 0: a positioning deviation above POSITIONING_TOLERANCE;
//   flag 1: the positioning holds, a bounded entry lies outside its band;
//   flag 2: the positioning holds and every band is met;
//   measure r = sum over all entries of |T m - q|^2 (how far the points lie
//   from their nominal points: it tells apart poses that fit the planes
//   equally well).
// The data arrays, pairs, directions and rotation locks are referenced, not
// copied: they must outlive the objective.
#pragma once

#include "metrofit/alignment/points_to_planes.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/function.h"

class tsAmoebaPointsToPlanesDirectShift : public mlFunctionN1 {
   public:
    tsAmoebaPointsToPlanesDirectShift(const tsPlaneAndPointcoDynArr& data,
                                      const tsBalancePairs& pairs,
                                      const giVector3coDynArr& directions,
                                      const giVector3coDynArr& rotation_locks, double attraction,
                                      int mode, int n_positioning = 0);

    static int get_dimension(bool has_direction, const giVector3coDynArr& rotation_locks, int mode);
    int dimension() const { return dimension_; }
    int mode() const { return mode_; }
    bool rotations_locked() const { return rotation_locks_.size() > 0; }

    double function(const mlSlice& x) override;

    // Evaluates at x and gives the positioning and bestfit maxima.
    void get_max_deviations(const mlVector& x, double& positioning_max, double& bestfit_max);
    // Flag and squared measure of the last evaluation (see above).
    int check_transformation(double& r) const;
    // The mode-1 start from mode-0 (rotation) parameters: the rotation
    // parameters followed by the direct shift in the mode-1 units.
    void convert_to_min_max_parameter(const mlVector& rotation, mlVector& out);

    const giXform3& get_matrix() const { return matrix_; }
    const giVector3& get_shift() const { return shift_; }
    // The whole transform of the last evaluation: translation(shift) * matrix.
    giXform3 transform() const;

    void set_flip(int flip);
    int flip() const { return flip_; }

   private:
    void rotation_from(const mlSlice& x, double R[3][3]) const;
    // h = sum a e over the residuals at shift t0, and the sum of squares S.
    void gradient_terms(const double R[3][3], const double t0[3], double h[3], double& S) const;
    void direct_shift(const double R[3][3], double t[3], double* coefficients) const;
    void shift_from_parameters(const mlSlice& x, double t[3]) const;
    void prepare_normal_matrix();
    void keep_transform(const double R[3][3], const double t[3]);
    int lock_count() const { return rotation_locks_.size() < 3 ? rotation_locks_.size() : 3; }
    double evaluate(const double R[3][3], const double t[3]);

    const tsPlaneAndPointcoDynArr& data_;
    const tsBalancePairs& pairs_;
    const giVector3coDynArr& directions_;
    const giVector3coDynArr& rotation_locks_;
    double attraction_;
    int mode_;
    int n_positioning_;
    int dimension_ = 0;
    int rotation_dim_ = 0;
    double centre_[3] = {0, 0, 0};
    double radius_ = 1.0;
    double lock_[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    // Normal matrix A of the shift, and the maps from h to the shift's
    // coefficients (k x 3, k = 3 or the lock count) and to the shift (3 x 3).
    double normal_[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    double to_coefficients_[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    double to_shift_[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    double last_shift_[3] = {0, 0, 0};
    double axis_[3] = {0, 0, 1};
    int flip_ = 0;

    giXform3 matrix_ = giXform3(giIdentity);
    giVector3 shift_ = giVector3(0.0, 0.0, 0.0);
    double positioning_max_ = 0.0;
    double bestfit_max_ = 0.0;
    int flag_ = 0;
    double measure_ = 0.0;
};
