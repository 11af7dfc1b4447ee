#include "model_dir.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "emit.h"

namespace kelvane {

const char *const kModelInfoFilename = "_MODEL_INFO_";

bool list_model_dir(const std::string &dir, std::vector<std::string> &names)
{
    struct dirent **entries = nullptr;
    const int count = scandir(dir.c_str(), &entries, nullptr, alphasort);
    if (count < 0) return false;
    names.clear();
    names.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        names.emplace_back(entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return true;
}

ModelEntry classify_entry(const std::string &modeldir, const char *entry_name)
{
    ModelEntry e{EntryKind::load, sanitize_name(entry_name), modeldir + "/" + entry_name};
    if (entry_name[0] == '.') {
        e.kind = EntryKind::hidden;
        return e;
    }
    // Opening a FIFO or a device could block or never end; such an entry is
    // neither a coefficient file nor the model information, whatever its
    // name. Directories go on to the loader, which refuses them.
    struct stat st;
    const bool special = stat(e.path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
    if (strcmp(entry_name, kModelInfoFilename) == 0) {
        e.kind = special ? EntryKind::not_regular : EntryKind::model_info;
    } else if (special) {
        e.kind = EntryKind::not_regular;
    }
    return e;
}

int final_flags(const Settings &s, const std::string &name)
{
    int flags = get_flags_for_file(name, s.bnmatrices);
    if (s.float_flag || s.tensor_flag) {
        flags &= ~MF_QUANTISED;
        if (s.exclude_flag) {
            // Split at commas; empty items vanish, as with strtok.
            const std::string &list = s.exclude_list;
            for (size_t start = 0; start <= list.size();) {
                size_t end = list.find(',', start);
                if (end == std::string::npos) end = list.size();
                if (end > start && list.compare(start, end - start, name) == 0) flags |= MF_QUANTISED;
                start = end + 1;
            }
        }
    }
    return flags;
}

void precalculate_batch_norm(dl_matrix2d_t *m) { dl_batch_normalize_get_sqrtvar(m, kBatchNormEpsilon, m); }

}  // namespace kelvane
