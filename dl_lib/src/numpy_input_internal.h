/*
 * numpy_input_internal.h - the opening steps that every .npy loader shares.
 */
#ifndef DL_LIB_NUMPY_INPUT_INTERNAL_H
#define DL_LIB_NUMPY_INPUT_INTERNAL_H

#include <stdint.h>
#include <stdio.h>

#include "dl_lib_types.h"

namespace dl::npy {

enum class Type { none, f4, f8, i4, i8, u1 };

/* Bytes per element of a file type. */
int width(Type t);

/* An opened .npy file: the stream positioned at the element data and the
 * header text (NUL-terminated, possibly cut short by the end of the file).
 * Closes and frees on destruction. */
struct File {
    FILE *f = nullptr;
    char *header = nullptr;
    const char *shape = nullptr;  // the text right behind "'shape':"
    int64_t data_bytes = -1;      // bytes left behind the header; -1 if unknown
    int64_t file_bytes = -1;      // size of the whole file; -1 if unknown
    File() = default;
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File();
};

/* Why a load went wrong. The public loaders pass none: each failure then
 * prints its one line, "<path>: <reason>", on stderr, as do the size lines
 * of a load. The converter's strict mode and kelvane-report pass one and
 * get the first failure's reason here instead, with nothing printed.
 * `failed` is also set by a load that still returns a record (the row path
 * of a filter bank zero-fills rows a short file lacks). */
struct Diagnostic {
    bool failed = false;
    char reason[256] = {};
};

/* Reports a failure of the file at path: to d, or to stderr without one. */
void fail(Diagnostic *d, const char *path, const char *format, ...) __attribute__((format(printf, 3, 4)));

/* Opens path, reads the ten-byte prefix and the header text and finds the
 * shape. On failure reports "<path>: <reason>" (or perror's line) and
 * returns false. */
bool open(const char *path, File &file, Diagnostic *d);

/* The loaders behind the public functions, reporting to d (see above). */
dl_matrix2d_t *load_matrix2d(const char *path, Diagnostic *d);
dl_matrix3d_t *load_filter_bank(const char *path, Diagnostic *d);
dl_matrix3du_t *load_input(const char *path, Diagnostic *d);

/* Scans numbers out of text the way sscanf does with a format made of
 * blanks (any run of white space, empty too), "%d" and literal characters,
 * stopping at the first mismatch. A number too large for int is a mismatch.
 * Entries not reached keep their values. */
void scan_ints(const char *text, const char *format, int *const *out);

/* The first descriptor of candidates, in their order, that stands in the
 * header text with its quotes; Type::none if none does. */
Type find_type(const char *header, const Type *candidates, int count);

/* How many elements of type t the file holds behind its header; INT64_MAX
 * when the size is unknown (pipes, devices). With it a loader refuses a
 * shape that the file cannot hold before it allocates anything for it. */
int64_t available(const File &file, Type t);

/* Element i of a buffer of file elements, converted to float: floats bit
 * for bit, doubles and integers to the nearest float. */
float to_float(const unsigned char *buf, Type t, int64_t i);

/* Element i of a buffer of file elements, converted to a byte without
 * rounding or saturation: floats and doubles are truncated toward zero to a
 * signed 32-bit integer (0 for a NaN or a value beyond that range), and the
 * low 8 bits are kept, so values wrap around modulo 256 (-1 gives 255, 257
 * gives 1, 300.0 gives 44). Bytes are copied. */
uint8_t to_byte(const unsigned char *buf, Type t, int64_t i);

}  // namespace dl::npy

#endif /* DL_LIB_NUMPY_INPUT_INTERNAL_H */
