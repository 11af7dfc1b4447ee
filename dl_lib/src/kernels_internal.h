/*
 * kernels_internal.h - the matrix products: their plain loops, and the
 * instruction-set kernels that compute the same bits faster; not installed.
 *
 * The plain loops are the definition, written in the order the arithmetic
 * is defined, and they are what a microcontroller runs. A kernel may walk the
 * operands in any order that leaves every result item unchanged: the float
 * product keeps each item's ascending sum over k with separate roundings and
 * is vectorised across items; the fixed-point products form exact 64-bit sums
 * by any exact means. Tests compare every kernel with its plain loop.
 */
#ifndef DL_LIB_KERNELS_INTERNAL_H
#define DL_LIB_KERNELS_INTERNAL_H

#include <stdint.h>

#include "dl_lib_types.h"

namespace dl {

/* res = a x b for the float records, shapes already checked. */
void matrix_dot_plain(const dl_matrix2d_t *a, const dl_matrix2d_t *b, dl_matrix2d_t *res);

}  // namespace dl

#endif /* DL_LIB_KERNELS_INTERNAL_H */
