#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <regex>

#include "convert.h"
#include "emit.h"
#include "report.h"
#include "test_util.h"

using namespace kelvane;
using namespace testutil;

namespace {

// ---- helpers ----------------------------------------------------------------

struct RunResult {
    int status;
    std::string out, err;
};

// kelvane-report as from the command line, after the program name.
RunResult run(std::vector<const char *> args)
{
    args.insert(args.begin(), "kelvane-report");
    MemStream out, err;
    int status = 1;
    if (auto s = parse_report_options(static_cast<int>(args.size()), args.data(), err.get()))
        status = run_report(*s, out.get(), err.get());
    return {status, out.str(), err.str()};
}

// kelvane's settings for dir and mode options.
Settings settings(const std::string &dir, const std::vector<const char *> &opts)
{
    std::vector<const char *> argv = {"kelvane", dir.c_str(), "-", "-", "m"};
    argv.insert(argv.end(), opts.begin(), opts.end());
    MemStream ignored;
    return parse_options(static_cast<int>(argv.size()), argv.data(), ignored.get()).value();
}

// The report of a directory, its options parsed as kelvane-report parses
// them (kelvane's mode options after the directory).
ModelReport analyse(const std::string &dir, const std::vector<const char *> &opts = {})
{
    std::vector<const char *> argv = {"kelvane-report", dir.c_str()};
    argv.insert(argv.end(), opts.begin(), opts.end());
    MemStream err;
    ModelReport r;
    const auto s = parse_report_options(static_cast<int>(argv.size()), argv.data(), err.get());
    EXPECT_TRUE(s && analyse_model(s->convert, r, err.get())) << err.str();
    return r;
}

// ---- figures worked out by hand -----------------------------------------------

struct FigureCase {
    const char *what;
    int flags;
    std::optional<int> exponent;
    std::optional<double> snr_db;  // nothing: exact
    double max_error;
    double zeroed_share;
    std::vector<float> values;  // one row
};

void PrintTo(const FigureCase &c, std::ostream *os) { *os << c.what; }

class FigureTest : public testing::TestWithParam<FigureCase> {};

TEST_P(FigureTest, SnrErrorAndZeroed)
{
    const FigureCase &c = GetParam();
    MatrixPtr m = matrix(static_cast<int>(c.values.size()), 1, c.values);
    const auto row = analyse_matrix2d(m.get(), c.flags);
    ASSERT_TRUE(row);
    EXPECT_EQ(row->exponent, c.exponent);
    ASSERT_EQ(row->cmp.snr_db().has_value(), c.snr_db.has_value());
    // log10 and the sums are in double: a few ulps apart at most.
    if (c.snr_db) {
        EXPECT_NEAR(*row->cmp.snr_db(), *c.snr_db, 1e-9);
    }
    EXPECT_EQ(row->cmp.max_abs_error, c.max_error);
    EXPECT_EQ(row->cmp.zeroed_share(), c.zeroed_share);
}

// 1e-7 as the float the file holds, and one unit at exponent -14.
const double k1e7 = static_cast<double>(1e-7f), kUnit = std::ldexp(1.0, -14);

const FigureCase kFigureCases[] = {
    // 1.0 sets exponent -14: 16384, 8192, 4096 and 0 are exact items.
    {"exact items", MF_QUANTISED, -14, std::nullopt, 0.0, 0.0, {1.0f, 0.5f, 0.25f, 0.0f}},
    // -1.0 becomes -16383, one unit of 2^-14 short: SNR = 10 log10(2 / 2^-28).
    {"a negative item one unit off", MF_QUANTISED, -14, 290.0 * std::log10(2.0), kUnit, 0.0, {1.0f, -1.0f}},
    // 2^-16 is a quarter unit: item 0; SNR = 10 log10((1 + 2^-32) / 2^-32).
    {"a small value lost",
     MF_QUANTISED,
     -14,
     10.0 * std::log10(std::ldexp(1.0, 32) + 1.0),
     kUnit / 4,
     0.5,
     {1.0f, std::ldexp(1.0f, -16)}},
    {"all zero", MF_QUANTISED, 0, std::nullopt, 0.0, 0.0, {0.0f, 0.0f}},
    // Six decimals read back to the same floats.
    {"float, exact in six decimals", 0, std::nullopt, std::nullopt, 0.0, 0.0, {0.5f, -2.0f, 0.1f}},
    // 1e-7 prints as 0.000000.
    {"float, six decimals lose a value",
     0,
     std::nullopt,
     10.0 * std::log10((0.25 + k1e7 * k1e7) / (k1e7 * k1e7)),
     k1e7,
     0.5,
     {0.5f, 1e-7f}},
};

INSTANTIATE_TEST_SUITE_P(Table, FigureTest, testing::ValuesIn(kFigureCases),
                         [](const auto &info) { return test_name(info.param.what); });

// ---- JSON, status and messages ---------------------------------------------------

// The exact text and JSON outputs, and each warning, are golden cases
// (tests/cli/report_*).
// File names may hold any bytes: the document stays valid JSON and keeps
// them (bytes that are no UTF-8 become U+FFFD).
TEST(Json, NamesWithQuotesBackslashesAndControlBytesParse)
{
    TempDir dir;
    const std::string odd = "q\"b\\s\x01\x1f.npy";
    dir.write(odd, f4("(2,)", raw<float>({1.0f, -0.5f})));
    dir.write("junk.\x7f\xff", "not a numpy file");
    const RunResult res = run({dir.path().c_str(), "--json"});
    ASSERT_EQ(res.status, 0) << res.err;
    const auto doc = nlohmann::json::parse(res.out);
    EXPECT_EQ(doc["modeldir"], dir.path());
    ASSERT_EQ(doc["tables"].size(), 1u);
    EXPECT_EQ(doc["tables"][0]["file"], odd);
    EXPECT_EQ(doc["tables"][0]["exponent"], -14);
    EXPECT_EQ(doc["skipped"][0]["file"], "junk.\x7f\xef\xbf\xbd");
    // The table's sanitised name q"b\s... is no C identifier: -strict refuses it.
    EXPECT_EQ(doc["strict_findings"].size(), 2u);
}

// ---- the report agrees with the tables kelvane writes ---------------------------------

struct AgreementCase {
    const char *dir;  // under the source tree
    std::vector<const char *> opts;
};

void PrintTo(const AgreementCase &c, std::ostream *os) { *os << c.dir << " and " << c.opts.size() << " options"; }

class AgreementTest : public testing::TestWithParam<AgreementCase> {};

struct GeneratedTable {
    std::string name;
    int item_size;  // bytes
    int64_t count;  // items
    std::optional<int> exponent;
};

// The item arrays of a generated source, read line by line: each item ends
// in a comma, and a fixed-point record's exponent follows its array.
std::vector<GeneratedTable> generated_tables(const std::string &cfile)
{
    std::vector<GeneratedTable> tables;
    std::ifstream in(cfile);
    const std::string tail = "_item_array[]={";
    bool in_items = false;
    for (std::string line; std::getline(in, line);) {
        for (const auto &[head, size] :
             {std::pair{"const static qtp_t ", 2}, {"const static fptp_t ", 4}, {"const static uc_t ", 1}}) {
            const size_t n = strlen(head);
            if (line.compare(0, n, head) == 0 && line.ends_with(tail)) {
                tables.push_back({line.substr(n, line.size() - n - tail.size()), size, 0, std::nullopt});
                in_items = true;
            }
        }
        if (line == "};") in_items = false;
        if (in_items && line[0] == '\t') tables.back().count += std::count(line.begin(), line.end(), ',');
        if (line.compare(0, 11, "\t.exponent=") == 0 && !tables.empty())
            tables.back().exponent = std::stoi(line.substr(11));
    }
    return tables;
}

// Tables, kinds, exponents and flash bytes as kelvane writes them, and the
// entries it warns about as those the report lists.
TEST_P(AgreementTest, TablesAndFlashBytes)
{
    const AgreementCase &c = GetParam();
    const std::string dir = std::string(DL_SOURCE_DIR) + "/" + c.dir;
    TempDir out;
    Settings s = settings(dir, c.opts);
    s.cfile = out.path() + "/m.c";
    s.hfile = out.path() + "/m.h";
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ASSERT_EQ(convert(s), 0);
    fflush(stdout);
    const std::string printed = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();

    const std::vector<GeneratedTable> generated = generated_tables(s.cfile);
    const ModelReport r = analyse(dir, c.opts);
    ASSERT_EQ(r.tables.size(), generated.size());
    int64_t bytes = 0;
    for (size_t i = 0; i < generated.size(); i++) {
        const GeneratedTable &g = generated[i];
        const TableRow &t = r.tables[i];
        const int64_t size = g.count * g.item_size;
        EXPECT_EQ(t.name, g.name);
        EXPECT_EQ(t.bytes, size) << g.name;
        EXPECT_EQ(t.exponent, g.exponent) << g.name;
        bytes += size;
    }
    EXPECT_EQ(r.flash_bytes(), bytes);

    std::string skipped, warned;
    for (const SkippedEntry &e : r.skipped) skipped += e.file + "\n";
    const std::regex warning("WARNING: (?:Could not parse file |Name \\S+ of file )(.*), not converting\\.");
    for (std::sregex_iterator it(printed.begin(), printed.end(), warning), end; it != end; ++it)
        warned += (*it)[1].str() + "\n";
    EXPECT_EQ(skipped, warned);
}

INSTANTIATE_TEST_SUITE_P(
    Models, AgreementTest,
    testing::Values(AgreementCase{"examples/demo/model", {}},
                    AgreementCase{"examples/demo/model", {"-no-quantized", "-exclude", "(dense1_w,pop_var)"}},
                    AgreementCase{"tests/data/npy", {}},
                    AgreementCase{"tests/data/fetch_model", {"-no-quantized", "-exclude", "(dense,odd)"}},
                    AgreementCase{"tests/data/fetch_model", {"-bnmatrices", "tiny,zero"}},
                    AgreementCase{"tests/data/hostile_model", {}},
                    AgreementCase{"tests/data/hostile_model", {"-no-quantized"}},
                    AgreementCase{"tests/data/tensor", {"-3d"}},
                    AgreementCase{"tests/data/tensor", {"-3d", "-no-quantized"}},
                    AgreementCase{"tests/data/tensor", {"-3d", "-in"}},
                    AgreementCase{"examples/digits/conv", {"-3d", "-exclude", "(fc1_w)"}}),
    [](const auto &info) {
        std::string what = info.param.dir;
        for (const char *o : info.param.opts) what += o;
        return test_name(what);
    });

}  // namespace
