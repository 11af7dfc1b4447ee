#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <memory>
#include <vector>

#include "dl_lib.h"
#include "reference.h"

using ref::QState;
using ref::state;
using testutil::CaseName;

namespace {

// Generated tables initialise these records by field name; the layout is
// what a device reads.
static_assert(offsetof(dl_matrix3d_t, n) == 12 && offsetof(dl_matrix3d_t, stride) == 16);
static_assert(offsetof(dl_matrix3du_t, n) == 12 && offsetof(dl_matrix3du_t, stride) == 16);
static_assert(offsetof(dl_matrix3dq_t, stride) == 16 && offsetof(dl_matrix3dq_t, exponent) == 20);

template <class T, void (*Free)(T *)>
struct Freer {
    void operator()(T *t) const { Free(t); }
};
using Tensor = std::unique_ptr<dl_matrix3d_t, Freer<dl_matrix3d_t, dl_matrix3d_free>>;
using TensorQ = std::unique_ptr<dl_matrix3dq_t, Freer<dl_matrix3dq_t, dl_matrix3dq_free>>;
using TensorU = std::unique_ptr<dl_matrix3du_t, Freer<dl_matrix3du_t, dl_matrix3du_free>>;

// A float tensor of n x 1 x 1 x values.size()/n, filled flat.
Tensor tensor(const std::vector<float> &values, int n = 1)
{
    Tensor t(dl_matrix3d_alloc(n, 1, 1, static_cast<int>(values.size()) / n));
    std::copy(values.begin(), values.end(), t->item);
    return t;
}

TEST(TensorRecord, FieldsAndIndexOfTheLayout)
{
    Tensor t(dl_matrix3d_alloc(2, 3, 4, 5));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(std::tuple(t->n, t->w, t->h, t->c, t->stride), std::tuple(2, 3, 4, 5, 15));
    EXPECT_EQ(std::vector<float>(t->item, t->item + 120), std::vector<float>(120, 0.0f));

    TensorQ q(dl_matrix3dq_alloc(1, 2, 2, 1, -3));
    EXPECT_EQ(q->exponent, -3);
    EXPECT_EQ(q->stride, 2);
    TensorU u(dl_matrix3du_alloc(1, 4, 3, 2));
    EXPECT_EQ(u->stride, 8);
    EXPECT_EQ(std::vector<int>(u->item, u->item + 24), std::vector<int>(24, 0));
    dl_matrix3d_free(nullptr);
    dl_matrix3dq_free(nullptr);
    dl_matrix3du_free(nullptr);

    // Empty tensors still have storage.
    for (const auto &d : {std::array{0, 3, 4, 5}, {2, 0, 4, 5}, {2, 3, 0, 5}, {2, 3, 4, 0}}) {
        Tensor e(dl_matrix3d_alloc(d[0], d[1], d[2], d[3]));
        ASSERT_NE(e, nullptr);
        EXPECT_NE(e->item, nullptr);
        EXPECT_EQ(e->stride, d[1] * d[3]);
    }
}

TEST(TensorRecord, UnholdableShapesFailWithTheMessage)
{
    // Negative dimensions, counts beyond 32 bits, a row stride beyond 32
    // bits without elements, and a product beyond even 64 bits.
    const struct {
        int n, w, h, c;
    } cases[] = {{-1, 2, 2, 2},        {1, -3, 2, 2},
                 {1, 1, 1, -1},        {-1, -1, 1, 1},
                 {65536, 65536, 1, 1}, {2, 1024, 1024, 1024},
                 {0, 4, 2, INT32_MAX}, {INT32_MAX, INT32_MAX, INT32_MAX, INT32_MAX}};
    for (const auto &c : cases) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(dl_matrix3d_alloc(c.n, c.w, c.h, c.c), nullptr);
        EXPECT_EQ(dl_matrix3dq_alloc(c.n, c.w, c.h, c.c, 0), nullptr);
        EXPECT_EQ(dl_matrix3du_alloc(c.n, c.w, c.h, c.c), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "matrix3d item alloc failed.\nmatrix3d item alloc failed.\nmatrix3du item alloc failed.\n")
            << c.n << " " << c.w << " " << c.h << " " << c.c;
    }
}

TEST(TensorRecord, BackToFloatIsExact)
{
    for (const auto &[exponent, want] : {std::pair{2, -12.0f}, {-2, -0.75f}, {0, -3.0f}, {-30, -3.0f / (1 << 30)}}) {
        TensorQ q(dl_matrix3dq_alloc(2, 1, 1, 2, exponent));
        q->item[0] = -3;
        q->item[3] = 32767;
        Tensor f(dl_matrix3d_from_matrixq(q.get()));
        EXPECT_EQ(std::tuple(f->n, f->c), std::tuple(2, 2));
        EXPECT_EQ(std::vector<float>(f->item, f->item + 4),
                  (std::vector<float>{want, 0.0f, 0.0f, std::ldexp(32767.0f, exponent)}))
            << exponent;
    }
}

// The exponent search is the matrices' (pinned at its bounds with them); the
// tensor's own loop rounds each item: half a unit added, then toward zero.
struct ExponentCase {
    const char *name;
    std::vector<float> values;
    int exponent;
    std::vector<int> items;  // empty: not checked
};

void PrintTo(const ExponentCase &c, std::ostream *os) { *os << c.name; }

class TensorQuantiseTest : public testing::TestWithParam<ExponentCase> {};

TEST_P(TensorQuantiseTest, ExponentAndItems)
{
    const ExponentCase &c = GetParam();
    Tensor t = tensor(c.values);
    TensorQ q(dl_matrixq_from_matrix3d(t.get()));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(std::tuple(q->exponent, q->c, q->stride), std::tuple(c.exponent, t->c, t->stride));
    EXPECT_EQ(std::vector<int>(q->item, q->item + c.items.size()), c.items);
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(Peaks, TensorQuantiseTest,
                         testing::Values(ExponentCase{"negative_side_only", {-3.0f, -1.0f}, -13, {-24575, -8191}},
                                         ExponentCase{"rounding_at_exponent_0",
                                                      {20000, 1.2f, 1.5f, -1.2f, -1.5f, -2.5f, 0.49f, -1.49f},
                                                      0,
                                                      {20000, 1, 2, 0, -1, -2, 0, 0}},
                                         // A NaN takes no part in the range and is stored as 0;
                                         // in first place it keeps the exponent at 0.
                                         ExponentCase{"nan_elsewhere", {1.0f, kNaN}, -14, {16384, 0}},
                                         ExponentCase{"nan_first", {kNaN, 3.7f, -3.7f, 1e10f}, 0, {0, 4, -3, 0}},
                                         // An infinite peak has no exponent: the search stops, items are 0.
                                         ExponentCase{"infinite_peak", {INFINITY, 1.0f}, 128, {0, 0}}),
                         CaseName());

TEST(TensorQuantise, OneExponentForAllFiltersAndEmpty)
{
    // Filter 1 is large, so filter 0 loses its precision.
    TensorQ q(dl_matrixq_from_matrix3d(tensor({0.001f, 0.002f, 1000.0f, -1.0f}, 2).get()));
    EXPECT_EQ(q->n, 2);
    EXPECT_EQ(state(q.get()), QState({0, 0, 32000, -31}, -5));
    // An empty tensor gets exponent 0.
    Tensor t(dl_matrix3d_alloc(2, 0, 3, 1));
    q.reset(dl_matrixq_from_matrix3d(t.get()));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(std::tuple(q->n, q->w, q->exponent), std::tuple(2, 0, 0));
}

// The clip limits of the given-exponent quantiser are the 16-bit range at
// that exponent; the top clips to 32767 and the bottom to -32767.
TEST(TensorQuantiseQmf, ClipLimitsAndRounding)
{
    const struct {
        int exponent;
        double high, low;
    } cases[] = {
        {0, 32767, -32768},
        {-8, 128 - 1.0 / 256, -128},
        {-15, 1 - 1.0 / 32768, -1},
        {-20, 1.0 / 32 - std::ldexp(1, -20), -1.0 / 32},
        {-30, std::ldexp(1, -15) - std::ldexp(1, -30), -std::ldexp(1, -15)},
    };
    for (const auto &c : cases) {
        const float high = static_cast<float>(c.high), low = static_cast<float>(c.low);
        const float above = std::nextafter(high, INFINITY), below = std::nextafter(low, -INFINITY);
        TensorQ q(dl_matrixq_from_matrix3d_qmf(
            tensor({high, above, 1e30f, INFINITY, low, below, -INFINITY, kNaN}).get(), c.exponent));
        EXPECT_EQ(state(q.get()), QState({32767, 32767, 32767, 32767, -32767, -32767, -32767, 0}, c.exponent));
    }
    TensorQ q(dl_matrixq_from_matrix3d_qmf(tensor({1.2f, 1.5f, -1.2f, -1.5f, 0.75f, -0.75f}).get(), 0));
    EXPECT_EQ(std::vector<int>(q->item, q->item + 6), (std::vector<int>{1, 2, 0, -1, 1, 0}));
    q.reset(dl_matrixq_from_matrix3d_qmf(tensor({0.75f, -0.75f, 0.1f}).get(), -8));
    EXPECT_EQ(std::vector<int>(q->item, q->item + 3), (std::vector<int>{192, -191, 26}));  // 25.6 + 0.5 for 0.1
}

TEST(TensorDeathTest, QmfExponentAboveZero)
{
    EXPECT_DEATH(dl_matrixq_from_matrix3d_qmf(tensor({1.0f}).get(), 1),
                 "tensor.cpp:[0-9]+: .*: Assertion `exponent<=0'");
}

TEST(TensorDeathTest, QmfExponentBelowMinus30)
{
    EXPECT_DEATH(dl_matrixq_from_matrix3d_qmf(tensor({1.0f}).get(), -31), "Assertion `exponent>=-30' failed");
}

}  // namespace
