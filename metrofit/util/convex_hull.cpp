#include "metrofit/util/convex_hull.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "metrofit/frame/input_checks.h"

namespace {

// Points closer than this are one hull vertex.
constexpr double kSamePoint = 1e-12;
// Cross products below this put the query point on a polygon edge.
constexpr double kOnEdge = 1e-10;
// The x at which the horizontal test ray of the crossing count ends.
constexpr double kRayEnd = 1e12;

bool finite(const giPoint2& p) { return std::isfinite(p.x()) && std::isfinite(p.y()); }

// Lowest point, the rightmost of the lowest, the first of identical ones.
int pivot_index(const giPoint2coDynArr& points) {
    int best = 0;
    for (int i = 1; i < points.size(); ++i) {
        const giPoint2& p = points[i];
        const giPoint2& b = points[best];
        if (p.y() < b.y() || (p.y() == b.y() && p.x() > b.x())) best = i;
    }
    return best;
}

// Graham scan in place over P[0 .. k-1] (k >= 4), sorted by angle around
// P[0]; idx, when given, travels with the points. The stack is the prefix
// P[0 .. m]; below the pivot the previous vertex wraps to P[k-1], the last
// point of the angular order. Returns m, the index of the last hull vertex.
int graham_scan(giPoint2* P, int* idx, int k) {
    int m = 2;
    for (int i = 3; i < k; ++i) {
        while (m >= 0 && ts_ccw(P[m], P[m > 0 ? m - 1 : k - 1], P[i], 0.0) >= 0) --m;
        ++m;
        P[m] = P[i];
        if (idx) idx[m] = idx[i];
    }
    return m;
}

enum EdgeOutcome { kPassed, kVertex, kEdge, kCrossing };

// One edge a-b of the crossing count for the ray from p to far.
EdgeOutcome classify_edge(const giPoint2& a, const giPoint2& b, const giPoint2& p,
                          const giPoint2& far) {
    if ((a.y() < p.y() && b.y() < p.y()) || (a.y() > p.y() && b.y() > p.y()) ||
        (a.x() < p.x() && b.x() < p.x()))
        return kPassed;
    if (b.coincident(p, 0.0)) return kVertex;
    if (ts_ccw(a, b, p, kOnEdge) == 0) return kEdge;
    if (a.y() == b.y()) return kPassed;
    // Only edges reaching below p.y count: a vertex on the ray is counted
    // by one of its edges where the boundary crosses the ray, by both or by
    // neither where it only touches it.
    if (p.y() > std::min(a.y(), b.y()) && ts_intersect(a, b, p, far)) return kCrossing;
    return kPassed;
}

}  // namespace

double ts_theta(const giPoint2& o, const giPoint2& q) {
    const double dx = q.x() - o.x(), dy = q.y() - o.y();
    const double s = std::fabs(dx) + std::fabs(dy);
    const double t = s == 0.0 ? 0.0 : dy / s;  // in [-1, 1], sign of dy
    if (dx < 0.0) return (2.0 - t) * 90.0;
    if (dy < 0.0) return (4.0 + t) * 90.0;
    return t * 90.0;
}

int ts_ccw(const giPoint2& p0, const giPoint2& p1, const giPoint2& p2, double eps) {
    const double dx1 = p1.x() - p0.x(), dy1 = p1.y() - p0.y();
    const double dx2 = p2.x() - p0.x(), dy2 = p2.y() - p0.y();
    const double c = dx1 * dy2 - dy1 * dx2;
    if (c > eps) return 1;
    if (c < -eps || dx1 * dx2 < -eps || dy1 * dy2 < -eps) return -1;
    return (dx1 * dx1 + dy1 * dy1) - (dx2 * dx2 + dy2 * dy2) < -eps ? 1 : 0;
}

bool ts_intersect(const giPoint2& a, const giPoint2& b, const giPoint2& c, const giPoint2& d) {
    if (ts_ccw(a, b, c, 0.0) * ts_ccw(a, b, d, 0.0) > 0) return false;
    return ts_ccw(c, d, a, 0.0) * ts_ccw(c, d, b, 0.0) <= 0;
}

int tsCompareForSimplestClosedPath::compare(const giPoint2* a, const giPoint2* b) const {
    const double ta = ts_theta(pivot_, *a), tb = ts_theta(pivot_, *b);
    if (ta > tb) return 1;
    if (ta < tb) return -1;
    const double da = distance_squared(pivot_, *a), db = distance_squared(pivot_, *b);
    return da < db ? -1 : (da > db ? 1 : 0);
}

int tsCompareForSimplestClosedPath::obj_compare(void* const a, void* const b) const {
    return compare(static_cast<const giPoint2*>(a), static_cast<const giPoint2*>(b));
}

void* tsCompareForSimplestClosedPath::arr_get(void* const arr, int i) const {
    return static_cast<giPoint2*>(arr) + i;
}

void tsCompareForSimplestClosedPath::arr_swap(void* const arr, int i, int j) const {
    giPoint2* p = static_cast<giPoint2*>(arr);
    std::swap(p[i], p[j]);
}

int ts_calculate_convex_hull(const giPoint2coDynArr& points, intcoDynArr& hull) {
    const int n = points.size();
    if (n == 0 || !ts_all_finite(points)) return 0;
    const int pivot = pivot_index(points);
    doublecoPageArr keys(n, 4096, 64), dist(n, 4096, 64);
    intcoDynArr order;
    giPoint2coDynArr taken;
    intcoDynArr taken_index;
    if (!keys.expand(n) || !dist.expand(n) || !order.expand(n) || !taken.reserve(n) ||
        !taken_index.reserve(n))
        return 0;
    for (int i = 0; i < n; ++i) {
        keys[i] = i == pivot ? 0.0 : ts_theta(points[pivot], points[i]);
        dist[i] = distance_squared(points[pivot], points[i]);
        order[i] = i;
    }
    doublecoQuickSortIndex(keys).sort(order);
    // Runs of equal keys lie on one ray from the pivot: nearest first, or
    // the scan could pop the far end of the first ray, a hull vertex.
    const doublecoQuickSortIndex by_distance(dist);
    for (int s = 0, e = 1; s < n; s = e++) {
        while (e < n && keys.read(order[e]) == keys.read(order[s])) ++e;
        if (e - s > 1) by_distance.sort(order.data() + s, e - s);
    }

    // Duplicates: a point within kSamePoint of its sorted predecessor goes.
    for (int s = 0; s < n; ++s) {
        if (s > 0 && points[order[s]].coincident(points[order[s - 1]], kSamePoint)) continue;
        taken.append(points[order[s]]);
        taken_index.append(order[s]);
    }
    const int k = taken.size();
    const int m = k < 4 ? k - 1 : graham_scan(taken.data(), taken_index.data(), k);
    if (!hull.reserve(hull.size() + m + 1)) return 0;
    for (int j = 0; j <= m; ++j) hull.append(taken_index[j]);
    return m + 1;
}

int ts_calculate_convex_hull(const giPoint2coDynArr& points, giPoint2coDynArr& hull) {
    const int n = points.size();
    if (n == 0 || !ts_all_finite(points)) return 0;
    // Work on a copy: hull stays untouched on failure, and may be points.
    giPoint2coDynArr path(points);
    if (path.size() != n) return 0;

    // Simplest closed path: the pivot first, the rest by angle around it.
    std::swap(path[0], path[pivot_index(path)]);
    const tsCompareForSimplestClosedPath order(path[0]);
    order.sort(path.data(), n);

    int k = 1;  // a point within kSamePoint of the last kept one goes
    for (int i = 1; i < n; ++i)
        if (!path[i].coincident(path[k - 1], kSamePoint)) path[k++] = path[i];
    const int m = k < 4 ? k - 1 : graham_scan(path.data(), nullptr, k);
    path.shrink(m + 1, 0);
    hull = std::move(path);
    return m + 1;
}

tsRelativePosition ts_relative_position(const giPoint2& p, const giPoint2* polygon, int n) {
    if (!polygon || n < 1 || !finite(p)) return tsOUTSIDE;
    for (int i = 0; i < n; ++i)
        if (!finite(polygon[i])) return tsOUTSIDE;
    if (polygon[0].coincident(p, 0.0)) return tsON_VERTEX;

    // A closed polygon lists its closing edge; an open one implies it.
    const bool closed = polygon[n - 1].coincident(polygon[0], 0.0);
    const int n_edges = closed ? n - 1 : n;
    const giPoint2 far(kRayEnd, p.y());
    int crossings = 0;
    for (int e = 0; e < n_edges; ++e) {
        switch (classify_edge(polygon[e], polygon[e + 1 < n ? e + 1 : 0], p, far)) {
            case kVertex:
                return tsON_VERTEX;
            case kEdge:
                return tsON_EDGE;
            case kCrossing:
                ++crossings;
                break;
            case kPassed:
                break;
        }
    }
    return crossings % 2 == 1 ? tsINSIDE : tsOUTSIDE;
}

tsRelativePosition ts_relative_position(const giPoint2& p, const giPoint2coDynArr& polygon) {
    return ts_relative_position(p, polygon.data(), polygon.size());
}
