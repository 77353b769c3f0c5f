// mlVector: the dense vector of the maths service.
//
// An mlVector is a doublecoDynArr (same layout, same auto-growing operator[],
// same growth rules), so a model can fill a gradient by writing g[j] and any
// doublecoDynArr operation applies. On top of that it offers the arithmetic
// the fitting code needs.
//
// Size rules: binary operations (+=, -=, scalar_product) work on vectors of
// equal size; on a size mismatch += and -= leave the vector as it is, and
// scalar_product uses the common leading part (the first min(size) entries).
// become(...) overloads return 1 on success and 0 when refused (negative size,
// mismatched dimensions, storage not available); the vector is then unchanged.
#pragma once

#include <initializer_list>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/maths/slice.h"
#include "metrofit/platform/maths/tags.h"
#include "metrofit/platform/utility/tags.h"

class mlMatrix;

class mlVector : public doublecoDynArr {
   public:
    mlVector() = default;
    mlVector(int capacity, int step) : doublecoDynArr(capacity, step) {}
    mlVector(std::initializer_list<double> values) : doublecoDynArr(values) {}
    mlVector(mlVectorZeroTag, int n) { become(mlVectorZero, n); }
    mlVector(utCopyTag, const doublecoDynArr& other) : doublecoDynArr(other) {}
    explicit mlVector(const mlSlice& s) { *this = s; }

    using doublecoDynArr::operator=;
    mlVector& operator=(const mlSlice& s);

    using doublecoDynArr::become;
    // Zero vector of size n.
    int become(mlVectorZeroTag, int n);
    // Copy of n doubles.
    int become(utConvertTag, const double* data, int n);
    // M times v; v may be this vector itself.
    int become(mlMatrixProductTag, const mlMatrix& m, const mlVector& v);
    int become(mlMatrixProductTag, const mlMatrix& m, const mlSlice& v);

    void fill(double x);
    mlVector& operator+=(const mlVector& v);
    mlVector& operator-=(const mlVector& v);
    mlVector& operator*=(double s);
    mlVector& operator/=(double s);

    // Euclidean length; squared length.
    double norm() const;
    double squared_norm() const;

    // View of count entries from start (clipped to the vector's size).
    mlSlice slice(int start, int count);
    const mlSlice slice(int start, int count) const;
    // View of the whole vector.
    mlSlice as_slice() { return slice(0, size()); }
    const mlSlice as_slice() const { return slice(0, size()); }
};

// Dot product over the common leading part.
double scalar_product(const mlVector& v, const mlVector& w);
double scalar_product(const mlSlice& v, const mlSlice& w);
double scalar_product(const mlVector& v, const mlSlice& w);
double scalar_product(const mlSlice& v, const mlVector& w);

// out = M v; returns 0 (out unchanged) when v's size differs from M's column
// count. out may be v itself.
int multiply(const mlMatrix& m, const mlVector& v, mlVector& out);
int multiply(const mlMatrix& m, const mlSlice& v, mlVector& out);
