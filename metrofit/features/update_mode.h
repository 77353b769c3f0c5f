// The update mode of the axial fits (cylinders, cones and their probed
// variants): a caller that has fitted a feature and then added a few points
// asks for a refinement of the previous solution instead of a new search.
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

#include "metrofit/frame/least_square_distance.h"
#include "metrofit/platform/maths/least_squares.h"
#include "metrofit/platform/maths/vector.h"

int tsRefineWithAddedPoints(tsLeastSquareDistance3& model, mlLevenbergMarquardt& solver,
                            const mlVector& previous, int n_added, mlVector& result, double& value);
