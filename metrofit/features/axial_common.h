// What the axial fits (cylinders, cones and their probed variants) share.
//
// tsAxialBest: a best result of a search, its solver value (initially
//   DBL_MAX) and parameters; offer() keeps a strictly smaller value.
//
// ts_normals_fit_points(points, normals): normals are empty, or one set,
//   finite vector per point (the normals tests match them by index).
// ts_radii_fit_points(points, radii): one finite probe radius per point.
//
// ts_unit_axis(p): the axis p[3..5] of a parameter vector made a unit vector
//   in place (a zero axis becomes (1, 0, 0)).
// ts_axis_point_to_origin(p): with a unit axis, moves the axis point p[0..2]
//   along the axis to the point nearest the origin; returns the distance t
//   it moved against the axis (every G = u.(Q - p) grows by t).
//
// ts_directions_agree(normals, n_points, angle, direction): the surface
//   directions direction(i) (of the model at point i) all lie within `angle`
//   of the measured normals, or all of the reversed normals (a bore, a
//   countersink); a zero direction never agrees.
//
// The update mode: a caller that has fitted a feature and then added a few
// points asks for a refinement of the previous solution instead of a new
// search.
//
// tsRefineWithAddedPoints(model, previous, n_added, result, value): the
// points of the model are the old ones followed by n_added new ones.
// - With n_added > 0 the new points must lie close to the previous feature:
//   their largest |distance| below max(10 e, 0.001 R), where R is the
//   points' range and e the largest |distance| of the old points when there
//   are more than 20 points in all, else the 90% quantile of the old ones
//   (sorted ascending, index trunc((m - 1) 0.9) of m). Then one solver run
//   from the previous parameters, and afterwards every |distance| must stay
//   below max(1.1 e_max, 1e-6 R), e_max the largest old |distance| before.
// - With n_added < 0 both tests are skipped: the previous feature is refined
//   unconditionally.
// Returns 1 with the solver's parameters in result and its value (the mean
// squared distance) in value; 0 when a test fails or the solver refuses the
// start, which sends the caller to its full search. The model's current
// parameters are changed either way. The caller checks that there are at
// least n_added + 1 old points.
#pragma once

#include <cfloat>
#include <cmath>

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/vector.h"

int tsRefineWithAddedPoints(tsLeastSquareDistance3& model, mlLevenbergMarquardt& solver,
                            const mlVector& previous, int n_added, mlVector& result, double& value);

class tsAxialBest {
   public:
    double value = DBL_MAX;
    mlVector p;

    void offer(double v, const mlVector& q) {
        if (v < value) {
            value = v;
            p = q;
        }
    }
};

bool ts_normals_fit_points(const giPoint3coDynArr& points, const giUnitVec3coDynArr& normals);
bool ts_radii_fit_points(const giPoint3coDynArr& points, const doublecoDynArr& radii);

void ts_unit_axis(mlVector& p);
double ts_axis_point_to_origin(mlVector& p);

template <class Direction>
bool ts_directions_agree(const giUnitVec3coDynArr& normals, int n_points, const giAngle& angle,
                         Direction direction) {
    const double limit = angle.radians();
    const int n = normals.size() < n_points ? normals.size() : n_points;
    for (const double sense : {1.0, -1.0}) {
        bool all_within = true;
        for (int i = 0; i < n && all_within; ++i) {
            const giVector3 d = sense * direction(i);
            const giVector3 across = cross(d, normals[i]);
            all_within = dot(d, d) > 0.0 &&
                         std::atan2(std::sqrt(dot(across, across)), dot(d, normals[i])) <= limit;
        }
        if (all_within) return true;
    }
    return false;
}
