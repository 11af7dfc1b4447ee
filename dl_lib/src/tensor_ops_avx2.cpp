// The tensor operators' kernels for processors with AVX2: 8 float lanes.
// Each returns false, with nothing written, when it cannot get its scratch
// memory; the caller then runs the portable loop.
// Built with -mavx2 for this file alone (no -mfma: products and sums must
// round apart), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include "dl_lib_internal.h"
#include "tensor_ops_internal.h"

namespace dl::avx2 {
namespace {

constexpr int kLanes = 8;

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

// ---- Float convolution on few input channels --------------------------------
//
// Without gathering the windows: the kh input rows under one output row are
// first laid out as floats with their zero padding (a row outside the input
// is all zeros), so that every window row is a run of kw * c floats. Then
// kPositions neighbouring positions by two vectors of output channels at a
// time, each output's sum taken over the window's places in ascending order
// from +0.0, one rounding per product and per sum, as the gathered product
// computes it; a padded place adds 0.0 times the weight there too. The
// weights come transposed, places x channels (row k at wt + k * out_c).

constexpr int kPositions = 4;

inline float value_of(float v) { return v; }
inline float value_of(uc_t b) { return static_cast<float>(b) * 0.00390625f; }  // b * 2^-8, exactly

// The kh input rows under one output row as floats with their zero padding,
// so that every window row is a run of kw * c floats (a row outside the
// input is all zeros). They are reused as the windows move down: input row
// y sits in slot y mod kh (kh neighbouring rows never share a slot) and is
// laid out once however many output rows read it.
template <class T>
class PaddedRows {
  public:
    PaddedRows(const T *in, int w, int h, int c, const Windows &g) : in_(in), w_(w), h_(h), c_(c), g_(g)
    {
        // Columns: enough for the last window, at least the input's.
        int pw = (g.wo - 1) * g.sx + g.kw;
        if (pw < g.left + w) pw = g.left + w;
        row_floats_ = static_cast<size_t>(pw) * c;
        before_ = static_cast<size_t>(g.left) * c;
        end_ = before_ + static_cast<size_t>(pw - g.left < w ? pw - g.left : w) * c;
        buf_ = static_cast<float *>(dl::mem_calloc(1, sizeof(float) * row_floats_ * g.kh + 1));
        rows_ = static_cast<const float **>(dl::mem_calloc(1, sizeof(float *) * g.kh));
        slot_row_ = static_cast<int *>(dl::mem_calloc(1, sizeof(int) * g.kh));
        if (slot_row_)
            for (int dy = 0; dy < g.kh; dy++) slot_row_[dy] = INT32_MIN;
    }
    ~PaddedRows()
    {
        dl::mem_free(buf_);
        dl::mem_free(rows_);
        dl::mem_free(slot_row_);
    }
    PaddedRows(const PaddedRows &) = delete;
    PaddedRows &operator=(const PaddedRows &) = delete;

    bool ok() const { return buf_ && rows_ && slot_row_; }

    // The rows under output row oy: element dy is window row dy, column 0
    // of the padded row standing for input column -left.
    const float *const *under(int oy)
    {
        for (int dy = 0; dy < g_.kh; dy++) {
            const int y = oy * g_.sy - g_.top + dy;
            const int slot = ((y % g_.kh) + g_.kh) % g_.kh;
            float *r = buf_ + row_floats_ * slot;
            rows_[dy] = r;
            if (slot_row_[slot] == y) continue;
            slot_row_[slot] = y;
            // Zeros before the input's columns, the row, zeros after; a row
            // outside the input is zeros throughout.
            const bool inside = y >= 0 && y < h_;
            const T *src = in_ + static_cast<size_t>(inside ? y : 0) * w_ * c_;
            const size_t from = inside ? before_ : row_floats_, to = inside ? end_ : row_floats_;
            for (size_t k = 0; k < from; k++) r[k] = 0.0f;
            for (size_t k = from; k < to; k++) r[k] = value_of(src[k - from]);
            for (size_t k = to; k < row_floats_; k++) r[k] = 0.0f;
        }
        return rows_;
    }

  private:
    const T *in_;
    int w_, h_, c_;
    const Windows &g_;
    size_t row_floats_ = 0, before_ = 0, end_ = 0;
    float *buf_ = nullptr;
    const float **rows_ = nullptr;
    int *slot_row_ = nullptr;
};

// The positions ox0 .. ox0+np-1 of one output row; rows[dy] is the padded
// input row under window row dy. Positions past np repeat the last one and
// are not stored.
template <int NV, bool Part>
void conv_tile(const float *const *rows, int c, const Windows &g, const float *wt, int out_c, const float *bias,
               float *out, int ox0, int np, int oc0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p, int j) {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    };
    __m256 acc[kPositions][NV];
#pragma GCC unroll 8
    for (int i = 0; i < kPositions; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    const int span = g.kw * c;
    for (int dy = 0; dy < g.kh; dy++) {
        const float *r[kPositions];
#pragma GCC unroll 8
        for (int i = 0; i < kPositions; i++)
            r[i] = rows[dy] + static_cast<size_t>(ox0 + (i < np ? i : np - 1)) * g.sx * c;
        const float *wrow = wt + static_cast<size_t>(dy * span) * out_c + oc0;
        for (int k = 0; k < span; k++) {
            const float *wk = wrow + static_cast<size_t>(k) * out_c;
            __m256 wv[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) wv[j] = load(wk, j);
#pragma GCC unroll 8
            for (int i = 0; i < kPositions; i++) {
                const __m256 xv = _mm256_broadcast_ss(r[i] + k);
#pragma GCC unroll 8
                for (int j = 0; j < NV; j++) acc[i][j] = _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], xv));
            }
        }
    }
    // Every index of acc is known at compile time, so that it stays in
    // registers: the test against np is made inside the unrolled loop.
#pragma GCC unroll 8
    for (int i = 0; i < kPositions; i++) {
        if (i >= np) break;
        float *o = out + static_cast<size_t>(ox0 + i) * out_c + oc0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) {
            __m256 v = acc[i][j];
            if (bias) v = _mm256_add_ps(v, load(bias + oc0, j));
            if (Part && j == NV - 1) _mm256_maskstore_ps(o + kLanes * j, mask, v);
            else _mm256_storeu_ps(o + kLanes * j, v);
        }
    }
}

template <class T>
bool conv_few_channels(const T *in, int w, int h, int c, const Windows &g, const float *wt, int out_c,
                       const float *bias, float *out)
{
    PaddedRows<T> padded(in, w, h, c, g);
    if (!padded.ok()) return false;
    for (int oy = 0; oy < g.ho; oy++) {
        const float *const *rows = padded.under(oy);
        float *o = out + static_cast<size_t>(oy) * g.wo * out_c;
        for (int ox0 = 0; ox0 < g.wo; ox0 += kPositions) {
            const int np = g.wo - ox0 < kPositions ? g.wo - ox0 : kPositions;
            int oc0 = 0;
            for (; oc0 + 2 * kLanes <= out_c; oc0 += 2 * kLanes)
                conv_tile<2, false>(rows, c, g, wt, out_c, bias, o, ox0, np, oc0, 0);
            if (out_c - oc0 > kLanes)
                conv_tile<2, true>(rows, c, g, wt, out_c, bias, o, ox0, np, oc0, out_c - oc0 - kLanes);
            else if (out_c - oc0 == kLanes) conv_tile<1, false>(rows, c, g, wt, out_c, bias, o, ox0, np, oc0, 0);
            else if (out_c > oc0) conv_tile<1, true>(rows, c, g, wt, out_c, bias, o, ox0, np, oc0, out_c - oc0);
        }
    }
    return true;
}

// ---- Depthwise float convolution -----------------------------------------------
//
// kDwPositions neighbouring positions of one output row by NV vectors of
// channels from c0, bias (if any) added last; with Part, only `part` lanes
// of the last vector. Each channel's sum runs over the window's places in
// order from +0.0, one rounding per product and per sum, as the portable
// loop's: the lanes only take several channels at once (and several
// positions would share each load of the weights; on rows as short as a
// spectrogram's, one position at a time measured fastest). Windows read
// padded rows, where a padded place adds 0.0 times the weight.

constexpr int kDwPositions = 1, kDwVectors = 4;

template <int NV, bool Part>
void dw_tile(const float *const *rows, int c, const Windows &g, const float *filter, const float *bias, float *out,
             int ox0, int np, int c0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p, int j) {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    };
    __m256 acc[kDwPositions][NV];
#pragma GCC unroll 8
    for (int i = 0; i < kDwPositions; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    for (int dy = 0; dy < g.kh; dy++) {
        const float *x[kDwPositions];
#pragma GCC unroll 8
        for (int i = 0; i < kDwPositions; i++)
            x[i] = rows[dy] + static_cast<size_t>(ox0 + (i < np ? i : np - 1)) * g.sx * c + c0;
        const float *fw = filter + static_cast<size_t>(dy * g.kw) * c + c0;
        for (int dx = 0; dx < g.kw; dx++) {
            __m256 wv[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) wv[j] = load(fw + static_cast<size_t>(dx) * c, j);
#pragma GCC unroll 8
            for (int i = 0; i < kDwPositions; i++)
#pragma GCC unroll 8
                for (int j = 0; j < NV; j++)
                    acc[i][j] =
                        _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], load(x[i] + static_cast<size_t>(dx) * c, j)));
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < kDwPositions; i++) {
        if (i >= np) break;
        float *o = out + static_cast<size_t>(ox0 + i) * c + c0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) {
            __m256 v = acc[i][j];
            if (bias) v = _mm256_add_ps(v, load(bias + c0, j));
            if (Part && j == NV - 1) _mm256_maskstore_ps(o + kLanes * j, mask, v);
            else _mm256_storeu_ps(o + kLanes * j, v);
        }
    }
}

}  // namespace

bool conv_float_few_channels(const dl_matrix3d_t *in, const Windows &g, const fptp_t *wt, int out_c, const fptp_t *bias,
                             fptp_t *out)
{
    return conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

bool conv_float_few_channels(const dl_matrix3du_t *in, const Windows &g, const fptp_t *wt, int out_c,
                             const fptp_t *bias, fptp_t *out)
{
    return conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

bool depthwise_float(const dl_matrix3d_t *in, const Windows &g, const fptp_t *filter, const fptp_t *bias, fptp_t *out)
{
    const int c = in->c;
    PaddedRows<float> padded(in->item, in->w, in->h, c, g);
    if (!padded.ok()) return false;
    for (int oy = 0; oy < g.ho; oy++) {
        const float *const *rows = padded.under(oy);
        float *o = out + static_cast<size_t>(oy) * g.wo * c;
        for (int ox0 = 0; ox0 < g.wo; ox0 += kDwPositions) {
            const int np = g.wo - ox0 < kDwPositions ? g.wo - ox0 : kDwPositions;
            int c0 = 0;
            for (; c0 + kDwVectors * kLanes <= c; c0 += kDwVectors * kLanes)
                dw_tile<kDwVectors, false>(rows, c, g, filter, bias, o, ox0, np, c0, 0);
            for (; c0 + kLanes <= c; c0 += kLanes) dw_tile<1, false>(rows, c, g, filter, bias, o, ox0, np, c0, 0);
            if (c0 < c) dw_tile<1, true>(rows, c, g, filter, bias, o, ox0, np, c0, c - c0);
        }
    }
    return true;
}

}  // namespace dl::avx2

#endif
