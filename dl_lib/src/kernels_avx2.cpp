// The products for processors with AVX2: 8 lanes of 32 bits, 16 registers.
// Built with -mavx2 for this file alone (no -mfma: the float product must
// not fuse), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>
#include <string.h>

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

}  // namespace

bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    return simd::matrix_dot<Avx2>(a, b, res);
}

bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    return simd::matrixq_dot<Avx2>(a, b, out);
}

}  // namespace dl::avx2

#endif
