#include "dl_lib_numpy_input.h"

#include <sys/stat.h>

#include "dl_lib_internal.h"
#include "dl_lib_matrix.h"
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

int width(Type t)
{
    const Descriptor *d = descriptor(t);
    return d ? d->width : 0;
}

File::~File()
{
    if (f) fclose(f);
    free(header);
}

bool open(const char *path, File &file)
{
    file.f = fopen(path, "r");
    if (!file.f) {
        perror(path);
        return false;
    }
    unsigned char prefix[10];
    if (fread(prefix, sizeof prefix, 1, file.f) != 1) {
        fprintf(stderr, "%s: too short\n", path);
        return false;
    }
    static const unsigned char kMagic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
    if (memcmp(prefix, kMagic, sizeof kMagic) != 0) {
        fprintf(stderr, "%s: invalid magic\n", path);
        return false;
    }
    // Only the version 1.0 layout: a 16-bit little-endian header length at
    // offset 8, whatever the version bytes say.
    const size_t len = prefix[8] | (static_cast<size_t>(prefix[9]) << 8);
    file.header = static_cast<char *>(calloc(len + 1, 1));
    if (!file.header) {
        fprintf(stderr, "%s: out of memory\n", path);
        return false;
    }
    // A header cut short by the end of the file is searched as far as it
    // arrived; the zeroed buffer terminates it.
    const size_t got = fread(file.header, 1, len, file.f);
    const char *key = strstr(file.header, "'shape':");
    if (!key) {
        fprintf(stderr, "%s: no shape\n", path);
        return false;
    }
    file.shape = key + 8;
    struct stat st;
    if (fstat(fileno(file.f), &st) == 0 && S_ISREG(st.st_mode)) {
        const int64_t left = static_cast<int64_t>(st.st_size) - static_cast<int64_t>(sizeof prefix + got);
        file.data_bytes = left > 0 ? left : 0;
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

}  // namespace dl::npy

using namespace dl;

dl_matrix2d_t *dl_matrix2d_from_numpy_file(const char *path)
{
    npy::File file;
    if (!npy::open(path, file)) return nullptr;

    int s0 = -1, s1 = -1;
    int *const entries[] = {&s0, &s1};
    npy::scan_ints(file.shape, " ( %d , %d )", entries);
    if (s0 == -1) {
        fprintf(stderr, "%s: error parsing shape\n", path);
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
    fprintf(stderr, "%s: matrix of %d by %d.\n", path, h, w);
    if (type == npy::Type::none) {
        fprintf(stderr, "%s: Unknown var format\n", path);
        return nullptr;
    }
    const int64_t count = static_cast<int64_t>(h) * w;
    if (h < 0 || w < 0 || count > INT32_MAX) {
        fprintf(stderr, "%s: unsupported shape (%d, %d)\n", path, h, w);
        return nullptr;
    }
    // A file too short for its shape fails at the first row it cannot fill;
    // say so without allocating what the shape promised.
    const int64_t avail = npy::available(file, type);
    if (avail < count) {
        fprintf(stderr, "%s: short file! (ends at row %d/%d)\n", path, static_cast<int>(avail / w), h);
        return nullptr;
    }

    dl_matrix2d_t *m = dl_matrix_alloc(w, h);
    // A shape with a zero entry has nothing to read: no row buffer sized by
    // the other entry, and no empty reads counted by it.
    if (m && count == 0) return m;
    const int elem = npy::width(type);
    auto *row = static_cast<unsigned char *>(malloc(static_cast<size_t>(w) * elem + 1));
    if (!m || !row) {
        fprintf(stderr, "%s: out of memory\n", path);
        dl_matrix_free(m);
        free(row);
        return nullptr;
    }
    for (int y = 0; y < h; y++) {
        if (fread(row, elem, w, file.f) != static_cast<size_t>(w)) {
            fprintf(stderr, "%s: short file! (ends at row %d/%d)\n", path, y, h);
            dl_matrix_free(m);
            free(row);
            return nullptr;
        }
        for (int x = 0; x < w; x++) m->item[y * m->stride + x] = npy::to_float(row, type, x);
    }
    free(row);
    return m;
}
