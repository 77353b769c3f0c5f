// An independent least-squares solution for the feature tests: Gauss-Newton
// in long double with a central-difference Jacobian, normal equations solved
// by Gauss elimination with partial pivoting, iterated from a start near the
// optimum until the step stops shrinking (at most 60 steps). It shares no
// code with the library's models or solver, so agreement with it to 1e-9 is
// evidence that a fit reached the least-squares optimum.
//
// residuals(p, r) fills r with the m residuals at parameters p.
#pragma once

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace testsupport {

using LongVector = std::vector<long double>;

template <class Residuals>
LongVector gauss_newton(Residuals residuals, LongVector p, int m) {
    const int np = static_cast<int>(p.size());
    LongVector r(m), rp(m), rm(m);
    long double last = 1e300L;
    for (int iteration = 0; iteration < 60; ++iteration) {
        residuals(p, r);
        // J^T J and -J^T r, column by column from central differences.
        std::vector<LongVector> jac(np, LongVector(m));
        for (int j = 0; j < np; ++j) {
            const long double h = 1e-7L * std::max(1.0L, std::fabs(p[j]));
            LongVector q = p;
            q[j] = p[j] + h;
            residuals(q, rp);
            q[j] = p[j] - h;
            residuals(q, rm);
            for (int i = 0; i < m; ++i) jac[j][i] = (rp[i] - rm[i]) / (2 * h);
        }
        std::vector<LongVector> a(np, LongVector(np + 1, 0.0L));
        for (int s = 0; s < np; ++s) {
            for (int t = 0; t < np; ++t)
                for (int i = 0; i < m; ++i) a[s][t] += jac[s][i] * jac[t][i];
            for (int i = 0; i < m; ++i) a[s][np] -= jac[s][i] * r[i];
        }
        for (int k = 0; k < np; ++k) {
            int pivot = k;
            for (int s = k + 1; s < np; ++s)
                if (std::fabs(a[s][k]) > std::fabs(a[pivot][k])) pivot = s;
            std::swap(a[k], a[pivot]);
            for (int s = k + 1; s < np; ++s) {
                const long double f = a[s][k] / a[k][k];
                for (int t = k; t <= np; ++t) a[s][t] -= f * a[k][t];
            }
        }
        LongVector step(np);
        long double size = 0.0L;
        for (int k = np - 1; k >= 0; --k) {
            step[k] = a[k][np];
            for (int t = k + 1; t < np; ++t) step[k] -= a[k][t] * step[t];
            step[k] /= a[k][k];
            size = std::max(size, std::fabs(step[k]) / std::max(1.0L, std::fabs(p[k])));
        }
        if (!(size < last)) break;
        for (int k = 0; k < np; ++k) p[k] += step[k];
        last = size;
    }
    return p;
}

}  // namespace testsupport
