/*
 * dl_lib_numpy_input.h - loaders of NumPy .npy files (host builds only).
 *
 * Each loader returns a new record that the caller frees with the free
 * function of its type, or NULL after one line on stderr that begins with
 * the file's name. Only version 1.0 headers are understood; the data is
 * taken as little-endian and row-major.
 */
#ifndef DL_LIB_NUMPY_INPUT_H
#define DL_LIB_NUMPY_INPUT_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A 1-D (n,) array becomes one row of n columns; a 2-D (h, w) array h rows of
 * w columns; a longer shape is read by its first two entries. Element types
 * '<f4', '<f8', '<i4' and '<i8', converted to float (of several descriptors
 * in one header, '<i8' wins over '<i4' over '<f8' over '<f4'). Prints
 * "<path>: matrix of <h> by <w>." to stderr on the way. Free the result
 * with dl_matrix_free. */
dl_matrix2d_t *dl_matrix2d_from_numpy_file(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_NUMPY_INPUT_H */
