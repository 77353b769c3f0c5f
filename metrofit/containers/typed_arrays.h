// The library's typed arrays and shared references in one place.
//
// Dynamic arrays of values (coDynArr: auto-extending indexed writes, growth
// in whole steps, shrink and clear), paged arrays of shared references
// (coPageArr: elements never move while the array grows; get_block,
// repaginate) and shared references (coPrf, with an external form that never
// deletes its object), instantiated for the library's own records. Each
// alias is declared beside its record; this header gathers them.
#pragma once

#include "metrofit/alignment/line_and_point.h"
#include "metrofit/alignment/plane_and_point.h"
#include "metrofit/alignment/rps_data.h"
#include "metrofit/bestfit/fit_points.h"
#include "metrofit/features/fitted_records.h"
