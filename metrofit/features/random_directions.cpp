#include "metrofit/features/random_directions.h"

#include <cfloat>
#include <cmath>
#include <limits>

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"
#include "metrofit/platform/geometry/xform.h"

namespace {

// Bound on the rejection loops. rand_vec rejects a pair with probability
// 1 - pi/4, so this many rejections in a row never happen with a generator
// of period 2^32; the bound only keeps every loop finite.
constexpr int kMaxTries = 1000;
// Draws closer than this (as the sine of the angle) to the centre give no
// usable rotation axis.
constexpr double kMinAxisLength = 1e-5;

// Area share of a union of caps, counted as disjoint: the cap area
// (1 - cos A) / 2 per unit of the sphere, times the number of caps. Sets
// the ratio of the rest of the sphere to the caps and the caps' fraction of
// the sphere; caps of no area get an infinite ratio (without dividing by
// zero) and a fraction of 0.
void region_share(const giAngle& angle, double n_caps, double& ratio, double& fraction) {
    const double share = (1.0 - angle.cos()) * n_caps;
    if (share > 0.0) {
        ratio = 2.0 / share - 1.0;
        fraction = share / 2.0;
    } else {
        ratio = std::numeric_limits<double>::infinity();
        fraction = 0.0;
    }
}

}  // namespace

tsRandDirGenerator::tsRandDirGenerator()
    : invalid_(1),
      bias_(-DBL_MAX),
      ratio_(-DBL_MAX),
      fraction_(-DBL_MAX),
      decay_(-DBL_MAX),
      random_(1) {}

tsRandDirGenerator::tsRandDirGenerator(double bias, const giUnitVec3& centre, const giAngle& angle,
                                       double decay)
    : invalid_(0), bias_(bias), centre_(centre), angle_(angle), decay_(decay), random_(1) {
    region_share(angle_, 1.0, ratio_, fraction_);
}

int tsRandDirGenerator::invalid() const { return invalid_ != 0; }

giUnitVec3 tsRandDirGenerator::direction() {
    const double p = probability_bias_region_only();
    const double r = random_.unit();
    const giUnitVec3 u = (p > r) ? rand_vec_bias_region() : rand_vec();
    update_bias();
    return u;
}

giUnitVec3 tsRandDirGenerator::rand_vec() {
    for (int tries = 0; tries < kMaxTries; ++tries) {
        const double a = 2.0 * random_.unit() - 1.0;
        const double b = 2.0 * random_.unit() - 1.0;
        const double q = a * a + b * b;
        if (q < 1.0) {
            // The point (a, b) of the unit disc mapped onto the sphere, area
            // for area.
            const double s = 2.0 * std::sqrt(1.0 - q);
            return giUnitVec3(a * s, b * s, 2.0 * q - 1.0);
        }
    }
    return giUnitVec3(0.0, 0.0, -1.0);
}

giUnitVec3 tsRandDirGenerator::rand_vec_bias_region() {
    if (!centre_.is_set()) return rand_vec();
    for (int tries = 0; tries < kMaxTries; ++tries) {
        const giVector3 k = cross(centre_, rand_vec());
        if (!(k.length() >= kMinAxisLength)) continue;
        // cos t uniform in [cos A, 1] makes the result uniform in area over
        // the cap; turning about k = centre x w tilts the centre towards w.
        const double cos_a = angle_.cos();
        const double cos_t = random_.unit() * (1.0 - cos_a) + cos_a;
        const giXform3 turn =
            giXform3::rotation(giPoint3(giOrigin), k, giAngle(giAngleCosine, cos_t));
        return turn * centre_;
    }
    return centre_;
}

double tsRandDirGenerator::probability_bias_region_only() const {
    // (b / (b + ratio) - fraction) / (1 - fraction) with ratio = 1 / fraction
    // - 1 (as both constructors set them) reduces to (b - 1) / (b + ratio).
    // This form is exactly 0 at b = 1, where the long one leaves rounding
    // residue of either sign, and has no 0 / 0 when the caps cover the sphere.
    const double weight = bias_ + ratio_;
    if (weight == 0.0) return 0.0;
    return (bias_ - 1.0) / weight;
}

void tsRandDirGenerator::update_bias() { bias_ = (bias_ - 1.0) * decay_ + 1.0; }

tsRandDirGenMulti::tsRandDirGenMulti() : n_directions_(0), next_(0) {}

tsRandDirGenMulti::tsRandDirGenMulti(double bias, const giUnitVec3coDynArr& centres,
                                     const giAngle& angle, double decay)
    // The base centre is replaced before every draw from a cap.
    : tsRandDirGenerator(bias, giUnitVec3(giZAxis), angle, decay),
      directions_(centres),
      n_directions_(centres.size()),
      next_(0) {
    region_share(angle_, n_directions_, ratio_, fraction_);
}

int tsRandDirGenMulti::invalid() const { return invalid_ != 0; }

giUnitVec3 tsRandDirGenMulti::direction() {
    if (next_ < n_directions_) return directions_[next_++];
    return tsRandDirGenerator::direction();
}

giUnitVec3 tsRandDirGenMulti::rand_vec_bias_region() {
    if (n_directions_ == 0) return rand_vec();
    centre_ = directions_[random_.draw() % n_directions_];
    return tsRandDirGenerator::rand_vec_bias_region();
}
