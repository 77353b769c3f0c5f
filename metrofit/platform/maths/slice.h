// mlSlice: a strided view of doubles that live elsewhere: one row or one
// column of an mlMatrix, or a range of an mlVector.
//
// A slice is (pointer, count, stride); it owns nothing, so it must not outlive
// the matrix or vector it views, nor survive a resize of it.
//
// Copying a slice copies the view (both slices then look at the same doubles).
// Assigning to a slice writes elements: slice = vector and slice = slice copy
// the first min(size, other size) values into the viewed storage, so that
// M.row(0) = M.row(1) copies a row rather than re-pointing a temporary.
// Overlapping source and target are handled as if the source were copied
// first.
//
// A slice does not carry the constness of what it views. Views of const
// objects are handed out as const mlSlice, whose elements can only be read;
// copying such a view into a non-const mlSlice to write through it is a misuse.
#pragma once

#include <cstddef>

class mlVector;

class mlSlice {
   public:
    mlSlice() = default;
    mlSlice(double* data, int count, int stride = 1)
        : data_(count > 0 ? data : nullptr), count_(count > 0 ? count : 0), stride_(stride) {}
    mlSlice(const mlSlice&) = default;

    mlSlice& operator=(const mlSlice& other);
    mlSlice& operator=(const mlVector& v);

    int size() const { return count_; }
    int stride() const { return stride_; }
    bool empty() const { return count_ == 0; }
    // Address of element 0 (null for an empty slice).
    double* data() { return data_; }
    const double* data() const { return data_; }

    // Element i, 0 <= i < size(); no bounds check (as the arrays' read access).
    double& operator[](int i) { return data_[static_cast<std::ptrdiff_t>(i) * stride_]; }
    double operator[](int i) const { return data_[static_cast<std::ptrdiff_t>(i) * stride_]; }

    void fill(double x) {
        for (int i = 0; i < count_; ++i) (*this)[i] = x;
    }

   private:
    // Copies count values with the given source stride into this view.
    void assign(const double* src, int count, int src_stride);

    double* data_ = nullptr;
    int count_ = 0;
    int stride_ = 1;
};
