// Points in the plane (giPoint2) and in space (giPoint3).
//
// Unset: a default-constructed point holds DBL_MAX in every coordinate.
// is_set() is false when any coordinate is DBL_MAX or x is -DBL_MAX (the
// marker of the unset vectors, which callers also store in points).
// giPoint3(giOrigin) is the origin (0, 0, 0); giPoint2(giOrigin) likewise.
//
// Affine arithmetic: point - point = vector, point +/- vector = point.
// == compares coordinates exactly; coincident(other, tol) is true when the
// distance is at most tol (tol = 0 is exact equality).
#pragma once

#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/vector.h"

struct giOriginTag {};
constexpr giOriginTag giOrigin{};

class giPoint2 {
   public:
    giPoint2() = default;
    giPoint2(double x, double y) : x_(x), y_(y) {}
    explicit giPoint2(giOriginTag) : x_(0.0), y_(0.0) {}
    // The point at the tip of v drawn from the origin.
    explicit giPoint2(const giVector2& v) : x_(v.x()), y_(v.y()) {}

    double x() const { return x_; }
    double y() const { return y_; }
    double operator[](int i) const { return i == 0 ? x_ : y_; }
    void set_x(double v) { x_ = v; }
    void set_y(double v) { y_ = v; }
    void become(double x, double y) {
        x_ = x;
        y_ = y;
    }
    // The vector from the origin to this point.
    giVector2 to_vector() const { return giVector2(x_, y_); }

    bool is_set() const { return x_ != DBL_MAX && y_ != DBL_MAX && x_ != -DBL_MAX; }
    bool is_finite() const { return std::isfinite(x_) && std::isfinite(y_); }

    bool coincident(const giPoint2& p, double tol) const {
        const double dx = x_ - p.x_, dy = y_ - p.y_;
        // The per-axis test first keeps tol = 0 exact where squares underflow.
        if (!(std::fabs(dx) <= tol && std::fabs(dy) <= tol)) return false;
        return dx * dx + dy * dy <= tol * tol;
    }

    giPoint2& operator+=(const giVector2& v) {
        x_ += v.x();
        y_ += v.y();
        return *this;
    }
    giPoint2& operator-=(const giVector2& v) {
        x_ -= v.x();
        y_ -= v.y();
        return *this;
    }

   private:
    double x_ = DBL_MAX;
    double y_ = DBL_MAX;
};

class giPoint3 {
   public:
    giPoint3() = default;
    giPoint3(double x, double y, double z) : x_(x), y_(y), z_(z) {}
    explicit giPoint3(giOriginTag) : x_(0.0), y_(0.0), z_(0.0) {}
    // The point at the tip of v drawn from the origin.
    explicit giPoint3(const giVector3& v) : x_(v.x()), y_(v.y()), z_(v.z()) {}

    double x() const { return x_; }
    double y() const { return y_; }
    double z() const { return z_; }
    double operator[](int i) const { return i == 0 ? x_ : (i == 1 ? y_ : z_); }
    void set_x(double v) { x_ = v; }
    void set_y(double v) { y_ = v; }
    void set_z(double v) { z_ = v; }
    void become(double x, double y, double z) {
        x_ = x;
        y_ = y;
        z_ = z;
    }
    giVector3 to_vector() const { return giVector3(x_, y_, z_); }

    bool is_set() const {
        return x_ != DBL_MAX && y_ != DBL_MAX && z_ != DBL_MAX && x_ != -DBL_MAX;
    }
    bool is_finite() const { return std::isfinite(x_) && std::isfinite(y_) && std::isfinite(z_); }

    bool coincident(const giPoint3& p, double tol) const {
        const double dx = x_ - p.x_, dy = y_ - p.y_, dz = z_ - p.z_;
        if (!(std::fabs(dx) <= tol && std::fabs(dy) <= tol && std::fabs(dz) <= tol)) return false;
        return dx * dx + dy * dy + dz * dz <= tol * tol;
    }

    giPoint3& operator+=(const giVector3& v) {
        x_ += v.x();
        y_ += v.y();
        z_ += v.z();
        return *this;
    }
    giPoint3& operator-=(const giVector3& v) {
        x_ -= v.x();
        y_ -= v.y();
        z_ -= v.z();
        return *this;
    }

   private:
    double x_ = DBL_MAX;
    double y_ = DBL_MAX;
    double z_ = DBL_MAX;
};

inline giVector2 operator-(const giPoint2& a, const giPoint2& b) {
    return giVector2(a.x() - b.x(), a.y() - b.y());
}
inline giPoint2 operator+(const giPoint2& p, const giVector2& v) {
    return giPoint2(p.x() + v.x(), p.y() + v.y());
}
inline giPoint2 operator-(const giPoint2& p, const giVector2& v) {
    return giPoint2(p.x() - v.x(), p.y() - v.y());
}
inline bool operator==(const giPoint2& a, const giPoint2& b) {
    return a.x() == b.x() && a.y() == b.y();
}
inline bool operator!=(const giPoint2& a, const giPoint2& b) { return !(a == b); }
inline double distance_squared(const giPoint2& a, const giPoint2& b) {
    return (a - b).length_squared();
}
inline double distance(const giPoint2& a, const giPoint2& b) { return (a - b).length(); }

inline giVector3 operator-(const giPoint3& a, const giPoint3& b) {
    return giVector3(a.x() - b.x(), a.y() - b.y(), a.z() - b.z());
}
inline giPoint3 operator+(const giPoint3& p, const giVector3& v) {
    return giPoint3(p.x() + v.x(), p.y() + v.y(), p.z() + v.z());
}
inline giPoint3 operator-(const giPoint3& p, const giVector3& v) {
    return giPoint3(p.x() - v.x(), p.y() - v.y(), p.z() - v.z());
}
inline bool operator==(const giPoint3& a, const giPoint3& b) {
    return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
inline bool operator!=(const giPoint3& a, const giPoint3& b) { return !(a == b); }
inline double distance_squared(const giPoint3& a, const giPoint3& b) {
    return (a - b).length_squared();
}
inline double distance(const giPoint3& a, const giPoint3& b) { return (a - b).length(); }
