// Free vectors in the plane (giVector2) and in space (giVector3), each with a
// cached length.
//
// Unset: a default-constructed vector holds -DBL_MAX in every coordinate;
// callers test x alone (is_set()).
//
// Cached length. Next to its coordinates every vector keeps one double that
// records what is known about its length, in three states:
//   kLengthUnknown (DBL_MAX, the largest finite double): nothing known yet;
//   negative: minus the squared length (the square root is still owed);
//   zero or positive: the length itself.
// length_squared() moves the state from unknown to "minus the square";
// length() completes it with one square root and keeps the result.
// length_cache() exposes the raw state so that inline code in hot loops can
// read it directly: a value >= 0 other than kLengthUnknown is the length, a
// negative value c gives the length as sqrt(-c), anything else means the
// length has to be computed. Every operation that changes a coordinate puts
// the cache back to unknown.
//
// The cache is mutable, so asking a const vector for its length writes to
// it: a vector object read by several threads at once should have its length
// asked once before it is shared.
//
// Squares that would overflow or underflow are never cached as squares;
// length() then falls back to a scaled computation, so a vector of 1e200 or
// 1e-200 still gets its true length.
#pragma once

#include <cfloat>
#include <cmath>

class giVector2 {
   public:
    static constexpr double kLengthUnknown = DBL_MAX;

    giVector2() = default;
    giVector2(double x, double y) : x_(x), y_(y) {}

    double x() const { return x_; }
    double y() const { return y_; }
    double operator[](int i) const { return i == 0 ? x_ : y_; }
    void set_x(double v) {
        x_ = v;
        len_ = kLengthUnknown;
    }
    void set_y(double v) {
        y_ = v;
        len_ = kLengthUnknown;
    }
    void become(double x, double y) {
        x_ = x;
        y_ = y;
        len_ = kLengthUnknown;
    }

    bool is_set() const { return x_ != -DBL_MAX; }
    bool is_finite() const { return std::isfinite(x_) && std::isfinite(y_); }

    // Raw three-state cache; see the header comment.
    double length_cache() const { return len_; }

    double length_squared() const {
        if (len_ < 0.0) return -len_;
        const double sq = x_ * x_ + y_ * y_;
        if (len_ == kLengthUnknown && sq >= DBL_MIN && sq <= DBL_MAX) len_ = -sq;
        return sq;
    }
    double length() const {
        double c = len_;
        if (c >= 0.0 && c != kLengthUnknown) return c;
        if (c < 0.0) {
            c = std::sqrt(-c);
        } else {
            const double sq = x_ * x_ + y_ * y_;
            c = (sq >= DBL_MIN && sq <= DBL_MAX) ? std::sqrt(sq) : std::hypot(x_, y_);
        }
        len_ = c;
        return c;
    }

    giVector2 operator-() const { return giVector2(-x_, -y_); }
    giVector2& operator+=(const giVector2& v) {
        become(x_ + v.x_, y_ + v.y_);
        return *this;
    }
    giVector2& operator-=(const giVector2& v) {
        become(x_ - v.x_, y_ - v.y_);
        return *this;
    }
    giVector2& operator*=(double s) {
        become(x_ * s, y_ * s);
        return *this;
    }
    giVector2& operator/=(double s) {
        become(x_ / s, y_ / s);
        return *this;
    }

   protected:
    // For unit vectors: coordinates and a cache state taken as given.
    giVector2(double x, double y, double cache) : x_(x), y_(y), len_(cache) {}
    void assign(double x, double y, double cache) {
        x_ = x;
        y_ = y;
        len_ = cache;
    }

   private:
    double x_ = -DBL_MAX;
    double y_ = -DBL_MAX;
    mutable double len_ = kLengthUnknown;
};

class giVector3 {
   public:
    static constexpr double kLengthUnknown = DBL_MAX;

    giVector3() = default;
    giVector3(double x, double y, double z) : x_(x), y_(y), z_(z) {}

    double x() const { return x_; }
    double y() const { return y_; }
    double z() const { return z_; }
    double operator[](int i) const { return i == 0 ? x_ : (i == 1 ? y_ : z_); }
    void set_x(double v) {
        x_ = v;
        len_ = kLengthUnknown;
    }
    void set_y(double v) {
        y_ = v;
        len_ = kLengthUnknown;
    }
    void set_z(double v) {
        z_ = v;
        len_ = kLengthUnknown;
    }
    void become(double x, double y, double z) {
        x_ = x;
        y_ = y;
        z_ = z;
        len_ = kLengthUnknown;
    }

    bool is_set() const { return x_ != -DBL_MAX; }
    bool is_finite() const { return std::isfinite(x_) && std::isfinite(y_) && std::isfinite(z_); }

    // Raw three-state cache; see the header comment.
    double length_cache() const { return len_; }

    double length_squared() const {
        if (len_ < 0.0) return -len_;
        const double sq = x_ * x_ + y_ * y_ + z_ * z_;
        if (len_ == kLengthUnknown && sq >= DBL_MIN && sq <= DBL_MAX) len_ = -sq;
        return sq;
    }
    double length() const {
        double c = len_;
        if (c >= 0.0 && c != kLengthUnknown) return c;
        if (c < 0.0) {
            c = std::sqrt(-c);
        } else {
            const double sq = x_ * x_ + y_ * y_ + z_ * z_;
            c = (sq >= DBL_MIN && sq <= DBL_MAX) ? std::sqrt(sq) : scaled_length();
        }
        len_ = c;
        return c;
    }

    giVector3 operator-() const { return giVector3(-x_, -y_, -z_); }
    giVector3& operator+=(const giVector3& v) {
        become(x_ + v.x_, y_ + v.y_, z_ + v.z_);
        return *this;
    }
    giVector3& operator-=(const giVector3& v) {
        become(x_ - v.x_, y_ - v.y_, z_ - v.z_);
        return *this;
    }
    giVector3& operator*=(double s) {
        become(x_ * s, y_ * s, z_ * s);
        return *this;
    }
    giVector3& operator/=(double s) {
        become(x_ / s, y_ / s, z_ / s);
        return *this;
    }

   protected:
    // For unit vectors: coordinates and a cache state taken as given.
    giVector3(double x, double y, double z, double cache) : x_(x), y_(y), z_(z), len_(cache) {}
    void assign(double x, double y, double z, double cache) {
        x_ = x;
        y_ = y;
        z_ = z;
        len_ = cache;
    }

   private:
    // The length where the plain square would overflow or underflow: the
    // coordinates are scaled by the largest first. Infinite -> inf, NaN -> NaN.
    double scaled_length() const {
        const double ax = std::fabs(x_), ay = std::fabs(y_), az = std::fabs(z_);
        if (std::isinf(ax) || std::isinf(ay) || std::isinf(az)) return HUGE_VAL;
        const double m = std::fmax(ax, std::fmax(ay, az));
        if (!(m > 0.0) || std::isnan(ax + ay + az)) return ax + ay + az;  // 0 or NaN
        const double u = ax / m, v = ay / m, w = az / m;
        return m * std::sqrt(u * u + v * v + w * w);
    }

    double x_ = -DBL_MAX;
    double y_ = -DBL_MAX;
    double z_ = -DBL_MAX;
    mutable double len_ = kLengthUnknown;
};

inline giVector2 operator+(const giVector2& a, const giVector2& b) {
    return giVector2(a.x() + b.x(), a.y() + b.y());
}
inline giVector2 operator-(const giVector2& a, const giVector2& b) {
    return giVector2(a.x() - b.x(), a.y() - b.y());
}
inline giVector2 operator*(const giVector2& a, double s) { return giVector2(a.x() * s, a.y() * s); }
inline giVector2 operator*(double s, const giVector2& a) { return giVector2(a.x() * s, a.y() * s); }
inline giVector2 operator/(const giVector2& a, double s) { return giVector2(a.x() / s, a.y() / s); }
// Exact comparison of the coordinates (the cache takes no part).
inline bool operator==(const giVector2& a, const giVector2& b) {
    return a.x() == b.x() && a.y() == b.y();
}
inline bool operator!=(const giVector2& a, const giVector2& b) { return !(a == b); }
inline double dot(const giVector2& a, const giVector2& b) { return a.x() * b.x() + a.y() * b.y(); }
// z component of the spatial cross product: |a||b| sin(angle from a to b).
inline double cross(const giVector2& a, const giVector2& b) {
    return a.x() * b.y() - a.y() * b.x();
}

inline giVector3 operator+(const giVector3& a, const giVector3& b) {
    return giVector3(a.x() + b.x(), a.y() + b.y(), a.z() + b.z());
}
inline giVector3 operator-(const giVector3& a, const giVector3& b) {
    return giVector3(a.x() - b.x(), a.y() - b.y(), a.z() - b.z());
}
inline giVector3 operator*(const giVector3& a, double s) {
    return giVector3(a.x() * s, a.y() * s, a.z() * s);
}
inline giVector3 operator*(double s, const giVector3& a) {
    return giVector3(a.x() * s, a.y() * s, a.z() * s);
}
inline giVector3 operator/(const giVector3& a, double s) {
    return giVector3(a.x() / s, a.y() / s, a.z() / s);
}
inline bool operator==(const giVector3& a, const giVector3& b) {
    return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
inline bool operator!=(const giVector3& a, const giVector3& b) { return !(a == b); }
inline double dot(const giVector3& a, const giVector3& b) {
    return a.x() * b.x() + a.y() * b.y() + a.z() * b.z();
}
inline giVector3 cross(const giVector3& a, const giVector3& b) {
    return giVector3(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(),
                     a.x() * b.y() - a.y() * b.x());
}
