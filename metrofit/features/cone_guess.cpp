#include "metrofit/features/cone_guess.h"

#include <cfloat>
#include <cmath>

#include "metrofit/frame/least_square_evaluator.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/svd.h"
#include "metrofit/platform/utility/ut_math.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
// Radii and line determinants below this (2^-23, single-precision epsilon)
// count as zero.
constexpr double kTiny = 1.1920928955078125e-7;

constexpr int kFixedAxisTrials = 200;
constexpr int kTrialsPerSpread = 60;  // the start spread grows by 3 R every 60 trials
constexpr int kRandomSeed = 6983277;

// Singular values of the normals' matrix at or below this fraction of the
// largest count as zero.
constexpr double kSingularCut = 1e-7;
// Two circles: least |cos| between their normals, least centre distance and
// radius difference, farthest apex.
constexpr double kMinParallel = 0.85;
constexpr double kMinSeparation = 1e-7;
constexpr double kFarthestApex = 1e7;

void set_start(mlVector& out, const giPoint3& point, const giVector3& axis, double half_angle) {
    out.become(mlVectorZero, 8);
    out[0] = point.x();
    out[1] = point.y();
    out[2] = point.z();
    out[3] = axis.x();
    out[4] = axis.y();
    out[5] = axis.z();
    out[6] = 0.0;
    out[7] = half_angle;
}

// The circle through points i, i + 1, i + 2.
bool circle_through(const giPoint3coDynArr& points, int i, giPoint3& centre, giUnitVec3& normal,
                    double& radius) {
    const giPoint3coDynArr triple = {points[i], points[i + 1], points[i + 2]};
    double error = 0.0;
    return tsLeastSquareEvaluator::evaluate_circle3(triple, centre, normal, radius, error) != 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Fixed-axis cone

tsLeastSquareConeFixedAxis::tsLeastSquareConeFixedAxis(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(2, points) {
    const int n = n_points();
    for (doublecoDynArr* a : {&x_, &y_, &z_, &rho_, &rho_a_, &rho_b_}) a->expand(n);
    set_axis(giVector3(0.0, 0.0, 1.0));
}

void tsLeastSquareConeFixedAxis::set_axis(const giVector3& w) {
    const giVector3 e =
        std::fabs(w.y()) > std::fabs(w.x()) ? giVector3(1.0, 0.0, 0.0) : giVector3(0.0, 1.0, 0.0);
    w_ = w;
    u_ = cross(w, e);
    v_ = cross(w, u_);
    const double ux = u_.x(), uy = u_.y(), uz = u_.z();
    const double vx = v_.x(), vy = v_.y(), vz = v_.z();
    const double wx = w.x(), wy = w.y(), wz = w.z();
    const int n = n_points();
    const giPoint3* pts = points().data();
    double* x = x_.data();
    double* y = y_.data();
    double* z = z_.data();
    for (int i = 0; i < n; ++i) {
        const double px = pts[i].x(), py = pts[i].y(), pz = pts[i].z();
        x[i] = px * ux + py * uy + pz * uz;
        y[i] = px * vx + py * vy + pz * vz;
        z[i] = px * wx + py * wy + pz * wz;
    }
}

void tsLeastSquareConeFixedAxis::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    c0_ = c1_ = c0_a_ = c0_b_ = c1_a_ = c1_b_ = 0.0;
    const int n = n_points();
    if (p.size() < 2 || n == 0) return;
    const double a = p[0], b = p[1];
    const double* x = x_.data();
    const double* y = y_.data();
    const double* z = z_.data();
    double* rho = rho_.data();
    double* rho_a = rho_a_.data();
    double* rho_b = rho_b_.data();
    // Sums of r = rho - k and t = z - k_z, k and k_z the first point's radius
    // and height: the line and its derivatives do not depend on the shift,
    // and the shifted sums keep their digits far from the origin.
    const double k = std::sqrt((a - x[0]) * (a - x[0]) + (b - y[0]) * (b - y[0]));
    const double kz = z[0];
    double sr = 0.0, srr = 0.0, st = 0.0, srt = 0.0;                        // the line
    double sa = 0.0, sb = 0.0, sra = 0.0, srb = 0.0, sta = 0.0, stb = 0.0;  // its derivatives
    for (int i = 0; i < n; ++i) {
        const double dx = a - x[i], dy = b - y[i];
        const double radius = std::sqrt(dx * dx + dy * dy);
        double ra = 0.0, rb = 0.0;
        if (radius >= kTiny) {
            const double inv = 1.0 / radius;
            ra = dx * inv;
            rb = dy * inv;
        }
        rho[i] = radius;
        rho_a[i] = ra;
        rho_b[i] = rb;
        const double r = radius - k, t = z[i] - kz;
        sr += r;
        srr += r * r;
        st += t;
        srt += r * t;
        sa += ra;
        sb += rb;
        sra += r * ra;
        srb += r * rb;
        sta += t * ra;
        stb += t * rb;
    }
    const double count = n;
    const double det = count * srr - sr * sr;
    if (std::fabs(det) < kTiny) return;
    const double mean_rho = k + sr / count, mean_z = kz + st / count;
    c1_ = (count * srt - sr * st) / det;
    c0_ = mean_z - c1_ * mean_rho;
    // Quotient rule on c1 = N / D with dr/da = drho/da and t constant; then
    // c0 = mean z - c1 mean rho.
    c1_a_ = ((count * sta - sa * st) - c1_ * 2.0 * (count * sra - sr * sa)) / det;
    c1_b_ = ((count * stb - sb * st) - c1_ * 2.0 * (count * srb - sr * sb)) / det;
    c0_a_ = -c1_a_ * mean_rho - c1_ * sa / count;
    c0_b_ = -c1_b_ * mean_rho - c1_ * sb / count;
}

void tsLeastSquareConeFixedAxis::get_distance(double& d, int i) const {
    d = z_[i] - c0_ - c1_ * rho_[i];
}

void tsLeastSquareConeFixedAxis::get_distance_and_gradient(double& d, mlVector& gradient,
                                                           int i) const {
    const double radius = rho_[i];
    d = z_[i] - c0_ - c1_ * radius;
    if (gradient.size() < 2) gradient[1] = 0.0;
    double* g = gradient.data();
    if (radius >= kTiny) {
        g[0] = -c1_ * rho_a_[i] - c0_a_ - radius * c1_a_;
        g[1] = -c1_ * rho_b_[i] - c0_b_ - radius * c1_b_;
    } else {
        g[0] = g[1] = 0.0;
    }
}

void tsLeastSquareConeFixedAxis::full_fit_parameters(mlVector& out) const {
    const mlVector& p = parameters();
    const double a = p.size() > 0 ? p[0] : 0.0, b = p.size() > 1 ? p[1] : 0.0;
    const giVector3 l(a, b, c0_);
    const giVector3 axis = c1_ < 0.0 ? w_ : -w_;
    set_start(out, giPoint3(dot(l, u_), dot(l, v_), dot(l, w_)), axis,
              0.5 * kPi - std::atan(std::fabs(c1_)));
}

// The fixed-axis model's own driver: everything a Levenberg-Marquardt step
// needs at one position, from one pass.
struct tsLeastSquareConeFixedAxis::Pass {
    double a = 0.0, b = 0.0;
    double c0 = 0.0, c1 = 0.0, c0_a = 0.0, c0_b = 0.0, c1_a = 0.0, c1_b = 0.0;
    double sum = 0.0;                        // sum of squared distances
    double h00 = 0.0, h01 = 0.0, h11 = 0.0;  // J^T J
    double g0 = 0.0, g1 = 0.0;               // J^T d
};

bool tsLeastSquareConeFixedAxis::evaluate(double a, double b, double q0, double q1,
                                          Pass& out) const {
    const int n = n_points();
    if (n == 0) return false;
    const double* x = x_.data();
    const double* y = y_.data();
    const double* z = z_.data();
    // r = rho - k about the first point's radius; e = z - (q0 + q1 rho), the
    // residual from the reference line.
    const double k = std::sqrt((a - x[0]) * (a - x[0]) + (b - y[0]) * (b - y[0]));
    double sr = 0, srr = 0, se = 0, see = 0, sre = 0;
    double sa = 0, sb = 0, sra = 0, srb = 0, sea = 0, seb = 0, saa = 0, sab = 0, sbb = 0;
    for (int i = 0; i < n; ++i) {
        const double dx = a - x[i], dy = b - y[i];
        const double radius = std::sqrt(dx * dx + dy * dy);
        double ra = 0.0, rb = 0.0;
        if (radius >= kTiny) {
            const double inv = 1.0 / radius;
            ra = dx * inv;
            rb = dy * inv;
        }
        const double r = radius - k, e = z[i] - q0 - q1 * radius;
        sr += r;
        srr += r * r;
        se += e;
        see += e * e;
        sre += r * e;
        sa += ra;
        sb += rb;
        sra += r * ra;
        srb += r * rb;
        sea += e * ra;
        seb += e * rb;
        saa += ra * ra;
        sab += ra * rb;
        sbb += rb * rb;
    }
    const double count = n;
    const double det = count * srr - sr * sr;
    if (!(std::fabs(det) >= kTiny) || !std::isfinite(det)) return false;
    // The line of e on r, then the line of z on rho.
    const double dc1 = (count * sre - sr * se) / det;
    const double dc0 = se / count - dc1 * sr / count;  // at r = 0, i.e. rho = k
    Pass p;
    p.a = a;
    p.b = b;
    p.c1 = q1 + dc1;
    p.c0 = q0 + dc0 - dc1 * k;
    p.sum = std::fmax((see - se * se / count) - dc1 * (sre - sr * se / count), 0.0);
    // Derivatives of c1 = N / det by the quotient rule; N's derivative from
    // the sums of e (z = e + q0 + q1 rho).
    const double mean_rho = k + sr / count;
    const double na = count * sea - se * sa + q1 * (count * sra - sr * sa);
    const double nb = count * seb - se * sb + q1 * (count * srb - sr * sb);
    p.c1_a = (na - p.c1 * 2.0 * (count * sra - sr * sa)) / det;
    p.c1_b = (nb - p.c1 * 2.0 * (count * srb - sr * sb)) / det;
    p.c0_a = -p.c1_a * mean_rho - p.c1 * sa / count;
    p.c0_b = -p.c1_b * mean_rho - p.c1 * sb / count;
    // g_i = -(c1 drho_i + K + r_i dc1), K = dc0 + k dc1 (rho = r + k).
    const double c1 = p.c1, ka = p.c0_a + k * p.c1_a, kb = p.c0_b + k * p.c1_b;
    const double c1a = p.c1_a, c1b = p.c1_b;
    p.h00 = c1 * c1 * saa + 2.0 * c1 * (ka * sa + c1a * sra) + count * ka * ka +
            2.0 * ka * c1a * sr + c1a * c1a * srr;
    p.h11 = c1 * c1 * sbb + 2.0 * c1 * (kb * sb + c1b * srb) + count * kb * kb +
            2.0 * kb * c1b * sr + c1b * c1b * srr;
    p.h01 = c1 * c1 * sab + c1 * (kb * sa + c1b * sra + ka * sb + c1a * srb) + count * ka * kb +
            (ka * c1b + kb * c1a) * sr + c1a * c1b * srr;
    // The residual d_i = e_i - dc0 - dc1 r_i.
    p.g0 = -c1 * (sea - dc0 * sa - dc1 * sra);
    p.g1 = -c1 * (seb - dc0 * sb - dc1 * srb);
    if (!std::isfinite(p.sum + p.c0 + p.c1 + p.c0_a + p.c0_b + p.c1_a + p.c1_b + p.h00 + p.h01 +
                       p.h11 + p.g0 + p.g1))
        return false;
    out = p;
    return true;
}

double tsLeastSquareConeFixedAxis::fit(const mlVector& start, mlVector& result) {
    constexpr int kMaxPasses = 200;
    constexpr double kInitialDamping = 1e-3, kMinDamping = 1e-15, kRejectDamping = 1e-4;
    constexpr double kMaxDamping = 1e10, kDecreaseTol = 1e-14, kStepTol = 1e-15;
    if (start.size() != 2 || !std::isfinite(start[0]) || !std::isfinite(start[1])) return DBL_MAX;
    Pass at;
    const int n = n_points();
    if (n == 0 || !evaluate(start[0], start[1], z_[0], 0.0, at)) return DBL_MAX;
    int passes = 1;
    double lambda = kInitialDamping;
    while (passes < kMaxPasses) {
        // Damped step in the Jacobi-scaled basis: (A + lambda diag A) s = -g.
        const double d0 = at.h00 > 0.0 ? at.h00 : 1.0, d1 = at.h11 > 0.0 ? at.h11 : 1.0;
        bool accepted = false;
        double step0 = 0.0, step1 = 0.0;
        while (lambda <= kMaxDamping && passes < kMaxPasses) {
            const double m00 = at.h00 + lambda * d0, m11 = at.h11 + lambda * d1, m01 = at.h01;
            const double det = m00 * m11 - m01 * m01;
            if (!(det > 0.0)) {
                lambda = std::fmax(lambda * 10.0, kRejectDamping);
                continue;
            }
            step0 = -(at.g0 * m11 - at.g1 * m01) / det;
            step1 = -(at.g1 * m00 - at.g0 * m01) / det;
            const double predicted =
                -(2.0 * (at.g0 * step0 + at.g1 * step1) + at.h00 * step0 * step0 +
                  2.0 * at.h01 * step0 * step1 + at.h11 * step1 * step1);
            if (!(predicted > kDecreaseTol * at.sum)) break;
            Pass trial;
            ++passes;
            if (evaluate(at.a + step0, at.b + step1, at.c0, at.c1, trial) && trial.sum < at.sum) {
                const double decrease = at.sum - trial.sum;
                at = trial;
                lambda = std::fmax(lambda / 10.0, kMinDamping);
                accepted = decrease > kDecreaseTol * trial.sum;
                if (!accepted) lambda = kMaxDamping * 10.0;  // settled
                break;
            }
            lambda = std::fmax(lambda * 10.0, kRejectDamping);
        }
        if (!accepted) break;
        const double size = std::fabs(at.a) + std::fabs(at.b) + 1.0;
        if (std::fabs(step0) + std::fabs(step1) <= kStepTol * size) break;
    }
    result.become(mlVectorZero, 2);
    result[0] = at.a;
    result[1] = at.b;
    set_parameters(result);
    return at.sum / n;
}

// ---------------------------------------------------------------------------
// Generator

tsConeGuessGenerator::tsConeGuessGenerator(const giPoint3coDynArr& points,
                                           const giVector3& reference, const giAngle& angle,
                                           const giUnitVec3coDynArr& normals)
    : points_(points),
      random_(kRandomSeed),
      cone_(points),
      centroid_(cone_.centroid()),
      reference_(reference),
      angle_(angle),
      normals_(normals) {
    const giUnitVec3 unit(reference);
    if (unit.is_set()) reference_ = unit;
}

double tsConeGuessGenerator::deviation(mlVector& parameters) {
    if (parameters.size() != 8) return DBL_MAX;
    cone_.normalize_parameters(parameters);
    cone_.set_parameters(parameters);
    double sum = 0.0;
    for (int i = 0; i < cone_.n_points(); ++i) {
        double d = 0.0;
        cone_.get_distance(d, i);
        sum += d * d;
    }
    return std::isfinite(sum) ? sum : DBL_MAX;
}

double tsConeGuessGenerator::get_guess_from_normals(mlVector& out) {
    const int n = normals_.size();
    if (n < 3 || n > points_.size()) return DBL_MAX;
    giPoint3coDynArr tips;
    tips.reserve(n);
    mlMatrix rows(mlMatrixZero, n, 3);
    mlVector b(mlVectorZero, n);
    for (int i = 0; i < n; ++i) {
        const giUnitVec3& m = normals_[i];
        if (!m.is_set() || !m.is_finite()) return DBL_MAX;
        tips.append(giPoint3(m.x(), m.y(), m.z()));
        rows(i, 0) = m.x();
        rows(i, 1) = m.y();
        rows(i, 2) = m.z();
        b[i] = dot(m, points_[i].to_vector());
    }
    giPoint3 on_plane;
    giUnitVec3 axis;
    double plane_error = 0.0;
    if (!tsLeastSquareEvaluator::evaluate_plane(tips, on_plane, axis, plane_error)) return DBL_MAX;
    // Every tangent plane passes through the apex: its least-squares common
    // point.
    const mlSingularValueDecomposition svd(rows);
    mlVector x;
    if (svd.is_singular(kSingularCut) || !svd.solve(b, x, kSingularCut) || x.size() != 3)
        return DBL_MAX;
    const giPoint3 apex(x[0], x[1], x[2]);
    if (dot(axis, points_[0] - apex) > 0.0) axis = -axis;
    double sum = 0.0;
    for (const giUnitVec3& m : normals_) sum += utMath::acos(std::fabs(dot(axis, m)));
    set_start(out, apex, axis, 0.5 * kPi - sum / n);
    return deviation(out);
}

double tsConeGuessGenerator::get_guess_two_circles(mlVector& out) {
    const int n = points_.size();
    if (n < 6) return DBL_MAX;
    giPoint3 c1, c2;
    giUnitVec3 n1;
    double r1 = 0.0, r2 = 0.0;
    if (!circle_through(points_, 0, c1, n1, r1)) return DBL_MAX;
    // Of the later triples, the circle most nearly parallel to the first.
    double best = -1.0;
    for (int first = 3; first <= 6 && first + 2 < n; ++first) {
        giPoint3 c;
        giUnitVec3 m;
        double r = 0.0;
        if (!circle_through(points_, first, c, m, r)) continue;
        const double parallel = std::fabs(dot(n1, m));
        if (parallel > best) {
            best = parallel;
            c2 = c;
            r2 = r;
        }
    }
    const double separation = best < kMinParallel ? 0.0 : distance(c1, c2);
    const double step = std::fabs(r1 - r2);
    if (best < kMinParallel || separation < kMinSeparation || step < kMinSeparation) return DBL_MAX;
    // The axis runs from the larger circle's centre towards the smaller's;
    // the radius shrinks by step over the separation, so it vanishes at the
    // apex, r separation / step beyond the larger centre.
    const bool first_larger = r1 > r2;
    const giPoint3& centre = first_larger ? c1 : c2;
    const double radius = first_larger ? r1 : r2;
    const giUnitVec3 d(first_larger ? c2 - c1 : c1 - c2);
    const double t = radius * separation / step;
    if (t > kFarthestApex || !d.is_set()) return DBL_MAX;
    set_start(out, centre + t * d, d, std::atan2(step, separation));
    return deviation(out);
}

double tsConeGuessGenerator::get_guess_fixed_axis_fit(mlVector& out) {
    return fixed_axis_search(out, true);
}

double tsConeGuessGenerator::get_guess_random(mlVector& out) {
    return fixed_axis_search(out, false);
}

double tsConeGuessGenerator::fixed_axis_search(mlVector& out, bool within_reference) {
    tsLeastSquareConeFixedAxis model(points_);
    const double range = cone_.range();
    const bool limited = within_reference && reference_.is_set();
    const double min_cos = angle_.cos();
    mlVector start(mlVectorZero, 2), result(mlVectorZero, 2), candidate(mlVectorZero, 8);
    double best = DBL_MAX;
    for (int trial = 0; trial < kFixedAxisTrials; ++trial) {
        const double spread = (trial / kTrialsPerSpread + 1) * 3.0 * range;
        const double dx = 2.0 * random_.unit() - 1.0;
        const double dy = 2.0 * random_.unit() - 1.0;
        const double dz = 2.0 * random_.unit() - 1.0;
        const giUnitVec3 axis =
            (dx == 0.0 && dy == 0.0 && dz == 0.0) ? giUnitVec3(giZAxis) : giUnitVec3(dx, dy, dz);
        if (limited && std::fabs(dot(axis, reference_)) < min_cos) continue;
        model.set_axis(axis);
        const double cx = dot(centroid_.to_vector(), model.x_axis());
        const double cy = dot(centroid_.to_vector(), model.y_axis());
        start[0] = random_.unit() * 2.0 * spread + (cx - spread);
        start[1] = random_.unit() * 2.0 * spread + (cy - spread);
        // The solver leaves its result current in the model; a refused start
        // (non-finite coordinates) gives no candidate.
        if (model.fit(start, result) == DBL_MAX) continue;
        model.full_fit_parameters(candidate);
        const double value = deviation(candidate);
        if (value < best) {
            best = value;
            out = candidate;
        }
    }
    return deviation(out);
}
