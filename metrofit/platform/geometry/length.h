// giLength: a non-negative length held in the three-state encoding of the
// vectors' cached length (see vector.h):
//   DBL_MAX (kUnknown): no length;
//   negative: minus the squared length, the square root not yet taken;
//   zero or positive: the length itself.
// A squared length can thus be handed on without a square root, and the root
// is taken at most once: converting to double validates the value (replaces
// a negative state by sqrt of its negation) and returns it. An unknown length
// converts to DBL_MAX, which callers read as "nothing found".
#pragma once

#include <cfloat>
#include <cmath>

class giLength {
   public:
    static constexpr double kUnknown = DBL_MAX;

    giLength() = default;
    // A length given as such; a negative argument is taken as its magnitude.
    explicit giLength(double length) : value_(std::fabs(length)) {}
    // A length known through its square; the root is taken when read.
    static giLength from_squared(double squared) {
        giLength l;
        l.value_ = squared > 0.0 ? -squared : 0.0;
        return l;
    }

    bool is_known() const { return value_ != kUnknown; }
    // The raw three-state value.
    double state() const { return value_; }
    // The squared length without a square root where the state allows it.
    double squared() const {
        if (value_ < 0.0) return -value_;
        return value_ == kUnknown ? kUnknown : value_ * value_;
    }

    double value() const {
        if (value_ < 0.0) value_ = std::sqrt(-value_);
        return value_;
    }
    operator double() const { return value(); }

   private:
    mutable double value_ = kUnknown;
};
