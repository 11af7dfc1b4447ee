// The tensor operators' kernels for processors with AVX2: 8 float lanes.
// Built with -mavx2 for this file alone (no -mfma: products and sums must
// round apart), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include "tensor_ops_internal.h"

namespace dl::avx2 {
namespace {

constexpr int kLanes = 8;
constexpr int kGroup = 4;  // vectors of channels summed at once

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

// NV vectors of channels from c0 for one position, bias (if any) added last; `part` lanes of the last
// vector when part > 0. Each channel's sum runs over the window's places in
// order from +0.0, one rounding per product and per sum, as the portable
// loop's: the lanes only take several channels at once. A padded place is
// 0.0 times the weight.
template <int NV>
void position(const float *in, int w, int h, int c, const Windows &g, const float *filter, const float *bias,
              float *out, int y0, int x0, int c0, int part)
{
    const __m256i mask = first8(part);
    __m256 acc[NV];
    for (int j = 0; j < NV; j++) acc[j] = _mm256_setzero_ps();
    for (int dy = 0; dy < g.kh; dy++) {
        const int y = y0 + dy;
        for (int dx = 0; dx < g.kw; dx++) {
            const int x = x0 + dx;
            const float *fw = filter + (dy * g.kw + dx) * c + c0;
            const bool inside = y >= 0 && y < h && x >= 0 && x < w;
            const float *v = inside ? in + (static_cast<size_t>(y) * w + x) * c + c0 : nullptr;
            for (int j = 0; j < NV; j++) {
                const bool last_part = part > 0 && j == NV - 1;
                const __m256 wv =
                    last_part ? _mm256_maskload_ps(fw + kLanes * j, mask) : _mm256_loadu_ps(fw + kLanes * j);
                __m256 xv = _mm256_setzero_ps();
                if (inside) xv = last_part ? _mm256_maskload_ps(v + kLanes * j, mask) : _mm256_loadu_ps(v + kLanes * j);
                acc[j] = _mm256_add_ps(acc[j], _mm256_mul_ps(wv, xv));
            }
        }
    }
    for (int j = 0; j < NV; j++) {
        const bool last_part = part > 0 && j == NV - 1;
        if (bias) {
            const float *b = bias + c0 + kLanes * j;
            acc[j] = _mm256_add_ps(acc[j], last_part ? _mm256_maskload_ps(b, mask) : _mm256_loadu_ps(b));
        }
        if (last_part) _mm256_maskstore_ps(out + c0 + kLanes * j, mask, acc[j]);
        else _mm256_storeu_ps(out + c0 + kLanes * j, acc[j]);
    }
}

}  // namespace

void depthwise_float(const dl_matrix3d_t *in, const Windows &g, const fptp_t *filter, const fptp_t *bias, fptp_t *out)
{
    const int c = in->c;
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        float *o = out + static_cast<size_t>(p) * c;
        int c0 = 0;
        for (; c0 + kGroup * kLanes <= c; c0 += kGroup * kLanes)
            position<kGroup>(in->item, in->w, in->h, c, g, filter, bias, o, y0, x0, c0, 0);
        for (; c0 + kLanes <= c; c0 += kLanes)
            position<1>(in->item, in->w, in->h, c, g, filter, bias, o, y0, x0, c0, 0);
        if (c0 < c) position<1>(in->item, in->w, in->h, c, g, filter, bias, o, y0, x0, c0, c - c0);
    }
}

}  // namespace dl::avx2

#endif
