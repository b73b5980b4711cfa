// The shared record and the player state.
//
// The player has one play list and one stream. Two threads work on them: the main thread reads
// files and fills the ring, the output thread empties the ring into the device. Next to each
// variable that both touch stands who writes it and who reads it; all others belong to the main
// thread. Shared words are stored with store_release and read with load_acquire (util.h).
//
// A flag is a signed 32-bit word, flag_off or flag_on, tested for zero only.
#pragma once

#include <alsa/asoundlib.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "ringbuffer.h"

inline constexpr int32_t flag_off = 0;
inline constexpr int32_t flag_on = -1;

// Units of soundfile::position to the second, and the frame rate of oversampled PCM in Hz.
inline constexpr int32_t position_units_per_second = 352800;
inline constexpr int32_t oversampled_rate = 352800;

// Channels of every stream, whatever the file holds.
inline constexpr int32_t stream_channels = 2;

// wave_format::wBitsPerSample of a DSD file; any higher value means PCM.
inline constexpr int16_t dsd_bits_per_sample = 1;

// A DSD reader fills an incomplete last group of dsd_group_bytes with this byte, a short stretch of
// DSD silence.
inline constexpr uint8_t dsd_fill_byte = 0x96;
inline constexpr int32_t dsd_group_bytes = 8;

// The parser that took a file.
enum container_kind : int32_t {
    container_dsf = 0,
    container_dsdiff = 1,
    container_wsd = 2,
    container_wav = 3,
};

// The body of a WAV "fmt " chunk, extended form included. It describes every file, DSD too: for
// those nSamplesPerSec is the bit rate of one channel in Hz.
struct wave_format {
    int16_t wFormatTag;
    int16_t nChannels;
    int32_t nSamplesPerSec; // frames (PCM) or bits of a channel (DSD) per second
    int32_t nAvgBytesPerSec;
    int16_t nBlockAlign;    // bytes of a frame
    int16_t wBitsPerSample; // stored width in bits, or dsd_bits_per_sample
    int16_t cbSize;         // bytes of the extension
    uint16_t wValidBitsPerSample;
    uint32_t dwChannelMask;
    std::array<uint8_t, 16> SubFormat;
    std::array<uint8_t, 4> rest;
};
static_assert(sizeof(wave_format) == 44);
static_assert(offsetof(wave_format, nSamplesPerSec) == 4);
static_assert(offsetof(wave_format, nBlockAlign) == 12);
static_assert(offsetof(wave_format, cbSize) == 16);
static_assert(offsetof(wave_format, dwChannelMask) == 20);
static_assert(offsetof(wave_format, SubFormat) == 24);

// One entry of the play list. Fresh: all zero but path. Main thread, where no other is named.
struct soundfile {
    std::FILE *fp;         // the open stream; stale after a close, until the next open
    int32_t sample_format; // SND_PCM_FORMAT_* of the stored samples; 0 for DSD
    int32_t sample_bytes;  // bytes of one stored sample; 1 for DSD
    // Bytes of a sample and of a frame on the device. Valid in file_list[0] only.
    std::atomic<int32_t> out_sample_bytes; // written by sound_open on either thread, read by main
    std::atomic<int32_t> out_frame_bytes;  // as above
    int32_t channels;                      // channels stored in the file
    int32_t block_bytes;                   // DSF: bytes of one per-channel block
    std::array<uint8_t, 8> channel_map; // DSDIFF, WSD: places of left [0] and right [1] in a frame
    int32_t container;                  // container_kind
    std::atomic<int64_t> position;      // played, 1/352800 s; written by the output thread
    int64_t
        bytes_left; // PCM: bytes of the two played channels still to feed; DSD: bytes per channel
    int64_t data_bytes; // as bytes_left, constant once open; gives the banner its total time
    char *path;         // owned, from malloc; null in the end sentinel
    wave_format wave;
    int32_t index; // place in the play list from 0; -1 in the end sentinel
    uint32_t dsf_version;
    uint32_t dsf_format_id;
    uint32_t dsf_channel_type;
    uint32_t dsf_channel_num;
    uint32_t dsf_sampling_frequency; // Hz
    uint32_t dsf_bits_per_sample;
    uint64_t dsf_sample_count; // bits per channel
    uint32_t dsf_block_size;   // bytes per channel
    int64_t dsf_bytes_left;    // bytes per channel still to read
    soundfile *next;           // the following element of file_list; null in the end sentinel
};

// Sets the length of a DSD file from its header's bits of one channel: the bytes to feed are whole
// ones, a begun one counts in the time that the banner tells. Main thread.
inline void set_dsd_length(soundfile *file, int64_t bits)
{
    file->bytes_left = bits / 8;
    file->data_bytes = bits / 8 + (bits % 8 > 0 ? 1 : 0);
}

// The block that an external controller shares with the player.
struct controller_block {
    std::atomic<int32_t> controller_pid;   // process to signal; written by the controller
    std::atomic<int32_t> controller_state; // non-zero: the last stream was announced as I2S
};
static_assert(sizeof(controller_block) == 8);

// The active feeder. Result: 0 when nothing could be done now, else non-zero.
using feeder_slot = int32_t (*)();
// The active reader: stores at most count bytes; result: bytes stored, below 1 at the file's end.
using reader_slot = int32_t (*)(soundfile *file, uint8_t *bytes, int32_t count);

// The play list: file_count records and an end sentinel. Never moved.
extern soundfile *file_list;
extern int32_t file_count;
extern soundfile *feeding_file;
extern std::atomic<soundfile *> playing_file; // written by main at start, then by the output thread

extern feeder_slot fill_buffer;
extern reader_slot read_samples;
extern ringbuffer *ring;

extern std::atomic<int32_t> interrupted; // set by SIGINT and fatal reports; read by main
extern std::atomic<int32_t> stop_output; // set by either thread; read by both

// The stream, as sound_open settles it; the output thread repeats main's values.
extern std::atomic<int32_t> output_format; // SND_PCM_FORMAT_*
extern std::atomic<int32_t> output_rate;   // frames per second
extern std::atomic<int32_t> dsd_stream;    // 1: the device gets DSD in any form
extern std::atomic<int32_t> i2s_mode;      // DSD goes as raw bit pairs in a PCM word
extern snd_pcm_t *pcm;                     // main while probing, then the output thread

// Options of the command line.
extern std::array<char, 1024> device_name; // always terminated
extern int32_t oversample;
extern int32_t short_filter;
extern int32_t left_cut;
extern int32_t right_cut;
extern int32_t silent;
extern int32_t args_used;      // argv entries taken by options, argv[0] included
extern uint64_t buffer_bytes;  // wanted size of the ring; 0: not given
extern const char *mode_label; // end of the status line; may be null

extern controller_block *controller; // null when there is none
