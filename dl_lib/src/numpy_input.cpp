#include "dl_lib_numpy_input.h"

#include <errno.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>

#include "dl_lib_internal.h"
#include "dl_lib_matrix.h"
#include "dl_lib_tensor.h"
#include "numpy_input_internal.h"

namespace dl::npy {

namespace {

struct Descriptor {
    Type type;
    const char *text;
    int width;
};

constexpr Descriptor kDescriptors[] = {
    {Type::f4, "'<f4'", 4}, {Type::f8, "'<f8'", 8}, {Type::i4, "'<i4'", 4},
    {Type::i8, "'<i8'", 8}, {Type::u1, "'|u1'", 1},
};

const Descriptor *descriptor(Type t)
{
    for (const Descriptor &d : kDescriptors)
        if (d.type == t) return &d;
    return nullptr;
}

// White space as the C locale's isspace sees it, without a locale lookup.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

uint64_t load_le(const unsigned char *p, int bytes)
{
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; i--) v = (v << 8) | p[i];
    return v;
}

}  // namespace

void fail(Diagnostic *d, const char *path, const char *format, ...)
{
    char reason[sizeof d->reason];
    va_list args;
    va_start(args, format);
    vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
    if (!d) {
        fprintf(stderr, "%s: %s\n", path, reason);
        return;
    }
    if (d->failed) return;  // the first failure is the reason
    d->failed = true;
    memcpy(d->reason, reason, sizeof reason);
}

int width(Type t)
{
    const Descriptor *d = descriptor(t);
    return d ? d->width : 0;
}

File::~File()
{
    if (f) fclose(f);
    dl::mem_free(header);
}

bool open(const char *path, File &file, Diagnostic *d)
{
    file.f = fopen(path, "r");
    if (!file.f) {
        fail(d, path, "%s", strerror(errno));  // what perror prints
        return false;
    }
    unsigned char prefix[10];
    if (fread(prefix, sizeof prefix, 1, file.f) != 1) {
        fail(d, path, "too short");
        return false;
    }
    static const unsigned char kMagic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
    if (memcmp(prefix, kMagic, sizeof kMagic) != 0) {
        fail(d, path, "invalid magic");
        return false;
    }
    // Only the version 1.0 layout: a 16-bit little-endian header length at
    // offset 8, whatever the version bytes say.
    const size_t len = prefix[8] | (static_cast<size_t>(prefix[9]) << 8);
    file.header = static_cast<char *>(dl::mem_calloc(len + 1, 1));
    if (!file.header) {
        fail(d, path, "out of memory");
        return false;
    }
    // A header cut short by the end of the file is searched as far as it
    // arrived; the zeroed buffer terminates it.
    const size_t got = fread(file.header, 1, len, file.f);
    const char *key = strstr(file.header, "'shape':");
    if (!key) {
        fail(d, path, "no shape");
        return false;
    }
    file.shape = key + 8;
    struct stat st;
    if (fstat(fileno(file.f), &st) == 0 && S_ISREG(st.st_mode)) {
        const int64_t left = static_cast<int64_t>(st.st_size) - static_cast<int64_t>(sizeof prefix + got);
        file.data_bytes = left > 0 ? left : 0;
        file.file_bytes = static_cast<int64_t>(st.st_size);
    }
    return true;
}

void scan_ints(const char *s, const char *format, int *const *out)
{
    const char *f = format;
    while (*f) {
        if (*f == ' ') {
            while (is_space(*s)) s++;
            f++;
        } else if (f[0] == '%' && f[1] == 'd') {
            while (is_space(*s)) s++;
            const char *p = s;
            const bool negative = (*p == '-');
            if (*p == '-' || *p == '+') p++;
            if (!is_digit(*p)) return;
            int64_t v = 0;
            while (is_digit(*p)) {
                v = v * 10 + (*p++ - '0');
                if (v > static_cast<int64_t>(INT32_MAX) + 1) return;
            }
            if (negative) v = -v;
            if (v > INT32_MAX) return;
            **out++ = static_cast<int>(v);
            s = p;
            f += 2;
        } else {
            if (*s != *f) return;
            s++;
            f++;
        }
    }
}

Type find_type(const char *header, const Type *candidates, int count)
{
    for (int i = 0; i < count; i++)
        if (strstr(header, descriptor(candidates[i])->text)) return candidates[i];
    return Type::none;
}

int64_t available(const File &file, Type t)
{
    if (file.data_bytes < 0) return INT64_MAX;
    return file.data_bytes / width(t);
}

float to_float(const unsigned char *buf, Type t, int64_t i)
{
    const unsigned char *p = buf + i * width(t);
    switch (t) {
    case Type::f4: {
        const uint32_t bits = static_cast<uint32_t>(load_le(p, 4));
        float v;
        memcpy(&v, &bits, sizeof v);
        return v;
    }
    case Type::f8: {
        const uint64_t bits = load_le(p, 8);
        double v;
        memcpy(&v, &bits, sizeof v);
        return static_cast<float>(v);
    }
    case Type::i4: return static_cast<float>(static_cast<int32_t>(static_cast<uint32_t>(load_le(p, 4))));
    case Type::i8: return static_cast<float>(static_cast<int64_t>(load_le(p, 8)));
    case Type::u1: return static_cast<float>(p[0]);
    case Type::none: break;
    }
    return 0.0f;
}

uint8_t to_byte(const unsigned char *buf, Type t, int64_t i)
{
    const unsigned char *p = buf + i * width(t);
    // The low 8 bits of an integer; trunc_i32 gives INT32_MIN, whose low
    // bits are 0, for a NaN or a float beyond the 32-bit range. A double is
    // truncated as it is, not narrowed to float first.
    auto low8 = [](uint64_t v) { return static_cast<uint8_t>(v & 0xffu); };
    switch (t) {
    case Type::f4: {
        const uint32_t bits = static_cast<uint32_t>(load_le(p, 4));
        float v;
        memcpy(&v, &bits, sizeof v);
        return low8(static_cast<uint32_t>(trunc_i32(v)));
    }
    case Type::f8: {
        const uint64_t bits = load_le(p, 8);
        double v;
        memcpy(&v, &bits, sizeof v);
        return low8(static_cast<uint32_t>(trunc_i32(v)));
    }
    case Type::i4: return low8(load_le(p, 4));
    case Type::i8: return low8(load_le(p, 8));
    case Type::u1: return p[0];
    case Type::none: break;
    }
    return 0;
}

}  // namespace dl::npy

using namespace dl;
using npy::Diagnostic;
using npy::fail;

namespace {

// The element reads every loader shares: `reads` reads of `group` elements
// each, in file order, through one buffer. store(r, buf) places read r; a
// read that comes back short goes to on_short(r, got), which reports it and
// says whether the load goes on (the filter bank's row path) or fails.
template <class Store, class OnShort>
bool read_groups(npy::File &file, Diagnostic *d, const char *path, npy::Type type, int64_t reads, int group,
                 Store store, OnShort on_short)
{
    const int elem = npy::width(type);
    auto *buf = static_cast<unsigned char *>(dl::mem_calloc(1, static_cast<size_t>(group) * elem));
    if (!buf) {
        fail(d, path, "out of memory");
        return false;
    }
    for (int64_t r = 0; r < reads; r++) {
        const size_t got = fread(buf, elem, group, file.f);
        if (got == static_cast<size_t>(group)) store(r, buf);
        else if (!on_short(r, got)) {
            dl::mem_free(buf);
            return false;
        }
    }
    dl::mem_free(buf);
    return true;
}

}  // namespace

dl_matrix2d_t *npy::load_matrix2d(const char *path, Diagnostic *d)
{
    npy::File file;
    if (!npy::open(path, file, d)) return nullptr;

    int s0 = -1, s1 = -1;
    int *const entries[] = {&s0, &s1};
    npy::scan_ints(file.shape, " ( %d , %d )", entries);
    if (s0 == -1) {
        fail(d, path, "error parsing shape");
        return nullptr;
    }
    if (s1 == -1) {  // a one-entry shape is a single row
        s1 = s0;
        s0 = 1;
    }
    const int h = s0, w = s1;

    // All four descriptors are looked for and the last match of f4, f8, i4,
    // i8 wins: the same as taking the first match in reverse order.
    static const npy::Type kOrder[] = {npy::Type::i8, npy::Type::i4, npy::Type::f8, npy::Type::f4};
    const npy::Type type = npy::find_type(file.header, kOrder, 4);
    if (!d) fprintf(stderr, "%s: matrix of %d by %d.\n", path, h, w);
    if (type == npy::Type::none) {
        fail(d, path, "Unknown var format");
        return nullptr;
    }
    const int64_t count = static_cast<int64_t>(h) * w;
    if (h < 0 || w < 0 || count > INT32_MAX) {
        fail(d, path, "unsupported shape (%d, %d)", h, w);
        return nullptr;
    }
    // A file too short for its shape fails at the first row it cannot fill;
    // say so without allocating what the shape promised.
    const int64_t avail = npy::available(file, type);
    if (avail < count) {
        fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(avail / w), h);
        return nullptr;
    }

    dl_matrix2d_t *m = dl_matrix_alloc(w, h);
    if (!m) {
        fail(d, path, "out of memory");
        return nullptr;
    }
    // A shape with a zero entry has nothing to read: no row buffer sized by
    // the other entry, and no empty reads counted by it.
    if (count == 0) return m;
    const bool read = read_groups(
        file, d, path, type, h, w,
        [&](int64_t y, const unsigned char *row) {
            for (int x = 0; x < w; x++) m->item[y * m->stride + x] = npy::to_float(row, type, x);
        },
        [&](int64_t y, size_t) {
            fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(y), h);
            return false;
        });
    if (!read) {
        dl_matrix_free(m);
        return nullptr;
    }
    return m;
}

// ---- Tensor loaders. They open the file like the matrix loader, scan their
// own shape format and part ways at the reads.

namespace {

constexpr int kMarker = -1;  // a shape entry the scan did not reach

// How many entries the scan found: those in front of the first marker.
int entries_found(const int *entries, int max)
{
    int found = 0;
    while (found < max && entries[found] != kMarker) found++;
    return found;
}

// "<path>: unsupported shape (2, 3)" with the entries as the file gives
// them, and a reason where there is more to say than the numbers.
void print_unsupported(Diagnostic *d, const char *path, const int *entries, int found, const char *reason)
{
    char text[128];
    int len = snprintf(text, sizeof text, "unsupported shape (");
    for (int i = 0; i < found; i++) len += snprintf(text + len, sizeof text - len, i == 0 ? "%d" : ", %d", entries[i]);
    snprintf(text + len, sizeof text - len, found == 1 ? ",)" : ")");
    if (reason) fail(d, path, "%s: %s", text, reason);
    else fail(d, path, "%s", text);
}

// Elements of a tensor of these dimensions, or -1 (after a message) when a
// dimension is negative or the count does not fit a signed 32-bit integer.
// The row stride w * c is an int of the record too: with h or n zero the
// count is 0 whatever w * c is, so that product is checked by itself.
int64_t checked_count(Diagnostic *d, const char *path, const int *entries, int found, int n, int w, int h, int c)
{
    if (n < 0 || w < 0 || h < 0 || c < 0) {
        print_unsupported(d, path, entries, found, nullptr);
        return -1;
    }
    const int64_t count = tensor_element_count(n, w, h, c);
    if (count < 0) print_unsupported(d, path, entries, found, "more than 2147483647 elements");
    return count;
}

}  // namespace

// Filter banks, float. Shapes: (h, w, c, n) with the filters fastest in the
// file, read by positions of all filters at once (the run path); (s0,) as
// one position of s0 channels; (s0, s1) transposed, row by row (the row path).
dl_matrix3d_t *npy::load_filter_bank(const char *path, Diagnostic *d)
{
    npy::File file;
    if (!npy::open(path, file, d)) return nullptr;

    int s[4] = {kMarker, kMarker, kMarker, kMarker};
    int *const entries[] = {&s[0], &s[1], &s[2], &s[3]};
    npy::scan_ints(file.shape, " (%d, %d, %d, %d)", entries);
    if (s[0] == kMarker) {
        fail(d, path, "error parsing shape");
        return nullptr;
    }
    const int found = entries_found(s, 4);
    int h = s[0], w = s[1], c = s[2], n = s[3];
    bool row_path = false;
    if (found == 1) {
        h = 1;
        w = 1;
        c = s[0];
        n = 1;
    } else if (found == 2) {
        h = s[1];
        w = s[0];
        c = 1;
        n = 1;
        row_path = true;
    }
    if (!d) fprintf(stderr, "filter %s: matrix shape:(%d, %d, %d, %d).\n", path, n, w, h, c);

    static const npy::Type kOrder[] = {npy::Type::f4, npy::Type::f8, npy::Type::i4, npy::Type::i8};
    const npy::Type type = npy::find_type(file.header, kOrder, 4);
    if (type == npy::Type::none) {
        fail(d, path, "Unknown var format");
        return nullptr;
    }
    if (found == 3) {
        print_unsupported(d, path, s, found, "a filter bank has 1, 2 or 4 entries");
        return nullptr;
    }
    const int64_t count = checked_count(d, path, s, found, n, w, h, c);
    if (count < 0) return nullptr;

    // A file too short for its shape: the run path fails at the read that
    // comes back short, so say so without allocating what the shape
    // promised. The row path goes on after a short row and hands back the
    // zero-filled tensor, but only while that tensor is no larger than the
    // whole file: a few bytes must not make it allocate gigabytes.
    const int64_t avail = npy::available(file, type);
    if (avail < count) {
        if (!row_path) {
            const int64_t read_index = avail / n;  // reads of n elements, y outermost
            fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(read_index / (w * c)), h);
            return nullptr;
        }
        if (count * static_cast<int64_t>(sizeof(fptp_t)) > file.file_bytes) {
            fail(d, path, "short file! (ends at row %d/%d), num: %d", static_cast<int>(avail / h), w,
                 static_cast<int>(avail % h));
            fail(d, path, "%lld of %lld elements missing, not loading", static_cast<long long>(count - avail),
                 static_cast<long long>(count));
            return nullptr;
        }
    }

    dl_matrix3d_t *t = dl_matrix3d_alloc(n, w, h, c);
    if (!t) return nullptr;
    if (count == 0) return t;
    bool read;
    if (row_path) {
        // File row r, column s is tensor row s, column r. A short row is
        // reported and its elements stay 0, also those that did arrive.
        read = read_groups(
            file, d, path, type, w, h,
            [&](int64_t r, const unsigned char *buf) {
                for (int col = 0; col < h; col++)
                    t->item[r + static_cast<int64_t>(w) * col] = npy::to_float(buf, type, col);
            },
            [&](int64_t r, size_t got) {
                fail(d, path, "short file! (ends at row %d/%d), num: %d", static_cast<int>(r), w,
                     static_cast<int>(got));
                return true;
            });
    } else {
        // One read per position (y, x, ch) fetches it for all filters; each
        // filter is stored whole.
        read = read_groups(
            file, d, path, type, static_cast<int64_t>(h) * w * c, n,
            [&](int64_t r, const unsigned char *buf) {
                const int64_t y = r / (static_cast<int64_t>(w) * c), x = r / c % w, ch = r % c;
                for (int i = 0; i < n; i++)
                    t->item[(static_cast<int64_t>(h) * i + y) * t->stride + c * x + ch] = npy::to_float(buf, type, i);
            },
            [&](int64_t r, size_t) {
                fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(r / (static_cast<int64_t>(w) * c)),
                     h);
                return false;
            });
    }
    if (!read) {
        dl_matrix3d_free(t);
        return nullptr;
    }
    return t;
}

dl_matrix2d_t *dl_matrix2d_from_numpy_file(const char *path) { return npy::load_matrix2d(path, nullptr); }

dl_matrix3d_t *dl_matrix3d_weight_from_numpy_file(const char *path) { return npy::load_filter_bank(path, nullptr); }

dl_matrix3du_t *dl_matrix3du_input_from_numpy_file(const char *path) { return npy::load_input(path, nullptr); }

dl_matrix3dq_t *dl_matrix3dq_weight_from_numpy_file(const char *path)
{
    dl_matrix3d_t *t = npy::load_filter_bank(path, nullptr);
    if (!t) return nullptr;
    dl_matrix3dq_t *q = dl_matrixq_from_matrix3d(t);
    dl_matrix3d_free(t);
    return q;
}

dl_matrix3du_t *npy::load_input(const char *path, Diagnostic *d)
{
    npy::File file;
    if (!npy::open(path, file, d)) return nullptr;

    int s[3] = {kMarker, kMarker, kMarker};
    int *const entries[] = {&s[0], &s[1], &s[2]};
    npy::scan_ints(file.shape, " (%d, %d, %d)", entries);
    const int h = s[0], w = s[1], c = s[2];
    if (h == kMarker) {
        fail(d, path, "error parsing shape");
        return nullptr;
    }
    if (!d) fprintf(stderr, "input %s: matrix shape:(%d, %d, %d).\n", path, w, h, c);

    // Of several descriptors the first of this order wins; only this loader
    // takes bytes.
    static const npy::Type kOrder[] = {npy::Type::f4, npy::Type::f8, npy::Type::u1, npy::Type::i4, npy::Type::i8};
    const npy::Type type = npy::find_type(file.header, kOrder, 5);
    if (type == npy::Type::none) {
        fail(d, path, "Unknown var format");
        return nullptr;
    }
    const int found = entries_found(s, 3);
    if (found < 3) {
        print_unsupported(d, path, s, found, "an input has 3 entries (height, width, channels)");
        return nullptr;
    }
    const int64_t count = checked_count(d, path, s, found, 1, w, h, c);
    if (count < 0) return nullptr;
    const int64_t avail = npy::available(file, type);
    if (avail < count) {
        const int64_t read_index = avail / c;  // reads of c elements, rows outermost
        fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(read_index / w), h);
        return nullptr;
    }

    dl_matrix3du_t *t = dl_matrix3du_alloc(1, w, h, c);
    if (!t) return nullptr;
    if (count == 0) return t;
    // The file's order is the tensor's: a straight copy, position by
    // position.
    const bool read = read_groups(
        file, d, path, type, static_cast<int64_t>(h) * w, c,
        [&](int64_t r, const unsigned char *buf) {
            for (int ch = 0; ch < c; ch++) t->item[static_cast<int64_t>(c) * r + ch] = npy::to_byte(buf, type, ch);
        },
        [&](int64_t r, size_t) {
            fail(d, path, "short file! (ends at row %d/%d)", static_cast<int>(r / w), h);
            return false;
        });
    if (!read) {
        dl_matrix3du_free(t);
        return nullptr;
    }
    return t;
}
