#include "metrofit/platform/surface/surf.h"

#include <cmath>

srkSurf::~srkSurf() = default;

namespace {

// True when the linear part A of a set, finite transform is a proper rotation
// times a uniform scale s > 0: A A^T = s^2 I to 1e-9 relative and det A > 0.
bool is_rotation_and_scale(const giXform3& x) {
    if (!x.is_set()) return false;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            if (!std::isfinite(x(r, c))) return false;
    double g[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            g[r][c] = x(r, 0) * x(c, 0) + x(r, 1) * x(c, 1) + x(r, 2) * x(c, 2);
    const double s2 = (g[0][0] + g[1][1] + g[2][2]) / 3.0;
    if (!(s2 > 0.0) || !std::isfinite(s2)) return false;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            if (!(std::fabs(g[r][c] - (r == c ? s2 : 0.0)) <= 1e-9 * s2)) return false;
    // A reflection passes the Gram test but turns the surfaces inside out.
    return x.determinant() > 0.0;
}

}  // namespace

int srkSurf::transform(srkSurfPtr& surface, const giXform3& xform) {
    if (!surface || !is_rotation_and_scale(xform)) return 0;
    return surface->transform_in_place(xform);
}
