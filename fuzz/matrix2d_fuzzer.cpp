// dl_matrix2d_from_numpy_file on arbitrary bytes: the result must be what
// the header promises and the data holds, every message must begin with the
// file's name, and a refusal must say why.
#include <string>

#include "dl_lib.h"
#include "fuzz_util.h"
#include "npy_model.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = scratch_dir() + "/m.npy";
    write_file(path, {reinterpret_cast<const char *>(data), size});
    dl_matrix2d_t *m = nullptr;
    const Captured printed = capture([&] { m = dl_matrix2d_from_numpy_file(path.c_str()); });

    FUZZ_CHECK(printed.out.empty(), "stdout: %s", printed.out.c_str());
    for (std::string_view line : lines(printed.err))
        FUZZ_CHECK(starts_with(line, path + ": "), "message without the file's name: %.*s",
                   static_cast<int>(line.size()), line.data());

    // What the loader should have done.
    const NpyFile f = read_npy(data, size);
    std::string reason;
    int h = -1, w = -1;
    Elem type = Elem::none;
    if (f.stage != NpyFile::opened) {
        reason = opening_failure(f.stage);
    } else {
        const std::vector<int> s = scan_shape(f.shape, " ( %d , %d )", 2);
        h = s[0];
        w = s[1];
        if (w == -1) {  // one entry: a single row
            w = h;
            h = 1;
        }
        // Of several descriptors the last in the order f4, f8, i4, i8 wins.
        type = find_elem(f.header, {Elem::i8, Elem::i4, Elem::f8, Elem::f4});
        if (s[0] == -1) reason = "error parsing shape";
        else if (type == Elem::none) reason = "Unknown var format";
        else if (h < 0 || w < 0 || static_cast<int64_t>(h) * w > INT32_MAX) reason = "unsupported shape";
        else if (static_cast<int64_t>(f.data.size()) / elem_width(type) < static_cast<int64_t>(h) * w)
            reason = "short file! (ends at row ";
    }

    if (!reason.empty()) {
        FUZZ_CHECK(m == nullptr, "loaded %d x %d, expected a refusal: %s", m->h, m->w, reason.c_str());
        const std::vector<std::string_view> l = lines(printed.err);
        FUZZ_CHECK(!l.empty() && starts_with(l.back(), path + ": " + reason), "expected \"%s\", printed: %s",
                   reason.c_str(), printed.err.c_str());
        return 0;
    }
    FUZZ_CHECK(m != nullptr, "refused a (%d, %d) matrix: %s", h, w, printed.err.c_str());
    const std::string size_line = path + ": matrix of " + std::to_string(h) + " by " + std::to_string(w) + ".\n";
    FUZZ_CHECK(printed.err == size_line, "printed: %s", printed.err.c_str());
    FUZZ_CHECK(m->w == w && m->h == h && m->stride == w && m->flags == 0,
               "shape %d x %d stride %d flags %u, expected %d x %d", m->h, m->w, m->stride, m->flags, h, w);
    for (int64_t i = 0; i < static_cast<int64_t>(h) * w; i++) {
        const float expected = as_float(f.data, type, i);
        FUZZ_CHECK(same_float(m->item[i], expected), "item %lld is %a, expected %a", static_cast<long long>(i),
                   static_cast<double>(m->item[i]), static_cast<double>(expected));
    }
    dl_matrix_free(m);
    return 0;
}
