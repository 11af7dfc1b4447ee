#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

// ---- Float activations ---------------------------------------------------

struct ScalarCase {
    const char *name;
    float (*op)(float);
    float x, want;
};

void PrintTo(const ScalarCase &c, std::ostream *os) { *os << c.name << "(" << c.x << ")"; }

float fast_exp8(float x) { return fast_exp(x, 8); }
float relu6(float x) { return dl_relu_op(x, 6.0f); }
float relu_negative_clip(float x) { return dl_relu_op(x, -2.0f); }

class ScalarActivationTest : public testing::TestWithParam<ScalarCase> {};

// The values are stated to five decimals.
TEST_P(ScalarActivationTest, StatedValue)
{
    const ScalarCase &c = GetParam();
    const float got = c.op(c.x);
    if (std::isnan(c.want)) EXPECT_TRUE(std::isnan(got)) << got;
    else if (std::isinf(c.want) || c.want == 0.0f || c.want == 1.0f) EXPECT_EQ(got, c.want);
    else EXPECT_NEAR(got, c.want, 5e-6f);
}

INSTANTIATE_TEST_SUITE_P(
    Points, ScalarActivationTest,
    testing::Values(
        ScalarCase{"sigmoid", dl_sigmoid_op, 0.0f, 0.5f}, ScalarCase{"sigmoid", dl_sigmoid_op, 0.25f, 0.56128f},
        ScalarCase{"sigmoid", dl_sigmoid_op, 1.25f, 0.77417f},  // midway between entries 2 and 3
        ScalarCase{"sigmoid", dl_sigmoid_op, -1.25f, 0.22583f}, ScalarCase{"sigmoid", dl_sigmoid_op, 7.25f, 0.99951f},
        ScalarCase{"sigmoid", dl_sigmoid_op, 7.5f, 1.0f}, ScalarCase{"sigmoid", dl_sigmoid_op, kInf, 1.0f},
        ScalarCase{"sigmoid", dl_sigmoid_op, 3e9f, 1.0f},  // beyond 32 bits once halved
        ScalarCase{"sigmoid", dl_sigmoid_op, -7.5f, 0.0f}, ScalarCase{"sigmoid", dl_sigmoid_op, -kInf, 0.0f},
        ScalarCase{"sigmoid", dl_sigmoid_op, NAN, 1.0f},  // fails both tests
        ScalarCase{"tanh", dl_tanh_op, 0.0f, 0.0f}, ScalarCase{"tanh", dl_tanh_op, 0.5f, 0.46192f},
        ScalarCase{"tanh", dl_tanh_op, 3.75f, 1.0f}, ScalarCase{"tanh", dl_tanh_op, -3.75f, -1.0f},
        ScalarCase{"tanh", dl_tanh_op, NAN, 1.0f}, ScalarCase{"fast_exp", fast_exp8, 0.0f, 1.0f},
        ScalarCase{"fast_exp", fast_exp8, 1.0f, 2.71299f}, ScalarCase{"fast_exp", fast_exp8, 2.0f, 7.33185f},
        ScalarCase{"fast_exp", fast_exp8, -1.0f, 0.36716f},
        // Not monotonic far below zero: the base turns negative.
        ScalarCase{"fast_exp", fast_exp8, -256.0f, 0.0f}, ScalarCase{"fast_exp", fast_exp8, -512.0f, 1.0f},
        ScalarCase{"fast_exp", fast_exp8, -768.0f, kInf}, ScalarCase{"fast_exp", fast_exp8, 106.1f, kInf},
        ScalarCase{"relu", relu6, -0.5f, 0.0f}, ScalarCase{"relu", relu6, 6.0f, 6.0f},
        ScalarCase{"relu", relu6, 6.5f, 6.0f}, ScalarCase{"relu", relu6, NAN, NAN},
        ScalarCase{"relu", relu_negative_clip, -1.0f, 0.0f}, ScalarCase{"relu", relu_negative_clip, 3.0f, -2.0f}));

TEST(Relu, NoClip)
{
    MatrixPtr m = matrix(4, 1, {-1.0f, 0.0f, 3e30f, NAN});
    dl_relu_noclip(m.get(), m.get());
    EXPECT_EQ(m->item[0], 0.0f);
    EXPECT_EQ(m->item[1], 0.0f);
    EXPECT_EQ(m->item[2], 3e30f);
    EXPECT_TRUE(std::isnan(m->item[3]));
    MatrixqPtr q = qmatrix(3, 1, -3, {-5, 0, 32767});
    MatrixqPtr out = own(dl_matrixq_alloc(3, 1));
    dl_relu_noclip_q(q.get(), out.get());
    EXPECT_EQ(state(out.get()), QState({0, 0, 32767}, -3));
}

TEST(Softmax, OverTheWholeMatrixWithoutGuards)
{
    MatrixPtr z = matrix(2, 2, {0, 0, 0, 0});
    dl_softmax(z.get(), z.get());
    for (int i = 0; i < 4; i++) EXPECT_EQ(z->item[i], 0.25f);  // a row sums to 0.5

    // In place equals out of place.
    MatrixPtr a = matrix(3, 1, {1.0f, -2.0f, 0.5f}), out = own(dl_matrix_alloc(3, 1));
    dl_softmax(a.get(), out.get());
    dl_softmax(a.get(), a.get());
    for (int i = 0; i < 3; i++) EXPECT_EQ(a->item[i], out->item[i]);
    EXPECT_NEAR(out->item[0], fast_exp(1.0, 8) / (fast_exp(1.0, 8) + fast_exp(-2.0, 8) + fast_exp(0.5, 8)), 1e-7);

    // An infinite sum, and 0 / 0.
    MatrixPtr big = matrix(2, 1, {200.0f, 1.0f}), zeros = matrix(2, 1, {-256.0f, -256.0f});
    dl_softmax(big.get(), big.get());
    dl_softmax(zeros.get(), zeros.get());
    EXPECT_TRUE(std::isnan(big->item[0]) && big->item[1] == 0.0f);
    EXPECT_TRUE(std::isnan(zeros->item[0]) && std::isnan(zeros->item[1]));
}

// ---- Fixed-point activations ---------------------------------------------

TEST(SigmoidQ, TablePointsAndLimits)
{
    const int entries[] = {16383, 20399, 23951, 26783, 28863, 30287, 31215, 31806,
                           32174, 32399, 32542, 32638, 32687, 32719, 32734};
    // At a table point the weights sum to 32767 but the shift divides by
    // 32768: one below the entry.
    for (int i = 0; i < 15; i++) EXPECT_EQ(dl_sigmoid_op_q(i << 14), entries[i] - 1) << i;
    EXPECT_EQ(dl_sigmoid_op_q(245760), 32767);  // 7.5
    EXPECT_EQ(dl_sigmoid_op_q(245759), 32765);  // just below: no jump of more than the last step
    EXPECT_EQ(dl_sigmoid_op_q(-245760), 0);
    EXPECT_EQ(dl_sigmoid_op_q(1 << 30), 32767);  // 2x beyond 32 bits
    EXPECT_EQ(dl_sigmoid_op_q(INT32_MAX), 32767);
    EXPECT_EQ(dl_sigmoid_op_q(INT32_MIN), 0);
    for (int x : {1, 100, 16384, 99999, 200001}) EXPECT_EQ(dl_sigmoid_op_q(-x) + dl_sigmoid_op_q(x), 32767) << x;

    EXPECT_EQ(dl_tanh_op_q(0), 0);
    EXPECT_EQ(dl_tanh_op_q(122880), 32767);  // 3.75
    EXPECT_EQ(dl_tanh_op_q(-122880), -32767);
    EXPECT_EQ(dl_tanh_op_q(16384), static_cast<int>(32767.0f * dl_tanh_op(16384 / 32767.0f)));
}

// dl_sigmoid_op with its interpolation in double precision, as the model
// defines it: dl_tanh_op_q must give what it gives.
float sigmoid_in_double(float x)
{
    static const float steps[16] = {0.5f,     0.62256f, 0.73096f, 0.81738f, 0.88086f, 0.92432f, 0.95264f, 0.9707f,
                                    0.98193f, 0.98877f, 0.99316f, 0.99609f, 0.99756f, 0.99854f, 0.99902f, 1.0f};
    if (0.0f > x) return 1.0f - sigmoid_in_double(-x);
    const float t = x / 0.5f;
    if (!(t < 15.0f)) return 1.0f;
    const int i = static_cast<int>(t);
    const float f = t - static_cast<float>(i);
    return static_cast<float>(static_cast<double>(steps[i + 1] * f) +
                              static_cast<double>(steps[i]) * (1.0 - static_cast<double>(f)));
}

int tanh_q_in_double(int32_t x)
{
    const float a = static_cast<float>(x) / 32767.0f;
    const float s = sigmoid_in_double(a + a);
    return static_cast<int>(32767.0f * ((s + s) - 1.0f));
}

// Every input that dl_tanh_q can hand to dl_tanh_op_q: each int16 item
// aligned by any shift. Right shifts and small left shifts stay within
// +-2^18, which is covered whole; larger ones are items times 2^s (or
// saturated), far into the flat ends, and checked item by item.
TEST(TanhQ, SameAsTheDoubleFormulaForEveryAlignedItem)
{
    int64_t mismatches = 0, first = 0;
    auto check = [&](int32_t x) {
        if (dl_tanh_op_q(x) != tanh_q_in_double(x) && mismatches++ == 0) first = x;
    };
    for (int32_t x = -(1 << 18); x <= (1 << 18); x++) check(x);
    for (int s = 1; s <= 17; s++)
        for (int32_t item = -32768; item <= 32767; item++) {
            const int64_t v = static_cast<int64_t>(item) * (INT64_C(1) << s);
            if (v > -(1 << 18) && v < (1 << 18)) continue;
            check(v > INT32_MAX ? INT32_MAX : v < -INT32_MAX ? -INT32_MAX : static_cast<int32_t>(v));
        }
    EXPECT_EQ(mismatches, 0) << "first at " << first;
}

// Items run through dl_sigmoid_q in place, one row: the alignment to Q15 by
// the input's exponent.
struct AlignCase {
    int exponent;
    std::vector<int> items, want;
};

void PrintTo(const AlignCase &c, std::ostream *os) { *os << "exponent " << c.exponent; }

class SigmoidQAlignTest : public testing::TestWithParam<AlignCase> {};

TEST_P(SigmoidQAlignTest, ItemsAndExponent)
{
    const AlignCase &c = GetParam();
    const int w = static_cast<int>(c.items.size());
    MatrixqPtr m = qmatrix(w, 1, c.exponent, c.items);
    dl_sigmoid_q(m.get(), m.get());
    EXPECT_EQ(state(m.get()), QState(c.want, -15));
}

INSTANTIATE_TEST_SUITE_P(Exponents, SigmoidQAlignTest,
                         testing::Values(AlignCase{0, {8, -8, 0}, {32767, 0, 16382}},              // 8.0 and -8.0
                                         AlignCase{-15, {16384, -16384}, {20398, 32767 - 20398}},  // unshifted
                                         AlignCase{
                                             -16, {32768 - 1, -1}, {20398, 32767 - 16382}},  // halved; -1 stays -1
                                         // Aligned values beyond 32 bits saturate, tiny ones end at 0 or -1.
                                         AlignCase{20, {1, -1, 0}, {32767, 0, 16382}}, AlignCase{1, {-32768}, {0}},
                                         AlignCase{-60, {32767, -32767}, {16382, 16385}}, AlignCase{-5, {}, {}}));

struct ReluCase {
    float clip;
    int exponent, limit;
};

void PrintTo(const ReluCase &c, std::ostream *os) { *os << "clip " << c.clip << " at exponent " << c.exponent; }

class ReluQTest : public testing::TestWithParam<ReluCase> {};

TEST_P(ReluQTest, LimitAtTheExponent)
{
    const ReluCase &c = GetParam();
    const std::vector<int> in = {-5, 0, 1, 96, 200, 32767};
    MatrixqPtr m = qmatrix(2, 3, c.exponent, in);
    dl_relu_q(m.get(), c.clip, m.get());
    std::vector<int> want;
    for (int v : in) want.push_back(v < 0 ? 0 : v > c.limit ? c.limit : v);
    EXPECT_EQ(state(m.get()), QState(want, c.exponent));
}

INSTANTIATE_TEST_SUITE_P(Clips, ReluQTest,
                         testing::Values(ReluCase{6.0f, -4, 96}, ReluCase{6.0f, 0, 6}, ReluCase{6.0f, 2, 1},
                                         ReluCase{6.0f, -15, 32767}, ReluCase{0.0f, -15, 0}, ReluCase{kInf, 0, 32767}));

TEST(SoftmaxQ, QuarterOfZeroMatrixAndInPlace)
{
    MatrixqPtr z = qmatrix(2, 2, 3, {0, 0, 0, 0});
    dl_softmax_q(z.get(), z.get());
    EXPECT_EQ(state(z.get()), QState({8192, 8192, 8192, 8192}, -15));

    // In place the exponent is the input's for each read: the same items as
    // with two records.
    MatrixqPtr a = qmatrix(3, 2, -12, {4096, -8192, 0, 2048, 12288, -4096});
    MatrixqPtr out = qmatrix(3, 2, -12, {0, 0, 0, 0, 0, 0});
    dl_softmax_q(a.get(), out.get());
    dl_softmax_q(a.get(), a.get());
    EXPECT_EQ(out->exponent, -15);
    EXPECT_EQ(state(a.get()), state(out.get()));
    EXPECT_EQ(item(out.get(), 1, 1), static_cast<int>(fast_exp(3.0, 8) /
                                                      (fast_exp(1, 8) + fast_exp(-2, 8) + fast_exp(0, 8) +
                                                       fast_exp(0.5, 8) + fast_exp(3, 8) + fast_exp(-1, 8)) *
                                                      32768.0f));

    MatrixqPtr empty = qmatrix(0, 1, 4, {});
    dl_softmax_q(empty.get(), empty.get());
    EXPECT_EQ(empty->exponent, 4);

    // 100.0 dwarfs the rest: its quotient rounds to 1.0; 120.0 overflows
    // fast_exp and its quotient is NaN. Both become the largest item, and the
    // others keep their meaning at -15.
    for (int big : {100, 120}) {
        MatrixqPtr m = qmatrix(3, 1, 0, {1, big, 0});
        dl_softmax_q(m.get(), m.get());
        EXPECT_EQ(state(m.get()), QState({0, 32767, 0}, -15)) << big;
    }
}

// ---- Contract ------------------------------------------------------------

dl_matrix2d_t *f(int w, int h) { return dl_matrix_alloc(w, h); }
dl_matrix2dq_t *q(int w, int h) { return dl_matrixq_alloc(w, h); }

const DeathCase kActivationDeathTestCases[] = {
    {"sigmoid", [] { dl_sigmoid(f(2, 1), f(1, 2)); }, "dl_sigmoid: Assertion `dl_matrix_same_shape\\(in, out\\)'"},
    {"tanh", [] { dl_tanh(f(2, 1), f(1, 2)); }, "dl_tanh: Assertion `dl_matrix_same_shape\\(in, out\\)'"},
    {"relu", [] { dl_relu(f(2, 1), 1.0f, f(1, 2)); }, "dl_relu: Assertion `dl_matrix_same_shape\\(in, out\\)'"},
    {"sigmoid_q", [] { dl_sigmoid_q(q(2, 1), q(1, 2)); },
     "dl_sigmoid_q: Assertion `dl_matrixq_same_shape\\(in, out\\)'"},
    {"tanh_q", [] { dl_tanh_q(q(2, 1), q(1, 2)); }, "dl_tanh_q: Assertion `dl_matrixq_same_shape\\(in, out\\)'"},
    {"relu_q", [] { dl_relu_q(q(2, 1), 1.0f, q(1, 2)); }, "dl_relu_q: Assertion `dl_matrixq_same_shape\\(in, out\\)'"},
    {"softmax_into_small", [] { dl_softmax(f(2, 1), f(1, 1)); },
     "dl_softmax: Assertion `out->w>=in->w && out->h>=in->h'"},
    {"softmax_q_into_small", [] { dl_softmax_q(q(1, 2), q(1, 1)); },
     "dl_softmax_q: Assertion `out->w>=in->w && out->h>=in->h'"}};

DEATH_TEST_TABLE(ActivationDeathTest, kActivationDeathTestCases);

// ---- The activations' instruction-set kernels ------------------------------

// Sigmoid and tanh, by the kernel and by the scalar op.
const dl::Activation kActivations[] = {dl::Activation::sigmoid, dl::Activation::tanh};

class ActivationKernelTest : public IsaTest {};

// Every item at every alignment the kernel takes, against the scalar op: all
// 65,536 items, shifted right by 0 to 31 or left by 1 to 15, in one run
// whose length leaves a tail.
TEST_P(ActivationKernelTest, Q15SameAsScalarOpForEveryItemAndShift)
{
    const dl::Isa isa = GetParam();
    std::vector<qtp_t> in(65536 + 5), out(in.size());
    for (size_t i = 0; i < in.size(); i++) in[i] = static_cast<qtp_t>(static_cast<int32_t>(i) - 32768);
    for (dl::Activation act : kActivations) {
        for (int s = -31; s <= 15; s++) {
            ASSERT_TRUE(dl::activation_q15_kernel(isa, act, in.data(), out.data(), static_cast<int>(in.size()), s));
            for (size_t i = 0; i < in.size(); i++) {
                const int32_t x = s > 0 ? in[i] * (1 << s) : in[i] >> -s;
                const int32_t want = act == dl::Activation::sigmoid ? dl_sigmoid_op_q(x) : dl_tanh_op_q(x);
                ASSERT_EQ(out[i], static_cast<qtp_t>(want)) << "item " << in[i] << " shift " << s;
            }
        }
        // Shifts of 16 and more go to the scalar op.
        EXPECT_FALSE(dl::activation_q15_kernel(isa, act, in.data(), out.data(), 8, 16));
    }
}

// Floats around every table point, across the flat ends, and the special
// values, in runs of every length up to a few vectors, against the scalar op
// bit for bit.
TEST_P(ActivationKernelTest, FloatSameAsScalarOp)
{
    const dl::Isa isa = GetParam();
    Rng rng(5);
    std::vector<float> in;
    const float inf = std::numeric_limits<float>::infinity();
    for (float v : {0.0f, -0.0f, inf, -inf, std::numeric_limits<float>::quiet_NaN(), 1e-40f, -1e-40f, 3e38f, -3e38f})
        in.push_back(v);
    for (int i = -20; i <= 20; i++)
        for (int d = -2; d <= 2; d++) in.push_back(std::nextafter(0.5f * i, d < 0 ? -inf : inf) + 1e-7f * d);
    while (in.size() < 20000) in.push_back(any_float(rng) * static_cast<float>(uniform(rng, 1, 6)));
    std::vector<float> out(in.size());
    for (dl::Activation act : kActivations) {
        for (size_t start = 0, n = 0; start < in.size(); start += n, n = (n + 1) % 27) {
            const size_t len = std::min(n, in.size() - start);
            ASSERT_TRUE(dl::activation_kernel(isa, act, in.data() + start, out.data() + start, static_cast<int>(len)));
        }
        for (size_t i = 0; i < in.size(); i++) {
            const float want = act == dl::Activation::sigmoid ? dl_sigmoid_op(in[i]) : dl_tanh_op(in[i]);
            ASSERT_TRUE(same_float(out[i], want)) << in[i] << ": " << out[i] << " != " << want;
        }
    }
}

// The clipped ReLU kernel against dl_relu_op, clips of every kind included
// (negative, NaN, infinite), on runs of every length up to a few vectors.
TEST_P(ActivationKernelTest, ReluSameAsScalarOp)
{
    const dl::Isa isa = GetParam();
    Rng rng(9);
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    for (float clip : {6.0f, 0.0f, -1.0f, inf, nan, 1e-40f})
        for (int n = 0; n < 40; n++) {
            std::vector<float> in(n), out(n);
            for (float &v : in) v = uniform(rng, 0, 9) ? any_float(rng) * 4.0f : (uniform(rng, 0, 1) ? nan : -0.0f);
            ASSERT_TRUE(dl::relu_kernel(isa, in.data(), out.data(), n, clip));
            for (int i = 0; i < n; i++)
                ASSERT_TRUE(same_float(out[i], dl_relu_op(in[i], clip))) << in[i] << " clip " << clip;
        }
}

INSTANTIATE_TEST_SUITE_P(Kernels, ActivationKernelTest, testing::Values(dl::Isa::avx2, dl::Isa::avx512),
                         testing::PrintToStringParamName());

}  // namespace
