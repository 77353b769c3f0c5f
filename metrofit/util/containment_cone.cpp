#include "metrofit/util/containment_cone.h"

#include <cmath>
#include <utility>

#include "metrofit/platform/maths/random.h"

namespace {

constexpr double kHalfPi = 1.5707963267948966;
constexpr double kTwoPi = 6.283185307179586;
constexpr double kMinLength = 1e-7;
constexpr double kOppositeSquared = 1e-14;
constexpr double kDuplicateSquared = 1e-5;

// Unsigned angle between two unit vectors; atan2 keeps it accurate where the
// arc cosine of the dot product loses half the digits (nearly equal or
// nearly opposite vectors).
double angle_between(const giVector3& a, const giVector3& b) {
    return std::atan2(cross(a, b).length(), dot(a, b));
}

giAngle radians(double value) { return giAngle(giANGLE_RADIANS, value); }

}  // namespace

tsContainmentCone::tsContainmentCone(const giUnitVec3coDynArr& dirs) : directions(dirs) {}

int tsContainmentCone::start(giAngle& half_angle) {
    for (const giUnitVec3& v : directions)
        if (!v.is_set() || !v.is_finite()) return -1;
    valid = 1;
    half_angle = radians(kTwoPi);
    return directions.size();
}

void tsContainmentCone::exact_cone1(const giUnitVec3& a, giUnitVec3& axis, giAngle& angle) {
    axis = a;
    angle = giAngle::zero();
}

int tsContainmentCone::exact_cone2(const giUnitVec3& a, const giUnitVec3& b, giUnitVec3& axis,
                                   giAngle& angle) {
    const giVector3 s = a + b;
    if (s.length_squared() <= kOppositeSquared) {
        valid = 0;
        return 0;
    }
    axis = giUnitVec3(s);
    angle = radians(angle_between(a, axis));
    return 1;
}

int tsContainmentCone::exact_cone3(const giUnitVec3& a, const giUnitVec3& b, const giUnitVec3& c,
                                   giUnitVec3& axis, giAngle& angle) {
    axis = giUnitVec3(giZAxis);
    const giVector3 u = b - a, w = c - a;
    const double lu = u.length(), lw = w.length();
    if (!(lu > kMinLength) || !(lw > kMinLength)) {
        valid = 0;
        return 0;
    }
    // The normal of the plane through the three tips is the axis of the
    // circle they lie on; of its two senses, the one on the side of the
    // tips gives the cone narrower than a hemisphere.
    giVector3 n = cross(u / lu, w / lw);
    if (!(n.length() > kMinLength)) {
        valid = 0;
        return 0;
    }
    if (dot(n, a) < 0.0) n = -n;
    axis = giUnitVec3(n);
    const double theta = angle_between(a, axis);
    angle = radians(theta);
    if (theta + kMinLength > kHalfPi) {
        valid = 0;
        return 0;
    }
    return 1;
}

bool tsContainmentCone::in_support(int i) const {
    for (int k = 0; k < support_count && k < 3; ++k)
        if ((directions[i] - directions[support[k]]).length_squared() < kDuplicateSquared)
            return true;
    return false;
}

bool tsContainmentCone::inside_cone(const giUnitVec3& v, const giUnitVec3& axis,
                                    const giAngle& angle, double& excess) {
    excess = angle_between(v, axis) - angle.radians();
    return excess <= 0.0;
}

namespace {

// Containment up to the rounding of the constructions.
bool holds(const giUnitVec3& v, const giUnitVec3& axis, const giAngle& angle) {
    return angle_between(v, axis) - angle.radians() <= tsContainmentCone::kBoundary;
}

}  // namespace

void tsContainmentCone::update_support(int i, giUnitVec3& axis, giAngle& angle) {
    angle = radians(kTwoPi);
    switch (support_count) {
        case 1:
            update_support1(i, axis, angle);
            break;
        case 2:
            update_support2(i, axis, angle);
            break;
        case 3:
            update_support3(i, axis, angle);
            break;
        default:
            break;
    }
}

void tsContainmentCone::update_support1(int i, giUnitVec3& axis, giAngle& angle) {
    if (!exact_cone2(directions[support[0]], directions[i], axis, angle)) return;
    support[1] = i;
    support_count = 2;
}

void tsContainmentCone::update_support2(int i, giUnitVec3& axis, giAngle& angle) {
    const giUnitVec3 &a = directions[support[0]], &b = directions[support[1]], &d = directions[i];
    giUnitVec3 cand_axis;
    giAngle cand_angle;
    int kept = -1;  // the support vector kept beside d, or -1 for none yet
    if (!exact_cone2(a, d, cand_axis, cand_angle)) return;
    if (holds(b, cand_axis, cand_angle)) {
        axis = cand_axis;
        angle = cand_angle;
        kept = 0;
    }
    if (!exact_cone2(b, d, cand_axis, cand_angle)) return;
    if (holds(a, cand_axis, cand_angle) && cand_angle < angle) {
        axis = cand_axis;
        angle = cand_angle;
        kept = 1;
    }
    if (kept >= 0) {
        support[0] = support[kept];
        support[1] = i;
        return;
    }
    if (!exact_cone3(a, b, d, axis, angle)) return;
    support[2] = i;
    support_count = 3;
}

void tsContainmentCone::update_support3(int i, giUnitVec3& axis, giAngle& angle) {
    const int old[3] = {support[0], support[1], support[2]};
    const giUnitVec3& d = directions[i];
    giUnitVec3 cand_axis;
    giAngle cand_angle;
    int chosen[3] = {-1, -1, -1};
    int count = 0;

    // Pair cones through d and one old vector, containing the other two.
    for (int k = 0; k < 3; ++k) {
        if (!exact_cone2(directions[old[k]], d, cand_axis, cand_angle)) return;
        if (cand_angle < angle && holds(directions[old[(k + 1) % 3]], cand_axis, cand_angle) &&
            holds(directions[old[(k + 2) % 3]], cand_axis, cand_angle)) {
            axis = cand_axis;
            angle = cand_angle;
            chosen[0] = old[k];
            count = 2;
        }
    }
    // Three-vector cones through d and two old vectors, containing the
    // third; (j, k) run over (0, 1), (0, 2), (1, 2) and `out` is left out.
    if (count == 0) {
        for (int out = 2; out >= 0; --out) {
            const int j = out == 0 ? 1 : 0, k = out == 2 ? 1 : 2;
            if (!exact_cone3(directions[old[j]], directions[old[k]], d, cand_axis, cand_angle)) {
                valid = 1;  // this triple has no cone; another may
                continue;
            }
            if (cand_angle < angle && holds(directions[old[out]], cand_axis, cand_angle)) {
                axis = cand_axis;
                angle = cand_angle;
                chosen[0] = old[j];
                chosen[1] = old[k];
                count = 3;
            }
        }
    }
    if (count == 0) {
        valid = 0;
        return;
    }
    support[0] = chosen[0];
    if (count == 3) support[1] = chosen[1];
    support[count - 1] = i;
    support_count = count;
}

int tsContainmentCone::solve(giUnitVec3& axis, giAngle& half_angle) {
    const int n = start(half_angle);
    if (n <= 0) return n == 0 ? valid : 0;

    // The same shuffle on every call: the running time does not depend on
    // the order the caller happens to hold, and the result is reproducible.
    mlRandom random(1);
    for (int i = n - 1; i >= 1; --i) {
        const int j = random.draw() % (i + 1);
        if (j != i) std::swap(directions[i], directions[j]);
    }

    exact_cone1(directions[0], axis, half_angle);
    support[0] = 0;
    support_count = 1;
    // cos of the half-angle less a margin: a vector whose dot product with
    // the axis exceeds it is inside beyond doubt, so the angle is not needed.
    double clearly_inside = std::cos(half_angle.radians()) + 1e-12;

    int restarts = 0;
    giUnitVec3 new_axis;
    giAngle new_angle;
    for (int i = 1; i < n;) {
        double excess = 0.0;
        if (dot(directions[i], axis) > clearly_inside || in_support(i) ||
            inside_cone(directions[i], axis, half_angle, excess)) {
            ++i;
            continue;
        }
        const int saved_count = support_count;
        const int saved[3] = {support[0], support[1], support[2]};
        update_support(i, new_axis, new_angle);
        if (!valid) return valid;
        if (new_angle > half_angle) {
            axis = new_axis;
            half_angle = new_angle;
            clearly_inside = std::cos(half_angle.radians()) + 1e-12;
            if (++restarts > kMaxRestarts) {
                valid = 0;
                return valid;
            }
            i = 0;
        } else {
            // Not wider: only rounding put d outside; keep the old support.
            support_count = saved_count;
            for (int k = 0; k < 3; ++k) support[k] = saved[k];
            ++i;
        }
    }
    return valid;
}

int tsContainmentCone::solve_slow_and_simple_for_utest(giUnitVec3& axis, giAngle& half_angle) {
    const int n = start(half_angle);
    if (n <= 0) return n == 0 ? valid : 0;
    if (n == 1) {
        exact_cone1(directions[0], axis, half_angle);
        return valid;
    }
    if (n == 2) return exact_cone2(directions[0], directions[1], axis, half_angle);

    const coDynArr<giUnitVec3>& v = directions;
    giUnitVec3 best_axis, cand_axis;
    giAngle best_angle = radians(kTwoPi), cand_angle;
    bool found = false;
    for (int i = 0; i < n; ++i) {
        for (int j = i + 1; j < n; ++j) {
            for (int k = j + 1; k < n; ++k) {
                // The widest pair: the smallest dot product, the first on ties.
                const int t[3] = {i, j, k};
                const double d[3] = {dot(v[i], v[j]), dot(v[i], v[k]), dot(v[j], v[k])};
                int w = 0;
                if (d[1] < d[w]) w = 1;
                if (d[2] < d[w]) w = 2;
                const int p = w == 2 ? j : i, q = w == 0 ? j : k, r = t[2 - w];
                if (!exact_cone2(v[p], v[q], cand_axis, cand_angle)) return 0;
                if (!holds(v[r], cand_axis, cand_angle) &&
                    !exact_cone3(v[i], v[j], v[k], cand_axis, cand_angle))
                    return 0;
                if (!(cand_angle < best_angle)) continue;
                bool contains_all = true;
                for (int m = 0; m < n && contains_all; ++m) {
                    double excess = 0.0;
                    if (m == i || m == j || m == k) continue;
                    inside_cone(v[m], cand_axis, cand_angle, excess);
                    contains_all = excess < kSlowExcess;
                }
                if (!contains_all) continue;
                best_axis = cand_axis;
                best_angle = cand_angle;
                found = true;
            }
        }
    }
    if (!found) {
        valid = 0;
        return valid;
    }
    axis = best_axis;
    half_angle = best_angle;
    return valid;
}
