// How a run reads a model directory: which entries it tries, in which order,
// and what it makes of each name. Shared by kelvane and kelvane-report, so
// that the report describes exactly what the converter writes.
#ifndef KELVANE_MODEL_DIR_H
#define KELVANE_MODEL_DIR_H

#include <string>
#include <vector>

#include "dl_lib.h"
#include "options.h"

namespace kelvane {

extern const char *const kModelInfoFilename;  // "_MODEL_INFO_"

// Added to each variance before its root is taken.
constexpr fptp_t kBatchNormEpsilon = 0.001f;

// The names of dir's entries in byte order. False, with errno set, when the
// directory cannot be scanned.
bool list_model_dir(const std::string &dir, std::vector<std::string> &names);

enum class EntryKind {
    hidden,       // ., .. and hidden files: not looked at
    model_info,   // _MODEL_INFO_
    not_regular,  // a FIFO, device or socket: never opened
    load,         // goes to the mode's loader
};

struct ModelEntry {
    EntryKind kind;
    std::string name;  // sanitised
    std::string path;  // modeldir/entry
};

ModelEntry classify_entry(const std::string &modeldir, const char *entry_name);

// The flags a loaded 2-D matrix is written with in this run: those of
// get_flags_for_file, with MF_QUANTISED kept in quantised 2-D mode and,
// in the other modes, only for a name of the -exclude list.
int final_flags(const Settings &s, const std::string &name);

// Replaces a variance matrix in place by its roots sqrt(v + kBatchNormEpsilon).
void precalculate_batch_norm(dl_matrix2d_t *m);

}  // namespace kelvane

#endif
