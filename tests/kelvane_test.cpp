#include <gtest/gtest.h>

#include <vector>

#include "emit.h"
#include "options.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

struct OptionCase {
    std::vector<const char *> opts;  // after "kelvane m c.c h.h demo"
    bool ok;
    std::string printed;
    Mode mode;
    std::string exclude;  // "-" when the exclude flag stays clear
    std::string bn;
};

void PrintTo(const OptionCase &c, std::ostream *os) { *os << c.opts.size() << " options"; }

class OptionsTest : public testing::TestWithParam<OptionCase> {};

TEST_P(OptionsTest, Parse)
{
    const OptionCase &c = GetParam();
    std::vector<const char *> argv = {"kelvane", "m", "c.c", "h.h", "demo"};
    argv.insert(argv.end(), c.opts.begin(), c.opts.end());
    MemStream out;
    const auto s = parse_options(static_cast<int>(argv.size()), argv.data(), out.get());
    EXPECT_EQ(out.str(), c.printed);
    ASSERT_EQ(s.has_value(), c.ok);
    if (!c.ok) return;
    EXPECT_EQ(s->mode(), c.mode);
    EXPECT_EQ(s->exclude_flag ? s->exclude_list : "-", c.exclude);
    EXPECT_EQ(s->bnmatrices, c.bn);
}

const char *const kNQ = "Not quantizing.\n";
const char *const kExcl = "should be \"-exclude (h1,h2)\" if need h1 and h2 to be quantized.\n";

INSTANTIATE_TEST_SUITE_P(
    Table, OptionsTest,
    testing::Values(
        OptionCase{{}, true, "", Mode::quantised_2d, "-", "pop_var"},
        OptionCase{{"-no-quantized", "-no-quantized"}, true, std::string(kNQ) + kNQ, Mode::float_2d, "-", "pop_var"},
        OptionCase{{"-3d"}, true, "", Mode::quantised_tensor, "-", "pop_var"},
        OptionCase{{"-3d", "-no-quantized"}, true, kNQ, Mode::float_tensor, "-", "pop_var"},
        OptionCase{{"-no-quantized", "-3d", "-in"}, true, kNQ, Mode::input_tensor, "-", "pop_var"},
        OptionCase{{"-in", "-3d"}, false, "Unrecognized cmdline arg -in\n", Mode::quantised_2d, "", ""},
        OptionCase{{"-exclude", "(a,b)"}, true, "", Mode::quantised_2d, "a,b", "pop_var"},
        OptionCase{{"-exclude", "(a,b"}, true, "", Mode::quantised_2d, "a,", "pop_var"},
        OptionCase{{"-exclude", "("}, true, "", Mode::quantised_2d, "", "pop_var"},
        OptionCase{{"-exclude", "(a)", "-exclude", "(b)"}, true, "", Mode::quantised_2d, "b", "pop_var"},
        OptionCase{{"-exclude", "(a)", "-exclude"}, true, "", Mode::quantised_2d, "a", "pop_var"},
        OptionCase{{"-exclude"}, true, "", Mode::quantised_2d, "-", "pop_var"},
        OptionCase{{"-exclude", "a,b"}, false, kExcl, Mode::quantised_2d, "", ""},
        // Longer than any fixed buffer: taken whole.
        OptionCase{{"-exclude", "(a_very_long_matrix_name,another_very_long_matrix_name)"}, true, "",
                   Mode::quantised_2d, "a_very_long_matrix_name,another_very_long_matrix_name", "pop_var"},
        OptionCase{{"-bnmatrices", "v1,v2", "-bnmatrices", "v3"}, true, "", Mode::quantised_2d, "-", "v3"},
        OptionCase{{"-bnmatrices"}, false, "Unrecognized cmdline arg -bnmatrices\n", Mode::quantised_2d, "", ""},
        OptionCase{{"-no-quantized", "--help"}, false, std::string(kNQ) + "Unrecognized cmdline arg --help\n",
                   Mode::quantised_2d, "", ""}));

TEST(Options, UsageWithFewerThanFourArguments)
{
    const char *argv[] = {"./kelvane", "m", "c.c", "h.h"};
    MemStream out;
    EXPECT_FALSE(parse_options(4, argv, out.get()).has_value());
    EXPECT_EQ(out.str(),
              "Usage: ./kelvane modeldir cfile hfile name [opts]\nOpts:\n-no-quantized: use only floats\n"
              "-bnmatrices name1,name2,name3,...: Names of the batch-normalize matrices. These will be converted "
              "into pre-calculated intermediates. Default: pop_var\n");
}

TEST(Names, SanitiseAndIdentifiers)
{
    EXPECT_EQ(sanitize_name("foo.npy"), "foo");
    EXPECT_EQ(sanitize_name("my weights.v2.npy"), "my_weights");
    EXPECT_EQ(sanitize_name("noext"), "noext");
    for (const char *good : {"a", "_x1", "Dense_2"}) EXPECT_TRUE(is_c_identifier(good)) << good;
    for (const char *bad : {"", "2nd", "my-w", "a[0]={1};int b", "caf\xc3\xa9"}) EXPECT_FALSE(is_c_identifier(bad)) << bad;
}

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

// Line breaks of the tables: a tab opens a line, a full line ends in a
// newline, and a short last line gets one too.
TEST(Tables, FloatLineBreaksAndDecimals)
{
    MatrixPtr m = matrix(3, 3, {1e-7f, 0.5f, -2, 1, 2, 3, 4, 5, 6});
    MemStream c;
    emit_matrix2d("m", m.get(), c.get(), nullptr);
    EXPECT_EQ(c.str(),
              "const static fptp_t m_item_array[]={\n"
              "\t0.000000f, 0.500000f, -2.000000f, 1.000000f, 2.000000f, 3.000000f, 4.000000f, 5.000000f, \n"
              "\t6.000000f, \n"
              "};\n\nconst static dl_matrix2d_t m={\n\t.w=3,\n\t.h=3,\n\t.stride=3,\n\t.flags=DL_MF_FOREIGNDATA,\n"
              "\t.item=(fptp_t *)(&m_item_array[0])\n};\n");
}

TEST(Tables, FloatReadsThroughStrideAndEmptyMatrix)
{
    float data[] = {1, 2, 99, 3, 4, 99};
    dl_matrix2d_t view = {2, 2, 3, DL_MF_FOREIGNDATA, data};
    MemStream c, e;
    emit_matrix2d("v", &view, c.get(), nullptr);
    EXPECT_NE(c.str().find("\t1.000000f, 2.000000f, 3.000000f, 4.000000f, \n};\n"), std::string::npos);
    EXPECT_NE(c.str().find("\t.stride=2,\n"), std::string::npos);
    MatrixPtr empty = own(dl_matrix_alloc(0, 1));
    emit_matrix2d("e", empty.get(), e.get(), nullptr);
    EXPECT_EQ(e.str().substr(0, 40), "const static fptp_t e_item_array[]={\n};\n");
}

TEST(Tables, FixedPointColumnsAndSixteenPerLine)
{
    // 2 x 3 (odd height): columns in order, printed stride 3.
    MatrixPtr m = matrix(2, 3, {1, 2, 3, 4, 5, 6});
    MemStream c;
    EXPECT_TRUE(emit_matrix2dq("q", m.get(), c.get(), nullptr));
    EXPECT_EQ(c.str(),
              "const static qtp_t q_item_array[]={\n"
              "\t  4096,  12288,  20480,   8192,  16384,  24576, \n"
              "};\n\nconst static dl_matrix2dq_t q={\n\t.w=2,\n\t.h=3,\n\t.stride=3,\n\t.exponent=-12,\n"
              "\t.flags=DL_MF_FOREIGNDATA,\n\t.itemq=(qtp_t *)(&q_item_array[0])\n};\n");

    std::vector<float> ramp(32);
    for (int i = 0; i < 32; i++) ramp[i] = static_cast<float>(i - 16);
    MatrixPtr r = matrix(32, 1, ramp);
    MemStream c32;
    emit_matrix2dq("r", r.get(), c32.get(), nullptr);
    const std::string text = c32.str();
    const size_t first = text.find('\n') + 1;
    const size_t second = text.find('\n', first) + 1;
    const size_t third = text.find('\n', second) + 1;
    EXPECT_EQ(second - first, 1 + 16 * 8 + 1) << "tab, 16 items of 8 characters, newline";
    EXPECT_EQ(text.substr(third, 3), "};\n") << "no empty line after two full lines";
}

// _MODEL_INFO_ reading, each case one file.
struct InfoCase {
    const char *label;
    std::string file;
    bool ok;
    std::string printed;  // stdout; "@" stands for the path
    std::string windows, thresholds, words, info_str;
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
    std::string printed = testing::internal::GetCapturedStdout();
    std::string want = c.printed;
    if (size_t at = want.find('@'); at != std::string::npos) want.replace(at, 1, file.path());
    EXPECT_EQ(printed, want);
    ASSERT_EQ(ok, c.ok);
    if (!ok) {
        EXPECT_EQ(cfile.str(), "") << "nothing of an unusable file reaches the output";
        return;
    }
    EXPECT_EQ(cfile.str(), "\nconst static int det_win_list[]={\n\t" + c.windows +
                               "\n};\n\nconst static fptp_t det_thresh_list[]={\n\t" + c.thresholds +
                               "\n};\n\nconst static char *wake_word_list[]={\n\t" + c.words +
                               "\n};\n\nconst static model_info_t model_info={\n\t.word_num=" +
                               std::to_string(std::count(c.words.begin(), c.words.end(), ',')) +
                               ",\n\t.word_list=(char **)(&wake_word_list[0]),\n\t.win_list=(int *)(&det_win_list[0]),"
                               "\n\t.thresh_list=(fptp_t *)(&det_thresh_list[0]),\n\t.info_str=\"" +
                               c.info_str + "\",\n};\n");
}

const char *const kBadFile = "ERROR: Could not parse file @, please check.\n";

INSTANTIATE_TEST_SUITE_P(
    Files, ModelInfoTest,
    testing::Values(
        InfoCase{"worked_example", "cnn_v2_alpha_5_0.72_0.65_beta_x_0.8_0.7\n", true,
                 "WARNING: Could not parse string x, should be 1~9, set to default 3", "5, 3, ",
                 "0.720, 0.650, 0.800, 0.700, ", "\"alpha\", \"beta\", ", "cnn_v2_alpha_5_0.72_0.65_beta_x_0.8_0.7"},
        InfoCase{"six_fields_no_newline", "a_b_w_9_abc_0.1236", true, "", "9, ", "0.000, 0.124, ", "\"w\", ",
                 "a_b_w_9_abc_0.1236"},
        InfoCase{"skips_comment_and_wrong_counts",
                 "#a_b_c_1_0.5_0.5\n\na_b_c_d_e\na_b_c_d_e_f_g\na_b_c_d_e_f_g_h\nx_y_z_0_1_2\nx_y_w_1_1_1\n", true,
                 "WARNING: Could not parse string 0, should be 1~9, set to default 3", "3, ", "1.000, 2.000, ",
                 "\"z\", ", "x_y_z_0_1_2"},
        InfoCase{"window_12", "a_b_w_12_1_1\n", true,
                 "WARNING: Could not parse string 12, should be 1~9, set to default 3", "3, ", "1.000, 1.000, ",
                 "\"w\", ", "a_b_w_12_1_1"},
        InfoCase{"carriage_return_stays_escaped", "a_b_w_2_1_1\r\n", true, "", "2, ", "1.000, 1.000, ", "\"w\", ",
                 "a_b_w_2_1_1\\r"},
        InfoCase{"quotes_and_backslashes_escaped", "a_b_\"x\\_2_1_1\n", true, "", "2, ", "1.000, 1.000, ",
                 "\"\\\"x\\\\\", ", "a_b_\\\"x\\\\_2_1_1"},
        // A line longer than the read buffer arrives in pieces; the tail
        // piece is judged as a line of its own.
        InfoCase{"long_line_in_pieces", std::string(2047, 'a') + "x_b_w_4_1_1\n", true, "", "4, ", "1.000, 1.000, ",
                 "\"w\", ", "x_b_w_4_1_1"},
        InfoCase{"only_comments", "# a_b_c_1_0.5_0.5\n\n", false, kBadFile, "", "", "", ""},
        InfoCase{"empty_file", "", false, kBadFile, "", "", "", ""},
        InfoCase{"empty_field", "a__w_1_1_1\n", false, "ERROR: Could not parse file @, empty field in: a__w_1_1_1\n",
                 "", "", "", ""},
        InfoCase{"trailing_underscore", "a_b_w_1_1_\n", false,
                 "ERROR: Could not parse file @, empty field in: a_b_w_1_1_\n", "", "", "", ""},
        InfoCase{"nan_threshold", "a_b_w_1_nan_1\n", false,
                 "ERROR: Could not parse file @, threshold is not a finite number in: a_b_w_1_nan_1\n", "", "", "",
                 ""}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(ModelInfo, UnopenableFileGivesPerror)
{
    MemStream c;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(emit_model_info("/nonexistent/_MODEL_INFO_", c.get()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/nonexistent/_MODEL_INFO_: No such file or directory\n");
}

}  // namespace

#include <sys/stat.h>
#include <unistd.h>

#include "convert.h"

namespace {

std::string read_file(const std::string &path)
{
    std::string text;
    if (FILE *f = fopen(path.c_str(), "rb")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
        fclose(f);
    }
    return text;
}

// The driver on real directories whose entries no golden case can hold.
class DriverTest : public testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/kelvane_driver_XXXXXX";
        root_ = mkdtemp(dir);
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + root_).c_str()), 0); }

    void write_npy(const std::string &path)
    {
        const std::string bytes = npy_bytes("{'descr': '<f4', 'shape': (1,)}", raw<float>({0.5f}));
        FILE *f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr) << path;
        fwrite(bytes.data(), 1, bytes.size(), f);
        fclose(f);
    }

    int run(const std::string &modeldir, std::string *stdout_text)
    {
        Settings s;
        s.modeldir = modeldir;
        s.cfile = root_ + "/out.c";
        s.hfile = root_ + "/out.h";
        s.name = "t";
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = convert(s);
        fflush(stdout);
        *stdout_text = testing::internal::GetCapturedStdout();
        testing::internal::GetCapturedStderr();
        return status;
    }

    std::string root_;
};

TEST_F(DriverTest, PathsLongerThanAnyFixedBuffer)
{
    std::string dir = root_;
    for (int i = 0; i < 6; i++) {
        dir += "/" + std::string(200, static_cast<char>('a' + i));
        ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    }
    const std::string name = std::string(200, 'w');
    write_npy(dir + "/" + name + ".npy");
    ASSERT_GT(dir.size(), 1200u);
    std::string printed;
    EXPECT_EQ(run(dir, &printed), 0);
    EXPECT_EQ(printed, "");
    EXPECT_NE(read_file(root_ + "/out.c").find("if (strcmp(name, \"" + name + "\")==0)"), std::string::npos);
}

TEST_F(DriverTest, FifoIsSkippedNotOpened)
{
    const std::string dir = root_ + "/m";
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir + "/pipe.npy").c_str(), 0600), 0);
    write_npy(dir + "/w.npy");
    std::string printed;
    EXPECT_EQ(run(dir, &printed), 0);
    EXPECT_EQ(printed, "WARNING: Could not parse file pipe.npy, not converting.\n");
    EXPECT_NE(read_file(root_ + "/out.c").find("return &w;"), std::string::npos);
}

}  // namespace
