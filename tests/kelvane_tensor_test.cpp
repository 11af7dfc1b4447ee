#include <gtest/gtest.h>

#include <memory>

#include "emit.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

// The golden command-line cases hold whole tables of each mode; this one
// pins the line breaks: a full line closed by its newline, "};" right after
// it, one more item alone on a line, and no line for a table without items.
TEST(TensorTables, FixedPointItemsEightToALine)
{
    const struct {
        int n, w, h, c;
        const char *items;
    } cases[] = {
        {1, 3, 3, 1, "\t-4, -3, -2, -1, 0, 1, 2, 3, \n\t4, \n"},
        {2, 1, 2, 2, "\t-4, -3, -2, -1, 0, 1, 2, 3, \n"},
        {3, 0, 2, 2, ""},
    };
    for (const auto &k : cases) {
        std::unique_ptr<dl_matrix3dq_t, decltype(&dl_matrix3dq_free)> q(dl_matrix3dq_alloc(k.n, k.w, k.h, k.c, -7),
                                                                         dl_matrix3dq_free);
        for (int e = 0; e < k.n * k.w * k.h * k.c; e++) q->item[e] = static_cast<qtp_t>(e - 4);
        MemStream c;
        emit_matrix3dq("q", q.get(), c.get(), nullptr);
        EXPECT_EQ(c.str(), "const static qtp_t q_item_array[]={\n" + std::string(k.items) +
                               "};\n\nconst static dl_matrix3dq_t q={\n\t.w=" + std::to_string(k.w) + ",\n\t.h=" +
                               std::to_string(k.h) + ",\n\t.c=" + std::to_string(k.c) + ",\n\t.n=" +
                               std::to_string(k.n) + ",\n\t.stride=" + std::to_string(k.w * k.c) +
                               ",\n\t.exponent=-7,\n\t.item=(qtp_t *)(&q_item_array[0])\n};\n")
            << k.n << " filters";
    }
}

}  // namespace
