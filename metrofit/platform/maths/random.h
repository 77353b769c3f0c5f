// mlRandom: the fixed-seed random source of every randomised fit.
//
// A 32-bit linear congruential generator. One draw advances the state
//   state = state * 214013 + 2531011   (modulo 2^32)
// and yields the integer (state >> 16) & 0x7fff, in 0 .. 32767. A uniform
// double in [lo, hi] is draw / 32767.0 * (hi - lo) + lo, so both ends occur.
// The state is held unsigned so that the wrap-around is defined; read as a
// signed 32-bit integer it is the same bit pattern, and the 15 bits drawn are
// the same whichever way the shift is read, because the mask drops the sign.
//
// Fits seed a fresh generator on every call (seed 1 unless stated), so equal
// inputs give bit-identical results.
#pragma once

#include <cstdint>

class mlRandom {
   public:
    explicit mlRandom(int seed = 1) : state_(static_cast<std::uint32_t>(seed)) {}

    // Advances the state and returns the next integer in 0 .. 32767.
    int draw() {
        state_ = state_ * 214013u + 2531011u;
        return static_cast<int>((state_ >> 16) & 0x7fffu);
    }
    // Next draw scaled to [0, 1].
    double unit() { return draw() / 32767.0; }
    // Next draw scaled to [lo, hi].
    double uniform(double lo, double hi) { return draw() / 32767.0 * (hi - lo) + lo; }

    // The 32-bit state as a signed integer (two's complement), and its reset.
    std::int32_t state() const { return static_cast<std::int32_t>(state_); }
    void set_state(std::int32_t s) { state_ = static_cast<std::uint32_t>(s); }

   private:
    std::uint32_t state_;
};
