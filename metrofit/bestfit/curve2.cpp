#include "metrofit/bestfit/curve2.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <sstream>
#include <vector>

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

giVector2 perp(const giVector2& v) { return giVector2(-v.y(), v.x()); }

double magnitude(const giPoint2& p) { return std::max(std::fabs(p.x()), std::fabs(p.y())); }

// The unit travel direction at the start (at_end = 0) or end of an element.
giVector2 tangent(const tsCurveElement2& e, int at_end) {
    if (e.type == tsCURVE_LINE2) {
        const giVector2 d = e.end - e.start;
        return d / d.length();
    }
    const giVector2 r = ((at_end ? e.end : e.start) - e.centre) / e.radius;
    return e.sweep > 0.0 ? perp(r) : perp(r) * -1.0;
}

// The left normal at a point q of the element.
giVector2 left_normal(const tsCurveElement2& e, const giPoint2& q) {
    if (e.type == tsCURVE_LINE2) return perp(tangent(e, 0));
    const giVector2 r = (q - e.centre) / e.radius;
    return e.sweep > 0.0 ? r * -1.0 : r;
}

// The angle from the start to the direction r, in the sense of travel, in
// [0, 2 pi).
double travel_angle(const tsCurveElement2& e, const giVector2& r) {
    const giVector2 s = e.start - e.centre;
    double a = std::atan2(cross(s, r), dot(s, r));
    if (e.sweep < 0.0) a = -a;
    return a < 0.0 ? a + kTwoPi : a;
}

void add_foot(const giPoint2& p, const giPoint2& s, const giVector2& n, int element,
              tsCurveFoot2coDynArr& feet) {
    tsCurveFoot2 f;
    f.position = s;
    f.normal = giUnitVec2(n);
    f.distance = (p - s).length();
    f.element = element;
    feet.append(f);
}

}  // namespace

void tsCurve2::clear() {
    elements_.clear(0);
    size_ = 1.0;
}

double tsCurve2::join_tolerance() const { return 1e-6 * size_; }

int tsCurve2::closed() const {
    const int n = elements_.size();
    return n > 0 && elements_[n - 1].end.coincident(elements_[0].start, join_tolerance()) ? 1 : 0;
}

int tsCurve2::append(const tsCurveElement2& e) {
    const double grown = std::max({size_, magnitude(e.start), magnitude(e.end)});
    const int n = elements_.size();
    if (n > 0 && !elements_[n - 1].end.coincident(e.start, 1e-6 * grown)) return 0;
    size_ = grown;
    elements_.append(e);
    return 1;
}

int tsCurve2::add_line(const giPoint2& start, const giPoint2& end) {
    if (!start.is_finite() || !end.is_finite()) return 0;
    if (!((end - start).length() > 1e-12 * std::max({1.0, magnitude(start), magnitude(end)})))
        return 0;
    tsCurveElement2 e;
    e.type = tsCURVE_LINE2;
    e.start = start;
    e.end = end;
    return append(e);
}

int tsCurve2::add_arc(const giPoint2& start, const giPoint2& through, const giPoint2& end) {
    if (!start.is_finite() || !through.is_finite() || !end.is_finite()) return 0;
    // Circumcentre of the three points, from start: solve
    // 2 [a; b] c = [|a|^2; |b|^2] with a = through - start, b = end - start.
    const giVector2 a = through - start, b = end - start;
    const double det = 2.0 * cross(a, b);
    const double scale = std::max(a.length(), b.length());
    const double la = a.length_squared(), lb = b.length_squared();
    // Collinear or coincident points have no circle through them.
    if (!(scale > 0.0) || !(std::fabs(det) > 1e-12 * scale * scale) ||
        !((through - start).length() > 1e-12 * scale) ||
        !((end - through).length() > 1e-12 * scale))
        return 0;
    const giVector2 c((la * b.y() - lb * a.y()) / det, (lb * a.x() - la * b.x()) / det);
    tsCurveElement2 e;
    e.type = tsCURVE_ARC2;
    e.start = start;
    e.end = end;
    e.centre = start + c;
    e.radius = c.length();
    // The three points turn counterclockwise exactly when the arc from the
    // start through the middle point to the end does.
    e.sweep = det > 0.0 ? 1.0 : -1.0;
    const double angle = travel_angle(e, end - e.centre);
    e.sweep = det > 0.0 ? angle : -angle;
    if (!std::isfinite(e.radius) || !(e.sweep != 0.0)) return 0;
    return append(e);
}

int tsCurve2::project_all(const giPoint2& p, tsCurveFoot2coDynArr& feet) const {
    feet.clear(0);
    if (!p.is_finite()) return 0;
    const int n = elements_.size();
    const double eps = 1e-12;
    for (int i = 0; i < n; ++i) {
        const tsCurveElement2& e = elements_[i];
        if (e.type == tsCURVE_LINE2) {
            const giVector2 d = e.end - e.start;
            const double t = dot(p - e.start, d) / d.length_squared();
            if (t >= 0.0 && t <= 1.0) add_foot(p, e.start + d * t, left_normal(e, p), i, feet);
            continue;
        }
        const giVector2 r = p - e.centre;
        const double lr = r.length();
        if (!(lr > eps * e.radius)) continue;  // every point of the arc is as near
        for (double sign : {1.0, -1.0}) {
            const giVector2 u = r * (sign / lr);
            if (travel_angle(e, u) <= std::fabs(e.sweep) * (1.0 + eps)) {
                const giPoint2 s = e.centre + u * e.radius;
                add_foot(p, s, left_normal(e, s), i, feet);
            }
        }
    }
    // Joints: p in the normal fan of a corner (past the arriving element's
    // end, before the leaving one's start). A smooth joint has no fan.
    const int joints = closed() ? n : n - 1;
    for (int j = 0; j < joints; ++j) {
        const tsCurveElement2& in = elements_[j];
        const tsCurveElement2& out = elements_[(j + 1) % n];
        const giPoint2 v = in.end;
        const giVector2 d = p - v;
        if (!(dot(d, tangent(in, 1)) > 0.0 && dot(d, tangent(out, 0)) < 0.0)) continue;
        const giVector2 side = left_normal(in, v) + left_normal(out, v);
        add_foot(p, v, dot(d, side) < 0.0 ? d * -1.0 : d, j, feet);
    }
    std::stable_sort(feet.begin(), feet.end(), [](const tsCurveFoot2& a, const tsCurveFoot2& b) {
        return a.distance < b.distance;
    });
    return feet.size();
}

int tsCurve2::nearest(const giPoint2& p, tsCurveFoot2& foot) const {
    tsCurveFoot2coDynArr feet;
    if (project_all(p, feet) < 1) return 0;
    foot = feet[0];
    return 1;
}

int tsCurve2::parse(const std::string& text, tsCurve2& curve, std::string& error) {
    curve.clear();
    std::istringstream in(text);
    std::string raw;
    for (int number = 1; std::getline(in, raw); ++number) {
        const std::string where = "line " + std::to_string(number) + ": ";
        std::string line = raw.substr(0, raw.find('#'));
        std::replace(line.begin(), line.end(), ',', ' ');
        std::istringstream fields(line);
        std::string keyword;
        if (!(fields >> keyword)) continue;
        std::vector<double> v;
        std::string field;
        while (fields >> field) {
            char* stop = nullptr;
            const double x = std::strtod(field.c_str(), &stop);
            if (stop == field.c_str() || *stop != '\0' || !std::isfinite(x)) {
                error = where + "'" + field + "' is not a finite number";
                curve.clear();
                return 0;
            }
            v.push_back(x);
        }
        const bool is_line = keyword == "line", is_arc = keyword == "arc";
        if (!is_line && !is_arc) {
            error = where + "unknown element '" + keyword + "' (expected line or arc)";
            curve.clear();
            return 0;
        }
        const std::size_t want = is_line ? 4 : 6;
        if (v.size() != want) {
            error = where + keyword + " needs " + std::to_string(want) + " numbers (" +
                    (is_line ? "x1 y1 x2 y2" : "x1 y1 xm ym x2 y2") + "), found " +
                    std::to_string(v.size());
            curve.clear();
            return 0;
        }
        const giPoint2 start(v[0], v[1]), end(v[want - 2], v[want - 1]);
        const int n = curve.size();
        const double grown = std::max({curve.size_, magnitude(start), magnitude(end)});
        if (n > 0 && !curve.element(n - 1).end.coincident(start, 1e-6 * grown)) {
            error = where + "the " + keyword + " does not start where the previous element ends";
            curve.clear();
            return 0;
        }
        const int ok =
            is_line ? curve.add_line(start, end) : curve.add_arc(start, giPoint2(v[2], v[3]), end);
        if (!ok) {
            error = where + (is_line ? "the line has no length"
                                     : "the arc's three points are on one line or coincide");
            curve.clear();
            return 0;
        }
    }
    if (curve.size() == 0) {
        error = "no element: expected lines 'line x1 y1 x2 y2' or 'arc x1 y1 xm ym x2 y2'";
        return 0;
    }
    return 1;
}
