#include "dl_lib_matrix.h"

#include <math.h>

#include "dl_lib_internal.h"
#include "kernels_internal.h"
#include "matrix_internal.h"

dl_matrix2d_t *dl_matrix_alloc(int w, int h)
{
    if (w < 0 || h < 0) return nullptr;
    auto *m = static_cast<dl_matrix2d_t *>(dl::mem_calloc(1, sizeof(dl_matrix2d_t)));
    if (!m) return nullptr;
    // calloc checks the product w*h*4 for overflow itself.
    m->item = static_cast<fptp_t *>(dl::mem_calloc(static_cast<size_t>(w) * static_cast<size_t>(h), sizeof(fptp_t)));
    if (!m->item && w != 0 && h != 0) {
        dl::mem_free(m);
        return nullptr;
    }
    m->w = w;
    m->h = h;
    m->stride = w;
    m->flags = 0;
    return m;
}

dl_matrix2d_t *dl_matrix_from_data(int w, int h, int stride, void *data)
{
    auto *m = static_cast<dl_matrix2d_t *>(dl::mem_calloc(1, sizeof(dl_matrix2d_t)));
    if (!m) return nullptr;
    m->w = w;
    m->h = h;
    m->stride = stride;
    m->flags = DL_MF_FOREIGNDATA;
    m->item = static_cast<fptp_t *>(data);
    return m;
}

void dl_matrix_free(dl_matrix2d_t *m) { dl::free_record(m); }

void dl_matrix_zero(dl_matrix2d_t *m)
{
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) m->item[x + m->stride * y] = 0.0f;
}

int dl_matrix_same_shape(const dl_matrix2d_t *a, const dl_matrix2d_t *b) { return dl::same_shape(a, b); }

dl_matrix2d_t *dl_matrix_slice(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in)
{
    if (!(in = dl::view_record(in))) return nullptr;
    // A record that owned its items would lose them here, and freeing the
    // view later would free a pointer into src.
    DL_ASSERT(in->flags&DL_MF_FOREIGNDATA);
    DL_ASSERT(x+w<=src->w);
    DL_ASSERT(y+h<=src->h);
    in->w = w;
    in->h = h;
    in->stride = src->stride;
    in->item = src->item + (x + src->stride * y);
    return in;
}

dl_matrix2d_t *dl_matrix_flatten(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in)
{
    if (!in) {
        in = dl_matrix_alloc(w * h, 1);
        if (!in) return nullptr;
    }
    DL_ASSERT(x + w <= src->w);
    DL_ASSERT(y + h <= src->h);
    DL_ASSERT(in->w*in->h>=w*h);
    for (int j = 0; j < h; j++)
        for (int i = 0; i < w; i++) in->item[i + j * w] = src->item[(x + i) + src->stride * (y + j)];
    in->stride = w * h;
    return in;
}

void dl_matrix_flip(dl_matrix2d_t *a)
{
    DL_ASSERT(a->h==1);
    a->h = a->w;
    a->w = 1;
    a->stride = 1;
}

void dl_printmatrix(const dl_matrix2d_t *a)
{
    printf("a->w: %d, a->h: %d\n", a->w, a->h);
    for (int y = 0; y < a->h; y++) {
        for (int x = 0; x < a->w; x++) printf("%f\t", static_cast<double>(a->item[x + a->stride * y]));
        printf("\n\n");
    }
}

void dl_matrix_mul(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(a, b));
    // out's shape is free, as long as a's items fit.
    DL_ASSERT(out->w>=a->w && out->h>=a->h);
    for (int y = 0; y < a->h; y++)
        for (int x = 0; x < b->w; x++)
            out->item[x + out->stride * y] = a->item[x + a->stride * y] * b->item[x + b->stride * y];
}

void dl_matrix_add_const(dl_matrix2d_t *a, fptp_t value)
{
    for (int y = 0; y < a->h; y++)
        for (int x = 0; x < a->w; x++) a->item[x + a->stride * y] += value;
}

void dl_matrix_add(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(a, b));
    DL_ASSERT(dl_matrix_same_shape(a, out));
    for (int y = 0; y < a->h; y++)
        for (int x = 0; x < a->w; x++)
            out->item[x + out->stride * y] = a->item[x + a->stride * y] + b->item[x + b->stride * y];
}

void dl_matrix_sub(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(a, b));
    DL_ASSERT(dl_matrix_same_shape(a, out));
    for (int y = 0; y < a->h; y++)
        for (int x = 0; x < a->w; x++)
            out->item[x + out->stride * y] = a->item[x + a->stride * y] - b->item[x + b->stride * y];
}

void dl_matrix_div(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *out)
{
    DL_ASSERT(dl_matrix_same_shape(a, b));
    DL_ASSERT(dl_matrix_same_shape(a, out));
    for (int y = 0; y < a->h; y++)
        for (int x = 0; x < a->w; x++)
            out->item[x + out->stride * y] = a->item[x + a->stride * y] / b->item[x + b->stride * y];
}

namespace dl {

namespace {

// Items x .. x+N-1 of one row of the product: N sums, each in a register of
// its own, so that every item of a's row is loaded once for N of them.
template <int N>
[[gnu::noinline]] void dot_columns(const fptp_t *arow, const fptp_t *bcol, int k_count, int bstride, fptp_t *out)
{
    fptp_t sum[N] = {};
    for (int k = 0; k < k_count; k++, bcol += bstride) {
        const fptp_t v = arow[k];
#pragma GCC unroll 8
        for (int j = 0; j < N; j++) sum[j] = v * bcol[j] + sum[j];
    }
#pragma GCC unroll 8
    for (int j = 0; j < N; j++) out[j] = sum[j];
}

}  // namespace

// The product: each item of res sums its products in ascending k, starting
// from 0.0, with the multiplication and the addition rounded apart. Only that
// order fixes the bits, so the sums stay in registers and are stored once,
// rather than res being read and written once per multiply-accumulate; four
// columns at a time share the loads of a's items.
void matrix_dot_plain(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    for (int y = 0; y < a->h; y++) {
        const fptp_t *arow = a->item + a->stride * y;
        fptp_t *out = res->item + res->stride * y;
        int x = 0;
        for (; x + 8 <= b->w; x += 8) dot_columns<8>(arow, b->item + x, b->h, b->stride, out + x);
        for (; x + 4 <= b->w; x += 4) dot_columns<4>(arow, b->item + x, b->h, b->stride, out + x);
        for (; x < b->w; x++) dot_columns<1>(arow, b->item + x, b->h, b->stride, out + x);
    }
}

}  // namespace dl

void dl_matrix_dot(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res)
{
    DL_ASSERT(a->w==b->h);
    DL_ASSERT(a->h==res->h);
    DL_ASSERT(b->w==res->w);
    DL_ASSERT(res!=a && res!=b);
    if (!dl::matrix_dot_kernel(dl::detected_isa(), a, b, res)) dl::matrix_dot_plain(a, b, res);
}

dl_matrix2d_t *dl_matrix_concat(const dl_matrix2d_t *a, const dl_matrix2d_t *b)
{
    DL_ASSERT(a->h==b->h);
    dl_matrix2d_t *ret = dl_matrix_alloc(a->w + b->w, a->h);
    if (!ret) return nullptr;
    for (int y = 0; y < a->h; y++) {
        fptp_t *row = ret->item + ret->stride * y;
        for (int x = 0; x < a->w; x++) row[x] = a->item[x + a->stride * y];
        for (int x = 0; x < b->w; x++) row[a->w + x] = b->item[x + b->stride * y];
    }
    return ret;
}

fptp_t dl_matrix_get_avg_sq_err(const dl_matrix2d_t *a, const dl_matrix2d_t *b)
{
    DL_ASSERT(a->h==b->h);
    DL_ASSERT(a->w==b->w);
    // Both sums stay in float, as the items are; only the roots and the
    // final quotient are taken in double.
    fptp_t err = 0.0f, mag = 0.0f;
    for (int y = 0; y < a->h; y++) {
        for (int x = 0; x < a->w; x++) {
            const fptp_t p = a->item[x + a->stride * y];
            const fptp_t q = b->item[x + b->stride * y];
            const fptp_t d = p - q;
            const fptp_t m = (p + q) / 2.0f;
            err += d * d;
            mag += m * m;
        }
    }
    // The limit is on the sum of squares; a NaN sum fails the test and stays.
    if (static_cast<double>(mag) < 1e-9) mag = 1.0f;
    return static_cast<fptp_t>(sqrt(static_cast<double>(err)) / sqrt(static_cast<double>(mag)));
}
