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

// Main has put frames into the ring, or will put no more: an output thread that waits for that goes
// on. Main thread.
void sound_was_fed();

// The time in microseconds that silence, ring and device can still last; below 0 while the output
// thread has not opened the device, and in a break. Main thread.
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
