#include "model_info.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kelvane {

namespace {

constexpr size_t kLineBuffer = 2048;  // one read takes at most 2047 bytes

// Finds the significant line: the first line, not a comment, whose count of
// '_'-separated fields is 2 + 4*k with k >= 1. Lines are read in pieces of
// at most 2047 bytes, and each piece is judged as a line of its own.
// Sets cut when the line found is a piece of a longer line.
bool find_significant_line(FILE *f, std::string &line, bool &cut)
{
    char buf[kLineBuffer];
    bool line_start = true;  // the piece begins a line of the file
    while (fgets(buf, sizeof buf, f)) {
        const size_t len = strlen(buf);
        bool whole_end = len > 0 && buf[len - 1] == '\n';
        if (!whole_end) {  // the line ends here only if the file does
            const int next = getc(f);
            whole_end = next == EOF;
            if (next != EOF) ungetc(next, f);
        }
        const bool piece_start = line_start;
        line_start = len > 0 && buf[len - 1] == '\n';
        if (buf[0] == '#' || buf[0] == '\0') continue;
        int underscores = 0;
        for (const char *p = buf; *p; p++) underscores += (*p == '_');
        if (char *nl = strchr(buf, '\n')) *nl = '\0';
        const int fields = underscores + 1;
        if (fields < 6 || (fields - 2) % 4 != 0) continue;
        line = buf;
        cut = !piece_start || !whole_end;
        return true;
    }
    return false;
}

std::vector<std::string> split_fields(const std::string &line)
{
    std::vector<std::string> fields;
    for (size_t start = 0;;) {
        const size_t end = line.find('_', start);
        fields.push_back(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return fields;
        start = end + 1;
    }
}

// The whole field as a finite float, as -strict wants a threshold; white
// space may follow (the carriage return of a DOS line end stays in the last
// field).
bool is_finite_number(const std::string &field)
{
    char *end = nullptr;
    const float v = strtof(field.c_str(), &end);
    if (end == field.c_str() || !std::isfinite(v)) return false;
    while (*end == ' ' || *end == '\t' || *end == '\r') end++;
    return *end == '\0';
}

void write_string_body(FILE *out, const std::string &text, bool escape_all)
{
    char prev = 0;
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') fprintf(out, "\\%c", c);
        else if (escape_all && ((u < 0x20 && c != '\t') || u == 0x7f)) fprintf(out, "\\%03o", u);
        else if (escape_all && c == '?' && prev == '?') fputs("\\?", out);  // no trigraph
        else fputc(c, out);
        prev = c;
    }
}

}  // namespace

std::optional<ModelInfo> read_model_info(const char *path, ModelInfoError &error, std::vector<std::string> *problems)
{
    FILE *f = fopen(path, "r");
    if (!f) {
        error = {strerror(errno), true};
        return std::nullopt;
    }
    if (problems) {
        unsigned char bom[3] = {};
        if (fread(bom, 1, 3, f) == 3 && bom[0] == 0xef && bom[1] == 0xbb && bom[2] == 0xbf)
            problems->push_back("it begins with a UTF-8 byte-order mark, which the reader takes for text");
        rewind(f);
    }
    ModelInfo info;
    bool cut = false;
    const bool found = find_significant_line(f, info.line, cut);
    fclose(f);
    if (!found) {
        error = {"ERROR: Could not parse file " + std::string(path) + ", please check.\n", false};
        return std::nullopt;
    }
    if (cut && problems)
        problems->push_back("its significant line is longer than " + std::to_string(kLineBuffer - 1) +
                            " characters and is read in pieces");

    const std::vector<std::string> fields = split_fields(info.line);
    for (const std::string &field : fields) {
        if (field.empty()) {
            error = {"ERROR: Could not parse file " + std::string(path) + ", empty field in: " + info.line + "\n",
                     false};
            return std::nullopt;
        }
    }
    const int k = static_cast<int>(fields.size() - 2) / 4;
    info.words.resize(k);
    info.windows.resize(k);
    info.thresholds.resize(2 * k);
    for (int n = 3; n <= static_cast<int>(fields.size()); n++) {
        const std::string &field = fields[n - 1];
        switch (n % 4) {
        case 3: info.words[(n - 3) / 4] = field; break;
        case 0:
            if (field.size() == 1 && field[0] >= '1' && field[0] <= '9') {
                info.windows[(n - 4) / 4] = field[0] - '0';
            } else {
                info.warnings.push_back("WARNING: Could not parse string " + field +
                                        ", should be 1~9, set to default 3");
                info.windows[(n - 4) / 4] = 3;
                if (problems) problems->push_back("window " + field + " is not one digit from 1 to 9");
            }
            break;
        case 1:
        case 2:
            // strtof with no test of the result: text that is no number gives 0.
            info.thresholds[n % 4 == 1 ? (n - 5) / 2 : (n - 4) / 2] = strtof(field.c_str(), nullptr);
            if (problems && !is_finite_number(field))
                problems->push_back("threshold " + field + " is not a finite number");
            break;
        }
    }
    return info;
}

void write_model_info(const ModelInfo &info, FILE *cfile, bool escape_all)
{
    fputs("\nconst static int det_win_list[]={\n\t", cfile);
    for (int w : info.windows) fprintf(cfile, "%d, ", w);
    fputs("\n};\n", cfile);
    fputs("\nconst static fptp_t det_thresh_list[]={\n\t", cfile);
    for (float t : info.thresholds) fprintf(cfile, "%.3f, ", static_cast<double>(t));
    fputs("\n};\n", cfile);
    fputs("\nconst static char *wake_word_list[]={\n\t", cfile);
    for (const std::string &word : info.words) {
        fputc('"', cfile);
        write_string_body(cfile, word, escape_all);
        fputs("\", ", cfile);
    }
    fputs("\n};\n", cfile);
    fprintf(cfile, "\nconst static model_info_t %s={\n", "model_info");
    fprintf(cfile, "\t.word_num=%d,\n", static_cast<int>(info.words.size()));
    fputs("\t.word_list=(char **)(&wake_word_list[0]),\n", cfile);
    fputs("\t.win_list=(int *)(&det_win_list[0]),\n", cfile);
    fputs("\t.thresh_list=(fptp_t *)(&det_thresh_list[0]),\n", cfile);
    fputs("\t.info_str=\"", cfile);
    write_string_body(cfile, info.line, escape_all);
    fputs("\",\n", cfile);
    fputs("};\n", cfile);
}

bool emit_model_info(const char *path, FILE *cfile)
{
    ModelInfoError error;
    const std::optional<ModelInfo> info = read_model_info(path, error);
    if (info)
        for (const std::string &w : info->warnings) fputs(w.c_str(), stdout);
    if (!info) {
        if (error.is_errno) fprintf(stderr, "%s: %s\n", path, error.text.c_str());
        else fputs(error.text.c_str(), stdout);
        return false;
    }
    write_model_info(*info, cfile, false);
    return true;
}

}  // namespace kelvane
