// kelvane-report: what each table of a model loses on its way to the device.
// It reads a model directory as kelvane would in the same mode, with the
// same loaders, flags, batch-norm pre-calculation and quantiser, and compares
// every table's values with the float values they stand for. It writes no
// file.
#ifndef KELVANE_REPORT_H
#define KELVANE_REPORT_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "options.h"
#include "strict.h"

namespace kelvane {

struct ReportSettings {
    Settings convert;  // modeldir and the mode options, as kelvane takes them
    bool json = false;
    std::optional<double> min_snr;  // --min-snr DB
};

// kelvane-report modeldir [--json] [--min-snr DB] [kelvane's mode options].
// Messages go to err. Nothing when the run must stop with status 1.
std::optional<ReportSettings> parse_report_options(int argc, const char *const *argv, FILE *err);

enum class TableKind { float_matrix, fixed_point_matrix, float_tensor, fixed_point_tensor, input_tensor };

// How far a table's items lie from the float values they stand for, added
// up item by item.
struct Comparison {
    int64_t items = 0;
    int64_t non_finite = 0;     // NaN or infinity in the source: not compared
    int64_t nonzero = 0;        // finite non-zero source values
    int64_t zeroed = 0;         // ... that became 0 in the table
    int64_t zero_in_table = 0;  // items that are 0 in the table
    double signal = 0.0;        // sum of squared source values
    double noise = 0.0;         // sum of squared errors
    double max_abs_error = 0.0;

    void add(fptp_t value, double table_value);
    // 10 log10(signal / noise); nothing when the table is exact (or empty).
    std::optional<double> snr_db() const;
    // Share of the non-zero values that became 0; 0 without any.
    double zeroed_share() const;
};

struct Warning {
    const char *code;  // "non_finite", "zero_root", "outliers" or "ignored_option"
    std::string text;
};

struct TableRow {
    std::string file;        // the directory entry
    std::string name;        // sanitised: the table's name in the generated code
    std::vector<int> shape;  // rows, columns; filters, rows, columns, channels;
                             // or rows, columns, channels of an input
    bool compared = true;    // false for input tensors: no float values
    TableKind kind = TableKind::float_matrix;
    bool batch_norm = false;
    int64_t non_finite = 0;       // NaN or infinity among the values as loaded
    std::optional<int> exponent;  // fixed-point tables
    std::optional<int> bits;      // bits of magnitude the largest item uses (of 15, or of 8)
    int64_t few_bit_items = 0;    // non-zero values whose item uses 8 bits or fewer
    int64_t bytes = 0;            // size of the item array in flash
    Comparison cmp;
    std::vector<Warning> warnings;
};

struct SkippedEntry {
    std::string file;
    std::string reason;
};

struct ModelReport {
    std::string modeldir;
    Mode mode = Mode::quantised_2d;
    bool exclude = false;                   // -exclude in force in float mode
    std::vector<TableRow> tables;           // in kelvane's order
    std::vector<SkippedEntry> skipped;      // entries kelvane leaves out
    std::optional<std::string> model_info;  // _MODEL_INFO_, when present
    std::optional<std::string> info_error;  // why kelvane would stop on it
    std::vector<Finding> strict_findings;   // what kelvane -strict would refuse

    int64_t flash_bytes() const;
    // The table with the lowest SNR; null when every table is exact.
    const TableRow *worst() const;
    // Tables whose SNR lies below min_snr.
    std::vector<const TableRow *> below(double min_snr) const;
};

// The figures of one loaded matrix as kelvane writes it with these flags
// (MF_QUANTISED, MF_BATCHNORM): like kelvane, it first replaces m by its
// batch-norm roots when asked, then compares m with a fixed-point table made
// by the quantiser or with a float table of six decimals. Nothing if memory
// ran out.
std::optional<TableRow> analyse_matrix2d(dl_matrix2d_t *m, int flags);

// A filter bank as loaded, against its fixed-point table q (as the
// quantising loader gives it) or, without q, its float table.
std::optional<TableRow> analyse_tensor(const dl_matrix3d_t *f, const dl_matrix3dq_t *q);

// An 8-bit input tensor: its loader converts the file straight to bytes, so
// there is no float to compare with; shape, bits and bytes only.
TableRow analyse_input(const dl_matrix3du_t *t);

// Reads the model directory as kelvane would in the mode of s. False, after
// a message on err, when the directory cannot be scanned or memory runs out.
bool analyse_model(const Settings &s, ModelReport &report, FILE *err);

void print_report_text(const ModelReport &r, const std::optional<double> &min_snr, FILE *out);
void print_report_json(const ModelReport &r, const std::optional<double> &min_snr, FILE *out);

// The whole program: 0, or 1 when the directory cannot be read, kelvane
// would stop on _MODEL_INFO_, or a table falls below --min-snr.
int run_report(const ReportSettings &s, FILE *out, FILE *err);

}  // namespace kelvane

#endif
