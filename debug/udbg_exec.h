// udbg_exec.h - runs one debug shell command line: output redirection (self, reset),
// function calls, variable assignments and reads by name.
#pragma once

// Parses and executes line; everything it has to say goes to standard output (which
// `self` and `reset` redirect). A malformed line prints the syntax error and runs
// nothing. Returns 0 when the command ran, -1 otherwise.
int udbg_cmd_exec(const char *line) noexcept;

// Makes path the process's standard output and standard error, both unbuffered.
// 0, or -1 (nothing changed) when it cannot be opened.
int udbg_redirect_output(const char *path, bool create) noexcept;
