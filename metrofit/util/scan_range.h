// tsScanRange: a one-dimensional scan of [low, high] whose step can be
// halved, for start-value searches that try a parameter over a range and
// then refine around it.
//
// The first scan hands out low, high and the midpoint. After each
// reduce_step() (which halves the step) and reset_step(), a scan hands out
// only the new interior points low + step/2, low + 3 step/2, ... strictly
// below high, so no value is handed out twice across the refinements:
//   (-1, 1), minimum step 0.3:  -1, 1, 0 | -0.5, 0.5 | -0.75, -0.25, 0.25, 0.75
// and a third reduce_step() refuses (0.25 is not above 0.3).
//
// Guards that keep every scan finite: interior values are handed out only
// while the step is positive and still moves the value (a range reversed,
// empty or so far from zero that the step is lost in rounding hands out
// its ends only), and reduce_step() refuses a half step that is 0 or not
// finite.
#pragma once

class tsScanRange {
   public:
    tsScanRange(double low, double high, double min_step);

    // Hands out the next value of the scan: 1 with value written, 0 when
    // the scan is over (value untouched).
    int next(double& value);
    // Halves the step when the half is still above the minimum step (1);
    // otherwise changes nothing (0).
    int reduce_step();
    // Starts the next scan with the current step: the end points again if
    // the step was never reduced, the interior points otherwise.
    void reset_step();

    double low() const { return low_; }
    double high() const { return high_; }
    double step() const { return step_; }
    double min_step() const { return min_step_; }

   private:
    double low_;
    double high_;
    double min_step_;
    double step_;
    double next_value_;
    int phase_ = 0;  // 0: low not yet handed out, 1: high not yet, 2: interior
};
