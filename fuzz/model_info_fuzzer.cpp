// emit_model_info on an arbitrary _MODEL_INFO_: the generated text must hold
// the file's words and line only inside string literals that decode to
// exactly those bytes, no other text of the file may reach the code, and a
// sample of the outputs must compile as C.
#include <algorithm>
#include <cmath>
#include <set>
#include <string>

#include "emit.h"
#include "fuzz_util.h"

using namespace fuzz;

namespace {

// The significant line as the file defines it: lines are read in pieces of
// at most 2047 bytes (a NUL ends a piece's text), comments and pieces whose
// count of '_'-separated fields is not 2 + 4*k, k >= 1, are skipped.
bool significant_line(std::string_view file, std::string &line)
{
    while (!file.empty()) {
        size_t n =
            std::min<size_t>(file.find('\n') == std::string_view::npos ? file.size() : file.find('\n') + 1, 2047);
        std::string piece(file.substr(0, n));
        file.remove_prefix(n);
        piece.resize(strlen(piece.c_str()));
        if (piece.empty() || piece[0] == '#') continue;
        if (piece.back() == '\n') piece.pop_back();
        const size_t fields = std::count(piece.begin(), piece.end(), '_') + 1;
        if (fields >= 6 && (fields - 2) % 4 == 0) {
            line = piece;
            return true;
        }
    }
    return false;
}

std::vector<std::string> split(const std::string &line)
{
    std::vector<std::string> fields(1);
    for (char c : line) {
        if (c == '_')
            fields.emplace_back();
        else
            fields.back() += c;
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

    char *buf = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&buf, &len);
    bool ok = false;
    const Captured printed = capture([&] { ok = kelvane::emit_model_info(path.c_str(), out); });
    fclose(out);
    const std::string text(buf, len);
    free(buf);

    FUZZ_CHECK(printed.err.empty(), "stderr: %s", printed.err.c_str());
    std::string line;
    if (!significant_line(file, line)) {
        FUZZ_CHECK(!ok, "accepted a file without a significant line");
        FUZZ_CHECK(printed.out == "ERROR: Could not parse file " + path + ", please check.\n", "printed: %s",
                   printed.out.c_str());
        return 0;
    }
    const std::vector<std::string> fields = split(line);
    const size_t k = (fields.size() - 2) / 4;
    bool usable = true;
    for (const std::string &f : fields) usable = usable && !f.empty();
    for (size_t i = 0; i < k; i++) {
        usable = usable && std::isfinite(strtof(fields[4 + 4 * i].c_str(), nullptr)) &&
                 std::isfinite(strtof(fields[5 + 4 * i].c_str(), nullptr));
    }
    if (!usable) {
        // Nothing is written for a line the generated code could not hold.
        FUZZ_CHECK(!ok && text.empty(), "accepted an unusable line (%zu bytes written)", text.size());
        FUZZ_CHECK(printed.out.find("ERROR: Could not parse file " + path) != std::string::npos, "printed: %s",
                   printed.out.c_str());
        return 0;
    }
    FUZZ_CHECK(ok, "refused line \"%s\": %s", line.c_str(), printed.out.c_str());
    FUZZ_CHECK(printed.out.find('\n') == std::string::npos, "printed: %s", printed.out.c_str());

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
