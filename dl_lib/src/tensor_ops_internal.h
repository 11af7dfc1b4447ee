/*
 * tensor_ops_internal.h - the convolutions with their product path chosen by
 * the caller; not installed.
 *
 * Isa::none runs the direct loop, window by window, which allocates nothing
 * and is what a microcontroller runs. Any other instruction set gathers the
 * windows of a block of positions into a matrix and hands it to that set's
 * product kernel (kernels_internal.h), which gives the same bits: the float
 * kernel keeps each sum in ascending order with separate roundings, and the
 * fixed-point one forms the same exact 64-bit sums. The public functions
 * pass detected_isa(); the tests pass each set in turn.
 */
#ifndef DL_LIB_TENSOR_OPS_INTERNAL_H
#define DL_LIB_TENSOR_OPS_INTERNAL_H

#include "dl_lib_tensor_ops.h"
#include "kernels_internal.h"

namespace dl {

/* Where the windows of one call stand: output size, strides, and the padding
 * before the input on each axis (the padding after only limits the count).
 * Place (dy, dx) of the window of output (oy, ox) reads input row
 * oy * sy - top + dy, column ox * sx - left + dx; outside the input is 0. */
struct Windows {
    int wo, ho;
    int sx, sy;
    int left, top;
    int kw, kh;
};

dl_matrix3d_t *conv_layer(Isa isa, const dl_matrix3d_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                          int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3d_t *conv_layer(Isa isa, const dl_matrix3du_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                          int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3d_t *conv_layer_quantised_weight(Isa isa, const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                           const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                           const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3d_t *conv_layer_quantised_weight(Isa isa, const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                           const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                           const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3dq_t *conv_layer_q(Isa isa, const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                             const dl_matrix3dq_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                             dl_matrix3dq_t *out, int shift);
dl_matrix3dq_t *conv_layer_q(Isa isa, const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                             const dl_matrix3dq_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                             dl_matrix3dq_t *out, int shift);

/* The float depthwise convolution by isa's kernel (the AVX2 one serves
 * AVX-512 too) or, for Isa::none, the portable loop. */
dl_matrix3d_t *depthwise_conv_layer(Isa isa, const dl_matrix3d_t *in, const dl_matrix3d_t *filter,
                                    const dl_matrix3d_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                                    dl_matrix3d_t *out);

/* The fixed-point depthwise convolution's exact sums by isa's kernel or, for
 * Isa::none, the portable loop; the public functions pass detected_isa(). */
dl_matrix3d_t *depthwise_conv_layer_quantised_weight(Isa isa, const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                     const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                     const dl_padding_t *padding, dl_matrix3d_t *out);
dl_matrix3dq_t *depthwise_conv_layer_q(Isa isa, const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                       const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                       const dl_padding_t *padding, dl_matrix3dq_t *out, int shift);

/* The DSP kernels (tensor_ops_dsp.cpp, built where the target has the
 * extension): the exact sums of a convolution (filter oc's places at
 * filter + oc * K) or of a depthwise one, for position p and channel ch sent
 * where `sums` sends item (p, ch) (items) or (ch, p) (floats). False, with
 * nothing written, for windows too large for an image's stack copy. */
namespace dsp {
bool conv_sums(const qtp_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c,
               const QDotOut &sums);
bool conv_sums(const uc_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c,
               const QDotOut &sums);
bool depthwise_sums(const qtp_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, const QDotOut &sums);
}  // namespace dsp

}  // namespace dl

#endif /* DL_LIB_TENSOR_OPS_INTERNAL_H */
