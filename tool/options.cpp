#include "options.h"

#include <cstring>

namespace kelvane {

Mode Settings::mode() const
{
    // -in is tested before -no-quantized, so -3d -in ignores the latter.
    if (tensor_flag) {
        if (input_flag) return Mode::input_tensor;
        return float_flag ? Mode::float_tensor : Mode::quantised_tensor;
    }
    return float_flag ? Mode::float_2d : Mode::quantised_2d;
}

// The usage text lists the classic options only; -strict is documented in
// the README.
static void print_usage(const char *prog, FILE *out)
{
    fprintf(out, "Usage: %s modeldir cfile hfile name [opts]\n", prog);
    fputs("Opts:\n", out);
    fputs("-no-quantized: use only floats\n", out);
    fputs(
        "-bnmatrices name1,name2,name3,...: Names of the batch-normalize matrices. These will be converted into "
        "pre-calculated intermediates. Default: pop_var\n",
        out);
}

int parse_mode_option(int argc, const char *const *argv, int i, Settings &s, FILE *out)
{
    const char *arg = argv[i];
    const bool has_next = i + 1 < argc;
    if (strcmp(arg, "-no-quantized") == 0) {
        s.float_flag = true;
        fputs("Not quantizing.\n", out);
    } else if (strcmp(arg, "-3d") == 0) {
        s.tensor_flag = true;
    } else if (strcmp(arg, "-in") == 0 && s.tensor_flag) {
        s.input_flag = true;
    } else if (strcmp(arg, "-strict") == 0) {
        s.strict = true;
    } else if (strcmp(arg, "-exclude") == 0) {
        if (!has_next) return 1;  // a trailing -exclude is ignored
        const char *list = argv[i + 1];
        if (list[0] != '(') {
            fputs("should be \"-exclude (h1,h2)\" if need h1 and h2 to be quantized.\n", out);
            return 0;
        }
        // Drop the '(' and the last character, whatever it is.
        const size_t len = strlen(list);
        s.exclude_list = len >= 2 ? std::string(list + 1, len - 2) : std::string();
        s.exclude_closed = len >= 2 && list[len - 1] == ')';
        s.exclude_flag = true;
        return 2;
    } else if (strcmp(arg, "-bnmatrices") == 0 && has_next) {
        s.bnmatrices = argv[i + 1];
        s.bnmatrices_given = true;
        return 2;
    } else {
        fprintf(out, "Unrecognized cmdline arg %s\n", arg);
        return 0;
    }
    return 1;
}

std::optional<Settings> parse_options(int argc, const char *const *argv, FILE *out)
{
    if (argc < 5) {
        print_usage(argc > 0 ? argv[0] : "kelvane", out);
        return std::nullopt;
    }
    Settings s;
    s.modeldir = argv[1];
    s.cfile = argv[2];
    s.hfile = argv[3];
    s.name = argv[4];
    for (int i = 5; i < argc;) {
        const int used = parse_mode_option(argc, argv, i, s, out);
        if (used == 0) return std::nullopt;
        i += used;
    }
    return s;
}

}  // namespace kelvane
