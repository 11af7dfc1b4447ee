#include "names.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace kelvane {

std::string sanitize_name(const char *filename)
{
    std::string name;
    for (const char *p = filename; *p && *p != '.'; p++) name += (*p == ' ') ? '_' : *p;
    return name;
}

bool is_c_identifier(const std::string &name)
{
    auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    if (name.empty() || !alpha(name[0])) return false;
    return std::all_of(name.begin(), name.end(), [&](char c) { return alpha(c) || (c >= '0' && c <= '9'); });
}

namespace {

constexpr std::string_view kReserved[] = {
    // The generated code's own names.
    "NULL", "arg", "det_thresh_list", "det_win_list", "get_info", "hint", "model_info", "name", "wake_word_list",
    // C keywords up to C23, and the macros GNU dialects predefine.
    "_Alignas", "_Alignof", "_Atomic", "_BitInt", "_Bool", "_Complex", "_Decimal128", "_Decimal32", "_Decimal64",
    "_Generic", "_Imaginary", "_Noreturn", "_Pragma", "_Static_assert", "_Thread_local", "alignas", "alignof", "auto",
    "bool", "break", "case", "char", "const", "constexpr", "continue", "default", "do", "double", "else", "enum",
    "extern", "false", "float", "for", "goto", "i386", "if", "inline", "int", "linux", "long", "nullptr", "register",
    "restrict", "return", "short", "signed", "sizeof", "static", "static_assert", "struct", "switch", "thread_local",
    "true", "typedef", "typeof", "typeof_unqual", "union", "unix", "unsigned", "void", "volatile", "while",
    // string.h and strings.h, with their POSIX and GNU extensions.
    "basename", "bcmp", "bcopy", "bzero", "explicit_bzero", "ffs", "ffsl", "ffsll", "index", "memccpy", "memchr",
    "memcmp", "memcpy", "memfrob", "memmem", "memmove", "mempcpy", "memrchr", "memset", "rawmemchr", "rindex",
    "sigabbrev_np", "sigdescr_np", "stpcpy", "stpncpy", "strcasecmp", "strcasecmp_l", "strcasestr", "strcat", "strchr",
    "strchrnul", "strcmp", "strcoll", "strcoll_l", "strcpy", "strcspn", "strdup", "strdupa", "strerror", "strerror_l",
    "strerror_r", "strerrordesc_np", "strerrorname_np", "strfry", "strlcat", "strlcpy", "strlen", "strncasecmp",
    "strncasecmp_l", "strncat", "strncmp", "strncpy", "strndup", "strndupa", "strnlen", "strpbrk", "strrchr", "strsep",
    "strsignal", "strspn", "strstr", "strtok", "strtok_r", "strverscmp", "strxfrm", "strxfrm_l",
    // stddef.h, and the library's names without its prefix.
    "fast_exp", "matrix3d_get_range", "matrix_get_range", "offsetof"};

bool starts_with(const std::string &s, std::string_view prefix) { return s.rfind(prefix, 0) == 0; }

bool ends_with(const std::string &s, std::string_view suffix)
{
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

bool is_reserved(const std::string &name)
{
    if (std::find(std::begin(kReserved), std::end(kReserved), std::string_view(name)) != std::end(kReserved))
        return true;
    // The implementation's names; the generated lookup's own prefix; the
    // library's prefixes; the _t types of the headers; the limit macros of
    // stdint.h (INT8_MAX, UINT64_C, SIZE_WIDTH, ...).
    if (starts_with(name, "__") || (name.size() > 1 && name[0] == '_' && name[1] >= 'A' && name[1] <= 'Z')) return true;
    if (starts_with(name, "get_coeff_") || starts_with(name, "dl_") || starts_with(name, "DL_")) return true;
    if (ends_with(name, "_t")) return true;
    for (std::string_view suffix : {"_MAX", "_MIN", "_C", "_WIDTH"})
        if (ends_with(name, suffix)) return true;
    return false;
}

std::string name_problem(const std::string &name)
{
    if (!is_c_identifier(name)) return "its name " + name + " is not a C identifier";
    if (is_reserved(name)) return "its name " + name + " is taken by C, the C library or the generated code";
    return "";
}

std::string NameTable::add(const std::string &name, const std::string &file)
{
    const std::string ids[] = {name, name + "_item_array"};
    for (const std::string &id : ids) {
        auto it = owner_.find(id);
        if (it != owner_.end()) return it->second;
    }
    for (const std::string &id : ids) owner_[id] = file;
    return "";
}

}  // namespace kelvane
