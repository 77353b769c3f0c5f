#include "metrofit/platform/maths/svd.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// Above this size the divide-and-conquer variant is used; below it the
// one-sided Jacobi method, which is the more accurate of the two for the small
// and tall-thin matrices of the fitting code.
constexpr int kJacobiMaxSize = 64;

// Rows per block of the tall-matrix QR: a block and the R above it stay in
// the first-level cache.
constexpr int kQrBlockRows = 256;

template <class Derived>
void copy_out(const Eigen::MatrixBase<Derived>& from, mlMatrix& to) {
    to.become(static_cast<int>(from.rows()), static_cast<int>(from.cols()));
    Eigen::Map<RowMajor>(to.data(), to.rows(), to.cols()) = from;
}

template <class Svd>
void take(const Svd& svd, int jobs, mlMatrix& u, mlMatrix& v, mlVector& s) {
    const auto& sv = svd.singularValues();
    s.become(utConvert, sv.data(), static_cast<int>(sv.size()));
    if (jobs & mlJOB_U) copy_out(svd.matrixU(), u);
    if (jobs & mlJOB_V) copy_out(svd.matrixV(), v);
}

// Singular values and right singular vectors of a tall M (rows > cols = C;
// C = Eigen::Dynamic for any count) through its upper-triangular factor R
// (C x C) of M = QR, which has the same singular values and right singular
// vectors. R is reduced block by block: each block of rows is stacked under
// the R of the rows before it and reduced again, so M is read once, in
// cache-sized pieces, and never copied whole, and R is as accurate as from
// one factorisation of all of M (the blocks form a product of orthogonal
// transformations). With a fixed C the blocks live on the stack. Returns
// false, writing nothing, when R is not finite: M has a non-finite entry
// (reflections keep column lengths) or a column length overflows.
template <int C>
bool tall_v_only(const Eigen::Map<const RowMajor>& m, mlMatrix& v, mlVector& s) {
    using Stack = Eigen::Matrix<double, Eigen::Dynamic, C, Eigen::ColMajor,
                                C == Eigen::Dynamic ? Eigen::Dynamic : kQrBlockRows + C, C>;
    using Square = Eigen::Matrix<double, C, C>;
    const int rows = static_cast<int>(m.rows()), cols = static_cast<int>(m.cols());
    const int block = std::max(kQrBlockRows, cols);
    Stack stack(cols + block, cols);
    Eigen::HouseholderQR<Stack> qr(cols + block, cols);
    Square r = Square::Zero(cols, cols);
    for (int first = 0; first < rows; first += block) {
        const int count = std::min(block, rows - first);
        const int top = first == 0 ? 0 : cols;
        auto used = stack.topRows(top + count);
        if (top > 0) used.topRows(cols) = r;
        used.bottomRows(count) = m.middleRows(first, count);
        qr.compute(used);
        r = qr.matrixQR().topRows(cols).template triangularView<Eigen::Upper>();
    }
    if (!r.allFinite()) return false;
    // R is square: no QR preconditioning is needed.
    const Eigen::JacobiSVD<Square, Eigen::NoQRPreconditioner> svd(r, Eigen::ComputeFullV);
    mlMatrix unused;
    take(svd, mlJOB_V, unused, v, s);
    return true;
}

}  // namespace

mlSingularValueDecomposition::mlSingularValueDecomposition(const mlMatrix& m) {
    decompose(m, mlJOB_U | mlJOB_V);
}

mlSingularValueDecomposition::mlSingularValueDecomposition(const mlMatrix& m, int jobs) {
    decompose(m, jobs);
}

void mlSingularValueDecomposition::decompose(const mlMatrix& m, int jobs) {
    rows_ = m.rows();
    cols_ = m.cols();
    if (m.empty()) return;
    const Eigen::Map<const RowMajor> mm(m.data(), m.rows(), m.cols());
    // A tall matrix whose U is not wanted (the centred points of a principal
    // axes fit) is first reduced to its small R factor, which has the same
    // singular values and right singular vectors; only R is then decomposed.
    // R is not finite when M is not, or when a column's length overflows;
    // those cases take the general path below, which checks every entry.
    if (jobs == mlJOB_V && rows_ > cols_ && cols_ <= kJacobiMaxSize) {
        const bool done = cols_ == 3   ? tall_v_only<3>(mm, v_, s_)
                          : cols_ == 2 ? tall_v_only<2>(mm, v_, s_)
                                       : tall_v_only<Eigen::Dynamic>(mm, v_, s_);
        if (done) {
            status_ = 1;
            return;
        }
    }
    if (!mm.allFinite()) return;

    unsigned options = 0;
    if (jobs & mlJOB_U) options |= Eigen::ComputeThinU;
    if (jobs & mlJOB_V) options |= Eigen::ComputeThinV;
    if (std::min(rows_, cols_) <= kJacobiMaxSize) {
        const Eigen::JacobiSVD<Eigen::MatrixXd> svd(mm, options);
        take(svd, jobs, u_, v_, s_);
    } else {
        const Eigen::BDCSVD<Eigen::MatrixXd> svd(mm, options);
        take(svd, jobs, u_, v_, s_);
    }
    // Eigen returns them sorted, largest first; a NaN would mean the iteration
    // broke down, which the finite input should rule out.
    for (const double x : s_)
        if (!std::isfinite(x)) {
            u_ = mlMatrix();
            v_ = mlMatrix();
            s_.clear(0);
            return;
        }
    status_ = 1;
}

double mlSingularValueDecomposition::default_tolerance() const {
    return std::max(rows_, cols_) * DBL_EPSILON;
}

double mlSingularValueDecomposition::cut(double tol) const {
    return s_.empty() ? 0.0 : tol * s_[0];
}

bool mlSingularValueDecomposition::is_singular(double tol) const {
    if (status_ == 0) return true;
    if (s_[0] == 0.0) return true;
    return s_[s_.size() - 1] <= cut(tol);
}

int mlSingularValueDecomposition::rank(double tol) const {
    if (status_ == 0 || s_[0] == 0.0) return 0;
    const double c = cut(tol);
    int r = 0;
    while (r < s_.size() && s_[r] > c) ++r;
    return r;
}

mlMatrix mlSingularValueDecomposition::inverse(double tol) const {
    mlMatrix inv;
    if (status_ == 0 || u_.empty() || v_.empty()) return inv;
    if (!inv.become(cols_, rows_)) return inv;
    const int r = rank(tol);
    if (r == 0) return inv;  // the pseudo-inverse of a zero matrix is zero
    const Eigen::Map<const RowMajor> u(u_.data(), u_.rows(), u_.cols());
    const Eigen::Map<const RowMajor> v(v_.data(), v_.rows(), v_.cols());
    const Eigen::Map<const Eigen::VectorXd> s(s_.data(), r);
    Eigen::Map<RowMajor>(inv.data(), inv.rows(), inv.cols()).noalias() =
        v.leftCols(r) * s.cwiseInverse().asDiagonal() * u.leftCols(r).transpose();
    return inv;
}

int mlSingularValueDecomposition::solve(const mlVector& b, mlVector& x, double tol) const {
    if (status_ == 0 || u_.empty() || v_.empty() || b.size() != rows_) return 0;
    const int r = rank(tol);
    if (r == 0) return 0;
    const Eigen::Map<const RowMajor> u(u_.data(), u_.rows(), u_.cols());
    const Eigen::Map<const RowMajor> v(v_.data(), v_.rows(), v_.cols());
    const Eigen::Map<const Eigen::VectorXd> s(s_.data(), r);
    const Eigen::Map<const Eigen::VectorXd> bb(b.data(), b.size());
    const Eigen::VectorXd coefficients = (u.leftCols(r).transpose() * bb).cwiseQuotient(s);
    mlVector solution;
    if (!solution.become(mlVectorZero, cols_)) return 0;
    Eigen::Map<Eigen::VectorXd>(solution.data(), cols_).noalias() = v.leftCols(r) * coefficients;
    x = std::move(solution);
    return 1;
}
