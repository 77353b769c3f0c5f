// Fits a plane and a sphere with the installed library and prints them.
#include <metrofit/metrofit.h>

#include <cmath>
#include <cstdio>

int main() {
    // A 5 x 4 grid turned 30 degrees about the x axis and moved away from the
    // origin: its plane has the normal (0, -0.5, 0.866).
    const giXform3 place =
        giXform3::translation(giVector3(100, -50, 20)) *
        giXform3::rotation(giPoint3(giOrigin), giVector3(1, 0, 0), giAngle(1, 30.0));
    giPoint3coDynArr grid;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 4; ++j) grid.append(place * giPoint3(i * 10.0, j * 5.0, 0.0));
    giPoint3 point;
    giUnitVec3 normal;
    double error = -1;
    if (!tsLeastSquareEvaluator::evaluate_plane(grid, point, normal, error)) return 1;
    std::printf("plane   point %.6f %.6f %.6f  normal %.6f %.6f %.6f  rms %.2g\n", point.x(),
                point.y(), point.z(), normal.x(), normal.y(), normal.z(), error);

    // Eight points of a sphere of radius 12 about (1, 2, 3).
    giPoint3coDynArr ball;
    const double s = 12.0 / std::sqrt(3.0);
    for (int k = 0; k < 8; ++k)
        ball.append(giPoint3(1 + (k & 1 ? s : -s), 2 + (k & 2 ? s : -s), 3 + (k & 4 ? s : -s)));
    giPoint3 centre;
    double radius = 0;
    if (!tsLeastSquareEvaluator::evaluate_sphere(ball, centre, radius, error)) return 1;
    std::printf("sphere  centre %.6f %.6f %.6f  radius %.6f  rms %.2g\n", centre.x(), centre.y(),
                centre.z(), radius, error);
    return std::abs(radius - 12.0) < 1e-9 && std::abs(std::abs(normal.z()) - 0.8660254) < 1e-6 ? 0
                                                                                               : 1;
}
