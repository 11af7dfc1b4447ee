// Helpers shared by the unit tests.
#ifndef DL_LIB_TEST_UTIL_H
#define DL_LIB_TEST_UTIL_H

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <ostream>
#include <filesystem>
#include <string>
#include <vector>

#include "dl_lib.h"

namespace testutil {

using MatrixPtr = std::unique_ptr<dl_matrix2d_t, decltype(&dl_matrix_free)>;
using MatrixqPtr = std::unique_ptr<dl_matrix2dq_t, decltype(&dl_matrixq_free)>;

inline MatrixPtr own(dl_matrix2d_t *m) { return MatrixPtr(m, dl_matrix_free); }
inline MatrixqPtr own(dl_matrix2dq_t *m) { return MatrixqPtr(m, dl_matrixq_free); }

// A row-major float matrix from rows of values.
inline MatrixPtr matrix(int w, int h, const std::vector<float> &values)
{
    MatrixPtr m = own(dl_matrix_alloc(w, h));
    for (int i = 0; i < w * h; i++) m->item[i] = values[i];
    return m;
}

// The items of a dense float matrix in storage order.
inline std::vector<float> items_of(const dl_matrix2d_t *m)
{
    return std::vector<float>(m->item, m->item + m->w * m->h);
}

// Names a parameterised test by its case's `name` field.
struct CaseName {
    template <class Info>
    std::string operator()(const Info &info) const
    {
        return info.param.name;
    }
};

// A test name from a description: '_' for all but letters and digits.
inline std::string test_name(std::string what)
{
    for (char &c : what)
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    return what;
}

// One asserted condition of a contract: a call that must end the process,
// and a regular expression its message must match. The records such calls
// allocate are never freed.
struct DeathCase {
    const char *name;
    void (*call)();
    const char *message;
};

inline void PrintTo(const DeathCase &c, std::ostream *os) { *os << c.name; }

// The death test suite of a table of DeathCase rows, one test a row, named
// Conditions/<Suite>.FailsWithConditionText/<row name>.
#define DEATH_TEST_TABLE(Suite, cases)                                                             \
    class Suite : public testing::TestWithParam<testutil::DeathCase> {};                           \
    TEST_P(Suite, FailsWithConditionText) { EXPECT_DEATH(GetParam().call(), GetParam().message); } \
    INSTANTIATE_TEST_SUITE_P(Conditions, Suite, testing::ValuesIn(cases), testutil::CaseName())

// The bytes of a version 1.0 .npy file with the given header text and data.
inline std::string npy_bytes(const std::string &header, const std::string &data)
{
    std::string b("\x93NUMPY\x01\x00", 8);
    b += static_cast<char>(header.size() & 0xff);
    b += static_cast<char>(header.size() >> 8);
    return b + header + data;
}

template <class T>
std::string raw(const std::vector<T> &values)
{
    return std::string(reinterpret_cast<const char *>(values.data()), values.size() * sizeof(T));
}

// The header of a '<f4' file up to its shape, and such a file of the shape
// ("(2, 3)", say) and data.
inline const std::string kF4 = "{'descr': '<f4', 'fortran_order': False, 'shape': ";
inline std::string f4(const std::string &shape, const std::string &data = "")
{
    return npy_bytes(kF4 + shape + ", }", data);
}

// The library's four loaders, and the dimensions of what one gives for a
// file: w, h of a matrix; n, w, h, c of a tensor; none when it refuses.
enum class Loader { matrix, weights, weights_q, input };

inline std::vector<int> dims(const dl_matrix2d_t *m) { return {m->w, m->h}; }
template <class Tensor>
inline std::vector<int> dims(const Tensor *t)
{
    return {t->n, t->w, t->h, t->c};
}

template <class T>
std::vector<int> load_dims(T *(*load)(const char *), void (*release)(T *), const char *path)
{
    T *t = load(path);
    const std::vector<int> d = t ? dims(t) : std::vector<int>{};
    release(t);
    return d;
}

inline std::vector<int> load_dims(Loader loader, const char *path)
{
    switch (loader) {
    case Loader::matrix: return load_dims(dl_matrix2d_from_numpy_file, dl_matrix_free, path);
    case Loader::weights: return load_dims(dl_matrix3d_weight_from_numpy_file, dl_matrix3d_free, path);
    case Loader::weights_q: return load_dims(dl_matrix3dq_weight_from_numpy_file, dl_matrix3dq_free, path);
    case Loader::input: return load_dims(dl_matrix3du_input_from_numpy_file, dl_matrix3du_free, path);
    }
    return {};
}

// The expected messages of a loader, with "@" standing for the file's path.
inline std::string with_path(std::string text, const std::string &path)
{
    for (size_t p = text.find('@'); p != std::string::npos; p = text.find('@', p + path.size()))
        text.replace(p, 1, path);
    return text;
}

// A temporary directory of the test's files, removed with its contents
// when the object goes.
class TempDir {
  public:
    TempDir()
    {
        char dir[] = "/tmp/dl_lib_test_XXXXXX";
        path_ = mkdtemp(dir);
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    // Writes bytes to the file name in the directory; returns its path.
    std::string write(const std::string &name, const std::string &bytes) const
    {
        const std::string file = path_ + "/" + name;
        FILE *f = fopen(file.c_str(), "wb");
        EXPECT_NE(f, nullptr) << file;
        if (f) {
            fwrite(bytes.data(), 1, bytes.size(), f);
            fclose(f);
        }
        return file;
    }

  private:
    std::string path_;
};

// One file in a temporary directory of its own.
class TempFile {
  public:
    explicit TempFile(const std::string &contents, const std::string &name = "t.npy")
        : path_(dir_.write(name, contents))
    {
    }
    const char *path() const { return path_.c_str(); }

  private:
    TempDir dir_;
    std::string path_;
};

// The contents of a memory stream that a test writes through a FILE*.
class MemStream {
  public:
    MemStream() : f_(open_memstream(&buf_, &size_)) {}
    ~MemStream()
    {
        if (f_) fclose(f_);
        free(buf_);
    }
    FILE *get() const { return f_; }
    std::string str()
    {
        fflush(f_);
        return std::string(buf_, size_);
    }

  private:
    char *buf_ = nullptr;
    size_t size_ = 0;
    FILE *f_;
};

}  // namespace testutil

#endif
