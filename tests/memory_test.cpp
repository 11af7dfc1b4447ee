// The allocator behind every allocation of the library, and the arena.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "dl_lib.h"

namespace {

// An arena over a vector, installed for one test and removed after it.
struct ArenaFixture : testing::Test {
    alignas(8) unsigned char buffer[4096];
    dl_arena_t arena;
    void SetUp() override
    {
        dl_arena_init(&arena, buffer, sizeof buffer);
        dl_use_arena(&arena);
    }
    void TearDown() override { dl_use_arena(nullptr); }
};

TEST_F(ArenaFixture, BlocksComeBackLastInFirstOut)
{
    void *a = dl_arena_alloc(3, 1, &arena);
    void *b = dl_arena_alloc(10, 4, &arena);
    ASSERT_TRUE(a && b);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 8, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 0u);
    const size_t both = arena.top;
    EXPECT_EQ(dl_arena_peak(&arena), both);
    // Released out of order: a waits under b, and both go when b goes.
    dl_arena_release(a, &arena);
    EXPECT_EQ(arena.top, both);
    dl_arena_release(b, &arena);
    EXPECT_EQ(arena.top, 0u);
    EXPECT_EQ(dl_arena_peak(&arena), both);
    // The space is reused, zero-filled again.
    auto *c = static_cast<unsigned char *>(dl_arena_alloc(40, 1, &arena));
    EXPECT_EQ(static_cast<void *>(c), a);
    for (int i = 0; i < 40; i++) EXPECT_EQ(c[i], 0);
    dl_arena_reset_peak(&arena);
    EXPECT_EQ(dl_arena_peak(&arena), arena.top);
}

TEST_F(ArenaFixture, RefusesWhatDoesNotFit)
{
    const struct {
        size_t count, size;
    } too_big[] = {{sizeof buffer, 1}, {1, sizeof buffer}, {SIZE_MAX, 2}, {2, SIZE_MAX}, {SIZE_MAX, SIZE_MAX}};
    for (const auto &r : too_big) EXPECT_EQ(dl_arena_alloc(r.count, r.size, &arena), nullptr) << r.count;
    EXPECT_EQ(arena.refused, 5u);
    EXPECT_EQ(arena.top, 0u);
    EXPECT_NE(dl_arena_alloc(0, 0, &arena), nullptr);  // an empty block still has an address
}

// The layers' temporaries come from the arena and go back to it: a block
// from elsewhere released into it would fail its assertion.
TEST_F(ArenaFixture, LayersTakeEverythingFromTheArena)
{
    dl_matrix2dq_t *in = dl_matrixq_alloc(8, 1), *w = dl_matrixq_alloc(4 * 5, 8 + 5);
    dl_matrix2dq_t *c = dl_matrixq_alloc(5, 1), *h = dl_matrixq_alloc(5, 1), *filter = dl_matrixq_alloc(2, 9);
    dl_matrix2d_t *image = dl_matrix_alloc(6, 6), *bias = dl_matrix_alloc(2, 1);
    ASSERT_TRUE(in && w && c && h && filter && image && bias);
    for (int i = 0; i < 8; i++) in->itemq[i] = static_cast<qtp_t>(1000 * i);
    const size_t records = arena.top;
    dl_arena_reset_peak(&arena);
    dl_basic_lstm_layer_q(in, c, h, w, nullptr, 0);
    EXPECT_GT(dl_arena_peak(&arena), records);
    EXPECT_EQ(arena.top, records);
    dl_matrix2d_t *out = dl_basic_conv_layer_quantised_weight(image, filter, bias, 3, 3, 2, 1, 1, 1, nullptr);
    ASSERT_NE(out, nullptr);
    for (dl_matrix2d_t *m : {out, bias, image}) dl_matrix_free(m);
    for (dl_matrix2dq_t *m : {filter, h, c, w, in}) dl_matrixq_free(m);
    EXPECT_EQ(arena.top, 0u);
}

TEST_F(ArenaFixture, AnArenaTooSmallGivesNoRecord)
{
    EXPECT_EQ(dl_matrix_alloc(2000, 1), nullptr);
    EXPECT_EQ(dl_matrix3dq_alloc(1, 64, 64, 1, 0), nullptr);
    EXPECT_EQ(arena.top, 0u);
}

}  // namespace
