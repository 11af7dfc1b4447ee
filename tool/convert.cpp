#include "convert.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "emit.h"
#include "model_dir.h"
#include "numpy_input_internal.h"
#include "strict.h"

namespace kelvane {

namespace {

struct converted_matrix_t {
    std::string name;
    uint8_t flags;
};

// One generated file. The classic run writes it in place, so that a stop
// leaves what was written so far. The strict run writes a temporary file in
// the same directory and renames it into place only when the whole run
// succeeded, so a failed or interrupted run leaves the previous file.
class Output {
  public:
    explicit Output(std::string path) : path_(std::move(path)) {}
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output() { finish(false); }

    bool open(bool via_temp)
    {
        if (via_temp) {
            const std::filesystem::path p(path_);
            // Built by appends: GCC 12 misreads "." + string as an overlapping copy.
            std::string hidden(1, '.');
            hidden.append(p.filename().string()).append(".XXXXXX");
            temp_ = (p.parent_path() / hidden).string();
            const int fd = mkstemp(temp_.data());
            f_ = fd >= 0 ? fdopen(fd, "w") : nullptr;
            if (!f_ && fd >= 0) close(fd);
            if (!f_) temp_.clear();
        } else {
            f_ = fopen(path_.c_str(), "w");
        }
        if (!f_) perror(path_.c_str());
        return f_ != nullptr;
    }

    FILE *get() const { return f_; }

    // Closes the file and reports a failed write or close (a full disk, say)
    // with perror. A temporary file is renamed into place when keep is set
    // and everything went well, and removed otherwise.
    bool finish(bool keep)
    {
        if (!f_) return !keep;
        bool ok = !ferror(f_);
        ok = (fclose(f_) == 0) && ok;
        f_ = nullptr;
        if (!ok && keep) perror(path_.c_str());
        if (!temp_.empty()) {
            if (ok && keep && rename(temp_.c_str(), path_.c_str()) != 0) {
                perror(path_.c_str());
                ok = false;
            }
            if (!ok || !keep) remove(temp_.c_str());
            temp_.clear();
        }
        return ok;
    }

  private:
    std::string path_;
    std::string temp_;
    FILE *f_ = nullptr;
};

// One run's state: the settings, the source being written and the names
// converted so far, in sorted order (the lookups list them newest first).
class Converter {
  public:
    Converter(const Settings &s, FILE *cfile) : s_(s), cfile_(cfile) {}

    // Runs one directory entry through the pipeline; false means stop with
    // status 1.
    bool entry(const char *entry_name);
    void write_tail();
    std::vector<std::string> names() const
    {
        std::vector<std::string> names;
        for (const converted_matrix_t &c : converted_) names.push_back(c.name);
        return names;
    }

    std::vector<Finding> findings;  // what -strict refuses

  private:
    template <class Record>
    bool convert_file(const ModelEntry &e, const char *entry_name, Record *(*load)(const char *, dl::npy::Diagnostic *),
                      void (*release)(Record *));
    template <class Record>
    bool emit(const std::string &name, const Record *m);
    void write_lookup(const char *head, bool quantised_members) const;
    bool model_info(const char *entry_name, const std::string &path);

    const Settings &s_;
    FILE *cfile_;
    std::vector<converted_matrix_t> converted_;
    NameTable names_;
};

// The table of a loaded record. A filter bank of the quantised tensor mode
// is loaded as floats, so that -strict can look at its values, and quantised
// here as its loader would (dl_matrixq_from_matrix3d). False if memory ran
// out.
template <class Record>
bool Converter::emit(const std::string &name, const Record *m)
{
    const NonFinite non_finite = s_.strict ? NonFinite::as_expression : NonFinite::as_printed;
    if constexpr (std::is_same_v<Record, dl_matrix2d_t>) {
        emit_matrix2d(name.c_str(), m, cfile_, non_finite);
    } else if constexpr (std::is_same_v<Record, dl_matrix3d_t>) {
        if (s_.mode() != Mode::quantised_tensor) {
            emit_matrix3d(name.c_str(), m, cfile_, non_finite);
            return true;
        }
        std::unique_ptr<dl_matrix3dq_t, void (*)(dl_matrix3dq_t *)> q(dl_matrixq_from_matrix3d(m), dl_matrix3dq_free);
        if (!q) return false;
        emit_matrix3dq(name.c_str(), q.get(), cfile_);
    } else {
        emit_matrix3d_input(name.c_str(), m, cfile_);
    }
    return true;
}

template <class Record>
bool Converter::convert_file(const ModelEntry &e, const char *entry_name,
                             Record *(*load)(const char *, dl::npy::Diagnostic *), void (*release)(Record *))
{
    const std::string &name = e.name;
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

    dl::npy::Diagnostic diagnostic;
    const size_t findings_before = findings.size();
    if (s_.strict) check_npy_header(s_, entry_name, e.path, findings);
    std::unique_ptr<Record, void (*)(Record *)> m(load(e.path.c_str(), s_.strict ? &diagnostic : nullptr), release);
    if (s_.strict && findings.size() == findings_before && diagnostic.failed)
        findings.push_back({entry_name, std::string("it cannot be read: ") + diagnostic.reason});
    if (!m) {
        if (!s_.strict) printf("WARNING: Could not parse file %s, not converting.\n", entry_name);
        return true;
    }
    if (s_.strict && findings.size() > findings_before) return true;
    if constexpr (!std::is_same_v<Record, dl_matrix3du_t>) {
        const bool quantised =
            std::is_same_v<Record, dl_matrix2d_t> ? (flags & MF_QUANTISED) != 0 : s_.mode() == Mode::quantised_tensor;
        if (s_.strict && quantised && !all_finite(m.get())) findings.push_back({entry_name, kNonFiniteQuantised});
    }

    converted_.push_back({name, static_cast<uint8_t>(flags)});
    fputs("\n", cfile_);
    if constexpr (std::is_same_v<Record, dl_matrix2d_t>) {
        if (flags & MF_BATCHNORM) {
            fprintf(cfile_, "//Warning: this has been pre-processed by dl_batch_normalize_get_sqrtvar (epsilon=%f)\n",
                    static_cast<double>(kBatchNormEpsilon));
            precalculate_batch_norm(m.get());
        }
        if (flags & MF_QUANTISED) {
            if (!emit_matrix2dq(name.c_str(), m.get(), cfile_)) {
                printf("ERROR: Out of memory while converting %s.\n", entry_name);
                return false;
            }
            return true;
        }
    }
    if (!emit(name, m.get())) {
        printf("ERROR: Out of memory while converting %s.\n", entry_name);
        return false;
    }
    return true;
}

bool Converter::model_info(const char *entry_name, const std::string &path)
{
    if (!s_.strict) return emit_model_info(path.c_str(), cfile_);
    ModelInfoError error;
    std::vector<std::string> problems;
    const std::optional<ModelInfo> info = read_model_info(path.c_str(), error, &problems);
    if (!info) {
        std::string why = error.text;
        if (error.is_errno) why = "it cannot be read: " + why;
        else if (why.rfind("ERROR: ", 0) == 0) why = "it cannot be used: " + why.substr(7);
        while (!why.empty() && why.back() == '\n') why.pop_back();
        findings.push_back({entry_name, why});
        return true;
    }
    for (const std::string &p : problems) findings.push_back({entry_name, p});
    write_model_info(*info, cfile_, true);
    return true;
}

bool Converter::entry(const char *entry_name)
{
    const ModelEntry e = classify_entry(s_.modeldir, entry_name);
    switch (e.kind) {
    case EntryKind::hidden: return true;
    case EntryKind::model_info: return model_info(entry_name, e.path);
    case EntryKind::not_regular:
        if (s_.strict) {
            findings.push_back({entry_name, "it is not a regular file"});
        } else {
            fprintf(stderr, "%s: not a regular file\n", e.path.c_str());
            printf("WARNING: Could not parse file %s, not converting.\n", entry_name);
        }
        return true;
    case EntryKind::load: break;
    }
    if (s_.strict) {
        const std::string problem = name_problem(e.name);
        if (!problem.empty()) findings.push_back({entry_name, problem});
        const std::string owner = names_.add(e.name, entry_name);
        if (!owner.empty())
            findings.push_back(
                {entry_name, "its name " + e.name + " clashes with that of " + owner + " in the generated source"});
    }

    switch (s_.mode()) {
    case Mode::quantised_2d:
    case Mode::float_2d: return convert_file<dl_matrix2d_t>(e, entry_name, dl::npy::load_matrix2d, dl_matrix_free);
    case Mode::quantised_tensor:
    case Mode::float_tensor:
        return convert_file<dl_matrix3d_t>(e, entry_name, dl::npy::load_filter_bank, dl_matrix3d_free);
    case Mode::input_tensor: return convert_file<dl_matrix3du_t>(e, entry_name, dl::npy::load_input, dl_matrix3du_free);
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
    if (second)
        write_lookup("static const dl_matrix2dq_t *get_coeff_q(const char *name, void *arg, int hint) {\n", true);
    fputs("static const model_info_t *get_info(void *arg) {\n", cfile_);
    fputs("\treturn &model_info;\n", cfile_);
    fputs("}\n", cfile_);
    fprintf(cfile_, "const model_coeff_getter_t get_coeff_%s={\n", s_.name.c_str());
    fputs("\t.getter_info=get_info,\n", cfile_);
    fputs(member, cfile_);
    if (second) fputs("\t.getter_q=get_coeff_q,\n", cfile_);
    fputs("};\n", cfile_);
}

}  // namespace

int convert(const Settings &s)
{
    // -strict goes on after a finding, to report every file, but writes
    // temporary files only: nothing reaches the outputs' paths.
    std::vector<Finding> settings_findings;
    if (s.strict) {
        check_settings(s, settings_findings);
        for (const Finding &f : settings_findings) print_finding(f);
    }
    Output cfile(s.cfile), hfile(s.hfile);
    if (!cfile.open(s.strict) || !hfile.open(s.strict)) return 1;
    emit_c_hdr(cfile.get(), s.name.c_str());
    emit_h_hdr(hfile.get());

    std::vector<std::string> entries;
    if (!list_model_dir(s.modeldir, entries)) {
        perror(s.modeldir.c_str());
        return 1;
    }
    Converter converter(s, cfile.get());
    for (const std::string &entry : entries) {
        const size_t before = converter.findings.size();
        if (!converter.entry(entry.c_str())) return 1;
        // One message per file, with every reason it has.
        if (converter.findings.size() > before) {
            Finding f = converter.findings[before];
            for (size_t i = before + 1; i < converter.findings.size(); i++) f.why += "; " + converter.findings[i].why;
            print_finding(f);
        }
    }
    if (s.strict) {
        std::vector<Finding> lists;
        check_lists(s, converter.names(), lists);
        for (const Finding &f : lists) print_finding(f);
        if (!settings_findings.empty() || !converter.findings.empty() || !lists.empty()) return 1;
    }

    emit_h_footer(hfile.get(), s.name.c_str());
    converter.write_tail();
    fprintf(hfile.get(), "extern const model_coeff_getter_t get_coeff_%s;\n", s.name.c_str());
    const bool c_ok = cfile.finish(true);
    const bool h_ok = hfile.finish(true);
    return c_ok && h_ok ? 0 : 1;
}

}  // namespace kelvane
