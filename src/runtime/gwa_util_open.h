// gwa_util_open.h - opens the files at our fixed names. Some are in /tmp, where every user of the
// box can put something first: a link, so that we write into its target, or a file or pipe of his
// (exception 71).
//
// A folder is ours when it belongs to us or to root and nobody else may write to it. There a name
// leads wherever it leads: it is the operator who has put it there. In any other folder
//   - a link is followed only if it is ours or root's, and no other user can exchange it (sticky),
//   - what has a second name (a hard link) is refused,
//   - nothing is written to what belongs to neither us, root, nor the owner of the folder.
// Newer kernels have such rules too (fs.protected_symlinks and its like), but a box may have an old
// one, or have them off. Folders on the way there are taken as they are.
//
// Threads: any. Logs nothing: the log itself is opened with it.
#pragma once

#include <sys/types.h>

// The mask of the process takes from these, and never adds to them.
constexpr mode_t GWA_MODE_FOR_READERS = 0644;  // what other programs on the box may read
constexpr mode_t GWA_MODE_PRIVATE = 0640;      // what has users' requests in it

// Opens `path` as open() does, with O_CREAT and O_TRUNC too, and never waits for a pipe; the
// descriptor is the caller's, and closed when another program is executed. -1: errno says why,
// EPERM when a rule from above has refused what is there, which has not been changed then.
int gwa_open(const char* path, int flags, mode_t mode = 0);

// Lets our group speak to a socket that we have made at `path`, unless the mask of the process has
// taken the group's rights away. The others have none. Does nothing when something else is there.
void gwa_socket_admit_group(const char* path);
