#include "dl_lib.h"

#include "dl_lib_internal.h"
#include "kernels_internal.h"

// ---- Float activations ---------------------------------------------------

namespace {

constexpr fptp_t kSigmoidStepsize = 0.5f;

// The sigmoid at x = 0.5 * i. These are the model's constants, not the exact
// function: they differ from it in the fourth decimal, and the last is 1.0.
constexpr fptp_t kSigmoidSteps[16] = {0.5f,     0.62256f, 0.73096f, 0.81738f, 0.88086f, 0.92432f, 0.95264f, 0.9707f,
                                      0.98193f, 0.98877f, 0.99316f, 0.99609f, 0.99756f, 0.99854f, 0.99902f, 1.0f};

// Every item of in through op into the same place of out, row by row.
template <class Op>
void map_items(const dl_matrix2d_t *in, dl_matrix2d_t *out, Op op)
{
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) out->item[x + out->stride * y] = op(in->item[x + in->stride * y]);
}

// The activation by this processor's kernel, row by row; false, with nothing
// written, when it has none.
bool float_kernel(dl::Activation act, const dl_matrix2d_t *in, dl_matrix2d_t *out)
{
    const dl::Isa isa = dl::detected_isa();
    if (!dl::activation_kernel(isa, act, in->item, out->item, 0)) return false;
    for (int y = 0; y < in->h; y++)
        dl::activation_kernel(isa, act, in->item + in->stride * y, out->item + out->stride * y, in->w);
    return true;
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
    if (float_kernel(dl::Activation::sigmoid, in, out)) return;
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
    if (float_kernel(dl::Activation::tanh, in, out)) return;
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
    const dl::Isa isa = dl::detected_isa();
    if (dl::relu_kernel(isa, in->item, out->item, 0, clip)) {
        for (int y = 0; y < in->h; y++)
            dl::relu_kernel(isa, in->item + in->stride * y, out->item + out->stride * y, in->w, clip);
        return;
    }
    map_items(in, out, [clip](fptp_t x) { return dl_relu_op(x, clip); });
}

void dl_relu_noclip(const dl_matrix2d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(in, out));
    // As dl_relu_op without its clip: a NaN is not below 0 and stays.
    map_items(in, out, [](fptp_t x) { return 0.0f > x ? 0.0f : x; });
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
    // align_q15 with its case chosen once: a right shift, a left shift of
    // at most 15 (which no item leaves 32 bits by), or the general case.
    if (s <= 0) {
        const int k = -s < 31 ? -s : 31;
        dl::map_items(in, out, [k, op](qtp_t v) { return dl::low16(op(static_cast<int32_t>(v) >> k)); });
    } else if (s < 16) {
        dl::map_items(in, out, [s, op](qtp_t v) { return dl::low16(op(dl::shl(v, s))); });
    } else {
        dl::map_items(in, out, [s, op](qtp_t v) { return dl::low16(op(align_q15(v, s))); });
    }
    out->exponent = -15;
}

// The Q15 activation by this processor's kernel, one run of items for flat
// records, else one per column; false, with nothing written, when it has
// none for in's exponent.
bool q15_kernel(dl::Activation act, const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    const dl::Isa isa = dl::detected_isa();
    const int s = in->exponent + 15;
    if (!dl::activation_q15_kernel(isa, act, in->itemq, out->itemq, 0, s)) return false;
    const bool flat = dl::is_flat(in) && dl::is_flat(out);
    const int runs = flat ? 1 : in->w, len = flat ? in->w * in->h : in->h;
    for (int x = 0; x < runs; x++)
        dl::activation_q15_kernel(isa, act, in->itemq + in->stride * x, out->itemq + out->stride * x, len, s);
    out->exponent = -15;
    return true;
}

}  // namespace

namespace {

// The sigmoid in Q15 of x >= 0.
inline int32_t sigmoid_q15_nonnegative(int32_t x)
{
    // t = x / 0.5, still Q15: its upper bits index the table.
    if (x > INT32_MAX / 2) return 32767;
    const int32_t t = 2 * x;
    const int32_t i = t >> 15;
    if (i >= 15) return 32767;
    const int32_t f = t - (i << 15);
    // The weights add up to 32767 and the shift divides by 32768 (rounding
    // down), so a table point comes out one below its entry. At most
    // 32767 * 32767: 32 bits suffice.
    return (kSigmoidStepsQ[i] * (32767 - f) + kSigmoidStepsQ[i + 1] * f) >> 15;
}

}  // namespace

int32_t dl_sigmoid_op_q(int32_t x)
{
    // The complement is taken against 32767, the table's 1.0. INT32_MIN, no
    // valid input, is taken as its neighbour instead of overflowing. One
    // call of the table, so that a build for size inlines it.
    const bool negative = x < 0;
    const int32_t s = sigmoid_q15_nonnegative(!negative ? x : x == INT32_MIN ? INT32_MAX : -x);
    return negative ? 32767 - s : s;
}

void dl_sigmoid_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    if (q15_kernel(dl::Activation::sigmoid, in, out)) return;
    map_items_q15(in, out, [](int32_t x) { return dl_sigmoid_op_q(x); });
}

namespace {

// tanh in Q15 from the sigmoid s at 2a that dl_tanh_op takes, for 2a >= 0
// (s itself) or 2a < 0 (s of -2a, complemented).
int32_t tanh_q15_of_sigmoid(fptp_t s, bool negative)
{
    if (negative) s = 1.0f - s;
    // s lies within 2^-21 of [0, 1], so the product lies within (-32768,
    // 32768): the plain conversion truncates it as trunc_i32 would.
    return static_cast<int32_t>(32767.0f * ((s + s) - 1.0f));
}

// kSigmoidSteps times 2^31, exact: each entry is a 24-bit significand
// times 2^-24.
struct StepsQ31 {
    uint32_t s[16];
};

constexpr StepsQ31 steps_q31()
{
    StepsQ31 r{};
    for (int i = 0; i < 16; i++) r.s[i] = static_cast<uint32_t>(kSigmoidSteps[i] * 2147483648.0f);
    return r;
}

constexpr StepsQ31 kStepsQ31 = steps_q31();

// dl_tanh_op_q in integers alone, where they are sure of it: false when x
// lies near the flat ends or its result near a step between two items; the
// float path then decides. t = 4|x| / 32767 in Q32 (the constant 2^34 /
// 32767 rounded), the interpolated sigmoid s in Q31, v = 32767 (2s - 1) in
// Q31. Over every input that can reach here (the exhaustive test of every
// aligned item) v strays from the defined float and double roundings by
// less than 1/256 of an item: a margin of 1/512 gives wrong items, 1/256
// none. With a margin of 1/64, when v - 1/64 and v + 1/64 fall on one item,
// that is the item; about one input in thirty falls between. The negative
// side is the mirror image: the float formula complements s, and
// truncation runs toward 0.
bool tanh_q15_in_integers(int32_t x, int32_t *result)
{
    const uint32_t u = x < 0 ? 0u - static_cast<uint32_t>(x) : static_cast<uint32_t>(x);
    if (u >= 122000u) return false;  // t at 14.9 and beyond
    const uint64_t t = static_cast<uint64_t>(u) * 524304u;
    const uint32_t i = static_cast<uint32_t>(t >> 32), f = static_cast<uint32_t>(t);
    const uint32_t step = kStepsQ31.s[i + 1] - kStepsQ31.s[i];
    const uint32_t s = kStepsQ31.s[i] + static_cast<uint32_t>((static_cast<uint64_t>(step) * f) >> 32);
    constexpr uint32_t kMargin = 1u << 25;                                               // 1/64 of an item in Q31
    const uint64_t w = static_cast<uint64_t>(32767u) * (2 * s - 2147483648u) + kMargin;  // v + margin
    // v - margin falls on the same item unless w's fraction is below twice
    // the margin.
    if ((static_cast<uint32_t>(w) & 0x7fffffffu) < 2 * kMargin) return false;
    const int32_t item = static_cast<int32_t>(w >> 31);
    *result = x < 0 ? -item : item;
    return true;
}

// The float path of dl_tanh_op_q, out of line so that the integer one needs
// no floating-point registers saved.
[[gnu::noinline]] int32_t tanh_q15_in_floats(int32_t x)
{
    // Divided by 32767, not 32768, although x is Q15: the float tanh then
    // runs on a value a little above x's.
    const fptp_t a = static_cast<fptp_t>(x) / 32767.0f;
    // The sigmoid's interpolation is defined with a double product and a
    // double sum, which a microcontroller computes in software. In floats
    // alone it comes out within 2^-23 + 2^-25 of the exact one: each of
    // 1 - f, the lower entry's product and the sum rounds by at most 2^-25,
    // 2^-25 and 2^-24, and the exact result by 2^-25. The result in Q15 only
    // grows with s, so when s - 2^-22 and s + 2^-22 give the same item, so
    // does the exact s. Otherwise, for about one input in thirty, the double
    // formula decides.
    const fptp_t y = a + a;
    const bool negative = 0.0f > y;
    const fptp_t t = (negative ? -y : y) / kSigmoidStepsize;
    // |t| is at most 4 * 2^31 / 32767, about 2^18: the plain conversion
    // truncates it.
    const int32_t i = static_cast<int32_t>(t);
    // From t = 15 on the sigmoid is its last entry, 1.0, and tanh is +-1.
    if (i >= 15) return negative ? -32767 : 32767;
    const fptp_t f = t - static_cast<fptp_t>(i);
    const fptp_t s = kSigmoidSteps[i + 1] * f + kSigmoidSteps[i] * (1.0f - f);
    constexpr fptp_t kMargin = 1.0f / 4194304.0f;  // 2^-22
    const int32_t below = tanh_q15_of_sigmoid(s - kMargin, negative);
    if (below == tanh_q15_of_sigmoid(s + kMargin, negative)) return below;
    return dl::trunc_i32(32767.0f * dl_tanh_op(a));
}

}  // namespace

int32_t dl_tanh_op_q(int32_t x)
{
    int32_t r;
    return tanh_q15_in_integers(x, &r) ? r : tanh_q15_in_floats(x);
}

void dl_tanh_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    if (q15_kernel(dl::Activation::tanh, in, out)) return;
    map_items_q15(in, out, [](int32_t x) { return dl_tanh_op_q(x); });
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
    dl::map_items(in, out, [c](qtp_t v) { return dl_relu_q_op(v, c); });
}

void dl_relu_noclip_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    dl::map_items(in, out, [](qtp_t v) { return v < 0 ? static_cast<qtp_t>(0) : v; });
    out->exponent = in->exponent;
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
