#include <gtest/gtest.h>

#include <memory>

#include "emit.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

// The golden command-line cases hold whole tables of each mode, with a short
// last line and without items; this one pins a table of exactly one full
// line: its newline, then "};" at once.
TEST(TensorTables, FixedPointTableOfOneFullLine)
{
    std::unique_ptr<dl_matrix3dq_t, decltype(&dl_matrix3dq_free)> q(dl_matrix3dq_alloc(2, 1, 2, 2, -7),
                                                                     dl_matrix3dq_free);
    for (int e = 0; e < 8; e++) q->item[e] = static_cast<qtp_t>(e - 4);
    MemStream c;
    emit_matrix3dq("q", q.get(), c.get(), nullptr);
    EXPECT_EQ(c.str(), "const static qtp_t q_item_array[]={\n\t-4, -3, -2, -1, 0, 1, 2, 3, \n};\n\n"
                       "const static dl_matrix3dq_t q={\n\t.w=1,\n\t.h=2,\n\t.c=2,\n\t.n=2,\n\t.stride=2,\n"
                       "\t.exponent=-7,\n\t.item=(qtp_t *)(&q_item_array[0])\n};\n");
}

}  // namespace
