// Small geometric helpers shared by the fits.
//
// ProjectPointsToPlane takes 3D points into the 2D frame of a plane: the
// frame has the plane point as origin and the plane normal n as its z axis;
// its x axis comes from the reference axis e = (1, 0, 0), or (0, 1, 0) when
// |n.x| > |n.y| (so e is never close to n), made perpendicular to n. Each
// point's first two frame coordinates become its 2D point (the height above
// the plane is dropped). The world-to-frame transform is written to `frame`
// when given, so that 2D results can be mapped back with its inverse.
//
// project_into_plane(points, plane_point, plane_normal, out, to_world): the
// same projection for the in-plane fits, with the plane checked first (a set,
// finite point and normal) and the frame-to-world transform that maps 2D
// results (z = 0) back into space. Returns 0, writing nothing, for a bad
// plane.
//
// get_orthogonal(v, out): a unit vector perpendicular to v, the normalised
// cross product of v with (0, 1, 0) when |v.x| > |v.y|, else with (1, 0, 0).
#pragma once

#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/xform.h"

class tsUtils {
   public:
    static void ProjectPointsToPlane(const giPoint3coDynArr& points, const giPoint3& plane_point,
                                     const giVector3& plane_normal, giPoint2coDynArr& out,
                                     giXform3* frame);
    static int project_into_plane(const giPoint3coDynArr& points, const giPoint3& plane_point,
                                  const giVector3& plane_normal, giPoint2coDynArr& out,
                                  giXform3& to_world);
    static void get_orthogonal(const giVector3& v, giVector3& out);
};
