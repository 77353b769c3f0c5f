// tsCurve2: a nominal profile in the plane, a chain of line segments and
// circular arcs, and the foot points of a point on it.
//
// Elements. A line runs from its start to its end; an arc is given by its
// start, one point it passes through and its end, and runs from the start
// through that point to the end (counterclockwise or clockwise as the three
// points turn; a full circle is two arcs). Each element must start where the
// previous one ended, to within join_tolerance() (1e-6 of the larger of 1
// and the coordinates' size, so that a profile in metres or in millimetres
// joins alike); the chain is closed when the last end meets the first start
// to that tolerance.
//
// Side. The normal of the curve points to the left of the direction of
// travel: on a line with direction u it is u turned by +90 degrees, on a
// counterclockwise arc towards the centre, on a clockwise one away from it.
// A closed profile traversed counterclockwise thus has its normals inside;
// write it clockwise for outward normals.
//
// Foot points. project_all(p) lists every point s of the curve where p - s
// is normal to the curve: the perpendicular feet inside each element (an
// arc gives its near and its far foot when they lie on it; a point at an
// arc's centre gives none there), and each joint whose normal fan holds p
// (p beyond the end of the element arriving and before the start of the one
// leaving: at a convex corner). A joint foot's normal is p - s made unit,
// turned to the side of the two elements' normals (their sum when p is on
// the corner). Open ends give no foot: a point past the end of an open
// profile projects nowhere. The list is sorted by distance, nearest first,
// ties in element order.
//
// Text form, one element per line, numbers separated by spaces, tabs or
// commas, '#' starts a comment:
//     line x1 y1 x2 y2
//     arc  x1 y1 xm ym x2 y2      start, a point on the arc, end
// parse() refuses an unknown keyword, a wrong count of numbers, a non-finite
// number, a line without length, three arc points on one line or two of
// them equal, and an element that does not start where the last one ended,
// naming the line; it then leaves the curve empty.
#pragma once

#include <string>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/geometry/point.h"
#include "metrofit/platform/geometry/unit_vec.h"

enum tsCurveElement2Type { tsCURVE_LINE2 = 0, tsCURVE_ARC2 = 1 };

struct tsCurveElement2 {
    int type = tsCURVE_LINE2;
    giPoint2 start;
    giPoint2 end;
    // Arcs only: the centre, the radius, and the signed sweep in radians from
    // the start (positive counterclockwise, |sweep| < 2 pi).
    giPoint2 centre;
    double radius = 0.0;
    double sweep = 0.0;
};

struct tsCurveFoot2 {
    giPoint2 position;
    giUnitVec2 normal;  // the curve's normal there (left of travel)
    double distance = 0.0;
    int element = -1;  // the element, or the element arriving at a joint
};

using tsCurveElement2coDynArr = coDynArr<tsCurveElement2>;
using tsCurveFoot2coDynArr = coDynArr<tsCurveFoot2>;

class tsCurve2 {
   public:
    // Appends an element. Returns 0 and leaves the curve as it was for
    // non-finite or degenerate input, or a start away from the last end.
    int add_line(const giPoint2& start, const giPoint2& end);
    int add_arc(const giPoint2& start, const giPoint2& through, const giPoint2& end);
    void clear();

    int size() const { return elements_.size(); }
    const tsCurveElement2& element(int i) const { return elements_[i]; }
    int closed() const;
    double join_tolerance() const;

    // The foot points of p (header comment); returns their count.
    int project_all(const giPoint2& p, tsCurveFoot2coDynArr& feet) const;
    // The nearest foot point; 0 when there is none.
    int nearest(const giPoint2& p, tsCurveFoot2& foot) const;

    // The curve of `text` into `curve`. Returns 1, or 0 with "line N: ..."
    // in `error` and an empty curve.
    static int parse(const std::string& text, tsCurve2& curve, std::string& error);

   private:
    int append(const tsCurveElement2& e);
    tsCurveElement2coDynArr elements_;
    double size_ = 1.0;  // the largest coordinate magnitude seen, at least 1
};
