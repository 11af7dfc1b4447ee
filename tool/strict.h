// What -strict refuses: everything that would give a pair that does not
// compile, or tables that do not hold exactly the values of the files.
// kelvane-report reports the same findings.
#ifndef KELVANE_STRICT_H
#define KELVANE_STRICT_H

#include <string>
#include <vector>

#include "dl_lib.h"
#include "options.h"

namespace kelvane {

struct Finding {
    std::string file;  // the directory entry, or "" for the command line
    std::string why;
};

// The command line: the model name, the two outputs, an unclosed -exclude.
void check_settings(const Settings &s, std::vector<Finding> &findings);

// A coefficient file's header against what the mode's loader reads exactly:
// C order, one element type of the loader's table (no structured type), no
// more shape entries than the mode takes, no negative entry, and as many
// bytes of data as the shape holds. Adds at most one finding.
void check_npy_header(const Settings &s, const std::string &file, const std::string &path,
                      std::vector<Finding> &findings);

// Whether every item is finite; a table that is quantised must be: one NaN
// or infinity sets the exponent of the whole table, and the quantiser then
// writes zeros. The finding says so:
constexpr const char *kNonFiniteQuantised = "it holds a NaN or an infinity, which cannot be quantised";
bool all_finite(const dl_matrix2d_t *m);
bool all_finite(const dl_matrix3d_t *t);

// After the walk: names of an -exclude list, or of a -bnmatrices list given
// on the command line, that no converted file has.
void check_lists(const Settings &s, const std::vector<std::string> &converted, std::vector<Finding> &findings);

// "ERROR: <file>: <why>" (or "ERROR: <why>" for the command line), to stdout.
void print_finding(const Finding &f);

}  // namespace kelvane

#endif
