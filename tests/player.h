// The functions of src/sonivane.cpp that the player itself reaches through its slots or from main,
// and that tests, benchmarks and fuzz targets call directly.
#pragma once

#include "sonivane.h"

int32_t open_soundfile(soundfile *file);
int32_t pcm_feeder();
int32_t dsd_feeder();
void status_update(soundfile *file);
