// Seeded random numbers for test data. std::mt19937_64's output is fixed by
// the standard; the normal transform is written here (Box-Muller) because the
// standard library's distributions differ between toolchains.
#pragma once

#include <cmath>
#include <cstdint>
#include <random>

namespace testsupport {

class Rng {
   public:
    explicit Rng(std::uint64_t seed = 12345) : engine_(seed) {}

    // Uniform in [lo, hi).
    double uniform(double lo = 0.0, double hi = 1.0) {
        const double u = static_cast<double>(engine_() >> 11) * 0x1.0p-53;
        return lo + (hi - lo) * u;
    }
    // Standard normal times sigma.
    double normal(double sigma = 1.0) {
        if (has_spare_) {
            has_spare_ = false;
            return sigma * spare_;
        }
        double u1 = 0.0;
        while (u1 <= 0.0) u1 = uniform();
        const double u2 = uniform();
        const double r = std::sqrt(-2.0 * std::log(u1));
        spare_ = r * std::sin(2.0 * kPi * u2);
        has_spare_ = true;
        return sigma * r * std::cos(2.0 * kPi * u2);
    }
    int integer(int lo, int hi) {  // inclusive range
        return lo + static_cast<int>(uniform() * (hi - lo + 1));
    }

    static constexpr double kPi = 3.14159265358979323846;

   private:
    std::mt19937_64 engine_;
    double spare_ = 0.0;
    bool has_spare_ = false;
};

}  // namespace testsupport
