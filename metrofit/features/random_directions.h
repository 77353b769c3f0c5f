// Random axis directions with a decaying preference for expected ones.
//
// tsRandDirGenerator draws unit vectors either uniformly over the sphere or
// uniformly (in area) within the bias region, the spherical cap of half
// angle A around a centre direction. The region is weighted b times as
// densely as the rest of the sphere, b being the current bias:
//   ratio    = 2 / (1 - cos A) - 1   area of the rest of the sphere / area of the cap
//   fraction = (1 - cos A) / 2       area of the cap / area of the sphere
//   p        = (b / (b + ratio) - fraction) / (1 - fraction)
// p is the probability of a direct draw from the cap: a uniform draw lands in
// it with probability fraction already, so only the excess is drawn there.
// Since ratio = 1 / fraction - 1, p = (b - 1) / (b + ratio), the form used:
// it is exactly 0 at b = 1.
// After every direction() the excess bias decays: b = (b - 1) * decay + 1, so
// the stream tends to the uniform one. A cap of zero area (A = 0) has an
// infinite ratio and p = 0.
//
// Randomness: one mlRandom per generator, seeded with 1 on construction, so
// equal arguments give identical streams. r = draw() / 32767.0.
// - rand_vec(): a = 2r - 1, b = 2r - 1 (two draws) until q = a^2 + b^2 < 1;
//   then (2a sqrt(1 - q), 2b sqrt(1 - q), 2q - 1), uniform over the sphere.
// - rand_vec_bias_region(): w = rand_vec() until k = centre x w has length
//   at least 1e-5; then one draw gives cos t = r (1 - cos A) + cos A, uniform
//   in [cos A, 1]; the centre is rotated about k by t, i.e. tilted towards w.
//   A generator without a centre (default-constructed) returns rand_vec().
// - direction(): p as above, then one draw r; p > r takes
//   rand_vec_bias_region() (the virtual one), otherwise rand_vec(); then the
//   bias decays.
//
// tsRandDirGenMulti spreads the bias over n given directions, treating their
// n caps as disjoint: ratio = 2 / ((1 - cos A) n) - 1, fraction =
// (1 - cos A) n / 2. Its first n direction() calls return the given
// directions in order (no draw, no decay); after that the base stream runs.
// Its rand_vec_bias_region() draws an index (draw() mod n), centres the cap
// on that given direction and draws from the cap. With no given directions
// the ratio is infinite and the fraction 0, so p = 0 and the stream is
// uniform; rand_vec_bias_region() then has no cap to draw from and returns
// rand_vec() without drawing an index.
//
// The rejection loops stop after a fixed number of tries, which the
// generator's period makes unreachable in practice; rand_vec() then returns
// (0, 0, -1) and rand_vec_bias_region() the centre.
#pragma once

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/maths/random.h"

class tsRandDirGenerator {
   public:
    // Invalid generator: bias, ratio, fraction and decay -DBL_MAX.
    tsRandDirGenerator();
    tsRandDirGenerator(double bias, const giUnitVec3& centre, const giAngle& angle, double decay);

    // Non-zero for a default-constructed generator.
    virtual int invalid() const;
    // The next direction of the biased stream.
    virtual giUnitVec3 direction();
    // A direction uniform over the whole sphere.
    giUnitVec3 rand_vec();
    // A direction uniform over the bias region.
    virtual giUnitVec3 rand_vec_bias_region();
    virtual ~tsRandDirGenerator() = default;

   protected:
    double probability_bias_region_only() const;
    void update_bias();

    int invalid_;
    double bias_;
    giUnitVec3 centre_;
    giAngle angle_;
    double ratio_;
    double fraction_;
    double decay_;
    mlRandom random_;
};

class tsRandDirGenMulti : public tsRandDirGenerator {
   public:
    tsRandDirGenMulti();
    tsRandDirGenMulti(double bias, const giUnitVec3coDynArr& centres, const giAngle& angle,
                      double decay);

    int invalid() const override;
    // The given directions first, then the biased stream.
    giUnitVec3 direction() override;
    // A direction uniform over the cap around one given direction, chosen at
    // random.
    giUnitVec3 rand_vec_bias_region() override;

   private:
    giUnitVec3coDynArr directions_;
    int n_directions_;
    int next_;
};
