// gwa_util_file.h - whole files, the firmware version file, and all descriptors at once.
//
// Threads: any.
// Results: 0, or -1 after the reason has been logged, unless said otherwise.
#pragma once

#include <cstddef>

constexpr size_t GWA_FIRMWARE_VALUE_SIZE = 32;  // visible length; a buffer holds a terminator more
using gwa_firmware_value = char[GWA_FIRMWARE_VALUE_SIZE + 1];
// Reads the firmware version file. Values that are not there stay as they are. 0 when all three
// keys were read, else -1.
int gwa_fwver_get(const char* path, gwa_firmware_value& version, gwa_firmware_value& component,
                  gwa_firmware_value& terminal);

// Opens a file, emptied or new and then for everybody to read, for writing; the descriptor is the
// caller's. -1: errno says why, and that it may be another user's trap (gwa_util_open.h) is logged.
// Neither this nor a write to it ever waits, should a pipe without a reader bear the name.
int gwa_file_replace(const char* path);
// Replaces a file's content. 0, or -1 when it cannot be opened.
int gwa_file_write(const char* path, const void* data, size_t length);

// Closes every descriptor up to the limit, for a child that is about to execute. Makes only
// async-signal-safe calls and is quick under any limit. Always 0.
int gwa_close_all_fds();
