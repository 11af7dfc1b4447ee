/*
 * cnn.h - the depthwise-separable CNN of train_cnn.py on one 8 x 8 image, in
 * the library's three number formats, shared by digits.c (the accuracy
 * table) and examples/firmware (the device image).
 *
 * Each form takes its tables from one generated pair, converted from cnn/ in
 * a tensor mode: cnn_f (-3d -no-quantized) for float, cnn_q (-3d) for the
 * other two; the quantised-weight form turns the fixed-point biases back to
 * floats once. cnn_init fetches every table and makes every record that the
 * runs reuse; a run allocates only the fixed-point form's quantised image.
 */
#ifndef DIGITS_CNN_H
#define DIGITS_CNN_H

#include "dl_lib.h"

/* NULL when every table is there, else the name of the first missing one. */
const char *cnn_init(void);
void cnn_free(void);

/* The ten scores of image (64 floats, row by row, 0 to 1); the record is
 * the CNN's own and is overwritten by the next run of the same form. */
const dl_matrix2d_t *cnn_float(const fptp_t *image);
const dl_matrix2d_t *cnn_quantised_weights(const fptp_t *image);
const dl_matrix2dq_t *cnn_fixed(const fptp_t *image);

#endif
