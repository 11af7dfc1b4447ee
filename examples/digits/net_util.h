/*
 * net_util.h - what the two programs that run the digit networks share:
 * digits.c (the accuracy table) and examples/firmware/network.c (the device
 * image). Tables are fetched by name from a generated pair; scores are one
 * row of ten.
 */
#ifndef DIGITS_NET_UTIL_H
#define DIGITS_NET_UTIL_H

#include "dl_lib.h"
#include "dl_lib_coefgetter_if.h"

/* The pair's table of that name, or NULL when the pair has none of that
 * format. */
const dl_matrix2d_t *net_table_f(const model_coeff_getter_t *model, const char *name);
const dl_matrix2dq_t *net_table_q(const model_coeff_getter_t *model, const char *name);

/* A record over the caller's floats, w x h, row-major. */
dl_matrix2d_t net_view(const fptp_t *items, int w, int h);

/* Index of the largest score (the first on a tie). The fixed-point scores
 * share one exponent, so comparing items compares values. */
int net_argmax_f(const dl_matrix2d_t *scores);
int net_argmax_q(const dl_matrix2dq_t *scores);

#endif
