// Derivative of a unit vector u = w / |w| from the derivative of w.
//
// srkUnitVectorDifferentiator3(w) keeps |w| and u. first_derivative(dw, out)
// gives the first-order change of u when w changes by dw:
//     out = (dw - u (u . dw)) / |w|,
// the part of dw across u divided by |w|: stretching w along itself does not
// turn u, and the same change turns a short w further than a long one. The
// map dw -> out is symmetric (a projection across u, scaled), so
// a . first_derivative(b) == first_derivative(a) . b up to rounding.
//
// A w without a direction (the zero vector, an unset vector, a non-finite
// coordinate, or a length so small that 1 / |w| overflows) has length() 0
// and a zero unit(), and first_derivative gives the zero vector for every dw:
// the caller decides what a vanishing w means (the axis-of-revolution model
// drops such a point before it gets here). Huge and tiny but finite w are
// measured with the vector's scaled length, so they keep their direction.
//
// Both operations run once per point and solver pass in the models, so the
// common case (a w whose squared length neither overflows nor underflows)
// is inline; the rest is measured out of line.
#pragma once

#include <cfloat>

#include "metrofit/platform/geometry/vector.h"

class srkUnitVectorDifferentiator3 {
   public:
    explicit srkUnitVectorDifferentiator3(const giVector3& w) {
        // w.length() reuses a length the caller has already asked for.
        const double sq = w.length_squared();
        if (sq >= DBL_MIN && sq <= DBL_MAX) {
            set(w, w.length());
        } else {
            set_unusual(w);
        }
    }

    // |w|, or 0 when w has no direction.
    double length() const { return length_; }
    // w / |w|, or the zero vector when w has no direction.
    const giVector3& unit() const { return unit_; }

    void first_derivative(const giVector3& dw, giVector3& out) const {
        // The part of dw across u, scaled by 1 / |w|; for a w without a
        // direction u and 1 / |w| are both 0.
        const double along = dot(unit_, dw);
        out.become((dw.x() - along * unit_.x()) * inv_length_,
                   (dw.y() - along * unit_.y()) * inv_length_,
                   (dw.z() - along * unit_.z()) * inv_length_);
    }

   private:
    void set(const giVector3& w, double length) {
        length_ = length;
        inv_length_ = 1.0 / length;
        unit_.become(w.x() * inv_length_, w.y() * inv_length_, w.z() * inv_length_);
    }
    // Zero, unset, non-finite, huge or tiny w.
    void set_unusual(const giVector3& w);

    double length_ = 0.0;
    double inv_length_ = 0.0;
    giVector3 unit_{0.0, 0.0, 0.0};
};
