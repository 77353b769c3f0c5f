// srkSurf: the surface kernel's surfaces, as the bestfit projects onto them.
//
// A surface answers three questions about a point p of space:
// - project_all(p, out, info): every local foot point of p, that is every
//   point s of the surface where p - s lies along the surface normal (or p
//   lies on the surface) and which the surface counts as a foot point (see
//   each surface for its rule; analytic surfaces give all of them, up to
//   four on a torus). The foot points are appended to `out` in the
//   surface's order, nearest first; `info` receives their number (callers
//   may ignore it). Returns the number of foot points (0 when there is
//   none, for a non-finite p, or for a degenerate surface).
// - normal_at(s, tolerance): the unit normal at a foot point, with the
//   surface's own orientation (outward for closed surfaces, the given
//   normal for a plane, the facet's winding for a mesh). The tolerance is
//   the angle within which the surface may treat nearby normals as one
//   (at an edge of a mesh, for example); analytic surfaces ignore it.
// - clone(): a deep copy behind a new handle.
// srkSurf::transform(handle, X) moves the surface in place by a rigid motion
// X (a uniform scale is accepted too: analytic sizes scale by the cube root
// of det X); it returns 0, leaving the surface as it was, for a null handle,
// an unset or non-finite transform, or one whose linear part A is not a
// proper rotation times a uniform scale s > 0 (A A^T = s^2 I to 1e-9
// relative and det A > 0), and when the surface itself refuses the move.
//
// srkSurfPoint carries the foot point's position and what the surface needs
// to evaluate there again: two surface parameters and, on a mesh, the index
// of the facet (-1 elsewhere).
#pragma once

#include <memory>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/xform.h"

struct srkSurfPoint {
    giPoint3 position;
    double u = 0.0;
    double v = 0.0;
    int facet = -1;

    srkSurfPoint() = default;
    srkSurfPoint(const giPoint3& p, double u_ = 0.0, double v_ = 0.0, int facet_ = -1)
        : position(p), u(u_), v(v_), facet(facet_) {}
};

using srkSurfPointcoDynArr = coDynArr<srkSurfPoint>;
using srkSurfPointList = srkSurfPointcoDynArr;

class srkSurf;
using srkSurfPtr = std::shared_ptr<srkSurf>;

class srkSurf {
   public:
    virtual ~srkSurf();

    virtual int project_all(const giPoint3& p, srkSurfPointList& out, int& info) const = 0;
    virtual giUnitVec3 normal_at(const srkSurfPoint& s, const giAngle& tolerance) const = 0;
    virtual srkSurfPtr clone() const = 0;

    static int transform(srkSurfPtr& surface, const giXform3& xform);

   protected:
    // Moves this surface by X (checked: set, rigid or uniformly scaled).
    virtual int transform_in_place(const giXform3& xform) = 0;
};
