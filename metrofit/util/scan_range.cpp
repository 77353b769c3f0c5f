#include "metrofit/util/scan_range.h"

#include <cmath>

tsScanRange::tsScanRange(double low, double high, double min_step)
    : low_(low),
      high_(high),
      min_step_(min_step),
      step_(high - low),
      next_value_(low + 0.5 * (high - low)) {}

int tsScanRange::next(double& value) {
    if (phase_ == 0) {
        value = low_;
        phase_ = 1;
        return 1;
    }
    if (phase_ == 1) {
        value = high_;
        phase_ = 2;
        return 1;
    }
    if (!(high_ > next_value_) || !(step_ > 0.0)) return 0;
    const double advanced = next_value_ + step_;
    if (!(advanced > next_value_)) return 0;  // the step no longer moves the value
    value = next_value_;
    next_value_ = advanced;
    return 1;
}

int tsScanRange::reduce_step() {
    const double half = 0.5 * step_;
    if (!(half > min_step_) || !(half > 0.0) || !std::isfinite(half)) return 0;
    step_ = half;
    next_value_ = low_ + 0.5 * step_;
    return 1;
}

void tsScanRange::reset_step() {
    if (step_ == high_ - low_) phase_ = 0;
    next_value_ = low_ + 0.5 * step_;
}
