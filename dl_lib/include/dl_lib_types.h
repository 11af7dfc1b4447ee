/*
 * dl_lib_types.h - element types and the records of dl_lib.
 *
 * These records are initialised field by field by generated model tables, so
 * their layout is part of the interface: int is 32 bits wide on every target
 * the library supports, and tests pin the offsets.
 */
#ifndef DL_LIB_TYPES_H
#define DL_LIB_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef float fptp_t;  /* 32-bit float element */
typedef int16_t qtp_t; /* 16-bit fixed-point item; value = item * 2^exponent */
typedef uint8_t uc_t;  /* 8-bit input element */

/* Bit 0 of a matrix's flags: the record does not own its items. Views and
 * generated tables carry it; their free function leaves the items alone. */
#define DL_MF_FOREIGNDATA (1u << 0)

/* Bit 1 of a fixed-point matrix's flags: the record was made by
 * dl_matrixq_prepare, its items followed by a packed copy for the products.
 * Only that function sets it; never set it by hand, and clear it in a copy
 * of such a record that is pointed at other items. */
#define DL_MF_PREPARED (1u << 1)

/* Float matrix, row-major: the item at column x, row y is item[x + stride*y]. */
typedef struct {
    int w;
    int h;
    int stride;
    uint32_t flags;
    fptp_t *item;
} dl_matrix2d_t;

/* Fixed-point matrix, column-major: element (x, y) is itemq[y + stride*x] and
 * stands for itemq[...] * 2^exponent. */
typedef struct {
    int w;
    int h;
    int stride;
    uint32_t flags;
    int exponent;
    qtp_t *itemq;
} dl_matrix2dq_t;

/* Dense tensors. Item i, row y, column x, channel ch is
 * item[(h*i + y)*stride + c*x + ch], with stride == w*c. */
typedef struct {
    int w;
    int h;
    int c;
    int n;
    int stride;
    fptp_t *item;
} dl_matrix3d_t;

typedef struct {
    int w;
    int h;
    int c;
    int n;
    int stride;
    int exponent;
    qtp_t *item;
} dl_matrix3dq_t;

typedef struct {
    int w;
    int h;
    int c;
    int n;
    int stride;
    uc_t *item;
} dl_matrix3du_t;

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_TYPES_H */
