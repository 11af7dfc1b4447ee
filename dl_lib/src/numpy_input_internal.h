/*
 * numpy_input_internal.h - the opening steps that every .npy loader shares.
 */
#ifndef DL_LIB_NUMPY_INPUT_INTERNAL_H
#define DL_LIB_NUMPY_INPUT_INTERNAL_H

#include <stdint.h>
#include <stdio.h>

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

/* Opens path, reads the ten-byte prefix and the header text and finds the
 * shape. On failure prints "<path>: <reason>" (or perror's line) to stderr
 * and returns false. */
bool open(const char *path, File &file);

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
