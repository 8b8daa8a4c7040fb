// uci_store.h - records of the configuration library and the helpers its
// source files share: intrusive lists, allocation, name rules, parse errors.
//
// Records are the C structs of <uci.h>, allocated with calloc and freed with
// free(). Allocation failure throws std::bad_alloc; the public functions turn
// it into UCI_ERR_MEM, so nothing thrown ever reaches a C caller.
#pragma once

#include <uci.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

// Details of the last parse error, reported by uci_perror with UCI_ERR_PARSE. The public
// header leaves the struct opaque, as the device's does; only the library reads it.
struct uci_parse_context
{
	const char *reason;
	int line;
	int byte;
};

namespace uci_host {

// Lists: circular, with a head node; an unlinked node points at itself.
void list_init(uci_list *l);
void link_between(uci_list *n, uci_list *prev, uci_list *next);
void list_add_tail(uci_list *head, uci_list *n);
void list_add_after(uci_list *pos, uci_list *n);
void list_unlink(uci_list *n);

struct Free {
    void operator()(void *p) const noexcept { free(p); }
};
using CStr = std::unique_ptr<char, Free>;

CStr make_str(const char *s);          // copy of s ("" for null)
CStr make_str_or_null(const char *s);  // null stays null

template <typename T>
T *alloc_zeroed()
{
    void *m = calloc(1, sizeof(T));
    if (!m)
        throw std::bad_alloc();
    return static_cast<T *>(m);
}

const char *str_or_empty(const char *s);
bool same(const char *a, const char *b);  // both non-null and equal

// Name rules: section and option names are letters, digits and '_'; types
// any printable character but space; packages also '-' and the like.
bool valid_name(const char *s);
bool valid_type(const char *s);
bool valid_package(const char *s);

uci_element *new_item(uci_option *o, const char *value);
void free_item(uci_element *e);
// New options are linked after `after`, or appended when it is null.
uci_option *new_string_option(uci_section *s, const char *name, const char *value, uci_list *after);
uci_option *new_list_option(uci_section *s, const char *name, uci_list *after);
void free_option(uci_option *o);
void append_list_item(uci_section *s, uci_option *o, const char *name, const char *value);
// Appends a section; a null name makes it anonymous with a generated name.
uci_section *new_section(uci_package *p, const char *type, const char *name);
void free_section(uci_section *s);
uci_section *find_section(uci_package *p, const char *name);
uci_option *find_option(uci_section *s, const char *name);

void add_delta(uci_list *l, uci_command cmd, const char *section, const char *option,
               const char *value);
void free_delta_list(uci_list *l);

void free_package(uci_package *p);
struct PackageFree {
    void operator()(uci_package *p) const noexcept { free_package(p); }
};
using PackagePtr = std::unique_ptr<uci_package, PackageFree>;

PackagePtr new_package(uci_context *ctx, const char *name, const char *path);
uci_package *find_package(uci_context *ctx, const char *name);

uint32_t fnv1a(uint32_t h, const char *s);

// Parse errors: details kept in ctx->pctx until the next public call.
void clear_parse_error(uci_context *ctx);
void set_parse_error(uci_context *ctx, const char *reason, int line, int byte);
extern const char *const kErrorTexts[UCI_ERR_LAST];
// "<prefix>: <text>[ (<reason>) at line <n>, byte <m>]" for ctx->err.
std::string error_text(uci_context *ctx, const char *prefix);

}  // namespace uci_host
