// Checks every entry point makes before it fits: non-finite coordinates are
// refused like too few points, and per-point arrays must match the points.
#pragma once

#include <cmath>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"

inline bool ts_all_finite(const giPoint3coDynArr& points) {
    for (const giPoint3& p : points)
        if (!std::isfinite(p.x()) || !std::isfinite(p.y()) || !std::isfinite(p.z())) return false;
    return true;
}
inline bool ts_all_finite(const giPoint2coDynArr& points) {
    for (const giPoint2& p : points)
        if (!std::isfinite(p.x()) || !std::isfinite(p.y())) return false;
    return true;
}
inline bool ts_all_finite(const doublecoDynArr& values) {
    for (const double v : values)
        if (!std::isfinite(v)) return false;
    return true;
}
inline bool ts_all_finite(const giUnitVec3coDynArr& vectors) {
    for (const giUnitVec3& v : vectors)
        if (!std::isfinite(v.x()) || !std::isfinite(v.y()) || !std::isfinite(v.z())) return false;
    return true;
}
inline bool ts_all_finite(const giUnitVec2coDynArr& vectors) {
    for (const giUnitVec2& v : vectors)
        if (!std::isfinite(v.x()) || !std::isfinite(v.y())) return false;
    return true;
}
inline bool ts_finite(const giPoint3& p) {
    return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z());
}
inline bool ts_finite(const giVector3& v) {
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}
