#include "dl_lib.h"

#include <math.h>

#include "conv_internal.h"
#include "dl_lib_internal.h"
#include "kernels_internal.h"

// ---- Convolution layers --------------------------------------------------

namespace dl {

ConvAxis conv_axis(int size, int filter, int stride, int padding)
{
    if (padding == 0) return {(size - filter) / stride + 1, size, 0, 0};
    ConvAxis a;
    a.n = static_cast<int>(ceil(static_cast<double>(size) / stride));
    // The margin grows with the even part of the filter; the last window,
    // with the first at 0, stays `rem` inside the padded axis.
    const int k = (filter % 2) ? filter - 1 : filter;
    const int half = k / 2;
    a.padded = size + k * padding;
    const int rem = a.padded - filter - (a.n - 1) * stride;
    // The windows are moved in by half of what is left over, rounded up,
    // but no further than k / 2, the margin of padding 1: a larger padding
    // widens the margin without moving the windows along.
    if (rem <= 0) a.offset = 0;
    else if (rem > half) a.offset = half;
    else a.offset = half - static_cast<int>(floor((2 * half - rem) / 2.0));
    a.margin = (k * padding) / 2;
    return a;
}

}  // namespace dl

namespace {

struct ConvGeometry {
    dl::ConvAxis x, y;
};

ConvGeometry conv_geometry(const dl_matrix2d_t *in, int filter_w, int filter_h, int stride_x, int stride_y, int padding)
{
    DL_ASSERT(stride_x >= 1);
    DL_ASSERT(stride_y >= 1);
    DL_ASSERT(padding >= 0);
    if (padding == 0) {
        DL_ASSERT(filter_w <= in->w);
        DL_ASSERT(filter_h <= in->h);
    }
    return {dl::conv_axis(in->w, filter_w, stride_x, padding), dl::conv_axis(in->h, filter_h, stride_y, padding)};
}

dl_matrix2d_t *conv_output(dl_matrix2d_t *out, int out_channels, int wo, int ho)
{
    if (!out) {
        out = dl_matrix_alloc(out_channels * wo * ho, 1);
        DL_ASSERT_ALLOCATED(out);
        return out;
    }
    DL_ASSERT(out->h == 1);
    DL_ASSERT(out->w == out_channels * wo * ho);
    return out;
}

// Element (x, y) of a float record.
fptp_t &at(const dl_matrix2d_t *m, int x, int y) { return m->item[x + m->stride * y]; }

// A new record of in's items in a zero frame of the geometry's margins.
dl_matrix2d_t *framed(const dl_matrix2d_t *in, const ConvGeometry &geo)
{
    dl_matrix2d_t *padded = dl_matrix_alloc(geo.x.padded, geo.y.padded);  // zero-filled: the frame
    DL_ASSERT_ALLOCATED(padded);
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) at(padded, x + geo.x.margin, y + geo.y.margin) = at(in, x, y);
    return padded;
}

// A record over caller-owned items, made on the stack: the views below
// cost no allocation.
dl_matrix2d_t view_of(fptp_t *items, int w, int h, int stride)
{
    dl_matrix2d_t v;
    v.w = w;
    v.h = h;
    v.stride = stride;
    v.flags = DL_MF_FOREIGNDATA;
    v.item = items;
    return v;
}

}  // namespace

dl_matrix2d_t *dl_basic_conv_layer(const dl_matrix2d_t *in, const dl_matrix2d_t *filter, const dl_matrix2d_t *bias,
                                   int filter_w, int filter_h, int out_channels, int stride_x, int stride_y,
                                   int padding, dl_matrix2d_t *out)
{
    const ConvGeometry geo = conv_geometry(in, filter_w, filter_h, stride_x, stride_y, padding);
    // Filter and bias may be larger than the layer uses; every read stays
    // within them.
    DL_ASSERT(filter->h>=filter_w*filter_h);
    DL_ASSERT(filter->w>=out_channels);
    DL_ASSERT(bias->w*bias->h>=out_channels);
    dl_matrix2d_t *padded = padding ? framed(in, geo) : nullptr;
    const dl_matrix2d_t *source = padded ? padded : in;
    out = conv_output(out, out_channels, geo.x.n, geo.y.n);

    // Each window is flattened once, as one row of `windows`, and serves
    // every channel. A whole row of positions then goes through one product
    // with the filter, straight into out: its rows are positions, its columns
    // channels, which is out's own order. Each sum runs over the window's
    // places in ascending order from 0.0 with separate roundings, as it would
    // position by position, and the bias is added last.
    const int places = filter_w * filter_h;
    const int wo = geo.x.n;
    dl_matrix2d_t *windows = dl_matrix_alloc(places, wo);
    DL_ASSERT_ALLOCATED(windows);
    // The filter's first `places` rows and `out_channels` columns: the caller
    // may pass a larger one.
    const dl_matrix2d_t weights = view_of(filter->item, out_channels, places, filter->stride);
    for (int oy = 0; oy < geo.y.n; oy++) {
        const int y0 = oy * stride_y + geo.y.offset;
        for (int ox = 0; ox < wo; ox++) {
            const int x0 = ox * stride_x + geo.x.offset;
            fptp_t *flat = windows->item + windows->stride * ox;
            for (int dy = 0; dy < filter_h; dy++)
                for (int dx = 0; dx < filter_w; dx++)
                    flat[dy * filter_w + dx] = source->item[(x0 + dx) + source->stride * (y0 + dy)];
        }
        fptp_t *row = out->item + static_cast<size_t>(oy) * wo * out_channels;
        dl_matrix2d_t sums = view_of(row, out_channels, wo, out_channels);
        dl_matrix_dot(windows, &weights, &sums);
        for (int ox = 0; ox < wo; ox++)
            for (int oc = 0; oc < out_channels; oc++)
                row[ox * out_channels + oc] = bias->item[oc] + row[ox * out_channels + oc];
    }
    dl_matrix_free(padded);
    dl_matrix_free(windows);
    return out;
}

namespace dl {

void window_sums_plain(const WindowLayout &l, const qtp_t *first, int count, int step, int64_t *sums)
{
    for (int p = 0; p < count; p++) {
        const qtp_t *window = first + static_cast<size_t>(step) * p;
        for (int oc = 0; oc < l.channels; oc++) {
            int64_t sum = 0;
            for (int dx = 0; dx < l.columns; dx++) {
                const qtp_t *items = window + static_cast<size_t>(l.stride) * dx;
                const qtp_t *weights = l.weights + static_cast<size_t>(l.run) * (l.columns * oc + dx);
                for (int k = 0; k < l.run; k++) sum += static_cast<int64_t>(items[k]) * weights[k];
            }
            sums[static_cast<size_t>(l.channels) * p + oc] = sum;
        }
    }
}

}  // namespace dl

namespace {

// A sum converted to float in one rounding to nearest: as a 32-bit integer
// where it fits, one instruction on a 32-bit core, the same value otherwise.
fptp_t to_float(int64_t sum)
{
    const int32_t low = static_cast<int32_t>(sum);
    return low == sum ? static_cast<fptp_t>(low) : static_cast<fptp_t>(sum);
}

}  // namespace

dl_matrix2d_t *dl_basic_conv_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *filter,
                                                    const dl_matrix2d_t *bias, int filter_w, int filter_h,
                                                    int out_channels, int stride_x, int stride_y, int padding,
                                                    dl_matrix2d_t *out)
{
    const ConvGeometry geo = conv_geometry(in, filter_w, filter_h, stride_x, stride_y, padding);
    out = conv_output(out, out_channels, geo.x.n, geo.y.n);
    // The bias has one item per channel, as dl_matrix_add requires of a
    // position's row; it is added as position + bias, in that order.
    const dl_matrix2d_t first = view_of(out->item, out_channels, 1, out_channels);
    DL_ASSERT(dl_matrix_same_shape(&first, bias));
    DL_ASSERT(filter->h==filter_w*filter_h);
    DL_ASSERT(filter->w==out_channels);

    // On x86-64 a row of positions is one product of its windows (flattened
    // at the input's exponent) with the filter, which the vector pair kernel
    // takes where the processor has it and whose plain loop is faster there
    // than the window sums'; elsewhere the window sums run over the framed
    // input directly. Both give the same exact sums, rounded and scaled the
    // same way.
    constexpr bool by_product = dl::kVectorKernels;
    const int places = filter_w * filter_h, wo = geo.x.n;

    // One block holds the sums of a row of positions and the packed weights
    // (or a row's windows for the product), and the quantised input in its
    // zero frame (column-major, columns of an even count of items), with one
    // spare item at the end for the last run's read past its window.
    const int run = filter_h + (filter_h & 1);
    const int column = geo.y.padded + (geo.y.padded & 1);
    const size_t row_sums = by_product ? 0 : static_cast<size_t>(out_channels) * wo;
    const size_t scratch =
        by_product ? static_cast<size_t>(places) * wo : static_cast<size_t>(out_channels) * filter_w * run;
    const size_t framed = static_cast<size_t>(geo.x.padded) * column + 1;
    void *block = dl::mem_calloc(1, sizeof(int64_t) * row_sums + sizeof(qtp_t) * (scratch + framed));
    DL_ASSERT_ALLOCATED(block);
    int64_t *sums = static_cast<int64_t *>(block);
    qtp_t *packed = reinterpret_cast<qtp_t *>(sums + row_sums);
    qtp_t *frame = packed + scratch;

    // The input quantised as a whole, as dl_matrixq_from_matrix2d does it:
    // one exponent for the largest magnitude, half a unit added before
    // scaling, the product truncated toward zero.
    fptp_t lo, hi;
    matrix_get_range(in, &lo, &hi);
    const int e_in = dl::block_exponent((hi > -lo) ? hi : -lo);
    const fptp_t mult = dl::pow2f(-e_in), half = 0.5f * dl::pow2f(e_in);
    for (int y = 0; y < in->h; y++) {
        qtp_t *row = frame + static_cast<size_t>(column) * geo.x.margin + (y + geo.y.margin);
        for (int x = 0; x < in->w; x++) {
            const fptp_t s = in->item[x + in->stride * y] + half;
            row[static_cast<size_t>(column) * x] = dl::low16(dl::trunc_i32(s * mult));
        }
    }
    // The filter's place dy * filter_w + dx goes to run dx, item dy.
    if (!by_product)
        for (int oc = 0; oc < out_channels; oc++)
            for (int dy = 0; dy < filter_h; dy++)
                for (int dx = 0; dx < filter_w; dx++)
                    packed[static_cast<size_t>(run) * (filter_w * oc + dx) + dy] =
                        filter->itemq[(dy * filter_w + dx) + filter->stride * oc];

    // Each position's channels are exact sums, rounded once to float and
    // scaled, then the bias is added.
    const dl::WindowLayout layout = {filter_w, run, column, out_channels, packed};
    const fptp_t factor = dl::pow2f(e_in + filter->exponent);
    const fptp_t *b = bias->item;
    fptp_t *o = out->item;
    const int step = column * stride_x;
    const dl_matrix2dq_t windows = {places, wo, wo, DL_MF_FOREIGNDATA, e_in, packed};
    for (int oy = 0; oy < geo.y.n; oy++) {
        const qtp_t *first = frame + static_cast<size_t>(column) * geo.x.offset + (oy * stride_y + geo.y.offset);
        if (by_product) {
            for (int ox = 0; ox < wo; ox++)
                for (int dy = 0; dy < filter_h; dy++)
                    for (int dx = 0; dx < filter_w; dx++)
                        packed[ox + wo * (dy * filter_w + dx)] =
                            first[static_cast<size_t>(step) * ox + static_cast<size_t>(column) * dx + dy];
            dl_matrix2d_t row = view_of(o, out_channels, wo, out_channels);
            dl_matrixq_dot_matrix_out(&windows, filter, &row);
            for (int ox = 0; ox < wo; ox++, o += out_channels)
                for (int oc = 0; oc < out_channels; oc++) o[oc] = o[oc] + b[oc];
        } else {
            dl::window_sums(layout, first, wo, step, sums);
            const int64_t *s = sums;
            for (int ox = 0; ox < wo; ox++, s += out_channels, o += out_channels)
                for (int oc = 0; oc < out_channels; oc++) o[oc] = to_float(s[oc]) * factor + b[oc];
        }
    }
    dl::mem_free(block);
    return out;
}
