// The names of a run: what a file's name becomes in the generated source,
// and which names the strict mode refuses because the pair would not
// compile with them.
#ifndef KELVANE_NAMES_H
#define KELVANE_NAMES_H

#include <map>
#include <string>

namespace kelvane {

// The file name with blanks made '_' and cut at its first '.'. Nothing else
// is touched: the result may be no C identifier.
std::string sanitize_name(const char *filename);

// Letters, digits and '_', not starting with a digit, not empty.
bool is_c_identifier(const std::string &name);

// Whether the generated pair cannot declare name at file scope: a C keyword
// (up to C23), a name of the generated code itself, a name that the headers
// it includes declare or define (string.h and strings.h with every POSIX and
// GNU extension, stdint.h, stddef.h, the library's headers), a macro that
// GNU dialects predefine, or a name reserved to the implementation.
bool is_reserved(const std::string &name);

// Why name cannot name a table or a model, or "" when it can.
std::string name_problem(const std::string &name);

// The identifiers the generated source declares for each table, so that two
// files whose tables would share one are found before anything is written.
class NameTable {
  public:
    // Records the identifiers of the table called name, from file; returns
    // the file that already declared one of them, or "".
    std::string add(const std::string &name, const std::string &file);

  private:
    std::map<std::string, std::string> owner_;  // identifier -> file
};

}  // namespace kelvane

#endif
