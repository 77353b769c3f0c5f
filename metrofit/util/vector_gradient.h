// A fixed grid of unit directions covering a cone around a centre direction,
// ring by ring, for searches that try evenly spread trial axes near a rough
// axis.
//
// tsVectorGradient(centre d, angle a, N rings):
// - w = unit(d); the reference axis is e = (1, 0, 0), or (0, 1, 0) when
//   |d.x| > |d.y| (so e is never close to d); u = unit(e x w), v = w x u.
//   A centre without a direction (zero, unset or non-finite) is taken as
//   the z axis (0, 0, 1), so the grid still holds unit directions.
// - a is the FULL opening of the cone: the step between rings is
//   s = a / (2 (N - 1)) and ring i lies at the polar angle theta_i = i s, so
//   the outermost ring is at a / 2.
// - Ring 0 is the centre itself (one direction); ring i > 0 holds
//   ceil(pi / atan2(spot_radius, sin theta_i)) directions, which puts
//   neighbours on a ring about one spot diameter (2 tan(s / 2)) apart. A
//   ring that has collapsed onto the centre (theta_i = 0, or a zero
//   angle) holds one direction. A non-finite angle is taken as 0.
// - With N = 1 step_angle() divides by zero (callers pass N >= 2); the grid
//   then holds the centre alone. N <= 0 gives an empty grid. N is capped at
//   kMaxRings and a ring's count at kMaxRingCount, so total_steps() and
//   every walk stay bounded and within int.
//
// tsVectorGradientIterator walks the grid: each operator++(int) moves to
// the next direction and returns 1, or returns 0 when the grid is exhausted
// and leaves the last direction in place. On ring i the directions lie at
// the azimuths phi = k 2 pi / count, k = 1 .. count, measured in the (u, v)
// plane:  dir = sin(phi) sin(theta) u + cos(phi) sin(theta) v + cos(theta) w.
// The iterator refers to its grid (no copy): the grid must outlive it.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/unit_vec.h"
#include "metrofit/platform/geometry/vector.h"

// One ring of the grid: its polar angle from the centre, the sine of that
// angle, and the number of directions on it.
class tsVectorGradientRing {
   public:
    tsVectorGradientRing() = default;

    double theta = 0.0;
    double sin_theta = 0.0;
    int count = 0;
};

class tsVectorGradientIterator;

class tsVectorGradient {
   public:
    static constexpr int kMaxRings = 10000;
    static constexpr int kMaxRingCount = 100000;

    tsVectorGradient(const giVector3& centre, double angle, int rings);
    virtual ~tsVectorGradient() = default;

    // Half the angle between neighbouring rings' polar angles: a / (2 (N - 1)).
    double step_angle() const;
    // tan(step_angle() / 2): the radius of the spot one direction covers on
    // the unit sphere's tangent plane.
    double spot_radius() const;
    int rings() const { return n_rings_; }
    // Number of directions of the grid; ring 0 counts 1.
    int total_steps() const;
    // An iterator positioned before the first direction.
    tsVectorGradientIterator iterator() const;

    const tsVectorGradientRing& ring(int i) const { return rings_[i]; }
    const giVector3& centre() const { return centre_; }
    const giUnitVec3& u() const { return u_; }
    const giUnitVec3& v() const { return v_; }
    const giUnitVec3& w() const { return w_; }
    double angle() const { return angle_; }

   private:
    giVector3 centre_;
    giUnitVec3 u_, v_, w_;
    double angle_ = 0.0;
    int n_rings_ = 0;
    coDynArr<tsVectorGradientRing> rings_;
};

class tsVectorGradientIterator {
   public:
    explicit tsVectorGradientIterator(const tsVectorGradient& gradient) : gradient_(&gradient) {}

    // Advances to the next direction: 1 while one is available, 0 when the
    // grid is exhausted (the current direction is then left as it was).
    int operator++(int);

    // The current direction (unit length); unset before the first step.
    const giVector3& vector() const { return direction_; }
    // The ring of the current direction (ring 0 before the first step; a
    // default ring for an empty grid).
    const tsVectorGradientRing& ring() const;

    double azimuth() const { return phi_; }
    int ring_index() const { return ring_; }
    int index_on_ring() const { return index_; }
    // 0 at the first direction, counting up by one per direction.
    int step_number() const { return step_; }

   private:
    double phi_ = 0.0;
    giVector3 direction_;
    const tsVectorGradient* gradient_;
    int ring_ = -1;
    int index_ = 0;
    int step_ = 0;
};
