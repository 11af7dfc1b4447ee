#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "emit.h"

namespace kelvane {

namespace {

// Finds the significant line: the first line, not a comment, whose count of
// '_'-separated fields is 2 + 4*k with k >= 1. Lines are read in pieces of
// at most 2047 bytes, and each piece is judged as a line of its own.
bool find_significant_line(FILE *f, std::string &line)
{
    char buf[2048];
    while (fgets(buf, sizeof buf, f)) {
        if (buf[0] == '#' || buf[0] == '\0') continue;
        int underscores = 0;
        for (const char *p = buf; *p; p++) underscores += (*p == '_');
        if (char *nl = strchr(buf, '\n')) *nl = '\0';
        const int fields = underscores + 1;
        if (fields < 6 || (fields - 2) % 4 != 0) continue;
        line = buf;
        return true;
    }
    return false;
}

// Writes text as the body of a C string literal that holds exactly these
// bytes: quotes, backslashes and control characters other than the tab are
// escaped (a raw carriage return would end the literal), and so is a '?'
// behind another '?', which would otherwise start a trigraph.
void write_string_body(FILE *out, const std::string &text)
{
    char prev = 0;
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') fprintf(out, "\\%c", c);
        else if (c == '\r') fputs("\\r", out);
        else if ((u < 0x20 && c != '\t') || u == 0x7f) fprintf(out, "\\%03o", u);
        else if (c == '?' && prev == '?') fputs("\\?", out);
        else fputc(c, out);
        prev = c;
    }
}

}  // namespace

bool emit_model_info(const char *path, FILE *cfile)
{
    FILE *f = fopen(path, "r");
    if (!f) {
        perror(path);
        return false;
    }
    std::string line;
    const bool found = find_significant_line(f, line);
    fclose(f);
    if (!found) {
        printf("ERROR: Could not parse file %s, please check.\n", path);
        return false;
    }

    std::vector<std::string> fields;
    for (size_t start = 0;;) {
        const size_t end = line.find('_', start);
        fields.push_back(line.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    for (const std::string &field : fields) {
        if (field.empty()) {
            printf("ERROR: Could not parse file %s, empty field in: %s\n", path, line.c_str());
            return false;
        }
    }

    const int k = static_cast<int>(fields.size() - 2) / 4;
    std::vector<std::string> words(k);
    std::vector<int> windows(k);
    std::vector<float> thresholds(2 * k);
    for (int n = 3; n <= static_cast<int>(fields.size()); n++) {
        const std::string &field = fields[n - 1];
        switch (n % 4) {
        case 3: words[(n - 3) / 4] = field; break;
        case 0:
            if (field.size() == 1 && field[0] >= '1' && field[0] <= '9') {
                windows[(n - 4) / 4] = field[0] - '0';
            } else {
                printf("WARNING: Could not parse string %s, should be 1~9, set to default 3", field.c_str());
                windows[(n - 4) / 4] = 3;
            }
            break;
        case 1: thresholds[(n - 5) / 2] = strtof(field.c_str(), nullptr); break;
        case 2: thresholds[(n - 4) / 2] = strtof(field.c_str(), nullptr); break;
        }
    }
    // "nan" and "inf" parse as numbers but have no C literal.
    for (float t : thresholds) {
        if (!std::isfinite(t)) {
            printf("ERROR: Could not parse file %s, threshold is not a finite number in: %s\n", path, line.c_str());
            return false;
        }
    }

    fputs("\nconst static int det_win_list[]={\n\t", cfile);
    for (int w : windows) fprintf(cfile, "%d, ", w);
    fputs("\n};\n", cfile);
    fputs("\nconst static fptp_t det_thresh_list[]={\n\t", cfile);
    for (float t : thresholds) fprintf(cfile, "%.3f, ", static_cast<double>(t));
    fputs("\n};\n", cfile);
    fputs("\nconst static char *wake_word_list[]={\n\t", cfile);
    for (const std::string &word : words) {
        fputc('"', cfile);
        write_string_body(cfile, word);
        fputs("\", ", cfile);
    }
    fputs("\n};\n", cfile);
    fprintf(cfile, "\nconst static model_info_t %s={\n", "model_info");
    fprintf(cfile, "\t.word_num=%d,\n", k);
    fputs("\t.word_list=(char **)(&wake_word_list[0]),\n", cfile);
    fputs("\t.win_list=(int *)(&det_win_list[0]),\n", cfile);
    fputs("\t.thresh_list=(fptp_t *)(&det_thresh_list[0]),\n", cfile);
    fputs("\t.info_str=\"", cfile);
    write_string_body(cfile, line);
    fputs("\",\n", cfile);
    fputs("};\n", cfile);
    return true;
}

}  // namespace kelvane
