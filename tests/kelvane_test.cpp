// The converter's pieces on memory streams. Whole runs, messages and exit
// statuses are the golden cases under cli/; the cases here pin what those
// cannot reach or would need many model directories for.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "emit.h"
#include "options.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

struct OptionCase {
    const char *label;
    std::vector<const char *> opts;  // after "kelvane m c.c h.h demo"
    std::string exclude;             // "-" when the exclude flag stays clear
    std::string bn;
};

void PrintTo(const OptionCase &c, std::ostream *os) { *os << c.label; }

class OptionsTest : public testing::TestWithParam<OptionCase> {};

TEST_P(OptionsTest, ListsAndTheirDefaults)
{
    const OptionCase &c = GetParam();
    std::vector<const char *> argv = {"kelvane", "m", "c.c", "h.h", "demo"};
    argv.insert(argv.end(), c.opts.begin(), c.opts.end());
    MemStream out;
    const auto s = parse_options(static_cast<int>(argv.size()), argv.data(), out.get());
    ASSERT_TRUE(s.has_value());
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(s->mode(), Mode::quantised_2d);
    EXPECT_EQ(s->exclude_flag ? s->exclude_list : "-", c.exclude);
    EXPECT_EQ(s->bnmatrices, c.bn);
}

// The -exclude list drops its first and last characters, whatever they are.
INSTANTIATE_TEST_SUITE_P(
    Table, OptionsTest,
    testing::Values(OptionCase{"defaults", {}, "-", "pop_var"},
                    OptionCase{"exclude_two", {"-exclude", "(a,b)"}, "a,b", "pop_var"},
                    OptionCase{"exclude_unclosed", {"-exclude", "(a,b"}, "a,", "pop_var"},
                    OptionCase{"exclude_paren_only", {"-exclude", "("}, "", "pop_var"},
                    OptionCase{"exclude_last_wins", {"-exclude", "(a)", "-exclude", "(b)"}, "b", "pop_var"},
                    OptionCase{"exclude_alone_ignored", {"-exclude"}, "-", "pop_var"},
                    OptionCase{"bnmatrices_last_wins", {"-bnmatrices", "v1,v2", "-bnmatrices", "v3"}, "-", "v3"}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(Flags, WholeItemsOfBnmatrices)
{
    const struct {
        const char *name, *list;
        int flags;
    } cases[] = {
        {"pop_var", "pop_var", MF_QUANTISED | MF_BATCHNORM},
        {"pop_var", "pop_var,xpop_var2", MF_QUANTISED | MF_BATCHNORM},
        {"pop", "pop_var,xpop_var2", MF_QUANTISED},
        {"pop_var2", "xpop_var2,pop_var2", MF_QUANTISED | MF_BATCHNORM},
        {"var", "pop_var,var", MF_QUANTISED | MF_BATCHNORM},
        {"Pop_var", "pop_var", MF_QUANTISED},
        {"a", "", MF_QUANTISED},
    };
    for (const auto &c : cases) EXPECT_EQ(get_flags_for_file(c.name, c.list), c.flags) << c.name << " in " << c.list;
}

// Loaded matrices are dense; a view is not, and the table must read through
// its stride and print the dense one. Nine items also break the line after
// eight, and 1e-7 shows what six decimals leave of a small value.
TEST(Tables, FloatTableOfAStridedView)
{
    float data[] = {1e-7f, 0.5f, -2, 99, 1, 2, 3, 99, 4, 5, 6, 99};
    const dl_matrix2d_t view = {3, 3, 4, DL_MF_FOREIGNDATA, data};
    MemStream c;
    emit_matrix2d("m", &view, c.get(), kelvane::NonFinite::as_printed);
    EXPECT_EQ(c.str(),
              "const static fptp_t m_item_array[]={\n"
              "\t0.000000f, 0.500000f, -2.000000f, 1.000000f, 2.000000f, 3.000000f, 4.000000f, 5.000000f, \n"
              "\t6.000000f, \n"
              "};\n\nconst static dl_matrix2d_t m={\n\t.w=3,\n\t.h=3,\n\t.stride=3,\n\t.flags=DL_MF_FOREIGNDATA,\n"
              "\t.item=(fptp_t *)(&m_item_array[0])\n};\n");
}

// _MODEL_INFO_ reading, each case one file of one significant line.
struct InfoCase {
    const char *label;
    std::string file;
    std::string printed;   // stdout; "@" stands for the path
    std::string window{};  // empty: the file is refused
    std::string thresholds{}, word{}, line{};
};

void PrintTo(const InfoCase &c, std::ostream *os) { *os << c.label; }

class ModelInfoTest : public testing::TestWithParam<InfoCase> {};

TEST_P(ModelInfoTest, Emit)
{
    const InfoCase &c = GetParam();
    TempFile file(c.file, "_MODEL_INFO_");
    MemStream cfile;
    testing::internal::CaptureStdout();
    const bool ok = emit_model_info(file.path(), cfile.get());
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), with_path(c.printed, file.path()));
    ASSERT_EQ(ok, !c.window.empty());
    if (!ok) {
        EXPECT_EQ(cfile.str(), "") << "nothing of an unusable file reaches the output";
        return;
    }
    EXPECT_EQ(cfile.str(), "\nconst static int det_win_list[]={\n\t" + c.window +
                               ", \n};\n\nconst static fptp_t det_thresh_list[]={\n\t" + c.thresholds +
                               "\n};\n\nconst static char *wake_word_list[]={\n\t\"" + c.word +
                               "\", \n};\n\nconst static model_info_t model_info={\n\t.word_num=1,"
                               "\n\t.word_list=(char **)(&wake_word_list[0]),\n\t.win_list=(int *)(&det_win_list[0]),"
                               "\n\t.thresh_list=(fptp_t *)(&det_thresh_list[0]),\n\t.info_str=\"" +
                               c.line + "\",\n};\n");
}

// Quotes, backslashes, a trigraph and a carriage return in the strings are
// compiled and read back in generated_info_test.c.
INSTANTIATE_TEST_SUITE_P(
    Files, ModelInfoTest,
    testing::Values(
        // Seven and eight fields are no count of 2 + 4k; window 0 is out of range.
        InfoCase{"skips_wrong_counts", "a_b_c_d_e_f_g\na_b_c_d_e_f_g_h\nx_y_z_0_1_2\nx_y_w_1_1_1\n",
                 "WARNING: Could not parse string 0, should be 1~9, set to default 3", "3", "1.000, 2.000, ", "z",
                 "x_y_z_0_1_2"},
        InfoCase{"window_12", "a_b_w_12_1_1\n", "WARNING: Could not parse string 12, should be 1~9, set to default 3",
                 "3", "1.000, 1.000, ", "w", "a_b_w_12_1_1"},
        // A line longer than the read buffer arrives in pieces; the tail
        // piece is judged as a line of its own.
        InfoCase{"long_line_in_pieces", std::string(2047, 'a') + "x_b_w_4_1_1\n", "", "4", "1.000, 1.000, ", "w",
                 "x_b_w_4_1_1"},
        // Thresholds that strtof cannot read (nan, abc) are pinned by the
        // golden case classic_values.
        InfoCase{"trailing_underscore", "a_b_w_1_1_\n", "ERROR: Could not parse file @, empty field in: a_b_w_1_1_\n"}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(ModelInfo, UnopenableFileGivesPerror)
{
    MemStream c;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(emit_model_info("/nonexistent/_MODEL_INFO_", c.get()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/nonexistent/_MODEL_INFO_: No such file or directory\n");
}

// The golden command-line cases hold whole tables of each mode, with a short
// last line and without items; this one pins a table of exactly one full
// line: its newline, then "};" at once.
TEST(TensorTables, FixedPointTableOfOneFullLine)
{
    std::unique_ptr<dl_matrix3dq_t, decltype(&dl_matrix3dq_free)> q(dl_matrix3dq_alloc(2, 1, 2, 2, -7),
                                                                    dl_matrix3dq_free);
    for (int e = 0; e < 8; e++) q->item[e] = static_cast<qtp_t>(e - 4);
    MemStream c;
    emit_matrix3dq("q", q.get(), c.get());
    EXPECT_EQ(c.str(),
              "const static qtp_t q_item_array[]={\n\t-4, -3, -2, -1, 0, 1, 2, 3, \n};\n\n"
              "const static dl_matrix3dq_t q={\n\t.w=1,\n\t.h=2,\n\t.c=2,\n\t.n=2,\n\t.stride=2,\n"
              "\t.exponent=-7,\n\t.item=(qtp_t *)(&q_item_array[0])\n};\n");
}

}  // namespace
