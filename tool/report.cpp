#include "report.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "emit.h"
#include "model_dir.h"
#include "numpy_input_internal.h"
#include "strict.h"

namespace kelvane {

namespace {

// An item of this many bits of magnitude or fewer keeps less than 1/256 of
// relative precision; when most of a table's items are that small, a few
// large values have set the exponent for all of them.
constexpr int kFewBits = 8;

using MatrixPtr = std::unique_ptr<dl_matrix2d_t, decltype(&dl_matrix_free)>;
using MatrixqPtr = std::unique_ptr<dl_matrix2dq_t, decltype(&dl_matrixq_free)>;
using TensorPtr = std::unique_ptr<dl_matrix3d_t, decltype(&dl_matrix3d_free)>;
using TensorqPtr = std::unique_ptr<dl_matrix3dq_t, decltype(&dl_matrix3dq_free)>;

std::string format(const char *fmt, long long a, long long b)
{
    char buf[160];
    snprintf(buf, sizeof buf, fmt, a, b);
    return buf;
}

void add_warnings(TableRow &row)
{
    const bool fixed = row.kind == TableKind::fixed_point_matrix || row.kind == TableKind::fixed_point_tensor;
    if (row.non_finite > 0) {
        row.warnings.push_back({"non_finite", format("%lld NaN or infinite values in the source (of %lld)",
                                                     row.non_finite, row.cmp.items)});
    }
    if (row.batch_norm && row.cmp.zero_in_table > 0) {
        row.warnings.push_back({"zero_root", format("%lld of %lld batch-norm roots are 0 in the table: the layer "
                                                    "divides by zero",
                                                    row.cmp.zero_in_table, row.cmp.items)});
    }
    if (fixed && 2 * row.few_bit_items > row.cmp.nonzero) {
        row.warnings.push_back(
            {"outliers", format("outliers set the exponent: %lld of %lld non-zero items use 8 bits or fewer",
                                row.few_bit_items, row.cmp.nonzero)});
    }
}

// Loads one entry with the mode's loader, as kelvane would, and adds its row
// or its reason to be skipped, and what -strict would refuse in it. False
// when memory ran out.
bool analyse_file(const Settings &s, const ModelEntry &e, const std::string &file, ModelReport &r)
{
    const char *path = e.path.c_str();
    const int flags = final_flags(s, e.name);
    dl::npy::Diagnostic d;
    const size_t findings_before = r.strict_findings.size();
    check_npy_header(s, file, e.path, r.strict_findings);
    auto refused = [&] {
        r.skipped.push_back({file, d.failed ? d.reason : "could not be read"});
        if (r.strict_findings.size() == findings_before)
            r.strict_findings.push_back({file, std::string("it cannot be read: ") + d.reason});
        return true;
    };
    std::optional<TableRow> row;
    switch (s.mode()) {
    case Mode::quantised_2d:
    case Mode::float_2d: {
        MatrixPtr m(dl::npy::load_matrix2d(path, &d), dl_matrix_free);
        if (!m) return refused();
        if ((flags & MF_QUANTISED) && !all_finite(m.get())) r.strict_findings.push_back({file, kNonFiniteQuantised});
        row = analyse_matrix2d(m.get(), flags);
        break;
    }
    case Mode::quantised_tensor: {
        // The float values, and the table the quantiser makes of them.
        TensorPtr f(dl::npy::load_filter_bank(path, &d), dl_matrix3d_free);
        if (!f) return refused();
        if (!all_finite(f.get())) r.strict_findings.push_back({file, kNonFiniteQuantised});
        TensorqPtr q(dl_matrixq_from_matrix3d(f.get()), dl_matrix3dq_free);
        if (!q) return false;
        row = analyse_tensor(f.get(), q.get());
        break;
    }
    case Mode::float_tensor: {
        TensorPtr f(dl::npy::load_filter_bank(path, &d), dl_matrix3d_free);
        if (!f) return refused();
        row = analyse_tensor(f.get(), nullptr);
        break;
    }
    case Mode::input_tensor: {
        std::unique_ptr<dl_matrix3du_t, decltype(&dl_matrix3du_free)> t(dl::npy::load_input(path, &d),
                                                                        dl_matrix3du_free);
        if (!t) return refused();
        row = analyse_input(t.get());
        break;
    }
    }
    if (d.failed && r.strict_findings.size() == findings_before)
        r.strict_findings.push_back({file, std::string("it cannot be read: ") + d.reason});
    if (!row) return false;
    if (s.tensor_flag) {
        // kelvane writes a tensor in the mode's format whatever the lists say.
        if (flags & MF_QUANTISED)
            row->warnings.push_back({"ignored_option", "-exclude applies to 2-D matrices only: ignored"});
        if (flags & MF_BATCHNORM)
            row->warnings.push_back({"ignored_option", "-bnmatrices applies to 2-D matrices only: ignored"});
    }
    row->file = file;
    row->name = e.name;
    r.tables.push_back(std::move(*row));
    return true;
}

// kelvane reads _MODEL_INFO_ where it finds it and stops with status 1 when
// the file is unusable.
void check_model_info(const ModelEntry &e, const std::string &file, ModelReport &r)
{
    r.model_info = file;
    ModelInfoError error;
    std::vector<std::string> problems;
    if (!read_model_info(e.path.c_str(), error, &problems)) {
        std::string why = error.text;
        while (!why.empty() && why.back() == '\n') why.pop_back();
        r.info_error = why;
        r.strict_findings.push_back({file, "it cannot be used: " + why});
    }
    for (const std::string &p : problems) r.strict_findings.push_back({file, p});
}

template <class Value>
int64_t count_non_finite(int64_t count, Value value)
{
    int64_t n = 0;
    for (int64_t i = 0; i < count; i++) n += !std::isfinite(value(i));
    return n;
}

// A fixed-point table: item(i) * 2^exponent against value(i).
template <class Value, class Item>
void compare_fixed(TableRow &row, int64_t count, int exponent, Value value, Item item)
{
    unsigned largest = 0;
    for (int64_t i = 0; i < count; i++) {
        const fptp_t v = value(i);
        const unsigned magnitude = static_cast<unsigned>(std::abs(static_cast<int>(item(i))));
        largest = std::max(largest, magnitude);
        // The exponent may lie beyond a float's range; in double an item
        // times 2^exponent is exact.
        row.cmp.add(v, std::ldexp(static_cast<double>(item(i)), exponent));
        if (std::isfinite(v) && v != 0.0f && std::bit_width(magnitude) <= kFewBits) row.few_bit_items++;
    }
    row.exponent = exponent;
    row.bits = static_cast<int>(std::bit_width(largest));
    row.bytes = count * static_cast<int64_t>(sizeof(qtp_t));
}

// A float table holds what a compiler reads back from the text the table
// writer prints (six decimals): print the items the same way and read them
// again. Each ends in ", ". False if memory ran out.
template <class Value>
bool compare_float(TableRow &row, int64_t count, Value value)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *f = open_memstream(&text, &size);
    if (!f) return false;
    for (int64_t i = 0; i < count; i++) emit_float_item(f, value(i), NonFinite::as_expression);
    const bool written = fclose(f) == 0;
    std::unique_ptr<char, decltype(&free)> owned(text, free);
    if (!written) return false;
    const char *p = text;
    for (int64_t i = 0; i < count; i++) {
        const fptp_t v = value(i);
        // NaN and infinity stay themselves (as constant expressions).
        row.cmp.add(v, std::isfinite(v) ? strtof(p, nullptr) : v);
        p = strstr(p, ", ") + 2;
    }
    row.bytes = count * static_cast<int64_t>(sizeof(fptp_t));
    return true;
}

bool parse_db(const char *text, double &db)
{
    char *end = nullptr;
    errno = 0;
    db = strtod(text, &end);
    return end != text && *end == '\0' && errno == 0 && std::isfinite(db);
}

void print_usage(const char *prog, FILE *err)
{
    fprintf(err, "Usage: %s modeldir [--json] [--min-snr DB] [kelvane's options]\n", prog);
    fputs(
        "Reports what quantisation costs each table that kelvane would write from modeldir with these\n"
        "options (-no-quantized, -exclude (a,b), -bnmatrices v1,v2, -3d, -in). Writes no file.\n"
        "--json: the report as JSON\n"
        "--min-snr DB: exit status 1 when a table's signal-to-noise ratio lies below DB\n",
        err);
}

}  // namespace

void Comparison::add(fptp_t value, double table_value)
{
    items++;
    if (table_value == 0.0) zero_in_table++;
    if (!std::isfinite(value)) {
        non_finite++;
        return;
    }
    const double x = value;
    const double e = table_value - x;
    signal += x * x;
    noise += e * e;
    max_abs_error = std::max(max_abs_error, std::fabs(e));
    if (x != 0.0) {
        nonzero++;
        if (table_value == 0.0) zeroed++;
    }
}

std::optional<double> Comparison::snr_db() const
{
    if (noise == 0.0) return std::nullopt;
    return 10.0 * std::log10(signal / noise);
}

double Comparison::zeroed_share() const { return nonzero > 0 ? static_cast<double>(zeroed) / nonzero : 0.0; }

std::optional<TableRow> analyse_matrix2d(dl_matrix2d_t *m, int flags)
{
    TableRow row;
    row.shape = {m->h, m->w};
    row.kind = (flags & MF_QUANTISED) ? TableKind::fixed_point_matrix : TableKind::float_matrix;
    row.batch_norm = (flags & MF_BATCHNORM) != 0;
    const int64_t count = static_cast<int64_t>(m->w) * m->h;
    // Item i of a float table is row-major, of a fixed-point table column-major.
    auto row_major = [m](int64_t i) { return m->item[i % m->w + m->stride * (i / m->w)]; };
    auto column_major = [m](int64_t i) { return m->item[i / m->h + m->stride * (i % m->h)]; };
    row.non_finite = count_non_finite(count, row_major);
    if (row.batch_norm) precalculate_batch_norm(m);

    if (row.kind == TableKind::float_matrix) {
        if (!compare_float(row, count, row_major)) return std::nullopt;
    } else {
        // The quantiser as the fixed-point table writer calls it.
        MatrixqPtr q(dl_matrixq_alloc(m->w, m->h), dl_matrixq_free);
        if (!q) return std::nullopt;
        dl_matrixq_from_matrix2d(m, q.get());
        const dl_matrix2dq_t *t = q.get();
        compare_fixed(row, count, t->exponent, column_major,
                      [t](int64_t i) { return t->itemq[i % t->h + t->stride * (i / t->h)]; });
    }
    add_warnings(row);
    return row;
}

std::optional<TableRow> analyse_tensor(const dl_matrix3d_t *f, const dl_matrix3dq_t *q)
{
    TableRow row;
    row.shape = {f->n, f->h, f->w, f->c};
    row.kind = q ? TableKind::fixed_point_tensor : TableKind::float_tensor;
    // Tensors are dense (stride == w*c): tables and records list the
    // elements in storage order.
    const int64_t count = static_cast<int64_t>(f->n) * f->h * f->w * f->c;
    auto value = [f](int64_t i) { return f->item[i]; };
    row.non_finite = count_non_finite(count, value);
    if (!q) {
        if (!compare_float(row, count, value)) return std::nullopt;
    } else {
        compare_fixed(row, count, q->exponent, value, [q](int64_t i) { return q->item[i]; });
    }
    add_warnings(row);
    return row;
}

TableRow analyse_input(const dl_matrix3du_t *t)
{
    TableRow row;
    row.shape = {t->h, t->w, t->c};
    row.kind = TableKind::input_tensor;
    row.compared = false;
    const int64_t count = static_cast<int64_t>(t->h) * t->w * t->c;
    unsigned largest = 0;
    for (int64_t i = 0; i < count; i++) largest = std::max<unsigned>(largest, t->item[i]);
    row.bits = static_cast<int>(std::bit_width(largest));
    row.bytes = count * static_cast<int64_t>(sizeof(uc_t));
    return row;
}

int64_t ModelReport::flash_bytes() const
{
    int64_t sum = 0;
    for (const TableRow &t : tables) sum += t.bytes;
    return sum;
}

const TableRow *ModelReport::worst() const
{
    const TableRow *worst = nullptr;
    for (const TableRow &t : tables) {
        const auto snr = t.cmp.snr_db();
        if (snr && (!worst || *snr < *worst->cmp.snr_db())) worst = &t;
    }
    return worst;
}

std::vector<const TableRow *> ModelReport::below(double min_snr) const
{
    std::vector<const TableRow *> low;
    for (const TableRow &t : tables) {
        const auto snr = t.cmp.snr_db();
        if (snr && *snr < min_snr) low.push_back(&t);
    }
    return low;
}

bool analyse_model(const Settings &s, ModelReport &r, FILE *err)
{
    r.modeldir = s.modeldir;
    r.mode = s.mode();
    r.exclude = s.float_flag && s.exclude_flag;
    std::vector<std::string> entries;
    if (!list_model_dir(s.modeldir, entries)) {
        fprintf(err, "%s: %s\n", s.modeldir.c_str(), strerror(errno));
        return false;
    }
    if (s.exclude_flag && !s.exclude_closed)
        r.strict_findings.push_back(
            {"", "the -exclude list has no closing parenthesis: its last character is dropped"});
    NameTable names;
    std::vector<std::string> converted;
    for (const std::string &file : entries) {
        const ModelEntry e = classify_entry(s.modeldir, file.c_str());
        switch (e.kind) {
        case EntryKind::hidden: continue;
        case EntryKind::model_info: check_model_info(e, file, r); continue;
        case EntryKind::not_regular:
            r.skipped.push_back({file, "not a regular file"});
            r.strict_findings.push_back({file, "it is not a regular file"});
            continue;
        case EntryKind::load: break;
        }
        const std::string problem = name_problem(e.name);
        if (!problem.empty()) r.strict_findings.push_back({file, problem});
        const std::string owner = names.add(e.name, file);
        if (!owner.empty())
            r.strict_findings.push_back(
                {file, "its name " + e.name + " clashes with that of " + owner + " in the generated source"});
        if (!analyse_file(s, e, file, r)) {
            fprintf(err, "%s: out of memory\n", e.path.c_str());
            return false;
        }
        converted.push_back(e.name);
    }
    check_lists(s, converted, r.strict_findings);
    return true;
}

std::optional<ReportSettings> parse_report_options(int argc, const char *const *argv, FILE *err)
{
    const char *prog = argc > 0 ? argv[0] : "kelvane-report";
    ReportSettings r;
    for (int i = 1; i < argc;) {
        if (strcmp(argv[i], "--json") == 0) {
            r.json = true;
            i++;
        } else if (strcmp(argv[i], "--min-snr") == 0) {
            double db = 0.0;
            if (i + 1 >= argc || !parse_db(argv[i + 1], db)) {
                fprintf(err, "--min-snr needs a number of dB, as in --min-snr 40\n");
                return std::nullopt;
            }
            r.min_snr = db;
            i += 2;
        } else if (r.convert.modeldir.empty()) {
            if (argv[i][0] == '-') break;  // the directory comes first
            r.convert.modeldir = argv[i++];
        } else {
            // kelvane's options, parsed as kelvane parses them.
            const int used = parse_mode_option(argc, argv, i, r.convert, err);
            if (used == 0) return std::nullopt;
            i += used;
        }
    }
    if (r.convert.modeldir.empty()) {
        print_usage(prog, err);
        return std::nullopt;
    }
    return r;
}

int run_report(const ReportSettings &s, FILE *out, FILE *err)
{
    ModelReport r;
    if (!analyse_model(s.convert, r, err)) return 1;
    if (s.json) {
        print_report_json(r, s.min_snr, out);
    } else {
        print_report_text(r, s.min_snr, out);
    }
    if (fflush(out) != 0 || ferror(out)) {
        perror("kelvane-report");
        return 1;
    }
    const bool low = s.min_snr && !r.below(*s.min_snr).empty();
    return r.info_error || low ? 1 : 0;
}

}  // namespace kelvane
