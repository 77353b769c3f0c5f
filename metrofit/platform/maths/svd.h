// mlSingularValueDecomposition: M = U diag(s) V^T of an m x n matrix.
//
// The factors are thin: with k = min(m, n), U is m x k, V is n x k and the k
// singular values s come sorted, largest first (all >= 0). The job flags say
// which factors to compute; the singular values are always computed. Without
// flags both U and V are computed. Asking for V only keeps an n x 3 matrix of
// many points cheap: no m x k U is formed.
//
// Tolerances are relative to the largest singular value s0:
// - is_singular(tol): the smallest singular value is at most tol * s0. A zero
//   matrix (s0 = 0) is singular, and so is a matrix that could not be
//   decomposed.
// - inverse(tol): the pseudo-inverse V diag(1/s) U^T (n x m) over the singular
//   values strictly above tol * s0; the others are dropped (taken as zero).
// - solve(b, x, tol): x = inverse(tol) b, the least-squares solution of
//   M x = b of smallest length.
// The overloads without a tolerance use default_tolerance() =
// max(m, n) * DBL_EPSILON, the level at which a singular value is no longer
// told apart from rounding in the decomposition itself.
//
// A matrix with a NaN or infinite entry, or with no entries, is not
// decomposed: status() is 0, the factors and the diagonal are empty,
// is_singular() is true, inverse() is the empty matrix and solve() returns 0.
// inverse and solve also need both factors; without them they refuse the same
// way.
#pragma once

#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

// Job flags; combine with |.
enum mlSvdJob { mlJOB_U = 1, mlJOB_V = 2 };

class mlSingularValueDecomposition {
   public:
    explicit mlSingularValueDecomposition(const mlMatrix& m);
    mlSingularValueDecomposition(const mlMatrix& m, int jobs);

    // 1 when decomposed, 0 when refused (see above).
    int status() const { return status_; }
    int rows() const { return rows_; }
    int cols() const { return cols_; }

    const mlMatrix& U() const { return u_; }
    const mlMatrix& V() const { return v_; }
    const mlVector& diagonal() const { return s_; }

    double default_tolerance() const;
    bool is_singular() const { return is_singular(default_tolerance()); }
    bool is_singular(double tol) const;
    // Number of singular values strictly above tol * s0.
    int rank(double tol) const;
    mlMatrix inverse() const { return inverse(default_tolerance()); }
    mlMatrix inverse(double tol) const;
    // Returns 1 and writes x (size n) when b has m entries and at least one
    // singular value is kept; otherwise returns 0 and leaves x untouched.
    int solve(const mlVector& b, mlVector& x) const { return solve(b, x, default_tolerance()); }
    int solve(const mlVector& b, mlVector& x, double tol) const;

   private:
    void decompose(const mlMatrix& m, int jobs);
    // The singular values strictly above this are kept.
    double cut(double tol) const;

    mlMatrix u_, v_;
    mlVector s_;
    int rows_ = 0, cols_ = 0;
    int status_ = 0;
};
