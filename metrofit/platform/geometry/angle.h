// giAngle: a plane angle, held in radians.
//
// Construction:
//   giAngle()                          zero;
//   giAngle(type, value)               type giANGLE_RADIANS (0) or giANGLE_DEGREES (1);
//                                      any other type gives NaN, so bad input shows;
//   giAngle(giAngleCosine, c)          the angle in [0, pi] whose cosine is c; c beyond
//                                      +-1 by rounding is clamped (utMath::acos);
//   giAngle(giAngleTangent2, y, x)     the direction angle of (x, y), atan2(y, x), in
//                                      (-pi, pi]: y and x are the two components whose
//                                      quotient is the tangent;
//   giAngle::zero(), right(), straight()   exactly 0, pi/2 and pi radians.
//
// Comparisons order the values in radians; coincident(other, tol) is true when
// the values differ by at most tol (no wrap-around: 0 and 2 pi are apart).
// tan(status) reports status 0 and returns 0 where the tangent is undefined
// (the cosine vanishes against the sine to working precision), else status 1.
#pragma once

#include <cmath>
#include <limits>

#include "metrofit/platform/utility/ut_math.h"

enum giAngleType { giANGLE_RADIANS = 0, giANGLE_DEGREES = 1 };

struct giAngleCosineTag {};
struct giAngleTangent2Tag {};
constexpr giAngleCosineTag giAngleCosine{};
constexpr giAngleTangent2Tag giAngleTangent2{};

class giAngle {
   public:
    static constexpr double kPi = 3.14159265358979323846;

    giAngle() = default;
    giAngle(int type, double value)
        : rad_(type == giANGLE_RADIANS   ? value
               : type == giANGLE_DEGREES ? (value / 180.0) * kPi
                                         : std::numeric_limits<double>::quiet_NaN()) {}
    giAngle(giAngleCosineTag, double cosine) : rad_(utMath::acos(cosine)) {}
    giAngle(giAngleTangent2Tag, double y, double x) : rad_(std::atan2(y, x)) {}

    static giAngle zero() { return giAngle(giANGLE_RADIANS, 0.0); }
    static giAngle right() { return giAngle(giANGLE_RADIANS, 0.5 * kPi); }
    static giAngle straight() { return giAngle(giANGLE_RADIANS, kPi); }

    double radians() const { return rad_; }
    // Both conversions divide first, so 90, 180, 45 ... degrees map to exact
    // fractions of pi and back.
    double degrees() const { return (rad_ / kPi) * 180.0; }
    double sin() const { return std::sin(rad_); }
    double cos() const { return std::cos(rad_); }

    double tan(int& status) const {
        const double s = std::sin(rad_), c = std::cos(rad_);
        // At pi/2 the double nearest gives |c| ~ 6e-17: treat a cosine within a
        // few rounding units of zero, relative to the sine, as zero.
        if (!(std::fabs(c) > 4.0 * std::numeric_limits<double>::epsilon() * std::fabs(s))) {
            status = 0;
            return 0.0;
        }
        status = 1;
        return s / c;
    }

    bool coincident(const giAngle& other, const giAngle& tolerance) const {
        return std::fabs(rad_ - other.rad_) <= tolerance.rad_;
    }

    giAngle operator-() const { return giAngle(giANGLE_RADIANS, -rad_); }
    giAngle& operator+=(const giAngle& a) {
        rad_ += a.rad_;
        return *this;
    }
    giAngle& operator-=(const giAngle& a) {
        rad_ -= a.rad_;
        return *this;
    }
    giAngle& operator*=(double s) {
        rad_ *= s;
        return *this;
    }
    giAngle& operator/=(double s) {
        rad_ /= s;
        return *this;
    }

   private:
    double rad_ = 0.0;
};

inline giAngle operator+(giAngle a, const giAngle& b) { return a += b; }
inline giAngle operator-(giAngle a, const giAngle& b) { return a -= b; }
inline giAngle operator*(giAngle a, double s) { return a *= s; }
inline giAngle operator*(double s, giAngle a) { return a *= s; }
inline giAngle operator/(giAngle a, double s) { return a /= s; }
inline bool operator<(const giAngle& a, const giAngle& b) { return a.radians() < b.radians(); }
inline bool operator>(const giAngle& a, const giAngle& b) { return a.radians() > b.radians(); }
inline bool operator<=(const giAngle& a, const giAngle& b) { return a.radians() <= b.radians(); }
inline bool operator>=(const giAngle& a, const giAngle& b) { return a.radians() >= b.radians(); }
inline bool operator==(const giAngle& a, const giAngle& b) { return a.radians() == b.radians(); }
inline bool operator!=(const giAngle& a, const giAngle& b) { return a.radians() != b.radians(); }
