#include <gtest/gtest.h>

#include <cmath>

#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

// ---- Fully connected -----------------------------------------------------

TEST(FullyConnect, ProductThenBias)
{
    MatrixPtr in = matrix(3, 2, {1, 2, 3, -1, 0, 2});
    MatrixPtr w = matrix(2, 3, {1, 0, 0, 1, 2, -1});
    MatrixPtr b = matrix(2, 2, {0.5f, 0, 0, -0.5f});
    MatrixPtr out = own(dl_matrix_alloc(2, 2));
    dl_fully_connect_layer(in.get(), w.get(), nullptr, out.get());
    EXPECT_EQ(items_of(out.get()), (std::vector<float>{7, -1, 3, -2}));
    dl_fully_connect_layer(in.get(), w.get(), b.get(), out.get());
    EXPECT_EQ(items_of(out.get()), (std::vector<float>{7.5f, -1, 3, -2.5f}));

    // Quantised weights in one call: the product of dl_matrix_matrixq_dot,
    // then the float bias.
    MatrixqPtr qw = own(dl_matrixq_from_matrix2d(w.get(), nullptr));
    MatrixPtr two_calls = own(dl_matrix_alloc(2, 2));
    dl_matrix_matrixq_dot(in.get(), qw.get(), two_calls.get());
    dl_matrix_add(two_calls.get(), b.get(), two_calls.get());
    dl_fully_connect_layer_quantised_weight(in.get(), qw.get(), b.get(), out.get());
    EXPECT_EQ(items_of(out.get()), items_of(two_calls.get()));
}

TEST(FullyConnectQ, ShiftGoesToTheProductAndBiasSaturates)
{
    // [1.0, 1.0] x [1.0, 0.5]: a sum of 2^28 + 2^27 over two terms.
    MatrixqPtr in = qmatrix(2, 1, -14, {16384, 16384});
    MatrixqPtr w = qmatrix(1, 2, -14, {16384, 8192});
    MatrixqPtr out = own(dl_matrixq_alloc(1, 1));
    dl_fully_connect_layer_q(in.get(), w.get(), nullptr, out.get(), 0);  // shifted by 15 + 1
    EXPECT_EQ(state(out.get()), QState({6144}, -12));                    // 1.5
    dl_fully_connect_layer_q(in.get(), w.get(), nullptr, out.get(), 1);
    EXPECT_EQ(state(out.get()), QState({12288}, -13));
    // The bias's larger exponent wins; the product is aligned to it.
    MatrixqPtr b = qmatrix(1, 1, -11, {4096});
    dl_fully_connect_layer_q(in.get(), w.get(), b.get(), out.get(), 0);
    EXPECT_EQ(state(out.get()), QState({7168}, -11));  // 3.5
    // A bias at a smaller exponent is aligned instead, and the sum saturates.
    MatrixqPtr big = qmatrix(1, 1, -12, {30000});
    dl_fully_connect_layer_q(in.get(), w.get(), big.get(), out.get(), 0);
    EXPECT_EQ(state(out.get()), QState({32767}, -12));
}

// ---- Batch normalisation -------------------------------------------------

TEST(BatchNormalize, StepsAndZeroRoot)
{
    // (m - mean) / root * scale + offset, the offset coming first in the
    // arguments. A root of 0.0 divides by zero and the steps go on.
    MatrixPtr m = matrix(3, 1, {1.5f, -2.0f, 0.25f});
    MatrixPtr offset = matrix(3, 1, {1, 1, 1}), scale = matrix(3, 1, {2, 2, 2});
    MatrixPtr mean = matrix(3, 1, {0.5f, 1, 0.25f}), root = matrix(3, 1, {0.5f, 0, 0});
    dl_batch_normalize(m.get(), offset.get(), scale.get(), mean.get(), root.get());
    EXPECT_EQ(m->item[0], 5.0f);
    EXPECT_EQ(m->item[1], -INFINITY);
    EXPECT_TRUE(std::isnan(m->item[2]));  // 0 / 0
}

TEST(BatchNormalizeQ, ItemsAndZeroRootItem)
{
    // m = [3.0, -1.0], mean 1.0: [2.0, -2.0] at -13. The second root quantised
    // to 0: its quotient is the largest negative item, which the sanity check
    // after the division reports, then scale 1.0 and offset 0.5.
    MatrixqPtr m = qmatrix(2, 1, -13, {24576, -8192});
    MatrixqPtr mean = qmatrix(2, 1, -14, {16384, 16384});
    MatrixqPtr root = qmatrix(2, 1, -15, {16384, 0});  // 0.5
    MatrixqPtr scale = qmatrix(2, 1, -14, {16384, 16384});
    MatrixqPtr offset = qmatrix(2, 1, -12, {2048, 2048});
    testing::internal::CaptureStderr();
    dl_batch_normalize_q(m.get(), offset.get(), scale.get(), mean.get(), root.get(), 14);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CheckSanity: batch_normalize_q after div: 50.000000% of items is clipped!\n");
    // 4.5, and -32767 at -12 times 1.0 plus 0.5.
    EXPECT_EQ(state(m.get()), QState({4608, -7680}, -10));
}

// The exponent of m after the four steps: max(e_m, e_mean) - e_root - shift
// + e_scale + 16, or e_offset if that is larger.
struct BnExponentCase {
    const char *name;
    int m, mean, root, shift, scale, offset, want;
};

void PrintTo(const BnExponentCase &c, std::ostream *os) { *os << c.name; }

class BatchNormalizeQExponentTest : public testing::TestWithParam<BnExponentCase> {};

TEST_P(BatchNormalizeQExponentTest, FollowsEachStep)
{
    const BnExponentCase &c = GetParam();
    MatrixqPtr m = qmatrix(1, 1, c.m, {20000}), mean = qmatrix(1, 1, c.mean, {3}),
               root = qmatrix(1, 1, c.root, {17000});
    MatrixqPtr scale = qmatrix(1, 1, c.scale, {20000}), offset = qmatrix(1, 1, c.offset, {5});
    testing::internal::CaptureStderr();
    dl_batch_normalize_q(m.get(), offset.get(), scale.get(), mean.get(), root.get(), c.shift);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(m->exponent, c.want);
}

INSTANTIATE_TEST_SUITE_P(Steps, BatchNormalizeQExponentTest,
                         testing::Values(BnExponentCase{"m_larger", -13, -14, -15, 14, -14, -12, -10},
                                         BnExponentCase{"mean_larger", -14, -10, -15, 2, -15, -30, 4},
                                         BnExponentCase{"offset_larger", -14, -14, -12, 0, -15, 0, 0}),
                         CaseName());

// ---- Batch-normalisation variance -----------------------------------------

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
    const float root = static_cast<float>(std::sqrt(static_cast<double>(eps)));
    EXPECT_EQ(items_of(v.get()), (std::vector<float>{root, 2.0f, 0, 0, 0, 0}));

    // Into a separate record, the input left as it was.
    MatrixPtr in = matrix(2, 1, {3.0f, 8.0f}), out = own(dl_matrix_alloc(2, 1));
    dl_batch_normalize_get_sqrtvar(in.get(), 1.0f, out.get());
    EXPECT_EQ(items_of(out.get()), (std::vector<float>{2.0f, 3.0f}));
    EXPECT_EQ(in->item[0], 3.0f);
}

TEST(BatchNormSqrtvarDeathTest, ShapesDiffer)
{
    MatrixPtr v = matrix(2, 1, {1, 2}), out = own(dl_matrix_alloc(1, 2));
    EXPECT_DEATH(dl_batch_normalize_get_sqrtvar(v.get(), 0.001f, out.get()),
                 "a: 2 x 1, b: 1 x 2\n.*Assertion `dl_matrix_same_shape\\(variance, out\\)' failed");
}

}  // namespace
