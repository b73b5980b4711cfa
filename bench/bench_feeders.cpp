// The PCM feeder's decode-and-put loop, with a ring that always has room: the cost of converting a
// file's bytes to the device's format and storing them in the ring. bytes_per_second counts the
// file's bytes.
#include <benchmark/benchmark.h>

#include "limits.h"
#include "sonivane.h"

// Replaces the C library's function, so that no pause of a feeder is measured.
extern "C" int usleep(unsigned)
{
    return 0;
}

namespace
{

constexpr uint32_t ring_bytes = 1572864;
constexpr int32_t staging_bytes = 3072; // bytes of the file that one call decodes

void set_up_ring(int32_t device_format)
{
    static soundfile records[2];
    const int32_t width =
        snd_pcm_format_physical_width(static_cast<snd_pcm_format_t>(device_format));
    file_list = stream_file = feeding_file = records;
    stream_end = &records[1];
    records[0].bytes_left = INT64_MAX;
    records[0].out_sample_bytes = width / 8;
    records[0].out_frame_bytes = width / 4;
    records[1].index = -1;
    output_format = device_format;
    ringbuffer_free(&ring);
    ring = ringbuffer_new(ring_bytes, static_cast<uint32_t>(width / 4), 1);
}

void take_all()
{
    store_release(ring->bytes_sent, load_acquire(ring->bytes_put));
}

// A reader that leaves the buffer as it is, so that no reader's cost is measured.
int32_t read_nothing(soundfile *, uint8_t *, int32_t count)
{
    return count;
}

struct pcm_case {
    const char *name;
    int32_t source;
    int32_t sample_bytes;
    int32_t device;
};

void feed_pcm(benchmark::State &state, const pcm_case &c)
{
    set_up_ring(c.device);
    feeding_file->sample_format = c.source;
    feeding_file->sample_bytes = c.sample_bytes;
    feeding_file->wave.nBlockAlign = static_cast<int16_t>(2 * c.sample_bytes);
    read_samples = read_nothing;
    for (auto _ : state) {
        pcm_feeder();
        take_all();
    }
    state.SetBytesProcessed(state.iterations() * staging_bytes);
    // The limit is the speed of memcpy for the bytes that the device gets.
    const auto samples = static_cast<size_t>(staging_bytes / c.sample_bytes);
    const size_t device_bytes = samples * static_cast<size_t>(feeding_file->out_sample_bytes);
    state.counters["limit"] =
        copy_rate(device_bytes) * staging_bytes / static_cast<double>(device_bytes);
}

[[maybe_unused]] const bool registered = [] {
    static constexpr pcm_case cases[] = {
        {"pcm/S16_to_S32", SND_PCM_FORMAT_S16_LE, 2, SND_PCM_FORMAT_S32_LE},
        {"pcm/S16_to_S16", SND_PCM_FORMAT_S16_LE, 2, SND_PCM_FORMAT_S16_LE},
        {"pcm/S24_3_to_S32", SND_PCM_FORMAT_S24_3LE, 3, SND_PCM_FORMAT_S32_LE},
        {"pcm/S24_3_to_S24", SND_PCM_FORMAT_S24_3LE, 3, SND_PCM_FORMAT_S24_LE},
        {"pcm/S32_to_S24_3", SND_PCM_FORMAT_S32_LE, 4, SND_PCM_FORMAT_S24_3LE},
        {"pcm/FLOAT_to_S32", SND_PCM_FORMAT_FLOAT_LE, 4, SND_PCM_FORMAT_S32_LE},
    };
    for (const pcm_case &c : cases) benchmark::RegisterBenchmark(c.name, feed_pcm, c);
    return true;
}();

} // namespace
