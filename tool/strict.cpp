#include "strict.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "names.h"
#include "numpy_input_internal.h"

namespace kelvane {

namespace {

bool same_file(const std::string &a, const std::string &b)
{
    struct stat sa, sb;
    if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    std::error_code ec;
    const auto pa = std::filesystem::absolute(a, ec).lexically_normal();
    const auto pb = std::filesystem::absolute(b, ec).lexically_normal();
    return pa == pb;
}

// The items of a comma-separated list; empty items vanish, as with strtok.
std::vector<std::string> list_items(const std::string &list)
{
    std::vector<std::string> items;
    for (size_t start = 0; start <= list.size();) {
        size_t end = list.find(',', start);
        if (end == std::string::npos) end = list.size();
        if (end > start) items.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return items;
}

const char *skip_space(const char *p)
{
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) p++;
    return p;
}

// The shape tuple behind "'shape':" as a list of numbers; false if the text
// is not a tuple of integers.
bool parse_shape(const char *p, std::vector<long long> &shape)
{
    p = skip_space(p);
    if (*p++ != '(') return false;
    for (;;) {
        p = skip_space(p);
        if (*p == ')') return true;
        char *end = nullptr;
        const long long v = strtoll(p, &end, 10);
        if (end == p) return false;
        shape.push_back(v);
        p = skip_space(end);
        if (*p == ',') p++;
        else if (*p != ')') return false;
    }
}

// The text of the 'descr' entry: a quoted type such as <f4, or "" for a
// structured type (a list) or a header without the entry.
std::string descr_of(const char *header, bool &structured)
{
    structured = false;
    const char *key = strstr(header, "'descr':");
    if (!key) return "";
    const char *p = skip_space(key + 8);
    if (*p != '\'' && *p != '"') {
        structured = true;
        return "";
    }
    const char quote = *p++;
    const char *end = strchr(p, quote);
    return end ? std::string(p, end) : "";
}

struct TypeInfo {
    std::string_view descr;
    int width;
};
constexpr TypeInfo kTypes[] = {{"<f4", 4}, {"<f8", 8}, {"<i4", 4}, {"<i8", 8}, {"|u1", 1}};

std::string join(const std::vector<long long> &shape)
{
    std::string text = "(";
    for (size_t i = 0; i < shape.size(); i++) text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

}  // namespace

void check_settings(const Settings &s, std::vector<Finding> &findings)
{
    if (!is_c_identifier(s.name))
        findings.push_back(
            {"", "the model name " + s.name + " is not a C identifier (it makes get_coeff_" + s.name + ")"});
    else if (std::filesystem::path(s.hfile).filename() != s.name + ".h")
        findings.push_back(
            {"", "the header " + s.hfile + " is not named " + s.name + ".h, which the generated source includes"});
    if (same_file(s.cfile, s.hfile)) findings.push_back({"", "the source and the header are the same file " + s.cfile});
    if (s.exclude_flag && !s.exclude_closed)
        findings.push_back({"", "the -exclude list has no closing parenthesis: its last character is dropped"});
}

void check_npy_header(const Settings &s, const std::string &file, const std::string &path,
                      std::vector<Finding> &findings)
{
    dl::npy::Diagnostic d;
    dl::npy::File f;
    if (!dl::npy::open(path.c_str(), f, &d)) return;  // the loader reports it
    auto refuse = [&](const std::string &why) { findings.push_back({file, why}); };
    if (strstr(f.header, "'fortran_order': True")) {
        refuse(
            "it is stored in Fortran (column-major) order, which is read as C order; save "
            "numpy.ascontiguousarray(a)");
        return;
    }
    const bool input = s.mode() == Mode::input_tensor;
    bool structured = false;
    const std::string descr = descr_of(f.header, structured);
    if (structured) {
        refuse("its element type is structured; the loader takes one of <f4, <f8, <i4, <i8" +
               std::string(input ? ", |u1" : ""));
        return;
    }
    const TypeInfo *type = nullptr;
    for (const TypeInfo &t : kTypes)
        if (t.descr == descr && (input || t.descr != "|u1")) type = &t;
    if (!type) {
        refuse("its element type '" + descr + "' is not one of <f4, <f8, <i4, <i8" + (input ? ", |u1" : ""));
        return;
    }
    std::vector<long long> shape;
    if (!parse_shape(f.shape, shape)) return;  // the loader reports it
    const size_t most = s.tensor_flag ? (input ? 3 : 4) : 2;
    if (shape.size() > most) {
        refuse("its shape " + join(shape) + " has more than the " + std::to_string(most) +
               " entries this mode reads, so values would be left out");
        return;
    }
    long long count = 1;
    for (long long e : shape) {
        if (e < 0) {
            refuse("its shape " + join(shape) + " has a negative entry");
            return;
        }
        if (__builtin_mul_overflow(count, e, &count) || count > INT64_MAX / 8) count = INT64_MAX / 8;
    }
    if (f.data_bytes >= 0 && count * type->width != f.data_bytes) {
        refuse("it holds " + std::to_string(f.data_bytes) + " bytes of data where its shape " + join(shape) +
               " and type need " + std::to_string(count * type->width));
    }
}

bool all_finite(const dl_matrix2d_t *m)
{
    for (int y = 0; y < m->h && m->w > 0; y++)
        for (int x = 0; x < m->w; x++)
            if (!std::isfinite(m->item[x + m->stride * y])) return false;
    return true;
}

bool all_finite(const dl_matrix3d_t *t)
{
    const int64_t count = static_cast<int64_t>(t->n) * t->h * t->stride;
    return std::all_of(t->item, t->item + count, [](fptp_t v) { return std::isfinite(v); });
}

void check_lists(const Settings &s, const std::vector<std::string> &converted, std::vector<Finding> &findings)
{
    auto unmatched = [&](const std::string &list, const char *option) {
        for (const std::string &item : list_items(list))
            if (std::find(converted.begin(), converted.end(), item) == converted.end())
                findings.push_back(
                    {"", std::string(option) + " names " + item + ", which no file of the directory is"});
    };
    if (s.exclude_flag) unmatched(s.exclude_list, "-exclude");
    if (s.bnmatrices_given) unmatched(s.bnmatrices, "-bnmatrices");
}

void print_finding(const Finding &f)
{
    if (f.file.empty()) printf("ERROR: %s\n", f.why.c_str());
    else printf("ERROR: %s: %s\n", f.file.c_str(), f.why.c_str());
}

}  // namespace kelvane
