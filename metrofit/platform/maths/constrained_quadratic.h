// mlConstrainedQuadraticMinimiser: the minimum of a small convex quadratic
// under linear inequalities, by a primal active-set method.
//
//   minimise   q(x) = 1/2 x^T M x - V^T x        (M symmetric, positive
//   subject to C_i . x <= d_i,  i = 0 .. m-1      semidefinite, n x n)
//
// The constraints (C, d) are given at construction: C is m x n, one row per
// constraint, d has m entries. The quadratic is given to stage2 / solve, so
// one constraint set can serve several quadratics. The alignment steps build
// M and V as normal equations (M = sum a a^T, V = sum r a) and one row per
// finite tolerance limit (lower limits as -a.x <= -(lower - d0)).
//
// Semidefinite M: directions that M does not see (eigenvalues of the
// symmetric part at most 1e-7 of the largest singular value, the cut of the
// unconstrained alignment solution) are not moved along, so that a problem
// without active constraints gives the same minimum-norm step as the
// pseudo-inverse solution, and a constrained one moves along them only as far
// as the active rows make it.
//
// A row counts as met at x when C_i x - d_i is at most 1e-9 (sum_j |C_ij x_j|
// + |d_i|): far above the rounding of the product, far below any tolerance.
//
// stage1(x): from x (the caller's start, of size n), find a point that meets
// every live constraint. It minimises the squared violation
// 1/2 sum max(0, C_i x - d_i)^2 (a convex piecewise quadratic) by Newton steps
// on the piece of the rows violated at the current point, each the shortest
// step that solves that piece (so the point stays near the start), with an
// exact line search along it; at most 10 (m + n) + 50 steps, and it stops as
// soon as a step no longer lowers the violation. A start that already meets
// every row is not moved. When every row is met, x becomes the feasible point
// and stage1 returns 1. Otherwise the constraints conflict: the rows still
// violated at the point of least violation are recorded as over-determined
// (merged into the list), x becomes the point of least violation, and stage1
// returns 0. The recorded set is what must go for the rest to be met: the
// point of least violation meets every other row. Invalid constraints (see
// are_valid), an x of another size than C's columns or with a non-finite
// entry: 0, x unchanged, nothing recorded. No constraint at all: 1.
//
// delete_overdetermined_constraints(): when the minimiser was built with
// resolve = 1, the recorded rows stop counting (they stay listed in
// overdetermined_constraints()); with resolve = 0 they are kept, so that the
// conflict stays visible and stage2 refuses.
//
// stage2(M, V, x): from a feasible x, the active-set iteration: solve the
// equality-constrained problem on the working set (reduced Hessian in the
// null space of the active rows, pseudo-inverse with the cut above), step as
// far as the blocking constraint allows, add it, or drop the constraint of
// the most negative multiplier when the step is zero. The working set starts
// empty; rows met with equality at the start join it as they block. Returns 1
// with x the minimiser; 0 (x unchanged) when x is not feasible, the sizes do
// not fit (M n x n, V and x of size n >= 1, C with n columns unless it has no
// rows), an entry of M, V or x is not finite, or the iteration limit
// (100 (m + n)) is reached. Each iteration costs O(m n + n^3).
//
// solve(M, V, x) = stage1 (deleting the over-determined rows when it fails
// and resolution is on) followed by stage2 from its point; x changes only on
// success.
//
// Indices: the over-determined constraints are row indices of C (0 based),
// ascending. append_constraint_indices(from, to) merges them into another
// list, keeping it ascending and free of repeats.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

class mlConstrainedQuadraticMinimiser {
   public:
    mlConstrainedQuadraticMinimiser(const mlMatrix& constraints, const mlVector& bounds,
                                    int resolve_overdetermined);

    // 1 when C has as many rows as d has entries, at least one column, and
    // every entry of both is finite; 0 otherwise (no constraint at all, a 0 x 0
    // C with an empty d, is valid).
    static int are_valid(const mlMatrix& constraints, const mlVector& bounds);

    int solve(const mlMatrix& M, const mlVector& V, mlVector& x);
    int stage1(mlVector& x);
    int stage2(const mlMatrix& M, const mlVector& V, mlVector& x);

    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }
    void delete_overdetermined_constraints();
    static void append_constraint_indices(const intcoDynArr& from, intcoDynArr& to);

    int n_constraints() const { return constraints_.rows(); }
    // Indices of the constraints active at the last stage2 solution.
    const intcoDynArr& active_constraints() const { return active_; }

   private:
    mlMatrix constraints_;
    mlVector bounds_;
    int resolve_;
    utBoolcoDynArr deleted_;
    intcoDynArr overdetermined_;
    intcoDynArr active_;
};
