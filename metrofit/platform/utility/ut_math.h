// Two scalar helpers that every fit leans on.
//
// utMath::acos accepts cosines that rounding has pushed slightly beyond +-1
// (a dot product of two unit vectors can be 1 + 2e-16) and clamps them into
// [-1, 1]; a NaN argument stays NaN, so callers still see bad input.
// utMath::remd(x, y) is the floating remainder x - n*y with n = trunc(x / y),
// carrying the sign of x (as fmod); y == 0 gives NaN.
#pragma once

#include <cmath>

struct utMath {
    static double acos(double x) {
        if (x >= 1.0) return 0.0;
        if (x <= -1.0) return 3.14159265358979323846;
        return std::acos(x);  // NaN passes through
    }
    static double remd(double x, double y) { return std::fmod(x, y); }
};
