// The sigmoid and tanh for processors with AVX2, eight items at a time, with
// the bits of the scalar ops in activations.cpp: the same integer and float
// operations, each rounded as there (double where the op uses double). Built
// with -mavx2 for this file alone (no -mfma: nothing may fuse), and run only
// after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include "dl_lib.h"
#include "kernels_internal.h"

namespace dl::avx2 {
namespace {

// The sigmoid's table points at x = 0.5 * i, as activations.cpp holds them
// (the exhaustive and randomised comparisons with the scalar ops keep the
// copies equal): floats, and the same times 32767 truncated, in Q15.
alignas(32) constexpr float kSteps[16] = {0.5f,     0.62256f, 0.73096f, 0.81738f, 0.88086f, 0.92432f, 0.95264f, 0.9707f,
                                          0.98193f, 0.98877f, 0.99316f, 0.99609f, 0.99756f, 0.99854f, 0.99902f, 1.0f};
alignas(32) constexpr int32_t kStepsQ[16] = {16383, 20399, 23951, 26783, 28863, 30287, 31215, 31806,
                                             32174, 32399, 32542, 32638, 32687, 32719, 32734, 32767};

// Entry i of a 16-entry table for i from 0 to 15.
__m256i lookup(const int32_t *table, __m256i i)
{
    const __m256i low = _mm256_permutevar8x32_epi32(_mm256_load_si256(reinterpret_cast<const __m256i *>(table)), i);
    const __m256i high =
        _mm256_permutevar8x32_epi32(_mm256_load_si256(reinterpret_cast<const __m256i *>(table + 8)), i);
    return _mm256_blendv_epi8(low, high, _mm256_cmpgt_epi32(i, _mm256_set1_epi32(7)));
}

__m256 lookup(const float *table, __m256i i)
{
    const __m256 low = _mm256_permutevar8x32_ps(_mm256_load_ps(table), i);
    const __m256 high = _mm256_permutevar8x32_ps(_mm256_load_ps(table + 8), i);
    return _mm256_blendv_ps(low, high, _mm256_castsi256_ps(_mm256_cmpgt_epi32(i, _mm256_set1_epi32(7))));
}

__m256 sigmoid(__m256 x);

// ---- Q15 -----------------------------------------------------------------

// dl_sigmoid_op_q of lanes within +-2^30.
__m256i sigmoid_q15(__m256i x)
{
    const __m256i negative = _mm256_cmpgt_epi32(_mm256_setzero_si256(), x);
    const __m256i ax = _mm256_abs_epi32(x);
    // Beyond INT32_MAX / 2, or from table entry 15 on: the last entry.
    const __m256i t = _mm256_slli_epi32(ax, 1);
    const __m256i i = _mm256_srli_epi32(t, 15);
    const __m256i top = _mm256_or_si256(_mm256_cmpgt_epi32(ax, _mm256_set1_epi32(INT32_MAX / 2)),
                                        _mm256_cmpgt_epi32(i, _mm256_set1_epi32(14)));
    const __m256i idx = _mm256_andnot_si256(top, i);
    const __m256i f = _mm256_sub_epi32(t, _mm256_slli_epi32(idx, 15));
    const __m256i mix =
        _mm256_add_epi32(_mm256_mullo_epi32(lookup(kStepsQ, idx), _mm256_sub_epi32(_mm256_set1_epi32(32767), f)),
                         _mm256_mullo_epi32(lookup(kStepsQ, _mm256_add_epi32(idx, _mm256_set1_epi32(1))), f));
    const __m256i r = _mm256_blendv_epi8(_mm256_srai_epi32(mix, 15), _mm256_set1_epi32(32767), top);
    return _mm256_blendv_epi8(r, _mm256_sub_epi32(_mm256_set1_epi32(32767), r), negative);
}

// Items aligned to Q15 by s (left for s > 0, at most 15; right, at most 31,
// for s <= 0), through op, and back to items (the low 16 bits).
// dl_tanh_op_q of lanes within +-2^30: 32767 times dl_tanh_op of x / 32767,
// truncated. (The scalar op reaches most items by a shorter float form that
// gives the same item; here the defining form costs no more.)
__m256i tanh_q15(__m256i x)
{
    const __m256 a = _mm256_div_ps(_mm256_cvtepi32_ps(x), _mm256_set1_ps(32767.0f));
    const __m256 s = sigmoid(_mm256_add_ps(a, a));
    const __m256 tanh = _mm256_sub_ps(_mm256_add_ps(s, s), _mm256_set1_ps(1.0f));
    return _mm256_cvttps_epi32(_mm256_mul_ps(_mm256_set1_ps(32767.0f), tanh));
}

template <class Op>
void map_q15(const qtp_t *in, qtp_t *out, int n, int s, Op op)
{
    const __m128i left = _mm_cvtsi32_si128(s > 0 ? s : 0), right = _mm_cvtsi32_si128(s < 0 ? (-s < 31 ? -s : 31) : 0);
    alignas(32) qtp_t buf[8];
    for (int i = 0; i < n; i += 8) {
        const int m = n - i < 8 ? n - i : 8;
        const qtp_t *src = in + i;
        if (m < 8) {
            for (int j = 0; j < 8; j++) buf[j] = j < m ? in[i + j] : 0;
            src = buf;
        }
        const __m256i v = _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src)));
        const __m256i x = _mm256_sra_epi32(_mm256_sll_epi32(v, left), right);
        const __m256i r = op(x);
        // The low 16 bits of each lane, in order.
        const __m256i packed =
            _mm256_shuffle_epi8(r, _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, 4,
                                                    5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1));
        const __m128i items = _mm_unpacklo_epi64(_mm256_castsi256_si128(packed), _mm256_extracti128_si256(packed, 1));
        if (m == 8) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), items);
        } else {
            _mm_store_si128(reinterpret_cast<__m128i *>(buf), items);
            for (int j = 0; j < m; j++) out[i + j] = buf[j];
        }
    }
}

// ---- Float -----------------------------------------------------------------

// dl_sigmoid_op: the interpolation's lower share as a double product, the
// upper as a float product, summed in double and rounded to float; 1.0 from
// entry 15 on and for NaN; 1 - sigmoid(-x) below zero.
__m256 sigmoid(__m256 x)
{
    const __m256 negative = _mm256_cmp_ps(_mm256_setzero_ps(), x, _CMP_GT_OQ);
    const __m256 ax = _mm256_blendv_ps(x, _mm256_sub_ps(_mm256_setzero_ps(), x), negative);
    const __m256 t = _mm256_div_ps(ax, _mm256_set1_ps(0.5f));
    // The conversion gives INT32_MIN for NaN and beyond 32 bits, as
    // trunc_i32 does.
    const __m256i i = _mm256_cvttps_epi32(t);
    const __m256i flat = _mm256_or_si256(_mm256_cmpgt_epi32(i, _mm256_set1_epi32(14)),
                                         _mm256_cmpeq_epi32(i, _mm256_set1_epi32(INT32_MIN)));
    const __m256i idx = _mm256_andnot_si256(flat, i);
    const __m256 f = _mm256_sub_ps(t, _mm256_cvtepi32_ps(idx));
    const __m256 high = _mm256_mul_ps(lookup(kSteps, _mm256_add_epi32(idx, _mm256_set1_epi32(1))), f);
    const __m256 low_entry = lookup(kSteps, idx);
    __m128 half[2];
    for (int h = 0; h < 2; h++) {
        const __m128 e = h ? _mm256_extractf128_ps(low_entry, 1) : _mm256_castps256_ps128(low_entry);
        const __m128 fh = h ? _mm256_extractf128_ps(f, 1) : _mm256_castps256_ps128(f);
        const __m128 hh = h ? _mm256_extractf128_ps(high, 1) : _mm256_castps256_ps128(high);
        const __m256d low = _mm256_mul_pd(_mm256_cvtps_pd(e), _mm256_sub_pd(_mm256_set1_pd(1.0), _mm256_cvtps_pd(fh)));
        half[h] = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(hh), low));
    }
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 r = _mm256_blendv_ps(_mm256_set_m128(half[1], half[0]), one, _mm256_castsi256_ps(flat));
    return _mm256_blendv_ps(r, _mm256_sub_ps(one, r), negative);
}

template <class Op>
void map_floats(const fptp_t *in, fptp_t *out, int n, Op op)
{
    int i = 0;
    for (; i + 8 <= n; i += 8) _mm256_storeu_ps(out + i, op(_mm256_loadu_ps(in + i)));
    if (i < n) {
        const __m256i mask = _mm256_cmpgt_epi32(_mm256_set1_epi32(n - i), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        _mm256_maskstore_ps(out + i, mask, op(_mm256_maskload_ps(in + i, mask)));
    }
}

}  // namespace

void relu(const fptp_t *in, fptp_t *out, int n, fptp_t clip)
{
    // dl_relu_op's two tests in its order: MINPS(clip, x) is x > clip ?
    // clip : x (a NaN on either side gives x), then zero where 0 > x.
    const __m256 c = _mm256_set1_ps(clip), zero = _mm256_setzero_ps();
    map_floats(in, out, n, [&](__m256 x) {
        return _mm256_blendv_ps(_mm256_min_ps(c, x), zero, _mm256_cmp_ps(zero, x, _CMP_GT_OQ));
    });
}

void activation_q15(Activation act, const qtp_t *in, qtp_t *out, int n, int s)
{
    if (act == Activation::sigmoid) map_q15(in, out, n, s, sigmoid_q15);
    else map_q15(in, out, n, s, tanh_q15);
}

void activation(Activation act, const fptp_t *in, fptp_t *out, int n)
{
    if (act == Activation::sigmoid) {
        map_floats(in, out, n, sigmoid);
    } else {
        // dl_tanh_op: 2 * sigmoid(2x) - 1, each step rounded to float.
        map_floats(in, out, n, [](__m256 x) {
            const __m256 s = sigmoid(_mm256_add_ps(x, x));
            return _mm256_sub_ps(_mm256_add_ps(s, s), _mm256_set1_ps(1.0f));
        });
    }
}

}  // namespace dl::avx2

#endif
