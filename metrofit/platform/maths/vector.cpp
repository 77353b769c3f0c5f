#include "metrofit/platform/maths/vector.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <functional>

#include "metrofit/platform/maths/matrix.h"

namespace {

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Strided = Eigen::Map<const Eigen::VectorXd, 0, Eigen::InnerStride<>>;

// Address interval [lo, hi] covered by count values at the given stride.
void span_of(const double* p, int count, int stride, const double*& lo, const double*& hi) {
    const double* last = p + static_cast<std::ptrdiff_t>(count - 1) * stride;
    lo = std::min(p, last, std::less<const double*>());
    hi = std::max(p, last, std::less<const double*>());
}

template <class A, class B>
double dot(const A& v, const B& w) {
    const int n = std::min(v.size(), w.size());
    double s = 0.0;
    for (int i = 0; i < n; ++i) s += v[i] * w[i];
    return s;
}

// out = M x, x given as count values at a stride.
int matrix_times(const mlMatrix& m, const double* x, int count, int stride, mlVector& out) {
    if (count != m.cols()) return 0;
    mlVector product;
    if (!product.become(mlVectorZero, m.rows())) return 0;
    if (m.rows() > 0 && m.cols() > 0) {
        const Eigen::Map<const RowMajor> mm(m.data(), m.rows(), m.cols());
        const Strided xx(x, count, Eigen::InnerStride<>(stride));
        Eigen::Map<Eigen::VectorXd>(product.data(), m.rows()).noalias() = mm * xx;
    }
    out = std::move(product);
    return 1;
}

}  // namespace

void mlSlice::assign(const double* src, int count, int src_stride) {
    const int n = std::min(count_, count);
    if (n <= 0) return;
    const double *slo, *shi, *dlo, *dhi;
    span_of(src, n, src_stride, slo, shi);
    span_of(data_, n, stride_, dlo, dhi);
    const std::less<const double*> before;
    const bool overlap = !before(shi, dlo) && !before(dhi, slo);
    if (!overlap) {
        for (int i = 0; i < n; ++i) (*this)[i] = src[static_cast<std::ptrdiff_t>(i) * src_stride];
        return;
    }
    mlVector copy;
    for (int i = 0; i < n; ++i) copy.append(src[static_cast<std::ptrdiff_t>(i) * src_stride]);
    for (int i = 0; i < copy.size(); ++i) (*this)[i] = copy[i];
}

mlSlice& mlSlice::operator=(const mlSlice& other) {
    if (this != &other) assign(other.data_, other.count_, other.stride_);
    return *this;
}

mlSlice& mlSlice::operator=(const mlVector& v) {
    assign(v.data(), v.size(), 1);
    return *this;
}

mlVector& mlVector::operator=(const mlSlice& s) {
    mlVector copy;
    if (!copy.reserve(s.size())) return *this;
    for (int i = 0; i < s.size(); ++i) copy.append(s[i]);
    *this = std::move(copy);
    return *this;
}

int mlVector::become(mlVectorZeroTag, int n) {
    if (n < 0 || !reserve(n)) return 0;
    clear(0);
    return expand(n);
}

int mlVector::become(utConvertTag, const double* data, int n) {
    if (n < 0 || (n > 0 && data == nullptr) || !reserve(n)) return 0;
    clear(0);
    for (int i = 0; i < n; ++i) append(data[i]);
    return 1;
}

int mlVector::become(mlMatrixProductTag, const mlMatrix& m, const mlVector& v) {
    return matrix_times(m, v.data(), v.size(), 1, *this);
}

int mlVector::become(mlMatrixProductTag, const mlMatrix& m, const mlSlice& v) {
    return matrix_times(m, v.data(), v.size(), v.stride(), *this);
}

void mlVector::fill(double x) { std::fill(begin(), end(), x); }

mlVector& mlVector::operator+=(const mlVector& v) {
    if (v.size() == size())
        for (int i = 0; i < size(); ++i) data()[i] += v[i];
    return *this;
}

mlVector& mlVector::operator-=(const mlVector& v) {
    if (v.size() == size())
        for (int i = 0; i < size(); ++i) data()[i] -= v[i];
    return *this;
}

mlVector& mlVector::operator*=(double s) {
    for (double& x : *this) x *= s;
    return *this;
}

mlVector& mlVector::operator/=(double s) {
    for (double& x : *this) x /= s;
    return *this;
}

double mlVector::squared_norm() const { return dot(*this, *this); }

double mlVector::norm() const {
    if (empty()) return 0.0;
    return Eigen::Map<const Eigen::VectorXd>(data(), size()).stableNorm();
}

mlSlice mlVector::slice(int start, int count) {
    start = std::clamp(start, 0, size());
    count = std::clamp(count, 0, size() - start);
    return mlSlice(data() + start, count, 1);
}

const mlSlice mlVector::slice(int start, int count) const {
    return const_cast<mlVector*>(this)->slice(start, count);
}

double scalar_product(const mlVector& v, const mlVector& w) { return dot(v, w); }
double scalar_product(const mlSlice& v, const mlSlice& w) { return dot(v, w); }
double scalar_product(const mlVector& v, const mlSlice& w) { return dot(v, w); }
double scalar_product(const mlSlice& v, const mlVector& w) { return dot(v, w); }

int multiply(const mlMatrix& m, const mlVector& v, mlVector& out) {
    return out.become(mlMatrixProduct, m, v);
}

int multiply(const mlMatrix& m, const mlSlice& v, mlVector& out) {
    return out.become(mlMatrixProduct, m, v);
}
