#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "arith_test_util.h"
#include "dl_lib.h"
#include "kernels_internal.h"
#include "test_util.h"

using namespace testutil;
using namespace arith;

namespace {

// ---- Literal references ----------------------------------------------------

int32_t clamp(int64_t t) { return t > 32767 ? 32767 : t < -32767 ? -32767 : static_cast<int32_t>(t); }

int default_shift(int w)
{
    int s = 15;
    for (int n = w; n > 1; n /= 2) s++;
    return s;
}

int64_t ref_sum(ItemBox &a, ItemBox &b, int x, int y)
{
    int64_t sum = 0;
    for (int k = 0; k < b.m.h; k++) sum += static_cast<int64_t>(a.at(k, y)) * static_cast<int64_t>(b.at(x, k));
    return sum;
}

// A 1 x n or n x 1 record with the given items, at exponent e.
ItemBox items(int w, int h, std::vector<int> v, int e = 0, int pad = 0)
{
    ItemBox box(w, h, pad, e);
    for (int x = 0; x < w; x++)
        for (int y = 0; y < h; y++) box.at(x, y) = static_cast<qtp_t>(v[y + h * x]);
    return box;
}

// ---- Products ------------------------------------------------------------

// Operands of one random product. Narrow items keep sums below 2^24, where
// a float result and an unshifted item show every bit of the sum.
struct Product {
    ItemBox a, b;
    int shift;

    static Product random(Rng &rng, int round)
    {
        const int top = round % 6 == 0 ? 150 : 20;
        const int M = uniform(rng, 0, top), N = uniform(rng, 0, top);
        const int K = round % 25 == 1 ? uniform(rng, 4000, 9000) : uniform(rng, 0, top);
        Product p{ItemBox(rng, K, M, uniform(rng, 0, 2), uniform(rng, -20, 4)),
                  ItemBox(rng, N, K, uniform(rng, 0, 2), uniform(rng, -20, 4)), 0};
        if (round % 3 == 0) {
            p.a.each([](int v) { return v % 91; });
            p.b.each([](int v) { return v % 91; });
        }
        const int s = default_shift(K);
        p.shift = round % 4 == 0 ? s : uniform(rng, 0, s);
        return p;
    }
};

// Every product path: Isa::none is the plain loop, the others the kernels.
class QDotKernelTest : public testing::TestWithParam<dl::Isa> {};

TEST_P(QDotKernelTest, MatchesReferenceBitForBit)
{
    const dl::Isa isa = GetParam();
    if (!dl::isa_usable(isa)) GTEST_SKIP() << dl::isa_name(isa) << " kernel not built or not supported here";
    Rng rng(23);
    for (int round = 0; round < 120; round++) {
        Product p = Product::random(rng, round);
        const int M = p.a.m.h, N = p.b.m.w;
        const int s = default_shift(p.a.m.w) - p.shift;
        ItemBox res(N, M, uniform(rng, 0, 1));
        FloatBox fres(N, M, uniform(rng, 0, 2));
        const dl::QDotOut to_items = dl::qdot_to_items(&res.m, s);
        const dl::QDotOut to_floats = dl::qdot_to_floats(&fres.m, std::ldexp(1.0f, p.a.m.exponent + p.b.m.exponent));
        if (isa == dl::Isa::none) {
            dl::matrixq_dot_plain(&p.a.m, &p.b.m, to_items);
            dl::matrixq_dot_plain(&p.a.m, &p.b.m, to_floats);
        } else {
            ASSERT_TRUE(dl::matrixq_dot_kernel(isa, &p.a.m, &p.b.m, to_items));
            ASSERT_TRUE(dl::matrixq_dot_kernel(isa, &p.a.m, &p.b.m, to_floats));
        }
        for (int x = 0; x < N; x++) {
            for (int y = 0; y < M; y++) {
                const int64_t sum = ref_sum(p.a, p.b, x, y);
                ASSERT_EQ(res.at(x, y), clamp(sum >> s))
                    << dl::isa_name(isa) << " " << M << "x" << p.a.m.w << "x" << N << " at " << x << "," << y;
                ASSERT_EQ(bits(fres.at(x, y)), bits(static_cast<float>(sum) * to_floats.factor))
                    << dl::isa_name(isa) << " " << M << "x" << p.a.m.w << "x" << N << " at " << x << "," << y;
            }
        }
        ASSERT_TRUE(res.margins_intact() && fres.margins_intact());
    }
}

// Sums of many extreme products, the largest that 32-bit partial sums inside
// a kernel could meet: every lane holds the largest products for thousands
// of steps. A float result shows an overflow of 2^32 at once.
TEST_P(QDotKernelTest, ExtremeItemsOverLongSums)
{
    const dl::Isa isa = GetParam();
    if (!dl::isa_usable(isa)) GTEST_SKIP() << dl::isa_name(isa) << " kernel not built or not supported here";
    const int K = 9001;
    const int corner[][2] = {{32767, -32768}, {-32768, -32768}, {-32767, 32767}, {255, -32768}, {-32513, -32768}};
    for (const auto &c : corner) {
        ItemBox a(K, 3, 1), b(2, K, 0);
        a.each([&](int) { return c[0]; });
        b.each([&](int) { return c[1]; });
        a.at(K - 1, 2) = 0;  // one sum slightly off the others
        FloatBox res(2, 3, 0);
        const dl::QDotOut out = dl::qdot_to_floats(&res.m, 1.0f);
        if (isa == dl::Isa::none) dl::matrixq_dot_plain(&a.m, &b.m, out);
        else ASSERT_TRUE(dl::matrixq_dot_kernel(isa, &a.m, &b.m, out));
        for (int y = 0; y < 3; y++) {
            const int64_t sum = static_cast<int64_t>(c[0]) * c[1] * (y == 2 ? K - 1 : K);
            for (int x = 0; x < 2; x++) ASSERT_EQ(res.at(x, y), static_cast<float>(sum)) << c[0] << " " << c[1];
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, QDotKernelTest,
                         testing::Values(dl::Isa::none, dl::Isa::avx2, dl::Isa::avx512, dl::Isa::dsp),
                         [](const auto &info) { return std::string(dl::isa_name(info.param)); });

struct QDotCase {
    const char *name;
    ItemBox a, b;
    int shift;
    std::vector<int> want;  // items of res, column by column
    int exponent;
};

void PrintTo(const QDotCase &c, std::ostream *os) { *os << c.name; }

class QDotGoldenTest : public testing::TestWithParam<QDotCase> {};

TEST_P(QDotGoldenTest, ItemsAndExponent)
{
    QDotCase c = GetParam();
    ItemBox res(c.b.m.w, c.a.m.h, 0, 99);
    dl_matrixq_dot(&c.a.m, &c.b.m, &res.m, c.shift);
    EXPECT_EQ(res.m.exponent, c.exponent);
    for (int x = 0; x < res.m.w; x++)
        for (int y = 0; y < res.m.h; y++) EXPECT_EQ(res.at(x, y), c.want[y + res.m.h * x]) << x << "," << y;
}

const int kMax = 32767;

INSTANTIATE_TEST_SUITE_P(
    Boundaries, QDotGoldenTest,
    testing::Values(
        // Real (1, 1) . (1, 1) = 2: 2^29 >> 16 at exponent -14 - 14 + 16.
        QDotCase{"two_ones", items(2, 1, {16384, 16384}, -14), items(1, 2, {16384, 16384}, -14), 0, {8192}, -12},
        // Width 3: s = 16, and 3 * 32767^2 >> 16 is 49149.
        QDotCase{"saturates_high", items(3, 1, {kMax, kMax, kMax}), items(1, 3, {kMax, kMax, kMax}), 0, {kMax}, 16},
        // shift 2 at width 1: s = 13, so 2^28 reaches 2^15.
        QDotCase{"shift_two", items(1, 2, {16384, 16383}, -3), items(1, 1, {16384}, -4), 2, {kMax, 32766}, 6},
        QDotCase{"empty_sum", items(0, 2, {}, -3), items(2, 0, {}, -2), 0, {0, 0, 0, 0}, 10}),
    CaseName());

TEST(QDotMatrixOut, FactorFromExponentsAndFloatOperand)
{
    MatrixPtr res = own(dl_matrix_alloc(1, 1));
    for (auto [ea, eb, want] :
         {std::tuple{5, -5, 6.0f}, {-18, -17, std::ldexp(6.0f, -35)}, {-70, -70, std::ldexp(6.0f, -140)}}) {
        ItemBox a = items(1, 1, {2}, ea), b = items(1, 1, {3}, eb);
        dl_matrixq_dot_matrix_out(&a.m, &b.m, res.get());
        EXPECT_EQ(res->item[0], want) << ea << " " << eb;
    }
    // A float a = (1.0, -1.0) is quantised first: 16384, -16383 at -14.
    MatrixPtr a = matrix(2, 1, {1.0f, -1.0f});
    ItemBox b = items(1, 2, {1, 3});
    dl_matrix_matrixq_dot(a.get(), &b.m, res.get());
    EXPECT_EQ(res->item[0], std::ldexp(16384.0f - 3 * 16383.0f, -14));
}

// ---- Element-wise literal references ---------------------------------------

struct Snapshot {
    int w, h, exponent;
    std::vector<int32_t> v;  // column by column
    explicit Snapshot(const dl_matrix2dq_t &m) : w(m.w), h(m.h), exponent(m.exponent)
    {
        for (int x = 0; x < w; x++)
            for (int y = 0; y < h; y++) v.push_back(m.itemq[y + m.stride * x]);
    }
    explicit Snapshot(const ItemBox &b) : Snapshot(b.m) {}
};

// add and sub as defined: H the larger exponent (a's when equal), L's items
// shifted right by the difference, the sign of sub following the arguments.
Snapshot ref_add_sub(const Snapshot &a, const Snapshot &b, int shift, bool sub)
{
    Snapshot r = a;
    const bool h_is_a = a.exponent >= b.exponent;
    const Snapshot &H = h_is_a ? a : b, &L = h_is_a ? b : a;
    const int d = H.exponent - L.exponent;
    if (sub && shift != 0) shift = 1;
    r.exponent = shift == 0 ? H.exponent + 1 : H.exponent;
    for (size_t i = 0; i < r.v.size(); i++) {
        const int32_t p = H.v[i], q = L.v[i] >> d;
        const int32_t t = !sub ? p + q : h_is_a ? p - q : q - p;
        r.v[i] = shift == 0 ? t >> 1 : clamp(t);
    }
    return r;
}

Snapshot ref_mul(const Snapshot &a, const Snapshot &b, int)
{
    Snapshot r = a;
    r.exponent = a.exponent + b.exponent + 16;
    for (size_t i = 0; i < r.v.size(); i++) r.v[i] = (a.v[i] * b.v[i]) >> 16;
    return r;
}

Snapshot ref_div(const Snapshot &a, const Snapshot &b, int shift)
{
    Snapshot r = a;
    r.exponent = a.exponent - b.exponent - shift;
    for (size_t i = 0; i < r.v.size(); i++) r.v[i] = clamp((a.v[i] * (1 << shift)) / b.v[i]);
    return r;
}

using QOp = void (*)(const dl_matrix2dq_t *, const dl_matrix2dq_t *, dl_matrix2dq_t *, int);

struct QElementCase {
    const char *name;
    QOp op;
    Snapshot (*ref)(const Snapshot &, const Snapshot &, int);
    int max_shift;
};

void mul_op(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *r, int) { dl_matrixq_mul(a, b, r); }

void PrintTo(const QElementCase &c, std::ostream *os) { *os << c.name; }

enum class Into { fresh, a, b };

void PrintTo(Into into, std::ostream *os)
{
    *os << (into == Into::a ? "over_a" : into == Into::b ? "over_b" : "fresh");
}

class QElementTest : public testing::TestWithParam<std::tuple<QElementCase, Into>> {};

TEST_P(QElementTest, MatchesReferenceThroughViews)
{
    const auto [c, into] = GetParam();
    Rng rng(31);
    for (int round = 0; round < 80; round++) {
        const int w = uniform(rng, 0, 6), h = uniform(rng, 0, 7);
        ItemBox a(rng, w, h, uniform(rng, 0, 2), uniform(rng, -20, 10));
        ItemBox b(rng, w, h, uniform(rng, 0, 2), uniform(rng, -20, 10));
        if (round % 4 == 0) b.m.exponent = a.m.exponent;
        if (c.op == dl_matrixq_div) b.each([](int v) { return v == 0 ? 1 : v; });
        ItemBox fresh(w, h, uniform(rng, 0, 1), 99);
        const int shift = uniform(rng, 0, c.max_shift);
        const Snapshot want = c.ref(Snapshot(a), Snapshot(b), shift);
        ItemBox &out = into == Into::a ? a : into == Into::b ? b : fresh;
        c.op(&a.m, &b.m, &out.m, shift);
        const Snapshot got(out);
        ASSERT_EQ(got.exponent, want.exponent) << "round " << round << " shift " << shift;
        ASSERT_EQ(got.v, want.v) << "round " << round << " shift " << shift;
        ASSERT_TRUE(a.margins_intact() && b.margins_intact() && out.margins_intact());
    }
}

const QElementCase kQElementCases[] = {
    {"add", dl_matrixq_add, [](const Snapshot &a, const Snapshot &b, int s) { return ref_add_sub(a, b, s, false); }, 1},
    {"sub", dl_matrixq_sub, [](const Snapshot &a, const Snapshot &b, int s) { return ref_add_sub(a, b, s, true); }, 3},
    {"mul", mul_op, ref_mul, 0},
    {"div", dl_matrixq_div, ref_div, 16},
};

std::string q_element_name(const testing::TestParamInfo<QElementTest::ParamType> &info)
{
    std::string name = std::get<0>(info.param).name;
    return name + "_" + testing::PrintToString(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Ops, QElementTest,
                         testing::Combine(testing::ValuesIn(kQElementCases),
                                          testing::Values(Into::fresh, Into::a, Into::b)),
                         q_element_name);

// Hand-checked cases: one element each, a and b with their exponents.
struct QPairCase {
    const char *name;
    QOp op;
    int a, ea, b, eb, shift;
    int want, exponent;
};

void PrintTo(const QPairCase &c, std::ostream *os) { *os << c.name; }

class QPairTest : public testing::TestWithParam<QPairCase> {};

TEST_P(QPairTest, ItemAndExponent)
{
    const QPairCase &c = GetParam();
    ItemBox a = items(1, 1, {c.a}, c.ea), b = items(1, 1, {c.b}, c.eb), res(1, 1, 0);
    c.op(&a.m, &b.m, &res.m, c.shift);
    EXPECT_EQ(res.at(0, 0), c.want);
    EXPECT_EQ(res.m.exponent, c.exponent);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, QPairTest,
    testing::Values(QPairCase{"add_aligns_a", dl_matrixq_add, 8, -5, 3, -3, 1, 5, -3},
                    QPairCase{"add_halves_down", dl_matrixq_add, -2, 0, 1, 0, 0, -1, 1},
                    QPairCase{"sub_two_acts_as_one", dl_matrixq_sub, 5, 0, 7, 0, 2, -2, 0},
                    QPairCase{"alignment_keeps_minus_one", dl_matrixq_add, -1, -31, 0, 0, 1, -1, 0},
                    QPairCase{"mul_rounds_down_to_minus_one", mul_op, -1, 0, 1, 0, 0, -1, 16},
                    QPairCase{"mul_largest", mul_op, kMax, 1, -kMax, 2, 0, -16384, 19},
                    QPairCase{"div_truncates_negative", dl_matrixq_div, -7, 0, 2, 0, 0, -3, 0},
                    QPairCase{"div_saturates", dl_matrixq_div, kMax, 3, 1, 1, 1, kMax, 1},
                    // -32768 << 16 is the lowest 32-bit integer: divided by -1
                    // it must saturate, not overflow.
                    QPairCase{"div_lowest_by_minus_one", dl_matrixq_div, -32768, 0, -1, 0, 16, kMax, -16},
                    QPairCase{"div_by_minus_one", dl_matrixq_div, -300, 0, -1, 0, 2, 1200, -2}),
    CaseName());

// ---- Constant addition -----------------------------------------------------

Snapshot ref_add_const(const Snapshot &m, float value, int shift)
{
    Snapshot r = m;
    const float units = m.exponent < 0 ? std::ldexp(1.0f, -m.exponent) * value : value / std::ldexp(1.0f, m.exponent);
    int32_t c = static_cast<int32_t>(units);
    if (c == 0) return r;
    int n = 0;
    while (c > 32766 || c < -32766) {
        n++;
        c /= 2;
    }
    r.exponent += (shift == 0 ? 1 : 0) + n;
    for (int32_t &v : r.v) {
        const int32_t t = (v >> n) + c;
        v = shift == 0 ? t / 2 : clamp(t);
    }
    return r;
}

TEST(QAddConst, MatchesReferenceThroughViews)
{
    Rng rng(37);
    for (int round = 0; round < 300; round++) {
        ItemBox m(rng, uniform(rng, 0, 5), uniform(rng, 0, 5), uniform(rng, 0, 2), uniform(rng, -20, 6));
        const int shift = uniform(rng, 0, 1);
        // Values from below one unit to a few times the range.
        const float value =
            std::ldexp(std::uniform_real_distribution<float>(-1.0f, 1.0f)(rng), m.m.exponent + uniform(rng, -2, 18));
        const Snapshot want = ref_add_const(Snapshot(m), value, shift);
        dl_matrixq_add_const(&m.m, value, shift);
        const Snapshot got(m);
        ASSERT_EQ(got.exponent, want.exponent) << round;
        ASSERT_EQ(got.v, want.v) << round;
        ASSERT_TRUE(m.margins_intact());
    }
}

TEST(QAddConst, Boundaries)
{
    const struct {
        float value;
        int shift;
        std::vector<int> want;
        int exponent;
    } cases[] = {
        {0.9f, 0, {5, -1, kMax}, 0},              // below one unit: nothing at all
        {32766.0f, 1, {kMax, 32765, kMax}, 0},    // fits: no rescaling
        {32767.0f, 1, {16385, 16382, 32766}, 1},  // c 16383, items halved down
        {-32767.0f, 1, {-16381, -16384, 0}, 1},   // c -16383
        {1.0f, 0, {3, 0, 16384}, 1},              // -1 + 1 = 0; 5 + 1 halves to 3
        {-2.0f, 0, {1, -1, 16382}, 1},            // t = -3 halves toward zero to -1
    };
    for (const auto &c : cases) {
        ItemBox m = items(3, 1, {5, -1, kMax});
        dl_matrixq_add_const(&m.m, c.value, c.shift);
        EXPECT_EQ(m.m.exponent, c.exponent) << c.value;
        for (int x = 0; x < 3; x++) EXPECT_EQ(m.at(x, 0), c.want[x]) << c.value << " item " << x;
    }
}

// ---- Joining and reshaping ---------------------------------------------------

TEST(QConcat, AlignsToLargerExponentWithOwnStride)
{
    Rng rng(41);
    for (int round = 0; round < 30; round++) {
        const int h = uniform(rng, 0, 5);
        ItemBox a(rng, uniform(rng, 0, 3), h, uniform(rng, 0, 1), uniform(rng, -10, 0));
        ItemBox b(rng, uniform(rng, 0, 3), h, uniform(rng, 0, 1), uniform(rng, -10, 0));
        MatrixqPtr r = own(dl_matrixq_concat(&a.m, &b.m));
        const int e = std::max(a.m.exponent, b.m.exponent);
        ASSERT_EQ(r->exponent, e);
        ASSERT_EQ(r->stride, h > 1 && h % 2 ? h + 1 : h);
        for (int x = 0; x < r->w; x++)
            for (int y = 0; y < h; y++) {
                const int32_t want =
                    x < a.m.w ? a.at(x, y) >> (e - a.m.exponent) : b.at(x - a.m.w, y) >> (e - b.m.exponent);
                ASSERT_EQ(r->itemq[y + r->stride * x], want);
            }
    }
}

TEST(QSliceFlatten, ViewsAndRowByRowCopies)
{
    // Element (x, y) holds 10 * x + y; stride 4.
    ItemBox src(4, 3, 1, -6);
    for (int x = 0; x < 4; x++)
        for (int y = 0; y < 3; y++) src.at(x, y) = static_cast<qtp_t>(10 * x + y);
    dl_matrix2dq_t *v = dl_matrixq_slice(&src.m, 1, 1, 2, 2, nullptr);
    EXPECT_EQ(Snapshot(*v).v, (std::vector<int32_t>{11, 12, 21, 22}));
    EXPECT_EQ(v->flags, DL_MF_FOREIGNDATA);
    EXPECT_EQ(v->exponent, -6);
    dl_matrixq_slice(&src.m, 0, 2, 4, 1, v);  // the record reused for the last row
    EXPECT_EQ(Snapshot(*v).v, (std::vector<int32_t>{2, 12, 22, 32}));
    dl_matrixq_free(v);
    EXPECT_TRUE(src.margins_intact());

    MatrixqPtr out = own(dl_matrixq_flatten(&src.m, 1, 1, 2, 2, nullptr));
    EXPECT_EQ(std::tuple(out->w, out->h, out->stride, out->exponent), std::tuple(4, 1, 1, -6));
    EXPECT_EQ(Snapshot(*out).v, (std::vector<int32_t>{11, 21, 12, 22}));
    src.at(1, 1) = -5;  // once more into the same record
    EXPECT_EQ(dl_matrixq_flatten(&src.m, 1, 1, 2, 2, out.get()), out.get());
    EXPECT_EQ(out->itemq[0], -5);
}

// ---- Exponent maintenance and element access ---------------------------------

struct SanityCase {
    const char *name;
    std::vector<int> items;
    int sane;
    std::string message;
};

void PrintTo(const SanityCase &c, std::ostream *os) { *os << c.name; }

class SanityTest : public testing::TestWithParam<SanityCase> {};

TEST_P(SanityTest, ResultAndMessage)
{
    const SanityCase &c = GetParam();
    const int n = static_cast<int>(c.items.size());
    ItemBox m = items(1, n, c.items, -3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_matrixq_check_sanity(&m.m, "lstm"), c.sane);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    // The same lines through a handler, and nothing on stderr meanwhile.
    std::string routed;
    dl_set_sanity_handler([](const char *text, void *arg) { *static_cast<std::string *>(arg) += text; }, &routed);
    testing::internal::CaptureStderr();
    dl_matrixq_check_sanity(&m.m, "lstm");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    dl_set_sanity_handler(nullptr, nullptr);
    EXPECT_EQ(routed, c.message);
    EXPECT_EQ(Snapshot(m).v, std::vector<int32_t>(c.items.begin(), c.items.end()));
}

std::vector<int> with_clipped(int clipped, int total)
{
    std::vector<int> v(static_cast<size_t>(total), 20000);
    for (int i = 0; i < clipped; i++) v[static_cast<size_t>(i)] = i % 2 ? -kMax : kMax;
    return v;
}

INSTANTIATE_TEST_SUITE_P(
    Thresholds, SanityTest,
    testing::Values(
        SanityCase{"bits_10", {1023, -5}, 0, "CheckSanity: lstm: only 10/15 bits used!\n"},
        SanityCase{"bits_11", {-1024, 5}, 1, ""}, SanityCase{"all_zero", {0, 0, 0}, 1, ""},
        SanityCase{"minus_32768_counts_16_bits", {-32768, -32768}, 1, ""},
        SanityCase{"clipped_exactly_10_percent", with_clipped(1, 10), 1, ""},
        SanityCase{"clipped_2_of_19", with_clipped(2, 19), 0, "CheckSanity: lstm: 10.526316% of items is clipped!\n"},
        SanityCase{"all_clipped", with_clipped(3, 3), 0, "CheckSanity: lstm: 100.000000% of items is clipped!\n"}),
    CaseName());

TEST(QReadjust, Boundaries)
{
    const struct {
        std::vector<int> items, want;
        int exponent;
    } cases[] = {
        {{1, -1, 0}, {16384, -16384, 0}, -14},
        {{16382, 3}, {32764, 6}, -1},
        {{16383, -7}, {16383, -7}, 0},
        {{kMax, 3, -3}, {16383, 1, -2}, 1},  // one clipped item halves all
        {{-kMax, 40}, {-16384, 20}, 1},
        {{-32768, 1}, {-32768, 1}, 0},  // not clipped, and large enough
        {{0, 0}, {0, 0}, 0},
    };
    for (const auto &c : cases) {
        const int n = static_cast<int>(c.items.size());
        ItemBox m = items(n, 1, c.items);
        dl_matrixq_readjust_exp(&m.m);
        EXPECT_EQ(m.m.exponent, c.exponent) << c.items[0];
        EXPECT_EQ(Snapshot(m).v, std::vector<int32_t>(c.want.begin(), c.want.end())) << c.items[0];
    }
}

// A value set at item 0 of two; the other item read back with the new exponent.
TEST(QGetSet, SetRaisesExponentOnlyAsNeeded)
{
    const struct {
        const char *name;
        std::vector<int> items;
        int exponent;
        float value;
        std::vector<int> want;
        int want_exponent;
    } cases[] = {
        {"fresh_one", {0, 0}, -31, 1.0f, {16384, 0}, -14},
        {"exactly_at_limit", {5, -5}, -3, 32767.0f / 8, {kMax, -5}, -3},
        {"exactly_at_lower_limit", {5, -5}, -3, -32767.0f / 8, {-kMax, -5}, -3},
        {"raise_by_two", {0, -5}, 0, 100000.0f, {25000, -2}, 2},
        {"truncates_toward_zero", {0, 4}, 0, -1.9f, {-1, 4}, 0},
        {"nan_stores_zero", {7, 4}, 0, NAN, {0, 4}, 0},
    };
    for (const auto &c : cases) {
        ItemBox m = items(2, 1, c.items, c.exponent, 1);  // stride 2
        dl_matrixq_set(&m.m, 0, 0, c.value);
        EXPECT_EQ(m.m.exponent, c.want_exponent) << c.name;
        EXPECT_EQ(Snapshot(m).v, std::vector<int32_t>(c.want.begin(), c.want.end())) << c.name;
        EXPECT_EQ(dl_matrixq_get(&m.m, 1, 0), std::ldexp(static_cast<float>(c.want[1]), c.want_exponent)) << c.name;
        EXPECT_TRUE(m.margins_intact()) << c.name;
    }
}

// ---- Contract ------------------------------------------------------------

// One case per asserted condition, in the order the conditions are checked.
class MatrixqDeathTest : public testing::TestWithParam<DeathCase> {};

TEST_P(MatrixqDeathTest, FailsWithConditionText) { EXPECT_DEATH(GetParam().call(), GetParam().message); }

// A record with the given shape; a negative width is kept as given.
dl_matrix2dq_t *q(int w, int h)
{
    dl_matrix2dq_t *m = dl_matrixq_alloc(w > 0 ? w : 1, h);
    m->w = w;
    return m;
}
dl_matrix2d_t *f(int w, int h) { return dl_matrix_alloc(w, h); }

// New records that cannot be had are NULL: a negative total width is one
// that no allocation can satisfy.
TEST(MatrixqMemory, NewRecordsAreNullWhenMemoryRunsOut)
{
    dl_matrix2d_t *m = f(1, 1);
    m->w = -5;
    dl_matrix2dq_t *a = q(-4, 1), *b = q(1, 1);
    EXPECT_EQ(dl_matrixq_from_matrix2d(m, nullptr), nullptr);
    EXPECT_EQ(dl_matrixq_concat(a, b), nullptr);
    EXPECT_EQ(dl_matrixq_flatten(b, 0, 0, -3, 1, nullptr), nullptr);
    dl_matrix_free(m);
    dl_matrixq_free(a);
    dl_matrixq_free(b);
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, MatrixqDeathTest,
    testing::Values(DeathCase{"quantise_width", [] { dl_matrixq_from_matrix2d(f(2, 1), q(3, 1)); },
                              "dl_lib_matrixq.cpp:[0-9]+: dl_matrixq_from_matrix2d: Assertion `m->w==out->w'"},
                    DeathCase{"quantise_height", [] { dl_matrixq_from_matrix2d_by_qmf(f(2, 1), q(2, 2), 4, 4); },
                              "dl_matrixq_from_matrix2d_by_qmf: Assertion `m->h==out->h'"},
                    DeathCase{"back_to_float_height", [] { dl_matrix2d_from_matrixq(q(2, 2), f(2, 1)); },
                              "dl_matrix2d_from_matrixq: Assertion `m->h==out->h'"},
                    DeathCase{"dot_inner", [] { dl_matrixq_dot(q(3, 2), q(2, 2), q(2, 2), 0); },
                              "dl_matrixq_dot_c_impl: Assertion `a->w==b->h'"},
                    DeathCase{"dot_height", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 3), 0); },
                              "dl_matrixq_dot_c_impl: Assertion `a->h==res->h'"},
                    DeathCase{"dot_width", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(3, 2), 0); },
                              "dl_matrixq_dot_c_impl: Assertion `b->w==res->w'"},
                    DeathCase{"dot_in_place",
                              [] {
                                  dl_matrix2dq_t *a = q(2, 2);
                                  dl_matrixq_dot(a, q(2, 2), a, 0);
                              },
                              "dl_matrixq_dot_c_impl: Assertion `res!=a && res!=b'"},
                    DeathCase{"dot_shift_negative", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 2), -1); },
                              "dl_matrixq_dot_c_impl: Assertion `shift>=0'"},
                    // a->w 2: the default shift is 16.
                    DeathCase{"dot_shift_above_default", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 2), 17); },
                              "dl_matrixq_dot_c_impl: Assertion `shift<=product_shift\\(a->w\\)'"},
                    DeathCase{"out_inner", [] { dl_matrixq_dot_matrix_out(q(3, 2), q(2, 2), f(2, 2)); },
                              "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->w==b->h'"},
                    DeathCase{"out_height", [] { dl_matrixq_dot_matrix_out(q(2, 2), q(2, 2), f(2, 3)); },
                              "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->h==res->h'"},
                    DeathCase{"out_width", [] { dl_matrixq_dot_matrix_out(q(2, 2), q(2, 2), f(3, 2)); },
                              "dl_matrixq_dot_matrix_out_c_impl: Assertion `b->w==res->w'"},
                    DeathCase{"float_times_fixed", [] { dl_matrix_matrixq_dot(f(3, 2), q(2, 2), f(2, 2)); },
                              "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->w==b->h'"},
                    DeathCase{"float_times_fixed_out_of_memory",
                              [] {
                                  dl_matrix2d_t *a = f(1, 1);
                                  a->w = -5;  // no allocation can hold its quantised copy
                                  dl_matrix_matrixq_dot(a, q(2, 2), f(2, 1));
                              },
                              "dl_matrix_matrixq_dot: Assertion `out of memory: qa'"},
                    DeathCase{"add_operands", [] { dl_matrixq_add(q(2, 2), q(2, 3), q(2, 2), 0); },
                              "a: 2 x 2, b: 2 x 3\n.*dl_matrixq_add: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
                    DeathCase{"add_result", [] { dl_matrixq_add(q(2, 2), q(2, 2), q(3, 2), 0); },
                              "dl_matrixq_add: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
                    DeathCase{"add_shift", [] { dl_matrixq_add(q(2, 2), q(2, 2), q(2, 2), 2); },
                              "dl_matrixq_add: Assertion `shift==0 \\|\\| shift==1'"},
                    DeathCase{"sub_operands", [] { dl_matrixq_sub(q(2, 2), q(2, 3), q(2, 2), 0); },
                              "dl_matrixq_sub: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
                    DeathCase{"sub_result", [] { dl_matrixq_sub(q(2, 2), q(2, 2), q(3, 2), 0); },
                              "dl_matrixq_sub: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
                    DeathCase{"mul_operands", [] { dl_matrixq_mul(q(2, 2), q(2, 3), q(2, 2)); },
                              "dl_matrixq_mul: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
                    DeathCase{"mul_result", [] { dl_matrixq_mul(q(2, 2), q(2, 2), q(3, 2)); },
                              "dl_matrixq_mul: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
                    DeathCase{"div_operands", [] { dl_matrixq_div(q(2, 2), q(2, 3), q(2, 2), 0); },
                              "dl_matrixq_div: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
                    DeathCase{"div_result", [] { dl_matrixq_div(q(2, 2), q(2, 2), q(3, 2), 0); },
                              "dl_matrixq_div: Assertion `dl_matrixq_same_shape\\(a, out\\)'"},
                    DeathCase{"div_shift", [] { dl_matrixq_div(q(2, 2), q(2, 2), q(2, 2), 17); },
                              "dl_matrixq_div: Assertion `shift>=0 && shift<=16'"},
                    DeathCase{"add_const_shift", [] { dl_matrixq_add_const(q(2, 2), 1.0f, -1); },
                              "dl_matrixq_add_const: Assertion `shift==0 \\|\\| shift==1'"},
                    DeathCase{"concat_heights", [] { dl_matrixq_concat(q(2, 2), q(2, 3)); },
                              "dl_matrixq_concat: Assertion `a->h==b->h'"},
                    DeathCase{"slice_into_owning", [] { dl_matrixq_slice(q(2, 2), 0, 0, 1, 1, q(1, 1)); },
                              "dl_matrixq_slice: Assertion `in->flags&DL_MF_FOREIGNDATA'"},
                    DeathCase{"slice_right", [] { dl_matrixq_slice(q(2, 3), 1, 0, 2, 1, nullptr); },
                              "dl_matrixq_slice: Assertion `x\\+w<=src->w'"},
                    DeathCase{"slice_bottom", [] { dl_matrixq_slice(q(2, 3), 0, 2, 1, 2, nullptr); },
                              "dl_matrixq_slice: Assertion `y\\+h<=src->h'"},
                    DeathCase{"flatten_right", [] { dl_matrixq_flatten(q(2, 3), 1, 0, 2, 1, nullptr); },
                              "dl_matrixq_flatten: Assertion `x \\+ w <= src->w'"},
                    DeathCase{"flatten_bottom", [] { dl_matrixq_flatten(q(2, 3), 0, 2, 1, 2, nullptr); },
                              "dl_matrixq_flatten: Assertion `y \\+ h <= src->h'"},
                    DeathCase{"flatten_into_small", [] { dl_matrixq_flatten(q(2, 3), 0, 0, 2, 2, q(3, 1)); },
                              "dl_matrixq_flatten: Assertion `out->w\\*out->h>=w\\*h'"},
                    DeathCase{"set_column", [] { dl_matrixq_set(q(2, 2), 2, 0, 1.0f); },
                              "dl_matrixq_set: Assertion `x>=0 && x<m->w'"},
                    DeathCase{"set_row", [] { dl_matrixq_set(q(2, 2), 0, -1, 1.0f); },
                              "dl_matrixq_set: Assertion `y>=0 && y<m->h'"}),
    CaseName());

}  // namespace
