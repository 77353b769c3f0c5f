// tsPointsToPlanes: the rigid transform that carries measured points onto
// nominal planes and points.
//
// Data. Three sets of entries (tsPlaneAndPoint) are kept apart:
// - positioning entries hold the part like the locating points of a fixture;
//   the direct fit weights them POSITIONING_WEIGHT (1000) times, the locked
//   steps add them as rows of that weight;
// - spare entries are held back and moved into the positioning set only when
//   it leaves the pose open (fix_undetermined_positioning);
// - bestfit entries are the least-squares data, optionally with a tolerance
//   band and balanced in pairs (coefficient c1 d1 + c2 d2 as one residual,
//   1 and -1 centre a part between two faces).
// Locks: lock_direction(a, b, mode) asks that the measured direction a be
// carried onto the nominal direction b (mode != 0: onto b or -b, whichever
// fits; the direct fit also tries both), leaving the turn about b and the
// shift free; lock_rotations(d1[, d2, d3]) forbids every rotation and lets
// the points shift only in the span of the d's. Entries with a NaN or
// infinite coordinate or weight are ignored when added.
//
// Direct fit (fit): a multi-start downhill search over the rotation (the
// shift of each trial rotation is solved in closed form), phase one least
// squares, phase two, when any entry has a tolerance band, the minimax of the
// band excess from the phase-one result; see direct_shift_objective.h.
//
// The multi-start search draws a flip bit for every start; it takes part in
// the search (and in the choice between equal results) only when the locked
// direction may be reversed (flip mode), and counts as 0 otherwise.
//
// Linear steps (single_linear_step): one Gauss-Newton step of the linearised
// rigid motion with a line search, used by iterative callers that re-pair the
// points between steps. The step is chosen by the locks:
// - rotation locks: translations only, x = sum x_j d_j, no line search;
// - a locked direction: the locked-axis step. The points are first turned by
//   the fixed rotation L that carries a onto b (find_lock_matrix, about the
//   centroid c of the entries' measured points); then the motion is a turn
//   by theta about the axis b through c and a free shift t:
//       x -> L x + s theta b x (L x - c) + t,
//   parameters (theta, t along the orts of b: b, e1, e2);
// - positioning entries: the locked-point step. The first positioning point
//   a is taken to its nominal b and the points turn about it:
//       x -> b + (x - a) + w x (x - a);
//   the line search scales the turn only, so every step takes a onto b;
// - otherwise the free step: x -> x + t + (s w) x (x - c). Its line search
//   (tsInterpolatedSquareDistsSumFree) skips turns below 1e-7 rad, so
//   iterated free steps settle within that angle; the locked steps apply
//   every turn and iterate to rounding.
// The locked steps add every positioning entry as rows of weight
// POSITIONING_WEIGHT, so a lock point given as positioning entries holds.
// Rows of a bestfit entry (measured m, nominal q, weighted normal n):
//   plane row  a = n^T J(m),  r = (q - m0) . n,
//   point rows a = J(m),      r = q - m0 (three coordinate equations),
// where m0 is the point before the step's motion and J the derivative of the
// moved point by the parameters; the normal equations are M = sum a a^T,
// V = sum r a, with the points-to-points rows weighted 0.01 (a weak tie that
// keeps the system regular when the planes leave a motion free). A balanced
// pair contributes one plane row c1 a1 + c2 a2 with right-hand side
// c1 r1 + c2 r2.
//
// Centre and rotation scale of the free step. The rotation is taken about
// the centroid c of the bestfit measured points and its parameters are
// scaled by s = 1 / rms |m - c| (capped at 1e7; the previous value is kept
// when all points coincide), so that translation and rotation columns have
// the same size wherever the part lies: taken about the origin, a part of
// size 10 placed 1e5 away would make the system singular to the cut 1e-7.
// The equation builders called directly (without a step) use the centre
// set by set_step_centre, the origin by default.
//
// Tolerance bands in a step. Each finite limit of a bounded bestfit entry
// gives one linear constraint on the parameters, from the linearised
// deviation d(x) = (a . x - r) / weight: lower <= d(x) <= upper, numbered
// in entry order, lower before upper (constraint_coefs). The step is then a
// convex quadratic programme (search_constrained_minimum); constraints that
// conflict are dropped and reported by overdetermined_constraints(), unless
// disable_overdetermined_resolution() was called.
//
// Positioning test. test_positioning(mode, T) ranks the positioning
// constraints on the rigid motions the locks leave free (6, 4 with a locked
// direction, k with k rotation-lock vectors): each entry gives the row
// (n, (T m - g) x n / L) per constrained direction n (three unit directions
// for a point entry), g and L the centroid and rms radius of the positioning
// points, rank by singular values above 1e-6 of the largest.
// - mode 1 judges the last entry: REDUNDANT when it does not raise the rank
//   of the entries before it, else COMPLETE when the rank reaches the free
//   degrees of freedom, else OPEN;
// - mode 0 judges the whole set: OPEN below full rank, COMPLETE at full rank
//   with no more rows than needed, REDUNDANT at full rank with more rows.
// fix_overdetermined_positioning(T) walks the positioning entries in order
// and moves each one that does not raise the rank of those kept before it to
// the end of the spare entries; then T becomes the least-squares pose of the
// remaining positioning entries (Gauss-Newton from T, at most 30 steps, the
// minimum-norm step where they leave motions open). It returns 1 when it
// moved an entry, else 0.
#pragma once

#include <utility>
#include <vector>

#include "metrofit/alignment/plane_and_point.h"
#include "metrofit/alignment/rps_data.h"
#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/arrays.h"
#include "metrofit/platform/geometry/workplane.h"
#include "metrofit/platform/geometry/xform.h"
#include "metrofit/platform/maths/matrix.h"
#include "metrofit/platform/maths/vector.h"

class tsAmoebaPointsToPlanesDirectShift;

// One slot per entry: (index of the partner entry or -1, coefficient).
using tsBalancePairs = std::vector<std::pair<int, double>>;

class tsPointsToPlanes {
   public:
    enum PLANE_STATE { PLANE_LOCKED = 0, PLANE_SOFT = 1, PLANE_IGNORED = 2, PLANE_SPARE = 3 };
    enum POSITIONING_STATE {
        POSITIONING_OPEN = 0,
        POSITIONING_COMPLETE = 1,
        POSITIONING_REDUNDANT = 2
    };

    static const double POSITIONING_TOLERANCE;  // 1e-5
    static const double POSITIONING_WEIGHT;     // 1000
    static const double TINY_DOUBLE;            // 1e-7

    tsPointsToPlanes();
    ~tsPointsToPlanes();

    // Loading.
    void add_positioning(const giPoint3& measured, const giPoint3& nominal, const giVector3& normal,
                         int kind);
    void add_positioning(const giPoint3& measured, const giWorkplane3& frame,
                         const giPoint3& nominal, PLANE_STATE x_state, PLANE_STATE y_state,
                         PLANE_STATE z_state, int kind);
    void add_bestfit(const giPoint3& measured, const giPoint3& nominal, const giVector3& normal,
                     double lower_limit, double upper_limit, double weight);
    void add_balance(const giPoint3& measured1, const giPoint3& nominal1, const giVector3& normal1,
                     double coefficient1, const giPoint3& measured2, const giPoint3& nominal2,
                     const giVector3& normal2, double coefficient2, double weight);
    void lock_direction(const giVector3& point, const giVector3& direction, int mode);
    void lock_rotations(const giVector3& a, const giVector3& b, const giVector3& c);
    void reserve_bestfit(int n) { bestfit_entries_.reserve(n); }
    // Empties the bestfit entries, their balance pairs, the limits flag and
    // the over-determined constraints; positioning entries and locks stay.
    void clear_bestfit_data();

    // Setters.
    void multiple_guesses(int value) { multiple_guesses_ = value; }
    void increase_num_guesses() { num_guesses_ = 240; }
    void set_fitting_points_attraction(double value) { fitting_points_attraction_ = value; }
    void set_fit_dev_limit_for_ambiguity(double value) { fit_dev_limit_for_ambiguity_ = value; }
    void disable_overdetermined_resolution() { overdetermined_resolution_disabled_ = 1; }
    void set_step_centre(const giPoint3& centre) { step_centre_ = centre; }

    // Queries.
    bool have_constraints() const;
    bool have_enough_data() const;
    const intcoDynArr& overdetermined_constraints() const { return overdetermined_; }
    const tsPlaneAndPointcoDynArr& positioning_entries() const { return positioning_entries_; }
    const tsPlaneAndPointcoDynArr& spare_entries() const { return spare_entries_; }
    const tsPlaneAndPointcoDynArr& bestfit_entries() const { return bestfit_entries_; }
    const tsBalancePairs& balance_pairs() const { return balance_pairs_; }
    const giVector3coDynArr& lock_points() const { return lock_points_; }
    const giVector3coDynArr& lock_directions() const { return lock_directions_; }
    const giVector3coDynArr& rotation_locks() const { return rotation_locks_; }
    int multiple_guesses() const { return multiple_guesses_; }
    int num_guesses() const { return num_guesses_; }
    double fitting_points_attraction() const { return fitting_points_attraction_; }
    int direction_flip_mode() const { return direction_flip_mode_; }
    int has_limits() const { return has_limits_; }
    double rotation_scale() const { return rotation_scale_; }
    double fit_dev_limit_for_ambiguity() const { return fit_dev_limit_for_ambiguity_; }

    // The direct fit; returns the largest deviation (see fit_pairs_downhill
    // and the minimax phase), 0.0 with T the identity when there is no data.
    double fit(giXform3& xform, double tolerance, double* max_deviation) const;
    double fit_pairs_downhill(tsAmoebaPointsToPlanesDirectShift& objective, giXform3& xform,
                              double tolerance, double* max_deviation, mlVector* parameters) const;
    // The working data of the direct fit: positioning entries first (normal
    // and weight times POSITIONING_WEIGHT, kind 0 when points_only), then the
    // bestfit entries unless skip_bestfit; pairs as described for fit.
    // Returns the number of positioning entries in data.
    int data_for_downhill(tsPlaneAndPointcoDynArr& data, tsBalancePairs& pairs, int skip_bestfit,
                          int points_only) const;

    int single_linear_step(giXform3& xform);
    int single_linear_step_free(giXform3& xform);
    int single_linear_step_locked_axis(giXform3& xform);
    int single_linear_step_locked_point(giXform3& xform);
    int single_linear_step_translates(giXform3& xform);

    // Equation builders: M (n x n) and V (n) become the normal equations of
    // the bestfit entries for the motion named (see the header comment).
    void linear_step_free_points_to_planes(mlMatrix& M, mlVector& V) const;
    void linear_step_free_points_to_points(mlMatrix& M, mlVector& V) const;
    void linear_step_rotation_points_to_planes(const giPoint3& a, const giPoint3& b, mlMatrix& M,
                                               mlVector& V) const;
    void linear_step_rotation_points_to_points(const giPoint3& a, const giPoint3& b, mlMatrix& M,
                                               mlVector& V) const;
    void linear_step_translates_points_to_planes(mlMatrix& M, mlVector& V) const;
    void linear_step_translates_points_to_points(mlMatrix& M, mlVector& V) const;
    // Turn about the axis through a (taken to b) by s theta and shift along
    // the first n_orts orts of axis: parameters (theta, x_1 .. x_n_orts).
    void linear_step_fixed_axis_points_to_planes(int n_orts, const giPoint3& a, const giPoint3& b,
                                                 const giVector3& axis, mlMatrix& M,
                                                 mlVector& V) const;
    void linear_step_fixed_axis_points_to_points(int n_orts, const giPoint3& a, const giPoint3& b,
                                                 const giVector3& axis, mlMatrix& M,
                                                 mlVector& V) const;
    // orts[0] = axis made unit, orts[1], orts[2] two unit vectors that make a
    // right-handed orthonormal frame with it; writes min(max(n, 0), 3) of
    // them and returns that count (0 for an axis without direction).
    static int linear_step_fixed_axis_orts(int n, const giVector3& axis, giVector3* orts);

    // Limit constraints of the bounded bestfit entries from the plane rows of
    // a step (rows: one row of n per bestfit entry; rhs: their right-hand
    // sides), into the working constraint matrix and bounds. Returns the
    // number of constraints.
    int constraint_coefs(const mlMatrix& rows, const mlVector& rhs);
    int search_constrained_minimum(const mlMatrix& M, const mlVector& V, int n, mlVector& start,
                                   mlVector& solution);

    POSITIONING_STATE test_positioning(int mode, const giXform3& xform) const;
    int fix_undetermined_positioning(giXform3& xform);
    int fix_overdetermined_positioning(giXform3& xform);

    double best_fit_deviation_with_transform(const giXform3& xform) const;
    double standard_deviation_of_nominals(const giXform3& xform);

    // Positioning data of an iterative fit that moves the part step by step.
    // pop_back_rps takes the last positioning entry out into `data` (with
    // its first measured point, from the cache of standard_deviation_of_
    // nominals when it holds one) and returns 1, or 0 without entries;
    // undo_pop_back_rps puts such an entry back at the end, its cached
    // point with it. transform_rps_data moves the measured points of the
    // positioning and spare entries by xform and turns the measured locked
    // directions with it; the cache keeps the points as first measured.
    int pop_back_rps(tsRPSData& data);
    void undo_pop_back_rps(const tsRPSData& data);
    void transform_rps_data(const giXform3& xform);

    static void find_flip_matrix(const giVector3& v, giXform3& out);
    // The rotation about centre that carries the direction `measured` onto
    // `nominal` (onto -nominal when flip) by the smallest angle; a half turn
    // about a normal of `measured` when they are opposite. Returns 0 (out
    // unchanged) for a direction without length.
    static int find_lock_matrix(const giVector3& measured, const giVector3& nominal, int flip,
                                const giPoint3& centre, giXform3& out);

    // Motion model and normal equations of one linear step (defined with
    // the steps).
    struct StepModel;
    struct StepRows;

   private:
    void build_rows(const StepModel& model, int with_positioning, StepRows& out) const;
    // The bestfit plane rows (planes = 1) or point rows of a model alone.
    void equations_of(const StepModel& model, int planes, mlMatrix& M, mlVector& V) const;
    // Normal equations of the model (positioning rows included when asked),
    // constrained solution and line search; T receives the step.
    int solve_and_search(const StepModel& model, int with_positioning, int line_search,
                         giXform3& xform);
    // Centroid of the measured points of the bestfit (and positioning)
    // entries under pre, and the rotation scale 1 / rms radius about it.
    giPoint3 update_rotation_scale(const giXform3& pre, int with_positioning);
    void fit_positioning(giXform3& xform) const;

    tsPlaneAndPointcoDynArr positioning_entries_;
    tsPlaneAndPointcoDynArr spare_entries_;
    tsPlaneAndPointcoDynArr bestfit_entries_;
    tsBalancePairs balance_pairs_;
    giVector3coDynArr lock_points_;
    giVector3coDynArr lock_directions_;
    giVector3coDynArr rotation_locks_;
    int multiple_guesses_ = 1;
    double fitting_points_attraction_ = 0.0;
    giPoint3coDynArr positioning_cache_points_;
    giPoint3coDynArr positioning_cache_spares_;
    giVector3coDynArr positioning_cache_locks_;
    int direction_flip_mode_ = 0;
    int overdetermined_resolution_disabled_ = 0;
    double rotation_scale_ = 1.0;
    mlMatrix constraint_matrix_;
    mlVector constraint_bounds_;
    mlVector constraint_start_;
    int has_limits_ = 0;
    intcoDynArr overdetermined_;
    double fit_dev_limit_for_ambiguity_ = 0.5;
    mutable int num_guesses_ = 60;
    giPoint3 step_centre_ = giPoint3(0.0, 0.0, 0.0);
};
