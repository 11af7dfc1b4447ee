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

/* A filter bank. A 4-D (h, w, c, n) array, the filters fastest in the file,
 * becomes n filters of h x w x c; a 1-D (c,) array one position of c
 * channels; a 2-D (w, h) array is transposed: file row r, column s becomes
 * row s, column r (one channel, one filter). A longer shape is read by its
 * first four entries; three entries are refused. Element types '<f4',
 * '<f8', '<i4' and '<i8' (the first of these in the header wins). Prints
 * "filter <path>: matrix shape:(<n>, <w>, <h>, <c>)." to stderr on the way.
 * A 2-D file that ends early still loads, as long as its tensor takes no
 * more bytes than the file: each short row is reported and left 0. Free the
 * result with dl_matrix3d_free. */
dl_matrix3d_t *dl_matrix3d_weight_from_numpy_file(const char *path);

/* The same, quantised with dl_matrixq_from_matrix3d (one exponent for all
 * filters). Free the result with dl_matrix3dq_free. */
dl_matrix3dq_t *dl_matrix3dq_weight_from_numpy_file(const char *path);

/* One input image: an (h, w, c) array in the tensor's own order, n = 1; a
 * longer shape is read by its first three entries, a shorter one refused.
 * Element types '<f4', '<f8', '|u1', '<i4' and '<i8' (the first in this
 * order wins), each made a byte with no rounding or saturation: floats are
 * truncated toward zero, integers keep their low 8 bits (300.0 gives 44,
 * -1 gives 255); a NaN, or a float beyond the 32-bit range, gives 0. Prints
 * "input <path>: matrix shape:(<w>, <h>, <c>)." to stderr on the way. Free
 * the result with dl_matrix3du_free. */
dl_matrix3du_t *dl_matrix3du_input_from_numpy_file(const char *path);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_NUMPY_INPUT_H */
