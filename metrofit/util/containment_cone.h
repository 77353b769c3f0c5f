// tsContainmentCone: the narrowest circular cone with its apex at the origin
// that contains a set of unit vectors, as an axis (a unit vector) and a
// half-angle. The spherical counterpart of the smallest enclosing circle:
// the cone is fixed by at most three of the vectors on its boundary (the
// support). It exists only while the vectors fit in an open hemisphere.
//
// Members: `directions`, a private copy of the input that solve() reorders;
// `support_count` (1 .. 3) and `support`, the indices into `directions` of
// the vectors on the boundary; `valid`, 1 while a cone exists, cleared by a
// construction that finds none.
//
// Constructions (angles are unsigned, atan2(|a x b|, a.b), accurate also for
// nearly equal vectors):
//   exact_cone1(a):       axis a, angle 0.
//   exact_cone2(a, b):    axis unit(a + b), angle from a to it; a + b with
//                         squared length <= 1e-14 (opposite vectors) fails.
//   exact_cone3(a, b, c): the cone whose boundary passes through all three:
//                         axis = unit(u x w), u = unit(b - a), w = unit(c - a),
//                         turned to the side of a; the axis is first set to
//                         (0, 0, 1). Fails when |b - a| or |c - a| <= 1e-7,
//                         |u x w| <= 1e-7 (on one great circle), or the
//                         angle reaches within 1e-7 of pi/2.
//   A failing construction clears `valid` and returns 0.
//   inside_cone(v, axis, angle, excess): excess = angle(v, axis) - angle;
//                         true when excess <= 0 (no tolerance).
//   in_support(i):        directions[i] lies within squared distance 1e-5 of
//                         a support vector (a near-duplicate, taken as on the
//                         boundary already); false for an empty support.
//
// Support updates. update_support(i, axis, angle) sets angle to 2 pi and,
// with d = directions[i] outside the current cone, writes the narrowest cone
// that contains the support vectors and d, with d on its boundary, and the
// support that fixes it. That cone is the narrowest containing support + d:
// since d lies outside the narrowest cone of the support, every narrower
// cone containing them all would have to miss d. Containment inside an
// update allows kBoundary (1e-10 rad) for rounding, so that a vector lying
// on a candidate's boundary in exact arithmetic is not pushed to a wider one.
//   update_support1: the pair cone of the support vector and d.
//   update_support2 (support a, b): the pair cones (a, d) then (b, d), each
//     taken when it contains the other old vector; of two that qualify the
//     narrower, the first on equal angles (fewer changes to the support). If
//     neither does, the cone through a, b and d, which becomes the third
//     support vector. A failing pair cone (d opposite a or b) fails the step;
//     a failing three-vector cone fails it too (the three reach a hemisphere).
//   update_support3 (support a, b, c): the pair cones (a, d), (b, d), (c, d),
//     each taken when it contains the other two old vectors, the narrowest
//     winning, earlier ones on ties; only when no pair qualifies, the
//     three-vector cones (a, b, d), (a, c, d), (b, c, d), each taken when it
//     contains the left-out old vector, again the narrowest, earlier ones on
//     ties. A pair cone that contains the rest is already the narrowest cone
//     of the four, so no three-vector cone can beat it. A pair construction
//     failing fails the step (d is opposite a vector that must be inside); a
//     three-vector candidate that fails is only skipped, as the narrowest
//     cone may be another triple; when no candidate qualifies the step fails.
//   The support always fixes the cone it holds: its vectors lie on the
//   boundary and no narrower cone contains them.
//
// solve(axis, half_angle): valid = 1, half_angle = 2 pi; an empty set returns
//   1 with nothing else written. The vectors are shuffled in place, the same
//   way on every call (mlRandom seeded 1, r = draw(); for i = n - 1 .. 1,
//   j = r mod (i + 1), swapped with i when j != i), so the result is
//   reproducible whatever order they came in. Starting from the cone of the
//   first vector, a scan skips near-duplicates of the support and vectors
//   inside the cone; a vector outside updates the support, and a strictly
//   wider cone is taken and the scan restarts at the first vector (a cone not
//   wider, possible only by rounding, is dropped and the old support kept).
//   Termination: every restart follows a strict increase of the half-angle,
//   and every cone the scan can hold is built from one, two or three of the
//   n vectors (in one of at most six argument orders), a finite set, so no
//   cone is visited twice and the restarts are at most 6 (n + n(n-1)/2 +
//   n(n-1)(n-2)/6). The scan is bounded anyway by kMaxRestarts restarts
//   (random sets of 10^5 vectors need about 40); running out of them reports
//   failure rather than a cone that may miss a vector.
//   Returns `valid`: 1 with the cone; 0 when the vectors do not fit in an
//   open hemisphere, the outputs then holding the last cone taken before
//   the failure; 0 with the outputs untouched for a vector that is unset or
//   not finite.
//   The cone is the narrowest containing every vector, except that a vector
//   merged with a support vector as a near-duplicate (closer than
//   sqrt(1e-5), about 0.18 degree) may stay outside it by up to that
//   distance: the cone is then the narrowest of the vectors without it, and
//   never wider than the narrowest of all.
//   On random input in a cap the expected work is linear: the k-th vector
//   of the shuffled order lies outside the cone of those before it with
//   probability at most 3 / k.
//
// solve_slow_and_simple_for_utest(axis, half_angle): the same answer by
//   exhaustion, O(n^4), for tests: no shuffle; one vector gives exact_cone1,
//   two their pair cone; otherwise every triple i < j < k gives a candidate,
//   the pair cone of its widest pair (the first on equal widths) or, when
//   the third vector lies outside that by more than kBoundary, the cone
//   through all three; a failing construction ends the solver with 0 (the
//   vectors then reach a hemisphere). The narrowest candidate whose largest
//   excess over all other vectors is below 1e-7 wins; none gives 0.
#pragma once

#include "metrofit/platform/geometry/angle.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/unit_vec.h"

class tsContainmentCone {
   public:
    // Containment slack of the support updates, in radians.
    static constexpr double kBoundary = 1e-10;
    // Excess below which the slow solver counts a vector as contained.
    static constexpr double kSlowExcess = 1e-7;
    static constexpr int kMaxRestarts = 10000;

    explicit tsContainmentCone(const giUnitVec3coDynArr& directions);
    virtual ~tsContainmentCone() = default;

    int solve(giUnitVec3& axis, giAngle& half_angle);
    int solve_slow_and_simple_for_utest(giUnitVec3& axis, giAngle& half_angle);

   protected:
    static void exact_cone1(const giUnitVec3& a, giUnitVec3& axis, giAngle& angle);
    int exact_cone2(const giUnitVec3& a, const giUnitVec3& b, giUnitVec3& axis, giAngle& angle);
    int exact_cone3(const giUnitVec3& a, const giUnitVec3& b, const giUnitVec3& c, giUnitVec3& axis,
                    giAngle& angle);
    bool in_support(int i) const;
    static bool inside_cone(const giUnitVec3& v, const giUnitVec3& axis, const giAngle& angle,
                            double& excess);
    void update_support(int i, giUnitVec3& axis, giAngle& angle);
    void update_support1(int i, giUnitVec3& axis, giAngle& angle);
    void update_support2(int i, giUnitVec3& axis, giAngle& angle);
    void update_support3(int i, giUnitVec3& axis, giAngle& angle);

    giUnitVec3coDynArr directions;
    int support_count = 0;
    int support[3] = {0, 0, 0};
    int valid = 1;

   private:
    // -1 for an unset or non-finite vector (nothing written); otherwise sets
    // valid = 1 and the half-angle to 2 pi and returns the vector count.
    int start(giAngle& half_angle);
};
