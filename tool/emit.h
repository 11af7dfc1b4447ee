// Writers of the generated C source and header. Each takes the streams it
// writes to, so tests can run them on memory streams.
#ifndef KELVANE_EMIT_H
#define KELVANE_EMIT_H

#include <cstdint>
#include <cstdio>
#include <string>

#include "dl_lib.h"

namespace kelvane {

// Per-file flags.
constexpr int MF_QUANTISED = 1;  // written as a fixed-point table
constexpr int MF_BATCHNORM = 2;  // replaced by its batch-norm roots first

// The file name with blanks made '_' and cut at its first '.'.
std::string sanitize_name(const char *filename);

// Whether a sanitised name can name the generated objects: a C identifier
// that is no keyword and that neither the generated code nor the headers it
// includes use already.
bool is_c_identifier(const std::string &name);

// MF_QUANTISED, plus MF_BATCHNORM when name is one whole item of the
// comma-separated bnmatrices.
int get_flags_for_file(const std::string &name, const std::string &bnmatrices);

void emit_c_hdr(FILE *cfile, const char *name);
void emit_h_hdr(FILE *hfile);
void emit_h_footer(FILE *hfile, const char *name);

// One item of a float table: "%ff, ", or a constant expression for an
// infinity or a NaN, which have no literal.
void emit_float_item(FILE *out, fptp_t v);

// Float table and its dl_matrix2d_t record, to cfile.
void emit_matrix2d(const char *name, const dl_matrix2d_t *m, FILE *cfile, FILE *hfile);
// Quantises m and writes a fixed-point table and its dl_matrix2dq_t record.
// False if memory ran out (nothing is written then).
bool emit_matrix2dq(const char *name, const dl_matrix2d_t *m, FILE *cfile, FILE *hfile);

// Tensor tables and their records, to cfile: the items in the order of the
// storage (filter, row, column, channel), 8 to a line. A filter bank
// arrives quantised from its loader and is only written; an input tensor's
// table holds its one image.
void emit_matrix3d(const char *name, const dl_matrix3d_t *t, FILE *cfile, FILE *hfile);
void emit_matrix3dq(const char *name, const dl_matrix3dq_t *t, FILE *cfile, FILE *hfile);
void emit_matrix3d_input(const char *name, const dl_matrix3du_t *t, FILE *cfile, FILE *hfile);

// Reads _MODEL_INFO_ at path and writes its tables and model_info to cfile.
// False, after a message (stdout, or perror's on stderr), when the file
// cannot be used; the run must then stop with status 1.
bool emit_model_info(const char *path, FILE *cfile);

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
