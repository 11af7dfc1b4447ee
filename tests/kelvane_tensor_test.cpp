#include <gtest/gtest.h>

#include <memory>

#include "emit.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

template <class T, void (*Free)(T *)>
struct Freer {
    void operator()(T *t) const { Free(t); }
};

// Element e of the storage holds e + 1, so the table shows the walk.
std::unique_ptr<dl_matrix3d_t, Freer<dl_matrix3d_t, dl_matrix3d_free>> counting(int n, int w, int h, int c)
{
    std::unique_ptr<dl_matrix3d_t, Freer<dl_matrix3d_t, dl_matrix3d_free>> t(dl_matrix3d_alloc(n, w, h, c));
    for (int e = 0; e < n * w * h * c; e++) t->item[e] = static_cast<float>(e + 1) / 2;
    return t;
}

TEST(TensorTables, FloatFilterBankInStorageOrder)
{
    // Filter, column, channel: (0,0,0) (0,0,1) (0,1,0) (0,1,1) (1,0,0) ...
    auto t = counting(2, 2, 1, 2);
    MemStream c;
    emit_matrix3d("f", t.get(), c.get(), nullptr);
    EXPECT_EQ(c.str(),
              "const static fptp_t f_item_array[]={\n"
              "\t0.500000f, 1.000000f, 1.500000f, 2.000000f, 2.500000f, 3.000000f, 3.500000f, 4.000000f, \n"
              "};\n\nconst static dl_matrix3d_t f={\n\t.w=2,\n\t.h=1,\n\t.c=2,\n\t.n=2,\n\t.stride=4,\n"
              "\t.item=(fptp_t *)(&f_item_array[0])\n};\n");
}

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
        std::unique_ptr<dl_matrix3dq_t, Freer<dl_matrix3dq_t, dl_matrix3dq_free>> q(
            dl_matrix3dq_alloc(k.n, k.w, k.h, k.c, -7));
        for (int e = 0; e < k.n * k.w * k.h * k.c; e++) q->item[e] = static_cast<qtp_t>(e - 4);
        MemStream c;
        emit_matrix3dq("q", q.get(), c.get(), nullptr);
        EXPECT_EQ(c.str(), std::string("const static qtp_t q_item_array[]={\n") + k.items +
                               "};\n\nconst static dl_matrix3dq_t q={\n\t.w=" + std::to_string(k.w) +
                               ",\n\t.h=" + std::to_string(k.h) + ",\n\t.c=" + std::to_string(k.c) + ",\n\t.n=" +
                               std::to_string(k.n) + ",\n\t.stride=" + std::to_string(k.w * k.c) +
                               ",\n\t.exponent=-7,\n\t.item=(qtp_t *)(&q_item_array[0])\n};\n")
            << k.n << " filters";
    }
}

TEST(TensorTables, InputWritesOneImageAsBytes)
{
    // Two items in the record: the table holds the first image only, and
    // .n= says what the record says.
    std::unique_ptr<dl_matrix3du_t, Freer<dl_matrix3du_t, dl_matrix3du_free>> u(dl_matrix3du_alloc(2, 1, 2, 3));
    const int values[] = {0, 255, 128, 7, 1, 200, 9, 9, 9, 9, 9, 9};
    for (int e = 0; e < 12; e++) u->item[e] = static_cast<uc_t>(values[e]);
    MemStream c;
    emit_matrix3d_input("img", u.get(), c.get(), nullptr);
    EXPECT_EQ(c.str(),
              "const static uc_t img_item_array[]={\n\t0, 255, 128, 7, 1, 200, \n};\n\n"
              "const static dl_matrix3du_t img={\n\t.w=1,\n\t.h=2,\n\t.c=3,\n\t.n=2,\n\t.stride=3,\n"
              "\t.item=(uc_t *)(&img_item_array[0])\n};\n");
}

}  // namespace
