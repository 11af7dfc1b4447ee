#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "conv_internal.h"
#include "dl_lib.h"
#include "reference.h"

using namespace testutil;
using namespace ref;

namespace {

// Both layers behind one call: the quantised-weight one gets the filter
// quantised. Inputs and filters of small integers and halves quantise
// exactly, so both give the same floats.
enum class Layer { float_filter, quantised_filter };

void PrintTo(Layer l, std::ostream *os) { *os << (l == Layer::float_filter ? "float" : "quantised_weight"); }

dl_matrix2d_t *conv(Layer layer, const dl_matrix2d_t *in, const dl_matrix2d_t *filter, const dl_matrix2d_t *bias,
                    int fw, int fh, int channels, int sx, int sy, int padding, dl_matrix2d_t *out = nullptr)
{
    if (layer == Layer::float_filter)
        return dl_basic_conv_layer(in, filter, bias, fw, fh, channels, sx, sy, padding, out);
    MatrixqPtr q = own(dl_matrixq_from_matrix2d(filter, nullptr));
    return dl_basic_conv_layer_quantised_weight(in, q.get(), bias, fw, fh, channels, sx, sy, padding, out);
}

class ConvLayerTest : public testing::TestWithParam<Layer> {};

TEST_P(ConvLayerTest, WorkedExample)
{
    // Channel 0 sums the 2 x 2 window, channel 1 takes its first place.
    MatrixPtr in = matrix(3, 2, {1, 2, 3, 4, 5, 6});
    MatrixPtr filter = matrix(2, 4, {1, 1, 1, 0, 1, 0, 1, 0});
    MatrixPtr bias = matrix(2, 1, {0.5f, 0.0f});
    // Padded: 0 0 0 0 0 / 0 1 2 3 0 / 0 4 5 6 0 / 0 0 0 0 0, windows from
    // (1, 1): 1 2 4 5; 2 3 5 6; 3 0 6 0; 4 5 0 0; 5 6 0 0; 6 0 0 0.
    MatrixPtr out = own(conv(GetParam(), in.get(), filter.get(), bias.get(), 2, 2, 2, 1, 1, 1));
    EXPECT_EQ(out->h, 1);
    EXPECT_EQ(items_of(out.get()), (std::vector<float>{12.5f, 1, 16.5f, 2, 9.5f, 3, 9.5f, 4, 11.5f, 5, 6.5f, 6}));
    // Without padding: windows at (0, 0) and (1, 0) only.
    MatrixPtr bare = own(conv(GetParam(), in.get(), filter.get(), bias.get(), 2, 2, 2, 1, 1, 0));
    EXPECT_EQ(items_of(bare.get()), (std::vector<float>{12.5f, 1, 16.5f, 2}));
    EXPECT_EQ(items_of(in.get()), (std::vector<float>{1, 2, 3, 4, 5, 6}));
    // A given output is overwritten.
    MatrixPtr given = matrix(4, 1, {-7, -7, -7, -7});
    EXPECT_EQ(conv(GetParam(), in.get(), filter.get(), bias.get(), 2, 2, 2, 1, 1, 0, given.get()), given.get());
    EXPECT_EQ(items_of(given.get()), items_of(bare.get()));
}

INSTANTIATE_TEST_SUITE_P(Layers, ConvLayerTest, testing::Values(Layer::float_filter, Layer::quantised_filter),
                         [](const auto &info) { return testing::PrintToString(info.param); });

// ---- Geometry ------------------------------------------------------------

// One axis: its size, filter, stride and padding; the positions, the size
// of the padded axis, the first window's start and the input's place.
struct AxisCase {
    int size, f, s, padding;
    int n, padded, offset, margin;
};

void PrintTo(const AxisCase &c, std::ostream *os)
{
    *os << "size " << c.size << " f " << c.f << " s " << c.s << " padding " << c.padding;
}

class ConvGeometryTest : public testing::TestWithParam<AxisCase> {};

TEST_P(ConvGeometryTest, AxisAndWindows)
{
    const AxisCase &c = GetParam();
    const dl::ConvAxis a = dl::conv_axis(c.size, c.f, c.s, c.padding);
    EXPECT_EQ(std::tuple(a.n, a.padded, a.offset, a.margin), std::tuple(c.n, c.padded, c.offset, c.margin));

    // Through both layers, along x and along y (the other axis one element
    // wide): an identity filter puts window place i in channel i, so the
    // output shows what each window holds. Input element j holds j + 1, the
    // zero frame 0.
    std::vector<float> ramp(static_cast<size_t>(c.size)), eye(static_cast<size_t>(c.f * c.f), 0.0f);
    for (int j = 0; j < c.size; j++) ramp[j] = static_cast<float>(j + 1);
    for (int i = 0; i < c.f; i++) eye[i + c.f * i] = 1.0f;
    std::vector<float> want;
    for (int p = 0; p < c.n; p++)
        for (int i = 0; i < c.f; i++) {
            const int j = c.offset + p * c.s + i - c.margin;
            want.push_back(j >= 0 && j < c.size ? static_cast<float>(j + 1) : 0.0f);
        }
    MatrixPtr filter = matrix(c.f, c.f, eye), bias = own(dl_matrix_alloc(c.f, 1));
    for (Layer layer : {Layer::float_filter, Layer::quantised_filter}) {
        MatrixPtr across = matrix(c.size, 1, ramp), down = matrix(1, c.size, ramp);
        MatrixPtr x = own(conv(layer, across.get(), filter.get(), bias.get(), c.f, 1, c.f, c.s, 1, c.padding));
        MatrixPtr y = own(conv(layer, down.get(), filter.get(), bias.get(), 1, c.f, c.f, 1, c.s, c.padding));
        EXPECT_EQ(items_of(x.get()), want) << testing::PrintToString(layer) << " along x";
        EXPECT_EQ(items_of(y.get()), want) << testing::PrintToString(layer) << " along y";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Axes, ConvGeometryTest,
    testing::Values(AxisCase{3, 2, 1, 1, 3, 5, 1, 1}, AxisCase{2, 2, 1, 1, 2, 4, 1, 1},  // the worked example
                    AxisCase{5, 3, 2, 1, 3, 7, 0, 1},                                    // rem 0
                    AxisCase{5, 3, 1, 1, 5, 7, 0, 1},    // odd filter, stride 1: corner to corner
                    AxisCase{6, 3, 2, 1, 3, 8, 1, 1},    // rem 1: the middle branch
                    AxisCase{8, 5, 2, 1, 4, 12, 1, 2},   // middle branch, offset below the margin
                    AxisCase{4, 2, 2, 1, 2, 6, 1, 1},    // rem above half
                    AxisCase{4, 6, 4, 1, 1, 10, 3, 3},   // filter larger than the input
                    AxisCase{4, 4, 1, 1, 4, 8, 1, 2},    // even filter, stride 1: one zero column left, two right
                    AxisCase{4, 1, 1, 1, 4, 4, 0, 0},    // a one-wide filter has no margin
                    AxisCase{5, 3, 1, 2, 5, 9, 1, 2},    // padding 2 widens the margin, not the offset
                    AxisCase{6, 3, 2, 0, 2, 6, 0, 0},    // no padding: the last column is dropped
                    AxisCase{3, 3, 1, 0, 1, 3, 0, 0}));  // no padding, filter as large as the input

// ---- Random reference ----------------------------------------------------

struct RandomCase {
    int w, h, fw, fh, channels, sx, sy, padding;
};

void PrintTo(const RandomCase &c, std::ostream *os)
{
    *os << c.w << "x" << c.h << " filter " << c.fw << "x" << c.fh << " stride " << c.sx << "," << c.sy << " padding "
        << c.padding;
}

class ConvReferenceTest : public testing::TestWithParam<RandomCase> {};

// Calls out(oc, x0, y0) for every output item in storage order,
// (oy * wo + ox) * channels + oc, with the window's top left corner in input
// coordinates (negative or beyond the input where it covers padding).
template <class Out>
void reference_conv(const RandomCase &c, Out out)
{
    // The axes as the hand-checked table above pins them.
    const dl::ConvAxis ax = dl::conv_axis(c.w, c.fw, c.sx, c.padding), ay = dl::conv_axis(c.h, c.fh, c.sy, c.padding);
    for (int oy = 0; oy < ay.n; oy++)
        for (int ox = 0; ox < ax.n; ox++)
            for (int oc = 0; oc < c.channels; oc++)
                out(oc, ox * c.sx + ax.offset - ax.margin, oy * c.sy + ay.offset - ay.margin);
}

TEST_P(ConvReferenceTest, BothLayers)
{
    const RandomCase &c = GetParam();
    std::mt19937 rng(static_cast<unsigned>(c.w * 31 + c.fh));
    MatrixPtr in = random_matrix(rng, c.w, c.h, -4.0f, 4.0f);
    MatrixPtr filter = random_matrix(rng, c.channels, c.fw * c.fh, -1.0f, 1.0f);
    MatrixPtr bias = random_matrix(rng, c.channels, 1, -1.0f, 1.0f);
    auto inside = [&](int x, int y) { return x >= 0 && x < c.w && y >= 0 && y < c.h; };

    // Float: one ordered float sum per channel over the window's places, row
    // by row; the quantised weight: the input quantised once as a whole, an
    // exact sum of items rounded once to float and scaled.
    MatrixqPtr qf = own(dl_matrixq_from_matrix2d(filter.get(), nullptr));
    MatrixqPtr qin = own(dl_matrixq_from_matrix2d(in.get(), nullptr));
    const float scale = std::ldexp(1.0f, qin->exponent + qf->exponent);
    const int places = c.fw * c.fh;
    std::vector<float> want_float, want_q;
    reference_conv(c, [&](int oc, int x0, int y0) {
        auto weight = [&](int i) { return filter->item[oc + filter->stride * i]; };
        auto pixel = [&](int i) {
            const int x = x0 + i % c.fw, y = y0 + i / c.fw;
            return inside(x, y) ? in->item[x + in->stride * y] : 0.0f;
        };
        auto pixel_q = [&](int i) {
            const int x = x0 + i % c.fw, y = y0 + i / c.fw;
            return inside(x, y) ? item(qin.get(), x, y) : 0;
        };
        want_float.push_back(bias->item[oc] + ordered_dot(places, weight, pixel));
        const int64_t sum = exact_sum(
            places, [&](int i) { return item(qf.get(), oc, i); }, pixel_q);
        want_q.push_back(bias->item[oc] + static_cast<float>(sum) * scale);
    });
    MatrixPtr got = own(dl_basic_conv_layer(in.get(), filter.get(), bias.get(), c.fw, c.fh, c.channels, c.sx, c.sy,
                                            c.padding, nullptr));
    EXPECT_EQ(items_of(got.get()), want_float);
    MatrixPtr got_q = own(dl_basic_conv_layer_quantised_weight(in.get(), qf.get(), bias.get(), c.fw, c.fh, c.channels,
                                                               c.sx, c.sy, c.padding, nullptr));
    EXPECT_EQ(items_of(got_q.get()), want_q);
}

INSTANTIATE_TEST_SUITE_P(Shapes, ConvReferenceTest,
                         testing::Values(RandomCase{9, 7, 3, 3, 4, 1, 1, 1}, RandomCase{9, 7, 3, 2, 5, 2, 3, 1},
                                         RandomCase{10, 6, 4, 3, 3, 3, 2, 1}, RandomCase{8, 8, 5, 5, 2, 2, 2, 2},
                                         RandomCase{9, 7, 3, 3, 4, 2, 1, 0}, RandomCase{7, 5, 2, 4, 16, 1, 1, 0},
                                         // one place; a tall filter; an odd filter height in an even
                                         // column, whose last window reads one item past the input
                                         RandomCase{6, 5, 1, 1, 3, 1, 1, 0}, RandomCase{7, 9, 2, 7, 2, 1, 2, 1},
                                         RandomCase{8, 6, 3, 3, 2, 1, 1, 0}));

// ---- Window sums -----------------------------------------------------------

// The kernel that the target builds (SMLALD on ARM with the DSP extension,
// the plain loop elsewhere) against exact sums: runs of one, two and three
// pairs, a last channel alone, windows a column or a row apart, and items
// at the ends of the range, whose sums leave 32 bits.
struct WindowCase {
    int columns, run, channels, count, step;
};

class WindowSumsTest : public testing::TestWithParam<WindowCase> {};

TEST_P(WindowSumsTest, ExactSums)
{
    const WindowCase &c = GetParam();
    Rng rng(static_cast<unsigned>(c.run * 10 + c.channels));
    const int stride = c.run + 3;
    std::vector<qtp_t> frame(static_cast<size_t>(stride) * (c.columns + c.count * c.step) + c.run), weights;
    for (qtp_t &v : frame) v = any_item(rng);
    for (int k = 0; k < c.channels * c.columns * c.run; k++) weights.push_back(any_item(rng));
    const dl::WindowLayout layout = {c.columns, c.run, stride, c.channels, weights.data()};
    std::vector<int64_t> sums(static_cast<size_t>(c.count) * c.channels, -1);
    dl::window_sums(layout, frame.data(), c.count, c.step, sums.data());
    for (int p = 0; p < c.count; p++)
        for (int oc = 0; oc < c.channels; oc++) {
            const int64_t want = exact_sum(
                c.columns * c.run,
                [&](int j) { return frame[static_cast<size_t>(p) * c.step + stride * (j / c.run) + j % c.run]; },
                [&](int j) { return weights[static_cast<size_t>(c.run) * c.columns * oc + j]; });
            EXPECT_EQ(sums[static_cast<size_t>(p) * c.channels + oc], want) << "window " << p << ", channel " << oc;
        }
}

INSTANTIATE_TEST_SUITE_P(Layouts, WindowSumsTest,
                         testing::Values(WindowCase{3, 4, 4, 8, 1}, WindowCase{3, 4, 5, 6, 7},
                                         WindowCase{1, 2, 3, 5, 2}, WindowCase{2, 6, 2, 4, 9},
                                         WindowCase{5, 4, 1, 3, 1}, WindowCase{4, 2, 16, 2, 3}));

// ---- Contract ------------------------------------------------------------

struct ConvDeathCase {
    const char *name;
    int fw, fh, sx, sy, padding, out_w, out_h;
    const char *message;
};

void PrintTo(const ConvDeathCase &c, std::ostream *os) { *os << c.name; }

class ConvDeathTest : public testing::TestWithParam<ConvDeathCase> {};

TEST_P(ConvDeathTest, FailsWithConditionText)
{
    const ConvDeathCase &c = GetParam();
    MatrixPtr in = matrix(3, 2, {1, 2, 3, 4, 5, 6}), filter = own(dl_matrix_alloc(1, c.fw * c.fh)),
              bias = own(dl_matrix_alloc(1, 1)), out = own(dl_matrix_alloc(c.out_w, c.out_h));
    for (Layer layer : {Layer::float_filter, Layer::quantised_filter})
        EXPECT_DEATH(conv(layer, in.get(), filter.get(), bias.get(), c.fw, c.fh, 1, c.sx, c.sy, c.padding, out.get()),
                     c.message);
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, ConvDeathTest,
    testing::Values(ConvDeathCase{"stride_x", 2, 2, 0, 1, 1, 6, 1, "Assertion `stride_x >= 1' failed"},
                    ConvDeathCase{"stride_y", 2, 2, 1, 0, 1, 6, 1, "Assertion `stride_y >= 1' failed"},
                    ConvDeathCase{"padding", 2, 2, 1, 1, -1, 6, 1, "Assertion `padding >= 0' failed"},
                    ConvDeathCase{"filter_w", 4, 2, 1, 1, 0, 6, 1, "Assertion `filter_w <= in->w' failed"},
                    ConvDeathCase{"filter_h", 2, 3, 1, 1, 0, 6, 1, "Assertion `filter_h <= in->h' failed"},
                    ConvDeathCase{"out_h", 2, 2, 1, 1, 1, 6, 2, "Assertion `out->h == 1' failed"},
                    ConvDeathCase{"out_w", 2, 2, 1, 1, 1, 5, 1,
                                  "Assertion `out->w == out_channels \\* wo \\* ho' failed"}),
    CaseName());

// The float layer takes a larger filter or bias than it uses, but not a
// smaller one (the fixed-point layer's product asserts exact shapes).
TEST(ConvDeathTest, FloatFilterAndBiasLargeEnough)
{
    MatrixPtr in = matrix(3, 2, {1, 2, 3, 4, 5, 6}), filter = own(dl_matrix_alloc(2, 4)),
              bias = own(dl_matrix_alloc(2, 1)), small = own(dl_matrix_alloc(1, 1));
    EXPECT_DEATH(dl_basic_conv_layer(in.get(), small.get(), bias.get(), 2, 2, 2, 1, 1, 0, nullptr),
                 "Assertion `filter->h>=filter_w\\*filter_h' failed");
    EXPECT_DEATH(dl_basic_conv_layer(in.get(), filter.get(), bias.get(), 2, 2, 3, 1, 1, 0, nullptr),
                 "Assertion `filter->w>=out_channels' failed");
    EXPECT_DEATH(dl_basic_conv_layer(in.get(), filter.get(), small.get(), 2, 2, 2, 1, 1, 0, nullptr),
                 "Assertion `bias->w\\*bias->h>=out_channels' failed");
}

}  // namespace
