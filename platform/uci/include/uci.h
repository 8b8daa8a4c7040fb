/*
 * uci.h - host configuration store: packages of typed sections holding string
 * and list options, kept as text files in a configuration directory, with
 * uncommitted changes kept as delta files in a save directory.
 *
 * Every call returns a UCI_* code and leaves it in ctx->err for uci_perror.
 * A context is not thread-safe; use one context per thread. Separate contexts
 * (in threads or processes) may load, save and commit the same package at the
 * same time: files are locked and the package file is replaced atomically.
 */
#ifndef NMS_HOST_UCI_H
#define NMS_HOST_UCI_H

#include "uci_config.h"

#include <setjmp.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* No exception leaves the library; C++ callers may rely on it. */
#ifdef __cplusplus
#define UCI_NOEXCEPT noexcept
#else
#define UCI_NOEXCEPT
#endif

#define UCI_CONFDIR "/etc/config"
/* Override files: a package found here is read (and committed) instead of the confdir's. */
#define UCI_CONF2DIR "/var/run/uci"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

enum
{
	UCI_OK = 0,
	UCI_ERR_MEM,
	UCI_ERR_INVAL,
	UCI_ERR_NOTFOUND,
	UCI_ERR_IO,
	UCI_ERR_PARSE,
	UCI_ERR_DUPLICATE,
	UCI_ERR_UNKNOWN,
	UCI_ERR_LAST
};

struct uci_list;
struct uci_list
{
	struct uci_list *next;
	struct uci_list *prev;
};

struct uci_ptr;
struct uci_element;
struct uci_package;
struct uci_section;
struct uci_option;
struct uci_delta;
struct uci_context;
struct uci_backend;
struct uci_parse_option;
struct uci_parse_context;

enum uci_type {
	UCI_TYPE_UNSPEC = 0,
	UCI_TYPE_DELTA = 1,
	UCI_TYPE_PACKAGE = 2,
	UCI_TYPE_SECTION = 3,
	UCI_TYPE_OPTION = 4,
	UCI_TYPE_PATH = 5,
	UCI_TYPE_BACKEND = 6,
	UCI_TYPE_ITEM = 7,
	UCI_TYPE_HOOK = 8,
};

enum uci_option_type {
	UCI_TYPE_STRING = 0,
	UCI_TYPE_LIST = 1,
};

enum uci_flags {
	UCI_FLAG_STRICT =        (1 << 0), /* parse errors abort loading */
	UCI_FLAG_PERROR =        (1 << 1), /* print parse errors while continuing */
	UCI_FLAG_EXPORT_NAME =   (1 << 2), /* export/commit names anonymous sections */
	UCI_FLAG_SAVED_DELTA =   (1 << 3), /* keep replayed deltas in saved_delta */
};

enum uci_command {
	UCI_CMD_ADD,
	UCI_CMD_REMOVE,
	UCI_CMD_CHANGE,
	UCI_CMD_RENAME,
	UCI_CMD_REORDER,
	UCI_CMD_LIST_ADD,
	UCI_CMD_LIST_DEL,
};

struct uci_element
{
	struct uci_list list;
	enum uci_type type;
	char *name;            /* package/section/option name; list item: its value */
};

struct uci_backend
{
	struct uci_element e;  /* e.name = backend name ("file") */
	char **(*list_configs)(struct uci_context *ctx);
	struct uci_package *(*load)(struct uci_context *ctx, const char *name);
	void (*commit)(struct uci_context *ctx, struct uci_package **p, bool overwrite);
	/* private */
	const void *ptr;
	void *priv;
};

struct uci_context
{
	struct uci_list root;              /* loaded packages */
	struct uci_parse_context *pctx;    /* details of the last parse error */
	struct uci_backend *backend;
	struct uci_list backends;
	enum uci_flags flags;              /* default STRICT | SAVED_DELTA */
	char *confdir;                     /* default UCI_CONFDIR */
	char *savedir;                     /* default UCI_SAVEDIR */
	char *conf2dir;                    /* default UCI_CONF2DIR; NULL: no override files */
	struct uci_list delta_path;        /* dirs searched for delta files, savedir last */
	/* private */
	int err;
	const char *func;
	jmp_buf trap;                      /* unused here; keeps the device library's layout */
	bool internal, nested;
	char *buf;
	int bufsz;
};

struct uci_package
{
	struct uci_element e;              /* e.name = package name */
	struct uci_list sections;
	struct uci_context *ctx;
	bool has_delta;                    /* loaded from the confdir: deltas apply */
	bool uses_conf2;                   /* read from the conf2dir's override file */
	char *path;                        /* file the package was read from */
	/* private */
	struct uci_backend *backend;
	void *priv;
	int n_section;                     /* sections created so far (names anonymous ones) */
	struct uci_list delta;             /* changes not yet saved */
	struct uci_list saved_delta;       /* changes replayed from delta files or saved */
};

struct uci_section
{
	struct uci_element e;              /* e.name = section name (cfgXXXXXX if anonymous) */
	struct uci_list options;
	struct uci_package *package;
	bool anonymous;
	char *type;
};

struct uci_option
{
	struct uci_element e;              /* e.name = option name */
	struct uci_section *section;
	enum uci_option_type type;
	union {
		struct uci_list list;          /* UCI_TYPE_ITEM elements, e.name = value */
		char *string;
	} v;
};

struct uci_delta
{
	struct uci_element e;              /* e.name = option name or NULL */
	enum uci_command cmd;
	char *section;
	char *value;
};

/* The lookup flags are declared inside the struct, as the device's header does: C++ code names
 * them uci_ptr::UCI_LOOKUP_*, C code plainly. */
struct uci_ptr
{
	enum uci_type target;              /* what the lookup string named */
	enum {
		UCI_LOOKUP_DONE =     (1 << 0),    /* lookup ran; ptr->p/s/o are valid */
		UCI_LOOKUP_COMPLETE = (1 << 1),    /* every named part exists */
		UCI_LOOKUP_EXTENDED = (1 << 2),    /* section given as @type[index] */
	} flags;

	struct uci_package *p;
	struct uci_section *s;
	struct uci_option *o;
	struct uci_element *last;          /* deepest element found */

	const char *package;
	const char *section;
	const char *option;
	const char *value;
};

struct uci_parse_option {
	const char *name;
	enum uci_option_type type;
};

/* Context: defaults confdir UCI_CONFDIR, savedir UCI_SAVEDIR, flags STRICT|SAVED_DELTA. */
struct uci_context *uci_alloc_context(void) UCI_NOEXCEPT;
void uci_free_context(struct uci_context *ctx) UCI_NOEXCEPT;
int uci_set_confdir(struct uci_context *ctx, const char *dir) UCI_NOEXCEPT;
int uci_set_savedir(struct uci_context *ctx, const char *dir) UCI_NOEXCEPT;
/* NULL or "": no override directory. */
int uci_set_conf2dir(struct uci_context *ctx, const char *dir) UCI_NOEXCEPT;
int uci_add_delta_path(struct uci_context *ctx, const char *dir) UCI_NOEXCEPT;
int uci_set_backend(struct uci_context *ctx, const char *name) UCI_NOEXCEPT;

/* Loading: a name, or an absolute or "./" path (then no deltas apply). */
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package) UCI_NOEXCEPT;
int uci_unload(struct uci_context *ctx, struct uci_package *p) UCI_NOEXCEPT;
int uci_list_configs(struct uci_context *ctx, char ***list) UCI_NOEXCEPT;
/* Reads packages from a stream in the file format ("package <name>" lines start each one).
 * With single and *package set, the stream is merged into that package as changes. */
int uci_import(struct uci_context *ctx, FILE *stream, const char *name,
               struct uci_package **package, bool single) UCI_NOEXCEPT;
/* The next word of a line of the stream (the batch tool's reader): *str NULL reads a new
 * line; an empty *result ends the line. */
int uci_parse_argument(struct uci_context *ctx, FILE *stream, char **str, char **result) UCI_NOEXCEPT;

/* Saving changes as deltas, and writing them into the package file. */
int uci_save(struct uci_context *ctx, struct uci_package *p) UCI_NOEXCEPT;
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite) UCI_NOEXCEPT;
int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_export(struct uci_context *ctx, FILE *stream, struct uci_package *package, bool header) UCI_NOEXCEPT;

/* Lookup: str ("pkg[.sec[.opt]][=value]") is split in place and must outlive ptr. */
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended) UCI_NOEXCEPT;
int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str) UCI_NOEXCEPT;
int uci_lookup_next(struct uci_context *ctx, struct uci_element **e,
		    struct uci_list *list, const char *name) UCI_NOEXCEPT;

/* Changes; each is recorded as a delta for uci_save. */
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_add_section(struct uci_context *ctx, struct uci_package *p,
		    const char *type, struct uci_section **res) UCI_NOEXCEPT;
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr) UCI_NOEXCEPT;
int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos) UCI_NOEXCEPT;

/* Errors: "<prefix>: <text>[ (<reason>) at line <n>, byte <m>]". */
void uci_perror(struct uci_context *ctx, const char *str) UCI_NOEXCEPT;
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *str) UCI_NOEXCEPT;

bool uci_validate_text(const char *str) UCI_NOEXCEPT;
void uci_parse_section(struct uci_section *s, const struct uci_parse_option *opts,
		       int n_opts, struct uci_option **tb) UCI_NOEXCEPT;
uint32_t uci_hash_options(struct uci_option **tb, int n_opts) UCI_NOEXCEPT;

/* Lists of elements */
#define uci_list_empty(list) ((list)->next == (list))

#define uci_container_of(ptr, type, member) \
	((type *) (((char *) (ptr)) - offsetof(type, member)))

#define list_to_element(ptr) uci_container_of(ptr, struct uci_element, list)

/* Walks a list of elements; the current element must not be removed. */
#define uci_foreach_element(_list, _ptr)				\
	for(_ptr = list_to_element((_list)->next);			\
		&_ptr->list != (_list);					\
		_ptr = list_to_element(_ptr->list.next))

/* Walks a list of elements; the current element may be removed. */
#define uci_foreach_element_safe(_list, _tmp, _ptr)		\
	for(_ptr = list_to_element((_list)->next),		\
		_tmp = list_to_element(_ptr->list.next);	\
		&_ptr->list != (_list);				\
		_ptr = _tmp, _tmp = list_to_element(_ptr->list.next))

#define uci_dataptr(ptr) (((char *) (ptr)) + sizeof(*(ptr)))

#define uci_to_backend(ptr) uci_container_of(ptr, struct uci_backend, e)
#define uci_to_delta(ptr) uci_container_of(ptr, struct uci_delta, e)
#define uci_to_package(ptr) uci_container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) uci_container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) uci_container_of(ptr, struct uci_option, e)

static inline struct uci_package *
uci_lookup_package(struct uci_context *ctx, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &ctx->root, name) == 0)
		return uci_to_package(e);
	return NULL;
}

static inline struct uci_section *
uci_lookup_section(struct uci_context *ctx, struct uci_package *p, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &p->sections, name) == 0)
		return uci_to_section(e);
	return NULL;
}

static inline struct uci_option *
uci_lookup_option(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_element *e = NULL;
	if (uci_lookup_next(ctx, &e, &s->options, name) == 0)
		return uci_to_option(e);
	return NULL;
}

/* The value of a string option; NULL if the option is absent or a list. */
static inline const char *
uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s, const char *name)
{
	struct uci_option *o = uci_lookup_option(ctx, s, name);
	if (!o || o->type != UCI_TYPE_STRING)
		return NULL;
	return o->v.string;
}

#ifdef __cplusplus
}
#endif

#endif
