// devid.h - the box's device library, as far as gwad uses it. A box brings its own; this stand-in
// serves machines that have none.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Fills `buffer` with a stable, terminated id of this box: the machine id file where there is one,
// else the first hardware address that is not the loopback's. 0, or -1 when there is neither.
int create_boxid(char* buffer, int size);

#ifdef __cplusplus
}
#endif
