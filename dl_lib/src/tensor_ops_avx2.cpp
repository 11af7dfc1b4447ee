// The tensor operators' kernels for processors with AVX2: 8 float lanes.
// Built with -mavx2 for this file alone (no -mfma: products and sums must
// round apart), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include "tensor_ops_internal.h"

namespace dl::avx2 {
namespace {

constexpr int kLanes = 8;
constexpr int kGroup = 4;  // vectors of channels summed at once by the depthwise kernel

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

// NP neighbouring positions of one output row (the first's window at row
// y0, column x0) by NV vectors of channels from c0, bias (if any) added
// last; with Part, only `part` lanes of the last vector. Each channel's sum
// runs over the window's places in order from +0.0, one rounding per product
// and per sum, as the portable loop's: the lanes only take several channels
// at once. A padded place is 0.0 times the weight.
template <int NP, int NV, bool Part>
void positions(const float *in, int w, int h, int c, const Windows &g, const float *filter, const float *bias,
               float *out, int y0, int x0, int c0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p, int j) {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    };
    __m256 acc[NP][NV];
    for (int i = 0; i < NP; i++)
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    for (int dy = 0; dy < g.kh; dy++) {
        const int y = y0 + dy;
        const bool row_inside = y >= 0 && y < h;
        for (int dx = 0; dx < g.kw; dx++) {
            const float *fw = filter + (dy * g.kw + dx) * c + c0;
            __m256 wv[NV];
            for (int j = 0; j < NV; j++) wv[j] = load(fw, j);
            for (int i = 0; i < NP; i++) {
                const int x = x0 + i * g.sx + dx;
                const bool inside = row_inside && x >= 0 && x < w;
                const float *v = in + (static_cast<size_t>(inside ? y : 0) * w + (inside ? x : 0)) * c + c0;
                for (int j = 0; j < NV; j++)
                    acc[i][j] =
                        _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], inside ? load(v, j) : _mm256_setzero_ps()));
            }
        }
    }
    for (int i = 0; i < NP; i++) {
        float *o = out + static_cast<size_t>(i) * c + c0;
        for (int j = 0; j < NV; j++) {
            __m256 r = acc[i][j];
            if (bias) r = _mm256_add_ps(r, load(bias + c0, j));
            if (Part && j == NV - 1) _mm256_maskstore_ps(o + kLanes * j, mask, r);
            else _mm256_storeu_ps(o + kLanes * j, r);
        }
    }
}

// All channels of NP positions.
template <int NP>
void channels(const float *in, int w, int h, int c, const Windows &g, const float *filter, const float *bias,
              float *out, int y0, int x0)
{
    int c0 = 0;
    for (; c0 + kGroup * kLanes <= c; c0 += kGroup * kLanes)
        positions<NP, kGroup, false>(in, w, h, c, g, filter, bias, out, y0, x0, c0, 0);
    for (; c0 + kLanes <= c; c0 += kLanes) positions<NP, 1, false>(in, w, h, c, g, filter, bias, out, y0, x0, c0, 0);
    if (c0 < c) positions<NP, 1, true>(in, w, h, c, g, filter, bias, out, y0, x0, c0, c - c0);
}

// ---- Float convolution on few input channels --------------------------------
//
// Without gathering the windows: kPositions neighbouring positions of one
// output row by two vectors of output channels, each output's sum taken over
// the window's places in ascending order from +0.0, one rounding per product
// and per sum, as the gathered product computes it. The weights come
// transposed, places x channels (row k at wt + k * out_c). A padded place
// adds 0.0 times the weight.

constexpr int kPositions = 4;

inline float value_of(const float *in, size_t i, const float *) { return in[i]; }
inline float value_of(const uc_t *in, size_t i, const float *lut) { return lut[in[i]]; }

template <int NV, class T>
void conv_tile(const T *in, int w, int h, int c, const Windows &g, const float *lut, const float *wt, int out_c,
               const float *bias, float *out, int oy, int ox0, int np, int oc0, int part)
{
    const __m256i mask = first8(part);
    __m256 acc[kPositions][NV];
    for (int i = 0; i < kPositions; i++)
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    // Columns of the window inside the input, per position; none for the
    // positions past the row's end.
    int lo[kPositions], hi[kPositions], x0[kPositions];
    for (int i = 0; i < kPositions; i++) {
        x0[i] = (ox0 + i) * g.sx - g.left;
        lo[i] = i < np ? (x0[i] < 0 ? -x0[i] : 0) : 0;
        hi[i] = i < np ? (x0[i] + g.kw > w ? w - x0[i] : g.kw) : 0;
    }
    bool interior = np == kPositions;
    for (int i = 0; i < kPositions; i++) interior = interior && lo[i] == 0 && hi[i] == g.kw;
    const int y0 = oy * g.sy - g.top, span = g.kw * c;
    for (int dy = 0; dy < g.kh; dy++) {
        const int y = y0 + dy;
        const bool row_inside = y >= 0 && y < h;
        const float *wrow = wt + static_cast<size_t>(dy * span) * out_c + oc0;
        if (row_inside && interior) {
            // Every window row is a run of span items: no place is padding.
            const T *r[kPositions];
            for (int i = 0; i < kPositions; i++) r[i] = in + (static_cast<size_t>(y) * w + x0[i]) * c;
            for (int j = 0; j < span; j++) {
                const float *wk = wrow + static_cast<size_t>(j) * out_c;
                __m256 wv[NV];
                for (int v = 0; v < NV; v++)
                    wv[v] = part > 0 && v == NV - 1 ? _mm256_maskload_ps(wk + kLanes * v, mask)
                                                    : _mm256_loadu_ps(wk + kLanes * v);
                for (int i = 0; i < kPositions; i++) {
                    const __m256 xv = _mm256_set1_ps(value_of(r[i], j, lut));
                    for (int v = 0; v < NV; v++) acc[i][v] = _mm256_add_ps(acc[i][v], _mm256_mul_ps(wv[v], xv));
                }
            }
            continue;
        }
        for (int dx = 0; dx < g.kw; dx++) {
            for (int ic = 0; ic < c; ic++) {
                const float *wk = wrow + static_cast<size_t>(dx * c + ic) * out_c;
                __m256 wv[NV];
                for (int j = 0; j < NV; j++)
                    wv[j] = part > 0 && j == NV - 1 ? _mm256_maskload_ps(wk + kLanes * j, mask)
                                                    : _mm256_loadu_ps(wk + kLanes * j);
                for (int i = 0; i < kPositions; i++) {
                    __m256 xv = _mm256_setzero_ps();
                    if (row_inside && dx >= lo[i] && dx < hi[i])
                        xv = _mm256_set1_ps(value_of(in, (static_cast<size_t>(y) * w + x0[i] + dx) * c + ic, lut));
                    for (int j = 0; j < NV; j++) acc[i][j] = _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], xv));
                }
            }
        }
    }
    for (int i = 0; i < np; i++) {
        float *o = out + (static_cast<size_t>(oy) * g.wo + ox0 + i) * out_c + oc0;
        for (int j = 0; j < NV; j++) {
            const bool last_part = part > 0 && j == NV - 1;
            __m256 v = acc[i][j];
            if (bias) {
                const float *b = bias + oc0 + kLanes * j;
                v = _mm256_add_ps(v, last_part ? _mm256_maskload_ps(b, mask) : _mm256_loadu_ps(b));
            }
            if (last_part) _mm256_maskstore_ps(o + kLanes * j, mask, v);
            else _mm256_storeu_ps(o + kLanes * j, v);
        }
    }
}

template <class T>
void conv_few_channels(const T *in, int w, int h, int c, const Windows &g, const float *wt, int out_c,
                       const float *bias, float *out)
{
    // A byte b stands for b * 2^-8, exactly.
    float lut[256];
    for (int b = 0; b < 256; b++) lut[b] = static_cast<float>(b) * 0.00390625f;
    for (int oy = 0; oy < g.ho; oy++)
        for (int ox0 = 0; ox0 < g.wo; ox0 += kPositions) {
            const int np = g.wo - ox0 < kPositions ? g.wo - ox0 : kPositions;
            int oc0 = 0;
            for (; oc0 + 2 * kLanes <= out_c; oc0 += 2 * kLanes)
                conv_tile<2>(in, w, h, c, g, lut, wt, out_c, bias, out, oy, ox0, np, oc0, 0);
            if (out_c - oc0 > kLanes)
                conv_tile<2>(in, w, h, c, g, lut, wt, out_c, bias, out, oy, ox0, np, oc0, out_c - oc0 - kLanes);
            else if (out_c > oc0)
                conv_tile<1>(in, w, h, c, g, lut, wt, out_c, bias, out, oy, ox0, np, oc0,
                             out_c - oc0 == kLanes ? 0 : out_c - oc0);
        }
}

}  // namespace

void conv_float_few_channels(const dl_matrix3d_t *in, const Windows &g, const fptp_t *wt, int out_c, const fptp_t *bias,
                             fptp_t *out)
{
    conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

void conv_float_few_channels(const dl_matrix3du_t *in, const Windows &g, const fptp_t *wt, int out_c,
                             const fptp_t *bias, fptp_t *out)
{
    conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

void depthwise_float(const dl_matrix3d_t *in, const Windows &g, const fptp_t *filter, const fptp_t *bias, fptp_t *out)
{
    // Two positions at a time share each load of the weights.
    const int c = in->c;
    for (int oy = 0; oy < g.ho; oy++) {
        const int y0 = oy * g.sy - g.top;
        float *o = out + static_cast<size_t>(oy) * g.wo * c;
        int ox = 0;
        for (; ox + 2 <= g.wo; ox += 2)
            channels<2>(in->item, in->w, in->h, c, g, filter, bias, o + static_cast<size_t>(ox) * c, y0,
                        ox * g.sx - g.left);
        if (ox < g.wo)
            channels<1>(in->item, in->w, in->h, c, g, filter, bias, o + static_cast<size_t>(ox) * c, y0,
                        ox * g.sx - g.left);
    }
}

}  // namespace dl::avx2

#endif
