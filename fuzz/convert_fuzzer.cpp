// The whole converter on a model directory built from the input:
//
//     <options, separated by blanks>
//     @@@@<entry name>\n<file bytes>
//     @@@@<entry name>\n<file bytes> ...
//
// An entry name ending in '/' makes a subdirectory, one ending in '|' a
// FIFO. The options follow "kelvane <dir> model.c model.h model", so every
// mode and option can be reached. Each input runs twice. The classic run
// must not crash and must end with status 0 or 1. The -strict run must
// either refuse, with a reason and no file left behind, or account for every
// entry in its lookups, put no text of the directory into the code outside
// the names of its tables, write tables whose item counts fit their
// records, and give a source that compiles (sampled).
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "convert.h"
#include "emit.h"
#include "fuzz_util.h"

using namespace fuzz;

namespace {

constexpr std::string_view kSeparator = "@@@@";
constexpr size_t kMaxEntries = 8;
constexpr size_t kMaxOptions = 8;

struct Entry {
    std::string name;
    enum Kind { file, directory, fifo } kind = file;
    std::string_view bytes;
};

struct Input {
    std::vector<std::string> options;
    std::vector<Entry> entries;
};

Input parse_input(std::string_view in)
{
    Input r;
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t sep = in.find(kSeparator);
        parts.push_back(in.substr(0, sep));
        if (sep == std::string_view::npos) break;
        in.remove_prefix(sep + kSeparator.size());
    }
    std::string word;
    for (char c : parts[0]) {
        if (c == ' ' || c == '\n') {
            if (!word.empty() && r.options.size() < kMaxOptions) r.options.push_back(word);
            word.clear();
        } else if (c != '\0') {
            word += c;
        }
    }
    if (!word.empty() && r.options.size() < kMaxOptions) r.options.push_back(word);

    std::set<std::string> seen;
    for (size_t i = 1; i < parts.size() && r.entries.size() < kMaxEntries; i++) {
        const size_t nl = parts[i].find('\n');
        std::string name(parts[i].substr(0, nl));
        Entry e;
        if (nl != std::string_view::npos) e.bytes = parts[i].substr(nl + 1);
        if (!name.empty() && name.back() == '/') {
            e.kind = Entry::directory;
            name.pop_back();
        } else if (!name.empty() && name.back() == '|') {
            e.kind = Entry::fifo;
            name.pop_back();
        }
        for (char &c : name)
            if (c == '/' || c == '\0') c = '_';
        if (name.size() > 100) name.resize(100);
        if (name.empty() || name == "." || name == ".." || !seen.insert(name).second) continue;
        e.name = name;
        r.entries.push_back(e);
    }
    return r;
}

// Identifiers that the converter's own text uses; anything else in the code
// must be a name it accepted.
const std::set<std::string> kVocabulary = {"include",
                                           "const",
                                           "static",
                                           "int",
                                           "char",
                                           "void",
                                           "if",
                                           "return",
                                           "strcmp",
                                           "NULL",
                                           "name",
                                           "arg",
                                           "hint",
                                           "fptp_t",
                                           "qtp_t",
                                           "uc_t",
                                           "dl_matrix2d_t",
                                           "dl_matrix2dq_t",
                                           "dl_matrix3d_t",
                                           "dl_matrix3dq_t",
                                           "dl_matrix3du_t",
                                           "w",
                                           "h",
                                           "c",
                                           "n",
                                           "stride",
                                           "flags",
                                           "exponent",
                                           "item",
                                           "itemq",
                                           "DL_MF_FOREIGNDATA",
                                           "get_coeff_q",
                                           "get_coeff_f",
                                           "get_coeff_3d",
                                           "get_coeff_3dq",
                                           "get_info",
                                           "model_info_t",
                                           "model_info",
                                           "model_coeff_getter_t",
                                           "getter_info",
                                           "getter_f",
                                           "getter_q",
                                           "getter_3d",
                                           "getter_3dq",
                                           "get_coeff_model",
                                           "det_win_list",
                                           "det_thresh_list",
                                           "wake_word_list",
                                           "word_num",
                                           "word_list",
                                           "win_list",
                                           "thresh_list",
                                           "info_str"};

const char kHeader[] =
    "//Generated by kelvane\n#pragma once\n#include <string.h>\n#include \"dl_lib_coefgetter_if.h\"\n"
    "#include \"dl_lib.h\"\n\nextern const model_coeff_getter_t get_coeff_model;\n";

// The value of "\t.<field>=<n>," in a record's text, or -1.
long field(std::string_view record, const std::string &name)
{
    const size_t at = record.find("\t." + name + "=");
    if (at == std::string_view::npos) return -1;
    return strtol(std::string(record.substr(at + name.size() + 3, 12)).c_str(), nullptr, 10);
}

// Every item table "<name>_item_array[]={ ... };" holds as many items as its
// record "<name>={ ... };" promises.
void check_tables(const std::string &code)
{
    const std::string open = "_item_array[]={\n";
    for (size_t at = code.find(open); at != std::string::npos; at = code.find(open, at + 1)) {
        const size_t name_start = code.rfind(' ', at) + 1;
        const std::string name = code.substr(name_start, at - name_start);
        const size_t end = code.find("};", at);
        const std::string_view items(code.data() + at + open.size(), end - at - open.size());
        const long count = std::count(items.begin(), items.end(), ',');
        const size_t rec = code.find(" " + name + "={\n", end);
        FUZZ_CHECK(rec != std::string::npos, "no record for table %s", name.c_str());
        const std::string_view record(code.data() + rec, code.find("};", rec) - rec);
        long expected = field(record, "w") * field(record, "h");
        if (field(record, "c") >= 0) expected *= field(record, "c");
        if (field(record, "n") >= 0) expected *= field(record, "n");
        FUZZ_CHECK(count == expected, "table %s holds %ld items, its record promises %ld", name.c_str(), count,
                   expected);
    }
}

struct Run {
    int status = -1;
    bool parsed = false;
    Captured printed;
};

// kelvane on dir with the input's options (and -strict when strict is set),
// writing base/model.c and base/model.h.
Run convert_dir(const Input &in, const std::string &base, const std::string &dir, bool strict)
{
    const std::string cfile = base + "/model.c", hfile = base + "/model.h";
    std::vector<const char *> argv = {"kelvane", dir.c_str(), cfile.c_str(), hfile.c_str(), "model"};
    // First, so that it never becomes the argument of a trailing option.
    if (strict) argv.push_back("-strict");
    for (const std::string &o : in.options) argv.push_back(o.c_str());
    Run r;
    r.printed = capture([&] {
        const auto settings = kelvane::parse_options(static_cast<int>(argv.size()), argv.data(), stdout);
        r.parsed = settings.has_value();
        r.status = settings ? kelvane::convert(*settings) : 1;
    });
    FUZZ_CHECK(r.status == 0 || r.status == 1, "status %d", r.status);
    return r;
}

// Names of base's entries other than the model directory m.
std::set<std::string> outputs_in(const std::string &base)
{
    std::set<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> d(opendir(base.c_str()), closedir);
    if (!d) return names;
    while (const dirent *e = readdir(d.get())) {
        const std::string n = e->d_name;
        if (n != "." && n != ".." && n != "m") names.insert(n);
    }
    return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const Input in = parse_input({reinterpret_cast<const char *>(data), size});
    const std::string base = scratch_dir() + "/run";
    const std::string dir = base + "/m";
    remove_tree(base);
    if (mkdir(base.c_str(), 0700) != 0 || mkdir(dir.c_str(), 0700) != 0) abort();
    for (const Entry &e : in.entries) {
        const std::string path = dir + "/" + e.name;
        switch (e.kind) {
        case Entry::file: write_file(path, e.bytes); break;
        case Entry::directory: mkdir(path.c_str(), 0700); break;
        case Entry::fifo: mkfifo(path.c_str(), 0600); break;
        }
    }

    // The classic conversion: whatever the files, a status of 0 or 1 and
    // library lines that begin with the file's path (the tensor loaders'
    // shape lines with "filter " or "input " before it; the batch-norm
    // roots warn under their own name).
    const Run classic = convert_dir(in, base, dir, false);
    if (!classic.parsed) {
        FUZZ_CHECK(outputs_in(base).empty(), "a bad option touched a file");
        return 0;
    }
    for (std::string_view line : lines(classic.printed.err)) {
        FUZZ_CHECK(starts_with(line, dir + "/") || starts_with(line, "filter " + dir + "/") ||
                       starts_with(line, "input " + dir + "/") || starts_with(line, "dl_batch_normalize_get_sqrtvar: "),
                   "stderr line: %.*s", static_cast<int>(line.size()), line.data());
    }

    // The strict conversion either refuses, with a reason and no file
    // written or left behind, or writes a pair that holds every entry.
    const std::string cfile = base + "/model.c", hfile = base + "/model.h";
    remove(cfile.c_str());
    remove(hfile.c_str());
    const Run strict = convert_dir(in, base, dir, true);
    if (strict.status == 1) {
        FUZZ_CHECK(strict.printed.out.find("ERROR") != std::string::npos || !strict.printed.err.empty(),
                   "status 1 without a reason: %s", strict.printed.out.c_str());
        FUZZ_CHECK(outputs_in(base).empty(), "a refused run left a file: %s", strict.printed.out.c_str());
        return 0;
    }
    // The strict loaders print nothing; the batch-norm roots still warn.
    for (std::string_view line : lines(strict.printed.err))
        FUZZ_CHECK(starts_with(line, "dl_batch_normalize_get_sqrtvar: "), "stderr line of a strict run: %.*s",
                   static_cast<int>(line.size()), line.data());

    const std::string source = read_file(cfile);
    FUZZ_CHECK(read_file(hfile) == kHeader, "header:\n%s", read_file(hfile).c_str());
    const CText c = split_c(source);
    FUZZ_CHECK(c.ok, "a string literal is not closed or has a foreign escape:\n%s", source.c_str());

    // Every visible entry is in a lookup, once.
    std::map<std::string, int> listed;  // lookup lines per name
    for (std::string_view line : lines(source)) {
        const std::string_view head = "\tif (strcmp(name, \"";
        if (!starts_with(line, head)) continue;
        const size_t q = line.find('"', head.size());
        const std::string n(line.substr(head.size(), q - head.size()));
        FUZZ_CHECK(line == std::string(head) + n + "\")==0) return &" + n + ";", "lookup line: %.*s",
                   static_cast<int>(line.size()), line.data());
        listed[n]++;
    }
    std::map<std::string, int> converted;
    for (const Entry &e : in.entries) {
        if (e.name[0] == '.' || e.name == "_MODEL_INFO_") continue;
        FUZZ_CHECK(e.kind != Entry::fifo, "converted the FIFO %s", e.name.c_str());
        const std::string n = kelvane::sanitize_name(e.name.c_str());
        FUZZ_CHECK(kelvane::name_problem(n).empty(), "converted %s as %s", e.name.c_str(), n.c_str());
        converted[n]++;
    }
    FUZZ_CHECK(listed == converted, "%zu names in the lookups, %zu entries converted:\n%s\n%s", listed.size(),
               converted.size(), strict.printed.out.c_str(), source.c_str());

    // No other text of the directory reaches the code.
    for (const std::string &id : identifiers(c.code)) {
        const bool own = kVocabulary.count(id) || converted.count(id) ||
                         (id.size() > 11 && id.compare(id.size() - 11, 11, "_item_array") == 0 &&
                          converted.count(id.substr(0, id.size() - 11)));
        FUZZ_CHECK(own, "identifier %s in the generated code:\n%s", id.c_str(), source.c_str());
    }
    check_tables(c.code);
    if (sampled(data, size, 64)) {
        FUZZ_CHECK(compiles_as_c(cfile, base), "generated source does not compile:\n%s", source.c_str());
    }
    return 0;
}
