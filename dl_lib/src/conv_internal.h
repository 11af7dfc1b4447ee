/*
 * conv_internal.h - where the windows of a convolution stand; not installed.
 * Both convolution layers place their windows by this one function.
 */
#ifndef DL_LIB_CONV_INTERNAL_H
#define DL_LIB_CONV_INTERNAL_H

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

}  // namespace dl

#endif /* DL_LIB_CONV_INTERNAL_H */
