#include "metrofit/util/vector_gradient.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kPi = 3.14159265358979323846;

// Directions on a ring of polar angle theta spaced about one spot diameter
// apart: the ring's circumference (2 pi sin theta) over the spot diameter,
// measured as the azimuth a spot subtends, pi / atan2(spot, sin theta).
// Signs are dropped (a negative angle gives the mirrored grid). A ring that
// has collapsed onto the centre holds the one direction there.
int ring_count(double spot_radius, double sin_theta) {
    const double subtended = std::atan2(std::fabs(spot_radius), std::fabs(sin_theta));
    if (!(subtended > 0.0)) return 1;
    const double count = std::ceil(kPi / subtended);
    if (!(count < tsVectorGradient::kMaxRingCount)) return tsVectorGradient::kMaxRingCount;
    return std::max(1, static_cast<int>(count));
}

}  // namespace

tsVectorGradient::tsVectorGradient(const giVector3& centre, double angle, int rings)
    : centre_(centre),
      angle_(std::isfinite(angle) ? angle : 0.0),
      n_rings_(std::clamp(rings, 0, kMaxRings)) {
    w_ = giUnitVec3(centre);
    if (!w_.is_set()) w_ = giUnitVec3(giZAxis);
    const giVector3 e =
        std::fabs(w_.x()) > std::fabs(w_.y()) ? giVector3(0, 1, 0) : giVector3(1, 0, 0);
    u_ = giUnitVec3(cross(e, w_));
    v_ = giUnitVec3(cross(w_, u_));

    rings_.reserve(n_rings_);
    const double s = step_angle(), spot = spot_radius();
    for (int i = 0; i < n_rings_; ++i) {
        tsVectorGradientRing& r = rings_[i];
        r.theta = i == 0 ? 0.0 : i * s;
        r.sin_theta = std::sin(r.theta);
        r.count = i == 0 ? 1 : ring_count(spot, r.sin_theta);
    }
}

double tsVectorGradient::step_angle() const { return angle_ / (2.0 * (n_rings_ - 1)); }

double tsVectorGradient::spot_radius() const { return std::tan(step_angle() * 0.5); }

int tsVectorGradient::total_steps() const {
    int total = 0;
    for (int i = 0; i < n_rings_; ++i) total += rings_[i].count;
    return total;
}

tsVectorGradientIterator tsVectorGradient::iterator() const {
    return tsVectorGradientIterator(*this);
}

const tsVectorGradientRing& tsVectorGradientIterator::ring() const {
    static const tsVectorGradientRing kNoRing;
    if (gradient_->rings() == 0) return kNoRing;
    return gradient_->ring(std::max(ring_, 0));
}

int tsVectorGradientIterator::operator++(int) {
    const tsVectorGradient& g = *gradient_;
    if (g.rings() == 0) return 0;
    if (ring_ < 0) {
        ring_ = 0;
        index_ = 0;
        step_ = 0;
    } else {
        int next_ring = ring_, next_index = index_ + 1;
        if (next_index >= g.ring(ring_).count) {
            next_ring = ring_ + 1;
            next_index = 0;
        }
        if (next_ring >= g.rings()) return 0;  // exhausted: state and direction stay
        ring_ = next_ring;
        index_ = next_index;
        ++step_;
    }
    const tsVectorGradientRing& r = g.ring(ring_);
    phi_ = (index_ + 1) * 2.0 * kPi / r.count;
    const double a = std::sin(phi_) * r.sin_theta, b = std::cos(phi_) * r.sin_theta,
                 c = std::cos(r.theta);
    const giUnitVec3 &u = g.u(), &v = g.v(), &w = g.w();
    direction_ = giVector3(a * u.x() + b * v.x() + c * w.x(), a * u.y() + b * v.y() + c * w.y(),
                           a * u.z() + b * v.z() + c * w.z());
    return 1;
}
