// Eigen decompositions: mlSymEigenVecs for a symmetric matrix of any size and
// mlAsymEigenVecs3 for a general 3 x 3 matrix, behind the common base
// mlEigenVecs.
//
// Usage: construct on a matrix (it is copied), optionally set_tolerance(t),
// then calculate(). calculate() returns 1 on success and 0 when the matrix is
// refused (not square, empty, a NaN or infinite entry, not 3 x 3 for the
// asymmetric solver) or the iteration fails; no eigenpairs are reported then.
//
// Results: num_real_eigen_values() real eigenvalues, sorted in DESCENDING
// order of value (index 0 is the largest, the last index the smallest, so a
// caller that wants the smallest non-negative one steps down from the end),
// and for each a unit eigenvector in the same order, as a read-only view.
// An index outside [0, num_real_eigen_values()) gives the value 0.0 and an
// empty view. The sign of each eigenvector is the one the solver produced.
//
// Symmetric solver: all n eigenvalues are real and the eigenvectors are
// orthonormal. Only the symmetric part (M + M^T) / 2 is decomposed, so
// rounding-level asymmetry is harmless. The tolerance has no effect.
//
// Asymmetric 3 x 3 solver: an eigenvalue a + ib counts as real when
// |b| <= t * max(|lambda_k|), t the tolerance (default 1e-6, so a double real
// eigenvalue split by rounding into a tight complex pair is still reported);
// its value is a and its vector the real direction of the complex eigenvector,
// normalised. Complex pairs beyond the tolerance are not reported.
#pragma once

#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/slice.h"
#include "metrofit/platform/maths/vector.h"

class mlEigenVecs {
   public:
    virtual ~mlEigenVecs();
    virtual int calculate() = 0;

    double eigen_value(int i) const;
    const mlSlice eigen_vector(int i) const;
    int num_real_eigen_values() const { return values_.size(); }
    void set_tolerance(double t) { tolerance_ = t; }
    double tolerance() const { return tolerance_; }

   protected:
    explicit mlEigenVecs(const mlMatrix& m);
    // Drops any previous result.
    void reset();
    // Sorts the pairs held in values_ / vectors_ (one vector per row) by
    // descending value and makes each vector unit length.
    void sort_and_normalise();

    mlMatrix matrix_;
    mlVector values_;
    mlMatrix vectors_;  // row i is the eigenvector of values_[i]
    double tolerance_ = 1e-6;
};

class mlSymEigenVecs : public mlEigenVecs {
   public:
    explicit mlSymEigenVecs(const mlMatrix& m) : mlEigenVecs(m) {}
    int calculate() override;
};

class mlAsymEigenVecs3 : public mlEigenVecs {
   public:
    explicit mlAsymEigenVecs3(const mlMatrix& m) : mlEigenVecs(m) {}
    int calculate() override;
};
