/*
 * dl_lib_coefgetter_if.h - what a model's generated C source fills in.
 *
 * kelvane writes one exported record of type model_coeff_getter_t per model;
 * firmware fetches coefficient tables from it by name:
 *
 *     const dl_matrix2dq_t *w = get_coeff_mymodel.getter_q("dense", NULL, 0);
 *     const dl_matrix3d_t *f = dl_get_coeff_3d(&get_coeff_mymodel, "conv1", NULL, 0);
 *
 * A lookup returns NULL for a name it does not hold; a member that the
 * model's conversion mode did not produce is NULL itself.
 */
#ifndef DL_LIB_COEFGETTER_IF_H
#define DL_LIB_COEFGETTER_IF_H

#include <stddef.h>

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wake words of a speech model, from the model directory's _MODEL_INFO_. */
typedef struct {
    int word_num;         /* number of wake words */
    char **word_list;     /* word_num words */
    int *win_list;        /* detection window of each word, 1 to 9 */
    fptp_t *thresh_list;  /* two thresholds per word: [2*i] and [2*i+1] */
    const char *info_str; /* the whole line the information was read from */
} model_info_t;

typedef struct {
    const model_info_t *(*getter_info)(void *arg);
    const dl_matrix2d_t *(*getter_f)(const char *name, void *arg, int hint);
    const dl_matrix2dq_t *(*getter_q)(const char *name, void *arg, int hint);
    /* The lookup of float tensors (-3d -no-quantized) or of 8-bit input
     * tensors (-3d -in): two lookups that differ in their result type share
     * this member, and no function pointer type takes both, so it holds the
     * function's address as a void *. Call it through dl_get_coeff_3d or
     * dl_get_coeff_3du below, whichever matches the conversion mode. */
    void *getter_3d;
    const dl_matrix3dq_t *(*getter_3dq)(const char *name, void *arg, int hint);
} model_coeff_getter_t;

/* The two forms of the getter_3d lookup. */
typedef const dl_matrix3d_t *(*dl_coeff_getter_3d_t)(const char *name, void *arg, int hint);
typedef const dl_matrix3du_t *(*dl_coeff_getter_3du_t)(const char *name, void *arg, int hint);

/* The address goes back to the lookup's own type before the call: a
 * conversion that GCC and Clang define on every target (and POSIX requires)
 * and that only -Wpedantic mentions, quieted here for the caller's sake. */
#if defined(__cplusplus)
#define DL_LIB_GETTER_3D_AS(type, getter) reinterpret_cast<type>(getter)
#elif defined(__GNUC__)
#define DL_LIB_GETTER_3D_AS(type, getter) (__extension__(type)(getter))
#else
#define DL_LIB_GETTER_3D_AS(type, getter) ((type)(getter))
#endif

/* Float tensor name from a model converted with -3d -no-quantized; NULL for
 * an unknown name or a model without getter_3d. */
static inline const dl_matrix3d_t *dl_get_coeff_3d(const model_coeff_getter_t *getter, const char *name, void *arg,
                                                   int hint)
{
    if (!getter->getter_3d) return NULL;
    return DL_LIB_GETTER_3D_AS(dl_coeff_getter_3d_t, getter->getter_3d)(name, arg, hint);
}

/* Input tensor name from a model converted with -3d -in; NULL for an
 * unknown name or a model without getter_3d. */
static inline const dl_matrix3du_t *dl_get_coeff_3du(const model_coeff_getter_t *getter, const char *name, void *arg,
                                                     int hint)
{
    if (!getter->getter_3d) return NULL;
    return DL_LIB_GETTER_3D_AS(dl_coeff_getter_3du_t, getter->getter_3d)(name, arg, hint);
}

#undef DL_LIB_GETTER_3D_AS

#ifndef __cplusplus
/*
 * A generated source always defines get_info() returning &model_info, but
 * defines model_info only when the model directory holds a _MODEL_INFO_.
 * This tentative definition gives the generated source an all-zero record
 * (no wake words) when it does not; when it does, the generated definition
 * completes this one. Define DL_LIB_NO_DEFAULT_MODEL_INFO before including
 * this header in C code that uses the name model_info for itself.
 */
#ifndef DL_LIB_NO_DEFAULT_MODEL_INFO
static const model_info_t model_info;
#endif
#endif

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_COEFGETTER_IF_H */
