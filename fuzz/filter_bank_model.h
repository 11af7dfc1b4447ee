// What the two weight loaders should make of a file: the float filter bank,
// element by element, or the reason for refusing it. Shared by the harnesses
// of the float and the quantised loader.
#ifndef KELVANE_FUZZ_FILTER_BANK_MODEL_H
#define KELVANE_FUZZ_FILTER_BANK_MODEL_H

#include <string>
#include <vector>

#include "fuzz_util.h"
#include "npy_model.h"

namespace fuzz {

struct FilterBank {
    std::string reason;  // the start of the last message of a refusal; empty when it loads
    bool printed_shape = false;
    int n = -1, w = -1, h = -1, c = -1;
    std::vector<float> item;  // in the tensor's order: filter, row, column, channel
};

inline FilterBank expected_filter_bank(const uint8_t *data, size_t size)
{
    FilterBank b;
    const NpyFile f = read_npy(data, size);
    if (f.stage != NpyFile::opened) {
        b.reason = opening_failure(f.stage);
        return b;
    }
    const std::vector<int> s = scan_shape(f.shape, " (%d, %d, %d, %d)", 4);
    if (s[0] == -1) {
        b.reason = "error parsing shape";
        return b;
    }
    int found = 0;
    while (found < 4 && s[found] != -1) found++;
    bool rows = false;  // a two-entry shape is read row by row and transposed
    if (found == 1) {
        b.h = b.w = b.n = 1;
        b.c = s[0];
    } else if (found == 2) {
        b.h = s[1];
        b.w = s[0];
        b.c = b.n = 1;
        rows = true;
    } else {
        b.h = s[0];
        b.w = s[1];
        b.c = s[2];
        b.n = s[3];
    }
    b.printed_shape = true;
    // Of several descriptors the first in this order wins.
    const Elem type = find_elem(f.header, {Elem::f4, Elem::f8, Elem::i4, Elem::i8});
    if (type == Elem::none) {
        b.reason = "Unknown var format";
        return b;
    }
    // Four entries of up to 2^31 each: the product needs more than 64 bits.
    const __int128 wide = static_cast<__int128>(b.n) * b.w * b.h * b.c;
    // The row stride w * c must fit an int too, also in a tensor without
    // elements.
    if (found == 3 || b.n < 0 || b.w < 0 || b.h < 0 || b.c < 0 || wide > INT32_MAX ||
        static_cast<int64_t>(b.w) * b.c > INT32_MAX) {
        b.reason = "unsupported shape";
        return b;
    }
    const int64_t count = static_cast<int64_t>(wide);
    const int64_t avail = static_cast<int64_t>(f.data.size()) / elem_width(type);
    if (avail < count) {
        // A row-by-row read goes on past short rows, unless the tensor would
        // take more memory than the whole file.
        if (!rows) {
            b.reason = "short file! (ends at row ";
            return b;
        }
        if (count * 4 > static_cast<int64_t>(size)) {
            b.reason = std::to_string(count - avail) + " of " + std::to_string(count) + " elements missing";
            return b;
        }
    }
    b.item.assign(count, 0.0f);
    if (count == 0) return b;
    if (rows) {
        // File row r, column s becomes tensor row s, column r; a row that
        // does not arrive whole stays 0.
        for (int r = 0; r < b.w; r++) {
            if (static_cast<int64_t>(r + 1) * b.h > avail) break;
            for (int col = 0; col < b.h; col++)
                b.item[r + static_cast<int64_t>(b.w) * col] =
                    as_float(f.data, type, static_cast<int64_t>(r) * b.h + col);
        }
        return b;
    }
    // The filters run fastest in the file; each is stored whole.
    for (int64_t e = 0; e < count; e++) {
        const int64_t i = e % b.n, pos = e / b.n;
        const int64_t ch = pos % b.c, x = pos / b.c % b.w, y = pos / b.c / b.w;
        b.item[((static_cast<int64_t>(b.h) * i + y) * b.w + x) * b.c + ch] = as_float(f.data, type, e);
    }
    return b;
}

// The shape line, then at most a reason: each line must name the file.
inline void check_filter_messages(const std::string &err, const std::string &path, const FilterBank &b, int n, int w,
                                  int h, int c)
{
    const std::vector<std::string_view> l = lines(err);
    for (std::string_view line : l)
        FUZZ_CHECK(starts_with(line, path + ": ") || starts_with(line, "filter " + path + ": "),
                   "message without the file's name: %.*s", static_cast<int>(line.size()), line.data());
    if (!b.printed_shape) return;
    const std::string shape_line = "filter " + path + ": matrix shape:(" + std::to_string(n) + ", " +
                                   std::to_string(w) + ", " + std::to_string(h) + ", " + std::to_string(c) + ").";
    FUZZ_CHECK(!l.empty() && l[0] == shape_line, "expected \"%s\", printed: %s", shape_line.c_str(), err.c_str());
}

}  // namespace fuzz

#endif
