#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>

#include "dl_lib.h"
#include "test_util.h"

using namespace testutil;

namespace {

struct LoadCase {
    const char *name;
    std::string file;         // whole file contents
    std::string stderr_text;  // with "@" standing for the path
    int w = -1, h = -1;       // -1: the load must fail
    std::vector<float> items{};
};

// The line every load that gets as far as the element type prints.
std::string size_line(const std::string &h, const std::string &w) { return "@: matrix of " + h + " by " + w + ".\n"; }

std::vector<LoadCase> load_cases()
{
    const std::string six = raw<float>({1, 2, 3, 4, 5, 6});
    return {
        {"rows_in_file_order", f4("(2, 3)", six), size_line("2", "3"), 3, 2, {1, 2, 3, 4, 5, 6}},
        {"one_entry_is_a_row", f4("(5,)", raw<float>({1, 2, 3, 4, 5})), size_line("1", "5"), 5, 1, {1, 2, 3, 4, 5}},
        {"three_entries_read_by_two", f4("(1, 2, 3)", six), size_line("1", "2"), 2, 1, {1, 2}},
        {"blank_before_comma_allowed", f4("( 2 ,3 )", six), size_line("2", "3"), 3, 2, {1, 2, 3, 4, 5, 6}},
        {"suffix_ends_scan", f4("(3L, 4L)", raw<float>({7, 8, 9})), size_line("1", "3"), 3, 1, {7, 8, 9}},
        {"extra_data_ignored", f4("(1,)", six), size_line("1", "1"), 1, 1, {1}},
        {"zero_rows", f4("(0, 3)", ""), size_line("0", "3"), 3, 0},
        {"zero_columns", f4("(3, 0)", ""), size_line("3", "0"), 0, 3},
        {"i8_wins_over_f4",
         npy_bytes("{'descr': '<f4', 'x': '<i8', 'shape': (2,)}", raw<int64_t>({-3, 5})),
         size_line("1", "2"),
         2,
         1,
         {-3, 5}},
        {"i4_converted",
         npy_bytes("{'descr': '<i4', 'shape': (2,)}", raw<int32_t>({16777217, -7})),
         size_line("1", "2"),
         2,
         1,
         {16777216.0f, -7}},
        {"f8_narrowed",
         npy_bytes("{'descr': '<f8', 'shape': (2,)}", raw<double>({0.1, -1e300})),
         size_line("1", "2"),
         2,
         1,
         {0.1f, -INFINITY}},
        // fortran_order is not looked at: the data reads as row-major.
        {"fortran_order_ignored",
         npy_bytes("{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }", six),
         size_line("2", "3"),
         3,
         2,
         {1, 2, 3, 4, 5, 6}},
        // Failures: one thing broken each.
        // Version 2.0, as numpy writes it: a four-byte header length.
        {"version_2",
         std::string("\x93NUMPY\x02\x00t\x00\x00\x00", 12) + (kF4 + "(2, 3), }" + std::string(56, ' ') + "\n") + six,
         "@: no shape\n"},
        {"nine_bytes", std::string("\x93NUMPY\x01\x00\x00", 9), "@: too short\n"},
        {"bad_magic", std::string("\x93NUMPX\x01\x00\x00\x00", 10), "@: invalid magic\n"},
        {"empty_header", npy_bytes("", ""), "@: no shape\n"},
        {"double_quoted_key", npy_bytes("{\"descr\": '<f4', \"shape\": (1,)}", six), "@: no shape\n"},
        {"empty_shape", f4("()", six), "@: error parsing shape\n"},
        {"marker_value", f4("(-1, 2)", six), "@: error parsing shape\n"},
        {"huge_number_is_no_number", f4("(99999999999, 2)", six), "@: error parsing shape\n"},
        {"unknown_descr", npy_bytes("{'descr': '>f4', 'shape': (2, 3)}", six),
         size_line("2", "3") + "@: Unknown var format\n"},
        {"u1_unknown_here", npy_bytes("{'descr': '|u1', 'shape': (2,)}", "ab"),
         size_line("1", "2") + "@: Unknown var format\n"},
        {"short_last_row", f4("(2, 3)", raw<float>({1, 2, 3, 4, 5})),
         size_line("2", "3") + "@: short file! (ends at row 1/2)\n"},
        // The prefix and 60 of the header's 79 bytes.
        {"header_cut_short", f4("(2, 3)                    ", "").substr(0, 70),
         size_line("2", "3") + "@: short file! (ends at row 0/2)\n"},
        // Shapes no file of this size can hold are refused before any
        // allocation, with the message a row-by-row read would give.
        {"billions_promised", f4("(2000000000, 1)", six),
         size_line("2000000000", "1") + "@: short file! (ends at row 6/2000000000)\n"},
        {"count_overflows_32_bits", f4("(65536, 65536)", six),
         size_line("65536", "65536") + "@: unsupported shape (65536, 65536)\n"},
        {"negative_rows", f4("(-2, 3)", six), size_line("-2", "3") + "@: unsupported shape (-2, 3)\n"},
    };
}

void PrintTo(const LoadCase &c, std::ostream *os) { *os << c.name; }

class LoadTest : public testing::TestWithParam<LoadCase> {};

TEST_P(LoadTest, MatrixLoader)
{
    const LoadCase &c = GetParam();
    TempFile file(c.file);
    testing::internal::CaptureStderr();
    MatrixPtr m = own(dl_matrix2d_from_numpy_file(file.path()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), with_path(c.stderr_text, file.path()));
    if (c.w < 0) {
        EXPECT_EQ(m, nullptr);
        return;
    }
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(std::tuple(m->w, m->h, m->stride, m->flags), std::tuple(c.w, c.h, c.w, 0u));
    EXPECT_EQ(std::vector<float>(m->item, m->item + c.w * c.h), c.items);
}

INSTANTIATE_TEST_SUITE_P(Bytes, LoadTest, testing::ValuesIn(load_cases()), CaseName());

// Through a pipe the file's size is unknown, so no shape is refused ahead:
// the reads find the end themselves, and say so as the size check would.
TEST(Loaders, ShortDataThroughAPipe)
{
    const auto ones = [](int count) { return raw(std::vector<float>(static_cast<size_t>(count), 1.0f)); };
    const struct {
        std::string file;
        Loader loader;
        const char *err;  // "@" stands for the path
    } cases[] = {
        {f4("(2, 3)", ones(5)), Loader::matrix, "@: matrix of 2 by 3.\n@: short file! (ends at row 1/2)\n"},
        {f4("(2, 1, 2, 3)", ones(11)), Loader::weights,
         "filter @: matrix shape:(3, 1, 2, 2).\n@: short file! (ends at row 1/2)\n"},
        {npy_bytes("{'descr': '|u1', 'shape': (2, 3, 4)}", std::string(20, '\x01')), Loader::input,
         "input @: matrix shape:(3, 2, 4).\n@: short file! (ends at row 1/2)\n"},
    };
    for (const auto &c : cases) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        ASSERT_EQ(write(fds[1], c.file.data(), c.file.size()), static_cast<ssize_t>(c.file.size()));
        close(fds[1]);
        const std::string path = "/dev/fd/" + std::to_string(fds[0]);
        testing::internal::CaptureStderr();
        EXPECT_EQ(load_dims(c.loader, path.c_str()), std::vector<int>{});
        EXPECT_EQ(testing::internal::GetCapturedStderr(), with_path(c.err, path));
        close(fds[0]);
    }
}

TEST(MatrixLoader, MissingFileAndDirectory)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(dl_matrix2d_from_numpy_file("/nonexistent/x.npy"), nullptr);
    EXPECT_EQ(dl_matrix2d_from_numpy_file("/tmp"), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/nonexistent/x.npy: No such file or directory\n/tmp: too short\n");
}

}  // namespace
