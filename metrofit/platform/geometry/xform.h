// Affine transforms of the plane (giXform2) and of space (giXform3).
//
// A transform is a linear part A and a shift t: T * p = A p + t for a point,
// T * v = A v for a vector (no shift). T * u for a unit vector gives A u
// renormalised, a unit vector again (exactly the rotated direction when T is
// rigid). Storage is row-major, 3 x 4 in space (2 x 3 in the plane): entry
// (r, c) with c < 3 is A[r][c], column 3 is t; the omitted last row of the
// homogeneous matrix is (0, 0, 0, 1).
//
// Product order: (A * B) * p == A * (B * p), so B acts first.
//   become(a, b):     this = a * b
//   premultiply(x):   this = x * this   (x acts after this)
//   postmultiply(x):  this = this * x   (x acts before this)
//
// Unset: a default-constructed transform has entry (0, 0) == -DBL_MAX and
// is_set() false. A product or inverse involving an unset transform is
// unset. Applying an unset transform gives meaningless coordinates: callers
// that may hold one test is_set() first.
//
// Frames. A frame is an origin O with right-handed orthonormal axes X, Y, Z,
// given as (origin, z_axis, x_axis): Z = z_axis; X = x_axis with its
// component along Z removed, renormalised; Y = Z x X. Two transforms belong
// to a frame, each the inverse of the other:
//   world_to_local(O, z, x):  p -> ((p - O).X, (p - O).Y, (p - O).Z)
//       the coordinates of a world point in the frame; a point of the plane
//       through O normal to z gets local z = 0. The constructor
//       giXform3(origin, z_axis, x_axis) builds this one.
//   local_to_world(O, z, x):  q -> O + qx X + qy Y + qz Z
//       also the rigid motion that carries the world axes onto X, Y, Z and
//       the world origin onto O (a rotation R with columns X, Y, Z, shift O).
// An unset or non-finite origin, an unset axis, or two axes parallel to
// within a sine of 1e-12 make no frame: the transform is unset (the become_
// forms return 0 and leave the transform as it was). In the plane a frame is
// (origin, x_axis), with Y the x axis turned by +90 degrees.
//
// Rotations follow the right-hand rule: a positive angle about a unit axis a
// turns a vector b perpendicular to a towards a x b (counterclockwise seen
// with a pointing at the viewer), so 90 degrees about z carries x onto y. The
// axis of a 3D rotation is normalised; a zero, unset or non-finite axis, or a
// non-finite angle, gives an unset transform (become_rotation returns 0 and
// leaves the transform as it was). Every point of the line through the
// centre along the axis (the centre itself in the plane) stays fixed.
//
// inverse(): the general affine inverse by cofactors. The linear part counts
// as singular when |det A| <= 1e-12 times the product of its row lengths
// (Hadamard's bound, so the test ignores the scale of each row); the inverse
// is then unset and inverse(out) returns 0 leaving out unchanged.
#pragma once

#include <cfloat>
#include <cmath>

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/utility/tags.h"

struct giIdentityTag {};
constexpr giIdentityTag giIdentity{};

class giXform3 {
   public:
    giXform3() = default;
    explicit giXform3(giIdentityTag) { become(giIdentity); }
    // World-to-local transform of the frame (origin, z_axis, x_axis).
    giXform3(const giPoint3& origin, const giUnitVec3& z_axis, const giUnitVec3& x_axis) {
        become_world_to_local(origin, z_axis, x_axis);
    }
    // Rotation by angle about the line through centre along axis.
    giXform3(const giPoint3& centre, const giVector3& axis, const giAngle& angle) {
        become_rotation(centre, axis, angle);
    }
    // Translation by shift.
    explicit giXform3(const giVector3& shift) { become_translation(shift); }
    // From 12 doubles: the first three rows of a row-major 4 x 4 matrix (so a
    // double[4][4] can be passed as its first element's address).
    giXform3(utConvertTag, const double* rows) { become(utConvert, rows); }

    static giXform3 identity() { return giXform3(giIdentity); }
    static giXform3 translation(const giVector3& shift) { return giXform3(shift); }
    static giXform3 rotation(const giPoint3& centre, const giVector3& axis, const giAngle& angle) {
        return giXform3(centre, axis, angle);
    }
    // Scaling about the origin by sx, sy, sz along the coordinate axes.
    static giXform3 scaling(double sx, double sy, double sz) {
        giXform3 t;
        t.become_scaling(sx, sy, sz);
        return t;
    }
    static giXform3 world_to_local(const giPoint3& origin, const giUnitVec3& z_axis,
                                   const giUnitVec3& x_axis) {
        return giXform3(origin, z_axis, x_axis);
    }
    static giXform3 local_to_world(const giPoint3& origin, const giUnitVec3& z_axis,
                                   const giUnitVec3& x_axis) {
        giXform3 t;
        t.become_local_to_world(origin, z_axis, x_axis);
        return t;
    }

    void become(giIdentityTag) {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) m_[r][c] = (r == c) ? 1.0 : 0.0;
    }
    void become(utConvertTag, const double* rows) {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) m_[r][c] = rows[4 * r + c];
    }
    // this = a * b (b acts first); a and b may be this very transform.
    void become(const giXform3& a, const giXform3& b) { *this = a * b; }
    int become_world_to_local(const giPoint3& origin, const giUnitVec3& z_axis,
                              const giUnitVec3& x_axis);
    int become_local_to_world(const giPoint3& origin, const giUnitVec3& z_axis,
                              const giUnitVec3& x_axis);
    int become_rotation(const giPoint3& centre, const giVector3& axis, const giAngle& angle);
    void become_translation(const giVector3& shift) {
        become(giIdentity);
        set_shift(shift);
    }
    void become_scaling(double sx, double sy, double sz) {
        become(giIdentity);
        m_[0][0] = sx;
        m_[1][1] = sy;
        m_[2][2] = sz;
    }

    void premultiply(const giXform3& x) { *this = x * *this; }
    void postmultiply(const giXform3& x) { *this = *this * x; }

    giXform3 inverse() const {
        giXform3 t;
        inverse(t);
        return t;
    }
    int inverse(giXform3& out) const;
    double determinant() const {
        return m_[0][0] * (m_[1][1] * m_[2][2] - m_[1][2] * m_[2][1]) -
               m_[0][1] * (m_[1][0] * m_[2][2] - m_[1][2] * m_[2][0]) +
               m_[0][2] * (m_[1][0] * m_[2][1] - m_[1][1] * m_[2][0]);
    }

    bool is_set() const { return m_[0][0] != -DBL_MAX; }
    // Every entry within tol of the identity's (tol = 0: exactly the identity).
    bool is_identity(double tol = 0.0) const {
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c)
                if (!(std::fabs(m_[r][c] - (r == c ? 1.0 : 0.0)) <= tol)) return false;
        return true;
    }

    // Entry (r, c), r < 3, c < 4; column 3 is the shift.
    double operator()(int r, int c) const { return m_[r][c]; }
    double& operator()(int r, int c) { return m_[r][c]; }
    giVector3 shift() const { return giVector3(m_[0][3], m_[1][3], m_[2][3]); }
    void set_shift(const giVector3& t) {
        m_[0][3] = t.x();
        m_[1][3] = t.y();
        m_[2][3] = t.z();
    }
    // Column c of the linear part: the image of coordinate axis c.
    giVector3 axis_image(int c) const { return giVector3(m_[0][c], m_[1][c], m_[2][c]); }

    giPoint3 operator*(const giPoint3& p) const {
        return giPoint3(m_[0][0] * p.x() + m_[0][1] * p.y() + m_[0][2] * p.z() + m_[0][3],
                        m_[1][0] * p.x() + m_[1][1] * p.y() + m_[1][2] * p.z() + m_[1][3],
                        m_[2][0] * p.x() + m_[2][1] * p.y() + m_[2][2] * p.z() + m_[2][3]);
    }
    giVector3 operator*(const giVector3& v) const {
        return giVector3(m_[0][0] * v.x() + m_[0][1] * v.y() + m_[0][2] * v.z(),
                         m_[1][0] * v.x() + m_[1][1] * v.y() + m_[1][2] * v.z(),
                         m_[2][0] * v.x() + m_[2][1] * v.y() + m_[2][2] * v.z());
    }
    giUnitVec3 operator*(const giUnitVec3& u) const {
        if (!u.is_set()) return giUnitVec3();
        return giUnitVec3(*this * static_cast<const giVector3&>(u));
    }
    giXform3 operator*(const giXform3& b) const {
        giXform3 p;
        if (!is_set() || !b.is_set()) return p;
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 4; ++c)
                p.m_[r][c] = m_[r][0] * b.m_[0][c] + m_[r][1] * b.m_[1][c] + m_[r][2] * b.m_[2][c];
            p.m_[r][3] += m_[r][3];
        }
        return p;
    }

   private:
    double m_[3][4] = {{-DBL_MAX, 0, 0, 0}, {0, 0, 0, 0}, {0, 0, 0, 0}};
};

class giXform2 {
   public:
    giXform2() = default;
    explicit giXform2(giIdentityTag) { become(giIdentity); }
    // World-to-local transform of the frame (origin, x_axis).
    giXform2(const giPoint2& origin, const giUnitVec2& x_axis) {
        become_world_to_local(origin, x_axis);
    }
    // Rotation by angle (counterclockwise when positive) about centre.
    giXform2(const giPoint2& centre, const giAngle& angle) { become_rotation(centre, angle); }
    explicit giXform2(const giVector2& shift) { become_translation(shift); }
    // From 6 doubles: the first two rows of a row-major 3 x 3 matrix.
    giXform2(utConvertTag, const double* rows) { become(utConvert, rows); }

    static giXform2 identity() { return giXform2(giIdentity); }
    static giXform2 translation(const giVector2& shift) { return giXform2(shift); }
    static giXform2 rotation(const giPoint2& centre, const giAngle& angle) {
        return giXform2(centre, angle);
    }
    static giXform2 world_to_local(const giPoint2& origin, const giUnitVec2& x_axis) {
        return giXform2(origin, x_axis);
    }
    static giXform2 local_to_world(const giPoint2& origin, const giUnitVec2& x_axis) {
        giXform2 t;
        t.become_local_to_world(origin, x_axis);
        return t;
    }

    void become(giIdentityTag) {
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c) m_[r][c] = (r == c) ? 1.0 : 0.0;
    }
    void become(utConvertTag, const double* rows) {
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c) m_[r][c] = rows[3 * r + c];
    }
    void become(const giXform2& a, const giXform2& b) { *this = a * b; }
    int become_world_to_local(const giPoint2& origin, const giUnitVec2& x_axis);
    int become_local_to_world(const giPoint2& origin, const giUnitVec2& x_axis);
    int become_rotation(const giPoint2& centre, const giAngle& angle);
    void become_translation(const giVector2& shift) {
        become(giIdentity);
        set_shift(shift);
    }

    void premultiply(const giXform2& x) { *this = x * *this; }
    void postmultiply(const giXform2& x) { *this = *this * x; }

    giXform2 inverse() const {
        giXform2 t;
        inverse(t);
        return t;
    }
    int inverse(giXform2& out) const;
    double determinant() const { return m_[0][0] * m_[1][1] - m_[0][1] * m_[1][0]; }

    bool is_set() const { return m_[0][0] != -DBL_MAX; }
    bool is_identity(double tol = 0.0) const {
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c)
                if (!(std::fabs(m_[r][c] - (r == c ? 1.0 : 0.0)) <= tol)) return false;
        return true;
    }

    // Entry (r, c), r < 2, c < 3; column 2 is the shift.
    double operator()(int r, int c) const { return m_[r][c]; }
    double& operator()(int r, int c) { return m_[r][c]; }
    giVector2 shift() const { return giVector2(m_[0][2], m_[1][2]); }
    void set_shift(const giVector2& t) {
        m_[0][2] = t.x();
        m_[1][2] = t.y();
    }
    giVector2 axis_image(int c) const { return giVector2(m_[0][c], m_[1][c]); }

    giPoint2 operator*(const giPoint2& p) const {
        return giPoint2(m_[0][0] * p.x() + m_[0][1] * p.y() + m_[0][2],
                        m_[1][0] * p.x() + m_[1][1] * p.y() + m_[1][2]);
    }
    giVector2 operator*(const giVector2& v) const {
        return giVector2(m_[0][0] * v.x() + m_[0][1] * v.y(), m_[1][0] * v.x() + m_[1][1] * v.y());
    }
    giUnitVec2 operator*(const giUnitVec2& u) const {
        if (!u.is_set()) return giUnitVec2();
        return giUnitVec2(*this * static_cast<const giVector2&>(u));
    }
    giXform2 operator*(const giXform2& b) const {
        giXform2 p;
        if (!is_set() || !b.is_set()) return p;
        for (int r = 0; r < 2; ++r) {
            for (int c = 0; c < 3; ++c) p.m_[r][c] = m_[r][0] * b.m_[0][c] + m_[r][1] * b.m_[1][c];
            p.m_[r][2] += m_[r][2];
        }
        return p;
    }

   private:
    double m_[2][3] = {{-DBL_MAX, 0, 0}, {0, 0, 0}};
};

// Entrywise comparison: every entry of a within tol of b's.
bool equal(const giXform3& a, const giXform3& b, double tol);
bool equal(const giXform2& a, const giXform2& b, double tol);
