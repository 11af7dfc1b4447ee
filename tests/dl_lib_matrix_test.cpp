#include <gtest/gtest.h>

#include <vector>

#include "dl_lib.h"
#include "test_util.h"

using namespace testutil;

namespace {

TEST(MatrixRecord, AllocIsZeroedAndOwning)
{
    MatrixPtr m = own(dl_matrix_alloc(3, 2));
    EXPECT_EQ(m->stride, 3);
    EXPECT_EQ(m->flags, 0u);
    EXPECT_EQ(items_of(m.get()), std::vector<float>(6, 0.0f));
}

TEST(MatrixRecord, ViewsWriteThroughAndFreeLeavesSource)
{
    MatrixPtr src = matrix(4, 3, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    dl_matrix2d_t *v = dl_matrix_slice(src.get(), 1, 1, 3, 2, nullptr);  // ends at the right edge
    EXPECT_EQ(v->stride, 4);
    EXPECT_EQ(v->flags, DL_MF_FOREIGNDATA);
    dl_matrix_zero(v);
    EXPECT_EQ(items_of(src.get()), (std::vector<float>{0, 1, 2, 3, 4, 0, 0, 0, 8, 0, 0, 0}));

    // A view of a view, reusing the record; then flattened densely, and into
    // a given record of another shape.
    dl_matrix_slice(src.get(), 0, 0, 4, 3, v);
    dl_matrix2d_t *vv = dl_matrix_slice(v, 1, 0, 2, 3, nullptr);
    MatrixPtr flat = own(dl_matrix_flatten(vv, 0, 1, 2, 2, nullptr));
    EXPECT_EQ(std::tuple(flat->w, flat->h, flat->stride), std::tuple(4, 1, 4));
    EXPECT_EQ(items_of(flat.get()), (std::vector<float>{0, 0, 0, 0}));
    MatrixPtr into = own(dl_matrix_alloc(1, 4));
    EXPECT_EQ(dl_matrix_flatten(v, 1, 0, 2, 2, into.get()), into.get());
    EXPECT_EQ(std::tuple(into->w, into->h, into->stride), std::tuple(1, 4, 4));
    EXPECT_EQ(items_of(into.get()), (std::vector<float>{1, 2, 0, 0}));
    dl_matrix_free(vv);
    dl_matrix_free(v);
    EXPECT_EQ(src->item[3], 3.0f);

    dl_matrix2d_t *empty = dl_matrix_slice(src.get(), 4, 3, 0, 0, nullptr);
    EXPECT_EQ(empty->w, 0);
    dl_matrix_free(empty);
}

TEST(MatrixRecord, FromDataAndFlip)
{
    float data[3] = {1, 2, 3};
    dl_matrix2d_t *m = dl_matrix_from_data(3, 1, 3, data);
    EXPECT_EQ(m->flags, DL_MF_FOREIGNDATA);
    dl_matrix_flip(m);
    EXPECT_EQ(std::tuple(m->w, m->h, m->stride), std::tuple(1, 3, 1));
    dl_matrix2d_t *view = dl_matrix_slice(m, 0, 1, 1, 2, dl_matrix_from_data(0, 0, 0, nullptr));
    EXPECT_EQ(view->item[0], 2.0f);
    dl_matrix_free(view);
    dl_matrix_free(m);
    dl_matrix_free(nullptr);
    EXPECT_EQ(data[2], 3.0f);
}

TEST(MatrixRecord, SameShapeIgnoresStrideAndPrints)
{
    float data[8] = {};
    dl_matrix2d_t a = {2, 2, 2, DL_MF_FOREIGNDATA, data}, b = {2, 2, 4, DL_MF_FOREIGNDATA, data};
    dl_matrix2d_t c = {2, 3, 2, DL_MF_FOREIGNDATA, data};
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_matrix_same_shape(&a, &b), 1);
    EXPECT_EQ(dl_matrix_same_shape(&a, &c), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "dl_matrix_same_shape: Matrices not the same shape! a: 2 x 2, b: 2 x 3\n");

    MatrixPtr m = matrix(2, 1, {1, 2});
    MatrixPtr none = own(dl_matrix_alloc(2, 0));
    testing::internal::CaptureStdout();
    dl_printmatrix(m.get());
    dl_printmatrix(none.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a->w: 2, a->h: 1\n1.000000\t2.000000\t\n\na->w: 2, a->h: 0\n");
}

}  // namespace
