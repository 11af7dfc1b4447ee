// The converter's pieces on memory streams. Whole runs, messages and exit
// statuses are the golden cases under cli/; the cases here pin what those
// cannot reach or would need many model directories for.
#include <gtest/gtest.h>

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

TEST(ModelInfo, UnopenableFileGivesPerror)
{
    MemStream c;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(emit_model_info("/nonexistent/_MODEL_INFO_", c.get()));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/nonexistent/_MODEL_INFO_: No such file or directory\n");
}

}  // namespace
