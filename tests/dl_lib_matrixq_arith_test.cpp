#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

// ---- Literal references ----------------------------------------------------

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
        const int s = product_shift(K);
        p.shift = round % 4 == 0 ? s : uniform(rng, 0, s);
        return p;
    }
};

// Every product path: Isa::none is the plain loop, the others the kernels.
class QDotKernelTest : public IsaTest {};

TEST_P(QDotKernelTest, MatchesReferenceBitForBit)
{
    const dl::Isa isa = GetParam();
    Rng rng(23);
    for (int round = 0; round < 120; round++) {
        Product p = Product::random(rng, round);
        const int M = p.a.m.h, N = p.b.m.w;
        const int s = product_shift(p.a.m.w) - p.shift;
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
                const int64_t sum = exact_sum(
                    p.b.m.h, [&](int k) { return p.a.at(k, y); }, [&](int k) { return p.b.at(x, k); });
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
// of steps, or every lane of a short run, summed across lanes. A float
// result shows an overflow of 2^32 at once. One row and three, two columns
// and five: the tiles of one-row products are wider.
TEST_P(QDotKernelTest, ExtremeItemsOverLongSums)
{
    const dl::Isa isa = GetParam();
    const int corner[][2] = {{32767, -32768}, {-32768, -32768}, {-32767, 32767}, {255, -32768}, {-32513, -32768}};
    for (const int K : {256, 258, 9001})
        for (const int rows : {1, 3})
            for (const int cols : {2, 5})
                for (const auto &c : corner) {
                    ItemBox a(K, rows, 1), b(cols, K, 0);
                    a.each([&](int) { return c[0]; });
                    b.each([&](int) { return c[1]; });
                    a.at(K - 1, rows - 1) = 0;  // one sum slightly off the others
                    FloatBox res(cols, rows, 0);
                    const dl::QDotOut out = dl::qdot_to_floats(&res.m, 1.0f);
                    if (isa == dl::Isa::none) dl::matrixq_dot_plain(&a.m, &b.m, out);
                    else ASSERT_TRUE(dl::matrixq_dot_kernel(isa, &a.m, &b.m, out));
                    for (int y = 0; y < rows; y++) {
                        const int64_t sum = static_cast<int64_t>(c[0]) * c[1] * (y == rows - 1 ? K - 1 : K);
                        for (int x = 0; x < cols; x++)
                            ASSERT_EQ(res.at(x, y), static_cast<float>(sum)) << c[0] << " " << c[1] << " K " << K;
                    }
                }
}

INSTANTIATE_TEST_SUITE_P(Paths, QDotKernelTest,
                         testing::Values(dl::Isa::none, dl::Isa::avx2, dl::Isa::avx512, dl::Isa::dsp),
                         [](const auto &info) { return std::string(dl::isa_name(info.param)); });

// b prepared gives the plain loop's items, exponent and float bits in
// dl_matrixq_dot and dl_matrixq_dot_matrix_out, and nothing outside the
// results changes; the items go to a record of `pad` spare items a column.
void check_prepared(const ItemBox &a, const ItemBox &b, int shift, int pad)
{
    const int M = a.m.h, K = a.m.w, N = b.m.w, s = product_shift(K) - shift;
    MatrixqPtr prepared = own(dl_matrixq_prepare(&b.m));
    ASSERT_TRUE(prepared);
    ASSERT_EQ(prepared->flags, DL_MF_PREPARED);
    ASSERT_EQ(state(prepared.get()), state(&b.m));
    ASSERT_EQ(dl::prepared_pairs(prepared.get()) != nullptr, dl::pairs_usable() && K > 0);
    ItemBox want(N, M, 0), got(N, M, pad);
    FloatBox fwant(N, M, 0), fgot(N, M, 2);
    dl::matrixq_dot_plain(&a.m, &b.m, dl::qdot_to_items(&want.m, s));
    dl::matrixq_dot_plain(&a.m, &b.m, dl::qdot_to_floats(&fwant.m, std::ldexp(1.0f, a.m.exponent + b.m.exponent)));
    dl_matrixq_dot(&a.m, prepared.get(), &got.m, shift);
    dl_matrixq_dot_matrix_out(&a.m, prepared.get(), &fgot.m);
    ASSERT_EQ(state(&got.m), QState(state(&want.m).first, a.m.exponent + b.m.exponent + s));
    for (int x = 0; x < N; x++)
        for (int y = 0; y < M; y++) ASSERT_EQ(bits(fgot.at(x, y)), bits(fwant.at(x, y))) << x << "," << y;
    ASSERT_TRUE(got.margins_intact() && fgot.margins_intact());
}

// Products of one row (the layers' case, which only a prepared operand takes
// to the pair kernel) or several, whatever the origin's stride; a copy of
// the record that was reshaped or re-pointed is multiplied as a plain record.
TEST(QDotPrepared, SameBitsAsPlainLoop)
{
    Rng rng(31);
    for (int round = 0; round < 60; round++) {
        const int M = round % 3 == 0 ? 1 : uniform(rng, 1, 40), K = uniform(rng, 0, round % 10 == 0 ? 600 : 70);
        const int N = uniform(rng, 1, 40);
        ItemBox a(rng, K, M, uniform(rng, 0, 2), uniform(rng, -20, 4)), b(rng, N, K, uniform(rng, 0, 3), -9);
        ASSERT_NO_FATAL_FAILURE(check_prepared(a, b, uniform(rng, 0, product_shift(K)), round % 2))
            << M << "x" << K << "x" << N;
    }
    // The largest products over one chunk of 32-bit lane sums and just
    // beyond it, one row (float results show a lost 2^32 at once).
    const int corner[][2] = {{32767, -32768}, {-32768, -32768}, {-32767, 32767}, {255, -32768}, {-32513, -32768}};
    for (const int K : {255, 256, 258, 513})
        for (const auto &c : corner) {
            ItemBox a(K, 1, 0), b(9, K, 1);
            a.each([&](int) { return c[0]; });
            b.each([&](int) { return c[1]; });
            ASSERT_NO_FATAL_FAILURE(check_prepared(a, b, product_shift(K) - 20, 0))
                << c[0] << " " << c[1] << " K " << K;
        }
    // Copies of a prepared record that no longer describe its packing.
    ItemBox b(rng, 9, 5, 0, 0);
    MatrixqPtr prepared = own(dl_matrixq_prepare(&b.m));
    dl_matrix2dq_t narrower = *prepared, moved = *prepared;
    narrower.w = 4;
    moved.itemq += 1;
    moved.h = 4;
    EXPECT_EQ(dl::prepared_pairs(&narrower), nullptr);
    EXPECT_EQ(dl::prepared_pairs(&moved), nullptr);
    MatrixqPtr view = own(dl_matrixq_slice(prepared.get(), 1, 0, 3, 5, nullptr));
    EXPECT_EQ(view->flags, DL_MF_FOREIGNDATA);
}

// The element-wise sum kernel against its definition, for every kind,
// halving or saturating, every alignment shift, on items with the extremes
// well represented and in runs that leave every tail length.
class AddItemsKernelTest : public IsaTest {};

TEST_P(AddItemsKernelTest, SameAsDefinition)
{
    const dl::Isa isa = GetParam();
    Rng rng(41);
    std::vector<qtp_t> hi(200), lo(200), out(200);
    for (int kind = 0; kind < 3; kind++)
        for (bool halve : {false, true})
            for (int k = 0; k <= 31; k++) {
                const int n = uniform(rng, 0, 200);
                for (int i = 0; i < n; i++) {
                    hi[i] = any_item(rng);
                    lo[i] = any_item(rng);
                }
                ASSERT_TRUE(dl::add_items_kernel(isa, hi.data(), lo.data(), out.data(), n, k, kind, halve));
                for (int i = 0; i < n; i++) {
                    const int32_t p = hi[i], q = lo[i] >> k;
                    const int32_t t = kind == 0 ? p + q : kind == 1 ? p - q : q - p;
                    ASSERT_EQ(out[i], halve ? t >> 1 : clamp(t)) << dl::isa_name(isa) << " kind " << kind << " halve "
                                                                 << halve << " k " << k << ": " << p << ", " << lo[i];
                }
            }
}

INSTANTIATE_TEST_SUITE_P(Paths, AddItemsKernelTest, testing::Values(dl::Isa::avx2, dl::Isa::avx512),
                         [](const auto &info) { return std::string(dl::isa_name(info.param)); });

struct QDotCase {
    const char *name;
    ItemBox a, b;
    int shift;
    std::vector<int> want;  // items of res, row by row
    int exponent;
};

void PrintTo(const QDotCase &c, std::ostream *os) { *os << c.name; }

class QDotGoldenTest : public testing::TestWithParam<QDotCase> {};

TEST_P(QDotGoldenTest, ItemsAndExponent)
{
    QDotCase c = GetParam();
    ItemBox res(c.b.m.w, c.a.m.h, 0, 99);
    dl_matrixq_dot(&c.a.m, &c.b.m, &res.m, c.shift);
    EXPECT_EQ(state(&res.m), QState(c.want, c.exponent));
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

// ---- Element-wise operations ------------------------------------------------

using QOp = void (*)(const dl_matrix2dq_t *, const dl_matrix2dq_t *, dl_matrix2dq_t *, int);

void mul_op(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *r, int) { dl_matrixq_mul(a, b, r); }

// Hand-checked cases: one item each for a and b, with their exponents.
struct QPairCase {
    const char *name;
    QOp op;
    int a, ea, b, eb, shift;
    int want, exponent;
};

void PrintTo(const QPairCase &c, std::ostream *os) { *os << c.name; }

class QPairTest : public testing::TestWithParam<std::tuple<QPairCase, Into>> {};

// Each operand holds its item twice, in a view of stride 3; the result goes
// to a fresh record or over either operand, so an exponent read after the
// result's was written shows in the second item.
TEST_P(QPairTest, ItemsAndExponentThroughViews)
{
    const auto [c, into] = GetParam();
    ItemBox a = items(2, 1, {c.a, c.a}, c.ea, 2), b = items(2, 1, {c.b, c.b}, c.eb, 2), fresh(2, 1, 2, 99);
    ItemBox &res = into == Into::a ? a : into == Into::b ? b : fresh;
    c.op(&a.m, &b.m, &res.m, c.shift);
    EXPECT_EQ(state(&res.m), QState({c.want, c.want}, c.exponent));
    EXPECT_TRUE(a.margins_intact() && b.margins_intact() && res.margins_intact());
}

const QPairCase kQPairCases[] = {
    {"add_aligns_a", dl_matrixq_add, 8, -5, 3, -3, 1, 5, -3},
    {"add_halves_down", dl_matrixq_add, -2, 0, 1, 0, 0, -1, 1},
    {"add_saturates", dl_matrixq_add, 30000, 0, 30000, 0, 1, kMax, 0},
    {"add_saturates_low", dl_matrixq_add, -30000, 2, -30000, 2, 1, -kMax, 2},
    {"alignment_keeps_minus_one", dl_matrixq_add, -1, -31, 0, 0, 1, -1, 0},
    {"sub_two_acts_as_one", dl_matrixq_sub, 5, 0, 7, 0, 2, -2, 0},
    {"sub_keeps_argument_order", dl_matrixq_sub, 8, -5, 3, -3, 1, -1, -3},  // a aligned to 2: 2 - 3
    {"sub_halves_down", dl_matrixq_sub, 5, 0, 8, 0, 0, -2, 1},
    {"mul_rounds_down_to_minus_one", mul_op, -1, 0, 1, 0, 0, -1, 16},
    {"mul_largest", mul_op, kMax, 1, -kMax, 2, 0, -16384, 19},
    {"div_truncates_negative", dl_matrixq_div, -7, 0, 2, 0, 0, -3, 0},
    {"div_saturates", dl_matrixq_div, kMax, 3, 1, 1, 1, kMax, 1},
    // -32768 << 16 is the lowest 32-bit integer: divided by -1 it must
    // saturate, not overflow.
    {"div_lowest_by_minus_one", dl_matrixq_div, -32768, 0, -1, 0, 16, kMax, -16},
    {"div_by_minus_one", dl_matrixq_div, -300, 0, -1, 0, 2, 1200, -2},
};

INSTANTIATE_TEST_SUITE_P(Boundaries, QPairTest,
                         testing::Combine(testing::ValuesIn(kQPairCases),
                                          testing::Values(Into::fresh, Into::a, Into::b)),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    testing::PrintToString(std::get<1>(info.param));
                         });

// ---- Constant addition -----------------------------------------------------

// Items 5, -1, 32767 in a view of stride 2, at the given exponent.
TEST(QAddConst, Boundaries)
{
    const struct {
        int exponent;
        float value;
        int shift;
        std::vector<int> want;
        int want_exponent;
    } cases[] = {
        {0, 0.9f, 0, {5, -1, kMax}, 0},              // below one unit: nothing at all
        {0, 32766.0f, 1, {kMax, 32765, kMax}, 0},    // fits: no rescaling
        {0, 32767.0f, 1, {16385, 16382, 32766}, 1},  // c 16383, items halved down
        {0, -32767.0f, 1, {-16381, -16384, 0}, 1},   // c -16383
        {0, 100000.0f, 1, {25001, 24999, kMax}, 2},  // c 25000 after two halvings; items >> 2
        {0, 1.0f, 0, {3, 0, 16384}, 1},              // -1 + 1 = 0; 5 + 1 halves to 3
        {0, -2.0f, 0, {1, -1, 16382}, 1},            // t = -3 halves toward zero to -1
        {-3, 1.0f, 1, {13, 7, kMax}, -3},            // 1.0 is 8 units at -3
        {2, 100.0f, 1, {30, 24, kMax}, 2},           // 100.0 is 25 units at 2
    };
    for (const auto &c : cases) {
        ItemBox m = items(3, 1, {5, -1, kMax}, c.exponent, 1);
        dl_matrixq_add_const(&m.m, c.value, c.shift);
        EXPECT_EQ(state(&m.m), QState(c.want, c.want_exponent)) << c.value;
        EXPECT_TRUE(m.margins_intact()) << c.value;
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
    EXPECT_EQ(state(v).first, (std::vector<int>{11, 21, 12, 22}));
    EXPECT_EQ(v->flags, DL_MF_FOREIGNDATA);
    EXPECT_EQ(v->exponent, -6);
    dl_matrixq_slice(&src.m, 0, 2, 4, 1, v);  // the record reused for the last row
    EXPECT_EQ(state(v).first, (std::vector<int>{2, 12, 22, 32}));
    dl_matrixq_free(v);
    EXPECT_TRUE(src.margins_intact());

    MatrixqPtr out = own(dl_matrixq_flatten(&src.m, 1, 1, 2, 2, nullptr));
    EXPECT_EQ(std::tuple(out->w, out->h, out->stride, out->exponent), std::tuple(4, 1, 1, -6));
    EXPECT_EQ(state(out.get()).first, (std::vector<int>{11, 21, 12, 22}));
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
    EXPECT_EQ(state(&m.m).first, c.items);
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
        EXPECT_EQ(state(&m.m), QState(c.want, c.exponent)) << c.items[0];
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
        EXPECT_EQ(state(&m.m), QState(c.want, c.want_exponent)) << c.name;
        EXPECT_EQ(dl_matrixq_get(&m.m, 1, 0), std::ldexp(static_cast<float>(c.want[1]), c.want_exponent)) << c.name;
        EXPECT_TRUE(m.margins_intact()) << c.name;
    }
}

// ---- Contract ------------------------------------------------------------

// One case per asserted condition, in the order the conditions are checked.
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

const DeathCase kMatrixqDeathTestCases[] = {
    {"quantise_width", [] { dl_matrixq_from_matrix2d(f(2, 1), q(3, 1)); },
     "dl_lib_matrixq.cpp:[0-9]+: dl_matrixq_from_matrix2d: Assertion `m->w==out->w'"},
    {"quantise_height", [] { dl_matrixq_from_matrix2d_by_qmf(f(2, 1), q(2, 2), 4, 4); },
     "dl_matrixq_from_matrix2d_by_qmf: Assertion `m->h==out->h'"},
    {"back_to_float_height", [] { dl_matrix2d_from_matrixq(q(2, 2), f(2, 1)); },
     "dl_matrix2d_from_matrixq: Assertion `m->h==out->h'"},
    {"dot_inner", [] { dl_matrixq_dot(q(3, 2), q(2, 2), q(2, 2), 0); },
     "dl_matrixq_dot_c_impl: Assertion `a->w==b->h'"},
    {"dot_height", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 3), 0); },
     "dl_matrixq_dot_c_impl: Assertion `a->h==res->h'"},
    {"dot_width", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(3, 2), 0); },
     "dl_matrixq_dot_c_impl: Assertion `b->w==res->w'"},
    {"dot_in_place",
     [] {
         dl_matrix2dq_t *a = q(2, 2);
         dl_matrixq_dot(a, q(2, 2), a, 0);
     },
     "dl_matrixq_dot_c_impl: Assertion `res!=a && res!=b'"},
    {"dot_shift_negative", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 2), -1); },
     "dl_matrixq_dot_c_impl: Assertion `shift>=0'"},
    // a->w 2: the default shift is 16.
    {"dot_shift_above_default", [] { dl_matrixq_dot(q(2, 2), q(2, 2), q(2, 2), 17); },
     "dl_matrixq_dot_c_impl: Assertion `shift<=product_shift\\(a->w\\)'"},
    {"out_inner", [] { dl_matrixq_dot_matrix_out(q(3, 2), q(2, 2), f(2, 2)); },
     "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->w==b->h'"},
    {"out_height", [] { dl_matrixq_dot_matrix_out(q(2, 2), q(2, 2), f(2, 3)); },
     "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->h==res->h'"},
    {"out_width", [] { dl_matrixq_dot_matrix_out(q(2, 2), q(2, 2), f(3, 2)); },
     "dl_matrixq_dot_matrix_out_c_impl: Assertion `b->w==res->w'"},
    {"float_times_fixed", [] { dl_matrix_matrixq_dot(f(3, 2), q(2, 2), f(2, 2)); },
     "dl_matrixq_dot_matrix_out_c_impl: Assertion `a->w==b->h'"},
    {"float_times_fixed_out_of_memory",
     [] {
         dl_matrix2d_t *a = f(1, 1);
         a->w = -5;  // no allocation can hold its quantised copy
         dl_matrix_matrixq_dot(a, q(2, 2), f(2, 1));
     },
     "dl_matrix_matrixq_dot: Assertion `out of memory: qa'"},
    {"add_operands", [] { dl_matrixq_add(q(2, 2), q(2, 3), q(2, 2), 0); },
     "a: 2 x 2, b: 2 x 3\n.*dl_matrixq_add: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
    {"add_result", [] { dl_matrixq_add(q(2, 2), q(2, 2), q(3, 2), 0); },
     "dl_matrixq_add: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
    {"add_shift", [] { dl_matrixq_add(q(2, 2), q(2, 2), q(2, 2), 2); },
     "dl_matrixq_add: Assertion `shift==0 \\|\\| shift==1'"},
    {"sub_operands", [] { dl_matrixq_sub(q(2, 2), q(2, 3), q(2, 2), 0); },
     "dl_matrixq_sub: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
    {"sub_result", [] { dl_matrixq_sub(q(2, 2), q(2, 2), q(3, 2), 0); },
     "dl_matrixq_sub: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
    {"mul_operands", [] { dl_matrixq_mul(q(2, 2), q(2, 3), q(2, 2)); },
     "dl_matrixq_mul: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
    {"mul_result", [] { dl_matrixq_mul(q(2, 2), q(2, 2), q(3, 2)); },
     "dl_matrixq_mul: Assertion `dl_matrixq_same_shape\\(a, res\\)'"},
    {"div_operands", [] { dl_matrixq_div(q(2, 2), q(2, 3), q(2, 2), 0); },
     "dl_matrixq_div: Assertion `dl_matrixq_same_shape\\(a, b\\)'"},
    {"div_result", [] { dl_matrixq_div(q(2, 2), q(2, 2), q(3, 2), 0); },
     "dl_matrixq_div: Assertion `dl_matrixq_same_shape\\(a, out\\)'"},
    {"div_shift", [] { dl_matrixq_div(q(2, 2), q(2, 2), q(2, 2), 17); },
     "dl_matrixq_div: Assertion `shift>=0 && shift<=16'"},
    {"add_const_shift", [] { dl_matrixq_add_const(q(2, 2), 1.0f, -1); },
     "dl_matrixq_add_const: Assertion `shift==0 \\|\\| shift==1'"},
    {"concat_heights", [] { dl_matrixq_concat(q(2, 2), q(2, 3)); }, "dl_matrixq_concat: Assertion `a->h==b->h'"},
    {"slice_into_owning", [] { dl_matrixq_slice(q(2, 2), 0, 0, 1, 1, q(1, 1)); },
     "dl_matrixq_slice: Assertion `in->flags&DL_MF_FOREIGNDATA'"},
    {"slice_right", [] { dl_matrixq_slice(q(2, 3), 1, 0, 2, 1, nullptr); },
     "dl_matrixq_slice: Assertion `x\\+w<=src->w'"},
    {"slice_bottom", [] { dl_matrixq_slice(q(2, 3), 0, 2, 1, 2, nullptr); },
     "dl_matrixq_slice: Assertion `y\\+h<=src->h'"},
    {"flatten_right", [] { dl_matrixq_flatten(q(2, 3), 1, 0, 2, 1, nullptr); },
     "dl_matrixq_flatten: Assertion `x \\+ w <= src->w'"},
    {"flatten_bottom", [] { dl_matrixq_flatten(q(2, 3), 0, 2, 1, 2, nullptr); },
     "dl_matrixq_flatten: Assertion `y \\+ h <= src->h'"},
    {"flatten_into_small", [] { dl_matrixq_flatten(q(2, 3), 0, 0, 2, 2, q(3, 1)); },
     "dl_matrixq_flatten: Assertion `out->w\\*out->h>=w\\*h'"},
    {"set_column", [] { dl_matrixq_set(q(2, 2), 2, 0, 1.0f); }, "dl_matrixq_set: Assertion `x>=0 && x<m->w'"},
    {"set_row", [] { dl_matrixq_set(q(2, 2), 0, -1, 1.0f); }, "dl_matrixq_set: Assertion `y>=0 && y<m->h'"}};

DEATH_TEST_TABLE(MatrixqDeathTest, kMatrixqDeathTestCases);

}  // namespace
