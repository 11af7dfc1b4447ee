// _MODEL_INFO_ read on an arbitrary file. The classic reader must not crash
// or print on stderr. The strict reader must accept exactly the files that
// a model of the format calls clean, and then the generated text must hold
// the file's words and line only inside string literals that decode to
// exactly those bytes, no other text of the file may reach the code, and a
// sample of the outputs must compile as C.
#include <algorithm>
#include <cmath>
#include <set>
#include <string>

#include "emit.h"
#include "model_info.h"
#include "fuzz_util.h"

using namespace fuzz;

namespace {

// The significant line as the file defines it: lines are read in pieces of
// at most 2047 bytes (a NUL ends a piece's text), comments and pieces whose
// count of '_'-separated fields is not 2 + 4*k, k >= 1, are skipped. cut:
// the line found is not a whole line of the file.
bool significant_line(std::string_view file, std::string &line, bool &cut)
{
    bool line_start = true;
    while (!file.empty()) {
        size_t n =
            std::min<size_t>(file.find('\n') == std::string_view::npos ? file.size() : file.find('\n') + 1, 2047);
        std::string piece(file.substr(0, n));
        file.remove_prefix(n);
        piece.resize(strlen(piece.c_str()));
        const bool piece_start = line_start;
        const bool whole_end = (!piece.empty() && piece.back() == '\n') || file.empty();
        line_start = !piece.empty() && piece.back() == '\n';
        if (piece.empty() || piece[0] == '#') continue;
        if (piece.back() == '\n') piece.pop_back();
        const size_t fields = std::count(piece.begin(), piece.end(), '_') + 1;
        if (fields >= 6 && (fields - 2) % 4 == 0) {
            line = piece;
            cut = !piece_start || !whole_end;
            return true;
        }
    }
    return false;
}

// A threshold -strict takes: a whole finite number, blanks or a carriage
// return behind it.
bool clean_number(const std::string &f)
{
    char *end = nullptr;
    const float v = strtof(f.c_str(), &end);
    if (end == f.c_str() || !std::isfinite(v)) return false;
    while (*end == ' ' || *end == '\t' || *end == '\r') end++;
    return *end == '\0';
}

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields(1);
    for (char c : line) {
        if (c == '_') fields.emplace_back();
        else fields.back() += c;
    }
    return fields;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string dir = scratch_dir();
    static const std::string path = dir + "/_MODEL_INFO_";
    const std::string_view file(reinterpret_cast<const char *>(data), size);
    write_file(path, file);

    // The classic reader, as kelvane runs it.
    FILE *sink = fopen("/dev/null", "w");
    if (!sink) abort();
    const Captured classic = capture([&] { kelvane::emit_model_info(path.c_str(), sink); });
    fclose(sink);
    FUZZ_CHECK(classic.err.empty(), "stderr: %s", classic.err.c_str());

    // The strict reader, and the text it writes.
    char *buf = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&buf, &len);
    kelvane::ModelInfoError error;
    std::vector<std::string> problems;
    const auto info = kelvane::read_model_info(path.c_str(), error, &problems);
    const bool ok = info && problems.empty();
    if (ok) kelvane::write_model_info(*info, out, true);
    fclose(out);
    const std::string text(buf, len);
    free(buf);

    std::string line;
    bool cut = false;
    if (!significant_line(file, line, cut)) {
        FUZZ_CHECK(!info, "accepted a file without a significant line");
        FUZZ_CHECK(error.text == "ERROR: Could not parse file " + path + ", please check.\n", "error: %s",
                   error.text.c_str());
        return 0;
    }
    const std::vector<std::string> fields = split(line);
    const size_t k = (fields.size() - 2) / 4;
    bool usable = !cut && !(size >= 3 && file.substr(0, 3) == "\xef\xbb\xbf");
    for (const std::string &f : fields) usable = usable && !f.empty();
    for (size_t i = 0; usable && i < k; i++) {
        const std::string &w = fields[3 + 4 * i];
        usable = w.size() == 1 && w[0] >= '1' && w[0] <= '9' && clean_number(fields[4 + 4 * i]) &&
                 clean_number(fields[5 + 4 * i]);
    }
    FUZZ_CHECK(ok == usable, "strict reader %s line \"%s\"", ok ? "accepted" : "refused", line.c_str());
    if (!ok) return 0;

    // The file's text appears only as string literals: the k words, then the
    // line, each decoding to exactly its bytes.
    const CText c = split_c(text);
    FUZZ_CHECK(c.ok, "a string literal is not closed or has a foreign escape:\n%s", text.c_str());
    FUZZ_CHECK(c.literals.size() == k + 1, "%zu literals for %zu words", c.literals.size(), k);
    for (size_t i = 0; i < k; i++)
        FUZZ_CHECK(c.literals[i] == fields[2 + 4 * i], "word %zu is \"%s\"", i, c.literals[i].c_str());
    FUZZ_CHECK(c.literals[k] == line, "info_str is \"%s\"", c.literals[k].c_str());
    static const std::set<std::string> kCode = {
        "const",           "static",         "int",          "fptp_t",     "char",     "det_win_list",
        "det_thresh_list", "wake_word_list", "model_info_t", "model_info", "word_num", "word_list",
        "win_list",        "thresh_list",    "info_str"};
    for (const std::string &id : identifiers(c.code))
        FUZZ_CHECK(kCode.count(id), "identifier %s in the code:\n%s", id.c_str(), text.c_str());
    FUZZ_CHECK(c.code.find(".word_num=" + std::to_string(k) + ",") != std::string::npos, "word count:\n%s",
               text.c_str());

    if (sampled(data, size, 256)) {
        const std::string source = dir + "/info.c";
        write_file(source, "#include \"dl_lib_coefgetter_if.h\"\n" + text +
                               "const model_info_t *fuzz_info(void) { return &model_info; }\n");
        FUZZ_CHECK(compiles_as_c(source, dir), "generated text does not compile:\n%s", text.c_str());
    }
    return 0;
}
