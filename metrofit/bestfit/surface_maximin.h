// tsSurfaceMaximin: the rigid transform that maximises the smallest signed
// deviation of probed points from a nominal surface.
//
// Objective. With d_i(T) the signed deviation of point i under the
// transform T (measured -> nominal; positive on the side the probe came
// from, as tsProjectedPoint3 gives it) and lower_i its lower limit (0 by
// default), the fit seeks
//     T* = argmax_T  margin(T),   margin(T) = min_i (d_i(T) - lower_i),
// the pose that leaves the most stock on the point that has the least (the
// machining allowance of a raw casting: positive everywhere and as even as
// the worst point allows). A per-point lower limit asks for that much more
// stock at the point; the margin is then the smallest excess over the
// limits. It is the minimax of the tolerance-band excess of the
// points-to-planes alignment with one-sided bands [lower_i + m, +inf):
// maximising m is minimising the largest lower_i - d_i.
//
// Iteration. Like tsSurfaceBestfit, an outer loop re-projects every moved
// point onto the nominal object through the projector (fit points and
// projectors dispatch doubly, so any point type and nominal object serve)
// and takes each valid projection as a tangent plane. The step linearises
// the motion about the centroid c of the valid points: translation t and
// rotation vector w, in units of the rms radius L of the points about c
// (so the columns are alike wherever the part lies), d_i changes by
//     g_i . x = n_i . t + w . ((p_i - c) x n_i),
// and the step solves the linear programme of the minimax in those units,
//     maximise m  subject to  (d_i - lower_i) / L + g_i . x >= m,
//     |x_j| <= D (the trust region),
// with the convex quadratic minimiser of the alignment's constrained steps
// (minimise 1/2 mu (|t|^2 + 100 |w|^2 + m^2) - m, mu = 1e-3: the small
// proximal term makes the solution unique, takes no motion along directions
// that do not raise the margin, prefers a shift to a turn that raises it
// alike (a turn moves the points at second order, which the linear model
// does not see), and vanishes at a fixed point, where the conditions are
// exactly those of the maximin: the gradients of the points that hold the
// margin enclose 0). The step moves the points by the exact rigid motion
// (rotation by |w| about w through c, then the shift). The moved points are
// re-projected; the step is kept when the margin has not dropped and no
// point stopped projecting, and D doubles (at most 1) when the step was cut
// by it; a step that is not kept is undone and D shrinks fourfold.
//
// Evening (on unless set_even(0)). The margin usually leaves motions free:
// a block whose stock is tightest across y is held by its y faces, and any
// shift along x or z that keeps those faces' stock does as well. The fit
// then makes the rest of the stock as even as possible in the same minimax
// sense, level after level (the lexicographic maximin): of the points
// within the holding tolerance of the level just reached, those that no
// first-order motion keeping all of them from dropping can raise are held
// (one small programme per point; beyond 256 such points all are held;
// a point that merely touches the level, such as a face that had to come
// up to it, stays free and rises later; when none binds, the stage stopped
// within the tolerance of its optimum and all are held); free points that
// no motion left can move (their gradients lie in the span of the held
// ones, as every point of a face whose least stock is held) are settled
// where they are; the next stage
// runs the same iteration on the remaining (free) points over the motions
// that leave every held deviation unchanged to first order (the null space
// of the held gradients: at a maximin optimum the holding gradients enclose
// 0, so no motion raises one of them without lowering another), and its
// smallest free excess is the next level. A step of a stage is kept only
// when no held point fell more than the holding tolerance below its level.
// Stages end when every point is held, the held points fix every motion, or
// after 8 levels. Last, the margin iteration runs once more from the evened
// pose: it takes back what the stages' linear steps lost at second order (a
// motion of the holding tolerance's size). The evening stages stop by the
// rules below too; their stop does not change the status, which is that of
// the margin. levels() lists the margin and each level reached.
//
// Stopping rules, every one bounded:
// - converged: a kept step moved no valid point by `tolerance` or more, the
//   programme found no step at all, or its step, not cut by the trust
//   region, promises to raise the margin by less than `tolerance`;
// - iteration limit: 100 steps, kept or not (per stage);
// - stalled: D fell below 1e-12 without a kept step (the linearisation no
//   longer predicts the surface: a kink of the nominal, for instance).
// Each fit starts from the identity, or from set_start(T): a part that lies
// far off needs such a rough pre-alignment (the least-squares fit of
// tsSurfaceBestfit, for instance), since the iteration is local. A start
// that is not a finite rigid motion is refused (bad input). The transform
// returned includes the start.
//
// Locks: lock_rotations(a[, b, c]) forbids every rotation and lets the
// points shift only in the span of the given vectors (an unset vector, x
// = -DBL_MAX, is skipped; parallel ones add nothing).
//
// Statuses (tsSurfaceMaximinStatus). Above 0 the outputs are written, at or
// below 0 nothing is:
//   1 converged, 2 iteration limit, 3 stalled: the pose reached, its margin
//     and the holding points: those whose excess lies within
//     max(tolerance, 1e-9 L) of the margin;
//   0 no points; -1 no projector; -2 no point projects under the identity;
//   -3 bad input (a tolerance that is negative or not finite, a start that
//     is not a finite rigid motion);
//   -4 unbounded: at the start a motion raises every deviation at once (the
//     points do not enclose the part, e.g. all of them on one face), so the
//     margin has no maximum.
// add_point refuses (returns 0, stores nothing) a null point and a lower
// limit that is not finite.
//
// Determinism: no randomness; the same input gives bit-identical output.
#pragma once

#include "metrofit/bestfit/fit_points.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/xform.h"

enum tsSurfaceMaximinStatus {
    tsSURFACE_MAXIMIN_UNBOUNDED = -4,
    tsSURFACE_MAXIMIN_BAD_INPUT = -3,
    tsSURFACE_MAXIMIN_NO_PROJECTION = -2,
    tsSURFACE_MAXIMIN_NO_PROJECTOR = -1,
    tsSURFACE_MAXIMIN_NO_POINTS = 0,
    tsSURFACE_MAXIMIN_CONVERGED = 1,
    tsSURFACE_MAXIMIN_ITERATION_LIMIT = 2,
    tsSURFACE_MAXIMIN_STALLED = 3
};

class tsSurfaceMaximin {
   public:
    static const int MAX_ITERATIONS;  // 100

    tsSurfaceMaximin();

    // Not owned; must outlive the fit.
    void set_projector(const tsFitPointProjector3* projector) { projector_ = projector; }
    void reserve_points(int n);
    // Lower limit 0: the plain stock.
    int add_point(const tsFitPoint3coPrf& p) { return add_point(p, 0.0); }
    int add_point(const tsFitPoint3coPrf& p, double lower_limit);
    void lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c);
    // The pose the next fits start from (measured -> nominal).
    void set_start(const giXform3& start) { start_ = start; }

    // The fit (see above). xform: measured -> nominal; margin: the smallest
    // d_i - lower_i over the points that project; holding: the indices of
    // the points within the holding tolerance of it, ascending;
    // n_unprojected: the points that do not project under xform.
    int fit(double tolerance, giXform3& xform, double& margin, intcoDynArr& holding,
            int& n_unprojected);

    int nb_points() const { return points_.size(); }
    const tsFitPoint3coPrf& point(int i) const { return points_.read(i); }
    double lower_limit(int i) const { return lower_limits_.read(i); }
    // The projections under the transform of the last fit (under the
    // identity before any).
    const tsProjectedPoint3coDynArr& get_pointcloud() const { return projected_; }
    const giXform3& get_transformation() const { return transformation_; }
    int iterations() const { return iterations_; }
    // Evening the stock after the margin (see above): on by default.
    void set_even(int on) { even_ = on ? 1 : 0; }
    // The levels of the last fit: the margin, then the level each evening
    // stage reached, ascending.
    const doublecoDynArr& levels() const { return levels_; }

   protected:
    // Projects every point under xform into out (initial projections under
    // the identity).
    void project_all(const giXform3& xform, tsProjectedPoint3coDynArr& out) const;

   private:
    struct Linearisation;
    void linearise(const tsProjectedPoint3coDynArr& pts, const doublecoDynArr& floors,
                   Linearisation& lin) const;
    // Solves the trust-region programme; step receives the rigid motion,
    // hit_box whether a bound of D was active, gain the predicted rise of the
    // margin. Returns 0 when the minimiser refuses.
    int solve_step(const Linearisation& lin, double radius, giXform3& step, int& hit_box,
                   double& gain) const;
    // The smallest excess over the free points (floor -DBL_MAX); held_kept
    // is 0 when a held point fell more than slack below its floor.
    double margin_of(const tsProjectedPoint3coDynArr& pts, const doublecoDynArr& floors,
                     double slack, int& n_valid, int& held_kept) const;
    // The trust-region iteration raising the smallest free excess with the
    // held points kept on their floors; returns 1, 2 or 3.
    // Of lin's rows at_level (points at the level just reached), those that
    // no first-order motion keeping all of them from dropping can raise.
    intcoDynArr binding_rows(const Linearisation& lin, const intcoDynArr& at_level) const;
    int climb(double tolerance, double slack, const doublecoDynArr& floors, giXform3& T,
              tsProjectedPoint3coDynArr& current, Linearisation& lin);

    tsFitPoint3PtrcoPageArr points_;
    doublecoPageArr lower_limits_;
    giVector3coDynArr shift_axes_;  // orthonormal; rotation locked when any
    int rotations_locked_ = 0;
    const tsFitPointProjector3* projector_ = nullptr;
    tsProjectedPoint3coDynArr projected_;
    giXform3 transformation_ = giXform3(giIdentity);
    giXform3 start_ = giXform3(giIdentity);
    int iterations_ = 0;
    int even_ = 1;
    doublecoDynArr levels_;
};
