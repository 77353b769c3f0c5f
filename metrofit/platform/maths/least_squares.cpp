#include "metrofit/platform/maths/least_squares.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "metrofit/platform/maths/eigen.h"
#include "metrofit/platform/maths/matrix.h"

namespace {

// Damped phase.
constexpr int kMaxBuilds = 200;           // normal-equation builds
constexpr double kInitialDamping = 1e-3;  // lambda, in the unit-diagonal basis
constexpr double kMinDamping = 1e-15;     // floor after accepted steps
constexpr double kRejectDamping = 1e-4;   // least lambda after a rejection
constexpr double kMaxDamping = 1e10;      // beyond this the step is abandoned
constexpr double kDecreaseTol = 1e-14;    // relative decrease at rounding level
constexpr double kStepTol = 1e-15;        // relative step at rounding level
constexpr double kTinyStep = 1e-13;       // a rejected step this small ends the fit
// Polishing phase.
constexpr int kMaxPolishSteps = 6;
constexpr double kContraction = 0.5;     // each step at most half the last
constexpr double kPolishGrowth = 1e-12;  // tolerated relative rise of the sum
// Directions left out of a step (eigenvalue relative to the largest).
constexpr double kStrictNull = 1e-14;  // always
constexpr double kLooseNull = 1e-8;    // the model's declared gauge directions

bool all_finite(const mlVector& v) {
    for (const double x : v)
        if (!std::isfinite(x)) return false;
    return true;
}

// Sets v on the model and sums the squared distances (in extended precision,
// so that the comparison of two nearby sums is limited by the distances'
// own rounding, not by the summation). False when a distance is not finite.
bool sum_of_squares(mlDistanceLeastSquares& model, const mlVector& v, long double& sum) {
    model.set_parameters(v);
    long double s = 0.0L;
    for (int i = 0; i < model.n_points(); ++i) {
        double d = 0.0;
        model.get_distance(d, i);
        s += static_cast<long double>(d) * d;
    }
    if (!std::isfinite(static_cast<double>(s))) return false;
    sum = s;
    return true;
}

// Sum over b < m of x[b] * y[b], in four interleaved partial sums so that
// the additions of consecutive terms do not wait on each other.
double dot(const double* x, const double* y, int m) {
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    int b = 0;
    for (; b + 3 < m; b += 4) {
        s0 += x[b] * y[b];
        s1 += x[b + 1] * y[b + 1];
        s2 += x[b + 2] * y[b + 2];
        s3 += x[b + 3] * y[b + 3];
    }
    for (; b < m; ++b) s0 += x[b] * y[b];
    return (s0 + s1) + (s2 + s3);
}

constexpr int kBlock = 64;
// Models with at most this many parameters (every feature model of the
// library) run on fixed-capacity matrices that live on the stack, so a fit
// allocates next to nothing; larger models use heap matrices.
constexpr int kSmallP = 16;

template <int MaxP>
struct Dense {
    using Matrix = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0, MaxP, MaxP>;
    using Vector = Eigen::Matrix<double, Eigen::Dynamic, 1, 0, MaxP, 1>;
    using Flags = Eigen::Matrix<unsigned char, Eigen::Dynamic, 1, 0, MaxP, 1>;
    using Block = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, 0,
                                MaxP == Eigen::Dynamic ? Eigen::Dynamic : kBlock, MaxP>;
    using BlockVector = Eigen::Matrix<double, Eigen::Dynamic, 1, 0,
                                      MaxP == Eigen::Dynamic ? Eigen::Dynamic : kBlock, 1>;
};

// Gradient vectors handed to the model in turn: each is read back only after
// the model has written the next ones, so reading does not wait on the
// model's just-stored values. Small point sets use fewer of them, since each
// is an allocation per fit.
constexpr int kGradients = 64;

// Scratch of one pass, shared by the normal systems of one fit (one pass runs
// at a time): the model's gradient vectors, and a block of points' distances
// and scaled gradients gathered parameter by parameter.
template <int MaxP>
struct BlockScratch {
    BlockScratch(int p, int n_points) {
        const int rows = std::max(1, std::min(kBlock, n_points));
        block.setZero(rows, p);
        distances.setZero(rows);
        ring = std::max(1, std::min(kGradients, n_points / 16));
        for (int q = 0; q < ring; ++q) gradient[q].become(mlVectorZero, p);
    }
    typename Dense<MaxP>::Block block;  // rows x p: column j is parameter j over the block
    typename Dense<MaxP>::BlockVector distances;
    mlVector gradient[kGradients];
    int ring = 1;  // gradient vectors in use
};

// One pass over the points at the model's current parameters: the sum of
// squared distances S, and the normal equations A = J^T J, g = J^T d with
// J's columns divided by the parameter scales, followed by the eigen
// decomposition of A in the Jacobi-scaled basis (unit diagonal), in which
// Marquardt's damping lambda diag(A) becomes lambda I.
//
// The points are taken in blocks of kBlock: the block's distances and scaled
// gradients are gathered into the scratch, then the upper triangle of A and g
// are accumulated from it with plain loops. No Jacobian of all points is
// stored and nothing is allocated per point; gathering first keeps the
// model's virtual calls out of the accumulation loops.
template <int MaxP>
class NormalSystem {
    using Matrix = typename Dense<MaxP>::Matrix;
    using Vector = typename Dense<MaxP>::Vector;

   public:
    NormalSystem(int p, BlockScratch<MaxP>& scratch)
        : p_(p),
          a_(Matrix::Zero(p, p)),
          g_(Vector::Zero(p)),
          inv_scale_(Vector::Ones(p)),
          jacobi_(Vector::Ones(p)),
          weight_(Vector::Ones(p)),
          c_(Vector::Zero(p)),
          y_(Vector::Zero(p)),
          kept_(Dense<MaxP>::Flags::Zero(p)),
          scratch_(scratch),
          solver_(p) {}

    // Accumulates S, A (upper triangle written into the lower one's mirror
    // slots: A(k, j), k >= j) and g. Returns false when S is not finite;
    // system_ok() tells whether A and g are.
    bool accumulate(const mlDistanceLeastSquares& model) {
        model.parameter_scales(scales_);
        for (int j = 0; j < p_; ++j) {
            const double s = j < scales_.size() ? scales_[j] : 1.0;
            inv_scale_[j] = (std::isfinite(s) && s > 0.0) ? 1.0 / s : 1.0;
        }
        a_.setZero();
        g_.setZero();
        auto& block = scratch_.block;
        auto& distances = scratch_.distances;
        mlVector* gradient = scratch_.gradient;
        const int ring = scratch_.ring;
        const int rows = static_cast<int>(block.rows());
        long double sum = 0.0L;
        const int n = model.n_points();
        for (int first = 0; first < n; first += rows) {
            const int m = std::min(rows, n - first);
            for (int b0 = 0; b0 < m; b0 += ring) {
                const int count = std::min(ring, m - b0);
                for (int q = 0; q < count; ++q) {
                    double d = 0.0;
                    model.get_distance_and_gradient(d, gradient[q], first + b0 + q);
                    distances[b0 + q] = d;
                    sum += static_cast<long double>(d) * d;
                }
                // Entries are cleared as they are taken, so one a model
                // leaves unwritten counts as 0.
                for (int q = 0; q < count; ++q) {
                    double* grad = gradient[q].data();
                    for (int j = 0; j < p_; ++j) {
                        block(b0 + q, j) = grad[j] * inv_scale_[j];
                        grad[j] = 0.0;
                    }
                }
            }
            for (int j = 0; j < p_; ++j) {
                const double* hj = &block(0, j);
                g_[j] += dot(hj, distances.data(), m);
                for (int k = j; k < p_; ++k) a_(k, j) += dot(hj, &block(0, k), m);
            }
        }
        sum_ = sum;
        sum_ok_ = std::isfinite(static_cast<double>(sum));
        system_ok_ = sum_ok_ && a_.allFinite() && g_.allFinite();
        return sum_ok_;
    }

    // accumulate() and the decomposition. Returns false when S is not finite.
    bool build(const mlDistanceLeastSquares& model) {
        if (!accumulate(model)) return false;
        usable_ = false;
        if (!system_ok_) return true;
        for (int j = 0; j < p_; ++j) {
            const double norm = std::sqrt(a_(j, j));
            jacobi_[j] = norm > 0.0 ? norm : 1.0;  // a zero column stays zero
            weight_[j] = norm / inv_scale_[j];     // column length of the unscaled J
        }
        for (int j = 0; j < p_; ++j)
            for (int k = j; k < p_; ++k) a_(k, j) /= jacobi_[j] * jacobi_[k];
        solver_.compute(a_);  // reads the lower triangle
        if (solver_.info() != Eigen::Success) return true;
        const auto& mu = solver_.eigenvalues();  // ascending
        const double largest = mu[p_ - 1];
        const int gauge = p_ - std::clamp(model.n_independent_parameters(), 0, p_);
        for (int k = 0; k < p_; ++k) {
            kept_[k] = largest > 0.0 && mu[k] > kStrictNull * largest &&
                       !(k < gauge && mu[k] <= kLooseNull * largest);
            usable_ = usable_ || kept_[k];
        }
        c_.noalias() = solver_.eigenvectors().transpose() * g_.cwiseQuotient(jacobi_);
        return true;
    }

    long double sum() const { return sum_; }
    bool sum_ok() const { return sum_ok_; }
    bool system_ok() const { return system_ok_; }
    // A step can be taken: the system is finite and some direction is kept.
    bool usable() const { return usable_; }

    // Predicted decrease of S for damping lambda.
    double predicted_decrease(double lambda) const {
        const auto& mu = solver_.eigenvalues();
        double pred = 0.0;
        for (int k = 0; k < p_; ++k)
            if (kept_[k])
                pred +=
                    c_[k] * c_[k] * (mu[k] + 2.0 * lambda) / ((mu[k] + lambda) * (mu[k] + lambda));
        return pred;
    }

    // Parameter change for damping lambda.
    void step(double lambda, mlVector& delta) {
        const auto& mu = solver_.eigenvalues();
        y_.setZero();
        for (int k = 0; k < p_; ++k)
            if (kept_[k]) y_ -= solver_.eigenvectors().col(k) * (c_[k] / (mu[k] + lambda));
        delta.become(mlVectorZero, p_);
        for (int j = 0; j < p_; ++j) delta[j] = y_[j] * inv_scale_[j] / jacobi_[j];
    }

    // Size of the change from x to y relative to the size of x, both measured
    // by the change of distance they cause: max_j |v_j| times the length of
    // column j of the unscaled Jacobian.
    double relative_change(const mlVector& x, const mlVector& y) const {
        double change = 0.0, size = 0.0;
        for (int j = 0; j < p_; ++j) {
            change = std::max(change, std::abs(y[j] - x[j]) * weight_[j]);
            size = std::max(size, std::abs(x[j]) * weight_[j]);
        }
        return change / std::max(size, DBL_MIN);
    }

    // J^T J with scaled columns, lower triangle; valid after accumulate() and
    // before build() rescales it.
    const Matrix& normal_matrix() const { return a_; }

   private:
    int p_;
    Matrix a_;
    Vector g_, inv_scale_, jacobi_, weight_, c_, y_;
    typename Dense<MaxP>::Flags kept_;
    BlockScratch<MaxP>& scratch_;
    Eigen::SelfAdjointEigenSolver<Matrix> solver_;
    mlVector scales_;
    long double sum_ = 0.0L;
    bool sum_ok_ = false, system_ok_ = false, usable_ = false;
};

// x + delta in canonical form; false when not finite or of the wrong size.
bool make_trial(const mlDistanceLeastSquares& model, const mlVector& x, const mlVector& delta,
                mlVector& trial) {
    trial = x;
    trial += delta;
    model.normalize_parameters(trial);
    return trial.size() == x.size() && all_finite(trial);
}

}  // namespace

mlDistanceLeastSquares::mlDistanceLeastSquares(int n_parameters, int n_points)
    : n_parameters_(std::max(n_parameters, 0)), n_points_(std::max(n_points, 0)) {
    parameters_.become(mlVectorZero, n_parameters_);
}

mlDistanceLeastSquares::~mlDistanceLeastSquares() = default;

void mlDistanceLeastSquares::set_parameters(const mlVector& v) { parameters_ = v; }

void mlDistanceLeastSquares::normalize_parameters(mlVector&) const {}

double mlDistanceLeastSquares::get_last_square_distance() const {
    if (n_points_ == 0) return 0.0;
    double sum = 0.0;
    for (int i = 0; i < n_points_; ++i) {
        double d = 0.0;
        get_distance(d, i);
        sum += d * d;
    }
    return sum / n_points_;
}

int mlDistanceLeastSquares::n_independent_parameters() const { return n_parameters_; }

void mlDistanceLeastSquares::parameter_scales(mlVector& scales) const {
    scales.become(mlVectorZero, n_parameters_);
    scales.fill(1.0);
}

double mlDistanceLeastSquares::point_distribution_quality(const mlVector& v) {
    const int p = n_parameters_;
    const int k = std::min(n_independent_parameters(), p);
    if (k <= 0 || n_points_ < k || v.size() != p) return 0.0;
    mlVector x(v);
    normalize_parameters(x);
    if (x.size() != p || !all_finite(x)) return 0.0;
    set_parameters(x);
    BlockScratch<Eigen::Dynamic> scratch(p, n_points_);
    NormalSystem<Eigen::Dynamic> system(p, scratch);
    if (!system.accumulate(*this) || !system.system_ok()) return 0.0;
    const Eigen::MatrixXd& a = system.normal_matrix();
    mlMatrix normal(mlMatrixZero, p, p);
    for (int j = 0; j < p; ++j)
        for (int i = j; i < p; ++i) normal(i, j) = normal(j, i) = a(i, j) / n_points_;
    mlSymEigenVecs eigen(normal);
    if (!eigen.calculate()) return 0.0;
    return std::sqrt(std::max(eigen.eigen_value(k - 1), 0.0));
}

namespace {

// The damped and polishing phases from the normalised start x, which the
// model holds; see the header for the method.
template <int MaxP>
double minimise(mlDistanceLeastSquares& model, mlVector x, mlVector& result, int& iterations_) {
    const int p = model.n_parameters();
    // `current` always holds the pass at x; `candidate` receives the pass at a
    // trial, and the two swap when the trial is accepted.
    BlockScratch<MaxP> scratch(p, model.n_points());
    NormalSystem<MaxP> first(p, scratch), second(p, scratch);
    NormalSystem<MaxP>* current = &first;
    NormalSystem<MaxP>* candidate = &second;
    ++iterations_;
    if (!current->build(model)) return DBL_MAX;
    long double f = current->sum();
    const mlVector x_start(x);
    const long double f_start = f;

    mlVector delta, trial, next;
    double lambda = kInitialDamping;
    bool converged = false;  // the last accepted step was negligible

    // Damped phase. The first trial of an iteration is evaluated together with
    // its normal equations, since it is usually accepted; retries after a
    // rejection (larger lambda) only evaluate the sum.
    while (iterations_ < kMaxBuilds) {
        if (!current->usable() || current->predicted_decrease(0.0) <= kDecreaseTol * f) break;
        bool accepted = false, first_try = true;
        double relative_step = 0.0;
        long double decrease = 0.0L;
        while (lambda <= kMaxDamping && !accepted) {
            if (current->predicted_decrease(lambda) <= kDecreaseTol * f) break;
            current->step(lambda, delta);
            long double f_trial = 0.0L;
            bool have_system = false;
            if (make_trial(model, x, delta, trial)) {
                if (first_try) {
                    model.set_parameters(trial);
                    ++iterations_;
                    have_system = candidate->build(model);
                    f_trial = candidate->sum();
                    accepted = have_system && f_trial < f;
                } else {
                    accepted = sum_of_squares(model, trial, f_trial) && f_trial < f;
                }
            }
            if (!accepted && first_try && current->relative_change(x, trial) <= kTinyStep) {
                // A step at the rounding level of the parameters that does not
                // lower the sum: x is the minimum as far as doubles resolve it
                // (the usual end on exact data, where the sum is all rounding).
                converged = true;
                break;
            }
            first_try = false;
            if (!accepted) {
                lambda = std::max(lambda * 10.0, kRejectDamping);
                continue;
            }
            relative_step = current->relative_change(x, trial);
            decrease = f - f_trial;
            x = trial;
            f = f_trial;
            lambda = std::max(lambda / 10.0, kMinDamping);
            if (have_system) {
                std::swap(current, candidate);
            } else {
                ++iterations_;
                current->build(model);  // the model holds x: add its A and g
            }
        }
        if (!accepted || converged) break;
        if (relative_step <= kStepTol) {
            converged = true;
            break;
        }
        if (decrease <= kDecreaseTol * f) break;
    }

    // Polishing phase: undamped steps, each kept while the iteration contracts.
    if (!converged && current->usable()) {
        current->step(0.0, delta);
        double step = make_trial(model, x, delta, trial) ? current->relative_change(x, trial) : 0.0;
        for (int k = 0; k < kMaxPolishSteps && step > kStepTol; ++k) {
            model.set_parameters(trial);
            ++iterations_;
            if (!candidate->build(model) || candidate->sum() > f + kPolishGrowth * f ||
                !candidate->usable())
                break;
            candidate->step(0.0, delta);
            if (!make_trial(model, trial, delta, next)) break;
            const double next_step = candidate->relative_change(trial, next);
            if (next_step > kContraction * step) break;
            x = trial;
            f = candidate->sum();
            std::swap(current, candidate);
            trial = next;
            step = next_step;
        }
    }

    if (f > f_start) {
        x = x_start;
        f = f_start;
    }
    model.set_parameters(x);
    result = x;
    return static_cast<double>(f / model.n_points());
}

}  // namespace

double mlLevenbergMarquardt::fit(const mlVector& start, mlVector& result) {
    iterations_ = 0;
    mlDistanceLeastSquares& model = model_;
    const int p = model.n_parameters();
    if (p <= 0 || start.size() != p || !all_finite(start)) return DBL_MAX;
    mlVector x(start);
    model.normalize_parameters(x);
    if (x.size() != p || !all_finite(x)) return DBL_MAX;
    model.set_parameters(x);
    if (model.n_points() == 0) {
        result = x;
        return 0.0;
    }
    return p <= kSmallP ? minimise<kSmallP>(model, x, result, iterations_)
                        : minimise<Eigen::Dynamic>(model, x, result, iterations_);
}
