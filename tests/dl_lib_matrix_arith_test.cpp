#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

// ---- Element-wise operations -------------------------------------------

using FloatOp = void (*)(const dl_matrix2d_t *, const dl_matrix2d_t *, dl_matrix2d_t *);

struct ElementCase {
    const char *name;
    FloatOp op;
    float (*ref)(float, float);
};

void PrintTo(const ElementCase &c, std::ostream *os) { *os << c.name; }

class FloatElementTest : public testing::TestWithParam<std::tuple<ElementCase, Into>> {};

TEST_P(FloatElementTest, MatchesReferenceThroughViews)
{
    const auto [c, into] = GetParam();
    Rng rng(7);
    for (int round = 0; round < 60; round++) {
        const int w = uniform(rng, 0, 9), h = uniform(rng, 0, 6);
        FloatBox a(rng, w, h, uniform(rng, 0, 3)), b(rng, w, h, uniform(rng, 0, 3)), fresh(w, h, uniform(rng, 0, 3));
        std::vector<float> want;
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++) want.push_back(c.ref(a.at(x, y), b.at(x, y)));
        FloatBox &out = into == Into::a ? a : into == Into::b ? b : fresh;
        c.op(&a.m, &b.m, &out.m);
        for (int y = 0; y < h; y++)
            for (int x = 0; x < w; x++)
                ASSERT_TRUE(same_float(out.at(x, y), want[x + w * y])) << "round " << round << " at " << x << "," << y;
        EXPECT_TRUE(a.margins_intact() && b.margins_intact() && out.margins_intact());
    }
}

const ElementCase kElementCases[] = {
    {"add", dl_matrix_add, [](float p, float q) { return p + q; }},
    {"sub", dl_matrix_sub, [](float p, float q) { return p - q; }},
    {"mul", dl_matrix_mul, [](float p, float q) { return p * q; }},
    {"div", dl_matrix_div, [](float p, float q) { return p / q; }},
};

std::string element_case_name(const testing::TestParamInfo<FloatElementTest::ParamType> &info)
{
    std::string name = std::get<0>(info.param).name;
    return name + "_" + testing::PrintToString(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Ops, FloatElementTest,
                         testing::Combine(testing::ValuesIn(kElementCases),
                                          testing::Values(Into::fresh, Into::a, Into::b)),
                         element_case_name);

TEST(FloatElement, AddConstThroughView)
{
    MatrixPtr src = matrix(3, 2, {1, 2, 3, 4, 5, 6});
    dl_matrix2d_t *v = dl_matrix_slice(src.get(), 1, 0, 2, 2, nullptr);
    dl_matrix_add_const(v, 0.5f);
    dl_matrix_free(v);
    const float want[] = {1, 2.5f, 3.5f, 4, 5.5f, 6.5f};
    for (int i = 0; i < 6; i++) EXPECT_EQ(src->item[i], want[i]) << i;
}

// ---- Product -------------------------------------------------------------

// The product as defined: each item the ordered float sum over k.
std::vector<float> reference_dot(FloatBox &a, FloatBox &b)
{
    std::vector<float> res;
    for (int y = 0; y < a.m.h; y++)
        for (int x = 0; x < b.m.w; x++)
            res.push_back(ordered_dot(
                a.m.w, [&](int k) { return a.at(k, y); }, [&](int k) { return b.at(x, k); }));
    return res;
}

// Every product path: Isa::none is the plain loop, the others the kernels;
// dl_matrix_dot itself runs whichever this machine chose.
class FloatDotKernelTest : public IsaTest {};

TEST_P(FloatDotKernelTest, MatchesReferenceBitForBit)
{
    const dl::Isa isa = GetParam();
    Rng rng(11);
    for (int round = 0; round < 150; round++) {
        // Mostly small shapes, some past the tile and panel sizes.
        const int top = round % 5 == 0 ? 200 : 24;
        const int M = uniform(rng, 0, top), K = uniform(rng, 0, top), N = uniform(rng, 0, top);
        FloatBox a(rng, K, M, uniform(rng, 0, 3)), b(rng, N, K, uniform(rng, 0, 3));
        FloatBox res(N, M, uniform(rng, 0, 3));
        for (int y = 0; y < M; y++)
            for (int x = 0; x < N; x++) res.at(x, y) = NAN;  // old contents play no part
        const std::vector<float> want = reference_dot(a, b);
        if (isa == dl::Isa::none) dl::matrix_dot_plain(&a.m, &b.m, &res.m);
        else ASSERT_TRUE(dl::matrix_dot_kernel(isa, &a.m, &b.m, &res.m));
        for (int y = 0; y < M; y++)
            for (int x = 0; x < N; x++)
                ASSERT_TRUE(same_float(res.at(x, y), want[x + N * y]))
                    << dl::isa_name(isa) << " " << M << "x" << K << "x" << N << " at " << x << "," << y;
        ASSERT_TRUE(res.margins_intact());

        FloatBox res2(N, M, 1);
        dl_matrix_dot(&a.m, &b.m, &res2.m);
        for (int y = 0; y < M; y++)
            for (int x = 0; x < N; x++) ASSERT_TRUE(same_float(res2.at(x, y), want[x + N * y]));
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, FloatDotKernelTest, testing::Values(dl::Isa::none, dl::Isa::avx2, dl::Isa::avx512),
                         [](const auto &info) { return std::string(dl::isa_name(info.param)); });

// ---- Error measure --------------------------------------------------------

struct ErrCase {
    const char *name;
    std::vector<float> a, b;
    float want;  // NaN: the result must be NaN
};

void PrintTo(const ErrCase &c, std::ostream *os) { *os << c.name; }

class AvgSqErrTest : public testing::TestWithParam<ErrCase> {};

TEST_P(AvgSqErrTest, Value)
{
    const ErrCase &c = GetParam();
    const int w = static_cast<int>(c.a.size());
    MatrixPtr a = matrix(w, 1, c.a), b = matrix(w, 1, c.b);
    const float got = dl_matrix_get_avg_sq_err(a.get(), b.get());
    if (std::isnan(c.want)) EXPECT_TRUE(std::isnan(got));
    else EXPECT_EQ(got, c.want);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AvgSqErrTest,
    testing::Values(
        ErrCase{"equal", {1, 3, -2}, {1, 3, -2}, 0.0f}, ErrCase{"zeros", {0, 0}, {0, 0}, 0.0f},  // S set to 1.0
        ErrCase{"relative", {1, 3}, {1, 1}, static_cast<float>(2.0 / std::sqrt(5.0))},           // E 4, S 5
        // Mean 0, so S is 0 and the result is the root of E alone.
        ErrCase{"zero_mean", {1e-5f}, {-1e-5f}, static_cast<float>(std::sqrt(static_cast<double>(2e-5f * 2e-5f)))},
        ErrCase{"nan", {1, NAN}, {1, 2}, NAN}),
    CaseName());

// ---- Contract ------------------------------------------------------------

// One case per asserted condition, in the order the conditions are checked.
// A record with the given shape; a negative width is kept as given.
dl_matrix2d_t *f(int w, int h)
{
    dl_matrix2d_t *m = dl_matrix_alloc(w > 0 ? w : 1, h);
    m->w = w;
    return m;
}

// A negative total width is one that no allocation can satisfy: a new
// record that cannot be had is NULL.
TEST(MatrixMemory, ConcatGivesNullWhenMemoryRunsOut)
{
    dl_matrix2d_t *a = f(-5, 1), *b = f(1, 1);
    EXPECT_EQ(dl_matrix_concat(a, b), nullptr);
    dl_matrix_free(a);
    dl_matrix_free(b);
}

const DeathCase kMatrixDeathTestCases[] = {
    {"slice_into_owning", [] { dl_matrix_slice(f(2, 2), 0, 0, 1, 1, f(1, 1)); },
     "dl_matrix_slice: Assertion `in->flags&DL_MF_FOREIGNDATA'"},
    {"slice_right", [] { dl_matrix_slice(f(2, 2), 1, 0, 2, 1, nullptr); },
     "dl_matrix_slice: Assertion `x\\+w<=src->w'"},
    {"slice_bottom", [] { dl_matrix_slice(f(2, 2), 0, 2, 1, 1, nullptr); },
     "dl_matrix_slice: Assertion `y\\+h<=src->h'"},
    {"flatten_right", [] { dl_matrix_flatten(f(2, 2), 1, 0, 2, 1, nullptr); },
     "dl_matrix_flatten: Assertion `x \\+ w <= src->w'"},
    {"flatten_bottom", [] { dl_matrix_flatten(f(2, 2), 0, 1, 1, 2, nullptr); },
     "dl_matrix_flatten: Assertion `y \\+ h <= src->h'"},
    {"flatten_into_small", [] { dl_matrix_flatten(f(2, 2), 0, 0, 2, 2, f(3, 1)); },
     "dl_matrix_flatten: Assertion `in->w\\*in->h>=w\\*h'"},
    {"flip_of_two_rows", [] { dl_matrix_flip(f(1, 2)); }, "dl_matrix_flip: Assertion `a->h==1'"},
    {"mul_operands", [] { dl_matrix_mul(f(2, 2), f(2, 3), f(2, 2)); },
     "a: 2 x 2, b: 2 x 3\n.*dl_lib_matrix.cpp:[0-9]+: dl_matrix_mul: "
     "Assertion `dl_matrix_same_shape\\(a, b\\)'"},
    {"mul_into_small", [] { dl_matrix_mul(f(2, 2), f(2, 2), f(2, 1)); },
     "dl_matrix_mul: Assertion `out->w>=a->w && out->h>=a->h'"},
    {"dot_inner", [] { dl_matrix_dot(f(3, 2), f(2, 2), f(2, 2)); }, "dl_matrix_dot: Assertion `a->w==b->h'"},
    {"dot_height", [] { dl_matrix_dot(f(3, 2), f(4, 3), f(4, 1)); }, "dl_matrix_dot: Assertion `a->h==res->h'"},
    {"dot_width", [] { dl_matrix_dot(f(3, 2), f(4, 3), f(3, 2)); }, "dl_matrix_dot: Assertion `b->w==res->w'"},
    {"dot_in_place",
     [] {
         dl_matrix2d_t *a = f(2, 2);
         dl_matrix_dot(a, f(2, 2), a);
     },
     "dl_matrix_dot: Assertion `res!=a && res!=b'"},
    {"add_operands", [] { dl_matrix_add(f(2, 2), f(3, 2), f(2, 2)); },
     "dl_matrix_add: Assertion `dl_matrix_same_shape\\(a, b\\)'"},
    {"add_out", [] { dl_matrix_add(f(2, 2), f(2, 2), f(2, 1)); },
     "dl_matrix_add: Assertion `dl_matrix_same_shape\\(a, out\\)'"},
    {"sub_operands", [] { dl_matrix_sub(f(2, 2), f(3, 2), f(2, 2)); },
     "dl_matrix_sub: Assertion `dl_matrix_same_shape\\(a, b\\)'"},
    {"sub_out", [] { dl_matrix_sub(f(2, 2), f(2, 2), f(2, 1)); },
     "dl_matrix_sub: Assertion `dl_matrix_same_shape\\(a, out\\)'"},
    {"div_operands", [] { dl_matrix_div(f(2, 2), f(3, 2), f(2, 2)); },
     "dl_matrix_div: Assertion `dl_matrix_same_shape\\(a, b\\)'"},
    {"div_out", [] { dl_matrix_div(f(2, 2), f(2, 2), f(2, 1)); },
     "dl_matrix_div: Assertion `dl_matrix_same_shape\\(a, out\\)'"},
    {"concat_heights", [] { dl_matrix_concat(f(1, 2), f(1, 3)); }, "dl_matrix_concat: Assertion `a->h==b->h'"},
    {"avg_sq_err_heights", [] { dl_matrix_get_avg_sq_err(f(2, 2), f(3, 3)); },
     "dl_matrix_get_avg_sq_err: Assertion `a->h==b->h'"},
    {"avg_sq_err_widths", [] { dl_matrix_get_avg_sq_err(f(2, 2), f(3, 2)); },
     "dl_matrix_get_avg_sq_err: Assertion `a->w==b->w'"}};

DEATH_TEST_TABLE(MatrixDeathTest, kMatrixDeathTestCases);

}  // namespace
