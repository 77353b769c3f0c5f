// Finds the principal axes of a small, tilted point cloud with the installed
// library and prints them: the smallest axis is the normal of the best plane.
#include <metrofit/metrofit.h>

#include <cstdio>

int main() {
    // A 5 x 4 grid in the plane z = 0, turned 30 degrees about the x axis
    // and moved away from the origin.
    const giXform3 place =
        giXform3::translation(giVector3(100, -50, 20)) *
        giXform3::rotation(giPoint3(giOrigin), giVector3(1, 0, 0), giAngle(1, 30.0));
    giPoint3coDynArr points;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 4; ++j) points.append(place * giPoint3(i * 10.0, j * 5.0, 0.0));

    giPoint3 centre(0, 0, 0);
    for (const giPoint3& p : points) centre += (p - giPoint3(giOrigin)) / points.size();
    mlMatrix centred(mlMatrixZero, points.size(), 3);
    for (int i = 0; i < points.size(); ++i) {
        const giVector3 d = points[i] - centre;
        centred(i, 0) = d.x();
        centred(i, 1) = d.y();
        centred(i, 2) = d.z();
    }
    mlSingularValueDecomposition svd(centred, mlJOB_V);
    const mlMatrix& V = svd.V();
    std::printf("centroid    %.6f %.6f %.6f\n", centre.x(), centre.y(), centre.z());
    std::printf("normal      %.6f %.6f %.6f  (expected +-0 -0.5 0.866025)\n", V(0, 2), V(1, 2),
                V(2, 2));
    std::printf("spread      %.6f %.6f %.6f\n", svd.diagonal()[0], svd.diagonal()[1],
                svd.diagonal()[2]);
    return svd.diagonal()[2] < 1e-9 * svd.diagonal()[0] ? 0 : 1;
}
