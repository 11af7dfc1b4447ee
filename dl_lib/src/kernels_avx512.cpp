// The products for processors with AVX-512 (F and BW): 16 lanes of 32 bits.
// Built with -mavx512f -mavx512bw for this file alone, and run only after
// the run-time check in kernels.cpp.
#if defined(__x86_64__)

// GCC 12's AVX-512 intrinsics start from an "undefined" vector that its own
// -Wmaybe-uninitialized then reports when they are inlined (fixed in GCC 13).
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <immintrin.h>

#include "kernels_simd.h"

namespace dl::avx512 {
namespace {

__mmask16 first16(int n) { return static_cast<__mmask16>((1u << n) - 1); }
__mmask32 first32(int n) { return static_cast<__mmask32>((UINT64_C(1) << n) - 1); }

struct Avx512 {
    static constexpr int kLanes = 16;
    static constexpr int kTileRows = 6, kTileVecs = 4;    // 24 accumulators
    static constexpr int kQTileRows = 2, kQTileCols = 4;  // 16 accumulators

    using F = __m512;
    static F zero() { return _mm512_setzero_ps(); }
    static F load(const float *p) { return _mm512_loadu_ps(p); }
    static F load_part(const float *p, int n) { return _mm512_maskz_loadu_ps(first16(n), p); }
    static void store(float *p, F v) { _mm512_storeu_ps(p, v); }
    static void store_part(float *p, F v, int n) { _mm512_mask_storeu_ps(p, first16(n), v); }
    static F bcast(float v) { return _mm512_set1_ps(v); }
    static F add(F x, F y) { return _mm512_add_ps(x, y); }
    static F mul(F x, F y) { return _mm512_mul_ps(x, y); }

    using I = __m512i;
    static I izero() { return _mm512_setzero_si512(); }
    static I load16(const int16_t *p) { return _mm512_loadu_si512(p); }
    static I load16_part(const int16_t *p, int n) { return _mm512_maskz_loadu_epi16(first32(n), p); }
    static I madd(I x, I y) { return _mm512_madd_epi16(x, y); }
    static I add32(I x, I y) { return _mm512_add_epi32(x, y); }
    static int64_t hsum64(I v)
    {
        const __m512i low = _mm512_cvtepi32_epi64(_mm512_castsi512_si256(v));
        const __m512i high = _mm512_cvtepi32_epi64(_mm512_extracti64x4_epi64(v, 1));
        return _mm512_reduce_add_epi64(_mm512_add_epi64(low, high));
    }
};

}  // namespace

bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    return simd::matrix_dot<Avx512>(a, b, res);
}

bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    return simd::matrixq_dot<Avx512>(a, b, out);
}

}  // namespace dl::avx512

#endif
