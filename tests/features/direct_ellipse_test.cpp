#include "metrofit/features/direct_ellipse.h"

#include <gtest/gtest.h>

#include <utility>

// Statuses of small and degenerate sets in space; the centre stays unset.
// The plane fits, exact and noisy data and the 2D statuses are tested with
// the least-squares fit, which starts from them.
TEST(DirectEllipseDegenerate, StatusesOfSmallAndDegenerateSetsInSpace) {
    giPoint3coDynArr line, equal;
    for (int i = 0; i < 7; ++i) {
        line.append(giPoint3(1 + i, 2 - 2 * i, 3 + 0.5 * i));
        equal.append(giPoint3(1, 2, 3));
    }
    const std::pair<giPoint3coDynArr, int> cases[] = {
        {{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(1, 1, 1)}, 1},
        {equal, 3},
        {line, 4}};
    for (const auto& k : cases) {
        const tsDirectEllipse3 fit(k.first);
        EXPECT_EQ(fit.status(), k.second);
        EXPECT_FALSE(fit.centre().is_set());
    }
}
