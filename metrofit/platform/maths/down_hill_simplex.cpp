#include "metrofit/platform/maths/down_hill_simplex.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

namespace {

struct Tolerances {
    double ftol, xtol;
    int restarts;
};

Tolerances tolerances_of(mlDownHillSimplexSpeed speed) {
    switch (speed) {
        case mlDownHillSimplexQuick:
            return {1e-8, 1e-6, 1};
        case mlDownHillSimplexPrecise:
            return {1e-15, 1e-15, 16};
        default:
            return {1e-12, 1e-9, 2};
    }
}

// Absolute floor of the value spread, below any rounding of useful values: a
// minimum value of 0 leaves the stop to the size test.
constexpr double kTinySpread = 1e-300;

// A restart whose best vertex lies within this many size tolerances of the
// previous one confirms it.
constexpr double kConfirmed = 10.0;

// Evaluations per run and vertex.
constexpr int kEvaluationsPerVertex = 1000;

// NaN ranks as +infinity, so the simplex walks away from undefined points.
double rank(double value) { return std::isnan(value) ? HUGE_VAL : value; }

// One Nelder-Mead search from a start vertex of known value. Vertices are
// the rows of a (n + 1) x n block; the order of the values is kept in an
// index list sorted by (value, vertex slot), so ties go to the lower slot.
class NelderMead {
   public:
    NelderMead(mlFunctionN1& f, int n, int& evaluations)
        : f_(f),
          n_(n),
          evaluations_(evaluations),
          point_(mlVectorZero, n),
          vertices_(static_cast<size_t>(n + 1) * n),
          values_(n + 1),
          order_(n + 1),
          centroid_(n),
          trial_(n),
          second_trial_(n) {}

    // Runs from start (value f_start) with a simplex of edge h; on return
    // start holds the best vertex and the result is its value.
    double run(std::vector<double>& start, double f_start, double h, const Tolerances& tol) {
        const int budget = kEvaluationsPerVertex * (n_ + 1);
        int used = 0;
        for (int i = 0; i <= n_; ++i) {
            double* x = vertex(i);
            std::copy(start.begin(), start.end(), x);
            if (i == 0) {
                values_[0] = f_start;
                continue;
            }
            x[i - 1] += h;
            values_[i] = evaluate(x);
            ++used;
        }
        // Room for the worst iteration: reflection, contraction and a shrink.
        while (used + n_ + 2 <= budget) {
            sort();
            const int best = order_[0], worst = order_[n_], next = order_[n_ - 1];
            if (converged(tol)) break;

            std::fill(centroid_.begin(), centroid_.end(), 0.0);
            for (int i = 0; i <= n_; ++i) {
                if (i == worst) continue;
                const double* x = vertex(i);
                for (int j = 0; j < n_; ++j) centroid_[j] += x[j];
            }
            for (int j = 0; j < n_; ++j) centroid_[j] /= n_;

            const double fr = move(worst, 1.0, trial_);  // reflection
            ++used;
            if (fr < values_[best]) {
                const double fe = move(worst, 2.0, second_trial_);  // expansion
                ++used;
                if (fe < fr)
                    accept(worst, second_trial_, fe);
                else
                    accept(worst, trial_, fr);
            } else if (fr < values_[next]) {
                accept(worst, trial_, fr);
            } else {
                // Contraction: outside when the reflection improved on the
                // worst vertex, inside otherwise.
                const bool outside = fr < values_[worst];
                const double fc = move(worst, outside ? 0.5 : -0.5, second_trial_);
                ++used;
                if (outside ? fc <= fr : fc < values_[worst]) {
                    accept(worst, second_trial_, fc);
                } else {
                    shrink(best);
                    used += n_;
                }
            }
        }
        sort();
        const double* x = vertex(order_[0]);
        std::copy(x, x + n_, start.begin());
        return values_[order_[0]];
    }

    double evaluate(const double* x) {
        std::copy(x, x + n_, point_.data());
        ++evaluations_;
        return rank(f_.function(point_.as_slice()));
    }

   private:
    double* vertex(int i) { return vertices_.data() + static_cast<size_t>(i) * n_; }

    void sort() {
        for (int i = 0; i <= n_; ++i) order_[i] = i;
        std::stable_sort(order_.begin(), order_.end(),
                         [this](int a, int b) { return values_[a] < values_[b]; });
    }

    bool converged(const Tolerances& tol) const {
        const double fb = values_[order_[0]], fw = values_[order_[n_]];
        // An infinite (or undefined) worst value is never close to the best.
        const double spread = fw - fb;
        if (std::isfinite(spread) &&
            spread <= tol.ftol * (std::fabs(fb) + std::fabs(fw)) + kTinySpread)
            return true;
        const double* xb = vertices_.data() + static_cast<size_t>(order_[0]) * n_;
        double size = 0.0, extent = 0.0;
        for (int j = 0; j < n_; ++j) size = std::max(size, std::fabs(xb[j]));
        for (int i = 0; i <= n_; ++i) {
            const double* x = vertices_.data() + static_cast<size_t>(i) * n_;
            for (int j = 0; j < n_; ++j) extent = std::max(extent, std::fabs(x[j] - xb[j]));
        }
        return extent <= tol.xtol * (1.0 + size);
    }

    // The point centroid + t (centroid - worst) into out; returns its value.
    double move(int worst, double t, std::vector<double>& out) {
        const double* xw = vertex(worst);
        for (int j = 0; j < n_; ++j) out[j] = centroid_[j] + t * (centroid_[j] - xw[j]);
        return evaluate(out.data());
    }

    void accept(int slot, const std::vector<double>& x, double value) {
        std::copy(x.begin(), x.end(), vertex(slot));
        values_[slot] = value;
    }

    // Every vertex halfway towards the best one.
    void shrink(int best) {
        const double* xb = vertex(best);
        for (int i = 0; i <= n_; ++i) {
            if (i == best) continue;
            double* x = vertex(i);
            for (int j = 0; j < n_; ++j) x[j] = xb[j] + 0.5 * (x[j] - xb[j]);
            values_[i] = evaluate(x);
        }
    }

    mlFunctionN1& f_;
    int n_;
    int& evaluations_;
    mlVector point_;
    std::vector<double> vertices_, values_;
    std::vector<int> order_;
    std::vector<double> centroid_, trial_, second_trial_;
};

}  // namespace

mlDownHillSimplex::mlDownHillSimplex(int n) : n_(std::max(n, 0)) {}

double mlDownHillSimplex::solve(mlFunctionN1& f, const mlVector& start,
                                mlDownHillSimplexSpeed speed) {
    evaluations_ = 0;
    best_ = start;
    if (start.size() != n_) return DBL_MAX;
    bool finite = true;
    for (const double v : start) finite = finite && std::isfinite(v);
    if (n_ == 0 || !finite) {
        ++evaluations_;
        return f.function(start.as_slice());
    }

    const Tolerances tol = tolerances_of(speed);
    const double h = std::isfinite(step_) && step_ != 0.0 ? step_ : 0.1;
    NelderMead search(f, n_, evaluations_);
    std::vector<double> x(start.begin(), start.end());
    double value = search.evaluate(x.data());
    value = search.run(x, value, h, tol);
    // A converged simplex may have collapsed onto a face, or stalled on a
    // kink of a non-smooth function, short of the minimum: a fresh simplex
    // around its best vertex either confirms the vertex or moves on. It
    // confirms it when it finds nothing lower, or something lower within a
    // few size tolerances.
    for (int restart = 0; restart < tol.restarts; ++restart) {
        std::vector<double> y = x;
        const double again = search.run(y, value, h, tol);
        if (!(again < value)) break;
        double moved = 0.0, size = 0.0;
        for (int j = 0; j < n_; ++j) {
            moved = std::max(moved, std::fabs(y[j] - x[j]));
            size = std::max(size, std::fabs(x[j]));
        }
        x = std::move(y);
        value = again;
        if (moved <= kConfirmed * tol.xtol * (1.0 + size)) break;
    }
    best_.become(utConvert, x.data(), n_);
    return value;
}

// Out of line: an inlined copy into the caller's vector lets GCC's
// object-size analysis see the count as possibly negative and warn.
void mlDownHillSimplex::result(mlVector& v) const { v = best_; }
