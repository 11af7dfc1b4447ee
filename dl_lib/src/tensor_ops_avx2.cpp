// The tensor operators' kernels for processors with AVX2: 8 float lanes.
// Each returns false, with nothing written, when it cannot run (no scratch
// memory; for the depthwise one, a weight that is not finite); the caller
// then runs the portable loop.
// Built with -mavx2 for this file alone (no -mfma: products and sums must
// round apart), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include <cmath>

#include "dl_lib_internal.h"
#include "tensor_ops_internal.h"

namespace dl::avx2 {
namespace {

constexpr int kLanes = 8;

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

// The NV vectors of a run of channels whose last vector is a part of `part`
// lanes when Part is set: only that one is loaded and stored masked.
template <int NV, bool Part>
struct ChannelRun {
    __m256i mask;
    explicit ChannelRun(int part) : mask(first8(part)) {}
    __m256 load(const float *p, int j) const
    {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    }
    // Vector j of a result, plus the bias's where there is one.
    void store(float *p, const float *bias, int j, __m256 v) const
    {
        if (bias) v = _mm256_add_ps(v, load(bias, j));
        if (Part && j == NV - 1) _mm256_maskstore_ps(p + kLanes * j, mask, v);
        else _mm256_storeu_ps(p + kLanes * j, v);
    }
};

// ---- Float convolution on few input channels --------------------------------
//
// Without gathering the windows: the input is first laid out as floats with
// its zero padding, so that every window row is a run of kw * c floats.
// Then kPositions positions (in output order, across row ends) by two
// vectors of output channels at a time, each output's sum taken over the
// window's places in ascending order from +0.0, one rounding per product and
// per sum, as the gathered product computes it; a padded place adds 0.0
// times the weight there too. The weights come transposed, places x
// channels (row k at wt + k * out_c).

constexpr int kPositions = 6;

inline float value_of(float v) { return v; }
inline float value_of(uc_t b) { return static_cast<float>(b) * 0.00390625f; }  // b * 2^-8, exactly

// The input as floats inside its zero padding: padded row r, column x
// stands for input row r - top, column x - left, and holds every place that
// a window reads.
template <class T>
class PaddedInput {
  public:
    PaddedInput(const T *in, int w, int h, int c, const Windows &g)
    {
        int pw = (g.wo - 1) * g.sx + g.kw;
        if (pw < g.left + w) pw = g.left + w;
        const int ph = (g.ho - 1) * g.sy + g.kh;
        row_floats_ = static_cast<size_t>(pw) * c;
        buf_ = static_cast<float *>(dl::mem_calloc(1, sizeof(float) * row_floats_ * ph + 1));
        if (!buf_) return;
        // Columns and rows past the padded size are read by no window.
        const int cols = pw - g.left < w ? pw - g.left : w;
        for (int r = 0; r < ph; r++) {
            const int y = r - g.top;
            if (y < 0 || y >= h) continue;  // mem_calloc gave zeros
            float *d = buf_ + row_floats_ * r + static_cast<size_t>(g.left) * c;
            const T *s = in + static_cast<size_t>(y) * w * c;
            for (size_t k = 0; k < static_cast<size_t>(cols) * c; k++) d[k] = value_of(s[k]);
        }
    }
    ~PaddedInput() { dl::mem_free(buf_); }
    PaddedInput(const PaddedInput &) = delete;
    PaddedInput &operator=(const PaddedInput &) = delete;

    bool ok() const { return buf_ != nullptr; }
    size_t row_floats() const { return row_floats_; }
    // The window corner of output (oy, ox).
    const float *corner(int oy, int ox, const Windows &g, int c) const
    {
        return buf_ + row_floats_ * static_cast<size_t>(oy * g.sy) + static_cast<size_t>(ox * g.sx) * c;
    }

  private:
    size_t row_floats_ = 0;
    float *buf_ = nullptr;
};

// kPositions positions whose window corners are corner[i]; those past np
// repeat the last one and are not stored. out is the first position's.
template <int NV, bool Part>
void conv_tile(const float *const *corner, size_t row_floats, int c, const Windows &g, const float *wt, int out_c,
               const float *bias, float *out, int np, int oc0, int part)
{
    const ChannelRun<NV, Part> run(part);
    auto load = [&](const float *p, int j) { return run.load(p, j); };
    __m256 acc[kPositions][NV];
#pragma GCC unroll 8
    for (int i = 0; i < kPositions; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    const int span = g.kw * c;
    for (int dy = 0; dy < g.kh; dy++) {
        const float *r[kPositions];
#pragma GCC unroll 8
        for (int i = 0; i < kPositions; i++) r[i] = corner[i] + row_floats * dy;
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
        float *o = out + static_cast<size_t>(i) * out_c + oc0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) run.store(o, bias ? bias + oc0 : nullptr, j, acc[i][j]);
    }
}

template <class T>
bool conv_few_channels(const T *in, int w, int h, int c, const Windows &g, const float *wt, int out_c,
                       const float *bias, float *out)
{
    PaddedInput<T> padded(in, w, h, c, g);
    if (!padded.ok()) return false;
    const size_t rf = padded.row_floats();
    const int P = g.wo * g.ho;
    for (int p0 = 0; p0 < P; p0 += kPositions) {
        const int np = P - p0 < kPositions ? P - p0 : kPositions;
        const float *corner[kPositions];
        for (int i = 0; i < kPositions; i++) {
            const int p = p0 + (i < np ? i : np - 1);
            corner[i] = padded.corner(p / g.wo, p % g.wo, g, c);
        }
        float *o = out + static_cast<size_t>(p0) * out_c;
        int oc0 = 0;
        for (; oc0 + 2 * kLanes <= out_c; oc0 += 2 * kLanes)
            conv_tile<2, false>(corner, rf, c, g, wt, out_c, bias, o, np, oc0, 0);
        if (out_c - oc0 > kLanes)
            conv_tile<2, true>(corner, rf, c, g, wt, out_c, bias, o, np, oc0, out_c - oc0 - kLanes);
        else if (out_c - oc0 == kLanes) conv_tile<1, false>(corner, rf, c, g, wt, out_c, bias, o, np, oc0, 0);
        else if (out_c > oc0) conv_tile<1, true>(corner, rf, c, g, wt, out_c, bias, o, np, oc0, out_c - oc0);
    }
    return true;
}

// ---- Depthwise float convolution -----------------------------------------------
//
// NP positions (up to kDwPositions) at a time by NV vectors of channels from
// c0, bias (if any) added last; with Part, only `part` lanes of the last
// vector. Each channel's sum runs over the window's places in order from
// +0.0, one rounding per product and per sum, as the portable loop's: the
// lanes only take several channels at once, and the positions of a tile
// share each load of the weights. The accumulators stay in registers across
// the window.
//
// A padded place adds 0.0 times its weight, which leaves a sum unchanged
// when the weight is finite: a sum that starts at +0.0 is never -0.0, and
// +0.0 + -0.0 is +0.0. So with finite weights a window visits only its
// places inside the input. The positions are taken in blocks that share
// those places (the interior, each border row and column, the corners), so
// that the places of a tile are one rectangle of the window at the same
// offsets from each position's first place, and no place costs a test.

constexpr int kDwPositions = 4, kDwVectors = 2;

struct DwTile {
    const float *corner[kDwPositions];  // each position's first place inside
    float *out[kDwPositions];           // each position's output channels
};

// The places of a tile's windows: rows x cols of them, window row r and
// column q at corner + r * in_row + q * c in the input and at
// weight + r * filter_row + q * c in the filter.
struct DwPlaces {
    int rows, cols, c;
    size_t in_row, filter_row;
    const float *weight;
};

template <int NP, int NV, bool Part>
void dw_tile(const DwTile &t, const DwPlaces &pl, const float *bias, int c0, int part)
{
    const ChannelRun<NV, Part> run(part);
    auto load = [&](const float *p, int j) { return run.load(p, j); };
    __m256 acc[NP][NV];
#pragma GCC unroll 8
    for (int i = 0; i < NP; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    for (int r = 0; r < pl.rows; r++) {
        const float *fw = pl.weight + pl.filter_row * r + c0;
        const size_t row = pl.in_row * r + c0;
        for (int q = 0; q < pl.cols; q++, fw += pl.c) {
            const size_t at = row + static_cast<size_t>(q) * pl.c;
            __m256 wv[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) wv[j] = load(fw, j);
#pragma GCC unroll 8
            for (int i = 0; i < NP; i++)
#pragma GCC unroll 8
                for (int j = 0; j < NV; j++)
                    acc[i][j] = _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], load(t.corner[i] + at, j)));
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < NP; i++) {
        float *o = t.out[i] + c0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) run.store(o, bias ? bias + c0 : nullptr, j, acc[i][j]);
    }
}

template <int NP>
void dw_channels(const DwTile &t, const DwPlaces &pl, const float *bias)
{
    const int c = pl.c;
    int c0 = 0;
    for (; c0 + kDwVectors * kLanes <= c; c0 += kDwVectors * kLanes) dw_tile<NP, kDwVectors, false>(t, pl, bias, c0, 0);
    for (; c0 + kLanes <= c; c0 += kLanes) dw_tile<NP, 1, false>(t, pl, bias, c0, 0);
    if (c0 < c) dw_tile<NP, 1, true>(t, pl, bias, c0, c - c0);
}

// Blocks of 3-wide windows at stride 1 along the rows share most of their
// input: R output rows by NP neighbouring positions each, 8 channels from c0
// (with Part, `part` of them). Each input vector of a window row is loaded
// once and serves the up to three positions that read it; a position's sum
// still takes its places in order, row by row and, within a row, column by
// column, since the columns are visited in ascending order.
constexpr int kRowWindow = 3;

template <int R, int NP, bool Part>
void dw_rows_tile(const float *const *first, float *const *out, const DwPlaces &pl, const float *bias, int c0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p) { return Part ? _mm256_maskload_ps(p, mask) : _mm256_loadu_ps(p); };
    const size_t c = static_cast<size_t>(pl.c);
    __m256 acc[R][NP];
#pragma GCC unroll 8
    for (int o = 0; o < R; o++)
#pragma GCC unroll 8
        for (int i = 0; i < NP; i++) acc[o][i] = _mm256_setzero_ps();
    for (int r = 0; r < pl.rows; r++) {
        const float *fw = pl.weight + pl.filter_row * r + c0;
        __m256 wv[kRowWindow];
#pragma GCC unroll 8
        for (int dx = 0; dx < kRowWindow; dx++) wv[dx] = load(fw + dx * c);
#pragma GCC unroll 8
        for (int o = 0; o < R; o++) {
            const float *x = first[o] + pl.in_row * r + c0;
#pragma GCC unroll 8
            for (int j = 0; j < NP + kRowWindow - 1; j++) {
                const __m256 v = load(x + j * c);
#pragma GCC unroll 8
                for (int dx = 0; dx < kRowWindow; dx++)
                    if (j - dx >= 0 && j - dx < NP)
                        acc[o][j - dx] = _mm256_add_ps(acc[o][j - dx], _mm256_mul_ps(wv[dx], v));
            }
        }
    }
#pragma GCC unroll 8
    for (int o = 0; o < R; o++)
#pragma GCC unroll 8
        for (int i = 0; i < NP; i++) {
            __m256 v = acc[o][i];
            if (bias) v = _mm256_add_ps(v, load(bias + c0));
            float *d = out[o] + i * c + c0;
            if (Part) _mm256_maskstore_ps(d, mask, v);
            else _mm256_storeu_ps(d, v);
        }
}

template <int R, int NP>
void dw_rows_channels(const float *const *first, float *const *out, const DwPlaces &pl, const float *bias)
{
    int c0 = 0;
    for (; c0 + kLanes <= pl.c; c0 += kLanes) dw_rows_tile<R, NP, false>(first, out, pl, bias, c0, 0);
    if (c0 < pl.c) dw_rows_tile<R, NP, true>(first, out, pl, bias, c0, pl.c - c0);
}

template <int R>
void dw_rows(int np, const float *const *first, float *const *out, const DwPlaces &pl, const float *bias)
{
    switch (np) {
    case 1: dw_rows_channels<R, 1>(first, out, pl, bias); break;
    case 2: dw_rows_channels<R, 2>(first, out, pl, bias); break;
    case 3: dw_rows_channels<R, 3>(first, out, pl, bias); break;
    default: dw_rows_channels<R, 4>(first, out, pl, bias); break;
    }
}

// Whether no item is infinite or NaN: one comparison of the magnitudes with
// infinity per vector (unordered, so that a NaN fails it too).
bool all_finite(const float *v, size_t n)
{
    const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    const __m256 inf = _mm256_set1_ps(INFINITY);
    __m256 bad = _mm256_setzero_ps();
    size_t i = 0;
    for (; i + kLanes <= n; i += kLanes)
        bad = _mm256_or_ps(bad, _mm256_cmp_ps(_mm256_and_ps(_mm256_loadu_ps(v + i), magnitude), inf, _CMP_NLT_UQ));
    if (!_mm256_testz_ps(bad, bad)) return false;
    for (; i < n; i++)
        if (!std::isfinite(v[i])) return false;
    return true;
}

// The window places d0 .. d1-1 (d1 <= d0: none) of output o along one axis
// that fall inside the input's n items; the window starts at o * s - before.
struct Span {
    int d0, d1;
    bool operator==(const Span &o) const { return d0 == o.d0 && d1 == o.d1; }
};
Span inside_span(int o, int s, int before, int k, int n)
{
    const int start = o * s - before;
    return {start < 0 ? -start : 0, start + k > n ? n - start : k};
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
    const int c = in->c, w = in->w;
    if (!all_finite(filter, static_cast<size_t>(g.kh) * g.kw * c)) return false;
    // Blocks of rows by their window rows inside, and within them blocks of
    // columns alike: the window ranges only shrink toward the ends, so equal
    // ranges are neighbours.
    for (int oy0 = 0, oy1; oy0 < g.ho; oy0 = oy1) {
        const Span sy = inside_span(oy0, g.sy, g.top, g.kh, in->h);
        for (oy1 = oy0 + 1; oy1 < g.ho && inside_span(oy1, g.sy, g.top, g.kh, in->h) == sy;) oy1++;
        for (int ox0 = 0, ox1; ox0 < g.wo; ox0 = ox1) {
            const Span sx = inside_span(ox0, g.sx, g.left, g.kw, w);
            for (ox1 = ox0 + 1; ox1 < g.wo && inside_span(ox1, g.sx, g.left, g.kw, w) == sx;) ox1++;
            // A window wholly in the padding has no place: its sum is +0.0.
            const bool empty = sy.d1 <= sy.d0 || sx.d1 <= sx.d0;
            const DwPlaces pl = {empty ? 0 : sy.d1 - sy.d0,
                                 empty ? 0 : sx.d1 - sx.d0,
                                 c,
                                 static_cast<size_t>(w) * c,
                                 static_cast<size_t>(g.kw) * c,
                                 filter + static_cast<size_t>(sy.d0 * g.kw + sx.d0) * c};
            const int cols = ox1 - ox0, count = (oy1 - oy0) * cols;
            if (g.sx == 1 && pl.cols == kRowWindow && cols >= 2) {
                // Two output rows at a time, up to four positions of each.
                for (int oy = oy0; oy < oy1; oy += 2) {
                    const int rows = oy1 - oy < 2 ? 1 : 2;
                    for (int ox = ox0; ox < ox1; ox += 4) {
                        const int np = ox1 - ox < 4 ? ox1 - ox : 4;
                        const float *first[2];
                        float *o[2];
                        for (int k = 0; k < rows; k++) {
                            const int y = (oy + k) * g.sy - g.top + sy.d0, x = ox - g.left + sx.d0;
                            first[k] = in->item + (static_cast<size_t>(y) * w + x) * c;
                            o[k] = out + (static_cast<size_t>(oy + k) * g.wo + ox) * c;
                        }
                        if (rows == 2) dw_rows<2>(np, first, o, pl, bias);
                        else dw_rows<1>(np, first, o, pl, bias);
                    }
                }
                continue;
            }
            for (int q0 = 0; q0 < count; q0 += kDwPositions) {
                DwTile t;
                const int np = count - q0 < kDwPositions ? count - q0 : kDwPositions;
                for (int i = 0; i < np; i++) {
                    const int q = q0 + i;
                    const int oy = oy0 + q / cols, ox = ox0 + q % cols;
                    const int y = oy * g.sy - g.top + sy.d0, x = ox * g.sx - g.left + sx.d0;
                    // Only read when the window has places, so inside then.
                    t.corner[i] = empty ? in->item : in->item + (static_cast<size_t>(y) * w + x) * c;
                    t.out[i] = out + (static_cast<size_t>(oy) * g.wo + ox) * c;
                }
                // A block's last tile takes only the positions left.
                switch (np) {
                case 1: dw_channels<1>(t, pl, bias); break;
                case 2: dw_channels<2>(t, pl, bias); break;
                case 3: dw_channels<3>(t, pl, bias); break;
                default: dw_channels<4>(t, pl, bias); break;
                }
            }
        }
    }
    return true;
}

}  // namespace dl::avx2

#endif
