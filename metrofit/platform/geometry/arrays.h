// Arrays of geometry values: growable ones (the coDynArr family; see
// dyn_arr.h for growth and copy rules) and the paged point array, whose
// points keep their addresses while it grows (page_arr.h).
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"

using giPoint2coDynArr = coDynArr<giPoint2>;
using giPoint3coDynArr = coDynArr<giPoint3>;
using giVector2coDynArr = coDynArr<giVector2>;
using giVector3coDynArr = coDynArr<giVector3>;
using giUnitVec2coDynArr = coDynArr<giUnitVec2>;
using giUnitVec3coDynArr = coDynArr<giUnitVec3>;

using giPoint3coPageArr = coPageArr<giPoint3>;
