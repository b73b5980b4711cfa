// The oversampling filter's speed, in times real time, beside what the machine can do at most with
// separate products and sums of the same vector width.
//
// Each line: x_real_time, of the form; peak, the limit in the same unit; share, of the limit;
// to_straight, the form's speed over that of the straight 128-bit form.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

// A plain loop is to stay one: the compiler's own vectors would make it a form of its own.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("no-tree-vectorize")
#include "scalar_filter.h"
#pragma GCC pop_options
#else
#include "scalar_filter.h"
#endif

#include "common.h"
#include "filter_hooks.h"

#if defined(__x86_64__)
#define VECTOR_REGISTER(v) "+x"(v)
#elif defined(__aarch64__)
#define VECTOR_REGISTER(v) "+w"(v)
#else
#define VECTOR_REGISTER(v) "+m"(v)
#endif

namespace peak_128
{
constexpr int32_t vector_floats = 4;
#include "peak_kernel.inc"
} // namespace peak_128
#if defined(__x86_64__)
#ifdef __clang__
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif
namespace peak_256
{
constexpr int32_t vector_floats = 8;
#include "peak_kernel.inc"
} // namespace peak_256
#ifdef __clang__
#pragma clang attribute pop
#pragma clang attribute push(__attribute__((target("avx512f"))), apply_to = function)
#else
#pragma GCC pop_options
#pragma GCC push_options
#pragma GCC target("avx512f")
#endif
namespace peak_512
{
constexpr int32_t vector_floats = 16;
#include "peak_kernel.inc"
} // namespace peak_512
#ifdef __clang__
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif
#endif

namespace
{

// The processor's time that this thread has had: other programs do not count.
double thread_seconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Products (each with its sum) a second, the best of a few tries.
double measure_peak(float (*run_peak)(int64_t), int64_t round_products)
{
    constexpr int64_t rounds = 4000000;
    double best = 0;
    for (int32_t i = 0; i < 5; i++) {
        const double start = thread_seconds();
        benchmark::DoNotOptimize(run_peak(rounds));
        best = std::max(best,
                        static_cast<double>(rounds * round_products) / (thread_seconds() - start));
    }
    return best;
}

// The peak of the vectors that the form uses, one float wide for the scalar one. Measured anew for
// each line, for the machine's clock may change.
double form_peak(const std::string &form)
{
#if defined(__x86_64__)
    if (form == "batched 256") return measure_peak(peak_256::run_peak, peak_256::round_products);
    if (form == "batched 512") return measure_peak(peak_512::run_peak, peak_512::round_products);
#endif
    const double peak = measure_peak(peak_128::run_peak, peak_128::round_products);
    return form == "scalar" ? peak / peak_128::vector_floats : peak;
}

struct filter_case {
    int32_t source_rate;
    int32_t use_short;
    std::string form;
};

double products_a_second(const filter_case &c)
{
    const auto taps44 = c.use_short != 0 ? set_44k_short.tap_count : set_44k_normal.tap_count;
    const auto taps48 = c.use_short != 0 ? set_48k_short.tap_count : set_48k_normal.tap_count;
    if (c.source_rate == 44100) return 2.0 * (taps44 + 8) * 44100;
    return 2.0 * (taps48 + 4) * 352800;
}

std::vector<float> noise_floats()
{
    std::vector<float> noise(8192);
    uint32_t state = 1;
    for (float &x : noise) {
        state = state * 1664525 + 1013904223;
        x = static_cast<float>(static_cast<int32_t>(state)) * 0x1p-31F;
    }
    return noise;
}

// Runs input frames until Google Benchmark has enough. Result: times real time, in the best round,
// for all but the best were disturbed by something.
template <typename run_frame>
double time_frames(benchmark::State &state, int32_t source_rate, run_frame run)
{
    const std::vector<float> noise = noise_floats();
    double best = 1e9;
    for (auto _ : state) {
        const double start = thread_seconds();
        for (size_t i = 0; i < noise.size(); i += 2) run(&noise[i]);
        best = std::min(best, thread_seconds() - start);
    }
    return static_cast<double>(noise.size()) / 2 / source_rate / best;
}

double time_scalar(benchmark::State &state, const filter_case &c)
{
    scalar_filter filter = make_scalar_filter(c.use_short != 0 ? set_44k_short : set_44k_normal,
                                              c.use_short != 0 ? set_48k_short : set_48k_normal);
    std::vector<float> output;
    return time_frames(state, c.source_rate, [&](const float *frame) {
        output.clear();
        scalar_filter_run(filter, c.source_rate, {frame[0], frame[1]}, output);
        benchmark::DoNotOptimize(output.data());
    });
}

double time_form(benchmark::State &state, const filter_case &c)
{
    coeff_filter_init(c.source_rate, 352800, 2, c.use_short);
    const double speed = time_frames(state, c.source_rate, [](const float *frame) {
        int32_t count = 0;
        benchmark::DoNotOptimize(coeff_filter_run(frame, &count));
    });
    coeff_filter_free();
    return speed;
}

// Speed of the straight 128-bit form by road and set, of this run.
std::map<std::pair<int32_t, int32_t>, double> straight_speeds;

void bench_filter(benchmark::State &state, const filter_case &c)
{
    if (c.form != "scalar" && !coeff_filter_take_form(c.form.c_str())) {
        state.SkipWithError("this machine has no such vectors");
        return;
    }
    const double peak = form_peak(c.form) / products_a_second(c);
    const double speed = c.form == "scalar" ? time_scalar(state, c) : time_form(state, c);
    double &straight = straight_speeds[{c.source_rate, c.use_short}];
    if (c.form == "straight 128") straight = speed;
    state.counters["x_real_time"] = speed;
    state.counters["peak"] = peak;
    state.counters["share"] = speed / peak;
    if (straight > 0) state.counters["to_straight"] = speed / straight;
}

// The time that -os adds to the player's start.
void bench_filter_set_up(benchmark::State &state)
{
    for (auto _ : state) {
        coeff_filter_init(48000, 352800, 2, 0);
        coeff_filter_free();
    }
}
BENCHMARK(bench_filter_set_up)->Unit(benchmark::kMillisecond);

bool register_benchmarks()
{
    for (const int32_t rate : {44100, 48000})
        for (const int32_t use_short : {0, 1}) {
            std::vector<std::string> forms{"straight 128", "scalar"};
            forms.insert(forms.end(), filter_form_names.begin() + 1, filter_form_names.end());
            for (const std::string &form : forms) {
                const std::string name = "filter/" + std::to_string(rate) +
                                         (use_short != 0 ? "/short/" : "/long/") + form;
                benchmark::RegisterBenchmark(name.c_str(), bench_filter,
                                             filter_case{rate, use_short, form})
                    ->Unit(benchmark::kMillisecond);
            }
        }
    return true;
}

// NOLINTNEXTLINE(cert-err58-cpp): a name that does not fit in memory may end the program
[[maybe_unused]] const bool registered = register_benchmarks();

} // namespace
