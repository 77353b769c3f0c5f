#include "metrofit/platform/maths/constrained_quadratic.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace {

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
using Eigen::MatrixXd;
using Eigen::VectorXd;

// A row is met when its residual C_i x - d_i is at most this fraction of the
// size of the terms it is computed from (far above their rounding, far below
// any tolerance band).
constexpr double kFeasibility = 1e-9;
// Directions whose curvature is at most this fraction of the largest
// singular value of M are not moved along (the cut of the unconstrained
// pseudo-inverse solution).
constexpr double kUnseen = 1e-7;
// The same cut for the squared rows of the least-violation Newton matrix.
constexpr double kUnseenSquared = kUnseen * kUnseen;
// C_i p must exceed this fraction of sum |C_ij p_j| for row i to block a step:
// smaller values are rounding of a row that p runs along.
constexpr double kBlocking = 1e-10;
// A step whose decrease of q is below this fraction of the scale of q is
// rounding noise of a point that is already the minimum of its working set.
constexpr double kNegligibleDecrease = 1e-20;
// A multiplier times its row length below -kMultiplier times the size of the
// gradient's terms marks a constraint that holds the minimum back.
constexpr double kMultiplier = 1e-10;

bool all_finite(const double* data, long long count) {
    for (long long i = 0; i < count; ++i)
        if (!std::isfinite(data[i])) return false;
    return true;
}

// The rows of the constraint set with the live ones marked.
class RowSet {
   public:
    RowSet(const mlMatrix& c, const mlVector& d, const utBoolcoDynArr& deleted)
        : c_(c.data(), c.rows(), c.cols()), d_(d.data(), d.size()), deleted_(deleted) {}

    int rows() const { return static_cast<int>(c_.rows()); }
    bool live(int i) const { return i >= deleted_.size() || !deleted_[i]; }
    const Eigen::Map<const RowMajor>& c() const { return c_; }
    const Eigen::Map<const VectorXd>& d() const { return d_; }

    // The largest residual row i may keep at x and still count as met.
    double allowance(int i, const VectorXd& x) const {
        return kFeasibility * (c_.row(i).cwiseAbs().dot(x.cwiseAbs()) + std::fabs(d_[i]));
    }
    bool met(int i, const VectorXd& x, double residual) const {
        return residual <= allowance(i, x);
    }
    // Half the sum of the squared violations of the live rows.
    double violation(const VectorXd& residual) const {
        double sum = 0.0;
        for (int i = 0; i < rows(); ++i)
            if (live(i) && residual[i] > 0.0) sum += residual[i] * residual[i];
        return 0.5 * sum;
    }

   private:
    Eigen::Map<const RowMajor> c_;
    Eigen::Map<const VectorXd> d_;
    const utBoolcoDynArr& deleted_;
};

// -A^+ b for a symmetric A, over the eigenvalues above max(cut, relative
// times the largest one); the others are directions that are not moved along.
VectorXd pseudo_inverse_step(const MatrixXd& a, const VectorXd& b, double cut, double relative) {
    VectorXd step = VectorXd::Zero(a.rows());
    if (a.rows() == 0) return step;
    const Eigen::SelfAdjointEigenSolver<MatrixXd> eigen(a);
    const VectorXd& values = eigen.eigenvalues();
    const MatrixXd& vectors = eigen.eigenvectors();
    cut = std::max(cut, relative * values.cwiseAbs().maxCoeff());
    for (Eigen::Index k = 0; k < values.size(); ++k)
        if (values[k] > cut) step -= vectors.col(k) * (vectors.col(k).dot(b) / values[k]);
    return step;
}

// Exact minimiser t >= 0 of 1/2 sum max(0, r_i + t c_i)^2 over the live rows,
// for a descent direction. The derivative is piecewise linear and
// non-decreasing in t; rows enter or leave the sum at t = -r_i / c_i.
double violation_line_search(const RowSet& rows, const VectorXd& r, const VectorXd& c) {
    struct Event {
        double t;
        int row;
        int sign;  // +1 enters, -1 leaves
    };
    std::vector<Event> events;
    double slope = 0.0, value = 0.0;  // derivative = value + slope t
    for (int i = 0; i < rows.rows(); ++i) {
        if (!rows.live(i) || c[i] == 0.0) continue;
        if (r[i] > 0.0 || (r[i] == 0.0 && c[i] > 0.0)) {
            slope += c[i] * c[i];
            value += r[i] * c[i];
            if (c[i] < 0.0) events.push_back({r[i] / -c[i], i, -1});
        } else if (c[i] > 0.0) {
            events.push_back({-r[i] / c[i], i, +1});
        }
    }
    std::sort(events.begin(), events.end(), [](const Event& a, const Event& b) {
        return a.t < b.t || (a.t == b.t && a.row < b.row);
    });
    double t = 0.0;
    for (const Event& e : events) {
        if (slope > 0.0 && -value <= slope * e.t) return std::max(t, -value / slope);
        t = e.t;
        slope += e.sign * c[e.row] * c[e.row];
        value += e.sign * r[e.row] * c[e.row];
    }
    return slope > 0.0 ? std::max(t, -value / slope) : t;
}

}  // namespace

mlConstrainedQuadraticMinimiser::mlConstrainedQuadraticMinimiser(const mlMatrix& constraints,
                                                                 const mlVector& bounds,
                                                                 int resolve_overdetermined)
    : constraints_(constraints), bounds_(bounds), resolve_(resolve_overdetermined) {
    deleted_.expand(constraints_.rows());
}

int mlConstrainedQuadraticMinimiser::are_valid(const mlMatrix& constraints,
                                               const mlVector& bounds) {
    if (constraints.rows() != bounds.size()) return 0;
    if (constraints.rows() == 0) return 1;
    if (constraints.cols() < 1) return 0;
    const long long entries = static_cast<long long>(constraints.rows()) * constraints.cols();
    return all_finite(constraints.data(), entries) && all_finite(bounds.data(), bounds.size()) ? 1
                                                                                               : 0;
}

int mlConstrainedQuadraticMinimiser::stage1(mlVector& x) {
    if (!are_valid(constraints_, bounds_)) return 0;
    const int m = constraints_.rows(), n = constraints_.cols();
    if (m == 0) return 1;
    if (x.size() != n || !all_finite(x.data(), n)) return 0;

    const RowSet rows(constraints_, bounds_, deleted_);
    VectorXd at = Eigen::Map<const VectorXd>(x.data(), n);
    VectorXd residual = rows.c() * at - rows.d();
    double phi = rows.violation(residual);
    // Each accepted step lowers the violation strictly; the pieces of the
    // violation are finitely many, and so are the steps.
    const long long limit = 10LL * (m + n) + 50;
    for (long long iteration = 0; iteration < limit; ++iteration) {
        bool feasible = true;
        for (int i = 0; i < m && feasible; ++i)
            feasible = !rows.live(i) || rows.met(i, at, residual[i]);
        if (feasible) break;

        // Newton step on the piece of the violated rows: the shortest step
        // that solves their least-squares problem.
        MatrixXd normal = MatrixXd::Zero(n, n);
        VectorXd gradient = VectorXd::Zero(n);
        for (int i = 0; i < m; ++i) {
            if (!rows.live(i) || residual[i] <= 0.0) continue;
            normal.noalias() += rows.c().row(i).transpose() * rows.c().row(i);
            gradient.noalias() += residual[i] * rows.c().row(i).transpose();
        }
        const VectorXd step = pseudo_inverse_step(normal, gradient, 0.0, kUnseenSquared);
        if (!step.allFinite() || step.isZero(0.0)) break;
        const VectorXd along = rows.c() * step;
        const double t = violation_line_search(rows, residual, along);
        const VectorXd next = at + t * step;
        const VectorXd next_residual = rows.c() * next - rows.d();
        const double next_phi = rows.violation(next_residual);
        if (!(next_phi < phi)) break;
        at = next;
        residual = next_residual;
        phi = next_phi;
    }

    intcoDynArr violated;
    for (int i = 0; i < m; ++i)
        if (rows.live(i) && !rows.met(i, at, residual[i])) violated.append(i);
    Eigen::Map<VectorXd>(x.data(), n) = at;
    if (violated.empty()) return 1;
    append_constraint_indices(violated, overdetermined_);
    return 0;
}

void mlConstrainedQuadraticMinimiser::delete_overdetermined_constraints() {
    if (!resolve_) return;
    for (const int i : overdetermined_)
        if (i >= 0 && i < deleted_.size()) deleted_[i] = true;
}

int mlConstrainedQuadraticMinimiser::stage2(const mlMatrix& M, const mlVector& V, mlVector& x) {
    const int n = x.size(), m = constraints_.rows();
    if (n < 1 || M.rows() != n || M.cols() != n || V.size() != n) return 0;
    if (!are_valid(constraints_, bounds_) || (m > 0 && constraints_.cols() != n)) return 0;
    if (!all_finite(M.data(), static_cast<long long>(n) * n) || !all_finite(V.data(), n) ||
        !all_finite(x.data(), n))
        return 0;

    const Eigen::Map<const RowMajor> m_given(M.data(), n, n);
    const MatrixXd q = 0.5 * (m_given + m_given.transpose());
    const Eigen::Map<const VectorXd> v(V.data(), n);
    VectorXd at = Eigen::Map<const VectorXd>(x.data(), n);

    // Empty constraint sets have no columns: give them n for the products.
    const mlMatrix no_rows(mlMatrixZero, 0, n);
    const RowSet rows(m > 0 ? constraints_ : no_rows, bounds_, deleted_);
    {
        const VectorXd residual = rows.c() * at - rows.d();
        for (int i = 0; i < m; ++i)
            if (rows.live(i) && !rows.met(i, at, residual[i])) return 0;
    }

    const Eigen::SelfAdjointEigenSolver<MatrixXd> whole(q);
    const double cut = kUnseen * whole.eigenvalues().cwiseAbs().maxCoeff();
    // Scale of q: its terms at the start and the unconstrained decrease.
    double q_scale = std::fabs(at.dot(q * at)) + std::fabs(v.dot(at));
    for (int k = 0; k < n; ++k) {
        const double lambda = whole.eigenvalues()[k];
        if (lambda > cut) q_scale += std::pow(whole.eigenvectors().col(k).dot(v), 2) / lambda;
    }

    std::vector<int> working;
    std::vector<char> in_working(m, 0);
    bool at_minimum = false;  // of q on the working set
    const long long limit = 100LL * (m + n);
    for (long long iteration = 0;; ++iteration) {
        if (iteration >= limit) return 0;
        const int k = static_cast<int>(working.size());
        const VectorXd g = q * at - v;
        MatrixXd cw(n, k);  // the working rows as columns
        for (int j = 0; j < k; ++j) cw.col(j) = rows.c().row(working[j]).transpose();
        Eigen::HouseholderQR<MatrixXd> qr;
        if (k > 0) qr.compute(cw);

        if (!at_minimum) {
            if (k == n) {  // a vertex: nothing left to move along
                at_minimum = true;
                continue;
            }
            // Minimise q over x + Z y, Z the null space of the working rows.
            const MatrixXd z = k == 0 ? MatrixXd::Identity(n, n)
                                      : MatrixXd(MatrixXd(qr.householderQ()).rightCols(n - k));
            const MatrixXd h = z.transpose() * q * z;
            const VectorXd p = z * pseudo_inverse_step(h, z.transpose() * g, cut, 0.0);
            const double decrease = -(g.dot(p) + 0.5 * p.dot(q * p));
            if (!p.allFinite()) return 0;
            if (!(decrease > kNegligibleDecrease * q_scale) || at + p == at) {
                at_minimum = true;
                continue;
            }
            // Go as far as the first row that the step would cross.
            double alpha = 1.0;
            int blocking = -1;
            const VectorXd along = rows.c() * p;
            for (int i = 0; i < m; ++i) {
                if (!rows.live(i) || in_working[i]) continue;
                const double rate = along[i];
                if (!(rate > kBlocking * rows.c().row(i).cwiseAbs().dot(p.cwiseAbs()))) continue;
                const double slack = std::max(0.0, rows.d()[i] - rows.c().row(i).dot(at));
                if (slack < alpha * rate) {
                    alpha = slack / rate;
                    blocking = i;
                }
            }
            at += alpha * p;
            if (blocking >= 0) {
                working.push_back(blocking);
                in_working[blocking] = 1;
            } else {
                at_minimum = true;
            }
            continue;
        }

        // Multipliers of C_W^T lambda = -g; a negative one means q falls when
        // its row is left.
        if (k == 0) break;
        const VectorXd lambda =
            qr.matrixQR().topLeftCorner(k, k).triangularView<Eigen::Upper>().solve(
                (qr.householderQ().transpose() * -g).head(k));
        if (!lambda.allFinite()) return 0;
        const double g_scale = (q.cwiseAbs() * at.cwiseAbs() + v.cwiseAbs()).maxCoeff();
        int leaving = -1;
        double most_negative = -kMultiplier * g_scale;
        for (int j = 0; j < k; ++j) {
            const double weighted = lambda[j] * cw.col(j).norm();
            if (weighted < most_negative) {
                most_negative = weighted;
                leaving = j;
            }
        }
        if (leaving < 0) break;
        in_working[working[leaving]] = 0;
        working.erase(working.begin() + leaving);
        at_minimum = false;
    }

    active_.clear(0);
    std::sort(working.begin(), working.end());
    for (const int i : working) active_.append(i);
    Eigen::Map<VectorXd>(x.data(), n) = at;
    return 1;
}

int mlConstrainedQuadraticMinimiser::solve(const mlMatrix& M, const mlVector& V, mlVector& x) {
    mlVector start = x;
    if (!stage1(start)) {
        if (!resolve_) return 0;
        delete_overdetermined_constraints();
    }
    if (!stage2(M, V, start)) return 0;
    x = start;
    return 1;
}

void mlConstrainedQuadraticMinimiser::append_constraint_indices(const intcoDynArr& from,
                                                                intcoDynArr& to) {
    std::vector<int> merged(to.begin(), to.end());
    merged.insert(merged.end(), from.begin(), from.end());
    std::sort(merged.begin(), merged.end());
    merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
    to.clear(0);
    to.reserve(static_cast<int>(merged.size()));
    for (const int i : merged) to.append(i);
}
