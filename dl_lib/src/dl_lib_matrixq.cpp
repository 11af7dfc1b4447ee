#include "dl_lib_matrixq.h"

#include "dl_lib_internal.h"
#include "dl_lib_matrix.h"

using dl::low16;
using dl::pow2f;
using dl::trunc_i32;

dl_matrix2dq_t *dl_matrixq_alloc(int w, int h)
{
    if (w < 0 || h < 0) return nullptr;
    auto *m = static_cast<dl_matrix2dq_t *>(calloc(1, sizeof(dl_matrix2dq_t)));
    if (!m) return nullptr;
    // Columns of odd height get one spare slot, so every column starts on an
    // even item.
    int stride = (h > 1 && (h & 1)) ? h + 1 : h;
    m->itemq = static_cast<qtp_t *>(calloc(static_cast<size_t>(w) * static_cast<size_t>(stride), sizeof(qtp_t)));
    if (!m->itemq && w != 0 && stride != 0) {
        free(m);
        return nullptr;
    }
    m->w = w;
    m->h = h;
    m->stride = stride;
    m->flags = 0;
    m->exponent = -31;
    return m;
}

void dl_matrixq_free(dl_matrix2dq_t *m)
{
    if (!m) return;
    if (!(m->flags & DL_MF_FOREIGNDATA)) free(m->itemq);
    free(m);
}

void dl_matrixq_zero(dl_matrix2dq_t *m)
{
    for (int x = 0; x < m->w; x++)
        for (int y = 0; y < m->h; y++) m->itemq[y + m->stride * x] = 0;
}

int dl_matrixq_same_shape(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b)
{
    if (a->w == b->w && a->h == b->h) return 1;
    fprintf(stderr, "dl_matrix_same_shape: Matrices not the same shape! a: %d x %d, b: %d x %d\n", a->w, a->h,
            b->w, b->h);
    return 0;
}

void matrix_get_range(const dl_matrix2d_t *m, fptp_t *min, fptp_t *max)
{
    if (m->w <= 0 || m->h <= 0) {
        *min = *max = 0.0f;
        return;
    }
    fptp_t lo = m->item[0], hi = m->item[0];
    for (int y = 0; y < m->h; y++) {
        for (int x = 0; x < m->w; x++) {
            fptp_t v = m->item[x + m->stride * y];
            if (v > hi) hi = v;
            if (v < lo) lo = v;
        }
    }
    *min = lo;
    *max = hi;
}

// The search runs at most this far up: no finite float needs more, and an
// infinite one would otherwise keep the loop going for ever.
static constexpr int kMaxExponent = 128;

dl_matrix2dq_t *dl_matrixq_from_matrix2d(const dl_matrix2d_t *m, dl_matrix2dq_t *out)
{
    if (!out) out = dl_matrixq_alloc(m->w, m->h);
    DL_ASSERT(m->w==out->w);
    DL_ASSERT(m->h==out->h);

    fptp_t lo, hi;
    matrix_get_range(m, &lo, &hi);
    fptp_t r = (hi > -lo) ? hi : -lo;
    int e = 0;
    if (r != 0.0f) {
        // Up first, then down: a start above 32767 stops at the first value
        // not above it, a start below 16383 at the first value not below it.
        // A NaN range runs neither loop and keeps e at 0.
        while (r > 32767.0f && e < kMaxExponent) {
            e += 1;
            r /= 2.0f;
        }
        while (r < 16383.0f) {
            e -= 1;
            r *= 2.0f;
        }
    }
    const fptp_t mult = pow2f(-e);
    const fptp_t half = 0.5f * pow2f(e);
    // Half a unit is added before scaling and the product truncates toward
    // zero: positives round to nearest (halves up), negatives end up to one
    // unit above their nearest item.
    for (int x = 0; x < m->w; x++) {
        for (int y = 0; y < m->h; y++) {
            fptp_t s = m->item[x + m->stride * y] + half;
            fptp_t p = s * mult;
            out->itemq[y + out->stride * x] = low16(trunc_i32(p));
        }
    }
    out->exponent = e;
    return out;
}

dl_matrix2dq_t *dl_matrixq_from_matrix2d_by_qmf(const dl_matrix2d_t *m, dl_matrix2dq_t *out, int m_bit, int f_bit)
{
    if (!out) out = dl_matrixq_alloc(m->w, m->h);
    DL_ASSERT(m->w==out->w);
    DL_ASSERT(m->h==out->h);
    const fptp_t limit = static_cast<fptp_t>(INT32_C(1) << (m_bit - 1));
    const fptp_t scale = static_cast<fptp_t>(INT32_C(1) << f_bit);
    for (int x = 0; x < m->w; x++) {
        for (int y = 0; y < m->h; y++) {
            fptp_t v = m->item[x + m->stride * y];
            if (v > limit) v = limit;
            else if (v < -limit) v = -limit;
            fptp_t p = scale * v;
            p = p + 0.5f;
            out->itemq[y + out->stride * x] = low16(trunc_i32(p));
        }
    }
    out->exponent = -f_bit;
    return out;
}

dl_matrix2d_t *dl_matrix2d_from_matrixq(const dl_matrix2dq_t *m, dl_matrix2d_t *out)
{
    if (!out) out = dl_matrix_alloc(m->w, m->h);
    DL_ASSERT(m->w==out->w);
    DL_ASSERT(m->h==out->h);
    const fptp_t factor = pow2f(m->exponent);
    for (int x = 0; x < m->w; x++)
        for (int y = 0; y < m->h; y++)
            out->item[x + out->stride * y] = static_cast<fptp_t>(m->itemq[y + m->stride * x]) * factor;
    return out;
}

void dl_printmatrixq(const dl_matrix2dq_t *m)
{
    printf("Matrixq: exponent %d\n", m->exponent);
    const fptp_t factor = pow2f(m->exponent);
    for (int y = 0; y < m->h; y++) {
        for (int x = 0; x < m->w; x++) {
            qtp_t q = m->itemq[y + m->stride * x];
            printf("% 6d (% 3.2f)   ", q, static_cast<double>(static_cast<fptp_t>(q) * factor));
        }
        printf("\n");
    }
}
