#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "metrofit/platform/utility/ut_math.h"

namespace {

TEST(UtilityMath, AcosClampsRoundedCosinesAndKeepsNaN) {
    EXPECT_EQ(utMath::acos(1.0 + 2e-16), 0.0);
    EXPECT_DOUBLE_EQ(utMath::acos(-1.0 - 4e-16), std::acos(-1.0));
    EXPECT_DOUBLE_EQ(utMath::acos(0.5), std::acos(0.5));
    EXPECT_TRUE(std::isnan(utMath::acos(std::numeric_limits<double>::quiet_NaN())));
}

TEST(UtilityMath, RemainderCarriesTheSignOfTheDividend) {
    EXPECT_DOUBLE_EQ(utMath::remd(7.5, 2.0), 1.5);
    EXPECT_DOUBLE_EQ(utMath::remd(-7.5, 2.0), -1.5);
    EXPECT_TRUE(std::isnan(utMath::remd(1.0, 0.0)));
}

}  // namespace
