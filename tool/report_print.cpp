// The report as an aligned text table and as JSON.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "report.h"

namespace kelvane {

namespace {

const char *mode_text(const ModelReport &r)
{
    switch (r.mode) {
    case Mode::quantised_2d: return "matrices in 16-bit fixed point";
    case Mode::float_2d:
        return r.exclude ? "matrices as 32-bit floats, the -exclude list in 16-bit fixed point"
                         : "matrices as 32-bit floats";
    case Mode::quantised_tensor: return "filter banks in 16-bit fixed point";
    case Mode::float_tensor: return "filter banks as 32-bit floats";
    case Mode::input_tensor: return "8-bit input tensors";
    }
    return "";
}

const char *mode_code(Mode m)
{
    switch (m) {
    case Mode::quantised_2d: return "quantised_2d";
    case Mode::float_2d: return "float_2d";
    case Mode::quantised_tensor: return "quantised_tensor";
    case Mode::float_tensor: return "float_tensor";
    case Mode::input_tensor: return "input_tensor";
    }
    return "";
}

const char *kind_text(TableKind k)
{
    switch (k) {
    case TableKind::float_matrix: return "float";
    case TableKind::fixed_point_matrix: return "fixed point";
    case TableKind::float_tensor: return "float tensor";
    case TableKind::fixed_point_tensor: return "fixed-point tensor";
    case TableKind::input_tensor: return "8-bit input";
    }
    return "";
}

const char *kind_code(TableKind k)
{
    switch (k) {
    case TableKind::float_matrix: return "float";
    case TableKind::fixed_point_matrix: return "fixed_point";
    case TableKind::float_tensor: return "float_tensor";
    case TableKind::fixed_point_tensor: return "fixed_point_tensor";
    case TableKind::input_tensor: return "input_tensor";
    }
    return "";
}

template <class... Args>
std::string format(const char *fmt, Args... args)
{
    char buf[64];
    snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

std::string shape_text(const std::vector<int> &shape)
{
    std::string s;
    for (size_t i = 0; i < shape.size(); i++) {
        if (i) s += 'x';
        s += std::to_string(shape[i]);
    }
    return s;
}

std::string snr_text(const Comparison &c)
{
    if (c.items == c.non_finite) return "-";  // nothing to compare
    const auto snr = c.snr_db();
    return snr ? format("%.1f", *snr) : "inf";
}

std::string share_text(const Comparison &c)
{
    if (c.zeroed == 0) return "0";
    const double percent = 100.0 * c.zeroed_share();
    return percent < 0.1 ? "<0.1%" : format("%.1f%%", percent);
}

// ---- text -----------------------------------------------------------------

void print_table(FILE *out, const std::vector<std::vector<std::string>> &rows, const std::vector<bool> &right)
{
    std::vector<size_t> width(right.size(), 0);
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++) width[i] = std::max(width[i], row[i].size());
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            const bool last = i + 1 == row.size();
            const std::string pad(width[i] - row[i].size(), ' ');
            if (i) line += "  ";
            line += right[i] ? pad + row[i] : (last ? row[i] : row[i] + pad);
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        fprintf(out, "%s\n", line.c_str());
    }
}

// ---- JSON -----------------------------------------------------------------

// A JSON string. File names may hold any bytes: control characters are
// escaped, and bytes that are not UTF-8 become U+FFFD.
std::string json_string(const std::string &s)
{
    std::string j = "\"";
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            j += '\\';
            j += static_cast<char>(c);
            i++;
        } else if (c < 0x20 || c == 0x7f) {
            j += format("\\u%04x", c);
            i++;
        } else if (c < 0x80) {
            j += static_cast<char>(c);
            i++;
        } else {
            // Length of a well-formed sequence starting here, or 0.
            size_t n = (c >= 0xc2 && c <= 0xdf) ? 2 : (c >= 0xe0 && c <= 0xef) ? 3 : (c >= 0xf0 && c <= 0xf4) ? 4 : 0;
            if (n && i + n <= s.size()) {
                const unsigned char c1 = static_cast<unsigned char>(s[i + 1]);
                // Second bytes that would give overlong forms, surrogates or
                // code points above U+10FFFF.
                const unsigned char lo = c == 0xe0 ? 0xa0 : c == 0xf0 ? 0x90 : 0x80;
                const unsigned char hi = c == 0xed ? 0x9f : c == 0xf4 ? 0x8f : 0xbf;
                if (c1 < lo || c1 > hi) n = 0;
                for (size_t k = 2; n && k < n; k++)
                    if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80) n = 0;
            } else {
                n = 0;
            }
            if (n) {
                j.append(s, i, n);
                i += n;
            } else {
                j += "\\ufffd";
                i++;
            }
        }
    }
    return j + "\"";
}

// The shortest text that reads back as the same double.
std::string json_number(double v)
{
    if (!std::isfinite(v)) return "null";
    char buf[32];
    const auto res = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, res.ptr);
}

std::string json_snr(const Comparison &c)
{
    const auto snr = c.snr_db();
    return snr ? json_number(*snr) : "null";
}

template <class T>
std::string json_optional(const std::optional<T> &v)
{
    return v ? std::to_string(*v) : "null";
}

}  // namespace

void print_report_text(const ModelReport &r, const std::optional<double> &min_snr, FILE *out)
{
    fprintf(out, "%s: %s\n", r.modeldir.c_str(), mode_text(r));
    std::vector<std::vector<std::string>> rows = {
        {"table", "shape", "kind", "exp", "bits", "SNR dB", "max error", "zeroed", "bytes", "warnings"}};
    for (const TableRow &t : r.tables) {
        std::string warnings;
        for (const Warning &w : t.warnings) warnings += (warnings.empty() ? "" : "; ") + w.text;
        rows.push_back({t.name, shape_text(t.shape), kind_text(t.kind) + std::string(t.batch_norm ? ", bn" : ""),
                        t.exponent ? std::to_string(*t.exponent) : "-", t.bits ? std::to_string(*t.bits) : "-",
                        t.compared ? snr_text(t.cmp) : "-", t.compared ? format("%.3g", t.cmp.max_abs_error) : "-",
                        t.compared ? share_text(t.cmp) : "-",
                        std::to_string(t.bytes), warnings});
    }
    print_table(out, rows, {false, false, false, true, true, true, true, true, true, false});

    if (r.model_info) {
        if (r.info_error) {
            fprintf(out, "%s: kelvane stops here with status 1: %s\n", r.model_info->c_str(), r.info_error->c_str());
        } else {
            fprintf(out, "%s: model information, not a table\n", r.model_info->c_str());
        }
    }
    if (!r.skipped.empty()) {
        fputs("Not converted:\n", out);
        for (const SkippedEntry &s : r.skipped) fprintf(out, "  %s: %s\n", s.file.c_str(), s.reason.c_str());
    }

    fprintf(out, "%zu table%s, %lld bytes of flash", r.tables.size(), r.tables.size() == 1 ? "" : "s",
            static_cast<long long>(r.flash_bytes()));
    if (const TableRow *worst = r.worst()) {
        fprintf(out, ", worst SNR %s dB in %s\n", snr_text(worst->cmp).c_str(), worst->name.c_str());
    } else {
        const bool compared =
            std::any_of(r.tables.begin(), r.tables.end(), [](const TableRow &t) { return t.compared; });
        fputs(compared ? ", every table exact\n" : "\n", out);
    }
    if (min_snr) {
        const auto low = r.below(*min_snr);
        fprintf(out, "%zu table%s below %g dB", low.size(), low.size() == 1 ? "" : "s", *min_snr);
        for (size_t i = 0; i < low.size(); i++) fprintf(out, "%s%s", i ? ", " : ": ", low[i]->name.c_str());
        fputs("\n", out);
    }
}

void print_report_json(const ModelReport &r, const std::optional<double> &min_snr, FILE *out)
{
    fprintf(out, "{\n  \"modeldir\": %s,\n  \"mode\": \"%s\",\n  \"tables\": [", json_string(r.modeldir).c_str(),
            mode_code(r.mode));
    for (size_t i = 0; i < r.tables.size(); i++) {
        const TableRow &t = r.tables[i];
        std::string shape;
        for (size_t k = 0; k < t.shape.size(); k++) shape += (k ? ", " : "") + std::to_string(t.shape[k]);
        std::string warnings;
        for (size_t k = 0; k < t.warnings.size(); k++) {
            warnings += format("%s{\"code\": \"%s\", \"text\": ", k ? ", " : "", t.warnings[k].code) +
                        json_string(t.warnings[k].text) + "}";
        }
        fprintf(out,
                "%s\n    {\"file\": %s, \"name\": %s, \"shape\": [%s], \"kind\": \"%s\", \"batch_norm\": %s, "
                "\"exponent\": %s, \"bits\": %s, \"snr_db\": %s, \"max_abs_error\": %s, \"zeroed_share\": %s, "
                "\"non_finite\": %lld, \"bytes\": %lld, \"warnings\": [%s]}",
                i ? "," : "", json_string(t.file).c_str(), json_string(t.name).c_str(), shape.c_str(),
                kind_code(t.kind), t.batch_norm ? "true" : "false", json_optional(t.exponent).c_str(),
                json_optional(t.bits).c_str(), json_snr(t.cmp).c_str(),
                t.compared ? json_number(t.cmp.max_abs_error).c_str() : "null",
                t.compared ? json_number(t.cmp.zeroed_share()).c_str() : "null", static_cast<long long>(t.non_finite),
                static_cast<long long>(t.bytes), warnings.c_str());
    }
    fputs(r.tables.empty() ? "],\n" : "\n  ],\n", out);

    if (r.model_info) {
        fprintf(out, "  \"model_info\": {\"file\": %s, \"error\": %s},\n", json_string(*r.model_info).c_str(),
                r.info_error ? json_string(*r.info_error).c_str() : "null");
    } else {
        fputs("  \"model_info\": null,\n", out);
    }
    fputs("  \"skipped\": [", out);
    for (size_t i = 0; i < r.skipped.size(); i++) {
        fprintf(out, "%s\n    {\"file\": %s, \"reason\": %s}", i ? "," : "", json_string(r.skipped[i].file).c_str(),
                json_string(r.skipped[i].reason).c_str());
    }
    fputs(r.skipped.empty() ? "],\n" : "\n  ],\n", out);

    const TableRow *worst = r.worst();
    fprintf(out, "  \"summary\": {\"tables\": %zu, \"flash_bytes\": %lld, \"worst_snr_db\": %s, \"worst_table\": %s",
            r.tables.size(), static_cast<long long>(r.flash_bytes()), worst ? json_snr(worst->cmp).c_str() : "null",
            worst ? json_string(worst->name).c_str() : "null");
    if (min_snr) {
        fprintf(out, ", \"min_snr_db\": %s, \"below_min_snr\": [", json_number(*min_snr).c_str());
        const auto low = r.below(*min_snr);
        for (size_t i = 0; i < low.size(); i++) fprintf(out, "%s%s", i ? ", " : "", json_string(low[i]->name).c_str());
        fputs("]", out);
    }
    fputs("}\n}\n", out);
}

}  // namespace kelvane
