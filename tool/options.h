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
    bool float_flag = false;    // -no-quantized
    bool tensor_flag = false;   // -3d
    bool input_flag = false;    // -in, after -3d
    bool exclude_flag = false;  // -exclude (...)
    std::string exclude_list;   // names to quantise in a float mode, comma-separated
    std::string bnmatrices = "pop_var";

    Mode mode() const;
};

// Parses argv; messages ("Not quantizing.", usage, errors) go to out. Returns
// nothing when the run must stop with status 1.
std::optional<Settings> parse_options(int argc, const char *const *argv, FILE *out);

}  // namespace kelvane

#endif
