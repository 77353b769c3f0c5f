#include "metrofit/platform/surface/analytic_surfaces.h"

#include <cfloat>
#include <cmath>
#include <memory>
#include <utility>

namespace {

double max_abs(const giPoint3& p) {
    return std::fmax(std::fabs(p.x()), std::fmax(std::fabs(p.y()), std::fabs(p.z())));
}

// Below this a length computed from p and O is rounding noise: p - O carries
// an error of a few units in the last place of the larger coordinates.
double noise_floor(const giPoint3& p, const giPoint3& o, double size) {
    return 16.0 * DBL_EPSILON * (max_abs(p) + max_abs(o) + size);
}

bool usable(const giPoint3& p) { return p.is_set() && p.is_finite(); }
bool positive_length(double r) { return r > 0.0 && std::isfinite(r); }

}  // namespace

// --- the shared frame -------------------------------------------------------

bool srkAnalyticSurf::set_frame(const giPoint3& origin, const giVector3& axis) {
    const giUnitVec3 z(axis);
    if (!usable(origin) || !z.is_set()) return false;
    origin_ = origin;
    z_ = z;
    x_ = z.any_normal();
    y_ = giUnitVec3(cross(z_, x_));
    return true;
}

int srkAnalyticSurf::transform_in_place(const giXform3& xform) {
    if (!valid_) return 0;
    const double s = std::cbrt(xform.determinant());
    const giPoint3 o = xform * origin_;
    const giUnitVec3 z = xform * z_;
    // The image of X is perpendicular to Z up to the skew the caller accepted:
    // take that residue out so the frame stays orthonormal.
    const giVector3 xi = xform * static_cast<const giVector3&>(x_);
    const giUnitVec3 x(xi - z * dot(xi, z));
    if (!positive_length(s) || !usable(o) || !z.is_set() || !x.is_set()) return 0;
    if (!scale_sizes(s)) return 0;
    origin_ = o;
    z_ = z;
    x_ = x;
    y_ = giUnitVec3(cross(z_, x_));
    return 1;
}

void srkAnalyticSurf::local(const giPoint3& p, double& a, double& b, double& h) const {
    const giVector3 d = p - origin_;
    a = dot(d, x_);
    b = dot(d, y_);
    h = dot(d, z_);
}

giPoint3 srkAnalyticSurf::at(double a, double b, double h) const {
    return origin_ + (x_ * a + y_ * b + z_ * h);
}

giUnitVec3 srkAnalyticSurf::direction(double a, double b, double h) const {
    return giUnitVec3(x_ * a + y_ * b + z_ * h);
}

int srkAnalyticSurf::append_feet(Foot* feet, int n, srkSurfPointList& out, int& info) const {
    for (int i = 1; i < n; ++i)
        for (int j = i; j > 0 && feet[j].dist < feet[j - 1].dist; --j)
            std::swap(feet[j], feet[j - 1]);
    for (int i = 0; i < n; ++i)
        out.append(srkSurfPoint(at(feet[i].a, feet[i].b, feet[i].h), feet[i].u, feet[i].v));
    info = n;
    return n;
}

srkAnalyticSurf::Foot srkAnalyticSurf::meridian_foot(double ea, double eb, double r, double h,
                                                     double v, double dist) {
    Foot f;
    f.a = r * ea;
    f.b = r * eb;
    f.h = h;
    f.u = r >= 0.0 ? std::atan2(eb, ea) : std::atan2(-eb, -ea);
    f.v = v;
    f.dist = dist;
    return f;
}

// --- plane ------------------------------------------------------------------

srkPlaneSurf::srkPlaneSurf(const giPoint3& point, const giVector3& normal) {
    valid_ = set_frame(point, normal);
}

int srkPlaneSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (!valid_ || !usable(p)) return 0;
    Foot f;
    local(p, f.a, f.b, f.h);
    if (!std::isfinite(f.a + f.b + f.h)) return 0;
    f.dist = std::fabs(f.h);
    f.h = 0.0;
    f.u = f.a;
    f.v = f.b;
    return append_feet(&f, 1, out, info);
}

giUnitVec3 srkPlaneSurf::normal_at(const srkSurfPoint&, const giAngle&) const {
    return valid_ ? z_ : giUnitVec3();
}

srkSurfPtr srkPlaneSurf::clone() const { return std::make_shared<srkPlaneSurf>(*this); }

bool srkPlaneSurf::scale_sizes(double) { return true; }

// --- sphere -----------------------------------------------------------------

srkSphereSurf::srkSphereSurf(const giPoint3& centre, double radius) : radius_(radius) {
    valid_ = set_frame(centre, giUnitVec3(giZAxis)) && positive_length(radius);
}

int srkSphereSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (!valid_ || !usable(p)) return 0;
    double a, b, h;
    local(p, a, b, h);
    const double len = std::sqrt(a * a + b * b + h * h);
    if (!std::isfinite(len) || len <= noise_floor(p, origin_, radius_)) return 0;
    const double ka = a / len, kb = b / len, kh = h / len;
    const double lat = std::atan2(kh, std::hypot(ka, kb));
    Foot f[2];
    f[0] = meridian_foot(ka, kb, radius_, radius_ * kh, lat, std::fabs(len - radius_));
    f[1] = meridian_foot(ka, kb, -radius_, -radius_ * kh, -lat, len + radius_);
    return append_feet(f, 2, out, info);
}

giUnitVec3 srkSphereSurf::normal_at(const srkSurfPoint& s, const giAngle&) const {
    if (!valid_) return giUnitVec3();
    double a, b, h;
    local(s.position, a, b, h);
    return direction(a, b, h);
}

srkSurfPtr srkSphereSurf::clone() const { return std::make_shared<srkSphereSurf>(*this); }

bool srkSphereSurf::scale_sizes(double s) {
    if (!positive_length(radius_ * s)) return false;
    radius_ *= s;
    return true;
}

// --- cylinder ---------------------------------------------------------------

srkCylinderSurf::srkCylinderSurf(const giPoint3& axis_point, const giVector3& axis_direction,
                                 double radius)
    : radius_(radius) {
    valid_ = set_frame(axis_point, axis_direction) && positive_length(radius);
}

int srkCylinderSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (!valid_ || !usable(p)) return 0;
    double a, b, h;
    local(p, a, b, h);
    const double rho = std::hypot(a, b);
    if (!std::isfinite(rho + h) || rho <= noise_floor(p, origin_, radius_)) return 0;
    const double ea = a / rho, eb = b / rho;
    Foot f[2];
    f[0] = meridian_foot(ea, eb, radius_, h, h, std::fabs(rho - radius_));
    f[1] = meridian_foot(ea, eb, -radius_, h, h, rho + radius_);
    return append_feet(f, 2, out, info);
}

giUnitVec3 srkCylinderSurf::normal_at(const srkSurfPoint& s, const giAngle&) const {
    if (!valid_) return giUnitVec3();
    double a, b, h;
    local(s.position, a, b, h);
    return direction(a, b, 0.0);
}

srkSurfPtr srkCylinderSurf::clone() const { return std::make_shared<srkCylinderSurf>(*this); }

bool srkCylinderSurf::scale_sizes(double s) {
    if (!positive_length(radius_ * s)) return false;
    radius_ *= s;
    return true;
}

// --- cone -------------------------------------------------------------------

srkConeSurf::srkConeSurf(const giPoint3& apex, const giVector3& axis_direction,
                         const giAngle& half_angle)
    : half_angle_(half_angle), sin_(half_angle.sin()), cos_(half_angle.cos()) {
    const double t = half_angle.radians();
    valid_ = set_frame(apex, axis_direction) && t > 0.0 && t < giAngle::right().radians();
}

int srkConeSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (!valid_ || !usable(p)) return 0;
    double a, b, h;
    local(p, a, b, h);
    const double rho = std::hypot(a, b);
    const double tiny = noise_floor(p, origin_, 0.0);
    if (!std::isfinite(rho + h) || rho <= tiny) return 0;
    const double ea = a / rho, eb = b / rho;
    // In p's meridian half-plane (rho, h) the generating line on p's side runs
    // along (sin, cos) from the apex, the opposite one along (-sin, cos); the
    // foot on each lies at arc length sigma from the apex and must be on the
    // nappe, clear of the apex itself.
    Foot f[2];
    int n = 0;
    const double near_arc = rho * sin_ + h * cos_;
    if (near_arc > tiny)
        f[n++] = meridian_foot(ea, eb, near_arc * sin_, near_arc * cos_, near_arc * cos_,
                               std::fabs(rho * cos_ - h * sin_));
    const double far_arc = h * cos_ - rho * sin_;
    if (far_arc > tiny)
        f[n++] = meridian_foot(ea, eb, -far_arc * sin_, far_arc * cos_, far_arc * cos_,
                               std::fabs(rho * cos_ + h * sin_));
    return append_feet(f, n, out, info);
}

giUnitVec3 srkConeSurf::normal_at(const srkSurfPoint& s, const giAngle&) const {
    if (!valid_) return giUnitVec3();
    double a, b, h;
    local(s.position, a, b, h);
    const double rho = std::hypot(a, b);
    if (!(rho > 0.0) || !std::isfinite(rho)) return giUnitVec3();
    // Across the generating line in the meridian plane, away from the axis.
    return direction(cos_ * a / rho, cos_ * b / rho, -sin_);
}

srkSurfPtr srkConeSurf::clone() const { return std::make_shared<srkConeSurf>(*this); }

bool srkConeSurf::scale_sizes(double) { return true; }

// --- torus ------------------------------------------------------------------

srkTorusSurf::srkTorusSurf(const giPoint3& centre, const giVector3& axis_direction,
                           double major_radius, double minor_radius)
    : major_(major_radius), minor_(minor_radius) {
    valid_ = set_frame(centre, axis_direction) && positive_length(major_radius) &&
             positive_length(minor_radius) && minor_radius < major_radius;
}

int srkTorusSurf::project_all(const giPoint3& p, srkSurfPointList& out, int& info) const {
    info = 0;
    if (!valid_ || !usable(p)) return 0;
    double a, b, h;
    local(p, a, b, h);
    const double rho = std::hypot(a, b);
    const double tiny = noise_floor(p, origin_, major_);
    if (!std::isfinite(rho + h) || rho <= tiny) return 0;
    const double ea = a / rho, eb = b / rho;
    Foot f[4];
    int n = 0;
    // The tube circles of p's meridian plane are centred at signed radial
    // distance side * R; each gives its near and far point on the line from
    // its centre through p.
    for (int side = 1; side >= -1; side -= 2) {
        const double c = side * major_;
        const double qr = rho - c, len = std::hypot(qr, h);
        if (len <= tiny) continue;  // p on this tube's centre circle
        const double kr = qr / len, kh = h / len;
        for (int dir = 1; dir >= -1; dir -= 2) {
            // Offset dir * r * (kr, kh) from the tube centre; its radial part
            // measured along the foot's own radial direction is side * dir * r * kr.
            const double v = std::atan2(dir * kh, side * dir * kr);
            const double dist = dir > 0 ? std::fabs(len - minor_) : len + minor_;
            f[n++] = meridian_foot(ea, eb, c + dir * minor_ * kr, dir * minor_ * kh, v, dist);
        }
    }
    return append_feet(f, n, out, info);
}

giUnitVec3 srkTorusSurf::normal_at(const srkSurfPoint& s, const giAngle&) const {
    if (!valid_) return giUnitVec3();
    double a, b, h;
    local(s.position, a, b, h);
    const double rho = std::hypot(a, b);
    if (!(rho > 0.0) || !std::isfinite(rho)) return giUnitVec3();
    // Away from the tube centre at distance R along s's radial direction.
    return direction(a - major_ * a / rho, b - major_ * b / rho, h);
}

srkSurfPtr srkTorusSurf::clone() const { return std::make_shared<srkTorusSurf>(*this); }

bool srkTorusSurf::scale_sizes(double s) {
    const double big = major_ * s, small = minor_ * s;
    if (!positive_length(big) || !positive_length(small) || !(small < big)) return false;
    major_ = big;
    minor_ = small;
    return true;
}
