// Command line of kelvane: kelvane modeldir cfile hfile name [opts]
#ifndef KELVANE_OPTIONS_H
#define KELVANE_OPTIONS_H

#include <cstdio>
#include <optional>
#include <string>

namespace kelvane {

// What a run produces; chosen by -no-quantized, -3d and -in.
enum class Mode { quantised_2d, float_2d, quantised_tensor, float_tensor, input_tensor };

struct Settings {
    std::string modeldir, cfile, hfile, name;
    bool float_flag = false;     // -no-quantized
    bool tensor_flag = false;    // -3d
    bool input_flag = false;     // -in, after -3d
    bool exclude_flag = false;   // -exclude (...)
    std::string exclude_list;    // names to quantise in a float mode, comma-separated
    bool exclude_closed = true;  // the -exclude argument ended in ')'
    std::string bnmatrices = "pop_var";
    bool bnmatrices_given = false;  // -bnmatrices on the command line
    bool strict = false;            // -strict: refuse what would not compile or not hold the files' values

    Mode mode() const;
};

// One option of the mode at argv[i] (-no-quantized, -3d, -in, -exclude,
// -bnmatrices, -strict), taking its argument where it has one. Messages
// ("Not quantizing.", errors) go to out. Returns how many arguments it
// used, or 0 when the run must stop with status 1. kelvane and
// kelvane-report both parse their options with it.
int parse_mode_option(int argc, const char *const *argv, int i, Settings &s, FILE *out);

// Parses kelvane's whole command line; messages (usage, errors) go to out.
// Returns nothing when the run must stop with status 1.
std::optional<Settings> parse_options(int argc, const char *const *argv, FILE *out);

}  // namespace kelvane

#endif
