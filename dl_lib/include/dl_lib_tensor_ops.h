/*
 * dl_lib_tensor_ops.h - operators on tensors: the layers of a CNN, in float,
 * with fixed-point weights (_quantised_weight) and in fixed point (_q).
 *
 * Layout. An activation is a tensor with n == 1: h rows, w columns and c
 * channels, channels fastest (dl_lib_tensor.h). A convolution's filter bank
 * holds one filter per output channel: n filters of h x w x c (window rows,
 * window columns, input channels), as a (kh, kw, in_c, out_c) .npy file loads
 * in a tensor mode. A depthwise bank is one item of kh x kw x C, as a
 * (kh, kw, C, 1) file loads. A bias is one value per output channel: a
 * tensor of c values with n == h == w == 1, as a (C,) file loads, or NULL.
 *
 * Geometry. padding gives the zero rows and columns added on each side (NULL
 * for none); windows start at the padded corner and go by the strides, and
 * only whole windows count: wo = (left + in->w + right - filter->w) /
 * stride_x + 1, ho alike. "valid" is NULL; PyTorch's Conv2d(padding=p) is
 * {p, p, p, p}; "same" (wo = ceil(in->w / stride_x)) is dl_padding_same,
 * with the odd row or column after (as in most frameworks) or before.
 *
 * Numbers. A float window sum starts at 0.0 and adds weight * value over the
 * window's places in the order rows, columns, channels (ascending), each
 * product and each sum rounded to float; padded places are 0.0 and take part.
 * The bias is added last. _quantised_weight quantises the float input once
 * per call (dl_matrixq_from_matrix3d) and forms exact 64-bit sums of items,
 * converted to float in one rounding, times 2^(e_in + e_filter), plus bias.
 * _q forms the same exact sums and shifts them right arithmetically (toward
 * minus infinity) by s = 15 + floor(log2(K)) - shift, K the places of a
 * window, saturating at +-32767: exponent e_in + e_filter + s, as
 * dl_matrixq_dot. A bias is then added as dl_fully_connect_layer_q adds it
 * (dl_matrixq_add, saturating): out exponent max(e_in + e_filter + s, e_bias).
 *
 * Records. out NULL gives a new record, freed with its _free function; a given
 * out must have the result's shape (asserted) and is overwritten. The
 * convolutions and pools never run in place; relu and add may (out == in).
 * Nothing allocates per window or position: at most a few buffers per call.
 */
#ifndef DL_LIB_TENSOR_OPS_H
#define DL_LIB_TENSOR_OPS_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zero rows above and below, zero columns left and right of the input. */
typedef struct {
    int top;
    int bottom;
    int left;
    int right;
} dl_padding_t;

/* The padding that gives ceil(in_w / stride_x) x ceil(in_h / stride_y)
 * windows: per axis (out - 1) * stride + filter - in, at least 0, split in
 * two; an odd total puts the extra row or column after (bottom, right) when
 * odd_after is non-zero, before (top, left) otherwise. */
dl_padding_t dl_padding_same(int in_w, int in_h, int filter_w, int filter_h, int stride_x, int stride_y, int odd_after);

/* ---- Convolution. in: h x w x in_c; filter: n = out_c filters of
 * kh x kw x in_c (filter->c == in->c asserted); bias c == out_c or NULL;
 * out: ho x wo x out_c. Strides at least 1; padding at least 0 on each side;
 * the padded input must hold one window. */
dl_matrix3d_t *dl_matrix3d_conv_layer(const dl_matrix3d_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                                      int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out);

/* Float in and out, fixed-point filter: in quantised once per call at the
 * exponent of its own range; sums exact, one rounding to float, + bias. */
dl_matrix3d_t *dl_matrix3d_conv_layer_quantised_weight(const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                       const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                       const dl_padding_t *padding, dl_matrix3d_t *out);

/* All fixed point: out exponent e_in + e_filter + s, s = 15 +
 * floor(log2(kh * kw * in_c)) - shift (0 <= shift <= that default), or
 * e_bias where that is larger (the sums then lose the difference's bits). */
dl_matrix3dq_t *dl_matrix3dq_conv_layer_q(const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                          const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                          const dl_padding_t *padding, dl_matrix3dq_t *out, int shift);

/* ---- First layer on an 8-bit image (h x w x c bytes, as kelvane -3d -in
 * writes it). A byte b stands for b * 2^-8 (0 to 255/256), exactly: in float
 * that value, in fixed point the item b * 128 at exponent -15. The bytes are
 * read in place; otherwise as the layers above. */
dl_matrix3d_t *dl_matrix3du_conv_layer(const dl_matrix3du_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                                       int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3d_t *dl_matrix3du_conv_layer_quantised_weight(const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                                        const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                        const dl_padding_t *padding, dl_matrix3d_t *out);
/* out exponent -15 + e_filter + s (or e_bias where larger), s as above. */
dl_matrix3dq_t *dl_matrix3du_conv_layer_q(const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                          const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                          const dl_padding_t *padding, dl_matrix3dq_t *out, int shift);

/* ---- Depthwise convolution: channel ch of out is channel ch of in under
 * its own kh x kw window. filter: n == 1, c == in->c; bias c == in->c or
 * NULL; out ho x wo x in_c. Sums over the window's rows, then columns. In
 * _q, K = kh * kw: out exponent e_in + e_filter + 15 + floor(log2(kh * kw))
 * - shift, or e_bias where larger. */
dl_matrix3d_t *dl_matrix3d_depthwise_conv_layer(const dl_matrix3d_t *in, const dl_matrix3d_t *filter,
                                                const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3d_t *dl_matrix3d_depthwise_conv_layer_quantised_weight(const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                                 const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                                 const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_depthwise_conv_layer_q(const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                                    const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                                    const dl_padding_t *padding, dl_matrix3dq_t *out, int shift);

/* ---- Pooling, per channel, over whole windows of filter_w x filter_h moved
 * by the strides, no padding: wo = (in->w - filter_w) / stride_x + 1, ho
 * alike. The fixed-point forms keep in's exponent.
 * Max: the first place of the window, replaced by each later value that is
 * greater (a NaN never replaces; one in first place stays). */
dl_matrix3d_t *dl_matrix3d_max_pool(const dl_matrix3d_t *in, int filter_w, int filter_h, int stride_x, int stride_y,
                                    dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_max_pool_q(const dl_matrix3dq_t *in, int filter_w, int filter_h, int stride_x,
                                        int stride_y, dl_matrix3dq_t *out);

/* Average: float sums rows then columns from 0.0, rounded at each step, then
 * one division by filter_w * filter_h. Fixed point: the exact sum divided by
 * the count, rounded toward minus infinity (as a right shift would). */
dl_matrix3d_t *dl_matrix3d_avg_pool(const dl_matrix3d_t *in, int filter_w, int filter_h, int stride_x, int stride_y,
                                    dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_avg_pool_q(const dl_matrix3dq_t *in, int filter_w, int filter_h, int stride_x,
                                        int stride_y, dl_matrix3dq_t *out);

/* Average of every position, per channel: out is 1 x 1 x c. Rounding as the
 * average pool over a window of the whole input. */
dl_matrix3d_t *dl_matrix3d_global_avg_pool(const dl_matrix3d_t *in, dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_global_avg_pool_q(const dl_matrix3dq_t *in, dl_matrix3dq_t *out);

/* ---- Element-wise; out of in's shape, may be in. */

/* Clamp to 0..clip per item as dl_relu_op; INFINITY for no upper clip. The
 * fixed-point form brings clip to in's exponent as dl_relu_q does and gives
 * out in's exponent. */
dl_matrix3d_t *dl_matrix3d_relu(const dl_matrix3d_t *in, fptp_t clip, dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_relu_q(const dl_matrix3dq_t *in, fptp_t clip, dl_matrix3dq_t *out);

/* out = a + b for tensors of one shape (a residual connection); out may be a
 * or b. Float: one rounding per item. Fixed point exactly as dl_matrixq_add:
 * the operand with the lower exponent is shifted right to the other's; shift
 * 0 halves the sum (exponent one above), shift 1 saturates (exponent kept). */
dl_matrix3d_t *dl_matrix3d_add(const dl_matrix3d_t *a, const dl_matrix3d_t *b, dl_matrix3d_t *out);
dl_matrix3dq_t *dl_matrix3dq_add_q(const dl_matrix3dq_t *a, const dl_matrix3dq_t *b, dl_matrix3dq_t *out, int shift);

/* ---- From tensors to matrices, for the fully connected head. */

/* An activation (n == 1) as one row of h * w * c items in row, column,
 * channel order, without a copy: a view of in's items (DL_MF_FOREIGNDATA),
 * which must outlive it; the fixed-point row has stride 1 and in's exponent.
 * out NULL: a new view record (dl_matrix_free / dl_matrixq_free leave the
 * items alone); a given out must be a view record (asserted). A (C,) bias
 * loaded as a tensor becomes the 1 x C bias of a fully connected layer so. */
dl_matrix2d_t *dl_matrix2d_view_from_matrix3d(const dl_matrix3d_t *in, dl_matrix2d_t *out);
dl_matrix2dq_t *dl_matrix2dq_view_from_matrix3dq(const dl_matrix3dq_t *in, dl_matrix2dq_t *out);

/* The weight of a fully connected layer from a 2-D (inputs, outputs) .npy
 * loaded in a tensor mode (w = inputs, h = outputs, c == n == 1 asserted).
 * Fixed point: the tensor's items already are the column-major inputs x
 * outputs matrix, so this is a view, as above. Float: the row-major matrix
 * needs the transpose, so this is one copy, made once at start-up: a new
 * inputs x outputs record when out is NULL, else out (of that shape). */
dl_matrix2dq_t *dl_matrix2dq_weight_view_from_matrix3dq(const dl_matrix3dq_t *in, dl_matrix2dq_t *out);
dl_matrix2d_t *dl_matrix2d_weight_from_matrix3d(const dl_matrix3d_t *in, dl_matrix2d_t *out);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_TENSOR_OPS_H */
