#include "convert.h"

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "emit.h"
#include "model_dir.h"

namespace kelvane {

namespace {

struct converted_matrix_t {
    std::string name;
    uint8_t flags;
};

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// One run's state: the settings, the two outputs and the names converted so
// far, in sorted order (the lookups list them newest first).
class Converter {
public:
    Converter(const Settings &s, FILE *cfile, FILE *hfile) : s_(s), cfile_(cfile), hfile_(hfile) {}

    // Runs one directory entry through the pipeline; false means stop with
    // status 1.
    bool entry(const char *entry_name);
    void write_tail();

private:
    template <class Record>
    bool convert_file(const char *entry_name, const std::string &name, const std::string &path,
                      Record *(*load)(const char *), void (*emit)(const char *, const Record *, FILE *, FILE *),
                      void (*release)(Record *));
    void write_lookup(const char *head, bool quantised_members) const;

    const Settings &s_;
    FILE *cfile_;
    FILE *hfile_;
    std::vector<converted_matrix_t> converted_;
};

template <class Record>
bool Converter::convert_file(const char *entry_name, const std::string &name, const std::string &path,
                             Record *(*load)(const char *),
                             void (*emit)(const char *, const Record *, FILE *, FILE *), void (*release)(Record *))
{
    std::unique_ptr<Record, void (*)(Record *)> m(load(path.c_str()), release);
    if (!m) {
        printf("WARNING: Could not parse file %s, not converting.\n", entry_name);
        return true;
    }
    int flags = final_flags(s_, name);
    if constexpr (!std::is_same_v<Record, dl_matrix2d_t>) {
        // Batch-norm roots and fixed-point 2-D tables are for 2-D matrices:
        // a tensor never reaches those routines, whose record layout is not
        // its own. It is written in the mode's format like every other
        // tensor, and the user learns that the list did not apply.
        if (flags & MF_QUANTISED)
            printf("WARNING: %s is a tensor: -exclude applies to 2-D matrices only and is ignored for it.\n",
                   name.c_str());
        if (flags & MF_BATCHNORM)
            printf("WARNING: %s is a tensor: -bnmatrices applies to 2-D matrices only and is ignored for it.\n",
                   name.c_str());
        flags &= ~(MF_QUANTISED | MF_BATCHNORM);
    }
    fputs("\n", cfile_);
    if constexpr (std::is_same_v<Record, dl_matrix2d_t>) {
        if (flags & MF_BATCHNORM) {
            fprintf(cfile_, "//Warning: this has been pre-processed by dl_batch_normalize_get_sqrtvar (epsilon=%f)\n",
                    static_cast<double>(kBatchNormEpsilon));
            precalculate_batch_norm(m.get());
        }
        if (flags & MF_QUANTISED) {
            if (!emit_matrix2dq(name.c_str(), m.get(), cfile_, hfile_)) {
                printf("ERROR: Out of memory while converting %s.\n", entry_name);
                return false;
            }
            converted_.push_back({name, static_cast<uint8_t>(flags)});
            return true;
        }
    }
    emit(name.c_str(), m.get(), cfile_, hfile_);
    converted_.push_back({name, static_cast<uint8_t>(flags)});
    return true;
}

bool Converter::entry(const char *entry_name)
{
    const ModelEntry e = classify_entry(s_.modeldir, entry_name);
    const std::string &name = e.name;
    const std::string &path = e.path;
    switch (e.kind) {
    case EntryKind::hidden: return true;
    case EntryKind::model_info: return emit_model_info(path.c_str(), cfile_);
    case EntryKind::bad_name:
        printf("WARNING: Name %s of file %s is not a C identifier, not converting.\n", name.c_str(), entry_name);
        return true;
    case EntryKind::not_regular:
        fprintf(stderr, "%s: not a regular file\n", path.c_str());
        printf("WARNING: Could not parse file %s, not converting.\n", entry_name);
        return true;
    case EntryKind::load: break;
    }

    switch (s_.mode()) {
    case Mode::quantised_2d:
    case Mode::float_2d:
        return convert_file<dl_matrix2d_t>(entry_name, name, path, dl_matrix2d_from_numpy_file, emit_matrix2d,
                                           dl_matrix_free);
    case Mode::quantised_tensor:
        return convert_file<dl_matrix3dq_t>(entry_name, name, path, dl_matrix3dq_weight_from_numpy_file,
                                            emit_matrix3dq, dl_matrix3dq_free);
    case Mode::float_tensor:
        return convert_file<dl_matrix3d_t>(entry_name, name, path, dl_matrix3d_weight_from_numpy_file, emit_matrix3d,
                                           dl_matrix3d_free);
    case Mode::input_tensor:
        return convert_file<dl_matrix3du_t>(entry_name, name, path, dl_matrix3du_input_from_numpy_file,
                                            emit_matrix3d_input, dl_matrix3du_free);
    }
    return false;
}

void Converter::write_lookup(const char *head, bool quantised_members) const
{
    fputs(head, cfile_);
    for (auto it = converted_.rbegin(); it != converted_.rend(); ++it) {
        if (((it->flags & MF_QUANTISED) != 0) != quantised_members) continue;
        fprintf(cfile_, "\tif (strcmp(name, \"%s\")==0) return &%s;\n", it->name.c_str(), it->name.c_str());
    }
    fputs("\treturn NULL;\n", cfile_);
    fputs("}\n", cfile_);
}

void Converter::write_tail()
{
    const char *head = nullptr;
    const char *member = nullptr;
    switch (s_.mode()) {
    case Mode::quantised_2d:
        head = "static const dl_matrix2dq_t *get_coeff_q(const char *name, void *arg, int hint) {\n";
        member = "\t.getter_q=get_coeff_q,\n";
        break;
    case Mode::float_2d:
        head = "static const dl_matrix2d_t *get_coeff_f(const char *name, void *arg, int hint) {\n";
        member = "\t.getter_f=get_coeff_f,\n";
        break;
    case Mode::quantised_tensor:
        head = "static const dl_matrix3dq_t *get_coeff_3dq(const char *name, void *arg, int hint) {\n";
        member = "\t.getter_3dq=get_coeff_3dq,\n";
        break;
    case Mode::float_tensor:
        head = "static const dl_matrix3d_t *get_coeff_3d(const char *name, void *arg, int hint) {\n";
        member = "\t.getter_3d=get_coeff_3d,\n";
        break;
    case Mode::input_tensor:
        head = "static const dl_matrix3du_t *get_coeff_3d(const char *name, void *arg, int hint) {\n";
        member = "\t.getter_3d=get_coeff_3d,\n";
        break;
    }
    // In quantised 2-D mode every matrix is quantised and stands in the one
    // lookup; otherwise the first lookup lists the others and a second one,
    // written whenever -exclude is in force in a float mode, the quantised.
    const bool all_quantised = s_.mode() == Mode::quantised_2d;
    write_lookup(head, all_quantised);
    const bool second = s_.float_flag && s_.exclude_flag;
    if (second) write_lookup("static const dl_matrix2dq_t *get_coeff_q(const char *name, void *arg, int hint) {\n", true);
    fputs("static const model_info_t *get_info(void *arg) {\n", cfile_);
    fputs("\treturn &model_info;\n", cfile_);
    fputs("}\n", cfile_);
    fprintf(cfile_, "const model_coeff_getter_t get_coeff_%s={\n", s_.name.c_str());
    fputs("\t.getter_info=get_info,\n", cfile_);
    fputs(member, cfile_);
    if (second) fputs("\t.getter_q=get_coeff_q,\n", cfile_);
    fputs("};\n", cfile_);
    fprintf(hfile_, "extern const model_coeff_getter_t get_coeff_%s;\n", s_.name.c_str());
}

File open_output(const std::string &path)
{
    File f(fopen(path.c_str(), "w"));
    if (!f) perror(path.c_str());
    return f;
}

// Closes an output and reports a failed write (a full disk, say).
bool close_output(File &f, const std::string &path)
{
    const bool ok = !ferror(f.get()) && fclose(f.release()) == 0;
    if (!ok) perror(path.c_str());
    return ok;
}

}  // namespace

int convert(const Settings &s)
{
    File cfile = open_output(s.cfile);
    if (!cfile) return 1;
    File hfile = open_output(s.hfile);
    if (!hfile) return 1;
    emit_c_hdr(cfile.get(), s.name.c_str());
    emit_h_hdr(hfile.get());

    std::vector<std::string> entries;
    if (!list_model_dir(s.modeldir, entries)) {
        perror(s.modeldir.c_str());
        return 1;
    }
    Converter converter(s, cfile.get(), hfile.get());
    for (const std::string &entry : entries)
        if (!converter.entry(entry.c_str())) return 1;

    emit_h_footer(hfile.get(), s.name.c_str());
    converter.write_tail();
    const bool c_ok = close_output(cfile, s.cfile);
    const bool h_ok = close_output(hfile, s.hfile);
    return c_ok && h_ok ? 0 : 1;
}

}  // namespace kelvane
