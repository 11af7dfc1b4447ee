#include "dl_lib_matrixq.h"

#include "dl_lib_internal.h"
#include "dl_lib_matrix.h"
#include "kernels_internal.h"
#include "matrix_internal.h"

using dl::low16;
using dl::pow2f;
using dl::trunc_i32;

// Columns of odd height get one spare slot, so every column starts on an
// even item. INT32_MAX has no even neighbour in range; a matrix that tall
// can only be empty, as its items would not be addressable, and keeps h.
static int column_stride(int h) { return (h > 1 && (h & 1) && h < INT32_MAX) ? h + 1 : h; }

dl_matrix2dq_t *dl_matrixq_alloc(int w, int h)
{
    if (w < 0 || h < 0) return nullptr;
    auto *m = static_cast<dl_matrix2dq_t *>(dl::mem_calloc(1, sizeof(dl_matrix2dq_t)));
    if (!m) return nullptr;
    const int stride = column_stride(h);
    m->itemq =
        static_cast<qtp_t *>(dl::mem_calloc(static_cast<size_t>(w) * static_cast<size_t>(stride), sizeof(qtp_t)));
    if (!m->itemq && w != 0 && stride != 0) {
        dl::mem_free(m);
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
    // A prepared record's items sit in the block that starts with its header.
    if (m && (m->flags & DL_MF_PREPARED) && !(m->flags & DL_MF_FOREIGNDATA)) {
        dl::mem_free(const_cast<unsigned char *>(dl::prepared_header(m)));
        dl::mem_free(m);
        return;
    }
    dl::free_record(m);
}

dl_matrix2dq_t *dl_matrixq_prepare(const dl_matrix2dq_t *m)
{
    DL_ASSERT(m->w>=0 && m->h>=0);
    const int stride = column_stride(m->h);
    // The packed form starts on a 32-byte boundary of the block, past the
    // items; it exists only where a kernel reads it. Sizes in 64 bits, so
    // that a 32-bit target sees a block it cannot have.
    const uint64_t items = static_cast<uint64_t>(m->w) * static_cast<uint64_t>(stride);
    const uint64_t packed_at = (dl::kPreparedHeaderBytes + items * sizeof(qtp_t) + 31) / 32 * 32;
    const uint64_t packed = dl::pairs_usable() ? dl::packed_pair_items(m) : 0;
    const uint64_t bytes = packed_at + packed * sizeof(int16_t);
    if (bytes > SIZE_MAX) return nullptr;
    auto *r = static_cast<dl_matrix2dq_t *>(dl::mem_calloc(1, sizeof(dl_matrix2dq_t)));
    if (!r) return nullptr;
    auto *block = static_cast<unsigned char *>(dl::mem_calloc(1, static_cast<size_t>(bytes)));
    if (!block) {
        dl::mem_free(r);
        return nullptr;
    }
    r->w = m->w;
    r->h = m->h;
    r->stride = stride;
    r->flags = DL_MF_PREPARED;
    r->exponent = m->exponent;
    r->itemq = reinterpret_cast<qtp_t *>(block + dl::kPreparedHeaderBytes);
    for (int x = 0; x < m->w; x++)
        for (int y = 0; y < m->h; y++)
            r->itemq[y + static_cast<size_t>(stride) * x] = m->itemq[y + static_cast<size_t>(m->stride) * x];
    int16_t *pairs = nullptr;
    if (packed) {
        pairs = reinterpret_cast<int16_t *>(block + packed_at);
        dl::pack_pairs(r, pairs);
    }
    *reinterpret_cast<dl::PreparedHeader *>(block) = {dl::kPreparedMagic, r->w, r->h, stride, r->itemq, pairs};
    return r;
}

void dl_matrixq_zero(dl_matrix2dq_t *m)
{
    for (int x = 0; x < m->w; x++)
        for (int y = 0; y < m->h; y++) m->itemq[y + m->stride * x] = 0;
}

// The message names dl_matrix_same_shape, as the float check does.
int dl_matrixq_same_shape(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b) { return dl::same_shape(a, b); }

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

dl_matrix2dq_t *dl_matrixq_from_matrix2d(const dl_matrix2d_t *m, dl_matrix2dq_t *out)
{
    if (!out && !(out = dl_matrixq_alloc(m->w, m->h))) return nullptr;
    DL_ASSERT(m->w==out->w);
    DL_ASSERT(m->h==out->h);

    // One row goes to the processor's kernels where it has them.
    const dl::Isa isa = dl::detected_isa();
    const bool row = m->h == 1 && dl::is_flat(out);
    fptp_t lo, hi;
    if (!row || !dl::float_range_kernel(isa, m->item, m->w, &lo, &hi)) matrix_get_range(m, &lo, &hi);
    const int e = dl::block_exponent((hi > -lo) ? hi : -lo);
    const fptp_t mult = pow2f(-e);
    const fptp_t half = 0.5f * pow2f(e);
    // Half a unit is added before scaling and the product truncates toward
    // zero: positives round to nearest (halves up), negatives end up to one
    // unit above their nearest item. The row count bounds the column walk
    // too: an empty matrix may still have two billion columns.
    if (row) {
        // One row, the layers' case: both records are one run of items.
        if (dl::quantise_kernel(isa, m->item, m->w, half, mult, out->itemq)) {
            out->exponent = e;
            return out;
        }
        for (int x = 0; x < m->w; x++) {
            const fptp_t s = m->item[x] + half;
            const fptp_t p = s * mult;
            out->itemq[x] = low16(trunc_i32(p));
        }
        out->exponent = e;
        return out;
    }
    for (int x = 0; x < m->w && m->h > 0; x++) {
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
    if (!out && !(out = dl_matrixq_alloc(m->w, m->h))) return nullptr;
    DL_ASSERT(m->w==out->w);
    DL_ASSERT(m->h==out->h);
    const fptp_t limit = static_cast<fptp_t>(INT32_C(1) << (m_bit - 1));
    const fptp_t scale = static_cast<fptp_t>(INT32_C(1) << f_bit);
    for (int x = 0; x < m->w && m->h > 0; x++) {
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
    if (!out && !(out = dl_matrix_alloc(m->w, m->h))) return nullptr;
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
            qtp_t q = m->itemq[y + static_cast<size_t>(m->stride) * x];
            printf("% 6d (% 3.2f)   ", q, static_cast<double>(static_cast<fptp_t>(q) * factor));
        }
        printf("\n");
    }
}

// ---- Products ------------------------------------------------------------

namespace dl {

// Each sum is exact in 64 bits, so the loop order is free; this one walks
// the items of the result column by column, as they are stored.
void matrixq_dot_plain(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    for (int x = 0; x < b->w; x++) {
        const qtp_t *bcol = b->itemq + b->stride * x;
        for (int y = 0; y < a->h; y++) {
            int64_t sum = 0;
            for (int k = 0; k < b->h; k++) sum += static_cast<int64_t>(a->itemq[y + a->stride * k]) * bcol[k];
            qdot_store(out, x, y, sum);
        }
    }
}

}  // namespace dl

// The shift that brings a sum of w products of two items back to item size:
// 15 + floor(log2(w)), and 15 for a width of 0.
static int product_shift(int w)
{
    int s = 15;
    for (int n = w; n > 1; n /= 2) s++;
    return s;
}

void dl_matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift)
{
    dl_matrixq_dot_c_impl(a, b, res, shift);
}

void dl_matrixq_dot_c_impl(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift)
{
    DL_ASSERT(a->w==b->h);
    DL_ASSERT(a->h==res->h);
    DL_ASSERT(b->w==res->w);
    DL_ASSERT(res!=a && res!=b);
    // The right shift of the sums stays within 0 .. 15 + floor(log2(a->w)).
    DL_ASSERT(shift>=0);
    DL_ASSERT(shift<=product_shift(a->w));
    const int s = product_shift(a->w) - shift;
    const dl::QDotOut out = dl::qdot_to_items(res, s);
    if (!dl::matrixq_dot_kernel(dl::detected_isa(), a, b, out)) dl::matrixq_dot_plain(a, b, out);
    res->exponent = a->exponent + b->exponent + s;
}

void dl_matrixq_dot_matrix_out(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res)
{
    dl_matrixq_dot_matrix_out_c_impl(a, b, res);
}

void dl_matrixq_dot_matrix_out_c_impl(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res)
{
    DL_ASSERT(a->w==b->h);
    DL_ASSERT(a->h==res->h);
    DL_ASSERT(b->w==res->w);
    const dl::QDotOut out = dl::qdot_to_floats(res, pow2f(a->exponent + b->exponent));
    if (!dl::matrixq_dot_kernel(dl::detected_isa(), a, b, out)) dl::matrixq_dot_plain(a, b, out);
}

void dl_matrix_matrixq_dot(const dl_matrix2d_t *a, const dl_matrix2dq_t *b, dl_matrix2d_t *res)
{
    dl_matrix2dq_t *qa = dl_matrixq_from_matrix2d(a, nullptr);
    DL_ASSERT_ALLOCATED(qa);
    dl_matrixq_dot_matrix_out(qa, b, res);
    dl_matrixq_free(qa);
}

// ---- Element-wise arithmetic and reshaping -------------------------------

// Brings an item to an exponent d higher: an arithmetic shift, which rounds
// toward minus infinity. Differences beyond 31 shift as far as 31 does.
static int32_t align(int32_t item, int d) { return item >> (d < 31 ? d : 31); }

// Add and subtract share the alignment: the operand with the smaller
// exponent is shifted to the other's, and only it loses bits. The
// difference keeps the order of the arguments, not of the alignment: kOp 0
// adds, 1 takes high - low, 2 low - high. kHalve (shift 0) halves, rounding
// down, so that the sum always fits; otherwise the exponent stays and the
// sum saturates.
template <int kOp, bool kHalve>
static void add_or_sub_items(const dl_matrix2dq_t *high, const dl_matrix2dq_t *low, dl_matrix2dq_t *res, int d)
{
    const int k = d < 31 ? d : 31;  // align() in one place
    dl::map_items(high, low, res, [k](qtp_t hi, qtp_t lo) {
        const int32_t p = hi, q = static_cast<int32_t>(lo) >> k;
        const int32_t t = kOp == 0 ? p + q : kOp == 1 ? p - q : q - p;
        return static_cast<qtp_t>(kHalve ? t >> 1 : dl::saturate32(t));
    });
}

static void add_or_sub(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift, bool sub)
{
    const bool a_high = a->exponent >= b->exponent;
    const dl_matrix2dq_t *high = a_high ? a : b;
    const dl_matrix2dq_t *low = a_high ? b : a;
    const int d = high->exponent - low->exponent;
    const int exponent = shift == 0 ? high->exponent + 1 : high->exponent;
    const int op = !sub ? 0 : a_high ? 1 : 2;
    // Records that are one run of items each may go to the processor's
    // kernel in one call.
    if (dl::is_flat(high) && dl::is_flat(low) && dl::is_flat(res) &&
        dl::add_items_kernel(dl::detected_isa(), high->itemq, low->itemq, res->itemq, high->w * high->h,
                             d < 31 ? d : 31, op, shift == 0)) {
        res->exponent = exponent;
        return;
    }
    if (shift == 0) {
        if (op == 0) add_or_sub_items<0, true>(high, low, res, d);
        else if (op == 1) add_or_sub_items<1, true>(high, low, res, d);
        else add_or_sub_items<2, true>(high, low, res, d);
    } else {
        if (op == 0) add_or_sub_items<0, false>(high, low, res, d);
        else if (op == 1) add_or_sub_items<1, false>(high, low, res, d);
        else add_or_sub_items<2, false>(high, low, res, d);
    }
    res->exponent = exponent;
}

void dl_matrixq_add(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift)
{
    DL_ASSERT(dl_matrixq_same_shape(a, b));
    DL_ASSERT(dl_matrixq_same_shape(a, res));
    DL_ASSERT(shift==0 || shift==1);
    add_or_sub(a, b, res, shift, false);
}

void dl_matrixq_sub(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int shift)
{
    DL_ASSERT(dl_matrixq_same_shape(a, b));
    DL_ASSERT(dl_matrixq_same_shape(a, res));
    add_or_sub(a, b, res, shift == 0 ? 0 : 1, true);
}

void dl_matrixq_mul(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *res)
{
    DL_ASSERT(dl_matrixq_same_shape(a, b));
    DL_ASSERT(dl_matrixq_same_shape(a, res));
    const int exponent = a->exponent + b->exponent + 16;
    // The upper half of the 32-bit product, rounded down. It lies within
    // -16384..16384, so nothing needs saturating.
    dl::map_items(a, b, res, [](qtp_t p, qtp_t q) {
        return static_cast<qtp_t>((static_cast<int32_t>(p) * static_cast<int32_t>(q)) >> 16);
    });
    res->exponent = exponent;
}

void dl_matrixq_div(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *out, int shift)
{
    DL_ASSERT(dl_matrixq_same_shape(a, b));
    DL_ASSERT(dl_matrixq_same_shape(a, out));
    // The dividend is shifted left in 32 bits: 16 keeps every item exact.
    DL_ASSERT(shift>=0 && shift<=16);
    const int exponent = a->exponent - b->exponent - shift;
    for (int x = 0; x < a->w; x++) {
        for (int y = 0; y < a->h; y++) {
            // The dividend gains `shift` fractional bits in 32 bits; the
            // quotient truncates toward zero. A zero divisor, outside the
            // contract, saturates by the dividend's sign instead of trapping.
            // 32-bit division, a single instruction on the device; only
            // INT32_MIN / -1 would overflow it, and any quotient of a
            // divisor of -1 is the negated dividend.
            const int32_t num = dl::shl(a->itemq[y + a->stride * x], shift);
            const int32_t den = b->itemq[y + b->stride * x];
            int64_t q;
            if (den == 0) q = num > 0 ? dl::kItemMax : num < 0 ? -dl::kItemMax : 0;
            else if (den == -1) q = -static_cast<int64_t>(num);
            else q = num / den;
            out->itemq[y + out->stride * x] = static_cast<qtp_t>(dl::saturate(q));
        }
    }
    out->exponent = exponent;
}

void dl_matrixq_add_const(dl_matrix2dq_t *m, fptp_t value, int shift)
{
    DL_ASSERT(shift==0 || shift==1);
    const fptp_t units = m->exponent < 0 ? pow2f(-m->exponent) * value : value / pow2f(m->exponent);
    int32_t c = trunc_i32(units);  // no half unit: truncated toward zero
    if (c == 0) return;
    // Keep the constant within one less than the saturation range, halving
    // it (toward zero) and the items (down) together.
    int n = 0;
    while (c > 32766 || c < -32766) {
        n++;
        c /= 2;
    }
    if (shift == 0) m->exponent += 1;
    m->exponent += n;
    // Halving truncates toward zero here, unlike dl_matrixq_add.
    if (shift == 0)
        dl::map_items(m, m,
                      [n, c](qtp_t item) { return static_cast<qtp_t>(((static_cast<int32_t>(item) >> n) + c) / 2); });
    else
        dl::map_items(m, m, [n, c](qtp_t item) {
            return static_cast<qtp_t>(dl::saturate32((static_cast<int32_t>(item) >> n) + c));
        });
}

dl_matrix2dq_t *dl_matrixq_concat(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b)
{
    DL_ASSERT(a->h==b->h);
    dl_matrix2dq_t *ret = dl_matrixq_alloc(a->w + b->w, a->h);
    if (!ret) return nullptr;
    // The result takes the larger exponent; the other operand is aligned.
    const int exponent = a->exponent > b->exponent ? a->exponent : b->exponent;
    const int da = exponent - a->exponent, db = exponent - b->exponent;
    // The new record is flat: a's columns, then b's.
    dl_matrix2dq_t left = *ret, right = *ret;
    left.w = a->w;
    right.w = b->w;
    right.itemq += static_cast<size_t>(ret->stride) * a->w;
    const int ka = da < 31 ? da : 31, kb = db < 31 ? db : 31;  // align() in one place
    dl::map_items(a, &left, [ka](qtp_t v) { return static_cast<qtp_t>(static_cast<int32_t>(v) >> ka); });
    dl::map_items(b, &right, [kb](qtp_t v) { return static_cast<qtp_t>(static_cast<int32_t>(v) >> kb); });
    ret->exponent = exponent;
    return ret;
}

dl_matrix2dq_t *dl_matrixq_slice(const dl_matrix2dq_t *src, int x, int y, int w, int h, dl_matrix2dq_t *in)
{
    if (!(in = dl::view_record(in))) return nullptr;
    // A record that owned its items would lose them here, and freeing the
    // view later would free a pointer into src.
    DL_ASSERT(in->flags&DL_MF_FOREIGNDATA);
    DL_ASSERT(x+w<=src->w);
    DL_ASSERT(y+h<=src->h);
    in->w = w;
    in->h = h;
    in->itemq = src->itemq + (y + src->stride * x);
    in->stride = src->stride;
    in->exponent = src->exponent;
    return in;
}

dl_matrix2dq_t *dl_matrixq_flatten(const dl_matrix2dq_t *src, int x, int y, int w, int h, dl_matrix2dq_t *out)
{
    if (!out && !(out = dl_matrixq_alloc(w * h, 1))) return nullptr;
    DL_ASSERT(x + w <= src->w);
    DL_ASSERT(y + h <= src->h);
    DL_ASSERT(out->w*out->h>=w*h);
    // Row by row, although src is stored by columns.
    for (int j = 0; j < h; j++)
        for (int i = 0; i < w; i++) out->itemq[out->stride * (j * w + i)] = src->itemq[(y + j) + src->stride * (x + i)];
    out->exponent = src->exponent;
    out->stride = 1;
    return out;
}

// ---- Exponent maintenance and element access -----------------------------

namespace {

// Items at either end of the saturation range, and the largest magnitude
// (-32768 counts as 32768 but is not clipped).
struct Spread {
    int clipped = 0;
    int32_t largest = 0;
};

Spread spread_of(const dl_matrix2dq_t *m)
{
    // One run of w * h items when the record is flat, else one per column.
    // The first pass keeps only the extremes; clipped items are counted in
    // a second one, and only when an extreme says there may be any.
    const bool flat = dl::is_flat(m);
    const int runs = flat ? 1 : m->w, len = flat ? m->w * m->h : m->h;
    // The extremes are kept as items, so that the loop compares 16-bit lanes.
    qtp_t hi = 0, lo = 0;
    for (int x = 0; x < runs; x++) {
        const qtp_t *p = m->itemq + m->stride * x;
        for (int i = 0; i < len; i++) {
            const qtp_t v = p[i];
            hi = v > hi ? v : hi;
            lo = v < lo ? v : lo;
        }
    }
    Spread s;
    s.largest = hi > -lo ? hi : -static_cast<int32_t>(lo);  // -32768 has 32768
    if (hi == dl::kItemMax || lo <= -dl::kItemMax) {
        int clipped = 0;
        for (int x = 0; x < runs; x++) {
            const qtp_t *p = m->itemq + m->stride * x;
            for (int i = 0; i < len; i++) clipped += p[i] == dl::kItemMax || p[i] == -dl::kItemMax;
        }
        s.clipped = clipped;
    }
    return s;
}

}  // namespace

// Where sanity warnings go: the library's one process-wide setting, a
// handler and its argument, or none for stderr. Plain data, so nothing runs
// before main.
static dl_sanity_handler_t sanity_handler = nullptr;
static void *sanity_arg = nullptr;

void dl_set_sanity_handler(dl_sanity_handler_t handler, void *arg)
{
    sanity_handler = handler;
    sanity_arg = arg;
}

void dl_sanity_to_stream(const char *text, void *stream) { fputs(text, static_cast<FILE *>(stream)); }

// One warning line, to the handler or to stderr.
static void sanity_warning(const char *format, const char *name, double value)
{
    char text[256];
    snprintf(text, sizeof text, format, name, value);
    if (sanity_handler) sanity_handler(text, sanity_arg);
    else fputs(text, stderr);
}

int dl_matrixq_check_sanity(const dl_matrix2dq_t *m, const char *name)
{
    const Spread s = spread_of(m);
    if (s.largest == 0) return 1;
    int bits = 16;
    for (int n = 0; n < 16; n++) {
        if ((INT32_C(1) << n) > s.largest) {
            bits = n;
            break;
        }
    }
    int sane = 1;
    if (bits < 11) {
        sanity_warning("CheckSanity: %s: only %.0f/15 bits used!\n", name, bits);
        sane = 0;
    }
    // At most a tenth clipped can never print: the percentage, rounded to
    // double and then to float, stays at or below 10.0. Checking that in
    // integers first spares a device without a double-precision unit the
    // division on every call of a healthy record.
    const int64_t items = static_cast<int64_t>(m->w) * m->h;
    if (static_cast<int64_t>(s.clipped) * 10 <= items) return sane;
    const fptp_t percent =
        static_cast<fptp_t>(s.clipped * 100.0 / (static_cast<double>(m->w) * static_cast<double>(m->h)));
    if (percent > 10.0f) {
        sanity_warning("CheckSanity: %s: %f%% of items is clipped!\n", name, static_cast<double>(percent));
        sane = 0;
    }
    return sane;
}

void dl_matrixq_readjust_exp(dl_matrix2dq_t *m)
{
    Spread s = spread_of(m);
    if (s.largest == 0) return;
    // Clipped items get one bit of headroom, however many there are;
    // otherwise the items are raised until the largest reaches 16383, the
    // level the quantiser aims at.
    int adjust = 0;
    if (s.clipped) {
        adjust = -1;
    } else {
        while (s.largest < 16383) {
            adjust++;
            s.largest *= 2;
        }
    }
    if (adjust == 0) return;
    if (adjust < 0) dl::map_items(m, m, [](qtp_t v) { return static_cast<qtp_t>(static_cast<int32_t>(v) >> 1); });
    else dl::map_items(m, m, [adjust](qtp_t v) { return static_cast<qtp_t>(dl::shl(v, adjust)); });
    m->exponent -= adjust;
}

fptp_t dl_matrixq_get(const dl_matrix2dq_t *m, int x, int y)
{
    return static_cast<fptp_t>(m->itemq[y + m->stride * x]) * pow2f(m->exponent);
}

void dl_matrixq_set(dl_matrix2dq_t *m, int x, int y, fptp_t value)
{
    DL_ASSERT(x>=0 && x<m->w);
    DL_ASSERT(y>=0 && y<m->h);
    // Raise the exponent until the value fits the saturation range; a value
    // exactly at a limit fits. A NaN fits at once. (An infinite value ends
    // the search only once the scale underflows to 0.)
    int r = 0;
    fptp_t scale = pow2f(-m->exponent);
    while (value > 32767.0f / scale || value < -32767.0f / scale) {
        r++;
        scale = pow2f(-(m->exponent + r));
    }
    const int32_t q = trunc_i32(value * scale);  // truncated, not rounded
    if (r != 0) {
        for (int i = 0; i < m->w; i++)
            for (int j = 0; j < m->h; j++) {
                qtp_t &item = m->itemq[j + m->stride * i];
                item = static_cast<qtp_t>(align(item, r));
            }
        m->exponent += r;
    }
    m->itemq[y + m->stride * x] = low16(q);
}
