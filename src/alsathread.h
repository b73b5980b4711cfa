// The device: choice of the stream's form, negotiation and set-up, and the thread that moves the
// ring into it.
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdint>

// Opens the device once to learn output_format, output_rate, i2s_mode and the byte widths of
// file_list[0], and closes it. Result: -1; every failure is fatal. A stop leaves all of them as
// they were. Main thread, before the output thread exists.
int32_t sound_probe();

// Prints the line that tells the stream's form and frequency on standard error. Main thread, after
// sound_probe.
void stream_banner();

// Tells a front-end what the stream is, once the ring is made. Main thread.
void tell_stream();

// Names device 0 of the last card in device_name and on standard output. -1, or 0 when there is no
// card. Main thread.
int32_t find_last_card();

// Forgets the stream, once its output thread has ended: what sound_probe settles is as before the
// first one. Main thread.
void forget_stream();

// Main has put frames into the ring, or will put no more: an output thread that waits for that goes
// on. Main thread.
void sound_was_fed();

// What the output thread is at: main is woken when that changes. Any thread.
enum class sound_phase { opening, silence, sound, waiting };
sound_phase phase_of_sound();

// The time in microseconds that silence, ring and device can still last. Before the device is open,
// and in a break, all of the silence is still to come, and the buffer of the device is taken to be
// as large as it will be asked for. Main thread.
int64_t sound_left();

// How often the sound broke off to wait for the ring and the device, and began again, both counted.
// Written by the output thread, which then wakes main; read by main.
extern std::atomic<int32_t> sound_breaks;
inline bool sound_waits(int32_t breaks)
{
    return breaks % 2 != 0;
}

// The output thread: opens the device for good, sends a second of silence, then the ring. Ends when
// the ring is empty and nothing more comes, or stop_output is set.
void *output_thread(void *unused);
