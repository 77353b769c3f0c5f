// Brent's minimum search in one variable.
//
// ml_brent_minimum_search(f, a, b, c, tol, max_iterations, x_min) searches a
// minimum of f on the bracket (a, b, c): b lies between a and c (either
// order), and f(b) is expected below f(a) and f(c). It combines golden-section
// steps with parabolic interpolation through the three best points and stops
// when the bracket around the best point is within 2 tol (|x| + 1e-10) or
// after max_iterations iterations (one evaluation each). The search never
// leaves [min(a, c), max(a, c)]. A tol below sqrt(DBL_EPSILON), the finest
// resolution of a smooth minimum, or not a number, is raised to it.
//
// Returns the smallest value met and writes its abscissa to *x_min (when not
// null). The ends a and c are evaluated too, so the result is never worse
// than f(a), f(b) or f(c): when f(b) is not below both ends the best of the
// three is still returned, and a caller whose fallback is a bracket point
// (the line search presets *x_min to its end 0) never gets a worse one. A
// NaN value counts as +infinity; ties keep the point met first (b, a, c, then
// the iterates). A bracket whose b does not lie between a and c, a non-finite
// a, b or c, or max_iterations < 0 returns f(b) with *x_min = b (f is then
// called once). Every call of f is counted: max_iterations + 3 evaluations at
// most.
#pragma once

#include "metrofit/platform/maths/function.h"

double ml_brent_minimum_search(const mlFunction& f, double a, double b, double c, double tol,
                               int max_iterations, double* x_min);
