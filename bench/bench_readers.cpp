// The readers: the DSD feeder with each container in each form of the stream, with a ring that
// always has room, and the WAV reader alone. x_realtime is seconds of sound (DSD256, or 352.8 kHz
// PCM) per second of work.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "dsf.h"
#include "limits.h"
#include "make_files.h"
#include "sonivane.h"

namespace
{

constexpr uint32_t ring_bytes = 1572864;
constexpr uint32_t dsd256 = 11289600;             // Hz
constexpr size_t channel_bytes = size_t{4} << 20; // of one channel in a file: 3 s

struct container_case {
    const char *name;
    bytes (*make)();
};
constexpr container_case containers[] = {
    {"dsf",
     [] {
         return make_dsf(
             {.rate = dsd256, .left = noise(1, channel_bytes), .right = noise(2, channel_bytes)});
     }},
    {"dsdiff", [] { return make_dsdiff({.rate = dsd256, .frames = noise(3, 2 * channel_bytes)}); }},
    {"wsd", [] { return make_wsd({.rate = dsd256, .frames = noise(4, 2 * channel_bytes)}); }},
};

struct form_case {
    const char *name;
    snd_pcm_format_t format;
    int32_t i2s;
};
constexpr form_case forms[] = {
    {"native", SND_PCM_FORMAT_DSD_U32_BE, flag_off},
    {"dop_4_bytes", SND_PCM_FORMAT_S32_LE, flag_off},
    {"dop_3_bytes", SND_PCM_FORMAT_S24_3LE, flag_off},
    {"i2s", SND_PCM_FORMAT_S32_LE, flag_on},
};

soundfile records[2]; // the file and the end sentinel

void open_file(const bytes &content)
{
    static const std::string path = make_directory() + "/sound";
    write_file(path, content);
    records[0].path = const_cast<char *>(path.c_str());
    if (open_soundfile(&records[0]) != 0) std::abort();
}

void set_up(const form_case &form)
{
    file_list = stream_file = feeding_file = records;
    stream_end = &records[1];
    records[0].next = &records[1];
    records[1].index = -1;
    output_format = form.format;
    i2s_mode = form.i2s;
    const int width = snd_pcm_format_physical_width(form.format);
    ringbuffer_free(&ring);
    ring = ringbuffer_new(ring_bytes, static_cast<uint32_t>(width / 4), 1);
}

void take_all()
{
    store_release(ring->bytes_sent, load_acquire(ring->bytes_put));
}

void feed_dsd(benchmark::State &state, const container_case &container, const form_case &form)
{
    open_file(container.make());
    set_up(form);
    uint64_t played = 0; // bytes of the files
    for (auto _ : state) {
        dsd_feeder();
        take_all();
        if (feeding_file->index >= 0) continue;
        played += 2 * channel_bytes;
        feeding_file = records;
        if (open_soundfile(&records[0]) != 0) std::abort();
    }
    played += static_cast<uint64_t>(std::ftell(records[0].fp));
    std::fclose(records[0].fp);
    state.SetBytesProcessed(static_cast<int64_t>(played));
    state.counters["x_realtime"] =
        benchmark::Counter(static_cast<double>(played) * 4 / dsd256, benchmark::Counter::kIsRate);
    state.counters["limit"] = read_rate(records[0].path) * 4 / dsd256;
}

void read_wav(benchmark::State &state)
{
    open_file(make_wav({.data = noise(5, 2 * channel_bytes)}));
    const soundfile &file = records[0];
    const off_t start = ftello(file.fp);
    std::array<uint8_t, 3072> to;
    int64_t played = 0;
    for (auto _ : state) {
        const int32_t got = read_samples(&records[0], to.data(), to.size());
        benchmark::DoNotOptimize(to);
        if (got > 0) {
            played += got;
            continue;
        }
        records[0].bytes_left = file.data_bytes;
        fseeko(file.fp, start, SEEK_SET);
    }
    std::fclose(file.fp);
    state.SetBytesProcessed(played);
    state.counters["x_realtime"] = benchmark::Counter(
        static_cast<double>(played) / 4 / oversampled_rate, benchmark::Counter::kIsRate);
    state.counters["limit"] = read_rate(file.path) / 4 / oversampled_rate;
}

[[maybe_unused]] const bool registered = [] {
    for (const container_case &container : containers)
        for (const form_case &form : forms)
            benchmark::RegisterBenchmark(
                (std::string(container.name) + '/' + form.name).c_str(),
                [&](benchmark::State &state) { feed_dsd(state, container, form); });
    benchmark::RegisterBenchmark("wav_read/S16", read_wav);
    return true;
}();

} // namespace
