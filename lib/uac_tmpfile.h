// uac_tmpfile.h - files and folders the daemon keeps in a folder every user may write (/tmp).
//
// Anybody may create a name there first: a link to a file of root's, a file open to all,
// a folder of their own. So a scratch file is always made afresh and exclusively, never
// through a link, and a file or folder found there is trusted only when it is the
// daemon's: its own user's, not writable by group or others, the kind expected, and (for
// files) with one name. The file calls are async-signal-safe, so a crash handler may use them.
#pragma once

#include <stddef.h>

#include "uac_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

// Removes whatever stands at path (not a folder) and creates an empty file there
// exclusively, without following a link, readable and writable by the owner only.
// A descriptor opened read-write, or -1 with errno (EEXIST: somebody made the name again
// between the removal and the create; EISDIR: a folder stands there).
int uac_tmp_create(const char *path) UAC_NOEXCEPT;

// Whether fd is a file of the daemon's (regular, its user's, one link, no write for group
// or others) and, with a path, still the file at that path (a program that wrote to the
// path wrote into fd's file). 1 or 0.
int uac_tmp_is_ours(int fd, const char *path) UAC_NOEXCEPT;

// Opens path for appending without following a link. A file that is not the daemon's
// (uac_tmp_is_ours) is removed and, like a missing one, made anew exclusively when create
// is set. A descriptor, or -1 with errno (ELOOP for a link, EPERM for a file of somebody
// else's when create is not set). *replaced, when given, says whether an untrusted file or
// link was removed.
int uac_tmp_open_append(const char *path, int create, int *replaced) UAC_NOEXCEPT;

// Makes sure a folder at path, if there is one, is the daemon's: its user's and not
// writable by group or others. Anything else standing there (a folder of another user's
// or open to all, a file, a link) is removed, a folder with all it holds, links not
// followed. 0: nothing there or the daemon's folder; 1: something was removed; -1 with
// errno: it could not be removed.
int uac_tmp_dir_claim(const char *path) UAC_NOEXCEPT;

#ifdef __cplusplus
}
#endif
