// The speed of the oversampling filter, as a multiple of real time, and the machine's limit for
// separate products and sums of the same vector width.
//
// Each line has x_real_time, the filter's speed; peak, the limit in the same unit; and share, the
// quotient of both.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

// The scalar loop is compiled without auto-vectorization, because it is measured as the scalar
// case.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC push_options
#pragma GCC optimize("no-tree-vectorize")
#include "scalar_filter.h"
#pragma GCC pop_options
#else
#include "scalar_filter.h"
#endif

#include "common.h"
#include "limits.h"

#if defined(__x86_64__)
#define VECTOR_REGISTER(v) "+x"(v)
#elif defined(__aarch64__)
#define VECTOR_REGISTER(v) "+w"(v)
#else
#define VECTOR_REGISTER(v) "+m"(v)
#endif

namespace
{

#define VECTOR_KERNEL "../bench/peak_kernel.inc"
#include "vector_widths.inc"

// The vector widths of the filter and the limit for each of them. vector_floats 1 is the scalar
// loop.
struct filter_width {
    int32_t vector_floats;
    const char *name;
    float (*run_peak)(int64_t);
};
// Versions of clang-format format a table with an #if differently.
// clang-format off
constexpr auto widths = std::to_array<filter_width>({
    {1, "scalar", vectors_128::run_peak},
    {4, "128", vectors_128::run_peak},
#if defined(__x86_64__)
    {8, "256", vectors_256::run_peak},
#endif
});
// clang-format on

struct filter_case {
    int32_t source_rate;
    int32_t use_short;
    filter_width width;
};

double products_a_frame(const filter_case &c)
{
    const auto taps44 = c.use_short != 0 ? set_44k_short.tap_count : set_44k_normal.tap_count;
    const auto taps48 = c.use_short != 0 ? set_48k_short.tap_count : set_48k_normal.tap_count;
    if (c.source_rate == 44100) return 2.0 * (taps44 + 8);
    return 2.0 * (taps48 + 4) * 352800 / c.source_rate;
}

constexpr size_t noise_size = 8192; // a power of two, so that the measured loop wraps cheaply

std::vector<float> noise_floats()
{
    std::vector<float> noise(noise_size);
    uint32_t state = 1;
    for (float &x : noise) {
        state = state * 1664525 + 1013904223;
        x = static_cast<float>(static_cast<int32_t>(state)) * 0x1p-31F;
    }
    return noise;
}

// Runs the filter and the loop that measures the processor's limit alternately, until Google
// Benchmark stops. The slices are so short that both run at the same clock rate and with the same
// load from other programs. Only the fastest slices of each are used, because the others were
// disturbed.
template <typename frame_runner>
void compare_with_peak(benchmark::State &state, const filter_case &c, frame_runner run)
{
    constexpr double slice_seconds = 7e-4;
    // A multiple of the number of calls that use up a tile at 44100 Hz, for every vector width.
    constexpr int64_t tile_calls = 12;
    const std::vector<float> noise = noise_floats();
    size_t at = 0;
    const auto run_frames = [&](int64_t frames) {
        for (int64_t i = 0; i < frames; ++i, at = (at + 2) % noise_size) run(&noise[at]);
    };
    const auto run_peak = [&](int64_t rounds) {
        benchmark::DoNotOptimize(c.width.run_peak(rounds));
    };
    const int64_t frames = amount_for(slice_seconds, tile_calls, run_frames);
    const int64_t rounds = amount_for(slice_seconds, 1000, run_peak);
    std::vector<double> ours, limits;
    for (auto _ : state) {
        limits.push_back(thread_seconds([&] { run_peak(rounds); }));
        ours.push_back(thread_seconds([&] { run_frames(frames); }));
    }
    // The limit of the scalar loop (width 1) is that of 128-bit vectors divided by their lanes.
    const double products =
        static_cast<double>(rounds * vectors_128::round_vectors) * c.width.vector_floats;
    const double speed = static_cast<double>(frames) / c.source_rate / best_few(ours);
    const double peak = products / products_a_frame(c) / c.source_rate / best_few(limits);
    state.counters["x_real_time"] = speed;
    state.counters["peak"] = peak;
    state.counters["share"] = speed / peak;
}

void bench_scalar(benchmark::State &state, const filter_case &c)
{
    scalar_filter filter = make_scalar_filter(c.use_short != 0 ? set_44k_short : set_44k_normal,
                                              c.use_short != 0 ? set_48k_short : set_48k_normal);
    std::vector<float> output;
    compare_with_peak(state, c, [&](const float *frame) {
        output.clear();
        scalar_filter_run(filter, c.source_rate, {frame[0], frame[1]}, output);
        benchmark::DoNotOptimize(output.data());
    });
}

void bench_width(benchmark::State &state, const filter_case &c)
{
    if (!coeff_filter_take_width(c.width.vector_floats)) {
        state.SkipWithError("this machine has no such vectors");
        return;
    }
    coeff_filter_init(c.source_rate, 352800, 2, c.use_short);
    compare_with_peak(state, c, [](const float *frame) {
        int32_t count = 0;
        benchmark::DoNotOptimize(coeff_filter_run(frame, &count));
    });
    coeff_filter_take_width(0);
}

// The time that -os adds to the start of the player.
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
            for (const filter_width &width : widths) {
                const auto name = "filter/" + std::to_string(rate) +
                                  (use_short != 0 ? "/short/" : "/long/") + width.name;
                benchmark::RegisterBenchmark(name.c_str(),
                                             width.vector_floats == 1 ? bench_scalar : bench_width,
                                             filter_case{rate, use_short, width});
            }
        }
    return true;
}

// NOLINTNEXTLINE(cert-err58-cpp): a name that does not fit in memory may end the program
[[maybe_unused]] const bool registered = register_benchmarks();

} // namespace
