#include "metrofit/frame/least_square_distance.h"

#include "metrofit/platform/geometry/box.h"

namespace {

// Built once when the library loads.
const giUnitVec3 kGuessDirections[7] = {
    giUnitVec3(1, 0, 0),  giUnitVec3(0, 1, 0),  giUnitVec3(0, 0, 1),   giUnitVec3(1, 1, 1),
    giUnitVec3(-1, 1, 1), giUnitVec3(1, -1, 1), giUnitVec3(-1, -1, 1),
};

}  // namespace

giUnitVec3 tsLeastSquareDistance3::guess_direction(int i) {
    return (i >= 0 && i < 7) ? kGuessDirections[i] : giUnitVec3();
}

giPoint3 tsLeastSquareDistance3::centroid() const {
    const int n = points_.size();
    if (n == 0) return giPoint3(giOrigin);
    double sx = 0, sy = 0, sz = 0;
    for (const giPoint3& p : points_) {
        sx += p.x();
        sy += p.y();
        sz += p.z();
    }
    const double k = 1.0 / n;
    return giPoint3(sx * k, sy * k, sz * k);
}

double tsLeastSquareDistance3::range() const {
    giBox3 box;
    for (const giPoint3& p : points_) box.merge(p);
    return box.diagonal();
}

giPoint2 tsLeastSquareDistance2::centroid() const {
    const int n = points_.size();
    if (n == 0) return giPoint2(0.0, 0.0);
    double sx = 0, sy = 0;
    for (const giPoint2& p : points_) {
        sx += p.x();
        sy += p.y();
    }
    const double k = 1.0 / n;
    return giPoint2(sx * k, sy * k);
}

double tsLeastSquareDistance2::range() const {
    giBox2 box;
    for (const giPoint2& p : points_) box.merge(p);
    return box.diagonal();
}
