/*
 * kernels_simd.h - the products' blocked, vectorised loops, written once for
 * any vector width; not installed. Each instruction-set file (kernels_avx2,
 * kernels_avx512) includes this under its own target flags with a struct of
 * vector operations `V`:
 *
 *   kLanes                 32-bit lanes in a vector
 *   kTileRows, kTileVecs   float tile: rows of a, vectors of result columns
 *   kQTileRows, kQTileCols fixed-point tile: rows of a, columns of b
 *   F: float vector        zero, load, load_part, store, store_part, bcast,
 *                          add, mul (separate roundings, never fused)
 *   I: integer vector      izero, load16, load16_part (int16 items),
 *                          madd (pairs of int16 products summed to int32),
 *                          add32, hsum64 (the int32 lanes summed in 64 bits)
 *
 * The _part forms touch only the first n items, so no read or write strays
 * past a row or column.
 */
#ifndef DL_LIB_KERNELS_SIMD_H
#define DL_LIB_KERNELS_SIMD_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "dl_lib_internal.h"
#include "kernels_internal.h"

// Everything here has internal linkage: the file is compiled once per
// instruction set, and no copy may be shared with another.
namespace dl::simd {
namespace {

int min_int(int a, int b) { return a < b ? a : b; }

// ---- Float product ---------------------------------------------------------
//
// Every result item is the sum of its products in ascending k, from +0.0,
// each product and each sum rounded to float: the loops below vectorise
// across the columns of the result (x) and keep k, for every item, in order.

// MR rows of res, NV vectors of columns, over all of k. b comes packed: row k
// of the panel holds kTileVecs vectors of b's row k, zero beyond column nc.
template <class V, int MR, int NV>
void float_tile(const float *a, int lda, const float *panel, int K, float *res, int ldr, int nc)
{
    constexpr int L = V::kLanes;
    constexpr int NC = V::kTileVecs * L;
    typename V::F acc[MR][NV];
#pragma GCC unroll 8
    for (int i = 0; i < MR; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = V::zero();
    for (int k = 0; k < K; k++) {
        typename V::F bv[NV];
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) bv[j] = V::load(panel + NC * k + L * j);
#pragma GCC unroll 8
        for (int i = 0; i < MR; i++) {
            const typename V::F av = V::bcast(a[lda * i + k]);
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) acc[i][j] = V::add(acc[i][j], V::mul(av, bv[j]));
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < MR; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) {
            const int n = nc - L * j;
            if (n >= L) V::store(res + ldr * i + L * j, acc[i][j]);
            else if (n > 0) V::store_part(res + ldr * i + L * j, acc[i][j], n);
        }
}

// Tiles at the edges get fewer rows or vectors: the largest shape that fits.
template <class V, int MR, int NV = V::kTileVecs>
void float_tile_nv(int nv, const float *a, int lda, const float *panel, int K, float *res, int ldr, int nc)
{
    if constexpr (NV > 1) {
        if (nv < NV) return float_tile_nv<V, MR, NV - 1>(nv, a, lda, panel, K, res, ldr, nc);
    }
    float_tile<V, MR, NV>(a, lda, panel, K, res, ldr, nc);
}

template <class V, int MR = V::kTileRows>
void float_tile_mr(int mr, int nv, const float *a, int lda, const float *panel, int K, float *res, int ldr, int nc)
{
    if constexpr (MR > 1) {
        if (mr < MR) return float_tile_mr<V, MR - 1>(mr, nv, a, lda, panel, K, res, ldr, nc);
    }
    float_tile_nv<V, MR>(nv, a, lda, panel, K, res, ldr, nc);
}

// Fewer rows than a tile, typically the one-sample case: each row of res is
// made NV vectors of columns at a time, their running sums kept in registers
// over all of k while b's rows stream by. The last vector of the last
// block may be partial (n items).
template <class V, int NV>
void float_row_block(const float *arow, const dl_matrix2d_t *b, int x0, int n, float *res)
{
    constexpr int L = V::kLanes;
    typename V::F acc[NV];
#pragma GCC unroll 16
    for (int j = 0; j < NV; j++) acc[j] = V::zero();
    const float *bcol = b->item + x0;
    for (int k = 0; k < b->h; k++) {
        const typename V::F av = V::bcast(arow[k]);
        const float *brow = bcol + static_cast<size_t>(b->stride) * k;
#pragma GCC unroll 16
        for (int j = 0; j < NV - 1; j++) acc[j] = V::add(acc[j], V::mul(av, V::load(brow + L * j)));
        const typename V::F last = n == L ? V::load(brow + L * (NV - 1)) : V::load_part(brow + L * (NV - 1), n);
        acc[NV - 1] = V::add(acc[NV - 1], V::mul(av, last));
    }
#pragma GCC unroll 16
    for (int j = 0; j < NV - 1; j++) V::store(res + x0 + L * j, acc[j]);
    if (n == L) V::store(res + x0 + L * (NV - 1), acc[NV - 1]);
    else V::store_part(res + x0 + L * (NV - 1), acc[NV - 1], n);
}

// The block for nv vectors, at most NV.
template <class V, int NV = 8>
void float_row_nv(int nv, const float *arow, const dl_matrix2d_t *b, int x0, int n, float *res)
{
    if constexpr (NV > 1) {
        if (nv < NV) return float_row_nv<V, NV - 1>(nv, arow, b, x0, n, res);
    }
    float_row_block<V, NV>(arow, b, x0, n, res);
}

template <class V>
void float_dot_rows(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    constexpr int L = V::kLanes, NB = 8 * L;
    const int N = b->w;
    for (int y = 0; y < a->h; y++) {
        const float *arow = a->item + static_cast<size_t>(a->stride) * y;
        float *r = res->item + static_cast<size_t>(res->stride) * y;
        for (int x0 = 0; x0 < N; x0 += NB) {
            const int nc = N - x0 < NB ? N - x0 : NB;
            const int nv = (nc + L - 1) / L;
            float_row_nv<V>(nv, arow, b, x0, nc - L * (nv - 1), r);
        }
    }
}

template <class V>
bool matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    constexpr int L = V::kLanes;
    constexpr int NC = V::kTileVecs * L;
    const int M = a->h, K = a->w, N = b->w;
    if (M <= 0 || N <= 0) return true;
    if (M < V::kTileRows) {
        float_dot_rows<V>(a, b, res);
        return true;
    }
    // A panel of b, NC columns wide, packed row after row so that the tiles
    // read it in order from the cache, whatever b's stride.
    const size_t panel_items = static_cast<size_t>(NC) * static_cast<size_t>(K > 0 ? K : 1);
    float *panel = static_cast<float *>(dl::mem_calloc(1, sizeof(float) * panel_items));
    if (!panel) return false;
    for (int x0 = 0; x0 < N; x0 += NC) {
        const int nc = min_int(NC, N - x0);
        for (int k = 0; k < K; k++) {
            const float *brow = b->item + b->stride * k + x0;
            float *prow = panel + NC * k;
            for (int j = 0; j < nc; j++) prow[j] = brow[j];
            for (int j = nc; j < NC; j++) prow[j] = 0.0f;
        }
        const int nv = (nc + L - 1) / L;
        for (int y0 = 0; y0 < M; y0 += V::kTileRows) {
            const int mr = min_int(V::kTileRows, M - y0);
            float_tile_mr<V>(mr, nv, a->item + a->stride * y0, a->stride, panel, K, res->item + res->stride * y0 + x0,
                             res->stride, nc);
        }
    }
    dl::mem_free(panel);
    return true;
}

// ---- Fixed-point products --------------------------------------------------
//
// Sum (x, y) runs over k along a column of b, which is contiguous, and a row
// of a, which is copied out once as two rows of bytes: a = 256 * hi + lo,
// with lo from 0 to 255 and hi from -128 to 127. Pairwise products of b's
// items with lo (at most 2 * 32768 * 255 in size) and with hi (at most
// 2 * 32768 * 128) can then be summed in 32-bit lanes for kFlushChunks
// vectors without overflow, -32768 items included, before they are widened
// into the exact 64-bit sum 256 * hi_sum + lo_sum.

constexpr int kFlushChunks = 128;  // 128 * 2 * 32768 * 255 < 2^31

// The same bound over all lanes together: a run of at most this many items
// gives at most 128 pairwise products per sum, whose total over every lane
// fits in 32 bits. A tile of eight accumulators then reduces them all at
// once in 32-bit lanes, where V has hsum32x8, instead of one 64-bit
// horizontal sum each.
constexpr int kShortRun = 256;

template <class V, int MY, int NX>
void q_tile(const int16_t *lo, const int16_t *hi, int kp, const dl_matrix2dq_t *b, int x0, int y0, int K,
            const QDotOut &out)
{
    constexpr int L = 2 * V::kLanes;  // int16 items in a vector
    const int16_t *bcol[NX];
    // Where each column starts, and how far b's items reach, counted in
    // items: a whole vector may be read past the end of a column, into the
    // next one or its gap, as long as it stays within b. Those items meet
    // the zero bytes of a and add nothing.
    ptrdiff_t col_start[NX];
    const ptrdiff_t b_items = static_cast<ptrdiff_t>(b->stride) * (b->w - 1) + b->h;
#pragma GCC unroll 8
    for (int j = 0; j < NX; j++) {
        col_start[j] = static_cast<ptrdiff_t>(b->stride) * (x0 + j);
        bcol[j] = b->itemq + col_start[j];
    }
    const int16_t *alo[MY], *ahi[MY];
#pragma GCC unroll 8
    for (int i = 0; i < MY; i++) {
        alo[i] = lo + static_cast<size_t>(kp) * (y0 + i);
        ahi[i] = hi + static_cast<size_t>(kp) * (y0 + i);
    }
    int64_t sum[MY][NX] = {};
    for (int c0 = 0; c0 < K; c0 += kFlushChunks * L) {
        const int cend = min_int(K, c0 + kFlushChunks * L);
        typename V::I acc_lo[MY][NX], acc_hi[MY][NX];
#pragma GCC unroll 8
        for (int i = 0; i < MY; i++)
#pragma GCC unroll 8
            for (int j = 0; j < NX; j++) acc_lo[i][j] = acc_hi[i][j] = V::izero();
        for (int k = c0; k < cend; k += L) {
            // The last vector may reach past b's column: only its K - k items
            // are read, and the bytes of a there are zero.
            const int n = cend - k;
            typename V::I bv[NX];
#pragma GCC unroll 8
            for (int j = 0; j < NX; j++)
                bv[j] =
                    n >= L || col_start[j] + k + L <= b_items ? V::load16(bcol[j] + k) : V::load16_part(bcol[j] + k, n);
#pragma GCC unroll 8
            for (int i = 0; i < MY; i++) {
                const typename V::I al = V::load16(alo[i] + k);
                const typename V::I ah = V::load16(ahi[i] + k);
#pragma GCC unroll 8
                for (int j = 0; j < NX; j++) {
                    acc_lo[i][j] = V::add32(acc_lo[i][j], V::madd(bv[j], al));
                    acc_hi[i][j] = V::add32(acc_hi[i][j], V::madd(bv[j], ah));
                }
            }
        }
        if constexpr (MY * NX <= 4 && requires(const typename V::I *v, int32_t *t) { V::hsum32x8(v, t); }) {
            if (cend - c0 <= kShortRun) {
                typename V::I all[8];
                int32_t t[8];
#pragma GCC unroll 8
                for (int n = 0; n < 8; n++) all[n] = V::izero();
#pragma GCC unroll 8
                for (int i = 0; i < MY; i++)
#pragma GCC unroll 8
                    for (int j = 0; j < NX; j++) {
                        all[2 * (i * NX + j)] = acc_lo[i][j];
                        all[2 * (i * NX + j) + 1] = acc_hi[i][j];
                    }
                V::hsum32x8(all, t);
#pragma GCC unroll 8
                for (int i = 0; i < MY; i++)
#pragma GCC unroll 8
                    for (int j = 0; j < NX; j++)
                        sum[i][j] += static_cast<int64_t>(t[2 * (i * NX + j) + 1]) * 256 + t[2 * (i * NX + j)];
                continue;
            }
        }
#pragma GCC unroll 8
        for (int i = 0; i < MY; i++)
#pragma GCC unroll 8
            for (int j = 0; j < NX; j++) sum[i][j] += V::hsum64(acc_hi[i][j]) * 256 + V::hsum64(acc_lo[i][j]);
    }
    for (int j = 0; j < NX; j++)
        for (int i = 0; i < MY; i++) qdot_store(out, x0 + j, y0 + i, sum[i][j]);
}

template <class V, int MY, int NX = V::kQTileCols>
void q_tile_nx(int nx, const int16_t *lo, const int16_t *hi, int kp, const dl_matrix2dq_t *b, int x0, int y0, int K,
               const QDotOut &out)
{
    if constexpr (NX > 1) {
        if (nx < NX) return q_tile_nx<V, MY, NX - 1>(nx, lo, hi, kp, b, x0, y0, K, out);
    }
    q_tile<V, MY, NX>(lo, hi, kp, b, x0, y0, K, out);
}

template <class V, int MY = V::kQTileRows>
void q_tile_my(int my, int nx, const int16_t *lo, const int16_t *hi, int kp, const dl_matrix2dq_t *b, int x0, int y0,
               int K, const QDotOut &out)
{
    if constexpr (MY > 1) {
        if (my < MY) return q_tile_my<V, MY - 1>(my, nx, lo, hi, kp, b, x0, y0, K, out);
    }
    q_tile_nx<V, MY>(nx, lo, hi, kp, b, x0, y0, K, out);
}

template <class V>
bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    constexpr int L = 2 * V::kLanes;
    const int M = a->h, K = a->w, N = b->w;
    if (M <= 0 || N <= 0) return true;
    // Rows of a as bytes, each padded with zeros to whole vectors.
    const int kp = (K + L - 1) / L * L;
    const size_t row_items = static_cast<size_t>(kp > 0 ? kp : 1) * static_cast<size_t>(M);
    int16_t *lo = static_cast<int16_t *>(dl::mem_calloc(1, 2 * sizeof(int16_t) * row_items));
    if (!lo) return false;
    int16_t *hi = lo + row_items;
    for (int y = 0; y < M; y++) {
        int16_t *l = lo + static_cast<size_t>(kp) * y, *h = hi + static_cast<size_t>(kp) * y;
        for (int k = 0; k < K; k++) {
            const int32_t v = a->itemq[y + a->stride * k];
            l[k] = static_cast<int16_t>(v & 0xff);
            h[k] = static_cast<int16_t>(v >> 8);
        }
        for (int k = K; k < kp; k++) l[k] = h[k] = 0;
    }
    if (M == 1) {
        // One row (the layers' case): its accumulators go to twice the
        // columns instead.
        constexpr int C = V::kQTileRows * V::kQTileCols;
        for (int x0 = 0; x0 < N; x0 += C) q_tile_nx<V, 1, C>(min_int(C, N - x0), lo, hi, kp, b, x0, 0, K, out);
    } else {
        for (int x0 = 0; x0 < N; x0 += V::kQTileCols) {
            const int nx = min_int(V::kQTileCols, N - x0);
            for (int y0 = 0; y0 < M; y0 += V::kQTileRows)
                q_tile_my<V>(min_int(V::kQTileRows, M - y0), nx, lo, hi, kp, b, x0, y0, K, out);
        }
    }
    dl::mem_free(lo);
    return true;
}

}  // namespace
}  // namespace dl::simd

#endif /* DL_LIB_KERNELS_SIMD_H */
