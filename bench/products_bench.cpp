// The four matrix products on square and layer-like shapes, each by its
// plain loop, by every instruction-set kernel this processor runs and by the
// public function, with OpenBLAS's cblas_sgemm on one thread beside them.
// Rates are multiply-accumulates per second ("MAC/s").
//
//   products_bench [--benchmark_filter=512x512x512] [...]
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "dl_lib.h"
#include "kernels_internal.h"

#ifdef DL_BENCH_OPENBLAS
#include <cblas.h>
#endif

namespace {

struct Shape {
    int m, k, n;  // a is m x k (h x w), b is k x n, the result m x n
};

// Square, the one-sample inference case, and two layer sizes.
// The digits networks' layers: an LSTM step and a fully connected layer of
// one row, and the small-window convolutions as products (positions x
// places x channels, channels x places x positions).
const Shape kShapes[] = {{512, 512, 512}, {1, 1024, 1024}, {64, 256, 256}, {8, 40, 128},
                         {1, 40, 128},    {1, 256, 32},    {64, 9, 8},     {8, 9, 64}};

std::string shape_name(const Shape &s)
{
    return std::to_string(s.m) + "x" + std::to_string(s.k) + "x" + std::to_string(s.n);
}

dl_matrix2d_t *random_floats(int w, int h, std::mt19937 &rng)
{
    dl_matrix2d_t *m = dl_matrix_alloc(w, h);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (int i = 0; i < w * h; i++) m->item[i] = d(rng);
    return m;
}

dl_matrix2dq_t *random_items(int w, int h, std::mt19937 &rng)
{
    dl_matrix2d_t *f = random_floats(w, h, rng);
    dl_matrix2dq_t *q = dl_matrixq_from_matrix2d(f, nullptr);
    dl_matrix_free(f);
    return q;
}

// Operands of one shape, made once per benchmark.
struct Operands {
    dl_matrix2d_t *fa, *fb, *fres;
    dl_matrix2dq_t *qa, *qb, *qres;
    dl_matrix2dq_t *qb_prepared;  // qb through dl_matrixq_prepare

    explicit Operands(const Shape &s)
    {
        std::mt19937 rng(1);
        fa = random_floats(s.k, s.m, rng);
        fb = random_floats(s.n, s.k, rng);
        fres = dl_matrix_alloc(s.n, s.m);
        qa = random_items(s.k, s.m, rng);
        qb = random_items(s.n, s.k, rng);
        qres = dl_matrixq_alloc(s.n, s.m);
        qb_prepared = dl_matrixq_prepare(qb);
    }
    ~Operands()
    {
        dl_matrix_free(fa);
        dl_matrix_free(fb);
        dl_matrix_free(fres);
        dl_matrixq_free(qa);
        dl_matrixq_free(qb);
        dl_matrixq_free(qres);
        dl_matrixq_free(qb_prepared);
    }
};

// How a product is run: its plain loop, one kernel, or the public function
// (with b as it is, or prepared).
enum class Path { plain, avx2, avx512, public_fn, prepared };

const char *path_name(Path p)
{
    switch (p) {
    case Path::plain: return "plain";
    case Path::avx2: return "avx2";
    case Path::avx512: return "avx512";
    case Path::public_fn: return "fast";
    case Path::prepared: return "prepared";
    }
    return "?";
}

dl::Isa path_isa(Path p)
{
    return p == Path::avx2 ? dl::Isa::avx2 : p == Path::avx512 ? dl::Isa::avx512 : dl::Isa::none;
}

enum class Product { matrix_dot, matrixq_dot, matrixq_dot_matrix_out, matrix_matrixq_dot };

const char *product_name(Product p)
{
    switch (p) {
    case Product::matrix_dot: return "dl_matrix_dot";
    case Product::matrixq_dot: return "dl_matrixq_dot";
    case Product::matrixq_dot_matrix_out: return "dl_matrixq_dot_matrix_out";
    case Product::matrix_matrixq_dot: return "dl_matrix_matrixq_dot";
    }
    return "?";
}

void run_once(Product product, Path path, Operands &o)
{
    const dl::Isa isa = path_isa(path);
    dl_matrix2dq_t *qb = path == Path::prepared ? o.qb_prepared : o.qb;
    if (path == Path::prepared) path = Path::public_fn;
    switch (product) {
    case Product::matrix_dot:
        if (path == Path::public_fn) dl_matrix_dot(o.fa, o.fb, o.fres);
        else if (path == Path::plain || !dl::matrix_dot_kernel(isa, o.fa, o.fb, o.fres))
            dl::matrix_dot_plain(o.fa, o.fb, o.fres);
        break;
    case Product::matrixq_dot:
        if (path == Path::public_fn) {
            dl_matrixq_dot(o.qa, qb, o.qres, 0);
        } else {
            const dl::QDotOut out = dl::qdot_to_items(o.qres, 15);
            if (path == Path::plain || !dl::matrixq_dot_kernel(isa, o.qa, o.qb, out))
                dl::matrixq_dot_plain(o.qa, o.qb, out);
        }
        break;
    case Product::matrixq_dot_matrix_out:
    case Product::matrix_matrixq_dot: {
        if (path == Path::public_fn) {
            if (product == Product::matrix_matrixq_dot) dl_matrix_matrixq_dot(o.fa, qb, o.fres);
            else dl_matrixq_dot_matrix_out(o.qa, qb, o.fres);
            break;
        }
        // The float a is quantised on every call, as the public function does.
        dl_matrix2dq_t *qa = product == Product::matrix_matrixq_dot ? dl_matrixq_from_matrix2d(o.fa, nullptr) : o.qa;
        const dl::QDotOut out = dl::qdot_to_floats(o.fres, 1.0f / 1073741824.0f);
        if (path == Path::plain || !dl::matrixq_dot_kernel(isa, qa, o.qb, out)) dl::matrixq_dot_plain(qa, o.qb, out);
        if (qa != o.qa) dl_matrixq_free(qa);
        break;
    }
    }
}

void bench_product(benchmark::State &state, Product product, Path path, Shape shape)
{
    Operands o(shape);
    for (auto _ : state) {
        run_once(product, path, o);
        benchmark::ClobberMemory();
    }
    state.counters["MAC/s"] = benchmark::Counter(static_cast<double>(shape.m) * shape.k * shape.n,
                                                 benchmark::Counter::kIsIterationInvariantRate);
}

#ifdef DL_BENCH_OPENBLAS
void bench_sgemm(benchmark::State &state, Shape s)
{
    std::mt19937 rng(1);
    std::vector<float> a(static_cast<size_t>(s.m) * s.k), b(static_cast<size_t>(s.k) * s.n);
    std::vector<float> c(static_cast<size_t>(s.m) * s.n);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (float &v : a) v = d(rng);
    for (float &v : b) v = d(rng);
    for (auto _ : state) {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, s.m, s.n, s.k, 1.0f, a.data(), s.k, b.data(), s.n, 0.0f,
                    c.data(), s.n);
        benchmark::ClobberMemory();
    }
    state.counters["MAC/s"] =
        benchmark::Counter(static_cast<double>(s.m) * s.k * s.n, benchmark::Counter::kIsIterationInvariantRate);
}
#endif

}  // namespace

int main(int argc, char **argv)
{
#ifdef DL_BENCH_OPENBLAS
    openblas_set_num_threads(1);
#endif
    const Product products[] = {Product::matrix_dot, Product::matrixq_dot, Product::matrixq_dot_matrix_out,
                                Product::matrix_matrixq_dot};
    for (const Shape &shape : kShapes) {
        const std::string shape_text = shape_name(shape);
#ifdef DL_BENCH_OPENBLAS
        benchmark::RegisterBenchmark(("cblas_sgemm/1thread/" + shape_text).c_str(), bench_sgemm, shape);
#endif
        for (Product product : products) {
            for (Path path : {Path::plain, Path::avx2, Path::avx512, Path::public_fn, Path::prepared}) {
                if ((path == Path::avx2 || path == Path::avx512) && !dl::isa_usable(path_isa(path))) continue;
                if (path == Path::prepared && product == Product::matrix_dot) continue;
                const std::string name = std::string(product_name(product)) + "/" + path_name(path) + "/" + shape_text;
                benchmark::RegisterBenchmark(name.c_str(), bench_product, product, path, shape);
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
