// The circle that touches three given circles, in the plane and for three
// circles lying in a common plane in space.
//
// Of the up to eight circles tangent to three circles, two are offered,
// chosen by `enclosing` (sigma = +1 when non-zero, -1 when 0):
//   enclosing != 0: the result contains the three circles and touches each
//                   from inside:   |C - Ck| = R - rk;
//   enclosing == 0: the result touches each circle from outside:
//                                  |C - Ck| = R + rk.
//
// CircleTouchingThreeCircles2D(c1, r1, c2, r2, c3, r3, enclosing, centre,
//   radius):
//   1. the centres must lie at least 1e-7 apart pairwise;
//   2. the circle of the smallest radius r0 is moved first (centres and
//      radii swapped together: the smaller of first and second, then of
//      first and third), so the order the circles come in does not matter;
//   3. every radius is reduced by r0: the first circle becomes its centre
//      P0, and a circle tangent to the shrunk circles through P0, with r0
//      added back (enclosing) or taken off (outside), touches the originals;
//   4. inversion about P0 by the complex reciprocal z -> 1 / z maps circle k
//      (d = Pk - P0, shrunk radius rk') to the circle of centre
//      (d.x / D, -d.y / D) and radius rk' / |D|, D = |d|^2 - rk'^2. The
//      circles through P0 become the lines, so the wanted circle is the image
//      of a common tangent line of the two image circles;
//   5. of the two tangents that leave both image circles on one side, the
//      first (direction w turned by asin s, s = (R3 - R2) / |w|, w from the
//      second image centre to the third) is kept when the origin of the
//      inverted plane (the image of infinity) lies on the side the sense
//      asks for: on the far side from the image circles for enclosing, on
//      their side for outside; otherwise the mirrored tangent (-s) is tried.
//      Where both tangents qualify, two circles of that sense exist and the
//      first tangent's is returned: which one then depends on the order of
//      the two larger circles (with one circle of the sense, any order of
//      the input gives it);
//   6. the line at signed distance e from the origin with direction n maps
//      back to the circle through P0 of centre P0 - (n.y, n.x) / (2 e) and
//      radius 1 / (2 |e|); the result radius is that plus sigma r0.
//   Returns 1, or 0 with the outputs untouched when a coordinate or radius
//   is not finite, two centres are closer than 1e-7, an image circle
//   degenerates (D = 0: a shrunk circle passes through P0), the image
//   centres coincide (|w| < 1e-7), one image circle swallows the other
//   (|s| > 0.9999999: no common tangent), neither tangent has the origin on
//   the wanted side (no circle of that sense exists, e.g. the smallest
//   circle sits between the other two on a line for enclosing), the tangent
//   passes within 1e-7 of the origin (the circle would be a line), or the
//   result is not finite.
//   Radii are taken as signed numbers and not checked: with heavily
//   overlapping circles the outside result may come out with a negative
//   radius R, which then reads |C - Ck| = rk - |R|: a circle of radius |R|
//   inside every given circle, touching each of them from inside.
//
// CircleTouchingThreeCircles3D(c1, r1, c2, r2, c3, r3, enclosing, normal,
//   centre, radius): the circles lie in the plane through the three centres.
//   normal = unit((c2 - c1) x (c3 - c2)); a cross product shorter than 1e-7
//   (centres collinear or coincident) is refused before any plane work.
//   In-plane axes: e1 = the X axis with its normal component removed,
//   unitised (the Y axis when |normal.y| <= |normal.x|), e2 = e1 x normal;
//   the centres map to (e1.P, e2.P), the 2D function solves there, and its
//   centre maps back to x e1 + y e2 + (normal.c1) normal. The radius is the
//   2D radius. Returns the 2D result; on 0 (also for non-finite input)
//   normal, centre and radius are all left untouched.
#pragma once

#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/vector.h"

int CircleTouchingThreeCircles2D(giPoint2 centre1, double radius1, giPoint2 centre2, double radius2,
                                 giPoint2 centre3, double radius3, int enclosing, giPoint2& centre,
                                 double& radius);

int CircleTouchingThreeCircles3D(giPoint3 centre1, double radius1, giPoint3 centre2, double radius2,
                                 giPoint3 centre3, double radius3, int enclosing, giVector3& normal,
                                 giPoint3& centre, double& radius);
