#include "dl_lib.h"

#include <math.h>

#include "conv_internal.h"
#include "dl_lib_internal.h"

void dl_batch_normalize_get_sqrtvar(const dl_matrix2d_t *variance, fptp_t epsilon, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(variance, out));
    // Bounded by both sides, so an empty matrix of two billion rows costs nothing.
    for (int y = 0; y < variance->h && variance->w > 0; y++) {
        for (int x = 0; x < variance->w; x++) {
            const fptp_t s = variance->item[x + variance->stride * y] + epsilon;
            fptp_t root = 0.0f;
            if (s >= 0.0f) {
                root = static_cast<fptp_t>(sqrt(static_cast<double>(s)));
            } else {  // negative or NaN
                fputs("dl_batch_normalize_get_sqrtvar: negative input to sqrt\n", stderr);
            }
            out->item[x + out->stride * y] = root;
        }
    }
}

// ---- Float activations ---------------------------------------------------

namespace {

constexpr fptp_t kSigmoidStepsize = 0.5f;

// The sigmoid at x = 0.5 * i. These are the model's constants, not the exact
// function: they differ from it in the fourth decimal, and the last is 1.0.
constexpr fptp_t kSigmoidSteps[16] = {0.5f,     0.62256f, 0.73096f, 0.81738f, 0.88086f, 0.92432f,
                                      0.95264f, 0.9707f,  0.98193f, 0.98877f, 0.99316f, 0.99609f,
                                      0.99756f, 0.99854f, 0.99902f, 1.0f};

// Every item of in through op into the same place of out, row by row.
template <class Op>
void map_items(const dl_matrix2d_t *in, dl_matrix2d_t *out, Op op)
{
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) out->item[x + out->stride * y] = op(in->item[x + in->stride * y]);
}

}  // namespace

fptp_t fast_exp(double x, int n)
{
    DL_ASSERT(n >= 0 && n <= 30);
    const double steps = static_cast<double>(INT32_C(1) << n);
    double r = x / steps + 1.0;
    for (int i = 0; i < n; i++) r *= r;
    return static_cast<fptp_t>(r);
}

void dl_softmax(const dl_matrix2d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(out->w>=in->w && out->h>=in->h);
    // Two passes of fast_exp instead of a scratch matrix. The sum is complete
    // before the first write, so out may be in.
    fptp_t sum = 0.0f;
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) sum += fast_exp(static_cast<double>(in->item[x + in->stride * y]), 8);
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++)
            out->item[x + out->stride * y] = fast_exp(static_cast<double>(in->item[x + in->stride * y]), 8) / sum;
}

fptp_t dl_sigmoid_op(fptp_t x)
{
    if (0.0f > x) return 1.0f - dl_sigmoid_op(-x);
    const fptp_t t = x / kSigmoidStepsize;
    const int32_t i = dl::trunc_i32(t);
    // From 7.5 on the curve is the last entry. A NaN or a t beyond 32 bits
    // truncates to INT32_MIN, which no non-negative t gives otherwise.
    if (i >= 15 || i == INT32_MIN) return 1.0f;
    const fptp_t f = t - static_cast<fptp_t>(i);
    // The weights mix precisions on purpose: the lower entry's share is a
    // double product, the upper one's a float product, summed in double.
    const double low = static_cast<double>(kSigmoidSteps[i]) * (1.0 - static_cast<double>(f));
    const fptp_t high = kSigmoidSteps[i + 1] * f;
    return static_cast<fptp_t>(static_cast<double>(high) + low);
}

void dl_sigmoid(const dl_matrix2d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(in, out));
    map_items(in, out, dl_sigmoid_op);
}

fptp_t dl_tanh_op(fptp_t x)
{
    const fptp_t s = dl_sigmoid_op(x + x);
    return (s + s) - 1.0f;
}

void dl_tanh(const dl_matrix2d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(in, out));
    map_items(in, out, dl_tanh_op);
}

fptp_t dl_relu_op(fptp_t x, fptp_t clip)
{
    if (0.0f > x) return 0.0f;
    if (x > clip) return clip;
    return x;
}

void dl_relu(const dl_matrix2d_t *in, fptp_t clip, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(in, out));
    map_items(in, out, [clip](fptp_t x) { return dl_relu_op(x, clip); });
}

// ---- Fixed-point activations ---------------------------------------------

namespace {

// kSigmoidSteps times 32767, truncated: 32767 stands for 1.0 here.
constexpr int32_t kSigmoidStepsQ[16] = {16383, 20399, 23951, 26783, 28863, 30287, 31215, 31806,
                                        32174, 32399, 32542, 32638, 32687, 32719, 32734, 32767};

// The largest Q15 value a softmax item can hold at exponent -15.
constexpr fptp_t kMaxQ15 = 32767.0f / 32768.0f;

// An item brought to Q15 by a shift of s (left for s > 0). A left shift that
// leaves 32 bits saturates at +-(2^31 - 1), keeping the sign; a right shift
// rounds down and stops at 31, where every negative item has become -1.
int32_t align_q15(int32_t item, int s)
{
    if (s <= 0) return item >> (-s < 31 ? -s : 31);
    if (item == 0) return 0;
    const int64_t v = static_cast<int64_t>(item) * (INT64_C(1) << (s < 32 ? s : 32));
    if (v > INT32_MAX) return INT32_MAX;
    if (v < -INT32_MAX) return -INT32_MAX;
    return static_cast<int32_t>(v);
}

// The Q15 operation on every item, written back at exponent -15. The shift
// is taken before any item or the exponent changes, so out may be in.
template <class Op>
void map_items_q15(const dl_matrix2dq_t *in, dl_matrix2dq_t *out, Op op)
{
    const int s = in->exponent + 15;
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++)
            out->itemq[y + out->stride * x] = dl::low16(op(align_q15(in->itemq[y + in->stride * x], s)));
    out->exponent = -15;
}

}  // namespace

int32_t dl_sigmoid_op_q(int32_t x)
{
    // The complement is taken against 32767, the table's 1.0. INT32_MIN, no
    // valid input, is taken as its neighbour instead of overflowing.
    if (x < 0) return 32767 - dl_sigmoid_op_q(x == INT32_MIN ? INT32_MAX : -x);
    // t = x / 0.5, still Q15: its upper bits index the table.
    const int64_t t2 = INT64_C(2) * x;
    if (t2 > INT32_MAX) return 32767;
    const int32_t t = static_cast<int32_t>(t2);
    const int32_t i = t >> 15;
    if (i >= 15) return 32767;
    const int32_t f = t - (i << 15);
    // The weights add up to 32767 and the shift divides by 32768 (rounding
    // down), so a table point comes out one below its entry. At most
    // 32767 * 32767: 32 bits suffice.
    return (kSigmoidStepsQ[i] * (32767 - f) + kSigmoidStepsQ[i + 1] * f) >> 15;
}

void dl_sigmoid_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    map_items_q15(in, out, dl_sigmoid_op_q);
}

int32_t dl_tanh_op_q(int32_t x)
{
    // Divided by 32767, not 32768, although x is Q15: the float tanh then
    // runs on a value a little above x's.
    const fptp_t a = static_cast<fptp_t>(x) / 32767.0f;
    return dl::trunc_i32(32767.0f * dl_tanh_op(a));
}

void dl_tanh_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    map_items_q15(in, out, dl_tanh_op_q);
}

qtp_t dl_relu_q_op(qtp_t x, qtp_t clip)
{
    if (x < 0) return 0;
    if (x > clip) return clip;
    return x;
}

void dl_relu_q(const dl_matrix2dq_t *in, fptp_t clip, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    const int e = in->exponent;
    const fptp_t scaled = e > 0 ? clip / dl::pow2f(e) : dl::pow2f(-e) * clip;
    // Truncated toward zero; a limit above the items' range is 32767, however
    // far above. (Below it, and NaN, have no meaning; they become -32767 and
    // 0 rather than wrapping.)
    int32_t limit;
    if (scaled >= 32767.0f) limit = 32767;
    else if (scaled <= -32767.0f) limit = -32767;
    else if (scaled != scaled) limit = 0;
    else limit = dl::trunc_i32(scaled);
    const qtp_t c = static_cast<qtp_t>(limit);
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++)
            out->itemq[y + out->stride * x] = dl_relu_q_op(in->itemq[y + in->stride * x], c);
}

void dl_softmax_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(out->w>=in->w && out->h>=in->h);
    fptp_t sum = 0.0f;
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) sum += fast_exp(static_cast<double>(dl_matrixq_get(in, x, y)), 8);
    // In place the record holds two kinds of item during this pass: those
    // not yet visited mean something at the input's exponent, those written
    // at -15. So the field is e for each read and -15 for each write.
    const int e = out->exponent;
    for (int y = 0; y < in->h; y++) {
        for (int x = 0; x < in->w; x++) {
            out->exponent = e;
            fptp_t v = fast_exp(static_cast<double>(dl_matrixq_get(in, x, y)), 8) / sum;
            // A quotient with no item at -15 would make dl_matrixq_set raise
            // the exponent and shift the items already written, which the
            // next read then undoes only in the field. The largest item is
            // the nearest value it has.
            if (!(v <= kMaxQ15)) v = kMaxQ15;
            out->exponent = -15;
            dl_matrixq_set(out, x, y, v);
        }
    }
}

// ---- Fully connected and batch normalisation layers ----------------------

void dl_fully_connect_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *weight, const dl_matrix2d_t *bias,
                            dl_matrix2d_t *out)
{
    dl_matrix_dot(in, weight, out);
    if (bias) dl_matrix_add(out, bias, out);
}

void dl_fully_connect_layer_q(const dl_matrix2dq_t *in, const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias,
                              dl_matrix2dq_t *out, int shift)
{
    dl_matrixq_dot(in, weight, out, shift);
    // The bias is added saturating at the larger exponent; the layer's shift
    // is the product's alone.
    if (bias) dl_matrixq_add(out, bias, out, 1);
}

void dl_batch_normalize(dl_matrix2d_t *m, const dl_matrix2d_t *offset, const dl_matrix2d_t *scale,
                        const dl_matrix2d_t *mean, const dl_matrix2d_t *sqrtvar)
{
    dl_matrix_sub(m, mean, m);
    dl_matrix_div(m, sqrtvar, m);
    dl_matrix_mul(m, scale, m);
    dl_matrix_add(m, offset, m);
}

void dl_batch_normalize_q(dl_matrix2dq_t *m, const dl_matrix2dq_t *offset, const dl_matrix2dq_t *scale,
                          const dl_matrix2dq_t *mean, const dl_matrix2dq_t *sqrtvar, int shift)
{
    dl_matrixq_sub(m, mean, m, 1);
    dl_matrixq_div(m, sqrtvar, m, shift);
    dl_matrixq_check_sanity(m, "batch_normalize_q after div");
    dl_matrixq_mul(m, scale, m);
    dl_matrixq_add(m, offset, m, 1);
}

// ---- LSTM cell -----------------------------------------------------------

namespace {

// The four gates of the cell: views of consecutive quarters of one product.
template <class M>
struct Gates {
    M *i, *g, *f, *o;
};

// The float cell after the product: out_data holds the four quarters of
// [in, state_h] x weight. The slices are freed here; out_data is not.
void float_lstm_cell(dl_matrix2d_t *out_data, const dl_matrix2d_t *bias, dl_matrix2d_t *state_c,
                     dl_matrix2d_t *state_h)
{
    if (bias) dl_matrix_add(out_data, bias, out_data);
    const int q = out_data->w / 4;
    Gates<dl_matrix2d_t> gate;
    gate.i = dl_matrix_slice(out_data, 0, 0, q, out_data->h, nullptr);
    gate.g = dl_matrix_slice(out_data, q, 0, q, out_data->h, nullptr);
    gate.f = dl_matrix_slice(out_data, 2 * q, 0, q, out_data->h, nullptr);
    gate.o = dl_matrix_slice(out_data, 3 * q, 0, q, out_data->h, nullptr);
    DL_ASSERT(gate.i && gate.g && gate.f && gate.o);

    dl_matrix_add_const(gate.f, 1.0f);  // the forget gate's bias towards keeping
    dl_sigmoid(gate.f, gate.f);
    dl_sigmoid(gate.i, gate.i);
    dl_tanh(gate.g, gate.g);
    dl_matrix_mul(state_c, gate.f, state_c);
    dl_matrix_mul(gate.i, gate.g, gate.i);
    dl_matrix_add(state_c, gate.i, state_c);
    // i is spent: it takes tanh of the new cell state.
    dl_tanh(state_c, gate.i);
    dl_sigmoid(gate.o, gate.o);
    dl_matrix_mul(gate.i, gate.o, state_h);

    dl_matrix_free(gate.i);
    dl_matrix_free(gate.g);
    dl_matrix_free(gate.f);
    dl_matrix_free(gate.o);
}

}  // namespace

dl_matrix2d_t *dl_basic_lstm_layer(const dl_matrix2d_t *in, dl_matrix2d_t *state_c, dl_matrix2d_t *state_h,
                                   const dl_matrix2d_t *weight, const dl_matrix2d_t *bias)
{
    dl_matrix2d_t *concat = dl_matrix_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2d_t *out_data = dl_matrix_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    dl_matrix_dot(concat, weight, out_data);
    float_lstm_cell(out_data, bias, state_c, state_h);
    dl_matrix_free(concat);
    dl_matrix_free(out_data);
    return state_h;
}

dl_matrix2d_t *dl_basic_lstm_layer_quantised_weights(const dl_matrix2d_t *in, dl_matrix2d_t *state_c,
                                                     dl_matrix2d_t *state_h, const dl_matrix2dq_t *weight,
                                                     const dl_matrix2d_t *bias)
{
    dl_matrix2d_t *concat = dl_matrix_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2d_t *out_data = dl_matrix_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    dl_matrix_matrixq_dot(concat, weight, out_data);
    float_lstm_cell(out_data, bias, state_c, state_h);
    dl_matrix_free(concat);
    dl_matrix_free(out_data);
    return state_h;
}

dl_matrix2dq_t *dl_basic_lstm_layer_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *state_c, dl_matrix2dq_t *state_h,
                                      const dl_matrix2dq_t *weight, const dl_matrix2dq_t *bias, int shift)
{
    dl_matrix2dq_t *concat = dl_matrixq_concat(in, state_h);
    DL_ASSERT_ALLOCATED(concat);
    dl_matrix2dq_t *out_data = dl_matrixq_alloc(weight->w, concat->h);
    DL_ASSERT_ALLOCATED(out_data);
    dl_matrixq_dot(concat, weight, out_data, shift);
    dl_matrixq_check_sanity(out_data, "lstm out_data");
    if (bias) {
        dl_matrixq_add(out_data, bias, out_data, 1);
        dl_matrixq_check_sanity(out_data, "lstm out_data after bias");
    }
    // Each slice takes out_data's exponent now and keeps its own from here:
    // the gates share the items but not the scale.
    const int q = out_data->w / 4;
    Gates<dl_matrix2dq_t> gate;
    gate.i = dl_matrixq_slice(out_data, 0, 0, q, out_data->h, nullptr);
    gate.g = dl_matrixq_slice(out_data, q, 0, q, out_data->h, nullptr);
    gate.f = dl_matrixq_slice(out_data, 2 * q, 0, q, out_data->h, nullptr);
    gate.o = dl_matrixq_slice(out_data, 3 * q, 0, q, out_data->h, nullptr);
    DL_ASSERT(gate.i && gate.g && gate.f && gate.o);

    dl_matrixq_add_const(gate.f, 1.0f, 1);
    dl_matrixq_check_sanity(gate.f, "lstm f after add_const");
    dl_sigmoid_q(gate.f, gate.f);  // f, i, g: exponent -15
    dl_sigmoid_q(gate.i, gate.i);
    dl_tanh_q(gate.g, gate.g);
    dl_matrixq_mul(state_c, gate.f, state_c);  // e_c - 15 + 16
    dl_matrixq_check_sanity(state_c, "lstm state_c after mul");
    dl_matrixq_mul(gate.i, gate.g, gate.i);  // -14
    dl_matrixq_add(state_c, gate.i, state_c, 1);  // max(e_c + 1, -14)
    dl_matrixq_check_sanity(state_c, "lstm state_c after add");
    dl_tanh_q(state_c, gate.i);  // -15
    dl_sigmoid_q(gate.o, gate.o);
    dl_matrixq_mul(gate.i, gate.o, state_h);  // -14
    // Both states go to the next step at full precision.
    dl_matrixq_readjust_exp(state_c);
    dl_matrixq_check_sanity(state_c, "lstm state_c after exp readjust (should never see this)");
    dl_matrixq_readjust_exp(state_h);
    dl_matrixq_check_sanity(state_h, "lstm state_h after exp readjust (should never see this)");

    dl_matrixq_free(gate.i);
    dl_matrixq_free(gate.g);
    dl_matrixq_free(gate.f);
    dl_matrixq_free(gate.o);
    dl_matrixq_free(concat);
    dl_matrixq_free(out_data);
    return state_h;
}

// ---- Convolution layers --------------------------------------------------

namespace dl {

ConvAxis conv_axis(int size, int filter, int stride, int padding)
{
    if (padding == 0) return {(size - filter) / stride + 1, size, 0, 0};
    ConvAxis a;
    a.n = static_cast<int>(ceil(static_cast<double>(size) / stride));
    // The margin grows with the even part of the filter; the last window,
    // with the first at 0, stays `rem` inside the padded axis.
    const int k = (filter % 2) ? filter - 1 : filter;
    const int half = k / 2;
    a.padded = size + k * padding;
    const int rem = a.padded - filter - (a.n - 1) * stride;
    // The windows are moved in by half of what is left over, rounded up,
    // but no further than k / 2, the margin of padding 1: a larger padding
    // widens the margin without moving the windows along.
    if (rem <= 0) a.offset = 0;
    else if (rem > half) a.offset = half;
    else a.offset = half - static_cast<int>(floor((2 * half - rem) / 2.0));
    a.margin = (k * padding) / 2;
    return a;
}

}  // namespace dl

namespace {

struct ConvGeometry {
    dl::ConvAxis x, y;
};

ConvGeometry conv_geometry(const dl_matrix2d_t *in, int filter_w, int filter_h, int stride_x, int stride_y,
                           int padding)
{
    DL_ASSERT(stride_x >= 1);
    DL_ASSERT(stride_y >= 1);
    DL_ASSERT(padding >= 0);
    if (padding == 0) {
        DL_ASSERT(filter_w <= in->w);
        DL_ASSERT(filter_h <= in->h);
    }
    return {dl::conv_axis(in->w, filter_w, stride_x, padding), dl::conv_axis(in->h, filter_h, stride_y, padding)};
}

dl_matrix2d_t *conv_output(dl_matrix2d_t *out, int out_channels, int wo, int ho)
{
    if (!out) {
        out = dl_matrix_alloc(out_channels * wo * ho, 1);
        DL_ASSERT_ALLOCATED(out);
        return out;
    }
    DL_ASSERT(out->h == 1);
    DL_ASSERT(out->w == out_channels * wo * ho);
    return out;
}

// A record over caller-owned items, made on the stack: the views below
// cost no allocation.
dl_matrix2d_t view_of(fptp_t *items, int w, int h, int stride)
{
    dl_matrix2d_t v;
    v.w = w;
    v.h = h;
    v.stride = stride;
    v.flags = DL_MF_FOREIGNDATA;
    v.item = items;
    return v;
}

}  // namespace

dl_matrix2d_t *dl_basic_conv_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *filter, const dl_matrix2d_t *bias,
                                   int filter_w, int filter_h, int out_channels, int stride_x, int stride_y,
                                   int padding, dl_matrix2d_t *out)
{
    const ConvGeometry geo = conv_geometry(in, filter_w, filter_h, stride_x, stride_y, padding);
    // Filter and bias may be larger than the layer uses; every read stays
    // within them.
    DL_ASSERT(filter->h>=filter_w*filter_h);
    DL_ASSERT(filter->w>=out_channels);
    DL_ASSERT(bias->w*bias->h>=out_channels);
    dl_matrix2d_t *padded = nullptr;
    if (padding) {
        padded = dl_matrix_alloc(geo.x.padded, geo.y.padded);  // zero-filled: the frame
        DL_ASSERT_ALLOCATED(padded);
        for (int y = 0; y < in->h; y++)
            for (int x = 0; x < in->w; x++)
                padded->item[(x + geo.x.margin) + padded->stride * (y + geo.y.margin)] = in->item[x + in->stride * y];
    }
    const dl_matrix2d_t *source = padded ? padded : in;
    out = conv_output(out, out_channels, geo.x.n, geo.y.n);

    // Each window is flattened once, as one row of `windows`, and serves
    // every channel. A whole row of positions then goes through one product
    // with the filter, straight into out: its rows are positions, its columns
    // channels, which is out's own order. Each sum runs over the window's
    // places in ascending order from 0.0 with separate roundings, as it would
    // position by position, and the bias is added last.
    const int places = filter_w * filter_h;
    const int wo = geo.x.n;
    dl_matrix2d_t *windows = dl_matrix_alloc(places, wo);
    DL_ASSERT_ALLOCATED(windows);
    // The filter's first `places` rows and `out_channels` columns: the caller
    // may pass a larger one.
    const dl_matrix2d_t weights = view_of(filter->item, out_channels, places, filter->stride);
    for (int oy = 0; oy < geo.y.n; oy++) {
        const int y0 = oy * stride_y + geo.y.offset;
        for (int ox = 0; ox < wo; ox++) {
            const int x0 = ox * stride_x + geo.x.offset;
            fptp_t *flat = windows->item + windows->stride * ox;
            for (int dy = 0; dy < filter_h; dy++)
                for (int dx = 0; dx < filter_w; dx++)
                    flat[dy * filter_w + dx] = source->item[(x0 + dx) + source->stride * (y0 + dy)];
        }
        fptp_t *row = out->item + static_cast<size_t>(oy) * wo * out_channels;
        dl_matrix2d_t sums = view_of(row, out_channels, wo, out_channels);
        dl_matrix_dot(windows, &weights, &sums);
        for (int ox = 0; ox < wo; ox++)
            for (int oc = 0; oc < out_channels; oc++)
                row[ox * out_channels + oc] = bias->item[oc] + row[ox * out_channels + oc];
    }
    dl_matrix_free(padded);
    dl_matrix_free(windows);
    return out;
}

dl_matrix2d_t *dl_basic_conv_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *filter,
                                                    const dl_matrix2d_t *bias, int filter_w, int filter_h,
                                                    int out_channels, int stride_x, int stride_y, int padding,
                                                    dl_matrix2d_t *out)
{
    const ConvGeometry geo = conv_geometry(in, filter_w, filter_h, stride_x, stride_y, padding);
    // The input is quantised once, as a whole, so every window shares its
    // one exponent; the frame is item 0 at that exponent.
    dl_matrix2dq_t *qin = dl_matrixq_from_matrix2d(in, nullptr);
    DL_ASSERT_ALLOCATED(qin);
    dl_matrix2dq_t *padded = nullptr;
    if (padding) {
        padded = dl_matrixq_alloc(geo.x.padded, geo.y.padded);
        DL_ASSERT_ALLOCATED(padded);
        for (int x = 0; x < qin->w; x++)
            for (int y = 0; y < qin->h; y++)
                padded->itemq[(y + geo.y.margin) + padded->stride * (x + geo.x.margin)] =
                    qin->itemq[y + qin->stride * x];
        padded->exponent = qin->exponent;
    }
    const dl_matrix2dq_t *source = padded ? padded : qin;
    out = conv_output(out, out_channels, geo.x.n, geo.y.n);

    // As in the float layer, a row of positions is one product: each window
    // flattened once into a row of `windows` (at the input's one exponent),
    // each position's channels formed as exact sums, rounded once to float
    // and scaled, straight into out; then the bias, position by position.
    const int places = filter_w * filter_h;
    const int wo = geo.x.n;
    dl_matrix2dq_t *windows = dl_matrixq_alloc(places, wo);
    DL_ASSERT_ALLOCATED(windows);
    windows->exponent = source->exponent;
    for (int oy = 0; oy < geo.y.n; oy++) {
        const int y0 = oy * stride_y + geo.y.offset;
        for (int ox = 0; ox < wo; ox++) {
            const int x0 = ox * stride_x + geo.x.offset;
            for (int dy = 0; dy < filter_h; dy++)
                for (int dx = 0; dx < filter_w; dx++)
                    windows->itemq[ox + windows->stride * (dy * filter_w + dx)] =
                        source->itemq[(y0 + dy) + source->stride * (x0 + dx)];
        }
        fptp_t *row = out->item + static_cast<size_t>(oy) * wo * out_channels;
        dl_matrix2d_t sums = view_of(row, out_channels, wo, out_channels);
        dl_matrixq_dot_matrix_out(windows, filter, &sums);
        for (int ox = 0; ox < wo; ox++) {
            dl_matrix2d_t position = view_of(row + ox * out_channels, out_channels, 1, out_channels);
            dl_matrix_add(&position, bias, &position);
        }
    }
    dl_matrixq_free(windows);
    dl_matrixq_free(qin);
    dl_matrixq_free(padded);
    return out;
}
