// mlMatrix: a dense row-major matrix of doubles.
//
// Storage is one contiguous block, row after row, so row_data(i) gives the
// cols() doubles of row i and data() the whole matrix. row(i) and column(j)
// are strided views (mlSlice) into that block; they stay valid until the
// matrix is resized or destroyed.
//
// Construction never fails loudly: a constructor whose arguments do not fit
// (negative sizes, a product of mismatched shapes, storage not available)
// yields the empty 0 x 0 matrix. The become() overloads return 1 on success
// and 0 on such a refusal, leaving the matrix unchanged. Element access is not
// bounds-checked. In-place arithmetic with a matrix of another shape leaves
// the matrix unchanged.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/maths/slice.h"
#include "metrofit/platform/maths/tags.h"
#include "metrofit/platform/maths/vector.h"
#include "metrofit/platform/utility/tags.h"

class mlMatrix {
   public:
    mlMatrix() = default;
    mlMatrix(mlMatrixZeroTag, int rows, int cols) { become(rows, cols); }
    mlMatrix(mlMatrixIdentityTag, int n) { become(mlMatrixIdentity, n); }
    mlMatrix(mlMatrixTransposeTag, const mlMatrix& m) { become(mlMatrixTranspose, m); }
    mlMatrix(mlMatrixProductTag, const mlMatrix& a, const mlMatrix& b) {
        become(mlMatrixProduct, a, b);
    }
    mlMatrix(utConvertTag, const double* data, int rows, int cols) {
        become(utConvert, data, rows, cols);
    }

    // rows x cols of zeros (the previous content is not kept).
    int become(int rows, int cols);
    int become(mlMatrixZeroTag, int rows, int cols) { return become(rows, cols); }
    int become(mlMatrixIdentityTag, int n);
    // Transpose and product may name this matrix as an operand.
    int become(mlMatrixTransposeTag, const mlMatrix& m);
    int become(mlMatrixProductTag, const mlMatrix& a, const mlMatrix& b);
    int become(utCopyTag, const mlMatrix& m);
    // rows x cols doubles read row by row from data.
    int become(utConvertTag, const double* data, int rows, int cols);

    int rows() const { return rows_; }
    int cols() const { return cols_; }
    bool empty() const { return rows_ == 0 || cols_ == 0; }

    double* data() { return data_.data(); }
    const double* data() const { return data_.data(); }
    double* row_data(int i) { return data_.data() + static_cast<long long>(i) * cols_; }
    const double* row_data(int i) const { return data_.data() + static_cast<long long>(i) * cols_; }
    double& operator()(int i, int j) { return row_data(i)[j]; }
    double operator()(int i, int j) const { return row_data(i)[j]; }

    mlSlice row(int i) { return mlSlice(row_data(i), cols_, 1); }
    const mlSlice row(int i) const { return mlSlice(const_cast<double*>(row_data(i)), cols_, 1); }
    mlSlice column(int j) { return mlSlice(data() + j, rows_, cols_); }
    const mlSlice column(int j) const {
        return mlSlice(const_cast<double*>(data()) + j, rows_, cols_);
    }

    mlMatrix& operator+=(const mlMatrix& m);
    mlMatrix& operator-=(const mlMatrix& m);
    mlMatrix& operator*=(double s);
    mlMatrix& operator/=(double s);

   private:
    doublecoDynArr data_;
    int rows_ = 0;
    int cols_ = 0;
};
