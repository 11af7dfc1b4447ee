#include "dl_lib_matrix.h"

#include "dl_lib_internal.h"

dl_matrix2d_t *dl_matrix_alloc(int w, int h)
{
    if (w < 0 || h < 0) return nullptr;
    auto *m = static_cast<dl_matrix2d_t *>(calloc(1, sizeof(dl_matrix2d_t)));
    if (!m) return nullptr;
    // calloc checks the product w*h*4 for overflow itself.
    m->item = static_cast<fptp_t *>(calloc(static_cast<size_t>(w) * static_cast<size_t>(h), sizeof(fptp_t)));
    if (!m->item && w != 0 && h != 0) {
        free(m);
        return nullptr;
    }
    m->w = w;
    m->h = h;
    m->stride = w;
    m->flags = 0;
    return m;
}

dl_matrix2d_t *dl_matrix_from_data(int w, int h, int stride, void *data)
{
    auto *m = static_cast<dl_matrix2d_t *>(calloc(1, sizeof(dl_matrix2d_t)));
    if (!m) return nullptr;
    m->w = w;
    m->h = h;
    m->stride = stride;
    m->flags = DL_MF_FOREIGNDATA;
    m->item = static_cast<fptp_t *>(data);
    return m;
}

void dl_matrix_free(dl_matrix2d_t *m)
{
    if (!m) return;
    if (!(m->flags & DL_MF_FOREIGNDATA)) free(m->item);
    free(m);
}

void dl_matrix_zero(dl_matrix2d_t *m)
{
    for (int y = 0; y < m->h; y++)
        for (int x = 0; x < m->w; x++) m->item[x + m->stride * y] = 0.0f;
}

int dl_matrix_same_shape(const dl_matrix2d_t *a, const dl_matrix2d_t *b)
{
    if (a->w == b->w && a->h == b->h) return 1;
    fprintf(stderr, "dl_matrix_same_shape: Matrices not the same shape! a: %d x %d, b: %d x %d\n", a->w, a->h,
            b->w, b->h);
    return 0;
}

dl_matrix2d_t *dl_matrix_slice(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in)
{
    if (!in) {
        in = static_cast<dl_matrix2d_t *>(calloc(1, sizeof(dl_matrix2d_t)));
        if (!in) return nullptr;
        in->flags = DL_MF_FOREIGNDATA;
    }
    // A record that owned its items would lose them here, and freeing the
    // view later would free a pointer into src.
    DL_ASSERT(in->flags&DL_MF_FOREIGNDATA);
    DL_ASSERT(x+w<=src->w);
    DL_ASSERT(y+h<=src->h);
    in->w = w;
    in->h = h;
    in->stride = src->stride;
    in->item = src->item + (x + src->stride * y);
    return in;
}

dl_matrix2d_t *dl_matrix_flatten(const dl_matrix2d_t *src, int x, int y, int w, int h, dl_matrix2d_t *in)
{
    if (!in) {
        in = dl_matrix_alloc(w * h, 1);
        if (!in) return nullptr;
    }
    DL_ASSERT(x + w <= src->w);
    DL_ASSERT(y + h <= src->h);
    for (int j = 0; j < h; j++)
        for (int i = 0; i < w; i++) in->item[i + j * w] = src->item[(x + i) + src->stride * (y + j)];
    in->stride = w * h;
    return in;
}

void dl_matrix_flip(dl_matrix2d_t *a)
{
    DL_ASSERT(a->h==1);
    a->h = a->w;
    a->w = 1;
    a->stride = 1;
}

void dl_printmatrix(const dl_matrix2d_t *a)
{
    printf("a->w: %d, a->h: %d\n", a->w, a->h);
    for (int y = 0; y < a->h; y++) {
        for (int x = 0; x < a->w; x++) printf("%f\t", static_cast<double>(a->item[x + a->stride * y]));
        printf("\n\n");
    }
}
