/*
 * dl_lib_coefgetter_if.h - what a model's generated C source fills in.
 *
 * kelvane writes one exported record of type model_coeff_getter_t per model;
 * firmware fetches coefficient tables from it by name:
 *
 *     const dl_matrix2dq_t *w = get_coeff_mymodel.getter_q("dense", NULL, 0);
 *
 * A lookup returns NULL for a name it does not hold; a member that the
 * model's conversion mode did not produce is NULL itself.
 */
#ifndef DL_LIB_COEFGETTER_IF_H
#define DL_LIB_COEFGETTER_IF_H

#include "dl_lib_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wake words of a speech model, from the model directory's _MODEL_INFO_. */
typedef struct {
    int word_num;          /* number of wake words */
    char **word_list;      /* word_num words */
    int *win_list;         /* detection window of each word, 1 to 9 */
    fptp_t *thresh_list;   /* two thresholds per word: [2*i] and [2*i+1] */
    const char *info_str;  /* the whole line the information was read from */
} model_info_t;

typedef struct {
    const model_info_t *(*getter_info)(void *arg);
    const dl_matrix2d_t *(*getter_f)(const char *name, void *arg, int hint);
    const dl_matrix2dq_t *(*getter_q)(const char *name, void *arg, int hint);
    /* Float tensors (dl_matrix3d_t) or 8-bit input tensors (dl_matrix3du_t),
     * depending on the conversion mode; the two lookups share this member. */
    void *getter_3d;
    const dl_matrix3dq_t *(*getter_3dq)(const char *name, void *arg, int hint);
} model_coeff_getter_t;

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
