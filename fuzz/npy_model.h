// An independent reading of a .npy file as the loaders are meant to see it,
// written from the format and the C library's sscanf rather than from the
// loaders' code: the harnesses compare every load with it.
#ifndef KELVANE_FUZZ_NPY_MODEL_H
#define KELVANE_FUZZ_NPY_MODEL_H

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

enum class Elem { none, f4, f8, i4, i8, u1 };

inline int elem_width(Elem e)
{
    switch (e) {
    case Elem::f4:
    case Elem::i4: return 4;
    case Elem::f8:
    case Elem::i8: return 8;
    case Elem::u1: return 1;
    case Elem::none: break;
    }
    return 0;
}

inline const char *elem_descr(Elem e)
{
    switch (e) {
    case Elem::f4: return "'<f4'";
    case Elem::f8: return "'<f8'";
    case Elem::i4: return "'<i4'";
    case Elem::i8: return "'<i8'";
    case Elem::u1: return "'|u1'";
    case Elem::none: break;
    }
    return "";
}

struct NpyFile {
    // How far the opening steps get; the message each failure prints.
    enum Stage { too_short, bad_magic, no_shape, opened } stage = too_short;
    std::string header;     // the text searched: what arrived of the header, up to a NUL
    std::string shape;      // the text behind "'shape':"
    std::string_view data;  // the bytes behind the header; empty if the header was cut short
};

inline NpyFile read_npy(const uint8_t *bytes, size_t size)
{
    NpyFile f;
    if (size < 10) return f;
    static const uint8_t kMagic[6] = {0x93, 'N', 'U', 'M', 'P', 'Y'};
    if (memcmp(bytes, kMagic, 6) != 0) {
        f.stage = NpyFile::bad_magic;
        return f;
    }
    const size_t len = bytes[8] | (static_cast<size_t>(bytes[9]) << 8);
    const size_t got = std::min(len, size - 10);
    f.header.assign(reinterpret_cast<const char *>(bytes) + 10, got);
    f.header.resize(strlen(f.header.c_str()));
    const size_t key = f.header.find("'shape':");
    if (key == std::string::npos) {
        f.stage = NpyFile::no_shape;
        return f;
    }
    f.stage = NpyFile::opened;
    f.shape = f.header.substr(key + 8);
    if (got == len) f.data = std::string_view(reinterpret_cast<const char *>(bytes) + 10 + len, size - 10 - len);
    return f;
}

// The entries of a shape text scanned with a format of blanks, "%d" and
// literal characters, the way sscanf reads it; entries not reached stay -1.
// sscanf leaves a number beyond int undefined: here it ends the scan, as
// any other mismatch.
inline std::vector<int> scan_shape(const std::string &text, const char *format, int entries)
{
    std::string wide;
    for (const char *p = format; *p; p++) {
        if (p[0] == '%' && p[1] == 'd') {
            wide += "%lld";
            p++;
        } else {
            wide += *p;
        }
    }
    long long v[4] = {-1, -1, -1, -1};
    int n = sscanf(text.c_str(), wide.c_str(), &v[0], &v[1], &v[2], &v[3]);
    std::vector<int> out(entries, -1);
    for (int i = 0; i < n && i < entries; i++) {
        if (v[i] < INT32_MIN || v[i] > INT32_MAX) break;
        out[i] = static_cast<int>(v[i]);
    }
    return out;
}

// The first descriptor of order, with its quotes, that the header holds.
inline Elem find_elem(const std::string &header, std::initializer_list<Elem> order)
{
    for (Elem e : order)
        if (header.find(elem_descr(e)) != std::string::npos) return e;
    return Elem::none;
}

// Element i of the data as the file stores it, little-endian.
template <class T>
T element(std::string_view data, int64_t i)
{
    uint64_t bits = 0;
    for (size_t b = 0; b < sizeof(T); b++)
        bits |= static_cast<uint64_t>(static_cast<uint8_t>(data[i * sizeof(T) + b])) << (8 * b);
    T v;
    memcpy(&v, &bits, sizeof v);
    return v;
}

// Element i as a float: floats bit for bit, the others rounded to nearest.
inline float as_float(std::string_view data, Elem e, int64_t i)
{
    switch (e) {
    case Elem::f4: return element<float>(data, i);
    case Elem::f8: return static_cast<float>(element<double>(data, i));
    case Elem::i4: return static_cast<float>(element<int32_t>(data, i));
    case Elem::i8: return static_cast<float>(element<int64_t>(data, i));
    case Elem::u1: return static_cast<float>(element<uint8_t>(data, i));
    case Elem::none: break;
    }
    return 0;
}

// Element i as a byte of an input tensor: floats truncated toward zero to a
// 32-bit integer (0 when it has none), then the low 8 bits.
inline uint8_t as_byte(std::string_view data, Elem e, int64_t i)
{
    auto truncated = [](double v) -> int32_t {
        if (!(v > -2147483649.0 && v < 2147483648.0)) return 0;
        return static_cast<int32_t>(v);
    };
    switch (e) {
    case Elem::f4: return static_cast<uint8_t>(truncated(element<float>(data, i)));
    case Elem::f8: return static_cast<uint8_t>(truncated(element<double>(data, i)));
    case Elem::i4: return static_cast<uint8_t>(element<int32_t>(data, i));
    case Elem::i8: return static_cast<uint8_t>(element<int64_t>(data, i));
    case Elem::u1: return element<uint8_t>(data, i);
    case Elem::none: break;
    }
    return 0;
}

// The same float, or both not a number.
inline bool same_float(float a, float b)
{
    if (std::isnan(a) && std::isnan(b)) return true;
    uint32_t x, y;
    memcpy(&x, &a, 4);
    memcpy(&y, &b, 4);
    return x == y;
}

// The message of a failed opening step, behind "<path>: ".
inline const char *opening_failure(NpyFile::Stage s)
{
    switch (s) {
    case NpyFile::too_short: return "too short";
    case NpyFile::bad_magic: return "invalid magic";
    case NpyFile::no_shape: return "no shape";
    case NpyFile::opened: break;
    }
    return "";
}

}  // namespace fuzz

#endif
