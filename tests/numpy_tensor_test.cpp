#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "dl_lib.h"
#include "test_util.h"

using namespace testutil;

namespace {

// Elements 1, 2, 3, ...: distinct, and none equal to the 0 a tensor starts with.
template <class T = float>
std::vector<T> counting(int count)
{
    std::vector<T> v;
    for (int i = 0; i < count; i++) v.push_back(static_cast<T>(i + 1));
    return v;
}

// A '<f4' file of the shape holding the elements 1 to count.
std::string f4(const std::string &shape, int count) { return testutil::f4(shape, raw(counting(count))); }

struct TensorCase {
    const char *name;
    std::string file;
    std::string err;             // "@" stands for the path
    std::vector<int> nwhc{};     // empty: the load must fail
    std::vector<float> items{};  // the whole storage, flat
};

void PrintTo(const TensorCase &c, std::ostream *os) { *os << c.name; }

template <class Tensor>
void expect_tensor(const TensorCase &c, const Tensor *t)
{
    if (c.nwhc.empty()) {
        EXPECT_EQ(t, nullptr);
        return;
    }
    ASSERT_NE(t, nullptr);
    EXPECT_EQ((std::vector<int>{t->n, t->w, t->h, t->c}), c.nwhc);
    EXPECT_EQ(t->stride, t->w * t->c);
    ASSERT_EQ(static_cast<size_t>(t->n) * t->w * t->h * t->c, c.items.size());
    for (size_t i = 0; i < c.items.size(); i++) EXPECT_EQ(t->item[i], c.items[i]) << "element " << i;
}

// Runs a loader on the case's bytes: stderr must match and stdout stay empty
// (no allocator message for a refused shape).
template <class Tensor>
Tensor *load(const TensorCase &c, Tensor *(*loader)(const char *))
{
    TempFile file(c.file);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Tensor *t = loader(file.path());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), with_path(c.err, file.path()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    return t;
}

// The line a filter bank's load begins with, for its (n, w, h, c).
std::string filter(const std::string &nwhc) { return "filter @: matrix shape:" + nwhc + ".\n"; }

std::vector<TensorCase> weight_cases()
{
    // The golden converter cases tensor_q and tensor_f pin, byte for byte,
    // the filter order of the run path, the transposed row path and its short
    // rows, one entry as channels, zero filters and three entries refused.
    return {
        // (h, w, c, n), filters fastest in the file: one read per position,
        // spread over the filters.
        {"run_path_columns_and_channels",
         f4("(1, 2, 2, 2)", 8),
         filter("(2, 2, 1, 2)"),
         {2, 2, 1, 2},
         {1, 3, 5, 7, 2, 4, 6, 8}},
        {"five_entries_read_by_four", f4("(1, 1, 2, 2, 9)", 36), filter("(2, 1, 1, 2)"), {2, 1, 1, 2}, {1, 3, 2, 4}},
        {"extra_data_ignored", f4("(2,)", 5), filter("(1, 1, 1, 2)"), {1, 1, 1, 2}, {1, 2}},
        {"first_descriptor_wins",
         npy_bytes("{'descr': '<i8', 'x': '<f4', 'shape': (2,)}", raw<float>({1.5f, -2})),
         filter("(1, 1, 1, 2)"),
         {1, 1, 1, 2},
         {1.5f, -2}},
        {"zero_rows_in_row_path", f4("(3, 0)", 0), filter("(1, 3, 0, 1)"), {1, 3, 0, 1}, {}},
        // Failures.
        {"too_short", "\x93NUMPY", "@: too short\n"},
        {"empty_shape", f4("()", 4), "@: error parsing shape\n"},
        {"marker_value_first", f4("(-1, 2)", 4), "@: error parsing shape\n"},
        {"u1_unknown_here", npy_bytes("{'descr': '|u1', 'shape': (2,)}", "ab"),
         filter("(1, 1, 1, 2)") + "@: Unknown var format\n"},
        {"run_path_short_last_read", f4("(2, 1, 2, 3)", 11),
         filter("(3, 1, 2, 2)") + "@: short file! (ends at row 1/2)\n"},
        {"one_entry_short", f4("(4,)", 3), filter("(1, 1, 1, 4)") + "@: short file! (ends at row 0/1)\n"},
        {"negative_entry", f4("(2, -3, 4, 5)", 0), filter("(5, -3, 2, 4)") + "@: unsupported shape (2, -3, 4, 5)\n"},
        {"negative_row_path", f4("(-2, 3)", 0), filter("(1, -2, 3, 1)") + "@: unsupported shape (-2, 3)\n"},
        {"count_overflows_32_bits", f4("(65536, 65536, 1, 1)", 0),
         filter("(1, 65536, 65536, 1)") + "@: unsupported shape (65536, 65536, 1, 1): more than 2147483647 elements\n"},
        // Shapes no file of this size can hold are refused before any
        // allocation, with the message the reads would give.
        {"billions_promised_run_path", f4("(2000000000, 1, 1, 1)", 6),
         filter("(1, 1, 2000000000, 1)") + "@: short file! (ends at row 6/2000000000)\n"},
        {"millions_promised_row_path", f4("(2000000, 3)", 4),
         filter("(1, 2000000, 3, 1)") +
             "@: short file! (ends at row 1/2000000), num: 1\n@: 5999996 of 6000000 elements missing, not loading\n"},
    };
}

class WeightLoadTest : public testing::TestWithParam<TensorCase> {};

// The quantised loader prints the same and hands back the same tensor,
// quantised with one exponent.
TEST_P(WeightLoadTest, FloatAndQuantisedLoaders)
{
    dl_matrix3d_t *t = load(GetParam(), dl_matrix3d_weight_from_numpy_file);
    expect_tensor(GetParam(), t);
    dl_matrix3dq_t *q = load(GetParam(), dl_matrix3dq_weight_from_numpy_file);
    ASSERT_EQ(q == nullptr, t == nullptr);
    if (t) {
        dl_matrix3dq_t *want = dl_matrixq_from_matrix3d(t);
        EXPECT_EQ(std::tuple(q->exponent, q->stride), std::tuple(want->exponent, want->stride));
        EXPECT_TRUE(std::equal(q->item, q->item + GetParam().items.size(), want->item));
        dl_matrix3dq_free(want);
    }
    dl_matrix3d_free(t);
    dl_matrix3dq_free(q);
}

INSTANTIATE_TEST_SUITE_P(Bytes, WeightLoadTest, testing::ValuesIn(weight_cases()), CaseName());

// A '|u1' file of the shape holding the bytes 1 to count.
std::string u1(const std::string &shape, int count)
{
    return npy_bytes("{'descr': '|u1', 'fortran_order': False, 'shape': " + shape + ", }",
                     raw(counting<uint8_t>(count)));
}

// The line an input's load begins with, for its (w, h, c).
std::string input(const std::string &whc) { return "input @: matrix shape:" + whc + ".\n"; }

std::vector<TensorCase> input_cases()
{
    return {
        {"file_order_is_tensor_order", u1("(2, 3, 4)", 24), input("(3, 2, 4)"), {1, 3, 2, 4}, counting(24)},
        {"four_entries_read_by_three", u1("(1, 2, 3, 4)", 24), input("(2, 1, 3)"), {1, 2, 1, 3}, counting(6)},
        {"u1_before_i4",
         npy_bytes("{'descr': '<i4', 'x': '|u1', 'shape': (1, 1, 2)}", "\x07\x09"),
         input("(1, 1, 2)"),
         {1, 1, 1, 2},
         {7, 9}},
        {"f8_before_u1",
         npy_bytes("{'descr': '|u1', 'x': '<f8', 'shape': (1, 1, 1)}", raw<double>({3.9})),
         input("(1, 1, 1)"),
         {1, 1, 1, 1},
         {3}},
        {"zero_width", u1("(2, 0, 3)", 0), input("(0, 2, 3)"), {1, 0, 2, 3}, {}},
        // Failures.
        {"empty_shape", u1("()", 4), "@: error parsing shape\n"},
        {"f2_unknown", npy_bytes("{'descr': '<f2', 'shape': (1, 1, 1)}", "ab"),
         input("(1, 1, 1)") + "@: Unknown var format\n"},
        {"short_last_read", u1("(2, 3, 4)", 20), input("(3, 2, 4)") + "@: short file! (ends at row 1/2)\n"},
        {"two_entries_refused", u1("(2, 3)", 6),
         input("(3, 2, -1)") + "@: unsupported shape (2, 3): an input has 3 entries (height, width, channels)\n"},
        {"negative_entry", u1("(2, -3, 4)", 0), input("(-3, 2, 4)") + "@: unsupported shape (2, -3, 4)\n"},
        {"count_overflows_32_bits", u1("(65536, 65536, 2)", 0),
         input("(65536, 65536, 2)") + "@: unsupported shape (65536, 65536, 2): more than 2147483647 elements\n"},
        {"billions_promised", u1("(40000, 40000, 1)", 80005),
         input("(40000, 40000, 1)") + "@: short file! (ends at row 2/40000)\n"},
    };
}

class InputLoadTest : public testing::TestWithParam<TensorCase> {};

TEST_P(InputLoadTest, ByteLoader)
{
    dl_matrix3du_t *t = load(GetParam(), dl_matrix3du_input_from_numpy_file);
    expect_tensor(GetParam(), t);
    dl_matrix3du_free(t);
}

INSTANTIATE_TEST_SUITE_P(Bytes, InputLoadTest, testing::ValuesIn(input_cases()), CaseName());

// Conversion to bytes: truncation toward zero, then the low 8 bits; a NaN
// or a float beyond the 32-bit range gives 0.
struct ByteCase {
    const char *descr;
    std::string data;
    std::vector<int> want;
};

void PrintTo(const ByteCase &c, std::ostream *os) { *os << c.descr; }

class ByteConversionTest : public testing::TestWithParam<ByteCase> {};

TEST_P(ByteConversionTest, WrapsAround)
{
    const ByteCase &c = GetParam();
    const int count = static_cast<int>(c.want.size());
    const std::string file =
        npy_bytes(std::string("{'descr': '") + c.descr + "', 'shape': (1, 1, " + std::to_string(count) + ")}", c.data);
    TempFile f(file);
    testing::internal::CaptureStderr();
    dl_matrix3du_t *t = dl_matrix3du_input_from_numpy_file(f.path());
    testing::internal::GetCapturedStderr();
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < count; i++) EXPECT_EQ(t->item[i], c.want[i]) << c.descr << " loaded element " << i;
    dl_matrix3du_free(t);
}

const float kNaNf = std::numeric_limits<float>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Table, ByteConversionTest,
    testing::Values(ByteCase{"<f4",
                             raw<float>({3.9f, -0.5f, 255.9f, 256.0f, 300.0f, -1.0f, kNaNf, 257.0f, -3.9f,
                                         2147483520.0f, 2147483648.0f, -2147483648.0f, INFINITY, -INFINITY}),
                             {3, 0, 255, 0, 44, 255, 0, 1, 253, 128, 0, 0, 0, 0}},
                    // A double is truncated as it is: 255.9999999999 stays below 256.
                    ByteCase{"<f8",
                             raw<double>({3.9, -0.5, 255.9, 256.0, 300.0, -1.0, std::nan(""), 257.0, 255.9999999999,
                                          2147483647.9, 2147483648.0, -2147483647.5, -2147483648.9, 1e300}),
                             {3, 0, 255, 0, 44, 255, 0, 1, 255, 255, 0, 1, 0, 0}},
                    ByteCase{"<i4",
                             raw<int32_t>({-1, 257, 300, 256, -256, INT32_MIN, INT32_MAX, 3}),
                             {255, 1, 44, 0, 0, 0, 255, 3}},
                    ByteCase{"<i8",
                             raw<int64_t>({-1, 257, (int64_t{1} << 40) + 7, -(int64_t{1} << 40) - 1, INT64_MIN}),
                             {255, 1, 7, 255, 0}},
                    ByteCase{"|u1", std::string("\x00\xff\x07", 3), {0, 255, 7}}),
    [](const auto &info) { return std::string(info.param.descr + 1); });

}  // namespace
