#include <gtest/gtest.h>

#include "dl_lib.h"
#include "test_util.h"

using namespace testutil;

namespace {

TEST(MatrixRecord, AllocIsZeroedAndOwning)
{
    MatrixPtr m = own(dl_matrix_alloc(3, 2));
    EXPECT_EQ(m->stride, 3);
    EXPECT_EQ(m->flags, 0u);
    for (int i = 0; i < 6; i++) EXPECT_EQ(m->item[i], 0.0f);
}

TEST(MatrixRecord, ViewsWriteThroughAndFreeLeavesSource)
{
    MatrixPtr src = matrix(4, 3, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    dl_matrix2d_t *v = dl_matrix_slice(src.get(), 1, 1, 3, 2, nullptr);  // ends at the right edge
    EXPECT_EQ(v->stride, 4);
    EXPECT_EQ(v->flags, DL_MF_FOREIGNDATA);
    EXPECT_EQ(v->item[0], 5.0f);
    dl_matrix_zero(v);
    const float want[] = {0, 1, 2, 3, 4, 0, 0, 0, 8, 0, 0, 0};
    for (int i = 0; i < 12; i++) EXPECT_EQ(src->item[i], want[i]) << i;

    // A view of a view, reusing the record; then flatten it densely.
    dl_matrix_slice(src.get(), 0, 0, 4, 3, v);
    dl_matrix2d_t *vv = dl_matrix_slice(v, 2, 0, 2, 3, nullptr);
    MatrixPtr flat = own(dl_matrix_flatten(vv, 0, 1, 2, 2, nullptr));
    EXPECT_EQ(flat->w, 4);
    EXPECT_EQ(flat->h, 1);
    EXPECT_EQ(flat->stride, 4);
    const float flat_want[] = {0, 0, 0, 0};
    for (int i = 0; i < 4; i++) EXPECT_EQ(flat->item[i], flat_want[i]);
    dl_matrix_free(vv);
    dl_matrix_free(v);
    EXPECT_EQ(src->item[3], 3.0f);

    dl_matrix2d_t *empty = dl_matrix_slice(src.get(), 4, 3, 0, 0, nullptr);
    EXPECT_EQ(empty->w, 0);
    dl_matrix_free(empty);
}

TEST(MatrixRecord, FlattenIntoGivenKeepsShape)
{
    MatrixPtr src = matrix(3, 2, {1, 2, 3, 4, 5, 6});
    MatrixPtr in = own(dl_matrix_alloc(1, 4));
    EXPECT_EQ(dl_matrix_flatten(src.get(), 1, 0, 2, 2, in.get()), in.get());
    EXPECT_EQ(in->w, 1);
    EXPECT_EQ(in->h, 4);
    EXPECT_EQ(in->stride, 4);
    const float want[] = {2, 3, 5, 6};
    for (int i = 0; i < 4; i++) EXPECT_EQ(in->item[i], want[i]);
}

TEST(MatrixRecord, FromDataAndFlip)
{
    float data[3] = {1, 2, 3};
    dl_matrix2d_t *m = dl_matrix_from_data(3, 1, 3, data);
    EXPECT_EQ(m->flags, DL_MF_FOREIGNDATA);
    dl_matrix_flip(m);
    EXPECT_EQ(m->w, 1);
    EXPECT_EQ(m->h, 3);
    EXPECT_EQ(m->stride, 1);
    dl_matrix2d_t *view = dl_matrix_slice(m, 0, 1, 1, 2, dl_matrix_from_data(0, 0, 0, nullptr));
    EXPECT_EQ(view->item[0], 2.0f);
    dl_matrix_free(view);
    dl_matrix_free(m);
    dl_matrix_free(nullptr);
    EXPECT_EQ(data[2], 3.0f);
}

TEST(MatrixRecord, SameShapeIgnoresStride)
{
    float data[8] = {};
    dl_matrix2d_t a = {2, 2, 2, DL_MF_FOREIGNDATA, data}, b = {2, 2, 4, DL_MF_FOREIGNDATA, data};
    dl_matrix2d_t c = {2, 3, 2, DL_MF_FOREIGNDATA, data};
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_matrix_same_shape(&a, &b), 1);
    EXPECT_EQ(dl_matrix_same_shape(&a, &c), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "dl_matrix_same_shape: Matrices not the same shape! a: 2 x 2, b: 2 x 3\n");
}

TEST(MatrixRecord, Prints)
{
    MatrixPtr m = matrix(2, 1, {1, 2});
    MatrixPtr none = own(dl_matrix_alloc(2, 0));
    testing::internal::CaptureStdout();
    dl_printmatrix(m.get());
    dl_printmatrix(none.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "a->w: 2, a->h: 1\n1.000000\t2.000000\t\n\na->w: 2, a->h: 0\n");
}

// One test per asserted condition, in the order they are checked.
using MatrixDeathTest = testing::Test;

TEST_F(MatrixDeathTest, SliceIntoOwningRecord)
{
    MatrixPtr src = matrix(2, 2, {1, 2, 3, 4});
    MatrixPtr owning = own(dl_matrix_alloc(1, 1));
    EXPECT_DEATH(dl_matrix_slice(src.get(), 0, 0, 1, 1, owning.get()),
                 "dl_lib_matrix.cpp:[0-9]+: dl_matrix_slice: Assertion `in->flags&DL_MF_FOREIGNDATA' failed");
}

TEST_F(MatrixDeathTest, SlicePastRightEdge)
{
    MatrixPtr src = matrix(2, 2, {1, 2, 3, 4});
    EXPECT_DEATH(dl_matrix_slice(src.get(), 1, 0, 2, 1, nullptr), "Assertion `x\\+w<=src->w' failed");
}

TEST_F(MatrixDeathTest, SlicePastLowerEdge)
{
    MatrixPtr src = matrix(2, 2, {1, 2, 3, 4});
    EXPECT_DEATH(dl_matrix_slice(src.get(), 0, 2, 1, 1, nullptr), "Assertion `y\\+h<=src->h' failed");
}

TEST_F(MatrixDeathTest, FlattenPastEdges)
{
    MatrixPtr src = matrix(2, 2, {1, 2, 3, 4});
    EXPECT_DEATH(dl_matrix_flatten(src.get(), 1, 0, 2, 1, nullptr), "Assertion `x \\+ w <= src->w' failed");
    EXPECT_DEATH(dl_matrix_flatten(src.get(), 0, 1, 1, 2, nullptr), "Assertion `y \\+ h <= src->h' failed");
}

TEST_F(MatrixDeathTest, FlipOfTwoRows)
{
    MatrixPtr m = matrix(1, 2, {1, 2});
    EXPECT_DEATH(dl_matrix_flip(m.get()), "dl_matrix_flip: Assertion `a->h==1' failed");
}

}  // namespace
