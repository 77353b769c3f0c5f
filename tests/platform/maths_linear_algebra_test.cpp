#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/eigen.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "tests/support/random.h"

namespace {

// The first cols columns of the Householder reflector I - 2 w w^T / w.w of a
// random w: orthonormal by construction, different for every seed.
mlMatrix orthonormal(int rows, int cols, std::uint64_t seed) {
    testsupport::Rng rng(seed);
    mlVector w;
    for (int i = 0; i < rows; ++i) w.append(rng.uniform(-1, 1));
    mlMatrix q(mlMatrixZero, rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) q(i, j) = (i == j) - 2 * w[i] * w[j] / w.squared_norm();
    return q;
}

// U diag(s) V^T.
mlMatrix compose(const mlMatrix& u, const std::vector<double>& s, const mlMatrix& v) {
    mlMatrix us(u);
    for (int i = 0; i < us.rows(); ++i)
        for (int j = 0; j < us.cols(); ++j) us(i, j) *= s[j];
    return mlMatrix(mlMatrixProduct, us, mlMatrix(mlMatrixTranspose, v));
}

double max_difference(const mlMatrix& a, const mlMatrix& b) {
    if (a.rows() != b.rows() || a.cols() != b.cols()) return INFINITY;
    double worst = 0.0;
    for (int k = 0; k < a.rows() * a.cols(); ++k)
        worst = std::max(worst, std::fabs(a.data()[k] - b.data()[k]));
    return worst;
}

std::vector<double> descending(std::vector<double> v) {
    std::sort(v.rbegin(), v.rend());
    return v;
}

// U diag(s) V^T from chosen orthonormal factors: values come back sorted,
// factors orthonormal and the product rebuilt.
TEST(MathsSingularValueDecomposition, RecoversKnownFactors) {
    const struct {
        const char* name;
        int rows, cols;
        std::vector<double> s;  // known singular values, unsorted
    } cases[] = {{"tall", 7, 3, {1e-3, 3, 8}},
                 {"rank deficient", 6, 4, {0, 7, 0, 3}},
                 {"10000 points", 10000, 3, {100, 1, 10}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int k = static_cast<int>(c.s.size());
        const mlMatrix u = orthonormal(c.rows, k, 1), v = orthonormal(c.cols, k, 2);
        const mlMatrix m = compose(u, c.s, v);
        const std::vector<double> sorted = descending(c.s);
        const bool tall = c.rows > 1000;  // V only: no rows x k U is formed
        const mlSingularValueDecomposition svd =
            tall ? mlSingularValueDecomposition(m, mlJOB_V) : mlSingularValueDecomposition(m);
        ASSERT_EQ(svd.diagonal().size(), k);
        for (int i = 0; i < k; ++i) EXPECT_NEAR(svd.diagonal()[i], sorted[i], 1e-13 * sorted[0]);
        EXPECT_EQ(svd.U().empty(), tall);
        const mlMatrix vtv(mlMatrixProduct, mlMatrix(mlMatrixTranspose, svd.V()), svd.V());
        EXPECT_LT(max_difference(vtv, mlMatrix(mlMatrixIdentity, k)), 1e-13);
        if (!tall) {
            const std::vector<double> s(svd.diagonal().begin(), svd.diagonal().end());
            EXPECT_LT(max_difference(compose(svd.U(), s, svd.V()), m), 1e-13 * sorted[0]);
        }
    }
}

TEST(MathsPseudoInverse, FollowsTheToleranceRuleAndSolvesLeastSquares) {
    // Rank 2 of 4: the pseudo-inverse is V diag(1/7, 1/3, 0, 0) U^T.
    const mlMatrix u = orthonormal(6, 4, 3), v = orthonormal(4, 4, 4);
    const mlMatrix m = compose(u, {7, 3, 0, 0}, v);
    const mlSingularValueDecomposition svd(m);
    EXPECT_LT(max_difference(svd.inverse(1e-12), compose(v, {1 / 7.0, 1 / 3.0, 0, 0}, u)), 1e-14);

    // b = M x0 + r, x0 in the row space, r along U's unused third column: the
    // shortest least-squares solution is x0.
    mlVector x0, b, r(u.column(2)), x, back = {-1};
    x0.become(mlMatrixProduct, v, mlVector{0.5, -2, 0, 0});
    b.become(mlMatrixProduct, m, x0);
    b += r;
    ASSERT_EQ(svd.solve(b, x, 1e-12), 1);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(x[i], x0[i], 1e-14);
    EXPECT_EQ(svd.solve({1, 2, 3}, back), 0);  // wrong size: untouched
    EXPECT_EQ(back.size(), 1);

    // Singular values at or below tol * largest are cut: diag(4, 2, 1).
    const double d[9] = {4, 0, 0, 0, 2, 0, 0, 0, 1};
    const mlSingularValueDecomposition diag(mlMatrix(utConvert, d, 3, 3));
    EXPECT_TRUE(diag.is_singular(0.25) && !diag.is_singular(0.2));  // 1 <= 0.25 * 4

    // Zero and non-finite matrices: singular at any tolerance, nothing solved.
    mlMatrix bad(mlMatrixIdentity, 3);
    bad(1, 2) = std::nan("");
    for (const mlMatrix& z : {mlMatrix(mlMatrixZero, 3, 2), bad}) {
        const mlSingularValueDecomposition refused(z);
        EXPECT_TRUE(refused.is_singular(0.0) && !refused.solve({1, 1, 1}, back) &&
                    back.size() == 1);
    }
    EXPECT_TRUE(mlSingularValueDecomposition(bad).inverse().empty());
}

// Q diag(lambda) Q^T: values in descending order, unit vectors matching Q's
// columns up to sign.
TEST(MathsSymEigenVecs, RecoversKnownEigenpairsInDescendingOrder) {
    for (const std::vector<double>& lambda :
         std::vector<std::vector<double>>{{1e3, -1e3, 0, 2, 7, -4}, {2, 2, -1}}) {
        const int n = static_cast<int>(lambda.size());
        const mlMatrix q = orthonormal(n, n, 20 + n);
        mlSymEigenVecs eigen(compose(q, lambda, q));
        ASSERT_EQ(eigen.calculate(), 1);
        ASSERT_EQ(eigen.num_real_eigen_values(), n);
        const std::vector<double> sorted = descending(lambda);
        const double scale = std::max(std::fabs(sorted.front()), std::fabs(sorted.back()));
        for (int i = 0; i < n; ++i) {
            EXPECT_NEAR(eigen.eigen_value(i), sorted[i], 1e-13 * scale);
            const auto j = std::find(lambda.begin(), lambda.end(), sorted[i]) - lambda.begin();
            EXPECT_TRUE(std::count(lambda.begin(), lambda.end(), sorted[i]) > 1 ||
                        std::fabs(scalar_product(eigen.eigen_vector(i), q.column(int(j)))) >
                            1 - 1e-12);
        }
        EXPECT_TRUE(eigen.eigen_vector(n).empty());
    }
    EXPECT_EQ(mlSymEigenVecs(mlMatrix(mlMatrixZero, 2, 3)).calculate(), 0);
}

// P B P^-1 with a non-orthogonal P (det 3, inverse by hand): a diagonal B
// gives three real pairs along P's columns; a rotation-scaling block gives a
// complex pair, not reported.
TEST(MathsAsymEigenVecs3, ReportsRealPairsSortedAndSkipsComplexOnes) {
    const double pd[9] = {1, 2, 0, 0, 1, 1, 1, 0, 1}, pinv[9] = {1, -2, 2, 1, 1, -1, -1, 2, 1};
    const mlMatrix p(utConvert, pd, 3, 3);
    mlMatrix p_inverse(utConvert, pinv, 3, 3);
    p_inverse /= 3.0;
    const auto calculate = [&](const double* b) {
        mlAsymEigenVecs3 eigen(mlMatrix(mlMatrixProduct,
                                        mlMatrix(mlMatrixProduct, p, mlMatrix(utConvert, b, 3, 3)),
                                        p_inverse));
        EXPECT_EQ(eigen.calculate(), 1);
        return eigen;
    };
    const auto along_column = [&](const mlSlice& e, int j) {
        const mlVector c(p.column(j));
        return std::fabs(scalar_product(e, c)) / c.norm();
    };

    const double real[9] = {3, 0, 0, 0, -1, 0, 0, 0, 0.5};
    const mlAsymEigenVecs3 all_real = calculate(real);
    ASSERT_EQ(all_real.num_real_eigen_values(), 3);
    const double expected[3] = {3, 0.5, -1};
    const int column[3] = {0, 2, 1};
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(all_real.eigen_value(i), expected[i], 1e-13);
        EXPECT_NEAR(along_column(all_real.eigen_vector(i), column[i]), 1.0, 1e-13);
    }
    const double complex_pair[9] = {1, -2, 0, 2, 1, 0, 0, 0, -0.7};  // 1 +- 2i, -0.7
    const mlAsymEigenVecs3 one_real = calculate(complex_pair);
    ASSERT_EQ(one_real.num_real_eigen_values(), 1);
    EXPECT_NEAR(one_real.eigen_value(0), -0.7, 1e-13);
    EXPECT_EQ(mlAsymEigenVecs3(mlMatrix(mlMatrixIdentity, 4)).calculate(), 0);
}

}  // namespace
