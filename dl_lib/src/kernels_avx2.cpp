// The products for processors with AVX2: 8 lanes of 32 bits, 16 registers.
// Built with -mavx2 for this file alone (no -mfma: the float product must
// not fuse), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>
#include <string.h>

#include <utility>

#include "kernels_simd.h"

namespace dl::avx2 {
namespace {

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

struct Avx2 {
    static constexpr int kLanes = 8;
    static constexpr int kTileRows = 4, kTileVecs = 2;    // 8 accumulators
    static constexpr int kQTileRows = 2, kQTileCols = 2;  // 8 accumulators

    using F = __m256;
    static F zero() { return _mm256_setzero_ps(); }
    static F load(const float *p) { return _mm256_loadu_ps(p); }
    static F load_part(const float *p, int n) { return _mm256_maskload_ps(p, first8(n)); }
    static void store(float *p, F v) { _mm256_storeu_ps(p, v); }
    static void store_part(float *p, F v, int n) { _mm256_maskstore_ps(p, first8(n), v); }
    static F bcast(float v) { return _mm256_set1_ps(v); }
    static F add(F x, F y) { return _mm256_add_ps(x, y); }
    static F mul(F x, F y) { return _mm256_mul_ps(x, y); }

    using I = __m256i;
    static I izero() { return _mm256_setzero_si256(); }
    static I load16(const int16_t *p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p)); }
    static I load16_part(const int16_t *p, int n)
    {
        // No 16-bit masked load in AVX2: copy the n items out first.
        int16_t tail[16] = {};
        memcpy(tail, p, sizeof(int16_t) * static_cast<size_t>(n));
        return load16(tail);
    }
    static I madd(I x, I y) { return _mm256_madd_epi16(x, y); }
    static I add32(I x, I y) { return _mm256_add_epi32(x, y); }
    static int64_t hsum64(I v)
    {
        const __m256i low = _mm256_cvtepi32_epi64(_mm256_castsi256_si128(v));
        const __m256i high = _mm256_cvtepi32_epi64(_mm256_extracti128_si256(v, 1));
        const __m256i s = _mm256_add_epi64(low, high);
        const __m128i t = _mm_add_epi64(_mm256_castsi256_si128(s), _mm256_extracti128_si256(s, 1));
        return _mm_cvtsi128_si64(t) + _mm_extract_epi64(t, 1);
    }
    // The lane sums of eight vectors at once, in 32 bits: for sums that the
    // caller knows to fit, as the eight hsum64 calls would give them.
    static void hsum32x8(const I v[8], int32_t out[8])
    {
        const __m256i t0 = _mm256_hadd_epi32(v[0], v[1]), t1 = _mm256_hadd_epi32(v[2], v[3]);
        const __m256i t2 = _mm256_hadd_epi32(v[4], v[5]), t3 = _mm256_hadd_epi32(v[6], v[7]);
        const __m256i u0 = _mm256_hadd_epi32(t0, t1), u1 = _mm256_hadd_epi32(t2, t3);
        // Each 128-bit half of u0 holds the half sums of v[0..3], of u1 those
        // of v[4..7]: adding the halves completes them, in order.
        const __m256i sums =
            _mm256_add_epi32(_mm256_permute2x128_si256(u0, u1, 0x20), _mm256_permute2x128_si256(u0, u1, 0x31));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), sums);
    }
};

// ---- Fixed-point products over pairs of k -----------------------------------
//
// b comes packed in bytes (kernels_internal.h), and a's items are paired:
// word p of row y holds a(2p, y) and a(2p + 1, y) in its two halves. A
// multiply-add of a broadcast word with a plane of a column group gives, per
// column, two products of at most 32768 * 255 in size, so kPairChunk pairs
// sum in 32-bit lanes without overflow (-32768 items included). Each chunk's
// lane sums are then widened to doubles as 256 * high_sum + low_sum:
// integers below 2^53, so exact, and so is their total.

constexpr int kPairChunk = 128;  // 128 * 2 * 32768 * 255 < 2^31

// Word p of row y at words[p * M + y]: pair after pair, so that the words of
// a column-major a are made 16 rows at a time.
void pair_words(const dl_matrix2dq_t *a, int pairs, int32_t *words)
{
    const int K = a->w, M = a->h;
    if (pairs == 0) return;
    if (M == 1 && a->stride == 1) {
        // A contiguous row is its own words; an odd one ends on a zero.
        words[pairs - 1] = 0;
        memcpy(words, a->itemq, sizeof(qtp_t) * static_cast<size_t>(K));
        return;
    }
    for (int p = 0; p < pairs; p++) {
        const qtp_t *c0 = a->itemq + static_cast<size_t>(a->stride) * (2 * p);
        const qtp_t *c1 = 2 * p + 1 < K ? c0 + a->stride : nullptr;
        int32_t *w = words + static_cast<size_t>(M) * p;
        int y = 0;
        for (; y + 16 <= M; y += 16) {
            // Interleaving two columns' items pairs rows 0-3 and 8-11 in
            // one vector, 4-7 and 12-15 in the other: the halves are swapped
            // back into row order.
            const __m256i v0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(c0 + y));
            const __m256i v1 =
                c1 ? _mm256_loadu_si256(reinterpret_cast<const __m256i *>(c1 + y)) : _mm256_setzero_si256();
            const __m256i u0 = _mm256_unpacklo_epi16(v0, v1), u1 = _mm256_unpackhi_epi16(v0, v1);
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(w + y), _mm256_permute2x128_si256(u0, u1, 0x20));
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(w + y + 8), _mm256_permute2x128_si256(u0, u1, 0x31));
        }
        for (; y < M; y++)
            w[y] = static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(c0[y])) |
                                        (static_cast<uint32_t>(static_cast<uint16_t>(c1 ? c1[y] : 0)) << 16));
    }
}

// 2^-s as a double, exact for the shifts a product can have.
double pow2_neg(int s)
{
    const uint64_t bits = static_cast<uint64_t>(1023 - s) << 52;
    double d;
    memcpy(&d, &bits, sizeof d);
    return d;
}

// The exact sums of row y, columns x0 .. x0 + 7 (lanes 0-3 in s[0], 4-7 in
// s[1]) into out, as qdot_store would put them: shifted right rounding down
// (a floor of the exact quotient by 2^shift) and saturated, or rounded once
// to float and scaled.
void pair_store(const QDotOut &out, const __m256d s[2], int y, int x0, int N)
{
    const int n = N - x0 < kPairLanes ? N - x0 : kPairLanes;
    if (out.items) {
        const __m256d scale = _mm256_set1_pd(pow2_neg(out.shift));
        const __m256d top = _mm256_set1_pd(32767.0), bottom = _mm256_set1_pd(-32767.0);
        __m128i q[2];
        for (int h = 0; h < 2; h++) {
            const __m256d v = _mm256_floor_pd(_mm256_mul_pd(s[h], scale));
            q[h] = _mm256_cvttpd_epi32(_mm256_min_pd(_mm256_max_pd(v, bottom), top));
        }
        dl_matrix2dq_t *r = out.items;
        if (r->stride == 1 && n == kPairLanes) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(r->itemq + y + x0), _mm_packs_epi32(q[0], q[1]));
            return;
        }
        int32_t t[kPairLanes];
        _mm_storeu_si128(reinterpret_cast<__m128i *>(t), q[0]);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(t + 4), q[1]);
        for (int i = 0; i < n; i++) r->itemq[y + static_cast<size_t>(r->stride) * (x0 + i)] = static_cast<qtp_t>(t[i]);
    } else {
        const __m256 f =
            _mm256_mul_ps(_mm256_set_m128(_mm256_cvtpd_ps(s[1]), _mm256_cvtpd_ps(s[0])), _mm256_set1_ps(out.factor));
        fptp_t *dst = out.floats->item + x0 + static_cast<size_t>(out.floats->stride) * y;
        if (n == kPairLanes) _mm256_storeu_ps(dst, f);
        else _mm256_maskstore_ps(dst, first8(n), f);
    }
}

// The same from the lane sums of one chunk, low and high, whose exact sum
// is 256 * high + low. A shift of 8 or more is taken in 32 bits: the floor
// of the sum by 2^shift is that of high + floor(low / 256) by 2^(shift - 8),
// which cannot overflow. A float is converted from 32 bits where the sum
// fits them (the same single rounding); other sums go through doubles.
inline __attribute__((always_inline)) void pair_store32(const QDotOut &out, __m256i low, __m256i high, int y, int x0,
                                                        int N)
{
    if (out.items && out.shift >= 8 && out.shift - 8 < 32) {
        const __m256i v =
            _mm256_sra_epi32(_mm256_add_epi32(high, _mm256_srai_epi32(low, 8)), _mm_cvtsi32_si128(out.shift - 8));
        const __m256i q = _mm256_min_epi32(_mm256_max_epi32(v, _mm256_set1_epi32(-32767)), _mm256_set1_epi32(32767));
        dl_matrix2dq_t *r = out.items;
        const int n = N - x0 < kPairLanes ? N - x0 : kPairLanes;
        if (r->stride == 1 && n == kPairLanes) {
            const __m128i items = _mm_packs_epi32(_mm256_castsi256_si128(q), _mm256_extracti128_si256(q, 1));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(r->itemq + y + x0), items);
            return;
        }
        alignas(32) int32_t t[kPairLanes];
        _mm256_store_si256(reinterpret_cast<__m256i *>(t), q);
        for (int i = 0; i < n; i++) r->itemq[y + static_cast<size_t>(r->stride) * (x0 + i)] = static_cast<qtp_t>(t[i]);
        return;
    }
    // |high| < 2^22 and |low| < 2^30 keep 256 * high + low within 32 bits.
    const __m256i big = _mm256_or_si256(_mm256_cmpgt_epi32(_mm256_abs_epi32(high), _mm256_set1_epi32((1 << 22) - 1)),
                                        _mm256_cmpgt_epi32(_mm256_abs_epi32(low), _mm256_set1_epi32((1 << 30) - 1)));
    if (!out.items && _mm256_testz_si256(big, big)) {
        const __m256 f = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_slli_epi32(high, 8), low)),
                                       _mm256_set1_ps(out.factor));
        const int n = N - x0 < kPairLanes ? N - x0 : kPairLanes;
        fptp_t *dst = out.floats->item + x0 + static_cast<size_t>(out.floats->stride) * y;
        if (n == kPairLanes) _mm256_storeu_ps(dst, f);
        else _mm256_maskstore_ps(dst, first8(n), f);
        return;
    }
    const __m256d k256 = _mm256_set1_pd(256.0);
    __m256d s[2];
    for (int q = 0; q < 2; q++) {
        const __m128i l = q ? _mm256_extracti128_si256(low, 1) : _mm256_castsi256_si128(low);
        const __m128i h = q ? _mm256_extracti128_si256(high, 1) : _mm256_castsi256_si128(high);
        s[q] = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(h), k256), _mm256_cvtepi32_pd(l));
    }
    pair_store(out, s, y, x0, N);
}

// pack_pairs, with the pairs of whole column groups gathered eight at a
// time: a pair of a column is one 32-bit word of it, split into its byte
// planes in 16-bit lanes. The last pair of an odd height, whose word would
// reach past the column, and a last partial group are packed item by item,
// in the same layout (kernels_internal.h).
void pack_pairs_gathered(const dl_matrix2dq_t *b, int16_t *dst)
{
    const int K = b->h, N = b->w, pairs = pair_count(K);
    constexpr int V = 2 * kPairLanes;
    if (static_cast<int64_t>(b->stride) * (kPairLanes - 1) > INT32_MAX) {
        pack_pairs(b, dst);
        return;
    }
    const __m256i offsets = _mm256_mullo_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(b->stride));
    const __m256i low_byte = _mm256_set1_epi16(0xff);
    for (int x0 = 0; x0 < N; x0 += kPairLanes) {
        const int n = N - x0 < kPairLanes ? N - x0 : kPairLanes;
        const qtp_t *first = b->itemq + static_cast<size_t>(b->stride) * x0;
        int16_t *g = dst + static_cast<size_t>(x0 / kPairLanes) * pairs * (2 * V);
        int p = 0;
        if (n == kPairLanes) {
            // Items 2p and 2p + 1 of column x0 + lane, stride * lane + 2p
            // items from the group's first: one word, at twice that in bytes.
            for (; 2 * p + 1 < K; p++) {
                const __m256i w = _mm256_i32gather_epi32(reinterpret_cast<const int *>(first + 2 * p), offsets, 2);
                _mm256_storeu_si256(reinterpret_cast<__m256i *>(g + 2 * V * p), _mm256_and_si256(w, low_byte));
                _mm256_storeu_si256(reinterpret_cast<__m256i *>(g + 2 * V * p + V), _mm256_srai_epi16(w, 8));
            }
        }
        for (; p < pairs; p++)
            for (int lane = 0; lane < kPairLanes; lane++) {
                const qtp_t *col = first + static_cast<size_t>(b->stride) * (lane < n ? lane : 0);
                const int32_t v0 = lane < n ? col[2 * p] : 0, v1 = lane < n && 2 * p + 1 < K ? col[2 * p + 1] : 0;
                int16_t *d = g + 2 * V * p + 2 * lane;
                d[0] = static_cast<int16_t>(v0 & 0xff);
                d[1] = static_cast<int16_t>(v1 & 0xff);
                d[V] = static_cast<int16_t>(v0 >> 8);
                d[V + 1] = static_cast<int16_t>(v1 >> 8);
            }
    }
}

// MY rows of a from y0 times NG column groups of b from g0.
template <int MY, int NG>
void pair_tile(const int32_t *words, int pairs, const int16_t *packed, int g0, int y0, int M, int N, const QDotOut &out)
{
    constexpr int V = 2 * kPairLanes;  // items of a vector
    const int16_t *group[NG];
#pragma GCC unroll 4
    for (int j = 0; j < NG; j++) group[j] = packed + static_cast<size_t>(g0 + j) * pairs * (2 * V);
    __m256d sum[MY][NG][2];
#pragma GCC unroll 4
    for (int i = 0; i < MY; i++)
#pragma GCC unroll 4
        for (int j = 0; j < NG; j++) sum[i][j][0] = sum[i][j][1] = _mm256_setzero_pd();
    for (int c0 = 0; c0 < pairs; c0 += kPairChunk) {
        const int cend = pairs - c0 < kPairChunk ? pairs : c0 + kPairChunk;
        __m256i acc_lo[MY][NG], acc_hi[MY][NG];
#pragma GCC unroll 4
        for (int i = 0; i < MY; i++)
#pragma GCC unroll 4
            for (int j = 0; j < NG; j++) acc_lo[i][j] = acc_hi[i][j] = _mm256_setzero_si256();
        for (int p = c0; p < cend; p++) {
            const int32_t *w = words + static_cast<size_t>(M) * p + y0;
#pragma GCC unroll 4
            for (int i = 0; i < MY; i++) {
                const __m256i aw = _mm256_set1_epi32(w[i]);
#pragma GCC unroll 4
                for (int j = 0; j < NG; j++) {
                    const int16_t *planes = group[j] + 2 * V * p;
                    const __m256i lo = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(planes));
                    const __m256i hi = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(planes + V));
                    acc_lo[i][j] = _mm256_add_epi32(acc_lo[i][j], _mm256_madd_epi16(lo, aw));
                    acc_hi[i][j] = _mm256_add_epi32(acc_hi[i][j], _mm256_madd_epi16(hi, aw));
                }
            }
        }
        if (pairs <= kPairChunk) {
            // One chunk: its sums go out from the 32-bit lanes.
            for (int i = 0; i < MY; i++)
                for (int j = 0; j < NG; j++)
                    pair_store32(out, acc_lo[i][j], acc_hi[i][j], y0 + i, kPairLanes * (g0 + j), N);
            return;
        }
        const __m256d k256 = _mm256_set1_pd(256.0);
#pragma GCC unroll 4
        for (int i = 0; i < MY; i++)
#pragma GCC unroll 4
            for (int j = 0; j < NG; j++) {
                const __m128i lo_half[2] = {_mm256_castsi256_si128(acc_lo[i][j]),
                                            _mm256_extracti128_si256(acc_lo[i][j], 1)};
                const __m128i hi_half[2] = {_mm256_castsi256_si128(acc_hi[i][j]),
                                            _mm256_extracti128_si256(acc_hi[i][j], 1)};
                for (int q = 0; q < 2; q++) {
                    const __m256d chunk = _mm256_add_pd(_mm256_mul_pd(_mm256_cvtepi32_pd(hi_half[q]), k256),
                                                        _mm256_cvtepi32_pd(lo_half[q]));
                    sum[i][j][q] = _mm256_add_pd(sum[i][j][q], chunk);
                }
            }
    }
    for (int i = 0; i < MY; i++)
        for (int j = 0; j < NG; j++) pair_store(out, sum[i][j], y0 + i, kPairLanes * (g0 + j), N);
}

// Tiles of eight accumulators: one row by four groups, four rows by one
// group, or two by two, smaller at the edges.
void pair_tiles(const int32_t *words, int pairs, const int16_t *packed, int M, int N, const QDotOut &out)
{
    const int G = pair_groups(N);
    const int ty = M == 1 ? 1 : G == 1 ? 4 : 2, tg = M == 1 ? 2 : G == 1 ? 1 : 2;
    for (int g0 = 0; g0 < G; g0 += tg) {
        const int ng = G - g0 < tg ? G - g0 : tg;
        for (int y0 = 0; y0 < M; y0 += ty) {
            const int my = M - y0 < ty ? M - y0 : ty;
            switch (my * 8 + ng) {
            case 8 + 1: pair_tile<1, 1>(words, pairs, packed, g0, y0, M, N, out); break;
            case 8 + 2: pair_tile<1, 2>(words, pairs, packed, g0, y0, M, N, out); break;
            case 8 + 3: pair_tile<1, 3>(words, pairs, packed, g0, y0, M, N, out); break;
            case 8 + 4: pair_tile<1, 4>(words, pairs, packed, g0, y0, M, N, out); break;
            case 16 + 1: pair_tile<2, 1>(words, pairs, packed, g0, y0, M, N, out); break;
            case 16 + 2: pair_tile<2, 2>(words, pairs, packed, g0, y0, M, N, out); break;
            case 24 + 1: pair_tile<3, 1>(words, pairs, packed, g0, y0, M, N, out); break;
            default: pair_tile<4, 1>(words, pairs, packed, g0, y0, M, N, out); break;
            }
        }
    }
}

}  // namespace

bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    return simd::matrix_dot<Avx2>(a, b, res);
}

void float_range(const fptp_t *in, int n, fptp_t *lo, fptp_t *hi)
{
    if (n <= 0) {
        *lo = *hi = 0.0f;
        return;
    }
    // Each lane keeps the extremes of its own items, from the first item on:
    // MAXPS(v, h) is v > h ? v : h, MINPS(v, l) is v < l ? v : l, so a NaN
    // replaces nothing, as in the scalar comparisons.
    const __m256 first = _mm256_set1_ps(in[0]);
    __m256 vlo = first, vhi = first;
    int i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m256 v = _mm256_loadu_ps(in + i);
        vhi = _mm256_max_ps(v, vhi);
        vlo = _mm256_min_ps(v, vlo);
    }
    alignas(32) fptp_t l[8], h[8];
    _mm256_store_ps(l, vlo);
    _mm256_store_ps(h, vhi);
    fptp_t a = l[0], b = h[0];
    for (int j = 1; j < 8; j++) {
        a = l[j] < a ? l[j] : a;
        b = h[j] > b ? h[j] : b;
    }
    for (; i < n; i++) {
        a = in[i] < a ? in[i] : a;
        b = in[i] > b ? in[i] : b;
    }
    *lo = a;
    *hi = b;
}

void quantise(const fptp_t *in, int n, fptp_t half, fptp_t mult, qtp_t *out)
{
    // The conversion gives INT32_MIN for NaN and beyond 32 bits, as
    // trunc_i32 does; the items are the low 16 bits.
    const __m256 vh = _mm256_set1_ps(half), vm = _mm256_set1_ps(mult);
    const __m256i low_halves = _mm256_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1, 0, 1, 4, 5, 8,
                                                9, 12, 13, -1, -1, -1, -1, -1, -1, -1, -1);
    auto items = [&](__m256 v) {
        const __m256i p = _mm256_shuffle_epi8(_mm256_cvttps_epi32(_mm256_mul_ps(_mm256_add_ps(v, vh), vm)), low_halves);
        return _mm_unpacklo_epi64(_mm256_castsi256_si128(p), _mm256_extracti128_si256(p, 1));
    };
    int i = 0;
    for (; i + 8 <= n; i += 8) _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), items(_mm256_loadu_ps(in + i)));
    if (i < n) {
        const __m256i mask = _mm256_cmpgt_epi32(_mm256_set1_epi32(n - i), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        alignas(16) qtp_t tail[8];
        _mm_store_si128(reinterpret_cast<__m128i *>(tail), items(_mm256_maskload_ps(in + i, mask)));
        memcpy(out + i, tail, sizeof(qtp_t) * static_cast<size_t>(n - i));
    }
}

void add_items(const qtp_t *hi, const qtp_t *lo, qtp_t *out, int n, int k, int kind, bool halve)
{
    // In 16-bit lanes throughout. Saturating: the saturating add or
    // subtract of the instruction clamps at -32768 and 32767, and -32768 is
    // then raised to -32767. Halving: floor((p + q) / 2) is
    // (p >> 1) + (q >> 1) + (p & q & 1), and floor((p - q) / 2) is
    // (p >> 1) - (q >> 1) - (~p & q & 1), neither of which leaves 16 bits.
    const __m128i count = _mm_cvtsi32_si128(k);
    const __m256i floor_item = _mm256_set1_epi16(-32767), one = _mm256_set1_epi16(1);
    auto op = [&](__m256i p, __m256i q) {
        q = _mm256_sra_epi16(q, count);
        if (kind == 2) std::swap(p, q);  // lo - hi
        if (!halve) {
            const __m256i t = kind == 0 ? _mm256_adds_epi16(p, q) : _mm256_subs_epi16(p, q);
            return _mm256_max_epi16(t, floor_item);
        }
        const __m256i hp = _mm256_srai_epi16(p, 1), hq = _mm256_srai_epi16(q, 1);
        if (kind == 0) return _mm256_add_epi16(_mm256_add_epi16(hp, hq), _mm256_and_si256(_mm256_and_si256(p, q), one));
        return _mm256_sub_epi16(_mm256_sub_epi16(hp, hq), _mm256_and_si256(_mm256_andnot_si256(p, q), one));
    };
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const __m256i p = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(hi + i));
        const __m256i q = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(lo + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + i), op(p, q));
    }
    if (i < n) {
        alignas(32) qtp_t a[16] = {}, b[16] = {}, r[16];
        memcpy(a, hi + i, sizeof(qtp_t) * static_cast<size_t>(n - i));
        memcpy(b, lo + i, sizeof(qtp_t) * static_cast<size_t>(n - i));
        _mm256_store_si256(reinterpret_cast<__m256i *>(r), op(_mm256_load_si256(reinterpret_cast<const __m256i *>(a)),
                                                              _mm256_load_si256(reinterpret_cast<const __m256i *>(b))));
        memcpy(out + i, r, sizeof(qtp_t) * static_cast<size_t>(n - i));
    }
}

bool matrixq_dot_pairs(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const int16_t *packed, const QDotOut &out)
{
    const int M = a->h, K = a->w, N = b->w;
    if (M <= 0 || N <= 0) return true;
    const int pairs = pair_count(K);
    // Scratch: a's pair words, and b packed unless it came packed. Small
    // products keep it on the stack, out of the allocator's way.
    const size_t words = static_cast<size_t>(pairs) * static_cast<size_t>(M);
    const size_t pack_items = packed ? 0 : packed_pair_items(b);
    int32_t word_local[1024];
    int16_t pack_local[4096];
    int32_t *word_heap = nullptr;
    int16_t *pack_heap = nullptr;
    if (words > sizeof word_local / sizeof word_local[0]) {
        word_heap = static_cast<int32_t *>(dl::mem_calloc(words, sizeof(int32_t)));
        if (!word_heap) return false;
    }
    if (pack_items > sizeof pack_local / sizeof pack_local[0]) {
        pack_heap = static_cast<int16_t *>(dl::mem_calloc(pack_items, sizeof(int16_t)));
        if (!pack_heap) {
            dl::mem_free(word_heap);
            return false;
        }
    }
    int32_t *w = word_heap ? word_heap : word_local;
    if (!packed) {
        int16_t *dst = pack_heap ? pack_heap : pack_local;
        pack_pairs_gathered(b, dst);
        packed = dst;
    }
    pair_words(a, pairs, w);
    pair_tiles(w, pairs, packed, M, N, out);
    dl::mem_free(pack_heap);
    dl::mem_free(word_heap);
    return true;
}

bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    return simd::matrixq_dot<Avx2>(a, b, out);
}

}  // namespace dl::avx2

#endif
