// udbg_symbols.h - where the debug shell finds names: the process paths, the symbol
// list files beside the program and the shared libraries the program depends on.
//
// Symbol list files (made at build time, installed beside the program):
//   <program>_symbol_fun   "<address> <name>"          address in hexadecimal
//   <program>_symbol_obj   "<address> <size> <name>"   address and size in hexadecimal
// Addresses are the link-time ones; the program's load offset is added at run time,
// so a position-independent program is served as well as one at a fixed address.
#pragma once

// The process paths, filled by udbg_init_process_var.
struct udbg_paths {
    char bin_file[128];      // "/usr/sbin/<proc>" or "/usr/bin/<proc>"
    char fun_file[128];      // "<dir>/<proc>_symbol_fun"
    char obj_file[128];      // "<dir>/<proc>_symbol_obj"
    char tmp_sym_file[128];  // "/tmp/~udbg_sym_file.<proc>"
    char so_file[128];       // "/tmp/~udbg_so_file.<proc>"
    char trace_file[128];    // "/tmp/trace.log.<proc>"
};

// Finds the process's own name and program file and fills the paths. 0, or -1 with a
// message when either cannot be found.
int udbg_init_process_var() noexcept;

// The paths in use (all empty until udbg_init_process_var succeeded).
const udbg_paths &udbg_get_paths() noexcept;

// Builds the list of shared libraries the program depends on (up to 32), through ldd.
void udbg_load_library_list() noexcept;

// Points the lookups at other symbol lists and a scratch file (tests use the lists made
// for their own binary inside the build tree). Null leaves a path as it is.
void udbg_symbols_set_paths(const char *fun_file, const char *obj_file,
                            const char *tmp_sym_file) noexcept;

// True when name is one the shell accepts: a letter or "_", then letters, digits, "_".
bool udbg_name_valid(const char *name) noexcept;

extern "C" {

// Address of a function of the program (symbol list) or of a loaded shared library;
// 0 when not found.
unsigned long udbg_get_fun_addr(const char *name) noexcept;

// Address of a variable of the program (symbol list) and its size in *len; 0 when
// not found.
unsigned long udbg_get_var_addr(const char *name, int *len) noexcept;

}  // extern "C"
