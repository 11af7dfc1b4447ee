/*
 * tensor_ops_internal.h - the convolutions with their kernel chosen by the
 * caller; not installed.
 *
 * Isa::none runs the portable loops, which allocate nothing: the float forms
 * keep the sums of two positions times a few channels in registers (the
 * direct loops, window by window, when a float weight is infinite or NaN),
 * the fixed-point ones run the direct loops. On x86-64, the float
 * convolution of few input channels and the float depthwise one have AVX2
 * kernels of their own (tensor_ops_avx2.cpp); every other x86 form gathers
 * the windows of a block of positions into a matrix for that set's product
 * kernel (kernels_internal.h). Isa::dsp (32-bit ARM with the DSP extension,
 * what a Cortex-M4 runs) forms the fixed-point sums by its own kernels
 * (tensor_ops_dsp.cpp), which allocate nothing either, and the float forms
 * as Isa::none does.
 * All give the same bits: a float sum keeps its ascending order with
 * separate roundings, and the fixed-point sums are the same exact 64-bit
 * sums. The public functions pass detected_isa(); the tests pass each set in
 * turn.
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

/* The fixed-point depthwise forms, their exact sums by isa's kernel (DSP)
 * or the portable loop. */
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
