// Inputs built to hurt: shapes that promise more than a file holds, model
// directories of thousands of entries, endless _MODEL_INFO_ lines, names the
// generated C cannot take, values "%f" cannot spell. Each case runs in a
// child process under a CPU-time limit and, outside AddressSanitizer (which
// reserves terabytes of address space), an address-space limit, so that an
// unbounded allocation or a near-endless loop fails the test instead of the
// machine. Cases found by the fuzz harnesses in fuzz/ are marked so.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <fstream>
#include <functional>

#include "convert.h"
#include "emit.h"
#include "test_util.h"

using namespace testutil;

namespace {

#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif

// Runs f in a child that may use mb more megabytes of address space than the
// test process has now, cpu_seconds of CPU time and four times that of wall
// time; true if f returned true.
bool within_limits(long mb, int cpu_seconds, const std::function<bool()> &f)
{
    long pages = 0;
    if (FILE *statm = fopen("/proc/self/statm", "r")) {
        if (fscanf(statm, "%ld", &pages) != 1) pages = 0;
        fclose(statm);
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit cpu = {static_cast<rlim_t>(cpu_seconds), static_cast<rlim_t>(cpu_seconds)};
        setrlimit(RLIMIT_CPU, &cpu);
        alarm(static_cast<unsigned>(cpu_seconds) * 4);  // a blocked child uses no CPU time
        if (!kAddressSanitizer && pages > 0) {
            const rlim_t bytes = static_cast<rlim_t>(pages) * sysconf(_SC_PAGESIZE) + (static_cast<rlim_t>(mb) << 20);
            const rlimit as = {bytes, bytes};
            setrlimit(RLIMIT_AS, &as);
        }
        const bool ok = f();
        fflush(nullptr);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// --- Loaders ----------------------------------------------------------------

struct LoadBound {
    const char *label;
    Loader loader;
    std::string file;
    std::vector<int> dims;  // w, h of a matrix; n, w, h, c of a tensor; none: refused
};

void PrintTo(const LoadBound &c, std::ostream *os) { *os << c.label; }

class LoaderBoundTest : public testing::TestWithParam<LoadBound> {};

TEST_P(LoaderBoundTest, TakesLittleMemoryAndTime)
{
    const LoadBound &c = GetParam();
    TempFile file(c.file);
    EXPECT_TRUE(within_limits(64, 5, [&] {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool right = load_dims(c.loader, file.path()) == c.dims;
        const bool quiet = testing::internal::GetCapturedStdout().empty();
        // A refusal's last line names the file and says why.
        const std::string err = testing::internal::GetCapturedStderr();
        const size_t last = err.rfind('\n', err.size() - 2);
        const std::string last_line = err.substr(last == std::string::npos ? 0 : last + 1);
        return right && quiet && (!c.dims.empty() || last_line.rfind(file.path(), 0) == 0);
    }));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, LoaderBoundTest,
    testing::Values(
        // Found by fuzzing: a zero entry sized the row buffer by the other one
        // (8 GB here) and counted two billion empty reads.
        LoadBound{"zero_rows_of_two_billion_columns", Loader::matrix, f4("(0, 2000000000)"), {2000000000, 0}},
        LoadBound{"two_billion_rows_of_nothing", Loader::matrix, f4("(2000000000, 0)"), {0, 2000000000}},
        LoadBound{
            "billions_promised_six_given", Loader::matrix, f4("(2000000000, 1)", raw<float>({1, 2, 3, 4, 5, 6})), {}},
        LoadBound{"just_under_32_bits_promised", Loader::matrix, f4("(46340, 46340)", raw<float>({1, 2})), {}},
        LoadBound{"longest_header",
                  Loader::matrix,
                  npy_bytes(kF4 + "(2,), }" + std::string(65535 - kF4.size() - 7, ' '), raw<float>({1, 2})),
                  {2, 1}},
        // Found by fuzzing: without elements (h or n zero) the count passed,
        // and the row stride w * c overflowed an int in the allocation.
        LoadBound{"weights_stride_beyond_int", Loader::weights, f4("(0, 65536, 65536, 1)"), {}},
        LoadBound{"weights_q_stride_beyond_int", Loader::weights_q, f4("(2, 65536, 65536, 0)"), {}},
        LoadBound{"input_stride_beyond_int", Loader::input, f4("(0, 4, 2147483647)"), {}},
        // Found by fuzzing: entries near 2^31 overflowed the 64-bit product
        // of the element count.
        LoadBound{"weights_count_beyond_64_bits", Loader::weights, f4("(2000000000, 1000000, 1000736, 65536)"), {}},
        LoadBound{"input_count_beyond_64_bits", Loader::input, f4("(2000000000, 1000000, 1000736)"), {}},
        LoadBound{"weights_without_elements", Loader::weights, f4("(0, 2, 3, 4)"), {4, 2, 0, 3}},
        LoadBound{"weights_billions_promised", Loader::weights, f4("(2000000000, 1, 1, 1)"), {}},
        // The row path goes on after short rows, but not into a tensor
        // larger than the whole file.
        LoadBound{"weights_rows_billions_promised", Loader::weights_q, f4("(40000, 50000)", raw<float>({1, 2})), {}},
        LoadBound{"input_billions_promised", Loader::input, f4("(2000000000, 1, 1)"), {}}),
    [](const auto &info) { return std::string(info.param.label); });

// --- The converter on hostile directories -----------------------------------

class HostileDirectoryTest : public testing::Test {
  protected:
    void SetUp() override { mkdir(model_.c_str(), 0700); }

    void write(const std::string &name, const std::string &bytes) const
    {
        tmp_.write(model_.substr(root_.size() + 1) + "/" + name, bytes);
    }

    std::string generated_source() const
    {
        std::ifstream in(root_ + "/out.c");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    // Runs kelvane on the directory: its status, and what it printed.
    int run(std::string &out, std::string &err, const std::vector<std::string> &options = {}) const
    {
        const std::string cfile = root_ + "/out.c", hfile = root_ + "/out.h";
        std::vector<const char *> argv = {"kelvane", model_.c_str(), cfile.c_str(), hfile.c_str(), "t"};
        for (const std::string &o : options) argv.push_back(o.c_str());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const auto s = kelvane::parse_options(static_cast<int>(argv.size()), argv.data(), stdout);
        const int status = s ? kelvane::convert(*s) : -1;
        fflush(stdout);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return status;
    }

    // The same in a child under the limits; true if the status is as
    // expected and printed(stdout) holds.
    bool convert_within(long mb, int cpu_seconds, int status, const std::function<bool(const std::string &)> &printed,
                        const std::vector<std::string> &options = {}) const
    {
        return within_limits(mb, cpu_seconds, [&] {
            std::string out, err;
            return run(out, err, options) == status && printed(out);
        });
    }

    static std::function<bool(const std::string &)> contains(const std::string &text)
    {
        return [text](const std::string &out) { return out.find(text) != std::string::npos; };
    }

    TempDir tmp_;
    const std::string root_ = tmp_.path();
    std::string model_ = root_ + "/m";
};

TEST_F(HostileDirectoryTest, BillionsPromisedAreRefusedWithoutAllocating)
{
    const char *const shapes[] = {"(2000000000, 1)", "(65536, 65536)", "(1000000, 1000)"};
    for (int i = 0; i < 3; i++) write("w" + std::to_string(i) + ".npy", f4(shapes[i], raw<float>({1})));
    const std::vector<std::vector<std::string>> modes = {
        {}, {"-no-quantized"}, {"-3d"}, {"-3d", "-no-quantized"}, {"-3d", "-in"}};
    for (const std::vector<std::string> &options : modes) {
        EXPECT_TRUE(convert_within(64, 10, 0,
                                   contains("WARNING: Could not parse file w0.npy, not converting.\n"
                                            "WARNING: Could not parse file w1.npy, not converting.\n"
                                            "WARNING: Could not parse file w2.npy, not converting.\n"),
                                   options))
            << options.size() << " options";
    }
}

// Empty tables whose other side is as long as a shape can say: written at
// once in every 2-D mode, batch norm included, without walking the long side
// (that took seconds under sanitizers) or overflowing the padded height.
TEST_F(HostileDirectoryTest, EmptyTablesWithTwoBillionOnTheOtherSide)
{
    for (const char *name : {"a", "v"}) write(std::string(name) + ".npy", f4("(2147483647, 0)"));
    write("b.npy", f4("(0, 2147483647)"));
    for (const std::vector<std::string> &options :
         {std::vector<std::string>{"-bnmatrices", "(v)"}, {"-no-quantized", "-bnmatrices", "(v)"}}) {
        EXPECT_TRUE(convert_within(
            16, 2, 0, [](const std::string &out) { return out.find("WARNING") == std::string::npos; }, options))
            << options.size() << " options";
    }
}

TEST_F(HostileDirectoryTest, ThousandsOfFilesKeepOneMatrixAtATime)
{
    const std::string row = f4("(64,)", raw<float>(std::vector<float>(64, 0.5f)));
    for (int i = 0; i < 3000; i++) write(std::string("w").append(std::to_string(i)).append(".npy"), row);
    // 3000 matrices of 64 floats: less than a megabyte of data in all, and
    // the names list; nothing near the limit unless every matrix is kept.
    EXPECT_TRUE(convert_within(32, 30, 0, [](const std::string &out) { return out.empty(); }));
}

TEST_F(HostileDirectoryTest, PathsLongerThanAnyFixedBuffer)
{
    for (int i = 0; i < 6; i++) {
        model_.append("/").append(200, static_cast<char>('a' + i));
        ASSERT_EQ(mkdir(model_.c_str(), 0700), 0);
    }
    const std::string name(200, 'w');
    write(name + ".npy", f4("(1,)", raw<float>({1})));
    std::string out, err;
    EXPECT_EQ(run(out, err), 0);
    EXPECT_EQ(out, "");
    EXPECT_NE(generated_source().find("if (strcmp(name, \"" + name + "\")==0)"), std::string::npos);
}

TEST_F(HostileDirectoryTest, MegabyteLinesOfModelInfoAreReadInPieces)
{
    // Four megabytes without a newline, 2 + 4k fields nowhere in a piece.
    write("_MODEL_INFO_", std::string(4 << 20, 'x') + "_a_b\n");
    EXPECT_TRUE(convert_within(16, 10, 1, contains("ERROR: Could not parse file ")));
    // The same with the significant line behind it.
    write("_MODEL_INFO_", std::string(4 << 20, '_') + "\nkws_v1_hey_3_0.8_0.6\n");
    EXPECT_TRUE(convert_within(16, 10, 0, [](const std::string &out) { return out.empty(); }));
}

TEST_F(HostileDirectoryTest, FifosAreSkippedNotOpened)
{
    // Found by fuzzing: its name alone made a FIFO the information file, and
    // opening a FIFO for reading waits for a writer that never comes.
    ASSERT_EQ(mkfifo((model_ + "/_MODEL_INFO_").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((model_ + "/pipe.npy").c_str(), 0600), 0);
    write("w.npy", f4("(1,)", raw<float>({1})));
    // In this process, so that a coverage build counts it: an open that
    // blocks ends the test by SIGALRM instead.
    alarm(5);
    std::string out, err;
    EXPECT_EQ(run(out, err), 0);
    alarm(0);
    EXPECT_EQ(out,
              "WARNING: Could not parse file _MODEL_INFO_, not converting.\n"
              "WARNING: Could not parse file pipe.npy, not converting.\n");
    EXPECT_NE(err.find(model_ + "/pipe.npy: not a regular file\n"), std::string::npos) << err;
    EXPECT_NE(generated_source().find("return &w;"), std::string::npos);
}

// --- Names and values the generated C must hold ------------------------------

// Names that -strict refuses because the pair would not compile with them
// (found by fuzzing: a keyword as a table name, a table shadowed by a
// lookup's parameter, a second definition of get_info or model_info, a
// clash with a declaration of string.h, strings.h or stdint.h, a macro that
// GNU dialects predefine).
TEST(TableNames, KeywordsAndTakenNamesAreRefused)
{
    // No identifiers; keywords and reserved names; the generated code's own
    // names and the library's; names its headers declare or define.
    const std::vector<const char *> refused[] = {
        {"", "2nd", "my-w", "a[0]={1};int b", "caf\xc3\xa9"},
        {"int", "while", "bool", "_Bool", "_Pragma", "__x", "NULL"},
        {"name", "hint", "get_info", "model_info", "get_coeff_q", "det_win_list", "fast_exp", "dl_matrix_alloc"},
        {"DL_MF_FOREIGNDATA", "fptp_t", "strcmp", "memcpy", "strdup", "index", "linux", "size_t", "INT8_MAX"},
        {"UINT64_C", "SIZE_MAX"}};
    for (const auto &names : refused)
        for (const char *name : names) EXPECT_NE(kelvane::name_problem(name), "") << name;
    for (const char *name : {"dense", "pop_var", "_bias", "Dense_2", "integer", "string", "t", "INT8", "names"})
        EXPECT_EQ(kelvane::name_problem(name), "") << name;
}

}  // namespace
