#include "dl_lib.h"

#include "dl_lib_internal.h"

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

// The table entries as integers of 2^-24: every entry lies in [0.5, 1],
// where a float is a whole multiple of 2^-24.
struct StepsMantissa {
    uint32_t m[16];
    constexpr StepsMantissa() : m()
    {
        for (int i = 0; i < 16; i++) m[i] = static_cast<uint32_t>(kSigmoidSteps[i] * 16777216.0f);
    }
};
constexpr StepsMantissa kStepsMantissa;

// The fraction f of the interpolation counts in units of 2^-37.
constexpr int kFractionBits = 37;

// v rounded to its `bits` leading bits, to nearest with ties to even: what a
// float (24) or a double (53) does to an exact v.
uint64_t round_to_bits(uint64_t v, int bits)
{
    if (v >> bits == 0) return v;
    const int drop = 64 - __builtin_clzll(v) - bits;
    const uint64_t half = UINT64_C(1) << (drop - 1);
    const uint64_t rest = v & ((half << 1) - 1);
    uint64_t kept = v >> drop;
    if (rest > half || (rest == half && (kept & 1))) kept++;
    return kept << drop;
}

// True with *scaled = f * 2^37 when f, in [0, 1), is a whole multiple of
// 2^-37. Every fraction that a Q15 item gives is (the smallest, at item 1,
// is about 2^-13 with 24 bits), and so is every fraction of a float from
// 1.0 up; what is left takes the double arithmetic.
bool on_fraction_grid(fptp_t f, uint64_t *scaled)
{
    uint32_t bits;
    memcpy(&bits, &f, sizeof bits);
    if (bits == 0) {
        *scaled = 0;
        return true;
    }
    const int biased = static_cast<int>(bits >> 23);  // f >= 0: no sign bit
    if (biased == 0) return false;                    // subnormal
    const uint32_t mantissa = (bits & 0x7fffffu) | 0x800000u;
    // f = mantissa * 2^(biased - 150), so f * 2^37 = mantissa * 2^(biased - 113).
    const int up = biased - (150 - kFractionBits);
    if (up >= 0) {
        *scaled = static_cast<uint64_t>(mantissa) << up;
        return true;
    }
    if (-up >= 24 || (mantissa & ((UINT32_C(1) << -up) - 1)) != 0) return false;
    *scaled = mantissa >> -up;
    return true;
}

// The interpolation between entries i and i + 1 that dl_sigmoid_op defines
// in double precision, in integers of 2^-61 instead, for a fraction
// f = scaled * 2^-37. Each rounding of the double formula is repeated where
// it happens: 1 - f and its product with the lower entry are rounded to 53
// bits, the upper entry's product to 24 (a float), the sum to 53 and then to
// 24. So the result is the same float without double-precision arithmetic,
// which a microcontroller has only in software.
fptp_t sigmoid_mix_exact(int i, uint64_t scaled)
{
    const uint64_t one = UINT64_C(1) << kFractionBits;
    const uint64_t low = round_to_bits(kStepsMantissa.m[i] * round_to_bits(one - scaled, 53), 53);
    const uint64_t high = round_to_bits(kStepsMantissa.m[i + 1] * scaled, 24);
    const uint64_t sum = round_to_bits(round_to_bits(low + high, 53), 24);
    // At most 24 significant bits: their float is exact, and so is the scaling.
    const int drop = sum >> 24 == 0 ? 0 : 64 - __builtin_clzll(sum) - 24;
    return static_cast<fptp_t>(static_cast<uint32_t>(sum >> drop)) * dl::pow2f(drop - 24 - kFractionBits);
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
    uint64_t scaled;
    if (on_fraction_grid(f, &scaled)) return sigmoid_mix_exact(i, scaled);
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

void dl_relu_noclip_q(const dl_matrix2dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(dl_matrixq_same_shape(in, out));
    for (int x = 0; x < in->w; x++)
        for (int y = 0; y < in->h; y++) {
            const qtp_t v = in->itemq[y + in->stride * x];
            out->itemq[y + out->stride * x] = v < 0 ? 0 : v;
        }
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
