// uci_access.h - one-shot reads and writes of single UCI options and sections.
//
// Every operation opens its own UCI context, does one read or one write and
// frees the context again; nothing is cached, so a value written by another
// process is seen by the next read. For a configuration directory D the save
// directory (uncommitted changes) is always "D.uci". Messages go through the
// error switch unless a function says otherwise. Results are 0 / -1, or a
// pointer / null.
#pragma once

#include <cstddef>

// Not every device's <uci.h> carries C++ guards of its own; nesting is harmless.
extern "C" {
#include <uci.h>
}

extern "C" {

// Sets ctx's configuration directory to path and its save directory to
// "<path>.uci" (cut at 511 characters). package only has to be non-null.
// Any null argument: "uci ctx or path is NULL!", -1.
int init_specifyUciPath(struct uci_context *ctx, const char *package, const char *path) noexcept;

// Frees ctx when it is non-null. Returns 0.
int freeUciContext(struct uci_context *ctx) noexcept;

// The value of the plain string option optName of section; null for a list
// option, a missing option or a null argument (the last with a message).
// The value belongs to ctx.
const char *getUciLookupOptionStr(struct uci_context *ctx, struct uci_section *section,
                                  const char *optName) noexcept;

// Loads package from ctx's configuration directory, unloading a copy already
// loaded in ctx first, and returns it; null with a message on failure.
struct uci_package *initConfigPackage(struct uci_context *ctx, const char *package) noexcept;

// Loads package (as initConfigPackage) and returns its section named section,
// or null. A missing section is not reported.
struct uci_section *getUciSection(struct uci_context *ctx, const char *package,
                                  const char *section) noexcept;

// Reads package.section.option from the system's configuration directory into
// dst. A value longer than dst_size - 1 is cut; dst is always NUL-terminated.
// Returns 0, or -1 (dst untouched) with a message.
int getUciOption(const char *package, const char *section, const char *option, char *dst,
                 size_t dst_size) noexcept;

// The same read from confdir. A missing section or option is reported under the
// debug switch, since callers treat it as "use the default".
int getUciOptionSpecifyPath(const char *package, const char *section, const char *option,
                            char *dst, const char *confdir, size_t dst_size) noexcept;

// Creates the named section package.section with the given type in confdir, or
// retypes it; saved and committed at once. The package file must exist.
// Returns 0, or -1 with a message and the configuration file unchanged.
int setUciSectionSpecifyPath(const char *package, const char *section, const char *type,
                             const char *confdir) noexcept;

// Sets option of the existing section package.section in confdir to value;
// saved and committed at once. Returns 0, or -1 with a message.
int setUciOptionSpecifyPath(const char *package, const char *section, const char *option,
                            const char *value, const char *confdir) noexcept;

}  // extern "C"
