#include "metrofit/platform/maths/matrix.h"

#include <Eigen/Dense>
#include <climits>
#include <utility>

namespace {

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

Eigen::Map<const RowMajor> view(const mlMatrix& m) {
    return Eigen::Map<const RowMajor>(m.data(), m.rows(), m.cols());
}

bool valid_shape(int rows, int cols) {
    return rows >= 0 && cols >= 0 &&
           static_cast<long long>(rows) * static_cast<long long>(cols) <= INT_MAX;
}

}  // namespace

int mlMatrix::become(int rows, int cols) {
    if (!valid_shape(rows, cols)) return 0;
    doublecoDynArr fresh;
    if (!fresh.expand(rows * cols)) return 0;  // zero-filled
    data_ = std::move(fresh);
    rows_ = rows;
    cols_ = cols;
    return 1;
}

int mlMatrix::become(mlMatrixIdentityTag, int n) {
    if (!become(n, n)) return 0;
    for (int i = 0; i < n; ++i) (*this)(i, i) = 1.0;
    return 1;
}

int mlMatrix::become(mlMatrixTransposeTag, const mlMatrix& m) {
    mlMatrix t;
    if (!t.become(m.cols(), m.rows())) return 0;
    if (!m.empty()) Eigen::Map<RowMajor>(t.data(), t.rows(), t.cols()) = view(m).transpose();
    *this = std::move(t);
    return 1;
}

int mlMatrix::become(mlMatrixProductTag, const mlMatrix& a, const mlMatrix& b) {
    if (a.cols() != b.rows()) return 0;
    mlMatrix p;
    if (!p.become(a.rows(), b.cols())) return 0;
    if (!p.empty() && a.cols() > 0)
        Eigen::Map<RowMajor>(p.data(), p.rows(), p.cols()).noalias() = view(a) * view(b);
    *this = std::move(p);
    return 1;
}

int mlMatrix::become(utCopyTag, const mlMatrix& m) {
    if (this == &m) return 1;
    if (!data_.become(utCopy, m.data_)) return 0;
    rows_ = m.rows_;
    cols_ = m.cols_;
    return 1;
}

int mlMatrix::become(utConvertTag, const double* data, int rows, int cols) {
    if (!valid_shape(rows, cols) || (rows * cols > 0 && data == nullptr)) return 0;
    mlMatrix m;
    if (!m.become(rows, cols)) return 0;
    for (int k = 0; k < rows * cols; ++k) m.data()[k] = data[k];
    *this = std::move(m);
    return 1;
}

mlMatrix& mlMatrix::operator+=(const mlMatrix& m) {
    if (m.rows_ == rows_ && m.cols_ == cols_)
        for (int k = 0; k < rows_ * cols_; ++k) data()[k] += m.data()[k];
    return *this;
}

mlMatrix& mlMatrix::operator-=(const mlMatrix& m) {
    if (m.rows_ == rows_ && m.cols_ == cols_)
        for (int k = 0; k < rows_ * cols_; ++k) data()[k] -= m.data()[k];
    return *this;
}

mlMatrix& mlMatrix::operator*=(double s) {
    for (int k = 0; k < rows_ * cols_; ++k) data()[k] *= s;
    return *this;
}

mlMatrix& mlMatrix::operator/=(double s) {
    for (int k = 0; k < rows_ * cols_; ++k) data()[k] /= s;
    return *this;
}
