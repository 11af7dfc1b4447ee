#include <gtest/gtest.h>

#include <cmath>

#include "dl_lib.h"
#include "dl_lib_internal.h"
#include "reference.h"
#include "test_util.h"

using namespace testutil;
using namespace ref;

namespace {

// The quantiser's exponent search and rounding at their boundaries.
struct QuantCase {
    const char *name;
    std::vector<float> values;  // one row
    int exponent;
    std::vector<int> items;
};

void PrintTo(const QuantCase &c, std::ostream *os) { *os << c.name; }

class QuantiseTest : public testing::TestWithParam<QuantCase> {};

TEST_P(QuantiseTest, ExponentAndItems)
{
    const QuantCase &c = GetParam();
    const int w = static_cast<int>(c.values.size());
    MatrixPtr m = matrix(w, 1, c.values);
    MatrixqPtr q = own(dl_matrixq_from_matrix2d(m.get(), nullptr));
    EXPECT_EQ(state(q.get()), QState(c.items, c.exponent));
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, QuantiseTest,
    testing::Values(QuantCase{"zeros", {0.0f, -0.0f}, 0, {0, 0}},           // exponent 0, not -31
                    QuantCase{"one", {1.0f, -1.0f}, -14, {16384, -16383}},  // negatives land one unit up
                    QuantCase{"half", {0.5f}, -15, {16384}}, QuantCase{"three", {3.0f}, -13, {24576}},
                    QuantCase{"tenth", {0.1f}, -18, {26214}}, QuantCase{"low_bound", {16383.0f}, 0, {16383}},
                    QuantCase{"below_low_bound", {16382.0f}, -1, {32764}},
                    QuantCase{"top_bound", {32767.0f, -32767.0f}, 0, {32767, -32766}},
                    QuantCase{"above_top_bound", {32768.0f}, 1, {16384}},
                    QuantCase{"negative_peak", {-4.0f, 1.0f}, -12, {-16383, 4096}},
                    // With exponent 0: -1.0 -> 0, -1.5 -> -1, -2.0 -> -1 (truncation of v + 0.5).
                    QuantCase{"rounding", {20000.0f, -1.0f, -1.5f, -2.0f, 2.5f}, 0, {20000, 0, -1, -1, 3}},
                    // A NaN elsewhere takes no part in the range and stores 0.
                    QuantCase{"nan_elsewhere", {1.0f, NAN}, -14, {16384, 0}},
                    // A NaN first makes the range NaN: exponent 0, items truncate v + 0.5.
                    QuantCase{"nan_first", {NAN, 100.7f, -3.7f}, 0, {0, 101, -3}},
                    // An infinity has no exponent that fits; the search stops instead of
                    // running for ever.
                    QuantCase{"infinite_peak", {INFINITY, 1.0f}, 128, {0, 0}}),
    CaseName());

TEST(Quantise, OddHeightAndGivenViewKeepTheirStrides)
{
    MatrixPtr m = matrix(2, 3, {1, 2, 3, 4, 5, 6});
    MatrixqPtr q = own(dl_matrixq_from_matrix2d(m.get(), nullptr));
    ASSERT_EQ(q->stride, 4);
    EXPECT_EQ(state(q.get()), QState({4096, 8192, 12288, 16384, 20480, 24576}, -12));
    EXPECT_EQ(q->itemq[3], 0) << "the spare slot stays untouched";
    // And back to a float matrix through both strides.
    MatrixPtr back = own(dl_matrix2d_from_matrixq(q.get(), nullptr));
    EXPECT_EQ(items_of(back.get()), items_of(m.get()));

    // Into a 2 x 3 view at stride 4 that starts one item in.
    MatrixqPtr parent = own(dl_matrixq_alloc(4, 4));
    dl_matrix2dq_t view = {2, 3, 4, DL_MF_FOREIGNDATA, 0, parent->itemq + 1};
    EXPECT_EQ(dl_matrixq_from_matrix2d(m.get(), &view), &view);
    EXPECT_EQ(view.exponent, -12);
    EXPECT_EQ(std::vector<int>(parent->itemq, parent->itemq + 6), (std::vector<int>{0, 4096, 12288, 20480, 0, 8192}));
}

TEST(QuantiseByQmf, ClipsAndScales)
{
    MatrixPtr m = matrix(4, 1, {3.0f, 100.0f, -100.0f, NAN});
    MatrixqPtr q = own(dl_matrixq_from_matrix2d_by_qmf(m.get(), nullptr, 4, 4));
    // 100.0 clips to 8.0; -128 + 0.5 truncates toward zero.
    EXPECT_EQ(state(q.get()), QState({48, 128, -127, 0}, -4));
}

TEST(MatrixqRecord, AllocAndFree)
{
    for (auto [h, stride] : {std::pair{1, 1}, {2, 2}, {3, 4}, {4, 4}, {0, 0}}) {
        MatrixqPtr q = own(dl_matrixq_alloc(5, h));
        EXPECT_EQ(q->stride, stride) << "h " << h;
        EXPECT_EQ(q->exponent, -31);
        EXPECT_EQ(q->flags, 0u);
    }
    // Empty matrices as a hostile file can declare them: the greatest height
    // keeps an odd stride (h + 1 overflows), and the quantiser neither walks
    // two billion empty columns nor finds a range in them.
    for (auto [w, h] : {std::pair{0, INT32_MAX}, {INT32_MAX, 0}}) {
        MatrixqPtr q = own(dl_matrixq_alloc(w, h));
        EXPECT_EQ(q->stride, h) << w << " x " << h;
        dl_matrix2d_t *f = dl_matrix_from_data(w, h, w, nullptr);
        EXPECT_EQ(dl_matrixq_from_matrix2d(f, q.get())->exponent, 0);
        dl_matrix_free(f);
    }
    qtp_t items[2] = {7, 8};
    auto *m = static_cast<dl_matrix2dq_t *>(calloc(1, sizeof(dl_matrix2dq_t)));
    *m = {1, 2, 2, DL_MF_FOREIGNDATA, 0, items};
    dl_matrixq_free(m);  // leaves the foreign items alone
    dl_matrixq_free(nullptr);
    EXPECT_EQ(items[1], 8);
}

TEST(MatrixqRecord, Messages)
{
    MatrixqPtr a = own(dl_matrixq_alloc(2, 3)), b = own(dl_matrixq_alloc(3, 2));
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_matrixq_same_shape(a.get(), b.get()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "dl_matrix_same_shape: Matrices not the same shape! a: 2 x 3, b: 3 x 2\n");

    MatrixqPtr q = own(dl_matrixq_alloc(2, 1));
    q->itemq[0] = 3;
    q->itemq[1] = -2;
    q->exponent = -1;
    testing::internal::CaptureStdout();
    dl_printmatrixq(q.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Matrixq: exponent -1\n     3 ( 1.50)       -2 (-1.00)   \n");
}

// The quantiser's kernels for one row against the scalar passes: the
// extremes (equal, or zeros of either sign where zeros tie), and every item,
// on rows with NaN, infinities, values beyond 32 bits and every tail length.
class QuantiseKernelTest : public IsaTest {};

TEST_P(QuantiseKernelTest, SameAsScalarPasses)
{
    const dl::Isa isa = GetParam();
    Rng rng(3);
    for (int round = 0; round < 300; round++) {
        const int n = uniform(rng, 0, 70);
        MatrixPtr m = own(dl_matrix_alloc(n, 1));
        for (int x = 0; x < n; x++) m->item[x] = any_float(rng);
        if (n > 0 && round % 7 == 0) m->item[uniform(rng, 0, n - 1)] = NAN;
        if (n > 0 && round % 11 == 0) m->item[uniform(rng, 0, n - 1)] = -INFINITY;
        float lo, hi, want_lo, want_hi;
        matrix_get_range(m.get(), &want_lo, &want_hi);
        ASSERT_TRUE(dl::float_range_kernel(isa, m->item, n, &lo, &hi));
        ASSERT_TRUE(same_float(lo, want_lo) || (lo == 0.0f && want_lo == 0.0f)) << lo << " " << want_lo;
        ASSERT_TRUE(same_float(hi, want_hi) || (hi == 0.0f && want_hi == 0.0f)) << hi << " " << want_hi;
        const float half = std::ldexp(0.5f, uniform(rng, -20, 4)), mult = std::ldexp(1.0f, uniform(rng, -4, 20));
        std::vector<qtp_t> items(static_cast<size_t>(n) + 1, 77);
        ASSERT_TRUE(dl::quantise_kernel(isa, m->item, n, half, mult, items.data()));
        for (int x = 0; x < n; x++)
            ASSERT_EQ(items[x], dl::low16(dl::trunc_i32((m->item[x] + half) * mult))) << m->item[x];
        ASSERT_EQ(items[n], 77);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, QuantiseKernelTest, testing::Values(dl::Isa::avx2, dl::Isa::avx512),
                         [](const auto &info) { return std::string(dl::isa_name(info.param)); });

}  // namespace
