#include "metrofit/alignment/direct_shift_objective.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

using Mat3 = double[3][3];

// Rotation by angle about a unit axis (Rodrigues).
void axis_rotation(const double u[3], double angle, Mat3 R) {
    const double c = std::cos(angle), s = std::sin(angle), k = 1.0 - c;
    R[0][0] = c + u[0] * u[0] * k;
    R[0][1] = u[0] * u[1] * k - u[2] * s;
    R[0][2] = u[0] * u[2] * k + u[1] * s;
    R[1][0] = u[1] * u[0] * k + u[2] * s;
    R[1][1] = c + u[1] * u[1] * k;
    R[1][2] = u[1] * u[2] * k - u[0] * s;
    R[2][0] = u[2] * u[0] * k - u[1] * s;
    R[2][1] = u[2] * u[1] * k + u[0] * s;
    R[2][2] = c + u[2] * u[2] * k;
}

void multiply(const Mat3 A, const Mat3 B, Mat3 out) {
    double P[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            P[r][c] = A[r][0] * B[0][c] + A[r][1] * B[1][c] + A[r][2] * B[2][c];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) out[r][c] = P[r][c];
}

// The moved point R (m - g) + g + t, written relative to q: returns v.
inline void moved_minus_nominal(const Mat3 R, const double g[3], const double t[3],
                                const tsPlaneAndPoint& e, double v[3]) {
    const double d[3] = {e.measured_point.x() - g[0], e.measured_point.y() - g[1],
                         e.measured_point.z() - g[2]};
    // (g + t - q) first: far from the origin it is the small part.
    const double o[3] = {g[0] + t[0] - e.nominal_point.x(), g[1] + t[1] - e.nominal_point.y(),
                         g[2] + t[2] - e.nominal_point.z()};
    for (int r = 0; r < 3; ++r) v[r] = R[r][0] * d[0] + R[r][1] * d[1] + R[r][2] * d[2] + o[r];
}

inline double dot3(const giVector3& n, const double v[3]) {
    return n.x() * v[0] + n.y() * v[1] + n.z() * v[2];
}

inline bool has_partner(const tsBalancePairs& pairs, int i, int n) {
    return i < static_cast<int>(pairs.size()) && pairs[i].first != -1 && i + 1 < n;
}

// The projector across the normal of a plane entry, I - n n^T / |n|^2.
inline Eigen::Matrix3d across(const tsPlaneAndPoint& e) {
    const Eigen::Vector3d n(e.normal.x(), e.normal.y(), e.normal.z());
    const double nn = n.squaredNorm();
    Eigen::Matrix3d P = Eigen::Matrix3d::Identity();
    if (nn > 0.0) P -= n * n.transpose() / nn;
    return P;
}

// The part of v across the normal of a plane entry: the slide along the
// tangent plane that the attraction restrains (point entries tie every
// component already and get none).
inline double tangential(const tsPlaneAndPoint& e, const double v[3], double out[3]) {
    const double nn = e.normal.length_squared();
    const double k = nn > 0.0 ? dot3(e.normal, v) / nn : 0.0;
    out[0] = v[0] - k * e.normal.x();
    out[1] = v[1] - k * e.normal.y();
    out[2] = v[2] - k * e.normal.z();
    return out[0] * out[0] + out[1] * out[1] + out[2] * out[2];
}

}  // namespace

tsAmoebaPointsToPlanesDirectShift::tsAmoebaPointsToPlanesDirectShift(
    const tsPlaneAndPointcoDynArr& data, const tsBalancePairs& pairs,
    const giVector3coDynArr& directions, const giVector3coDynArr& rotation_locks, double attraction,
    int mode, int n_positioning)
    : data_(data),
      pairs_(pairs),
      directions_(directions),
      rotation_locks_(rotation_locks),
      attraction_(attraction),
      mode_(mode == 1 ? 1 : 0),
      n_positioning_(std::max(0, std::min(n_positioning, data.size()))) {
    const bool has_direction = directions.size() >= 2;
    dimension_ = get_dimension(has_direction, rotation_locks, mode_);
    rotation_dim_ = rotation_locks.size() > 0 ? 0 : (has_direction ? 1 : 3);

    const int n = data.size();
    double s[3] = {0, 0, 0};
    for (const tsPlaneAndPoint& e : data) {
        s[0] += e.measured_point.x();
        s[1] += e.measured_point.y();
        s[2] += e.measured_point.z();
    }
    double ss = 0.0;
    if (n > 0) {
        for (int r = 0; r < 3; ++r) centre_[r] = s[r] / n;
        for (const tsPlaneAndPoint& e : data) {
            const double dx = e.measured_point.x() - centre_[0],
                         dy = e.measured_point.y() - centre_[1],
                         dz = e.measured_point.z() - centre_[2];
            ss += dx * dx + dy * dy + dz * dz;
        }
        radius_ = std::sqrt(ss / n);
    }
    if (!(radius_ > 0.0) || !std::isfinite(radius_)) radius_ = 1.0;
    set_flip(0);
    prepare_normal_matrix();
}

int tsAmoebaPointsToPlanesDirectShift::get_dimension(bool has_direction,
                                                     const giVector3coDynArr& rotation_locks,
                                                     int mode) {
    const int k = std::min(3, rotation_locks.size());
    const int rotation = k > 0 ? 0 : (has_direction ? 1 : 3);
    const int shift = k > 0 ? k : 3;
    return rotation + (mode == 1 ? shift : 0);
}

void tsAmoebaPointsToPlanesDirectShift::set_flip(int flip) {
    flip_ = flip ? 1 : 0;
    if (directions_.size() < 2) return;
    const giUnitVec3 a(directions_[0]), b(directions_[1]);
    if (!a.is_set() || !b.is_set()) return;
    const double sign = flip_ ? -1.0 : 1.0;
    axis_[0] = sign * b.x();
    axis_[1] = sign * b.y();
    axis_[2] = sign * b.z();
    const double av[3] = {a.x(), a.y(), a.z()};
    double w[3] = {av[1] * axis_[2] - av[2] * axis_[1], av[2] * axis_[0] - av[0] * axis_[2],
                   av[0] * axis_[1] - av[1] * axis_[0]};
    const double sine = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
    const double cosine = av[0] * axis_[0] + av[1] * axis_[1] + av[2] * axis_[2];
    if (sine > 1e-15) {
        for (double& x : w) x /= sine;
        axis_rotation(w, std::atan2(sine, cosine), lock_);
    } else if (cosine < 0.0) {
        const giUnitVec3 normal = a.any_normal();
        const double u[3] = {normal.x(), normal.y(), normal.z()};
        axis_rotation(u, giAngle::kPi, lock_);
    } else {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) lock_[r][c] = r == c ? 1.0 : 0.0;
    }
}

void tsAmoebaPointsToPlanesDirectShift::rotation_from(const mlSlice& x, double R[3][3]) const {
    if (rotation_dim_ == 3) {
        const double c2 = std::cos(x[2]);
        const double u[3] = {std::cos(x[1]) * c2, std::sin(x[1]) * c2, std::sin(x[2])};
        axis_rotation(u, x[0], R);
    } else if (rotation_dim_ == 1) {
        double turn[3][3];
        axis_rotation(axis_, x[0], turn);
        multiply(turn, lock_, R);
    } else {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) R[r][c] = r == c ? 1.0 : 0.0;
    }
}

// The shift's least-squares problem: each residual is a . t + e (a a
// constant direction, e its value at the reference shift t0), so with
// A = sum a a^T and h = sum a e the best shift is t0 - A^+ h. A point entry
// gives three residuals along the axes scaled by |n|, the attraction three
// more scaled by sqrt(attraction) for every bestfit entry.
void tsAmoebaPointsToPlanesDirectShift::gradient_terms(const double R[3][3], const double t0[3],
                                                       double h[3], double& S) const {
    h[0] = h[1] = h[2] = 0.0;
    S = 0.0;
    const int n = data_.size();
    for (int i = 0; i < n; ++i) {
        const tsPlaneAndPoint& e = data_[i];
        double v[3];
        moved_minus_nominal(R, centre_, t0, e, v);
        if (e.kind != 0 && i >= n_positioning_ && attraction_ != 0.0) {
            double vt[3];
            S += attraction_ * tangential(e, v, vt);
            for (int r = 0; r < 3; ++r) h[r] += attraction_ * vt[r];
        }
        if (e.kind == 0) {
            const double w2 = e.normal.length_squared();
            for (int r = 0; r < 3; ++r) h[r] += w2 * v[r];
            S += w2 * (v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
            continue;
        }
        double a[3] = {e.normal.x(), e.normal.y(), e.normal.z()};
        double r = dot3(e.normal, v);
        if (has_partner(pairs_, i, n)) {
            const tsPlaneAndPoint& f = data_[i + 1];
            double v2[3];
            moved_minus_nominal(R, centre_, t0, f, v2);
            if (attraction_ != 0.0 && i + 1 >= n_positioning_) {
                double vt[3];
                S += attraction_ * tangential(f, v2, vt);
                for (int k = 0; k < 3; ++k) h[k] += attraction_ * vt[k];
            }
            const double c1 = pairs_[i].second, c2 = pairs_[i + 1].second;
            r = c1 * r + c2 * dot3(f.normal, v2);
            a[0] = c1 * a[0] + c2 * f.normal.x();
            a[1] = c1 * a[1] + c2 * f.normal.y();
            a[2] = c1 * a[2] + c2 * f.normal.z();
            ++i;
        }
        for (int k = 0; k < 3; ++k) h[k] += a[k] * r;
        S += r * r;
    }
}

// A and the maps from h to the shift: the same directions as gradient_terms
// (R-independent), solved by pseudo-inverse in the span of the lock vectors
// (or of x, y, z) with eigenvalues below 1e-12 of the largest left out.
void tsAmoebaPointsToPlanesDirectShift::prepare_normal_matrix() {
    Eigen::Matrix3d A = Eigen::Matrix3d::Zero();
    const int n = data_.size();
    for (int i = 0; i < n; ++i) {
        const tsPlaneAndPoint& e = data_[i];
        if (e.kind != 0 && i >= n_positioning_ && attraction_ != 0.0) A += attraction_ * across(e);
        if (e.kind == 0) {
            A.diagonal().array() += e.normal.length_squared();
            continue;
        }
        Eigen::Vector3d a(e.normal.x(), e.normal.y(), e.normal.z());
        if (has_partner(pairs_, i, n)) {
            const tsPlaneAndPoint& f = data_[i + 1];
            if (attraction_ != 0.0 && i + 1 >= n_positioning_) A += attraction_ * across(f);
            a = pairs_[i].second * a +
                pairs_[i + 1].second * Eigen::Vector3d(f.normal.x(), f.normal.y(), f.normal.z());
            ++i;
        }
        A += a * a.transpose();
    }
    const int k = lock_count();
    Eigen::MatrixXd D;
    if (k > 0) {
        D.resize(3, k);
        for (int j = 0; j < k; ++j)
            D.col(j) = Eigen::Vector3d(rotation_locks_[j].x(), rotation_locks_[j].y(),
                                       rotation_locks_[j].z());
    } else {
        D = Eigen::Matrix3d::Identity();
    }
    const Eigen::MatrixXd Ak = D.transpose() * A * D;
    Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eig(Ak);
    Eigen::MatrixXd inverse = Eigen::MatrixXd::Zero(Ak.rows(), Ak.cols());
    const double top = eig.eigenvalues().cwiseAbs().maxCoeff();
    for (int j = 0; j < Ak.rows(); ++j) {
        const double lambda = eig.eigenvalues()(j);
        if (top > 0.0 && lambda > 1e-12 * top)
            inverse += eig.eigenvectors().col(j) * eig.eigenvectors().col(j).transpose() / lambda;
    }
    const Eigen::MatrixXd coefficients = inverse * D.transpose();  // k x 3
    const Eigen::Matrix3d shift = D * coefficients;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            normal_[r][c] = A(r, c);
            to_shift_[r][c] = shift(r, c);
            to_coefficients_[r][c] = r < coefficients.rows() ? coefficients(r, c) : 0.0;
        }
}

void tsAmoebaPointsToPlanesDirectShift::direct_shift(const double R[3][3], double t[3],
                                                     double* coefficients) const {
    const double zero[3] = {0, 0, 0};
    double h[3], S;
    gradient_terms(R, zero, h, S);
    for (int r = 0; r < 3; ++r)
        t[r] = -(to_shift_[r][0] * h[0] + to_shift_[r][1] * h[1] + to_shift_[r][2] * h[2]);
    if (coefficients)
        for (int j = 0; j < 3; ++j)
            coefficients[j] = -(to_coefficients_[j][0] * h[0] + to_coefficients_[j][1] * h[1] +
                                to_coefficients_[j][2] * h[2]);
}

void tsAmoebaPointsToPlanesDirectShift::keep_transform(const double R[3][3], const double t[3]) {
    double rows[12];
    for (int r = 0; r < 3; ++r) {
        rows[4 * r + 0] = R[r][0];
        rows[4 * r + 1] = R[r][1];
        rows[4 * r + 2] = R[r][2];
        rows[4 * r + 3] = 0.0;
    }
    matrix_.become(utConvert, rows);
    double Rg[3];
    for (int r = 0; r < 3; ++r)
        Rg[r] = R[r][0] * centre_[0] + R[r][1] * centre_[1] + R[r][2] * centre_[2];
    shift_ =
        giVector3(centre_[0] - Rg[0] + t[0], centre_[1] - Rg[1] + t[1], centre_[2] - Rg[2] + t[2]);
}

double tsAmoebaPointsToPlanesDirectShift::evaluate(const double R[3][3], const double t[3]) {
    const int n = data_.size();
    double f = 0.0, excess = -DBL_MAX, unbounded = 0.0, measure = 0.0;
    int n_unbounded = 0;
    double pmax = 0.0, bmax = 0.0;
    bool bands_met = true;
    const double slack = 1e-10 * (1.0 + radius_);
    for (int i = 0; i < n; ++i) {
        const tsPlaneAndPoint& e = data_[i];
        double v[3];
        moved_minus_nominal(R, centre_, t, e, v);
        const double vv = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
        measure += vv;
        const bool bestfit = i >= n_positioning_;
        double D = e.kind == 0 ? std::sqrt(vv) * e.normal.length() : dot3(e.normal, v);
        double d = D / e.weight;
        double vt[3];
        double attraction_term =
            bestfit && e.kind != 0 && attraction_ != 0.0 ? attraction_ * tangential(e, v, vt) : 0.0;
        bool bounded = e.is_bounded();
        if (e.kind != 0 && has_partner(pairs_, i, n)) {
            const tsPlaneAndPoint& g = data_[i + 1];
            double v2[3];
            moved_minus_nominal(R, centre_, t, g, v2);
            const double vv2 = v2[0] * v2[0] + v2[1] * v2[1] + v2[2] * v2[2];
            measure += vv2;
            const double D2 = dot3(g.normal, v2);
            const double c1 = pairs_[i].second, c2 = pairs_[i + 1].second;
            D = c1 * D + c2 * D2;
            d = c1 * d + c2 * D2 / g.weight;
            if (i + 1 >= n_positioning_ && attraction_ != 0.0)
                attraction_term += attraction_ * tangential(g, v2, vt);
            bounded = false;
            ++i;
        }
        if (bestfit)
            bmax = std::max(bmax, std::fabs(d));
        else
            pmax = std::max(pmax, std::fabs(d));
        if (bounded) {
            const double x = std::max(d - e.upper_limit, e.lower_limit - d);
            excess = std::max(excess, x);
            if (x > slack) bands_met = false;
        } else {
            unbounded += D * D;
            ++n_unbounded;
        }
        f += D * D + attraction_term;
    }
    if (mode_ == 1)
        f = (excess == -DBL_MAX ? 0.0 : excess) + std::sqrt(unbounded / std::max(1, n_unbounded));

    keep_transform(R, t);
    positioning_max_ = pmax;
    bestfit_max_ = bmax;
    measure_ = measure;
    const bool positioned = pmax <= tsPointsToPlanes::POSITIONING_TOLERANCE;
    flag_ = !positioned ? 0 : (bands_met ? 2 : 1);
    return std::isnan(f) ? DBL_MAX : f;
}

void tsAmoebaPointsToPlanesDirectShift::shift_from_parameters(const mlSlice& x, double t[3]) const {
    const int k = lock_count();
    t[0] = t[1] = t[2] = 0.0;
    for (int j = 0; j < (k > 0 ? k : 3); ++j) {
        const double xj = x[rotation_dim_ + j] * radius_;
        if (k > 0) {
            t[0] += xj * rotation_locks_[j].x();
            t[1] += xj * rotation_locks_[j].y();
            t[2] += xj * rotation_locks_[j].z();
        } else {
            t[j] = xj;
        }
    }
}

double tsAmoebaPointsToPlanesDirectShift::function(const mlSlice& x) {
    double R[3][3], t[3];
    rotation_from(x, R);
    if (mode_ == 1) {
        shift_from_parameters(x, t);
        return evaluate(R, t);
    }
    double h[3], S;
    gradient_terms(R, last_shift_, h, S);
    double dt[3], f = S;
    for (int r = 0; r < 3; ++r)
        dt[r] = -(to_shift_[r][0] * h[0] + to_shift_[r][1] * h[1] + to_shift_[r][2] * h[2]);
    for (int r = 0; r < 3; ++r) {
        f += 2.0 * dt[r] * h[r];
        for (int c = 0; c < 3; ++c) f += dt[r] * normal_[r][c] * dt[c];
        t[r] = last_shift_[r] + dt[r];
    }
    keep_transform(R, t);
    if (!std::isfinite(f)) return DBL_MAX;
    for (int r = 0; r < 3; ++r) last_shift_[r] = t[r];
    return std::max(f, 0.0);
}

void tsAmoebaPointsToPlanesDirectShift::get_max_deviations(const mlVector& x, double& a,
                                                           double& b) {
    double R[3][3], t[3];
    rotation_from(x.as_slice(), R);
    if (mode_ == 1)
        shift_from_parameters(x.as_slice(), t);
    else
        direct_shift(R, t, nullptr);
    evaluate(R, t);
    a = positioning_max_;
    b = bestfit_max_;
}

int tsAmoebaPointsToPlanesDirectShift::check_transformation(double& r) const {
    r = measure_;
    return flag_;
}

void tsAmoebaPointsToPlanesDirectShift::convert_to_min_max_parameter(const mlVector& rotation,
                                                                     mlVector& out) {
    mlVector start(mlVectorZero, rotation_dim_);
    for (int j = 0; j < rotation_dim_ && j < rotation.size(); ++j) start[j] = rotation[j];
    double R[3][3], t[3], coefficients[3] = {0, 0, 0};
    rotation_from(start.as_slice(), R);
    direct_shift(R, t, coefficients);
    const int k = lock_count() > 0 ? lock_count() : 3;
    out.become(mlVectorZero, rotation_dim_ + k);
    for (int j = 0; j < rotation_dim_; ++j) out[j] = start[j];
    for (int j = 0; j < k; ++j) out[rotation_dim_ + j] = coefficients[j] / radius_;
}

giXform3 tsAmoebaPointsToPlanesDirectShift::transform() const { return giXform3(shift_) * matrix_; }
