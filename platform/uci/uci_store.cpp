// uci_store.cpp - records of the configuration library: element lists,
// packages, sections, options and deltas, name rules, parse-error details.
#include "uci_store.h"

#include <cstdio>
#include <cstring>
#include <new>

namespace uci_host {

// ---------------------------------------------------------------------------
// Intrusive lists (struct uci_list is circular with a head node)

void list_init(uci_list *l)
{
    l->next = l->prev = l;
}

void link_between(uci_list *n, uci_list *prev, uci_list *next)
{
    next->prev = n;
    n->next = next;
    n->prev = prev;
    prev->next = n;
}

void list_add_tail(uci_list *head, uci_list *n)
{
    link_between(n, head->prev, head);
}

void list_add_after(uci_list *pos, uci_list *n)
{
    link_between(n, pos, pos->next);
}

// Leaves n linked to itself, so unlinking twice is harmless.
void list_unlink(uci_list *n)
{
    n->prev->next = n->next;
    n->next->prev = n->prev;
    list_init(n);
}

// ---------------------------------------------------------------------------
// Allocation: the records are C structs freed with free(); allocation failure
// throws std::bad_alloc, which the public entry points turn into UCI_ERR_MEM.

CStr make_str(const char *s)
{
    CStr d(strdup(s ? s : ""));
    if (!d)
        throw std::bad_alloc();
    return d;
}

CStr make_str_or_null(const char *s)
{
    return s ? make_str(s) : CStr();
}

const char *str_or_empty(const char *s)
{
    return s ? s : "";
}

bool same(const char *a, const char *b)
{
    return a && b && strcmp(a, b) == 0;
}

// ---------------------------------------------------------------------------
// Name rules

// Non-empty; letters, digits and '_' always; '-' for packages; other
// printable characters (33..126) for everything but plain names.
static bool valid_str(const char *s, bool name, bool package)
{
    if (!s || !*s)
        return false;
    for (; *s; ++s) {
        unsigned char c = static_cast<unsigned char>(*s);
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_')
            continue;
        if (c == '-' && package)
            continue;
        if (name || c < 33 || c > 126)
            return false;
    }
    return true;
}

bool valid_name(const char *s) { return valid_str(s, true, false); }
bool valid_type(const char *s) { return valid_str(s, false, false); }
bool valid_package(const char *s) { return valid_str(s, false, true); }

// ---------------------------------------------------------------------------
// Records

uci_element *new_item(uci_option *o, const char *value)
{
    CStr v = make_str(value);
    auto *e = alloc_zeroed<uci_element>();
    e->type = UCI_TYPE_ITEM;
    e->name = v.release();
    list_add_tail(&o->v.list, &e->list);
    return e;
}

void free_item(uci_element *e)
{
    list_unlink(&e->list);
    free(e->name);
    free(e);
}

static void free_option_value(uci_option *o)
{
    if (o->type == UCI_TYPE_LIST) {
        uci_element *e, *tmp;
        uci_foreach_element_safe(&o->v.list, tmp, e)
            free_item(e);
    } else {
        free(o->v.string);
    }
}

void free_option(uci_option *o)
{
    list_unlink(&o->e.list);
    free_option_value(o);
    free(o->e.name);
    free(o);
}

// A new option linked after `after` (the section's head appends it).
static uci_option *new_option(uci_section *s, const char *name, uci_list *after)
{
    CStr n = make_str(name);
    auto *o = alloc_zeroed<uci_option>();
    o->e.type = UCI_TYPE_OPTION;
    o->e.name = n.release();
    o->section = s;
    o->type = UCI_TYPE_STRING;
    list_add_after(after ? after : s->options.prev, &o->e.list);
    return o;
}

uci_option *new_string_option(uci_section *s, const char *name, const char *value, uci_list *after)
{
    CStr v = make_str(value);
    uci_option *o = new_option(s, name, after);
    o->v.string = v.release();
    return o;
}

uci_option *new_list_option(uci_section *s, const char *name, uci_list *after)
{
    uci_option *o = new_option(s, name, after);
    o->type = UCI_TYPE_LIST;
    list_init(&o->v.list);
    return o;
}

void free_section(uci_section *s)
{
    list_unlink(&s->e.list);
    uci_element *e, *tmp;
    uci_foreach_element_safe(&s->options, tmp, e)
        free_option(uci_to_option(e));
    free(s->e.name);
    free(s->type);
    free(s);
}

uci_section *find_section(uci_package *p, const char *name)
{
    uci_element *e;
    uci_foreach_element(&p->sections, e) {
        if (same(e->name, name))
            return uci_to_section(e);
    }
    return nullptr;
}

uci_option *find_option(uci_section *s, const char *name)
{
    uci_element *e;
    uci_foreach_element(&s->options, e) {
        if (same(e->name, name))
            return uci_to_option(e);
    }
    return nullptr;
}

uint32_t fnv1a(uint32_t h, const char *s)
{
    for (; s && *s; ++s) {
        h ^= static_cast<unsigned char>(*s);
        h *= 16777619u;
    }
    return h;
}

// Anonymous sections are named "cfg" + 2 hex digits of the package's section
// counter + 4 hex digits of a hash of the type. The name only has to be unique
// within the package and the same on every load of the same file.
static std::string anonymous_name(uci_package *p, const char *type)
{
    uint32_t h = fnv1a(2166136261u, type);
    for (unsigned salt = 0;; ++salt) {
        char buf[16];
        snprintf(buf, sizeof buf, "cfg%02x%04x", static_cast<unsigned>(p->n_section) & 0xffu,
                 static_cast<unsigned>((h + salt) & 0xffffu));
        if (!find_section(p, buf))
            return buf;
    }
}

// Appends a section; a null name makes it anonymous with a generated name.
uci_section *new_section(uci_package *p, const char *type, const char *name)
{
    CStr t = make_str(type);
    p->n_section++;
    CStr n = make_str(name ? name : anonymous_name(p, type).c_str());
    auto *s = alloc_zeroed<uci_section>();
    s->e.type = UCI_TYPE_SECTION;
    s->e.name = n.release();
    s->type = t.release();
    s->package = p;
    s->anonymous = (name == nullptr);
    list_init(&s->options);
    list_add_tail(&p->sections, &s->e.list);
    return s;
}

static void free_delta(uci_delta *d)
{
    list_unlink(&d->e.list);
    free(d->e.name);
    free(d->section);
    free(d->value);
    free(d);
}

void free_delta_list(uci_list *l)
{
    uci_element *e, *tmp;
    uci_foreach_element_safe(l, tmp, e)
        free_delta(uci_to_delta(e));
}

void add_delta(uci_list *l, uci_command cmd, const char *section, const char *option,
               const char *value)
{
    CStr sec = make_str(section), opt = make_str_or_null(option), val = make_str_or_null(value);
    auto *d = alloc_zeroed<uci_delta>();
    d->e.type = UCI_TYPE_DELTA;
    d->e.name = opt.release();
    d->cmd = cmd;
    d->section = sec.release();
    d->value = val.release();
    list_add_tail(l, &d->e.list);
}

void free_package(uci_package *p)
{
    list_unlink(&p->e.list);
    uci_element *e, *tmp;
    uci_foreach_element_safe(&p->sections, tmp, e)
        free_section(uci_to_section(e));
    free_delta_list(&p->delta);
    free_delta_list(&p->saved_delta);
    free(p->e.name);
    free(p->path);
    free(p);
}

PackagePtr new_package(uci_context *ctx, const char *name, const char *path)
{
    CStr n = make_str(name), pa = make_str_or_null(path);
    auto *p = alloc_zeroed<uci_package>();
    p->e.type = UCI_TYPE_PACKAGE;
    list_init(&p->e.list);
    p->e.name = n.release();
    p->path = pa.release();
    p->ctx = ctx;
    p->backend = ctx->backend;
    list_init(&p->sections);
    list_init(&p->delta);
    list_init(&p->saved_delta);
    return PackagePtr(p);
}

uci_package *find_package(uci_context *ctx, const char *name)
{
    uci_element *e;
    uci_foreach_element(&ctx->root, e) {
        if (same(e->name, name))
            return uci_to_package(e);
    }
    return nullptr;
}

// A list line: a string option becomes a list whose first item is its old
// value, a missing option a new list.
void append_list_item(uci_section *s, uci_option *o, const char *name, const char *value)
{
    if (o && o->type == UCI_TYPE_STRING) {
        uci_option *l = new_list_option(s, name, &o->e.list);
        new_item(l, o->v.string);
        free_option(o);
        o = l;
    } else if (!o) {
        o = new_list_option(s, name, nullptr);
    }
    new_item(o, value);
}

// ---------------------------------------------------------------------------
// Error model

void clear_parse_error(uci_context *ctx)
{
    free(ctx->pctx);
    ctx->pctx = nullptr;
}

void set_parse_error(uci_context *ctx, const char *reason, int line, int byte)
{
    clear_parse_error(ctx);
    auto *pc = static_cast<uci_parse_context *>(calloc(1, sizeof(uci_parse_context)));
    if (!pc)
        return;  // the error code still says what happened
    pc->reason = reason;
    pc->line = line;
    pc->byte = byte;
    ctx->pctx = pc;
}

const char *const kErrorTexts[UCI_ERR_LAST] = {
    "Success", "Out of memory", "Invalid argument", "Entry not found",
    "I/O error", "Parse error", "Duplicate entry", "Unknown error",
};

std::string error_text(uci_context *ctx, const char *prefix)
{
    int err = ctx->err;
    if (err < 0 || err >= UCI_ERR_LAST)
        err = UCI_ERR_UNKNOWN;
    std::string s;
    if (prefix) {
        s += prefix;
        s += ": ";
    }
    s += kErrorTexts[err];
    if (err == UCI_ERR_PARSE && ctx->pctx) {
        s += " (";
        s += ctx->pctx->reason ? ctx->pctx->reason : "unknown";
        s += ") at line " + std::to_string(ctx->pctx->line) + ", byte " +
             std::to_string(ctx->pctx->byte);
    }
    return s;
}

}  // namespace uci_host
