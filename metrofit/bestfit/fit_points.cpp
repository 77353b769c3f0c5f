#include "metrofit/bestfit/fit_points.h"

#include <cfloat>
#include <cmath>

namespace {

template <class P>
int invalid_point(const P& p, int dims) {
    if (p.x() == -DBL_MAX) return 1;
    for (int i = 0; i < dims; ++i)
        if (p[i] == DBL_MAX) return 1;
    return 0;
}

}  // namespace

int tsProjectedPoint3::invalid() const { return invalid_point(measured_point_, 3); }
int tsProjectedPoint2::invalid() const { return invalid_point(measured_point_, 2); }

tsFitPoint3::~tsFitPoint3() = default;
tsFitPoint2::~tsFitPoint2() = default;
tsProbedPoint3::~tsProbedPoint3() = default;
tsFitPointProjector3::~tsFitPointProjector3() = default;
tsProjectorForFitting3::~tsProjectorForFitting3() = default;
tsObjectForFitting::~tsObjectForFitting() = default;

void tsProbedPoint3::initial_projection(tsProjectedPoint3& out,
                                        const tsFitPointProjector3* projector) const {
    project_from_position(giXform3(giIdentity), out, projector);
}

void tsProbedPoint3::project_from_position(const giXform3& xform, tsProjectedPoint3& out,
                                           const tsFitPointProjector3* projector) const {
    const auto* fitting = dynamic_cast<const tsProjectorForFitting3*>(projector);
    if (!fitting) {
        out = tsProjectedPoint3();
        return;
    }
    fitting->rotate_and_project(xform, this, out);
}

void tsFitPointProjector3::project_batch(const std::function<const tsFitPoint3&(int)>& get_point,
                                         const std::function<tsProjectedPoint3&(int)>& get_result,
                                         int count, int initial, const giXform3& xform) const {
    for (int i = 0; i < count; ++i) {
        const tsFitPoint3& point = get_point(i);
        tsProjectedPoint3& result = get_result(i);
        if (initial)
            point.initial_projection(result, this);
        else
            point.project_from_position(xform, result, this);
    }
}

void tsProjectorForFitting3::rotate_and_project(const giXform3&, const tsProbedPoint3*,
                                                tsProjectedPoint3&) const {}

void tsSurfProjectorForFitting3::rotate_and_project(const giXform3& xform,
                                                    const tsProbedPoint3* point,
                                                    tsProjectedPoint3& out) const {
    if (!surface_ || !point || !xform.is_set()) {
        out = tsProjectedPoint3();
        return;
    }
    const giPoint3 p = xform * point->measured_point();
    const giUnitVec3 a = xform * point->approximate_normal();
    const double r = point->radius();

    srkSurfPointList candidates;
    candidates.clear(0);
    int info = 0;
    surface_->project_all(p, candidates, info);

    double best = DBL_MAX;
    giPoint3 centre;
    giUnitVec3 normal;
    const giAngle tolerance(giANGLE_RADIANS, 1e-5);
    for (const srkSurfPoint& s : candidates) {
        const giUnitVec3 ns = surface_->normal_at(s, tolerance);
        giVector3 d = p - s.position;
        giVector3 n;
        double along = 0.0;  // n . d
        if (d.length() < 0.0001) {
            const double side = a.is_set() ? dot(a, ns) : 0.0;
            n = side < 0.0 ? giVector3(-ns) : giVector3(ns);
            along = dot(n, d);
        } else {
            d = d / d.length();
            if (!(cross(ns, d).length() <= 0.01)) continue;
            const double side = a.is_set() ? dot(a, d) : 0.0;
            n = side <= 0.0 ? d * -1.0 : d;
            // n is d or -d: n . d is exactly +1 or -1, so that candidates on
            // the same side tie exactly and the surface's order (nearest
            // first) decides, not the rounding of a unit vector's length.
            along = side <= 0.0 ? -1.0 : 1.0;
        }
        const double score = std::fabs(along - r);
        if (score < best) {
            best = score;
            centre = s.position + n * r;
            normal = giUnitVec3(n);
        }
    }
    if (centre.x() == -DBL_MAX || centre.x() == DBL_MAX || centre.y() == DBL_MAX ||
        centre.z() == DBL_MAX) {
        out = tsProjectedPoint3();
        return;
    }
    out = tsProjectedPoint3(p, centre, normal);
}

tsObjectForFitting* tsObjectForFitting::copy() const { return new tsObjectForFitting(); }

tsProjectorForFitting3coPrf tsObjectForFitting::create_projector() {
    return tsProjectorForFitting3coPrf(new tsProjectorForFitting3());
}

void tsObjectForFitting::transform(const giXform3&) {}

tsObjectForFitting* tsSurfaceForFitting::copy() const {
    return new tsSurfaceForFitting(surface_ ? surface_->clone() : srkSurfPtr());
}

tsProjectorForFitting3coPrf tsSurfaceForFitting::create_projector() {
    return tsProjectorForFitting3coPrf(new tsSurfProjectorForFitting3(surface_.get()));
}

void tsSurfaceForFitting::transform(const giXform3& xform) { srkSurf::transform(surface_, xform); }
