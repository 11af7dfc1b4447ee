/*
 * conv_internal.h - where the windows of a convolution stand, and the exact
 * window sums of the fixed-point filter; not installed. Both convolution
 * layers place their windows by conv_axis.
 */
#ifndef DL_LIB_CONV_INTERNAL_H
#define DL_LIB_CONV_INTERNAL_H

#include <stdint.h>

#include "dl_lib_types.h"
#include "kernels_internal.h"

namespace dl {

/* Window placement along one axis (x with the widths, y with the heights). */
struct ConvAxis {
    int n;       // window positions
    int padded;  // size of the axis the windows run on (the input's without padding)
    int offset;  // start of the first window in that axis
    int margin;  // place of the input's first element in that axis (0 without padding)
};

/* The geometry of one axis of size `size` for a window of `filter` elements
 * moved by `stride`. padding 0 drops what no whole window covers; otherwise
 * the axis gains a zero margin on both sides and has ceil(size / stride)
 * positions. */
ConvAxis conv_axis(int size, int filter, int stride, int padding);

/* A window of the quantised input and the filter, laid out for exact sums:
 * the window is `columns` runs of `run` items, `stride` items apart (the
 * input is column-major); `run` is the filter's height rounded up to even,
 * so that the items pair up, and the weights of channel oc for window
 * column dx are the `run` items at weights + run * (columns * oc + dx), the
 * filter's column dx followed by a 0 where the height is odd. The item a
 * run reads past the window meets that 0: it must be readable, and adds
 * nothing. */
struct WindowLayout {
    int columns, run, stride, channels;
    const qtp_t *weights;
};

/* The exact sums of `count` windows, the first at `first` and each next one
 * `step` items further, with every channel's weights: sums[p * channels +
 * oc] for window p and channel oc. The plain loop: */
void window_sums_plain(const WindowLayout &l, const qtp_t *first, int count, int step, int64_t *sums);

#if DL_DSP_KERNELS
namespace dsp {
/* The same sums by SMLALD, two channels a step (kernels_dsp.cpp). */
void window_sums(const WindowLayout &l, const qtp_t *first, int count, int step, int64_t *sums);
}  // namespace dsp
#endif

/* The sums by the DSP kernel where the target has it, else the plain loop. */
inline void window_sums(const WindowLayout &l, const qtp_t *first, int count, int step, int64_t *sums)
{
#if DL_DSP_KERNELS
    dsp::window_sums(l, first, count, step, sums);
#else
    window_sums_plain(l, first, count, step, sums);
#endif
}

}  // namespace dl

#endif /* DL_LIB_CONV_INTERNAL_H */
