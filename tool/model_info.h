// _MODEL_INFO_: the wake words of a model, each with a detection window and
// two thresholds, read from the file's one significant line and written as
// the generated source's model_info record.
#ifndef KELVANE_MODEL_INFO_H
#define KELVANE_MODEL_INFO_H

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

struct ModelInfo {
    std::string line;  // the significant line without its newline: info_str
    std::vector<std::string> words;
    std::vector<int> windows;
    std::vector<float> thresholds;  // word i: [2*i] and [2*i+1]
    // Printed, in this order, while the line is read: the warning of each
    // window that is not one digit from 1 to 9 (no newline: what follows
    // goes on in the same line).
    std::vector<std::string> warnings;
};

// Why a file cannot be used at all (the run stops with status 1), as the
// classic reader reports it: the text and whether it goes to stderr behind
// the path, as perror prints it, or to stdout as it stands.
struct ModelInfoError {
    std::string text;
    bool is_errno = false;
};

// Reads the file at path. Without problems, what the classic reader accepts
// is accepted; with it, every finding that -strict refuses is added to it
// too (a byte-order mark, a significant line longer than the read buffer, a
// threshold that is not a finite number, a window that is not one digit).
std::optional<ModelInfo> read_model_info(const char *path, ModelInfoError &error,
                                         std::vector<std::string> *problems = nullptr);

// The tables and the model_info record, to cfile. Words and the line go
// into the string literals as they stand, but for quotes and backslashes;
// escape_all also escapes control characters and "??", so the literal holds
// exactly the file's bytes and always compiles.
void write_model_info(const ModelInfo &info, FILE *cfile, bool escape_all);

// The classic path: read, print the warnings and any error, write. False
// when the run must stop with status 1.
bool emit_model_info(const char *path, FILE *cfile);

}  // namespace kelvane

#endif
