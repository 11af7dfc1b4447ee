#include "dl_lib_tensor.h"

#include "dl_lib_internal.h"

using namespace dl;

namespace {

int64_t element_count(int n, int w, int h, int c) { return tensor_element_count(n, w, h, c); }

// Zeroed record and elements; all three tensor types share the steps and
// the field names. The element block is never of size 0, so that a tensor
// without elements still has an item pointer on every C library.
template <class Tensor>
Tensor *alloc_tensor(int n, int w, int h, int c, const char *failure)
{
    auto *t = static_cast<Tensor *>(dl::mem_calloc(1, sizeof(Tensor)));
    if (!t) return nullptr;
    const int64_t count = element_count(n, w, h, c);
    if (count >= 0)
        t->item =
            static_cast<decltype(t->item)>(dl::mem_calloc(count > 0 ? static_cast<size_t>(count) : 1, sizeof *t->item));
    if (!t->item) {
        puts(failure);
        dl::mem_free(t);
        return nullptr;
    }
    t->w = w;
    t->h = h;
    t->c = c;
    t->n = n;
    t->stride = w * c;
    return t;
}

template <class Tensor>
void free_tensor(Tensor *t)
{
    if (!t) return;
    dl::mem_free(t->item);
    dl::mem_free(t);
}

template <class Tensor>
int64_t element_count(const Tensor *t)
{
    const int64_t count = element_count(t->n, t->w, t->h, t->c);
    return count > 0 ? count : 0;
}

}  // namespace

dl_matrix3d_t *dl_matrix3d_alloc(int n, int w, int h, int c)
{
    return alloc_tensor<dl_matrix3d_t>(n, w, h, c, "matrix3d item alloc failed.");
}

dl_matrix3du_t *dl_matrix3du_alloc(int n, int w, int h, int c)
{
    return alloc_tensor<dl_matrix3du_t>(n, w, h, c, "matrix3du item alloc failed.");
}

dl_matrix3dq_t *dl_matrix3dq_alloc(int n, int w, int h, int c, int exponent)
{
    dl_matrix3dq_t *t = alloc_tensor<dl_matrix3dq_t>(n, w, h, c, "matrix3d item alloc failed.");
    if (t) t->exponent = exponent;
    return t;
}

void dl_matrix3d_free(dl_matrix3d_t *m) { free_tensor(m); }
void dl_matrix3du_free(dl_matrix3du_t *m) { free_tensor(m); }
void dl_matrix3dq_free(dl_matrix3dq_t *m) { free_tensor(m); }

dl_matrix3d_t *dl_matrix3d_from_matrixq(const dl_matrix3dq_t *m)
{
    dl_matrix3d_t *out = dl_matrix3d_alloc(m->n, m->w, m->h, m->c);
    if (!out) return nullptr;
    // A 16-bit value times an exact power of two: no rounding anywhere.
    const fptp_t scale = pow2f(m->exponent);
    const int64_t count = element_count(m);
    for (int64_t i = 0; i < count; i++) out->item[i] = static_cast<fptp_t>(m->item[i]) * scale;
    return out;
}

void matrix3d_get_range(const dl_matrix3d_t *m, fptp_t *min, fptp_t *max)
{
    const int64_t count = element_count(m);
    if (count == 0) {
        *min = *max = 0.0f;
        return;
    }
    fptp_t lo = m->item[0], hi = m->item[0];
    for (int64_t i = 0; i < count; i++) {
        const fptp_t v = m->item[i];
        if (v > hi) hi = v;
        else if (v < lo) lo = v;
    }
    *min = lo;
    *max = hi;
}

dl_matrix3dq_t *dl_matrixq_from_matrix3d(const dl_matrix3d_t *m)
{
    fptp_t lo, hi;
    matrix3d_get_range(m, &lo, &hi);
    if (lo > 0.0f) lo = 0.0f;
    if (-lo > hi) hi = -lo;  // hi is now the largest magnitude
    const int exponent = block_exponent(hi);
    dl_matrix3dq_t *out = dl_matrix3dq_alloc(m->n, m->w, m->h, m->c, exponent);
    if (!out) return nullptr;
    const fptp_t scale = pow2f(-exponent);
    const fptp_t half = 0.5f * pow2f(exponent);
    // Half a unit is added before the scaling and the product truncates
    // toward zero: positives round to nearest (halves up), negatives end up
    // to one unit above their nearest value (-1.5 -> -1, -2.5 -> -2). No
    // magnitude exceeds the peak, so the 16 bits hold every finite result.
    const int64_t count = element_count(m);
    for (int64_t i = 0; i < count; i++) {
        const fptp_t sum = m->item[i] + half;
        const fptp_t product = sum * scale;
        out->item[i] = low16(trunc_i32(product));
    }
    return out;
}

dl_matrix3dq_t *dl_matrixq_from_matrix3d_qmf(const dl_matrix3d_t *m, int exponent)
{
    // The limits shift the integer 1 by -exponent and by exponent + 15.
    DL_ASSERT(exponent<=0);
    DL_ASSERT(exponent>=-30);
    dl_matrix3dq_t *out = dl_matrix3dq_alloc(m->n, m->w, m->h, m->c, exponent);
    if (!out) return nullptr;
    // The range of a 16-bit value at this exponent, 32767 and -32768 units,
    // worked out in double and narrowed once.
    const int e15 = exponent + 15;
    const double unit = 1.0 / static_cast<double>(INT32_C(1) << -exponent);
    fptp_t low, high;
    if (e15 >= 0) {
        const int32_t a = INT32_C(1) << e15;
        low = static_cast<fptp_t>(-a);
        high = static_cast<fptp_t>(a - unit);
    } else {
        const double a = 1.0 / static_cast<double>(INT32_C(1) << -e15);
        low = -static_cast<fptp_t>(a);
        high = static_cast<fptp_t>(a - unit);
    }
    const fptp_t scale = static_cast<fptp_t>(INT32_C(1) << -exponent);
    // The 0.5 comes after the scaling here; with the truncation toward zero
    // the high limit gives 32767 and the low one -32767. A NaN passes both
    // clips and is stored as 0.
    const int64_t count = element_count(m);
    for (int64_t i = 0; i < count; i++) {
        fptp_t v = m->item[i];
        if (v > high) v = high;
        else if (v < low) v = low;
        const fptp_t product = v * scale;
        out->item[i] = low16(trunc_i32(product + 0.5f));
    }
    return out;
}
