#include "metrofit/features/cone.h"

#include <atomic>
#include <cfloat>
#include <cmath>

#include "metrofit/features/axial_common.h"
#include "metrofit/features/cone_guess.h"
#include "metrofit/features/probed_cone.h"
#include "metrofit/frame/input_checks.h"
#include "metrofit/platform/maths/least_squares.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kMinPoints = 6;
constexpr double kGuessConeDeg = 25.0;     // sweeps around the guess directions
constexpr double kPreferAll = 0.001;       // times the range: unconstrained result wins
constexpr double kGoodFit = 0.001;         // times the range: a sweep's guesses end
constexpr double kExactFit = 1e-8;         // times the range: the same for few points
constexpr int kFewPoints = 15;             // up to this many, only the exact-fit stop
constexpr double kNonPhysicalWins = 0.01;  // a non-physical cone wins below this ratio
constexpr double kMultipleConeDeg = 30.0;  // nominal-axis cone of the multiple search

std::atomic<double>& cone_non_physical_tolerance() {
    static std::atomic<double> tolerance(0.05);
    return tolerance;
}

std::atomic<double>& probed_cone_non_physical_tolerance() {
    static std::atomic<double> tolerance(0.05);
    return tolerance;
}

}  // namespace

// ---------------------------------------------------------------------------
// Model

tsLeastSquareCone::tsLeastSquareCone(const giPoint3coDynArr& points)
    : tsLeastSquareDistance3(8, points) {}

void tsLeastSquareCone::set_parameters(const mlVector& p) {
    mlDistanceLeastSquares::set_parameters(p);
    if (p.size() < 8) return;
    sin_ = std::sin(p[7]);
    cos_ = std::cos(p[7]);
    const double length = std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5]);
    for (int k = 0; k < 3; ++k) {
        c_[k] = p[k];
        u_[k] = length > 0.0 ? p[3 + k] / length : (k == 0 ? 1.0 : 0.0);
    }
    inv_length_ = length > 0.0 ? 1.0 / length : 1.0;
}

void tsLeastSquareCone::normalize_parameters(mlVector& p) const {
    if (p.size() < 8) return;
    ts_unit_axis(p);
    // The half angle into [0, pi/2]: a and a + pi describe the same double
    // cone with h reversed; a and pi - a the same cone about the reversed
    // axis.
    double a = p[7] - 2.0 * kPi * std::floor(p[7] / (2.0 * kPi));
    double h = p[6];
    if (a > kPi) {
        a -= kPi * std::floor(a / kPi);
        h = -h;
    }
    if (a > 0.5 * kPi) {
        a = kPi - a;
        for (int k = 3; k < 6; ++k) p[k] = -p[k];
        h = -h;
    }
    // Moving C against the axis by t raises every G by t; h follows.
    const double t = ts_axis_point_to_origin(p);
    p[6] = h + std::sin(a) * t;
    p[7] = a;
}

void tsLeastSquareCone::get_distance(double& d, int i) const {
    const giPoint3& q = point(i);
    const double g = u_[0] * (q.x() - c_[0]) + u_[1] * (q.y() - c_[1]) + u_[2] * (q.z() - c_[2]);
    d = line_distance(c_, u_, q) * cos_ + g * sin_ - parameters()[6];
}

void tsLeastSquareCone::get_distance_and_gradient(double& d, mlVector& gradient, int i) const {
    double f = 0.0, g = 0.0, df[6], dg[6];
    line_terms(c_, u_, inv_length_, point(i), f, df, g, dg);
    d = f * cos_ + g * sin_ - parameters()[6];
    if (gradient.size() < 8) gradient[7] = 0.0;
    double* out = gradient.data();
    for (int j = 0; j < 6; ++j) out[j] = cos_ * df[j] + sin_ * dg[j];
    out[6] = -1.0;
    out[7] = g * cos_ - f * sin_;
}

void tsLeastSquareCone::parameter_scales(mlVector& s) const {
    const mlVector& p = parameters();
    const giUnitVec3 u(p[3], p[4], p[5]);
    double reach = 0.0;
    if (u.is_set() && sin_ != 0.0) {
        const giPoint3 apex = giPoint3(p[0], p[1], p[2]) + (p[6] / sin_) * u;
        for (const giPoint3& q : points()) reach = std::fmax(reach, distance(q, apex));
    }
    s.become(mlVectorZero, 8);
    s.fill(1.0);
    if (std::isfinite(reach)) s[3] = s[4] = s[5] = s[7] = reach;
    if (sin_ != 0.0) s[6] = 1.0 / sin_;
}

int tsLeastSquareCone::are_normals_in_limit(const giPoint3coDynArr& points, const giAngle& angle,
                                            const giUnitVec3& nominal_axis,
                                            const giUnitVec3coDynArr& normals,
                                            mlVector& parameters) {
    if (parameters.size() < 8) return 0;
    const giUnitVec3 u(parameters[3], parameters[4], parameters[5]);
    if (!u.is_set()) return 0;
    if (nominal_axis.is_set() && std::fabs(dot(u, nominal_axis)) < angle.cos()) return 0;
    if (normals.size() == 0) return 1;
    const giPoint3 apex = giPoint3(parameters[0], parameters[1], parameters[2]) +
                          (parameters[6] / std::sin(parameters[7])) * u;
    const giAngle half_angle(giANGLE_RADIANS, parameters[7]);
    // The cone's outward normals (a boss), or all reversed (a countersink).
    return ts_directions_agree(normals, points.size(), angle, [&](int i) {
        return giVector3(tsGetConeNormal(apex, u, half_angle, points[i]));
    });
}

void tsLeastSquareCone::add_distinct_result(const tsFittedCone& result, double tolerance,
                                            giAngle angle_tolerance,
                                            tsFittedConecoDynArr& results) {
    for (const tsFittedCone& record : results)
        if (result.coincident(record, tolerance, angle_tolerance)) return;
    results.append(result);
}

giUnitVec3 tsGetConeNormal(const giPoint3& apex, const giUnitVec3& axis, const giAngle& half_angle,
                           const giPoint3& point) {
    const giVector3 w = point - apex;
    const double t = dot(axis, w);
    giVector3 v = w;
    if (!(t > 0.0)) {
        const giVector3 radial = w - t * axis;
        v = radial + (radial.length() * std::tan(half_angle.radians())) * axis;
    }
    const giUnitVec3 n(v);
    return n.is_set() ? n : axis;
}

// ---------------------------------------------------------------------------
// Probed cone model

tsLeastSquareProbedCone::tsLeastSquareProbedCone(const giPoint3coDynArr& points,
                                                 const doublecoDynArr& radii, int inside)
    : tsLeastSquareCone(points), radii_(radii) {
    // One radius per point: a short array is padded with zeros so that no
    // point reads beyond it.
    radii_.expand(points.size());
    if (inside == 0)
        for (double& q : radii_) q = -q;
}

void tsLeastSquareProbedCone::get_distance(double& d, int i) const {
    tsLeastSquareCone::get_distance(d, i);
    d += radii_[i];
}

void tsLeastSquareProbedCone::get_distance_and_gradient(double& d, mlVector& gradient,
                                                        int i) const {
    tsLeastSquareCone::get_distance_and_gradient(d, gradient, i);
    d += radii_[i];
}

// ---------------------------------------------------------------------------
// Process-wide tolerances

double tsSetLeastSquareProbedConeNonPhysicalTolerance(double tolerance) {
    return probed_cone_non_physical_tolerance().exchange(tolerance, std::memory_order_relaxed);
}

double tsSetLeastSquareConeNonPhysicalTolerance(double tolerance) {
    return cone_non_physical_tolerance().exchange(tolerance, std::memory_order_relaxed);
}

double tsLeastSquareEvaluator::set_cone_non_physical_tolerance(double tolerance) {
    return tsSetLeastSquareConeNonPhysicalTolerance(tolerance);
}

// ---------------------------------------------------------------------------
// Drivers

namespace {

// The best results of one class of cones (physical or not): accepted by the
// normals and nominal-axis test, and regardless of it.
struct ClassBests {
    tsAxialBest accepted, all;

    // The accepted result, unless the unconstrained one is better by more
    // than the given RMS margin.
    const tsAxialBest& chosen(double margin) const {
        return std::sqrt(accepted.value) - std::sqrt(all.value) > margin ? all : accepted;
    }
};

// The cone's outputs from parameters found in coordinates shifted by -shift:
// axis towards the apex, apex, half angle. False for a cone without a finite
// apex (half angle 0: a cylinder).
bool cone_outputs(const mlVector& p, const giVector3& shift, giPoint3& apex, giUnitVec3& axis,
                  double& half_angle) {
    const giUnitVec3 u(p[3], p[4], p[5]);
    if (!u.is_set()) return false;
    const giPoint3 top = giPoint3(p[0], p[1], p[2]) + (p[6] / std::sin(p[7])) * u + shift;
    if (!top.is_finite() || !std::isfinite(p[7])) return false;
    apex = top;
    axis = u;
    half_angle = p[7];
    return true;
}

// The points moved by -shift.
giPoint3coDynArr shifted(const giPoint3coDynArr& points, const giVector3& shift) {
    giPoint3coDynArr out;
    out.reserve(points.size());
    for (const giPoint3& q : points) out.append(q - shift);
    return out;
}

// The centroid of the points as a vector.
giVector3 centroid_of(const giPoint3coDynArr& points) {
    double x = 0.0, y = 0.0, z = 0.0;
    for (const giPoint3& q : points) {
        x += q.x();
        y += q.y();
        z += q.z();
    }
    const double k = points.size() > 0 ? 1.0 / points.size() : 0.0;
    return giVector3(x * k, y * k, z * k);
}

// The driver the plain and the probed cone share: the model on the points and
// the guesses from guess_points, both moved by -shift (the centroid of the
// points), and a non-physical tolerance of its own.
int fit_cone(const giPoint3coDynArr& guess_points, tsLeastSquareCone& model, const giVector3& shift,
             double non_physical, giPoint3& apex, giUnitVec3& axis, double& half_angle,
             double& deviation, const giUnitVec3& nominal_axis, const giAngle& angle,
             const giUnitVec3coDynArr& normals, int n_added) {
    const giPoint3coDynArr& points = model.points();
    const int n = points.size();
    mlLevenbergMarquardt solver(model);
    mlVector result;
    double value = DBL_MAX;

    // Update of the previous cone, held as (apex, axis, 0, half angle).
    if (n_added != 0 && (n_added < 0 || n_added <= n - kMinPoints) && ts_finite(apex) &&
        axis.is_set() && ts_finite(axis) && std::isfinite(half_angle)) {
        const mlVector previous = {apex.x(), apex.y(), apex.z(), axis.x(),
                                   axis.y(), axis.z(), 0.0,      half_angle};
        if (tsRefineWithAddedPoints(model, solver, previous, n_added, result, value) &&
            cone_outputs(result, shift, apex, axis, half_angle)) {
            deviation = std::sqrt(value);
            return 1;
        }
    }

    const double range = model.range();
    const auto is_non_physical = [&](double a) {
        return std::fabs(a) <= non_physical || std::fabs(a) >= 0.5 * kPi - non_physical;
    };
    ClassBests physical, other;
    const int sweeps = tsLeastSquareDistance3::num_guess_directions() + 1;
    for (int k = 0; k < sweeps; ++k) {
        giVector3 reference;
        giAngle cone = angle;
        if (k > 0) {
            if (normals.size() == 0) {
                if (!nominal_axis.is_set() || k > 1) break;
                reference = nominal_axis;
            } else {
                reference = tsLeastSquareDistance3::guess_direction(k - 1);
                cone = giAngle(giANGLE_DEGREES, kGuessConeDeg);
            }
        }
        tsConeGuessGenerator guesses(guess_points, reference, cone, normals);
        for (int j = (k == 0 ? -2 : -1); j <= 5; ++j) {
            mlVector start;
            const double quality = j == -2   ? guesses.get_guess_from_normals(start)
                                   : j == -1 ? guesses.get_guess_two_circles(start)
                                             : guesses.get_guess_fixed_axis_fit(start);
            if (!(quality < DBL_MAX) || start.size() != 8) continue;
            mlVector p;
            const double v = solver.fit(start, p);
            if (!(v < DBL_MAX)) continue;
            ClassBests& bests = is_non_physical(p[7]) ? other : physical;
            if (v < bests.accepted.value &&
                tsLeastSquareCone::are_normals_in_limit(points, angle, nominal_axis, normals, p))
                bests.accepted.offer(v, p);
            bests.all.offer(v, p);
            const double rms = std::sqrt(v);
            if ((n > kFewPoints && rms < kGoodFit * range) || rms < kExactFit * range) break;
        }
        if (physical.accepted.value < DBL_MAX) break;
        if (!nominal_axis.is_set() && normals.size() == 0) break;
    }

    if (physical.all.value == DBL_MAX && other.all.value == DBL_MAX) return 0;
    const tsAxialBest& real = physical.chosen(kPreferAll * range);
    const tsAxialBest& flat = other.chosen(kPreferAll * range);
    // A nearly cylindrical or nearly flat cone is reported only when it fits
    // clearly better, or better than a physical cone that is itself close to
    // the limits.
    bool take_flat = flat.value < kNonPhysicalWins * real.value;
    if (!take_flat && flat.value < real.value) {
        const double a = std::fabs(real.p[7]);
        take_flat = a < 2.0 * non_physical || a > 0.5 * kPi - 2.0 * non_physical;
    }
    const tsAxialBest& chosen = take_flat ? flat : real;
    if (!cone_outputs(chosen.p, shift, apex, axis, half_angle)) return 0;
    deviation = std::sqrt(chosen.value);
    return 1;
}

}  // namespace

int tsCalculateLeastSquareCone(const giPoint3coDynArr& points, giPoint3& apex, giUnitVec3& axis,
                               double& half_angle, double& deviation,
                               const giUnitVec3& nominal_axis, const giAngle& angle,
                               const giUnitVec3coDynArr& normals, int n_added) {
    if (points.size() < kMinPoints || !ts_all_finite(points) ||
        !ts_normals_fit_points(points, normals))
        return 0;
    const giVector3 shift = centroid_of(points);
    const giPoint3coDynArr centred = shifted(points, shift);
    tsLeastSquareCone model(centred);
    return fit_cone(centred, model, shift,
                    cone_non_physical_tolerance().load(std::memory_order_relaxed), apex, axis,
                    half_angle, deviation, nominal_axis, angle, normals, n_added);
}

int tsCalculateMultipleLeastSquareCones(const giPoint3coDynArr& points,
                                        const giUnitVec3coDynArr& directions, double tolerance,
                                        const giAngle& angle, int n_wanted,
                                        tsFittedConecoDynArr& results,
                                        const giAngle& min_half_angle,
                                        const giAngle& max_half_angle) {
    if (points.size() < kMinPoints || !ts_all_finite(points)) return 0;
    for (int k = 0; k < directions.size() && results.size() < n_wanted; ++k) {
        giPoint3 apex;
        giUnitVec3 axis;
        double half_angle = 0.0, deviation = 0.0;
        if (!tsLeastSquareEvaluator::evaluate_cone(points, apex, axis, half_angle, deviation,
                                                   directions[k],
                                                   giAngle(giANGLE_DEGREES, kMultipleConeDeg)))
            continue;
        const giAngle a(giANGLE_RADIANS, half_angle);
        if (deviation < tolerance && a > min_half_angle && a < max_half_angle)
            tsLeastSquareCone::add_distinct_result(
                tsFittedCone(apex, giUnitVec3(-axis.x(), -axis.y(), -axis.z()), a, deviation),
                tolerance, angle, results);
    }
    return results.size();
}

int tsLeastSquareEvaluator::evaluate_multiple_cones(const giPoint3coDynArr& points,
                                                    const giUnitVec3coDynArr& directions,
                                                    double tolerance, const giAngle& angle,
                                                    int n_wanted, tsFittedConecoDynArr& results) {
    return tsCalculateMultipleLeastSquareCones(points, directions, tolerance, angle, n_wanted,
                                               results, giAngle(giANGLE_DEGREES, 0.0),
                                               giAngle(giANGLE_DEGREES, 90.0));
}

int tsLeastSquareEvaluator::evaluate_cone(const giPoint3coDynArr& points, giPoint3& apex,
                                          giUnitVec3& axis, double& half_angle, double& error,
                                          const giUnitVec3& nominal_axis, const giAngle& angle,
                                          int n_added) {
    return tsCalculateLeastSquareCone(points, apex, axis, half_angle, error, nominal_axis, angle,
                                      giUnitVec3coDynArr(), n_added);
}

int tsLeastSquareEvaluator::evaluate_cone(const giPoint3coDynArr& points, giPoint3& apex,
                                          giUnitVec3& axis, double& half_angle, double& error,
                                          const giUnitVec3coDynArr& normals, const giAngle& angle,
                                          int n_added) {
    return tsCalculateLeastSquareCone(points, apex, axis, half_angle, error, giUnitVec3(), angle,
                                      normals, n_added);
}

// ---------------------------------------------------------------------------
// Probed cone driver

int tsCalculateLeastSquareProbedCone(const giPoint3coDynArr& points, const doublecoDynArr& radii,
                                     int inside, const giPoint3coDynArr& guess_points,
                                     giPoint3& apex, giUnitVec3& axis, double& half_angle,
                                     double& deviation, const giUnitVec3& nominal_axis,
                                     const giAngle& angle, const giUnitVec3coDynArr& normals,
                                     int n_added) {
    if (points.size() < kMinPoints || !ts_all_finite(points) ||
        !ts_radii_fit_points(points, radii) || !ts_all_finite(guess_points) ||
        !ts_normals_fit_points(points, normals))
        return 0;
    const giVector3 shift = centroid_of(points);
    const giPoint3coDynArr centred = shifted(points, shift);
    const giPoint3coDynArr centred_guesses = shifted(guess_points, shift);
    tsLeastSquareProbedCone model(centred, radii, inside);
    return fit_cone(centred_guesses, model, shift,
                    probed_cone_non_physical_tolerance().load(std::memory_order_relaxed), apex,
                    axis, half_angle, deviation, nominal_axis, angle, normals, n_added);
}

int tsLeastSquareEvaluator::evaluate_probed_cone(
    const giPoint3coDynArr& points, const doublecoDynArr& probe_radii, int inside,
    const giPoint3coDynArr& contact_points, giPoint3& apex, giUnitVec3& axis, double& half_angle,
    double& error, const giUnitVec3& nominal_axis, const giAngle& angle, int n_added) {
    return tsCalculateLeastSquareProbedCone(points, probe_radii, inside, contact_points, apex, axis,
                                            half_angle, error, nominal_axis, angle,
                                            giUnitVec3coDynArr(), n_added);
}

int tsLeastSquareEvaluator::evaluate_probed_cone(
    const giPoint3coDynArr& points, const doublecoDynArr& probe_radii, int inside,
    const giPoint3coDynArr& contact_points, giPoint3& apex, giUnitVec3& axis, double& half_angle,
    double& error, const giUnitVec3coDynArr& normals, const giAngle& angle, int n_added) {
    return tsCalculateLeastSquareProbedCone(points, probe_radii, inside, contact_points, apex, axis,
                                            half_angle, error, giUnitVec3(), angle, normals,
                                            n_added);
}
