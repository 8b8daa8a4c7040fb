// proc_name.h - the name of a process, as the kernel reports it in /proc.
#pragma once

#include <cstddef>

extern "C" {

// Reads the first line of "/proc/<pid>/status" ("Name:\t<comm>") and copies the
// name into name (at most size - 1 characters, always NUL-terminated). Returns 0,
// or -1 when name is null, size is 0, the file cannot be read or has no name;
// name is left untouched on -1. The kernel cuts the name at 15 characters.
int get_proc_name_by_pid(int pid, char *name, size_t size) noexcept;

}  // extern "C"
