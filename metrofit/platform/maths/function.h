// Objective functions of the maths service's minimisers.
//
// mlFunction: a function of one variable, minimised by
// ml_brent_minimum_search. function_derivative(order, x) gives the value
// (order 0), first or second derivative (orders 1 and 2); the base computes
// the derivatives by central differences of function() with a step scaled to
// max(|x|, 1) (eps^(1/3) of it for the first derivative, eps^(1/4) for the
// second: about 1e-10 and 1e-7 relative accuracy on smooth functions), so a
// derived class overrides it only when it has exact derivatives. Orders
// outside 0..2 give 0.
//
// mlFunctionN1: a function of n variables, minimised by mlDownHillSimplex.
// Virtual operations, in this order: function, gradient, hessian,
// destructor. function() may keep state of its last evaluation (the
// alignment objectives do: their transform is read back after the search),
// so it is not const. The base gradient and hessian are central differences
// of function() (gradient: 2n evaluations, steps eps^(1/3) max(|x_i|, 1);
// hessian: central differences of gradient(), which may be overridden, with
// steps eps^(1/4) max(|x_i|, 1), symmetrised; 4 n^2 evaluations with the base
// gradient). The evaluations leave function()'s state at the last point
// evaluated, not at x.
#pragma once

#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/slice.h"
#include "metrofit/platform/maths/vector.h"

class mlFunction {
   public:
    virtual double function(double x) const = 0;
    virtual double function_derivative(int order, double x) const;
    virtual ~mlFunction();
};

class mlFunctionN1 {
   public:
    virtual double function(const mlSlice& x) = 0;
    // g becomes the gradient at x (size x.size()).
    virtual void gradient(const mlSlice& x, mlVector& g);
    // h becomes the n x n Hessian at x.
    virtual void hessian(const mlSlice& x, mlMatrix& h);
    virtual ~mlFunctionN1();
};
