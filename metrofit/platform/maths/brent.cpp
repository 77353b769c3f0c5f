#include "metrofit/platform/maths/brent.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace {

// The fraction of the larger part of the bracket that a golden-section step
// covers: (3 - sqrt 5) / 2.
constexpr double kGolden = 0.3819660112501051;

// A tolerance below this cannot be met: near a smooth minimum f changes by
// eps relative only when x moves by about sqrt(eps) relative.
const double kSmallestTolerance = std::sqrt(DBL_EPSILON);

// NaN ranks as +infinity, so the search moves away from undefined points.
double rank(double value) { return std::isnan(value) ? HUGE_VAL : value; }

// The best point met so far; ties keep the earlier point.
struct Best {
    double x, value;
    void offer(double at, double f) {
        if (rank(f) < rank(value)) {
            x = at;
            value = f;
        }
    }
};

}  // namespace

double ml_brent_minimum_search(const mlFunction& f, double a, double b, double c, double tol,
                               int max_iterations, double* x_min) {
    double lo = std::min(a, c), hi = std::max(a, c);
    const double fb = f.function(b);
    Best best{b, fb};
    const bool usable = std::isfinite(a) && std::isfinite(b) && std::isfinite(c) &&
                        max_iterations >= 0 && lo <= b && b <= hi;
    if (usable) {
        best.offer(a, f.function(a));
        best.offer(c, f.function(c));
        if (!(tol >= kSmallestTolerance)) tol = kSmallestTolerance;  // also NaN

        // x: the best inner point, w: the second best, v: the one before w.
        // d: the last step, e: the step before it (a parabolic step must be
        // shorter than half of e, or the search falls back to golden section).
        double x = b, w = b, v = b;
        double fx = rank(fb), fw = fx, fv = fx, d = 0.0, e = 0.0;
        for (int iteration = 0; iteration < max_iterations; ++iteration) {
            const double middle = 0.5 * (lo + hi);
            const double tol1 = tol * (std::fabs(x) + 1e-10), tol2 = 2.0 * tol1;
            if (std::fabs(x - middle) <= tol2 - 0.5 * (hi - lo)) break;

            bool parabolic = false;
            if (std::fabs(e) > tol1) {
                // Vertex of the parabola through (v, fv), (w, fw), (x, fx) as
                // x + p / q; non-finite values fail every test below.
                const double r = (x - w) * (fx - fv);
                double q = (x - v) * (fx - fw);
                double p = (x - v) * q - (x - w) * r;
                q = 2.0 * (q - r);
                if (q > 0.0)
                    p = -p;
                else
                    q = -q;
                if (std::fabs(p) < std::fabs(0.5 * q * e) && p > q * (lo - x) && p < q * (hi - x)) {
                    e = d;
                    d = p / q;
                    const double u = x + d;
                    // Do not evaluate closer to the ends than the tolerance.
                    if (u - lo < tol2 || hi - u < tol2) d = middle >= x ? tol1 : -tol1;
                    parabolic = true;
                }
            }
            if (!parabolic) {
                e = x >= middle ? lo - x : hi - x;  // into the larger part
                d = kGolden * e;
            }
            double u = std::fabs(d) >= tol1 ? x + d : x + (d >= 0.0 ? tol1 : -tol1);
            u = std::min(std::max(u, lo), hi);
            const double fu_value = f.function(u);
            best.offer(u, fu_value);
            const double fu = rank(fu_value);

            if (fu <= fx) {
                if (u >= x)
                    lo = x;
                else
                    hi = x;
                v = w;
                fv = fw;
                w = x;
                fw = fx;
                x = u;
                fx = fu;
            } else {
                if (u < x)
                    lo = u;
                else
                    hi = u;
                if (fu <= fw || w == x) {
                    v = w;
                    fv = fw;
                    w = u;
                    fw = fu;
                } else if (fu <= fv || v == x || v == w) {
                    v = u;
                    fv = fu;
                }
            }
        }
    }
    if (x_min) *x_min = best.x;
    return best.value;
}
