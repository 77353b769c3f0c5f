// tsRPSData: a positioning entry taken out of a points-to-planes object,
// with the point kept beside it (the entry's first measured point), so that
// it can be put back as it was.
#pragma once

#include "metrofit/alignment/plane_and_point.h"
#include "metrofit/platform/containers/dyn_arr.h"

struct tsRPSData {
    tsPlaneAndPoint entry;
    giPoint3 point;

    tsRPSData() = default;
    tsRPSData(const tsPlaneAndPoint& e, const giPoint3& p) : entry(e), point(p) {}
};

using tsRPSDatacoDynArr = coDynArr<tsRPSData>;
