// Planar point sets: the convex hull, the position of a point relative to a
// polygon, and the angular ordering around the lowest point that the hull is
// built on. Every tie and collinear case is decided by two primitives:
//
// ts_theta(o, q): pseudo-angle of q seen from o, in degrees-like units over
//   [0, 360) without trigonometry. With dx = q.x - o.x, dy = q.y - o.y,
//   s = |dx| + |dy| and t = dy / s (t = 0 when s = 0): (2 - t) 90 when
//   dx < 0, else (4 + t) 90 when dy < 0, else t 90. Right 0, up 90, left 180,
//   down 270; monotone in the true angle; q = o gives 0.
//
// ts_ccw(p0, p1, p2, eps) -> -1, 0, 1, with d1 = p1 - p0, d2 = p2 - p0 and
//   c = d1 x d2 (all tests absolute, eps in squared length units):
//   1 when c > eps (p2 left of p0->p1); -1 when c < -eps, or d1.x d2.x < -eps,
//   or d1.y d2.y < -eps (right turn, or p0 between p1 and p2 on one line);
//   otherwise, collinear on one side of p0: 1 when |d1|^2 - |d2|^2 < -eps
//   (p2 beyond p1), else 0 (p2 on the segment p0-p1, its ends included).
//
// ts_intersect(a, b, c, d): segments a-b and c-d meet, touching included:
//   false when ts_ccw(a, b, c, 0) ts_ccw(a, b, d, 0) > 0, otherwise
//   ts_ccw(c, d, a, 0) ts_ccw(c, d, b, 0) <= 0.
//
// Pivot: the point of smallest y, of those the largest x, the first index
// among identical points (index 0 for fewer than 2 points).
//
// tsCompareForSimplestClosedPath(pivot): comparator for coQuickSort over
//   giPoint2 arrays. compare(a, b) orders by ts_theta from the pivot, equal
//   pseudo-angles by squared distance from the pivot, nearer first (-1, 0,
//   1). Swapping the pivot to the front and sorting the whole array with it
//   gives a closed path through all points that does not cross itself (its
//   closing edge runs back over the points of the last ray from the pivot).
//
// ts_calculate_convex_hull(points, intcoDynArr& hull): Graham scan.
//   Sort keys are 0 for the pivot and ts_theta(pivot, q) for the others;
//   the indices are sorted by key (doublecoQuickSortIndex), and each run of
//   equal keys (points on one ray from the pivot) then by distance from the
//   pivot, nearest first. Walking the sorted order, an index is dropped when
//   its point lies within 1e-12 of the previous sorted point (dropped or
//   not). With fewer than 4 points left they are the hull in angular order.
//   Otherwise the scan keeps the points P[0..m] on a stack and, for each
//   further point P[i], pops while ts_ccw(P[m], P[m - 1], P[i], 0) >= 0
//   (below the pivot, P[-1] is the last point of the angular order). The
//   hull runs counter-clockwise from the pivot. A point exactly on a hull
//   edge stays (ts_ccw's collinear rule), except on the closing edge, the
//   last ray from the pivot, where only the far end stays. Points all on
//   one line give every distinct point, in order of distance from the
//   pivot. The indices are APPENDED to hull (callers pass it empty).
//   Returns the number of hull vertices, or 0 (hull untouched) for an empty
//   array or a non-finite coordinate.
// ts_calculate_convex_hull(points, giPoint2coDynArr& hull): the same scan on
//   the points themselves: hull is replaced by a copy of the points in the
//   simplest-closed-path order (ties on a ray are nearest first there too),
//   each point within 1e-12 of the last point kept before it is removed, and
//   with 4 or more left the scan runs in place. The two forms give the same
//   points in the same order (unless chains of points within 1e-12 of the
//   next are dropped differently). Returns the number of hull vertices, or 0
//   (hull untouched) for an empty array or a non-finite coordinate.
//
// ts_relative_position(p, polygon, n): tsINSIDE, tsON_VERTEX, tsON_EDGE or
//   tsOUTSIDE for the polygon v0 .. v(n-1), closed or not (v(n-1) = v0 exactly
//   means closed; otherwise the edge v(n-1)-v0 is implied). Counts the edges
//   that cross the ray from p to (1e12, p.y): an edge is passed over when
//   both ends are below p, both above, or both left of it; an end equal to p
//   (exactly) gives tsON_VERTEX; ts_ccw(vi, vi+1, p, 1e-10) = 0 gives
//   tsON_EDGE; horizontal edges are passed over; otherwise the edge counts
//   when p.y is above its lower end and it meets the ray, so a vertex on the
//   ray counts once where the boundary crosses it and twice (or not at all)
//   where it only touches. An odd count is tsINSIDE. The 1e-10 tolerance is
//   absolute (a cross product, squared length) and applies only within an
//   edge's y range, so a point just off a horizontal edge is not on it.
//   Coordinates are taken to be of moderate size, well inside the 1e12 end
//   of the ray.
//   A polygon of no points (or a null pointer), a non-finite p or vertex
//   give tsOUTSIDE: no position can be stated, and nothing lies inside.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/quick_sort.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/point.h"

enum tsRelativePosition { tsINSIDE = 0, tsON_VERTEX = 1, tsON_EDGE = 2, tsOUTSIDE = 3 };

double ts_theta(const giPoint2& o, const giPoint2& q);
int ts_ccw(const giPoint2& p0, const giPoint2& p1, const giPoint2& p2, double eps);
bool ts_intersect(const giPoint2& a, const giPoint2& b, const giPoint2& c, const giPoint2& d);

class tsCompareForSimplestClosedPath : public coQuickSort {
   public:
    explicit tsCompareForSimplestClosedPath(const giPoint2& pivot) : pivot_(pivot) {}

    int obj_compare(void* const a, void* const b) const override;
    void* arr_get(void* const arr, int i) const override;
    void arr_swap(void* const arr, int i, int j) const override;
    ~tsCompareForSimplestClosedPath() override = default;

    int compare(const giPoint2* a, const giPoint2* b) const;
    const giPoint2& pivot() const { return pivot_; }

   private:
    giPoint2 pivot_;
};

int ts_calculate_convex_hull(const giPoint2coDynArr& points, intcoDynArr& hull);
int ts_calculate_convex_hull(const giPoint2coDynArr& points, giPoint2coDynArr& hull);

tsRelativePosition ts_relative_position(const giPoint2& p, const giPoint2* polygon, int n);
tsRelativePosition ts_relative_position(const giPoint2& p, const giPoint2coDynArr& polygon);
