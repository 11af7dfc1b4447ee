// Writers of the generated C source and header. Each takes the streams it
// writes to, so tests can run them on memory streams.
#ifndef KELVANE_EMIT_H
#define KELVANE_EMIT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "model_info.h"
#include "names.h"

#include "dl_lib.h"

namespace kelvane {

// Per-file flags.
constexpr int MF_QUANTISED = 1;  // written as a fixed-point table
constexpr int MF_BATCHNORM = 2;  // replaced by its batch-norm roots first

// MF_QUANTISED, plus MF_BATCHNORM when name is one whole item of the
// comma-separated bnmatrices.
int get_flags_for_file(const std::string &name, const std::string &bnmatrices);

void emit_c_hdr(FILE *cfile, const char *name);
void emit_h_hdr(FILE *hfile);
void emit_h_footer(FILE *hfile, const char *name);

// How a float table writes an infinity or a NaN, which have no C literal:
// as "%ff, " prints them ("inff, ", "nanf, "), which does not compile, or as
// a constant expression of the same value, which does.
enum class NonFinite { as_printed, as_expression };

// One item of a float table: "%ff, ", or for an infinity or a NaN what
// non_finite says.
void emit_float_item(FILE *out, fptp_t v, NonFinite non_finite);

// Float table and its dl_matrix2d_t record, to cfile.
void emit_matrix2d(const char *name, const dl_matrix2d_t *m, FILE *cfile, NonFinite non_finite);
// Quantises m and writes a fixed-point table and its dl_matrix2dq_t record.
// False if memory ran out (nothing is written then).
bool emit_matrix2dq(const char *name, const dl_matrix2d_t *m, FILE *cfile);

// Tensor tables and their records, to cfile: the items in the order of the
// storage (filter, row, column, channel), 8 to a line. A filter bank
// arrives quantised from its loader and is only written; an input tensor's
// table holds its one image.
void emit_matrix3d(const char *name, const dl_matrix3d_t *t, FILE *cfile, NonFinite non_finite);
void emit_matrix3dq(const char *name, const dl_matrix3dq_t *t, FILE *cfile);
void emit_matrix3d_input(const char *name, const dl_matrix3du_t *t, FILE *cfile);

// Writes count items of a table, per_line to a line: a tab opens each line,
// a newline closes each full line and a short last one.
template <class PrintItem>
void emit_items(FILE *out, int64_t count, int per_line, PrintItem print_item)
{
    int on_line = 0;
    for (int64_t i = 0; i < count; i++) {
        if (on_line == 0) fputc('\t', out);
        print_item(i);
        if (++on_line == per_line) {
            fputc('\n', out);
            on_line = 0;
        }
    }
    if (on_line != 0) fputc('\n', out);
}

}  // namespace kelvane

#endif
