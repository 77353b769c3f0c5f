#include "metrofit/platform/maths/eigen.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <complex>

namespace {

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

bool square_and_finite(const mlMatrix& m) {
    if (m.empty() || m.rows() != m.cols()) return false;
    return Eigen::Map<const RowMajor>(m.data(), m.rows(), m.cols()).allFinite();
}

}  // namespace

mlEigenVecs::mlEigenVecs(const mlMatrix& m) : matrix_(m) {}

mlEigenVecs::~mlEigenVecs() = default;

void mlEigenVecs::reset() {
    values_.clear(0);
    vectors_ = mlMatrix();
}

double mlEigenVecs::eigen_value(int i) const {
    return (i >= 0 && i < values_.size()) ? values_[i] : 0.0;
}

const mlSlice mlEigenVecs::eigen_vector(int i) const {
    if (i < 0 || i >= values_.size()) return mlSlice();
    return vectors_.row(i);
}

void mlEigenVecs::sort_and_normalise() {
    const int count = values_.size();
    const int n = vectors_.cols();
    intcoDynArr order;
    for (int i = 0; i < count; ++i) order.append(i);
    // Stable, so equal eigenvalues keep the solver's order.
    std::stable_sort(order.begin(), order.end(),
                     [this](int a, int b) { return values_[a] > values_[b]; });
    mlVector values;
    mlMatrix vectors(mlMatrixZero, count, n);
    for (int k = 0; k < count; ++k) {
        values.append(values_[order[k]]);
        mlVector v(vectors_.row(order[k]));
        const double length = v.norm();
        if (length > 0.0) v /= length;
        vectors.row(k) = v;
    }
    values_ = std::move(values);
    vectors_ = std::move(vectors);
}

int mlSymEigenVecs::calculate() {
    reset();
    if (!square_and_finite(matrix_)) return 0;
    const int n = matrix_.rows();
    const Eigen::Map<const RowMajor> m(matrix_.data(), n, n);
    const Eigen::MatrixXd symmetric = 0.5 * (m + m.transpose());
    const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> solver(symmetric);
    if (solver.info() != Eigen::Success) return 0;
    // Eigen gives ascending values, eigenvectors in columns.
    values_.become(utConvert, solver.eigenvalues().data(), n);
    vectors_.become(n, n);
    Eigen::Map<RowMajor>(vectors_.data(), n, n) = solver.eigenvectors().transpose();
    sort_and_normalise();
    return 1;
}

int mlAsymEigenVecs3::calculate() {
    reset();
    if (!square_and_finite(matrix_) || matrix_.rows() != 3) return 0;
    const Eigen::Map<const RowMajor> m(matrix_.data(), 3, 3);
    const Eigen::Matrix3d general = m;
    const Eigen::EigenSolver<Eigen::Matrix3d> solver(general);
    if (solver.info() != Eigen::Success) return 0;
    const auto& lambda = solver.eigenvalues();
    const auto& vecs = solver.eigenvectors();
    const double spectral_radius = lambda.cwiseAbs().maxCoeff();
    const double imaginary_limit = std::max(tolerance_, 0.0) * spectral_radius;

    vectors_.become(3, 3);
    int count = 0;
    for (int k = 0; k < 3; ++k) {
        if (std::abs(lambda[k].imag()) > imaginary_limit) continue;
        // Turn the complex vector so that its largest component is real; its
        // real part is then the real direction (exactly so for a real pair).
        Eigen::Vector3cd z = vecs.col(k);
        int big = 0;
        z.cwiseAbs().maxCoeff(&big);
        if (std::abs(z[big]) > 0.0) z *= std::conj(z[big]) / std::abs(z[big]);
        for (int j = 0; j < 3; ++j) vectors_(count, j) = z[j].real();
        values_.append(lambda[k].real());
        ++count;
    }
    mlMatrix kept(mlMatrixZero, count, 3);
    for (int r = 0; r < count; ++r) kept.row(r) = mlVector(vectors_.row(r));
    vectors_ = std::move(kept);
    sort_and_normalise();
    return 1;
}
