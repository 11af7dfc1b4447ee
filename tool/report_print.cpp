// The report as an aligned text table and as JSON.
#include <algorithm>
#include <cmath>
#include <cstring>

#include <nlohmann/json.hpp>

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

using Json = nlohmann::ordered_json;  // keys in the order they are set

Json json_number(double v) { return std::isfinite(v) ? Json(v) : Json(nullptr); }

Json json_snr(const Comparison &c)
{
    const auto snr = c.snr_db();
    return snr ? json_number(*snr) : Json(nullptr);
}

template <class T>
Json json_optional(const std::optional<T> &v)
{
    return v ? Json(*v) : Json(nullptr);
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
                        t.compared ? share_text(t.cmp) : "-", std::to_string(t.bytes), warnings});
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
    if (!r.strict_findings.empty()) {
        fputs("kelvane -strict refuses:\n", out);
        for (const Finding &f : r.strict_findings)
            fprintf(out, "  %s%s%s\n", f.file.c_str(), f.file.empty() ? "" : ": ", f.why.c_str());
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
    Json doc;
    doc["modeldir"] = r.modeldir;
    doc["mode"] = mode_code(r.mode);
    doc["tables"] = Json::array();
    for (const TableRow &t : r.tables) {
        Json warnings = Json::array();
        for (const Warning &w : t.warnings) warnings.push_back({{"code", w.code}, {"text", w.text}});
        doc["tables"].push_back({{"file", t.file},
                                 {"name", t.name},
                                 {"shape", t.shape},
                                 {"kind", kind_code(t.kind)},
                                 {"batch_norm", t.batch_norm},
                                 {"exponent", json_optional(t.exponent)},
                                 {"bits", json_optional(t.bits)},
                                 {"snr_db", json_snr(t.cmp)},
                                 {"max_abs_error", t.compared ? json_number(t.cmp.max_abs_error) : Json(nullptr)},
                                 {"zeroed_share", t.compared ? json_number(t.cmp.zeroed_share()) : Json(nullptr)},
                                 {"non_finite", static_cast<long long>(t.non_finite)},
                                 {"bytes", static_cast<long long>(t.bytes)},
                                 {"warnings", warnings}});
    }
    doc["model_info"] =
        r.model_info ? Json{{"file", *r.model_info}, {"error", json_optional(r.info_error)}} : Json(nullptr);
    doc["skipped"] = Json::array();
    for (const SkippedEntry &s : r.skipped) doc["skipped"].push_back({{"file", s.file}, {"reason", s.reason}});
    doc["strict_findings"] = Json::array();
    for (const Finding &f : r.strict_findings)
        doc["strict_findings"].push_back({{"file", f.file.empty() ? Json(nullptr) : Json(f.file)}, {"why", f.why}});
    const TableRow *worst = r.worst();
    Json summary = {{"tables", r.tables.size()},
                    {"flash_bytes", static_cast<long long>(r.flash_bytes())},
                    {"worst_snr_db", worst ? json_snr(worst->cmp) : Json(nullptr)},
                    {"worst_table", worst ? Json(worst->name) : Json(nullptr)}};
    if (min_snr) {
        summary["min_snr_db"] = json_number(*min_snr);
        summary["below_min_snr"] = Json::array();
        for (const TableRow *t : r.below(*min_snr)) summary["below_min_snr"].push_back(t->name);
    }
    doc["summary"] = summary;
    // File names may hold any bytes: those that are not UTF-8 become U+FFFD.
    fprintf(out, "%s\n", doc.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace kelvane
