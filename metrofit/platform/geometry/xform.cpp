#include "metrofit/platform/geometry/xform.h"

#include <cmath>

namespace {

// Below this sine of the angle between the two axes of a frame, the second
// axis gives no usable direction across the first.
constexpr double kParallelSine = 1e-12;
// |det| against Hadamard's bound (product of the row lengths) below which a
// linear part counts as singular.
constexpr double kSingularRatio = 1e-12;

// Right-handed orthonormal axes X, Y, Z of the frame (z_axis, x_axis); 0 when
// there is none.
int frame_axes(const giPoint3& origin, const giUnitVec3& z_axis, const giUnitVec3& x_axis,
               giUnitVec3& X, giUnitVec3& Y, giUnitVec3& Z) {
    if (!origin.is_set() || !origin.is_finite() || !z_axis.is_set() || !x_axis.is_set()) return 0;
    Z = z_axis;
    const giVector3 across = x_axis - dot(x_axis, Z) * Z;
    if (!(across.length() > kParallelSine)) return 0;
    X = giUnitVec3(across);
    Y = giUnitVec3(cross(Z, X));
    return 1;
}

double row_length(double a, double b, double c) { return std::sqrt(a * a + b * b + c * c); }

}  // namespace

int giXform3::become_world_to_local(const giPoint3& origin, const giUnitVec3& z_axis,
                                    const giUnitVec3& x_axis) {
    giUnitVec3 X, Y, Z;
    if (!frame_axes(origin, z_axis, x_axis, X, Y, Z)) return 0;
    const giVector3 o = origin.to_vector();
    const giUnitVec3* rows[3] = {&X, &Y, &Z};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) m_[r][c] = (*rows[r])[c];
        m_[r][3] = -dot(*rows[r], o);
    }
    return 1;
}

int giXform3::become_local_to_world(const giPoint3& origin, const giUnitVec3& z_axis,
                                    const giUnitVec3& x_axis) {
    giUnitVec3 X, Y, Z;
    if (!frame_axes(origin, z_axis, x_axis, X, Y, Z)) return 0;
    const giUnitVec3* cols[3] = {&X, &Y, &Z};
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 3; ++r) m_[r][c] = (*cols[c])[r];
    set_shift(origin.to_vector());
    return 1;
}

int giXform3::become_rotation(const giPoint3& centre, const giVector3& axis, const giAngle& angle) {
    const giUnitVec3 a(axis);
    if (!a.is_set() || !centre.is_set() || !centre.is_finite() || !std::isfinite(angle.radians()))
        return 0;
    // Rodrigues: R = cos I + sin [a]x + (1 - cos) a a^T.
    const double c = std::cos(angle.radians()), s = std::sin(angle.radians()), t = 1.0 - c;
    const double x = a.x(), y = a.y(), z = a.z();
    m_[0][0] = t * x * x + c;
    m_[0][1] = t * x * y - s * z;
    m_[0][2] = t * x * z + s * y;
    m_[1][0] = t * x * y + s * z;
    m_[1][1] = t * y * y + c;
    m_[1][2] = t * y * z - s * x;
    m_[2][0] = t * x * z - s * y;
    m_[2][1] = t * y * z + s * x;
    m_[2][2] = t * z * z + c;
    // The centre maps onto itself: t = centre - R centre.
    for (int r = 0; r < 3; ++r) m_[r][3] = 0.0;
    set_shift(centre - *this * centre);
    return 1;
}

int giXform3::inverse(giXform3& out) const {
    if (!is_set()) return 0;
    const double det = determinant();
    const double bound = row_length(m_[0][0], m_[0][1], m_[0][2]) *
                         row_length(m_[1][0], m_[1][1], m_[1][2]) *
                         row_length(m_[2][0], m_[2][1], m_[2][2]);
    if (!(std::fabs(det) > kSingularRatio * bound) || !std::isfinite(det)) return 0;
    giXform3 inv;
    // Adjugate (transposed cofactors) over the determinant.
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            const int r1 = (c + 1) % 3, r2 = (c + 2) % 3, c1 = (r + 1) % 3, c2 = (r + 2) % 3;
            inv.m_[r][c] = (m_[r1][c1] * m_[r2][c2] - m_[r1][c2] * m_[r2][c1]) / det;
        }
    }
    // p = A^-1 (q - t): the shift of the inverse is -A^-1 t.
    for (int r = 0; r < 3; ++r)
        inv.m_[r][3] =
            -(inv.m_[r][0] * m_[0][3] + inv.m_[r][1] * m_[1][3] + inv.m_[r][2] * m_[2][3]);
    out = inv;
    return 1;
}

bool equal(const giXform3& a, const giXform3& b, double tol) {
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!(std::fabs(a(r, c) - b(r, c)) <= tol)) return false;
    return true;
}

int giXform2::become_world_to_local(const giPoint2& origin, const giUnitVec2& x_axis) {
    if (!origin.is_set() || !origin.is_finite() || !x_axis.is_set()) return 0;
    const giUnitVec2 X = x_axis, Y = x_axis.any_normal();
    const giVector2 o = origin.to_vector();
    m_[0][0] = X.x();
    m_[0][1] = X.y();
    m_[0][2] = -dot(X, o);
    m_[1][0] = Y.x();
    m_[1][1] = Y.y();
    m_[1][2] = -dot(Y, o);
    return 1;
}

int giXform2::become_local_to_world(const giPoint2& origin, const giUnitVec2& x_axis) {
    if (!origin.is_set() || !origin.is_finite() || !x_axis.is_set()) return 0;
    const giUnitVec2 X = x_axis, Y = x_axis.any_normal();
    m_[0][0] = X.x();
    m_[0][1] = Y.x();
    m_[1][0] = X.y();
    m_[1][1] = Y.y();
    set_shift(origin.to_vector());
    return 1;
}

int giXform2::become_rotation(const giPoint2& centre, const giAngle& angle) {
    if (!centre.is_set() || !centre.is_finite() || !std::isfinite(angle.radians())) return 0;
    const double c = std::cos(angle.radians()), s = std::sin(angle.radians());
    m_[0][0] = c;
    m_[0][1] = -s;
    m_[1][0] = s;
    m_[1][1] = c;
    m_[0][2] = 0.0;
    m_[1][2] = 0.0;
    set_shift(centre - *this * centre);
    return 1;
}

int giXform2::inverse(giXform2& out) const {
    if (!is_set()) return 0;
    const double det = determinant();
    const double bound = std::hypot(m_[0][0], m_[0][1]) * std::hypot(m_[1][0], m_[1][1]);
    if (!(std::fabs(det) > kSingularRatio * bound) || !std::isfinite(det)) return 0;
    giXform2 inv;
    inv.m_[0][0] = m_[1][1] / det;
    inv.m_[0][1] = -m_[0][1] / det;
    inv.m_[1][0] = -m_[1][0] / det;
    inv.m_[1][1] = m_[0][0] / det;
    for (int r = 0; r < 2; ++r) inv.m_[r][2] = -(inv.m_[r][0] * m_[0][2] + inv.m_[r][1] * m_[1][2]);
    out = inv;
    return 1;
}

bool equal(const giXform2& a, const giXform2& b, double tol) {
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 3; ++c)
            if (!(std::fabs(a(r, c) - b(r, c)) <= tol)) return false;
    return true;
}
