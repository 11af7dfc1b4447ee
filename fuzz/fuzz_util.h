// Helpers shared by the fuzz harnesses: a scratch directory, capture of what
// the code under test prints, a reader of generated C text, and a sampled
// compile of generated sources.
#ifndef KELVANE_FUZZ_UTIL_H
#define KELVANE_FUZZ_UTIL_H

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

extern char **environ;

namespace fuzz {

// A failed check: print what was expected and abort, so that libFuzzer keeps
// the input as a crash.
#define FUZZ_CHECK(cond, ...)                                                      \
    do {                                                                           \
        if (!(cond)) {                                                             \
            FILE *err_ = ::fuzz::real_stderr();                                    \
            fprintf(err_, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            fprintf(err_, __VA_ARGS__);                                            \
            fputc('\n', err_);                                                     \
            abort();                                                               \
        }                                                                          \
    } while (0)

// The process's own stderr, also while the code under test writes into a
// capture.
inline FILE *&real_stderr()
{
    static FILE *f = stderr;
    return f;
}

inline void write_file(const std::string &path, std::string_view bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) {
        perror(path.c_str());
        abort();
    }
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) abort();
        done += static_cast<size_t>(n);
    }
    close(fd);
}

inline std::string read_file(const std::string &path)
{
    std::string text;
    if (FILE *f = fopen(path.c_str(), "rb")) {
        char buf[65536];
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
        fclose(f);
    }
    return text;
}

// Removes a directory tree of plain files and directories, as the harnesses
// build it.
inline void remove_tree(const std::string &path)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        if (DIR *d = opendir(path.c_str())) {
            std::vector<std::string> names;
            while (struct dirent *e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
            closedir(d);
            for (const std::string &n : names) remove_tree(path + "/" + n);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

// A private directory in memory (/dev/shm where there is one), removed at
// exit. Each harness writes its inputs there.
inline const std::string &scratch_dir()
{
    static const std::string dir = [] {
        std::string tmpl = access("/dev/shm", W_OK) == 0 ? "/dev/shm/kelvane_fuzz_XXXXXX" : "/tmp/kelvane_fuzz_XXXXXX";
        if (!mkdtemp(tmpl.data())) {
            perror("mkdtemp");
            abort();
        }
        return tmpl;
    }();
    static const bool registered = [] {
        atexit([] { remove_tree(dir); });
        return true;
    }();
    (void)registered;
    return dir;
}

// Runs f with stdout and stderr, the C streams, sent into memory. The
// sanitizers and libFuzzer write to the file descriptor and stay visible.
struct Captured {
    std::string out, err;
};

template <class F>
Captured capture(F f)
{
    Captured c;
    char *out_buf = nullptr, *err_buf = nullptr;
    size_t out_size = 0, err_size = 0;
    FILE *out = open_memstream(&out_buf, &out_size);
    FILE *err = open_memstream(&err_buf, &err_size);
    if (!out || !err) abort();
    fflush(stdout);
    fflush(stderr);
    real_stderr();  // remembered before it is replaced
    FILE *saved_out = stdout, *saved_err = stderr;
    stdout = out;
    stderr = err;
    f();
    stdout = saved_out;
    stderr = saved_err;
    fclose(out);
    fclose(err);
    c.out.assign(out_buf, out_size);
    c.err.assign(err_buf, err_size);
    free(out_buf);
    free(err_buf);
    return c;
}

// The lines of a text, each without its newline; a last line without one
// counts too.
inline std::vector<std::string_view> lines(std::string_view text)
{
    std::vector<std::string_view> result;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        result.push_back(text.substr(0, nl));
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    }
    return result;
}

inline bool starts_with(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// Generated C text split into its code and its string literals: code holds
// the text with each literal's body removed (the quotes stay), literals the
// decoded bytes of each. Line comments are dropped from the code. ok is
// false when a literal is not closed on its line or an escape is not one
// the generators write.
struct CText {
    std::string code;
    std::vector<std::string> literals;
    bool ok = true;
};

inline CText split_c(std::string_view text)
{
    CText r;
    for (size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (c == '/' && i + 1 < text.size() && text[i + 1] == '/') {
            while (i < text.size() && text[i] != '\n') i++;
            continue;
        }
        if (c != '"') {
            r.code += c;
            i++;
            continue;
        }
        r.code += "\"\"";
        std::string lit;
        i++;
        for (;;) {
            if (i >= text.size() || text[i] == '\n') {
                r.ok = false;
                return r;
            }
            const char d = text[i++];
            if (d == '"') break;
            if (d != '\\') {
                lit += d;
                continue;
            }
            if (i >= text.size()) {
                r.ok = false;
                return r;
            }
            const char e = text[i++];
            switch (e) {
            case '"':
            case '\\':
            case '?': lit += e; break;
            case 'r': lit += '\r'; break;
            case '0':
            case '1':
            case '2':
            case '3': {
                // Exactly three octal digits, as the generators write them.
                if (i + 2 > text.size() || text[i] < '0' || text[i] > '7' || text[i + 1] < '0' || text[i + 1] > '7') {
                    r.ok = false;
                    return r;
                }
                lit += static_cast<char>((e - '0') * 64 + (text[i] - '0') * 8 + (text[i + 1] - '0'));
                i += 2;
                break;
            }
            default: r.ok = false; return r;
            }
        }
        r.literals.push_back(lit);
    }
    return r;
}

// The identifiers of C code (letters, digits and '_', not starting with a
// digit), in order; number literals such as 1e-5f or 0x1p3 are skipped.
inline std::vector<std::string> identifiers(std::string_view code)
{
    std::vector<std::string> ids;
    auto word = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    };
    for (size_t i = 0; i < code.size();) {
        if (!word(code[i])) {
            i++;
            continue;
        }
        size_t j = i;
        while (j < code.size() && (word(code[j]) || (code[j] == '.' && code[i] >= '0' && code[i] <= '9'))) j++;
        if (!(code[i] >= '0' && code[i] <= '9')) ids.emplace_back(code.substr(i, j - i));
        i = j;
    }
    return ids;
}

// FNV-1a of the input: picks the inputs whose output gets compiled, the
// same ones on every run.
inline uint64_t hash(const uint8_t *data, size_t size)
{
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < size; i++) h = (h ^ data[i]) * 1099511628211ull;
    return h;
}

// One input in every KELVANE_FUZZ_COMPILE_EVERY (default `every`) has its
// generated source compiled; 1 compiles all, 0 none.
inline bool sampled(const uint8_t *data, size_t size, unsigned every)
{
    if (const char *env = getenv("KELVANE_FUZZ_COMPILE_EVERY")) every = static_cast<unsigned>(atoi(env));
    return every != 0 && hash(data, size) % every == 0;
}

// Compiles a generated source as strict C99 with warnings as errors against
// the library's headers; the compiler's messages go to the real stderr.
// Returns whether it compiled.
inline bool compiles_as_c(const std::string &source, const std::string &include_dir)
{
    const char *cc = getenv("CC");
    if (!cc || !*cc) cc = "cc";
    const std::string inc1 = "-I" + std::string(DL_LIB_INCLUDE_DIR);
    const std::string inc2 = "-I" + include_dir;
    const char *argv[] = {cc,           "-std=c99",   "-Wall",        "-Werror", "-fsyntax-only",
                          inc1.c_str(), inc2.c_str(), source.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    fflush(real_stderr());
    posix_spawn_file_actions_adddup2(&actions, fileno(real_stderr()), 1);
    pid_t pid;
    const int rc = posix_spawnp(&pid, cc, &actions, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        fprintf(real_stderr(), "cannot run %s: %s\n", cc, strerror(rc));
        abort();
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {}
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace fuzz

#endif
