// dl_matrix3du_input_from_numpy_file on arbitrary bytes: the input tensor
// must have the fields the header promises and every byte converted from
// the file element at the same place, or the refusal must say why; every
// message names the file.
#include "dl_lib.h"
#include "dl_lib_tensor.h"
#include "fuzz_util.h"
#include "npy_model.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = scratch_dir() + "/in.npy";
    write_file(path, {reinterpret_cast<const char *>(data), size});
    dl_matrix3du_t *t = nullptr;
    const Captured printed = capture([&] { t = dl_matrix3du_input_from_numpy_file(path.c_str()); });
    FUZZ_CHECK(printed.out.empty(), "stdout: %s", printed.out.c_str());
    const std::vector<std::string_view> l = lines(printed.err);
    for (std::string_view line : l)
        FUZZ_CHECK(starts_with(line, path + ": ") || starts_with(line, "input " + path + ": "),
                   "message without the file's name: %.*s", static_cast<int>(line.size()), line.data());

    // What the loader should have done.
    const NpyFile f = read_npy(data, size);
    std::string reason;
    int h = -1, w = -1, c = -1;
    Elem type = Elem::none;
    if (f.stage != NpyFile::opened) {
        reason = opening_failure(f.stage);
    } else {
        const std::vector<int> s = scan_shape(f.shape, " (%d, %d, %d)", 3);
        h = s[0];
        w = s[1];
        c = s[2];
        type = find_elem(f.header, {Elem::f4, Elem::f8, Elem::u1, Elem::i4, Elem::i8});
        // Three entries of up to 2^31 each: the product needs more than 64 bits.
        const __int128 count = static_cast<__int128>(h) * w * c;
        if (h == -1) reason = "error parsing shape";
        else if (type == Elem::none) reason = "Unknown var format";
        else if (w < 0 || h < 0 || c < 0 || count > INT32_MAX || static_cast<int64_t>(w) * c > INT32_MAX)
            reason = "unsupported shape";  // -1: an entry not found
        else if (static_cast<int64_t>(f.data.size()) / elem_width(type) < count) reason = "short file! (ends at row ";
        if (h != -1) {
            const std::string shape_line = "input " + path + ": matrix shape:(" + std::to_string(w) + ", " +
                                           std::to_string(h) + ", " + std::to_string(c) + ").";
            FUZZ_CHECK(!l.empty() && l[0] == shape_line, "expected \"%s\", printed: %s", shape_line.c_str(),
                       printed.err.c_str());
        }
    }
    if (!reason.empty()) {
        FUZZ_CHECK(t == nullptr, "loaded, expected a refusal: %s", reason.c_str());
        FUZZ_CHECK(!l.empty() && starts_with(l.back(), path + ": " + reason), "expected \"%s\", printed: %s",
                   reason.c_str(), printed.err.c_str());
        return 0;
    }
    FUZZ_CHECK(t != nullptr, "refused (%d, %d, %d): %s", h, w, c, printed.err.c_str());
    FUZZ_CHECK(l.size() == 1, "printed: %s", printed.err.c_str());
    FUZZ_CHECK(t->n == 1 && t->w == w && t->h == h && t->c == c && t->stride == w * c,
               "fields n %d w %d h %d c %d stride %d, expected (%d, %d, %d)", t->n, t->w, t->h, t->c, t->stride, h, w,
               c);
    for (int64_t i = 0; i < static_cast<int64_t>(h) * w * c; i++) {
        const uint8_t expected = as_byte(f.data, type, i);
        FUZZ_CHECK(t->item[i] == expected, "item %lld is %d, expected %d", static_cast<long long>(i), t->item[i],
                   expected);
    }
    dl_matrix3du_free(t);
    return 0;
}
