// dl_matrix3dq_weight_from_numpy_file on arbitrary bytes: the result must be
// the quantiser's answer for the filter bank that the file holds (the float
// loader's checks, then one step), or a refusal that says why.
#include "dl_lib.h"
#include "dl_lib_tensor.h"
#include "filter_bank_model.h"

using namespace fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string path = scratch_dir() + "/wq.npy";
    write_file(path, {reinterpret_cast<const char *>(data), size});
    dl_matrix3dq_t *q = nullptr;
    const Captured printed = capture([&] { q = dl_matrix3dq_weight_from_numpy_file(path.c_str()); });
    FUZZ_CHECK(printed.out.empty(), "stdout: %s", printed.out.c_str());

    const FilterBank b = expected_filter_bank(data, size);
    check_filter_messages(printed.err, path, b, b.n, b.w, b.h, b.c);
    if (!b.reason.empty()) {
        FUZZ_CHECK(q == nullptr, "loaded, expected a refusal: %s", b.reason.c_str());
        const std::vector<std::string_view> l = lines(printed.err);
        FUZZ_CHECK(!l.empty() && starts_with(l.back(), path + ": " + b.reason), "expected \"%s\", printed: %s",
                   b.reason.c_str(), printed.err.c_str());
        return 0;
    }
    FUZZ_CHECK(q != nullptr, "refused (%d, %d, %d, %d): %s", b.n, b.w, b.h, b.c, printed.err.c_str());
    dl_matrix3d_t *t = dl_matrix3d_alloc(b.n, b.w, b.h, b.c);
    for (size_t i = 0; i < b.item.size(); i++) t->item[i] = b.item[i];
    dl_matrix3dq_t *want = dl_matrixq_from_matrix3d(t);
    FUZZ_CHECK(q->n == b.n && q->w == b.w && q->h == b.h && q->c == b.c && q->stride == want->stride,
               "fields n %d w %d h %d c %d stride %d, expected (%d, %d, %d, %d)", q->n, q->w, q->h, q->c, q->stride,
               b.n, b.w, b.h, b.c);
    FUZZ_CHECK(q->exponent == want->exponent, "exponent %d, expected %d", q->exponent, want->exponent);
    for (size_t i = 0; i < b.item.size(); i++)
        FUZZ_CHECK(q->item[i] == want->item[i], "item %zu is %d, expected %d", i, q->item[i], want->item[i]);
    dl_matrix3dq_free(want);
    dl_matrix3d_free(t);
    dl_matrix3dq_free(q);
    return 0;
}
