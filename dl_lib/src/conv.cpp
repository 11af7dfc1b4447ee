#include "dl_lib.h"

#include <math.h>

#include "conv_internal.h"
#include "dl_lib_internal.h"

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

// Element (x, y) of a record, in its own layout: float records by rows,
// fixed-point ones by columns.
fptp_t &at(const dl_matrix2d_t *m, int x, int y) { return m->item[x + m->stride * y]; }
qtp_t &at(const dl_matrix2dq_t *m, int x, int y) { return m->itemq[y + m->stride * x]; }
void take_exponent(dl_matrix2d_t *, const dl_matrix2d_t *) {}
void take_exponent(dl_matrix2dq_t *to, const dl_matrix2dq_t *from) { to->exponent = from->exponent; }

// A new record of in's items in a zero frame of the geometry's margins (a
// fixed-point one at in's exponent, the frame item 0 there).
template <class Matrix>
Matrix *framed(const Matrix *in, const ConvGeometry &geo, Matrix *(*alloc)(int, int))
{
    Matrix *padded = alloc(geo.x.padded, geo.y.padded);  // zero-filled: the frame
    DL_ASSERT_ALLOCATED(padded);
    for (int y = 0; y < in->h; y++)
        for (int x = 0; x < in->w; x++) at(padded, x + geo.x.margin, y + geo.y.margin) = at(in, x, y);
    take_exponent(padded, in);
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
    dl_matrix2d_t *padded = padding ? framed(in, geo, dl_matrix_alloc) : nullptr;
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

dl_matrix2d_t *dl_basic_conv_layer_quantised_weight(const dl_matrix2d_t *in, const dl_matrix2dq_t *filter,
                                                    const dl_matrix2d_t *bias, int filter_w, int filter_h,
                                                    int out_channels, int stride_x, int stride_y, int padding,
                                                    dl_matrix2d_t *out)
{
    const ConvGeometry geo = conv_geometry(in, filter_w, filter_h, stride_x, stride_y, padding);
    // The input is quantised once, as a whole, so every window shares its
    // one exponent; the frame is item 0 at that exponent.
    dl_matrix2dq_t *qin = dl_matrixq_from_matrix2d(in, nullptr);
    DL_ASSERT_ALLOCATED(qin);
    dl_matrix2dq_t *padded = padding ? framed(qin, geo, dl_matrixq_alloc) : nullptr;
    const dl_matrix2dq_t *source = padded ? padded : qin;
    out = conv_output(out, out_channels, geo.x.n, geo.y.n);

    // As in the float layer, a row of positions is one product: each window
    // flattened once into a row of `windows` (at the input's one exponent),
    // each position's channels formed as exact sums, rounded once to float
    // and scaled, straight into out; then the bias.
    const int places = filter_w * filter_h;
    const int wo = geo.x.n;
    dl_matrix2dq_t *windows = dl_matrixq_alloc(places, wo);
    DL_ASSERT_ALLOCATED(windows);
    windows->exponent = source->exponent;
    // The bias has one item per channel, as dl_matrix_add requires of a
    // position's row; it is added as position + bias, in that order.
    const dl_matrix2d_t first = view_of(out->item, out_channels, 1, out_channels);
    DL_ASSERT(dl_matrix_same_shape(&first, bias));
    for (int oy = 0; oy < geo.y.n; oy++) {
        const int y0 = oy * stride_y + geo.y.offset;
        for (int ox = 0; ox < wo; ox++) {
            const int x0 = ox * stride_x + geo.x.offset;
            for (int dy = 0; dy < filter_h; dy++)
                for (int dx = 0; dx < filter_w; dx++)
                    windows->itemq[ox + windows->stride * (dy * filter_w + dx)] =
                        source->itemq[(y0 + dy) + source->stride * (x0 + dx)];
        }
        fptp_t *row = out->item + static_cast<size_t>(oy) * wo * out_channels;
        dl_matrix2d_t sums = view_of(row, out_channels, wo, out_channels);
        dl_matrixq_dot_matrix_out(windows, filter, &sums);
        for (int ox = 0; ox < wo; ox++)
            for (int oc = 0; oc < out_channels; oc++)
                row[ox * out_channels + oc] = row[ox * out_channels + oc] + bias->item[oc];
    }
    dl_matrixq_free(windows);
    dl_matrixq_free(qin);
    dl_matrixq_free(padded);
    return out;
}
