// Unit vectors in the plane (giUnitVec2) and in space (giUnitVec3).
//
// They derive publicly from giVector2 / giVector3, so a unit vector passes
// wherever a vector is taken, and keep the cached length at exactly 1.
//
// Construction from coordinates or from a vector normalises. Input that has
// no direction (the zero vector, an infinite or NaN coordinate, an unset
// vector) gives an unset unit vector: every coordinate -DBL_MAX, cache
// unknown, is_set() false. Huge or tiny but finite coordinates are scaled
// before the square root, so they normalise correctly.
//
// A default-constructed unit vector is unset, like a vector. The coordinate
// axes are built with the tags giXAxis, giYAxis (and giZAxis in space).
//
// Operations that would break the unit length (setters, +=, -=, *=, /=) are
// removed; binary arithmetic falls back to giVector and gives a giVector.
// Negation keeps a unit vector.
#pragma once

#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/vector.h"

struct giXAxisTag {};
struct giYAxisTag {};
struct giZAxisTag {};
constexpr giXAxisTag giXAxis{};
constexpr giYAxisTag giYAxis{};
constexpr giZAxisTag giZAxis{};

class giUnitVec2 : public giVector2 {
   public:
    giUnitVec2() = default;
    giUnitVec2(double x, double y) { become(x, y); }
    explicit giUnitVec2(const giVector2& v) {
        if (v.is_set()) become(v.x(), v.y());
    }
    explicit giUnitVec2(giXAxisTag) : giVector2(1.0, 0.0, 1.0) {}
    explicit giUnitVec2(giYAxisTag) : giVector2(0.0, 1.0, 1.0) {}

    // Normalises (x, y); returns 0 and leaves the vector unset when (x, y)
    // has no direction.
    int become(double x, double y) {
        const double sq = x * x + y * y;
        if (!(sq >= DBL_MIN && sq <= DBL_MAX)) {
            const double m = std::fmax(std::fabs(x), std::fabs(y));
            if (!std::isfinite(x) || !std::isfinite(y) || m == 0.0) {
                assign(-DBL_MAX, -DBL_MAX, kLengthUnknown);
                return 0;
            }
            x /= m;
            y /= m;
        }
        const double len = std::sqrt(x * x + y * y);
        assign(x / len, y / len, 1.0);
        return 1;
    }

    // The left-hand perpendicular (this turned by +90 degrees).
    giUnitVec2 any_normal() const {
        if (!is_set()) return giUnitVec2();
        return giUnitVec2(-y(), x(), 1.0);
    }

    giUnitVec2 operator-() const {
        if (!is_set()) return giUnitVec2();
        return giUnitVec2(-x(), -y(), 1.0);
    }

    void set_x(double) = delete;
    void set_y(double) = delete;
    giUnitVec2& operator+=(const giVector2&) = delete;
    giUnitVec2& operator-=(const giVector2&) = delete;
    giUnitVec2& operator*=(double) = delete;
    giUnitVec2& operator/=(double) = delete;

   private:
    giUnitVec2(double x, double y, double cache) : giVector2(x, y, cache) {}
};

class giUnitVec3 : public giVector3 {
   public:
    giUnitVec3() = default;
    giUnitVec3(double x, double y, double z) { become(x, y, z); }
    explicit giUnitVec3(const giVector3& v) {
        if (v.is_set()) become(v.x(), v.y(), v.z());
    }
    explicit giUnitVec3(giXAxisTag) : giVector3(1.0, 0.0, 0.0, 1.0) {}
    explicit giUnitVec3(giYAxisTag) : giVector3(0.0, 1.0, 0.0, 1.0) {}
    explicit giUnitVec3(giZAxisTag) : giVector3(0.0, 0.0, 1.0, 1.0) {}

    // Normalises (x, y, z); returns 0 and leaves the vector unset when
    // (x, y, z) has no direction.
    int become(double x, double y, double z) {
        const double sq = x * x + y * y + z * z;
        if (!(sq >= DBL_MIN && sq <= DBL_MAX)) {
            const double m = std::fmax(std::fabs(x), std::fmax(std::fabs(y), std::fabs(z)));
            if (!std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z) || m == 0.0) {
                assign(-DBL_MAX, -DBL_MAX, -DBL_MAX, kLengthUnknown);
                return 0;
            }
            x /= m;
            y /= m;
            z /= m;
        }
        const double len = std::sqrt(x * x + y * y + z * z);
        assign(x / len, y / len, z / len, 1.0);
        return 1;
    }

    // A unit vector perpendicular to this one: the cross product with the
    // coordinate axis least aligned with it (the one of the smallest
    // component), so the result is well conditioned for every direction.
    // An unset vector gives an unset one.
    giUnitVec3 any_normal() const {
        if (!is_set()) return giUnitVec3();
        const double ax = std::fabs(x()), ay = std::fabs(y()), az = std::fabs(z());
        if (ax <= ay && ax <= az) return giUnitVec3(0.0, z(), -y());  // this x (1, 0, 0)
        if (ay <= az) return giUnitVec3(-z(), 0.0, x());              // this x (0, 1, 0)
        return giUnitVec3(y(), -x(), 0.0);                            // this x (0, 0, 1)
    }

    giUnitVec3 operator-() const {
        if (!is_set()) return giUnitVec3();
        return giUnitVec3(-x(), -y(), -z(), 1.0);
    }

    void set_x(double) = delete;
    void set_y(double) = delete;
    void set_z(double) = delete;
    giUnitVec3& operator+=(const giVector3&) = delete;
    giUnitVec3& operator-=(const giVector3&) = delete;
    giUnitVec3& operator*=(double) = delete;
    giUnitVec3& operator/=(double) = delete;

   private:
    giUnitVec3(double x, double y, double z, double cache) : giVector3(x, y, z, cache) {}
};
