// tsPointsToLines: the planar rigid motion that carries measured points onto
// nominal lines.
//
// Entries. Each entry (tsLineAndPoint) pairs a measured point m with a
// nominal line through q with normal n, taken as given (its length scales
// the deviation). The signed deviation of m under a motion X is
//     d = (X m - q) . n,
// positive on the side n points to. Every entry carries a weight (how much
// its squared deviation counts in the fit) and an optional tolerance band
// lower <= d <= upper; -DBL_MAX / DBL_MAX (and infinities) leave a side open.
// Entries with a NaN or infinite coordinate or weight are ignored when added.
//
// Linear steps. A step linearises the motion of every point around its
// current position, m(x) = m0 + J(m0) x, and solves the normal equations of
//   line rows   a = n^T J(m0),  r = (q - m0) . n,     weight w,
//   point rows  a = J(m0) rows, r = (q - m0) x and y,  weight 0.01 w,
// (M = sum w a a^T, V = sum w r a; the weight enters once because the
// normals do not carry it). The point rows tie each measured point weakly to
// its line point q: where the lines leave a motion free (all lines parallel,
// say) the tie picks the motion that brings the points nearest their line
// points, and it keeps the system regular. When q is the nominal counterpart
// of m, as for a measured profile, the tie vanishes at the solution and does
// not bias it. The solution is the pseudo-inverse of M (singular values
// below 1e-7 of the largest dropped, so undetermined motions stay at zero),
// or, when any entry has a band, the constrained minimum below.
//
// The three motions (x is the parameter vector):
// - free, x = (tx, ty, theta): m -> m + t + theta (-m.y, m.x), a turn about
//   the origin; the step is the translation by t after the turn by theta
//   radians about the origin (the angle as it stands). The step solves the
//   same equations in the parameters (u, phi) of a turn about the centroid c
//   of the measured points scaled by s = 1 / rms |m - c| (t = u - theta
//   perp(c), theta = s phi): where M is regular the solution is the same,
//   but a part far from the origin keeps its turn, which the singular-value
//   cut would drop in the raw parameters (their turn column is as long as
//   the distance to the origin). The builders give the raw rows.
// - locked origin, lock_origin(a, b): the measured origin a is carried onto
//   the nominal origin b and the points turn about it, x = (theta):
//   m -> b + (m - a) + theta perp(m - a), perp(v) = (-v.y, v.x); the step is
//   the shift b - a after the turn by theta about a. Every step takes a
//   onto b, whatever theta.
// - locked axis, lock_axis(a, b): the measured direction a is carried onto
//   the nominal direction b by a fixed turn L about the centroid c of the
//   measured points (no turn when b is unset or has no length), and the
//   points then slide along b only, x = (s): m -> L m + s b/|b|. The lock
//   keeps the orientation at "a along b" and the centroid on its line
//   parallel to b: a part that may only move along a guide. The builders
//   take the number of slide directions k (1: along the direction given;
//   2: along it and its normal, a free shift without turn) and leave L out,
//   as they linearise about the points where they are.
// single_linear_step dispatches: locked axis when lock_axis was given a set
// first vector (x not -DBL_MAX); else locked origin when the measured origin
// has an x other than +-DBL_MAX and a y other than DBL_MAX; else free. A
// step returns 1 and the step transform, or 0 and the identity when its lock
// has no direction or a non-finite coordinate.
//
// Tolerance bands. The linearised deviation of entry i is d_i(x) = d0_i +
// a_i . x, with a_i its unweighted line row and d0_i = (m0 - q) . n. Every
// finite limit gives one row of C x <= d, in entry order, lower before upper:
//     lower:  -a_i . x <= d0_i - lower,     upper:  a_i . x <= upper - d0_i.
// The step is then minimised under them from x = 0 (which is no motion); rows
// that conflict are dropped and their indices (row numbers as above) listed
// in overdetermined_constraints(), ascending, collected over one fit.
//
// fit(X, tolerance): at most 10 steps. After each step the entries (and the
// measured half of the locks, so a locked step is not taken twice) move with
// it, X becomes step * X, and the loop stops once the largest movement of a
// point in the pass is below tolerance (strictly: tolerance 0 runs all 10
// passes). The entries and locks are restored afterwards. The result is the
// largest |d| after the last step; without entries it is 0.0, and X the
// identity unless a lock carries a onto b.
#pragma once

#include "metrofit/alignment/line_and_point.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

class tsPointsToLines {
   public:
    static const double POINT_TIE;         // 0.01
    static const double SINGULAR_CUT;      // 1e-7
    static constexpr int MAX_PASSES = 10;  // steps of one fit

    tsPointsToLines();
    ~tsPointsToLines();

    // Appends the entry with its band and weight (a weight of 0 is kept: the
    // entry then counts only through its band). The band flag is set unless
    // the limits are exactly -DBL_MAX and DBL_MAX.
    void add_bestfit(const tsLineAndPoint& entry, double lower_limit, double upper_limit,
                     double weight);
    void lock_axis(const giVector2& a, const giVector2& b);
    void lock_origin(const giPoint2& measured, const giPoint2& nominal);
    // 0 drops the weak point tie from the steps (1, the default, keeps it).
    void set_point_tie(int on) { point_tie_ = on != 0 ? 1 : 0; }

    double fit(giXform2& X, double tolerance);

    int single_linear_step(giXform2& step);
    int single_linear_step_free(giXform2& step);
    int single_linear_step_locked_point(giXform2& step);
    int single_linear_shift_direction_axis(giXform2& step);

    // Sum of the squared deviations under X, unweighted; 0.0 without entries.
    double best_fit_deviation_with_transform(const giXform2& X) const;
    // out is cleared and receives (X m - q) . n per entry, in entry order.
    void signed_deviations(const giXform2& X, doublecoDynArr& out) const;
    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }

    // Equation builders: M (k x k) and V (k) become the weighted normal
    // equations of the line rows, or of the point rows (without the 0.01), of
    // the entries as they stand, for the motion named (header comment).
    void linear_step_free_points_to_lines(mlMatrix& M, mlVector& V) const;
    void linear_step_free_points_to_points(mlMatrix& M, mlVector& V) const;
    void linear_step_locked_origin_points_to_lines(const giPoint2& measured,
                                                   const giPoint2& nominal, mlMatrix& M,
                                                   mlVector& V) const;
    void linear_step_locked_origin_points_to_points(const giPoint2& measured,
                                                    const giPoint2& nominal, mlMatrix& M,
                                                    mlVector& V) const;
    // n_directions is clamped to 1 or 2; a direction without length gives
    // the empty system (M 0 x 0).
    void linear_step_fixed_shift_direction_points_to_lines(int n_directions,
                                                           const giVector2& direction, mlMatrix& M,
                                                           mlVector& V) const;
    void linear_step_fixed_shift_direction_points_to_points(int n_directions,
                                                            const giVector2& direction, mlMatrix& M,
                                                            mlVector& V) const;
    // Band rows of the free motion into the constraint matrix and vector
    // (lower[i], upper[i] belong to entry i; missing ones count as open).
    // Returns the number of rows.
    int constraint_coefs_free(const doublecoDynArr& lower, const doublecoDynArr& upper);

    const tsLineAndPointcoDynArr& entries() const { return entries_; }
    const doublecoDynArr& weights() const { return weights_; }
    const doublecoDynArr& lower_limits() const { return lower_limits_; }
    const doublecoDynArr& upper_limits() const { return upper_limits_; }
    // The band rows last built: by constraint_coefs_free, or by a step with
    // bands (then in that step's parameters).
    const mlMatrix& constraint_matrix() const { return constraint_matrix_; }
    const doublecoDynArr& constraint_vector() const { return constraint_vector_; }
    int has_limits() const { return has_limits_; }

    // Linearised motion of one step (defined with the steps).
    struct Motion;

   private:
    void equations(const Motion& motion, int lines, mlMatrix& M, mlVector& V) const;
    int band_rows(const Motion& motion, const doublecoDynArr& lower, const doublecoDynArr& upper);
    // Normal equations with the tie, plain or constrained solution, step.
    int solve_step(const Motion& motion, giXform2& step);

    tsLineAndPointcoDynArr entries_;
    tsLineAndPointcoDynArr second_entries_;
    doublecoDynArr weights_;
    giVector2 axis_measured_;
    giVector2 axis_nominal_;
    giPoint2 origin_measured_;
    giPoint2 origin_nominal_;
    int point_tie_ = 1;
    mlMatrix constraint_matrix_;
    doublecoDynArr constraint_vector_;
    doublecoDynArr lower_limits_;
    doublecoDynArr upper_limits_;
    int has_limits_ = 0;
    intcoDynArr overdetermined_;
};
