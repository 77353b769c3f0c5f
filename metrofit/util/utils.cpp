#include "metrofit/util/utils.h"

#include <cmath>
#include <utility>

void tsUtils::ProjectPointsToPlane(const giPoint3coDynArr& points, const giPoint3& plane_point,
                                   const giVector3& plane_normal, giPoint2coDynArr& out,
                                   giXform3* frame) {
    const giUnitVec3 e = std::abs(plane_normal.x()) > std::abs(plane_normal.y())
                             ? giUnitVec3(0, 1, 0)
                             : giUnitVec3(1, 0, 0);
    const giXform3 to_plane(plane_point, giUnitVec3(plane_normal), e);
    const int n = points.size();
    out.clear(0);
    out.reserve(n);
    for (int i = 0; i < n; ++i) {
        const giPoint3 q = to_plane * points[i];
        out[i] = giPoint2(q.x(), q.y());
    }
    if (frame) *frame = to_plane;
}

int tsUtils::project_into_plane(const giPoint3coDynArr& points, const giPoint3& plane_point,
                                const giVector3& plane_normal, giPoint2coDynArr& out,
                                giXform3& to_world) {
    const auto finite = [](double x, double y, double z) {
        return std::isfinite(x) && std::isfinite(y) && std::isfinite(z);
    };
    if (!plane_point.is_set() || !plane_normal.is_set() ||
        !finite(plane_point.x(), plane_point.y(), plane_point.z()) ||
        !finite(plane_normal.x(), plane_normal.y(), plane_normal.z()))
        return 0;
    giXform3 to_plane, back;
    giPoint2coDynArr flat;
    ProjectPointsToPlane(points, plane_point, plane_normal, flat, &to_plane);
    if (!to_plane.is_set() || !to_plane.inverse(back)) return 0;
    out = std::move(flat);
    to_world = back;
    return 1;
}

void tsUtils::get_orthogonal(const giVector3& v, giVector3& out) {
    const giVector3 e = std::abs(v.x()) > std::abs(v.y()) ? giVector3(0, 1, 0) : giVector3(1, 0, 0);
    out = giUnitVec3(cross(v, e));
}
