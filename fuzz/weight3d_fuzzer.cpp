// dl_matrix3d_weight_from_numpy_file on arbitrary bytes: the filter bank
// must have the fields the header promises and every element where the
// permutation of the file puts it, or the refusal must say why; every
// message names the file.
#include "dl_lib.h"
#include "dl_lib_tensor.h"
#include "filter_bank_model.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = scratch_dir() + "/w.npy";
    write_file(path, {reinterpret_cast<const char *>(data), size});
    dl_matrix3d_t *t = nullptr;
    const Captured printed = capture([&] { t = dl_matrix3d_weight_from_numpy_file(path.c_str()); });
    FUZZ_CHECK(printed.out.empty(), "stdout: %s", printed.out.c_str());

    const FilterBank b = expected_filter_bank(data, size);
    check_filter_messages(printed.err, path, b, b.n, b.w, b.h, b.c);
    if (!b.reason.empty()) {
        FUZZ_CHECK(t == nullptr, "loaded, expected a refusal: %s", b.reason.c_str());
        const std::vector<std::string_view> l = lines(printed.err);
        FUZZ_CHECK(!l.empty() && starts_with(l.back(), path + ": " + b.reason), "expected \"%s\", printed: %s",
                   b.reason.c_str(), printed.err.c_str());
        return 0;
    }
    FUZZ_CHECK(t != nullptr, "refused (%d, %d, %d, %d): %s", b.n, b.w, b.h, b.c, printed.err.c_str());
    FUZZ_CHECK(t->n == b.n && t->w == b.w && t->h == b.h && t->c == b.c && t->stride == b.w * b.c,
               "fields n %d w %d h %d c %d stride %d, expected (%d, %d, %d, %d)", t->n, t->w, t->h, t->c, t->stride,
               b.n, b.w, b.h, b.c);
    for (size_t i = 0; i < b.item.size(); i++)
        FUZZ_CHECK(same_float(t->item[i], b.item[i]), "item %zu is %a, expected %a", i, static_cast<double>(t->item[i]),
                   static_cast<double>(b.item[i]));
    dl_matrix3d_free(t);
    return 0;
}
