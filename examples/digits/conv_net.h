/* Written by train.py: sizes and calibrated shifts of conv/ */
#ifndef CONV_NET_H
#define CONV_NET_H

#define CONV_FILTER_W     3
#define CONV_FILTER_H     3
#define CONV_OUT_CHANNELS 4
#define CONV_STRIDE_X     1
#define CONV_STRIDE_Y     1
#define CONV_PADDING      1
#define CONV_OUT_W        8
#define CONV_OUT_H        8
#define CONV_OUT_SIZE     256
#define FC1_INPUTS        256
#define FC1_OUTPUTS       32
#define BN1_SIZE          32
#define FC2_INPUTS        32
#define FC2_OUTPUTS       10
#define FC1_SHIFT         6  /* 1.55 bits of headroom on 1437 calibration inputs */
#define BN1_SHIFT         14 /* 1.89 bits of headroom on 1437 calibration inputs */
#define FC2_SHIFT         5  /* 1.72 bits of headroom on 1437 calibration inputs */
#define RELU_CLIP         6.0f

#endif /* CONV_NET_H */
