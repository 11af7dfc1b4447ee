#include "emit.h"

namespace kelvane {

namespace {

// Writes the items of a tensor table in the walk filter, row, column,
// channel (the channel innermost), 8 to a line. With stride == w*c this is
// the storage from its first element to its last: a dense copy.
template <class Tensor, class PrintItem>
void emit_tensor_items(FILE *cfile, const Tensor *t, int filters, PrintItem print_item)
{
    const int64_t c = t->c, w = t->w, h = t->h;
    emit_items(cfile, filters * h * w * c, 8, [&](int64_t index) {
        const int64_t ch = index % c, x = index / c % w, y = index / (c * w) % h, i = index / (c * w * h);
        print_item(t->item[(h * i + y) * t->stride + c * x + ch]);
    });
}

// The record's shape lines, after its head line and before the pointer line.
template <class Tensor>
void emit_tensor_shape(FILE *cfile, const Tensor *t)
{
    fprintf(cfile, "\t.w=%d,\n", t->w);
    fprintf(cfile, "\t.h=%d,\n", t->h);
    fprintf(cfile, "\t.c=%d,\n", t->c);
    fprintf(cfile, "\t.n=%d,\n", t->n);
    fprintf(cfile, "\t.stride=%d,\n", t->stride);
}

}  // namespace

void emit_matrix3d(const char *name, const dl_matrix3d_t *t, FILE *cfile, NonFinite non_finite)
{
    fprintf(cfile, "const static fptp_t %s_item_array[]={\n", name);
    emit_tensor_items(cfile, t, t->n, [&](fptp_t v) { emit_float_item(cfile, v, non_finite); });
    fputs("};\n", cfile);
    fprintf(cfile, "\nconst static dl_matrix3d_t %s={\n", name);
    emit_tensor_shape(cfile, t);
    fprintf(cfile, "\t.item=(fptp_t *)(&%s_item_array[0])\n", name);
    fputs("};\n", cfile);
}

void emit_matrix3dq(const char *name, const dl_matrix3dq_t *t, FILE *cfile)
{
    // Already quantised by the loader: only written here.
    fprintf(cfile, "const static qtp_t %s_item_array[]={\n", name);
    emit_tensor_items(cfile, t, t->n, [&](qtp_t v) { fprintf(cfile, "%d, ", v); });
    fputs("};\n", cfile);
    fprintf(cfile, "\nconst static dl_matrix3dq_t %s={\n", name);
    emit_tensor_shape(cfile, t);
    fprintf(cfile, "\t.exponent=%d,\n", t->exponent);
    fprintf(cfile, "\t.item=(qtp_t *)(&%s_item_array[0])\n", name);
    fputs("};\n", cfile);
}

void emit_matrix3d_input(const char *name, const dl_matrix3du_t *t, FILE *cfile)
{
    // One image: rows, columns and channels only, whatever n says.
    fprintf(cfile, "const static uc_t %s_item_array[]={\n", name);
    emit_tensor_items(cfile, t, 1, [&](uc_t v) { fprintf(cfile, "%d, ", v); });
    fputs("};\n", cfile);
    fprintf(cfile, "\nconst static dl_matrix3du_t %s={\n", name);
    emit_tensor_shape(cfile, t);
    fprintf(cfile, "\t.item=(uc_t *)(&%s_item_array[0])\n", name);
    fputs("};\n", cfile);
}

}  // namespace kelvane
