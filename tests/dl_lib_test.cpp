#include <gtest/gtest.h>

#include <cmath>

#include "dl_lib.h"
#include "test_util.h"

using namespace testutil;

namespace {

TEST(BatchNormSqrtvar, RootsAndNegativeSums)
{
    // 0 gives sqrt(epsilon); -epsilon sums to exactly 0 (no message); below
    // that each element is reported once and becomes 0; NaN counts as negative.
    const float eps = 0.001f;
    MatrixPtr v = matrix(3, 2, {0.0f, 4.0f - eps, -eps, -0.5f, NAN, -0.0011f});
    testing::internal::CaptureStderr();
    dl_batch_normalize_get_sqrtvar(v.get(), eps, v.get());
    const std::string line = "dl_batch_normalize_get_sqrtvar: negative input to sqrt\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line);
    const float want[] = {static_cast<float>(std::sqrt(static_cast<double>(eps))), 2.0f, 0, 0, 0, 0};
    for (int i = 0; i < 6; i++) EXPECT_EQ(v->item[i], want[i]) << i;

    // Into a separate record, the input left as it was.
    MatrixPtr in = matrix(2, 1, {3.0f, 8.0f}), out = own(dl_matrix_alloc(2, 1));
    dl_batch_normalize_get_sqrtvar(in.get(), 1.0f, out.get());
    EXPECT_EQ(std::vector<float>(out->item, out->item + 2), (std::vector<float>{2.0f, 3.0f}));
    EXPECT_EQ(in->item[0], 3.0f);
}

TEST(BatchNormSqrtvarDeathTest, ShapesDiffer)
{
    MatrixPtr v = matrix(2, 1, {1, 2}), out = own(dl_matrix_alloc(1, 2));
    EXPECT_DEATH(dl_batch_normalize_get_sqrtvar(v.get(), 0.001f, out.get()),
                 "a: 2 x 1, b: 1 x 2\n.*Assertion `dl_matrix_same_shape\\(variance, out\\)' failed");
}

}  // namespace
