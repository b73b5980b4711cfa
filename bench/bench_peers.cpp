// Two well-known resamplers with the input of -os, if their libraries are installed. Their methods
// differ from the player's and from each other. So this compares cost, not quality.
#include <benchmark/benchmark.h>
#ifdef HAVE_SOXR
#include <soxr.h>
#endif
#ifdef HAVE_SAMPLERATE
#include <samplerate.h>
#endif

#include <string>
#include <vector>

#include "limits.h"

namespace
{

#if defined(HAVE_SOXR) || defined(HAVE_SAMPLERATE)

constexpr double output_rate = 352800; // Hz

std::vector<float> noise_seconds(int rate, int seconds)
{
    std::vector<float> noise(static_cast<size_t>(rate) * 2 * static_cast<size_t>(seconds));
    uint32_t state = 1;
    for (float &x : noise) {
        state = state * 1664525 + 1013904223;
        x = static_cast<float>(static_cast<int32_t>(state)) * 0x1p-32F;
    }
    return noise;
}

// Times convert(in, frames of in, out, frames of room in out), which converts one second per call.
template <typename conversion> void time_peer(benchmark::State &state, int rate, conversion convert)
{
    const std::vector<float> in = noise_seconds(rate, 1);
    std::vector<float> out(static_cast<size_t>(output_rate) * 2 + 65536);
    double best = 1e9;
    for (auto _ : state)
        best = std::min(best, best_seconds(1, [&] {
                            convert(in.data(), in.size() / 2, out.data(), out.size() / 2);
                        }));
    state.counters["x_real_time"] = 1 / best;
}

#endif

#ifdef HAVE_SOXR
void bench_soxr(benchmark::State &state, int rate, unsigned long recipe)
{
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(recipe, 0);
    const soxr_runtime_spec_t one_thread = soxr_runtime_spec(1);
    soxr_t soxr = soxr_create(rate, output_rate, 2, nullptr, &io, &quality, &one_thread);
    time_peer(state, rate, [&](const float *in, size_t frames, float *out, size_t room) {
        size_t done = 0;
        soxr_process(soxr, in, frames, nullptr, out, room, &done);
    });
    soxr_delete(soxr);
}
#endif

#ifdef HAVE_SAMPLERATE
void bench_samplerate(benchmark::State &state, int rate)
{
    int error = 0;
    SRC_STATE *src = src_new(SRC_SINC_BEST_QUALITY, 2, &error);
    time_peer(state, rate, [&](const float *in, size_t frames, float *out, size_t room) {
        SRC_DATA data{};
        data.data_in = in;
        data.data_out = out;
        data.input_frames = static_cast<long>(frames);
        data.output_frames = static_cast<long>(room);
        data.src_ratio = output_rate / rate;
        src_process(src, &data);
    });
    src_delete(src);
}
#endif

[[maybe_unused]] const bool registered = [] {
    for (const int rate : {44100, 48000}) {
        [[maybe_unused]] const std::string name = "peer/" + std::to_string(rate) + "/";
#ifdef HAVE_SOXR
        benchmark::RegisterBenchmark((name + "soxr HQ").c_str(), bench_soxr, rate, SOXR_HQ);
        benchmark::RegisterBenchmark((name + "soxr VHQ").c_str(), bench_soxr, rate, SOXR_VHQ);
#endif
#ifdef HAVE_SAMPLERATE
        benchmark::RegisterBenchmark((name + "samplerate best").c_str(), bench_samplerate, rate);
#endif
    }
    return true;
}();

} // namespace
