#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "reference.h"
#include "dl_lib.h"
#include "tensor_ops_internal.h"
#include "test_util.h"

using namespace ref;

namespace {

using T3 = std::unique_ptr<dl_matrix3d_t, decltype(&dl_matrix3d_free)>;
using T3q = std::unique_ptr<dl_matrix3dq_t, decltype(&dl_matrix3dq_free)>;
using T3u = std::unique_ptr<dl_matrix3du_t, decltype(&dl_matrix3du_free)>;
T3 own(dl_matrix3d_t *t) { return T3(t, dl_matrix3d_free); }
T3q own(dl_matrix3dq_t *t) { return T3q(t, dl_matrix3dq_free); }
T3u own(dl_matrix3du_t *t) { return T3u(t, dl_matrix3du_free); }

size_t count(const auto *t) { return static_cast<size_t>(t->n) * t->h * t->w * t->c; }

T3 floats(int n, int w, int h, int c, const std::vector<float> &v)
{
    T3 t = own(dl_matrix3d_alloc(n, w, h, c));
    for (size_t i = 0; i < v.size(); i++) t->item[i] = v[i];
    return t;
}

T3q items(int n, int w, int h, int c, int e, const std::vector<int> &v)
{
    T3q t = own(dl_matrix3dq_alloc(n, w, h, c, e));
    for (size_t i = 0; i < v.size(); i++) t->item[i] = static_cast<qtp_t>(v[i]);
    return t;
}

// ---- The reference loops: the definitions, one output item at a time ----

struct Geometry {
    int wo, ho, sx, sy, left, top, kw, kh;
};

Geometry geometry(int w, int h, int kw, int kh, int sx, int sy, const dl_padding_t &p)
{
    return {(p.left + w + p.right - kw) / sx + 1, (p.top + h + p.bottom - kh) / sy + 1, sx, sy, p.left, p.top, kw, kh};
}

// Convolution with one filter per output channel, `depthwise` pairing
// channel ch with channel ch only. `mac` folds one place into the sum, in
// the order rows, columns, channels: the filter's place, whether the input
// is there or padding, and the input's index.
template <class Acc, class Mac, class Store>
void ref_conv(int w, int h, int c, const Geometry &g, int out_c, bool depthwise, Mac mac, Store store)
{
    for (int oy = 0; oy < g.ho; oy++)
        for (int ox = 0; ox < g.wo; ox++)
            for (int oc = 0; oc < out_c; oc++) {
                Acc acc = 0;
                for (int dy = 0; dy < g.kh; dy++)
                    for (int dx = 0; dx < g.kw; dx++)
                        for (int ic = depthwise ? oc : 0; ic < (depthwise ? oc + 1 : c); ic++) {
                            const int y = oy * g.sy - g.top + dy, x = ox * g.sx - g.left + dx;
                            const bool inside = y >= 0 && y < h && x >= 0 && x < w;
                            const size_t place = depthwise ? static_cast<size_t>((dy * g.kw + dx) * c + ic)
                                                           : static_cast<size_t>(oc) * g.kh * g.kw * c +
                                                                 static_cast<size_t>((dy * g.kw + dx) * c + ic);
                            acc = mac(acc, place, inside, inside ? (static_cast<size_t>(y) * w + x) * c + ic : 0);
                        }
                store((static_cast<size_t>(oy) * g.wo + ox) * out_c + oc, acc);
            }
}

// ---- Random operands --------------------------------------------------------

struct ConvCase {
    const char *name;
    int w, h, c, kw, kh, out_c, sx, sy;
    dl_padding_t pad;
    bool bias;
};

void PrintTo(const ConvCase &c, std::ostream *os) { *os << c.name; }

const ConvCase kCases[] = {
    {"symmetric3x3", 7, 5, 3, 3, 3, 4, 1, 1, {1, 1, 1, 1}, true},
    {"same_after_stride2", 9, 6, 2, 3, 3, 5, 2, 2, {0, 1, 0, 1}, true},
    {"asymmetric", 8, 7, 3, 2, 3, 3, 2, 1, {1, 0, 2, 0}, false},
    {"pointwise", 5, 5, 16, 1, 1, 17, 1, 1, {0, 0, 0, 0}, true},
    {"pointwise_strided", 6, 4, 5, 1, 1, 3, 2, 1, {0, 0, 0, 0}, true},
    {"kws_10x4", 10, 49, 1, 4, 10, 8, 2, 1, {1, 2, 4, 5}, true},
    {"filter_beyond_input", 3, 3, 2, 5, 5, 2, 1, 1, {2, 2, 2, 2}, true},
    {"single", 1, 1, 1, 1, 1, 1, 1, 1, {0, 0, 0, 0}, false},
    {"odd_channels", 13, 11, 7, 3, 3, 33, 1, 1, {1, 1, 1, 1}, true},
    {"rgb_wide_rows", 17, 6, 3, 3, 3, 20, 1, 1, {1, 1, 1, 1}, true},
    {"wide_rows_strided", 19, 5, 2, 3, 2, 8, 2, 1, {0, 1, 1, 0}, false},
    {"many_blocks", 20, 20, 40, 3, 3, 9, 1, 1, {1, 1, 1, 1}, true},
    {"long_sums", 4, 4, 300, 3, 3, 3, 1, 1, {1, 1, 1, 1}, true},
};

// A filter bank of out_c filters (or one depthwise item) and its inputs.
struct Operands {
    T3 fin{nullptr, dl_matrix3d_free}, ffilter{nullptr, dl_matrix3d_free}, fbias{nullptr, dl_matrix3d_free};
    T3q qin{nullptr, dl_matrix3dq_free}, qfilter{nullptr, dl_matrix3dq_free}, qbias{nullptr, dl_matrix3dq_free};
    T3u image{nullptr, dl_matrix3du_free};
    int shift = 0;

    Operands(Rng &rng, const ConvCase &k, bool depthwise)
    {
        const int n = depthwise ? 1 : k.out_c, oc = depthwise ? k.c : k.out_c;
        fin = own(dl_matrix3d_alloc(1, k.w, k.h, k.c));
        ffilter = own(dl_matrix3d_alloc(n, k.kw, k.kh, k.c));
        qin = own(dl_matrix3dq_alloc(1, k.w, k.h, k.c, uniform(rng, -16, -8)));
        qfilter = own(dl_matrix3dq_alloc(n, k.kw, k.kh, k.c, uniform(rng, -17, -12)));
        image = own(dl_matrix3du_alloc(1, k.w, k.h, k.c));
        for (size_t i = 0; i < count(fin.get()); i++) {
            fin->item[i] = any_float(rng);
            qin->item[i] = any_item(rng);
            image->item[i] = static_cast<uc_t>(uniform(rng, 0, 3) ? uniform(rng, 0, 255) : 255 * uniform(rng, 0, 1));
        }
        for (size_t i = 0; i < count(ffilter.get()); i++) {
            ffilter->item[i] = any_float(rng);
            qfilter->item[i] = any_item(rng);
        }
        shift = uniform(rng, 0, 3);
        if (!k.bias) return;
        fbias = own(dl_matrix3d_alloc(1, 1, 1, oc));
        // Around the sums' exponent, so that either side gets aligned.
        qbias = own(dl_matrix3dq_alloc(1, 1, 1, oc, qin->exponent + qfilter->exponent + 15 + uniform(rng, -3, 6)));
        for (int i = 0; i < oc; i++) {
            fbias->item[i] = any_float(rng);
            qbias->item[i] = any_item(rng);
        }
    }
};

// The bias added to items as dl_matrixq_add(sums, bias, sums, 1) adds it.
void ref_bias_q(std::vector<qtp_t> &out, int &e, const dl_matrix3dq_t *bias)
{
    if (!bias) return;
    const int c = bias->c;
    dl_matrix2dq_t sums = {c, 1, 1, DL_MF_FOREIGNDATA, e, nullptr};
    dl_matrix2dq_t b = {c, 1, 1, DL_MF_FOREIGNDATA, bias->exponent, bias->item};
    for (size_t p = 0; p < out.size() / c; p++) {
        sums.itemq = out.data() + p * c;
        sums.exponent = e;
        dl_matrixq_add(&sums, &b, &sums, 1);
    }
    e = sums.exponent;
}

template <class In, class Val>
std::vector<float> ref_float(const ConvCase &k, const Geometry &g, bool dw, const In *in, Val val,
                             const dl_matrix3d_t *filter, const dl_matrix3d_t *bias)
{
    const int oc = dw ? k.c : k.out_c;
    std::vector<float> out(static_cast<size_t>(g.wo) * g.ho * oc);
    ref_conv<float>(
        k.w, k.h, k.c, g, oc, dw,
        [&](float acc, size_t place, bool inside, size_t i) {
            return acc + filter->item[place] * (inside ? val(in[i]) : 0.0f);
        },
        [&](size_t o, float acc) { out[o] = bias ? acc + bias->item[o % oc] : acc; });
    return out;
}

// Exact sums of items: fn(o, sum) for each output item o.
template <class In, class Val, class Fn>
void ref_sums(const ConvCase &k, const Geometry &g, bool dw, const In *in, Val val, const dl_matrix3dq_t *filter, Fn fn)
{
    ref_conv<int64_t>(
        k.w, k.h, k.c, g, dw ? k.c : k.out_c, dw,
        [&](int64_t acc, size_t place, bool inside, size_t i) {
            return acc + (inside ? static_cast<int64_t>(filter->item[place]) * val(in[i]) : 0);
        },
        fn);
}

void expect_floats(const std::vector<float> &want, const dl_matrix3d_t *got, const std::string &what)
{
    ASSERT_EQ(want.size(), count(got)) << what;
    for (size_t i = 0; i < want.size(); i++)
        ASSERT_TRUE(same_float(want[i], got->item[i]))
            << what << " item " << i << ": " << want[i] << " vs " << got->item[i];
}

// Fixed-point items and their exponent.
using Items = std::pair<std::vector<qtp_t>, int>;

void expect_items(const Items &want, const dl_matrix3dq_t *got, const std::string &what)
{
    ASSERT_EQ(want.first.size(), count(got)) << what;
    EXPECT_EQ(want.second, got->exponent) << what;
    for (size_t i = 0; i < want.first.size(); i++) ASSERT_EQ(want.first[i], got->item[i]) << what << " item " << i;
}

// Items of a sum, shifted and saturated, then the bias.
template <class In, class Val>
Items ref_q(const ConvCase &k, const Geometry &g, bool dw, const In *in, int e_in, Val val, const Operands &o)
{
    const int places = dw ? k.kw * k.kh : k.kw * k.kh * k.c;
    const int s = product_shift(places) - o.shift;
    Items out{std::vector<qtp_t>(static_cast<size_t>(g.wo) * g.ho * (dw ? k.c : k.out_c)),
              e_in + o.qfilter->exponent + s};
    ref_sums(k, g, dw, in, val, o.qfilter.get(),
             [&](size_t i, int64_t sum) { out.first[i] = static_cast<qtp_t>(clamp(sum >> s)); });
    ref_bias_q(out.first, out.second, o.qbias.get());
    return out;
}

template <class In, class Val>
std::vector<float> ref_qweight(const ConvCase &k, const Geometry &g, bool dw, const In *in, int e_in, Val val,
                               const Operands &o)
{
    std::vector<float> out(static_cast<size_t>(g.wo) * g.ho * (dw ? k.c : k.out_c));
    const float factor = std::ldexp(1.0f, e_in + o.qfilter->exponent);
    const int oc = dw ? k.c : k.out_c;
    ref_sums(k, g, dw, in, val, o.qfilter.get(), [&](size_t i, int64_t sum) {
        const float v = static_cast<float>(sum) * factor;
        out[i] = o.fbias ? v + o.fbias->item[i % oc] : v;
    });
    return out;
}

// ---- Every convolution path against the reference ---------------------------

// Names a case by the kernel it checks, its shape and its kind.
struct PathName {
    template <class Info>
    std::string operator()(const Info &info) const
    {
        return std::string(dl::isa_name(std::get<0>(info.param))) + "_" + std::get<1>(info.param).name +
               (std::get<2>(info.param) ? "_depthwise" : "");
    }
};

// The path, the shape, and whether the layers are the depthwise ones.
class ConvPathTest : public testing::TestWithParam<std::tuple<dl::Isa, ConvCase, bool>> {};

// The float, quantised-weight and fixed-point layers against the reference
// loops, and the convolution's image forms (bytes read as b / 256). The
// last round puts an infinite and a NaN float weight in: a padded place
// then adds NaN (infinity times 0.0) where the window reaches the padding.
TEST_P(ConvPathTest, SameBitsAsReference)
{
    const auto [isa, k, dw] = GetParam();
    if (!dl::isa_usable(isa)) GTEST_SKIP() << dl::isa_name(isa) << " kernel not built or not supported here";
    const std::string what = std::string(dl::isa_name(isa)) + " " + k.name + (dw ? " depthwise" : "");
    const Geometry g = geometry(k.w, k.h, k.kw, k.kh, k.sx, k.sy, k.pad);
    const auto fv = [](float v) { return v; };
    const auto iv = [](qtp_t v) { return static_cast<int32_t>(v); };
    const auto bf = [](uc_t b) { return static_cast<float>(b) / 256.0f; };
    const auto bi = [](uc_t b) { return static_cast<int32_t>(b) * 128; };
    const dl_padding_t *pad = &k.pad;
// The layer of the kind under test, by the path under test.
#define LAYER(name, ...) own(dw ? dl::depthwise_##name(isa, __VA_ARGS__) : dl::name(isa, __VA_ARGS__))
    Rng rng(dw ? 13 : 7);
    for (int round = 0; round < 4; round++) {
        Operands o(rng, k, dw);
        if (round == 3) {
            o.ffilter->item[0] = INFINITY;
            o.ffilter->item[count(o.ffilter.get()) - 1] = NAN;
        }
        T3 f = LAYER(conv_layer, o.fin.get(), o.ffilter.get(), o.fbias.get(), k.sx, k.sy, pad, nullptr);
        expect_floats(ref_float(k, g, dw, o.fin->item, fv, o.ffilter.get(), o.fbias.get()), f.get(), what + " float");
        T3q qin = own(dl_matrixq_from_matrix3d(o.fin.get()));
        T3 fq =
            LAYER(conv_layer_quantised_weight, o.fin.get(), o.qfilter.get(), o.fbias.get(), k.sx, k.sy, pad, nullptr);
        expect_floats(ref_qweight(k, g, dw, qin->item, qin->exponent, iv, o), fq.get(), what + " quantised_weight");
        T3q q = LAYER(conv_layer_q, o.qin.get(), o.qfilter.get(), o.qbias.get(), k.sx, k.sy, pad, nullptr, o.shift);
        expect_items(ref_q(k, g, dw, o.qin->item, o.qin->exponent, iv, o), q.get(), what + " q");
        if (dw) continue;

        T3 fu = own(dl::conv_layer(isa, o.image.get(), o.ffilter.get(), o.fbias.get(), k.sx, k.sy, pad, nullptr));
        expect_floats(ref_float(k, g, false, o.image->item, bf, o.ffilter.get(), o.fbias.get()), fu.get(),
                      what + " image float");
        T3 fqu = own(dl::conv_layer_quantised_weight(isa, o.image.get(), o.qfilter.get(), o.fbias.get(), k.sx, k.sy,
                                                     pad, nullptr));
        expect_floats(ref_qweight(k, g, false, o.image->item, -15, bi, o), fqu.get(), what + " image quantised_weight");
        T3q qu = own(
            dl::conv_layer_q(isa, o.image.get(), o.qfilter.get(), o.qbias.get(), k.sx, k.sy, pad, nullptr, o.shift));
        expect_items(ref_q(k, g, false, o.image->item, -15, bi, o), qu.get(), what + " image q");
    }
#undef LAYER
}

const auto kPaths = testing::Values(dl::Isa::none, dl::Isa::avx2, dl::Isa::avx512, dl::Isa::dsp);

INSTANTIATE_TEST_SUITE_P(Paths, ConvPathTest, testing::Combine(kPaths, testing::ValuesIn(kCases), testing::Bool()),
                         PathName());

// ---- Hand-checked goldens -------------------------------------------------------

// 3 x 3 input 1..9, one 2 x 2 filter of ones: each output is a window sum.
TEST(TensorConvGolden, WindowSumsWithAsymmetricPadding)
{
    T3 in = floats(1, 3, 3, 1, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    T3 filter = floats(1, 2, 2, 1, {1, 1, 1, 1});
    T3 bias = floats(1, 1, 1, 1, {0.5f});
    // One zero column on the right and one zero row below: 3 x 3 windows.
    const dl_padding_t pad = {0, 1, 0, 1};
    T3 out = own(dl_matrix3d_conv_layer(in.get(), filter.get(), bias.get(), 1, 1, &pad, nullptr));
    ASSERT_EQ(out->w, 3);
    ASSERT_EQ(out->h, 3);
    EXPECT_EQ(std::vector<float>(out->item, out->item + 9),
              (std::vector<float>{12.5f, 16.5f, 9.5f, 24.5f, 28.5f, 15.5f, 15.5f, 17.5f, 9.5f}));
    // Stride 2 without padding: one window, at the corner.
    T3 one = own(dl_matrix3d_conv_layer(in.get(), filter.get(), nullptr, 2, 2, nullptr, nullptr));
    EXPECT_EQ(one->w * one->h, 1);
    EXPECT_EQ(one->item[0], 12.0f);
}

// Two input channels, two filters: filter oc is item oc of the bank, its
// places in the order rows, columns, channels.
TEST(TensorConvGolden, FilterBankLayoutAndFixedPointExponent)
{
    // 1 x 2 input, channels (1, 2) and (3, 4); 1 x 2 window.
    T3q in = items(1, 2, 1, 2, -2, {1, 2, 3, 4});
    T3q filter = items(2, 2, 1, 2, -3, {1, 0, 0, 0, 0, 1, 0, 1});  // first channel-0 item; sum of channel 1
    T3q out = own(dl_matrix3dq_conv_layer_q(in.get(), filter.get(), nullptr, 1, 1, nullptr, nullptr, 17));
    // K = 4, default shift 17, caller's 17: s = 0, so the sums stand as they are.
    EXPECT_EQ(state(out.get()), QState({1, 6}, -5));
    // With the default shift: 6 >> 17 is 0, and the exponent rises by 17.
    T3q bias = items(1, 1, 1, 2, -12, {-3, 5});
    T3q shifted = own(dl_matrix3dq_conv_layer_q(in.get(), filter.get(), bias.get(), 1, 1, nullptr, nullptr, 0));
    // The bias at -12 is lower than the sums' 12: shifted right by 24, -3
    // becomes -1 (rounded down), 5 becomes 0.
    EXPECT_EQ(state(shifted.get()), QState({-1, 0}, 12));
}

TEST(TensorConvGolden, ImageBytesAreEighths)
{
    dl_matrix3du_t img_rec = {2, 1, 1, 1, 2, nullptr};
    uc_t bytes[2] = {128, 255};
    img_rec.item = bytes;
    T3 filter = floats(1, 1, 1, 1, {2.0f});
    T3 out = own(dl_matrix3du_conv_layer(&img_rec, filter.get(), nullptr, 1, 1, nullptr, nullptr));
    EXPECT_EQ(std::vector<float>(out->item, out->item + 2), (std::vector<float>{1.0f, 255.0f / 128.0f}));
    // Fixed point: items 128 * b at exponent -15.
    T3q qfilter = items(1, 1, 1, 1, 0, {1});
    T3q q = own(dl_matrix3du_conv_layer_q(&img_rec, qfilter.get(), nullptr, 1, 1, nullptr, nullptr, 15));
    EXPECT_EQ(state(q.get()), QState({128 * 128, 255 * 128}, -15));
}

struct SameCase {
    int size, f, s;
    int before_if_odd_after, after_if_odd_after;
};

TEST(PaddingSame, SplitsTheTotal)
{
    const SameCase cases[] = {
        {5, 3, 1, 1, 1},  // odd filter, stride 1: one each side
        {4, 2, 1, 0, 1},  // even filter: the odd one after, or before
        {5, 3, 2, 1, 1},  // 3 windows: (3-1)*2 + 3 - 5 = 2
        {4, 3, 2, 0, 1},  // 2 windows: 1
        {6, 1, 2, 0, 0},  // 1 x 1 windows need none
        {2, 5, 1, 2, 2},  // window beyond the input
    };
    for (const SameCase &c : cases) {
        const dl_padding_t after = dl_padding_same(c.size, 1, c.f, 1, c.s, 1, 1);
        const dl_padding_t before = dl_padding_same(c.size, 1, c.f, 1, c.s, 1, 0);
        EXPECT_EQ(
            std::tuple(after.left, after.right, after.top, before.left, before.right),
            std::tuple(c.before_if_odd_after, c.after_if_odd_after, 0, c.after_if_odd_after, c.before_if_odd_after))
            << c.size << " " << c.f << " " << c.s;
        // The padding gives ceil(size / stride) windows.
        EXPECT_EQ((after.left + c.size + after.right - c.f) / c.s + 1, (c.size + c.s - 1) / c.s);
    }
}

// ---- Pooling --------------------------------------------------------------------

TEST(TensorPool, MaxAndAverageFloat)
{
    // 4 x 2 x 1: 1 2 3 4 / 5 6 -7 NaN.
    T3 in = floats(1, 4, 2, 1, {1, 2, 3, 4, 5, 6, -7, NAN});
    T3 mx = own(dl_matrix3d_max_pool(in.get(), 2, 2, 2, 2, nullptr));
    ASSERT_EQ(mx->w, 2);
    EXPECT_EQ(mx->item[0], 6.0f);
    EXPECT_EQ(mx->item[1], 4.0f);  // a NaN after the first place never wins
    T3 avg = own(dl_matrix3d_avg_pool(in.get(), 2, 1, 2, 1, nullptr));
    EXPECT_EQ(std::vector<float>(avg->item, avg->item + 3), (std::vector<float>{1.5f, 3.5f, 5.5f}));
    EXPECT_TRUE(std::isnan(avg->item[3]));
    T3 g = own(dl_matrix3d_global_avg_pool(in.get(), nullptr));
    EXPECT_EQ(g->w * g->h * g->c, 1);
}

TEST(TensorPool, FixedPointRoundsDownAndKeepsExponent)
{
    // Two channels; windows of 1 x 2 over 2 x 1 x 2.
    T3q in = items(1, 2, 1, 2, -7, {-1, 32767, -2, 32767});
    T3q avg = own(dl_matrix3dq_avg_pool_q(in.get(), 2, 1, 1, 1, nullptr));
    EXPECT_EQ(state(avg.get()), QState({-2, 32767}, -7));  // -3 / 2 rounded toward minus infinity
    T3q low = items(1, 2, 1, 1, 0, {-32768, -32768});
    T3q g = own(dl_matrix3dq_global_avg_pool_q(low.get(), nullptr));
    EXPECT_EQ(g->item[0], -32767);  // saturated
    T3q mx = own(dl_matrix3dq_max_pool_q(in.get(), 2, 1, 1, 1, nullptr));
    EXPECT_EQ(state(mx.get()), QState({-1, 32767}, -7));
}

// ---- Element-wise -----------------------------------------------------------

TEST(TensorElementwise, ReluAndAddFollowTheMatrixRules)
{
    T3q a = items(1, 1, 1, 3, -4, {-5, 40, 100});
    T3q r = own(dl_matrix3dq_relu_q(a.get(), 4.0f, nullptr));  // clip 4.0 is item 64
    EXPECT_EQ(state(r.get()), QState({0, 40, 64}, -4));
    T3q b = items(1, 1, 1, 3, -2, {1, -1, 32767});
    // b is higher: a is shifted right by 2 (-5 -> -2), saturated at 32767.
    T3q s1 = own(dl_matrix3dq_add_q(a.get(), b.get(), nullptr, 1));
    EXPECT_EQ(state(s1.get()), QState({-1, 9, 32767}, -2));
    // In place, halving: exponent one above.
    dl_matrix3dq_add_q(a.get(), b.get(), a.get(), 0);
    EXPECT_EQ(state(a.get()), QState({-1, 4, 16396}, -1));

    T3 f = floats(1, 1, 1, 3, {-1, 0.5f, 9});
    dl_matrix3d_relu(f.get(), 2.0f, f.get());
    dl_matrix3d_add(f.get(), f.get(), f.get());
    EXPECT_EQ(std::vector<float>(f->item, f->item + 3), (std::vector<float>{0, 1, 4}));
}

// ---- Contract ---------------------------------------------------------------------

T3 tensor(int n, int w, int h, int c) { return own(dl_matrix3d_alloc(n, w, h, c)); }

const testutil::DeathCase kDeaths[] = {
    {"channels",
     [] {
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 2).get(), tensor(1, 2, 2, 3).get(), nullptr, 1, 1, nullptr, nullptr);
     },
     "Assertion `filter->c==in.c' failed"},
    {"stride",
     [] {
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 1).get(), tensor(1, 2, 2, 1).get(), nullptr, 0, 1, nullptr, nullptr);
     },
     "Assertion `stride_x>=1' failed"},
    {"padding",
     [] {
         const dl_padding_t p = {0, -1, 0, 0};
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 1).get(), tensor(1, 2, 2, 1).get(), nullptr, 1, 1, &p, nullptr);
     },
     "Assertion `p.top>=0 && p.bottom>=0 && p.left>=0 && p.right>=0' failed"},
    {"window",
     [] {
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 1).get(), tensor(1, 4, 2, 1).get(), nullptr, 1, 1, nullptr, nullptr);
     },
     "Assertion `kw<=padded_w' failed"},
    {"bias",
     [] {
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 1).get(), tensor(2, 2, 2, 1).get(), tensor(1, 1, 1, 3).get(), 1, 1,
                                nullptr, nullptr);
     },
     "Assertion `bias->c==channels' failed"},
    {"out",
     [] {
         dl_matrix3d_conv_layer(tensor(1, 3, 3, 1).get(), tensor(2, 2, 2, 1).get(), nullptr, 1, 1, nullptr,
                                tensor(1, 2, 2, 1).get());
     },
     "Assertion `out->c==c' failed"},
    {"depthwise_n",
     [] {
         dl_matrix3d_depthwise_conv_layer(tensor(1, 3, 3, 2).get(), tensor(2, 2, 2, 2).get(), nullptr, 1, 1, nullptr,
                                          nullptr);
     },
     "Assertion `filter->n==1' failed"},
    {"shift",
     [] {
         T3q in = own(dl_matrix3dq_alloc(1, 3, 3, 1, 0)), f = own(dl_matrix3dq_alloc(1, 2, 2, 1, 0));
         dl_matrix3dq_conv_layer_q(in.get(), f.get(), nullptr, 1, 1, nullptr, nullptr, 18);
     },
     "Assertion `shift<=product_shift\\(places\\)' failed"},
    {"add_shape", [] { dl_matrix3d_add(tensor(1, 3, 3, 1).get(), tensor(1, 3, 3, 2).get(), nullptr); },
     "Assertion `same_tensor_shape\\(a, b\\)' failed"},
    {"weight_c", [] { dl_matrix2dq_weight_view_from_matrix3dq(own(dl_matrix3dq_alloc(1, 2, 2, 2, 0)).get(), nullptr); },
     "Assertion `in->c==1' failed"},
};

DEATH_TEST_TABLE(TensorOpsDeathTest, kDeaths);

// ---- Depthwise kernels, each against the reference ------------------------------

// Shapes for the depthwise kernels: 16-channel groups with tiles of positions
// that run across row ends, a partial vector and an odd channel, windows
// that lie wholly in the padding, rows of 3-wide windows that share their
// input (an odd number of rows, 10 and 7 positions a row).
const ConvCase kDepthwiseCases[] = {
    {"kws_64", 5, 25, 64, 3, 3, 64, 1, 1, {1, 1, 1, 1}, true},
    {"channels_21_strided", 7, 6, 21, 3, 3, 21, 2, 2, {0, 1, 0, 1}, true},
    {"channels_24_asymmetric", 9, 4, 24, 2, 3, 24, 1, 1, {2, 0, 1, 3}, false},
    {"windows_in_padding", 2, 2, 9, 1, 1, 9, 1, 1, {2, 1, 1, 2}, true},
    {"wide_window", 6, 5, 3, 5, 4, 3, 1, 2, {4, 0, 3, 1}, true},
    {"wide_rows", 12, 5, 11, 3, 3, 11, 1, 1, {1, 1, 1, 1}, true},
    {"rows_strided", 9, 9, 8, 3, 3, 8, 1, 2, {0, 0, 1, 1}, false},
};

INSTANTIATE_TEST_SUITE_P(Depthwise, ConvPathTest,
                         testing::Combine(kPaths, testing::ValuesIn(kDepthwiseCases), testing::Values(true)),
                         PathName());

// Convolution shapes at the kernels' edges: twelve output channels (a
// vector and part of a second), a window too long for the DSP kernel's
// stack copy whose rows are short, and windows wholly in the padding beside
// windows of one place.
const ConvCase kKernelEdgeCases[] = {
    {"partial_second_vector", 11, 7, 2, 3, 3, 12, 1, 1, {1, 1, 1, 1}, true},
    {"long_window_short_rows", 14, 14, 2, 13, 13, 3, 1, 1, {6, 6, 6, 6}, false},
    {"windows_in_padding", 3, 2, 3, 2, 2, 6, 1, 1, {2, 1, 1, 2}, true},
};

INSTANTIATE_TEST_SUITE_P(KernelEdges, ConvPathTest,
                         testing::Combine(kPaths, testing::ValuesIn(kKernelEdgeCases), testing::Values(false)),
                         PathName());

}  // namespace
