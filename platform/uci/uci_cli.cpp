// uci_cli.cpp - the uci command-line tool: read, change, save and commit configuration.
//
// Changes are saved as deltas to the save directory; only `commit` writes the
// package files. Errors print as "<argv[0]>: <text>" on stderr.
#include <uci.h>

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

enum class Cmd {
    Get, Set, AddList, DelList, Delete, Rename, Reorder, Revert,
    Add, Show, Export, Changes, Commit, Batch, Import,
};

struct CommandName {
    const char *name;
    Cmd cmd;
};

const CommandName kCommands[] = {
    {"get", Cmd::Get},         {"set", Cmd::Set},         {"add_list", Cmd::AddList},
    {"del_list", Cmd::DelList}, {"delete", Cmd::Delete},  {"del", Cmd::Delete},
    {"rename", Cmd::Rename},   {"ren", Cmd::Rename},      {"reorder", Cmd::Reorder},
    {"revert", Cmd::Revert},   {"add", Cmd::Add},         {"show", Cmd::Show},
    {"export", Cmd::Export},   {"changes", Cmd::Changes}, {"commit", Cmd::Commit},
    {"batch", Cmd::Batch},     {"import", Cmd::Import},
};

// A batch line holds fewer words than this, the command included: the reader gives up
// when it has this many, before it knows whether the line ends there.
constexpr int kBatchArgs = 4;

constexpr int kUsageExit = 255;

struct UciFree {
    void operator()(uci_context *c) const noexcept { uci_free_context(c); }
};
using UciPtr = std::unique_ptr<uci_context, UciFree>;

// Settings from the command line, shared by the command functions.
struct Cli {
    uci_context *ctx = nullptr;
    const char *appname = "uci";
    const char *delimiter = " ";
    bool quiet = false;
    bool no_commit = false;     // -P: changes stay in the given save directory
    bool real_names = false;    // -X
    bool merge = false;         // -m: import into the package as changes
    bool in_batch = false;
    FILE *input = stdin;        // -f: batch and import read this instead of stdin
};

void usage(const char *appname)
{
    fprintf(stderr,
            "Usage: %s [<options>] <command> [<arguments>]\n"
            "\n"
            "Commands:\n"
            "\tbatch\n"
            "\texport     [<config>]\n"
            "\timport     [<config>]\n"
            "\tchanges    [<config>]\n"
            "\tcommit     [<config>]\n"
            "\tshow       [<config>[.<section>[.<option>]]]\n"
            "\tget        <config>.<section>[.<option>]\n"
            "\tset        <config>.<section>[.<option>]=<value>\n"
            "\tadd        <config> <section-type>\n"
            "\tadd_list   <config>.<section>.<option>=<string>\n"
            "\tdel_list   <config>.<section>.<option>=<string>\n"
            "\tdelete     <config>.<section>[.<option>][=<index>]\n"
            "\trename     <config>.<section>[.<option>]=<name>\n"
            "\treorder    <config>.<section>=<position>\n"
            "\trevert     <config>[.<section>[.<option>]]\n"
            "\n"
            "Options:\n"
            "\t-c <path>  configuration directory (default: " UCI_CONFDIR ")\n"
            "\t-C <path>  directory of override files (default: " UCI_CONF2DIR ")\n"
            "\t-d <str>   delimiter between list items in get and show (default: ' ')\n"
            "\t-f <file>  use <file> as input instead of stdin\n"
            "\t-m         when importing, merge data into an existing package\n"
            "\t-n         export: name anonymous sections\n"
            "\t-N         export: do not name anonymous sections (default)\n"
            "\t-p <path>  add a read-only directory to search for changes\n"
            "\t-P <path>  keep changes in <path> (the default save directory is still\n"
            "\t           searched); commit does nothing\n"
            "\t-q         quiet: print no error messages\n"
            "\t-s         strict parsing (default)\n"
            "\t-S         lenient parsing: print syntax errors and go on\n"
            "\t-t <path>  save directory (default: " UCI_SAVEDIR ")\n"
            "\t-X         show: real names of anonymous sections\n",
            appname);
}

// The tool's own messages, silenced by -q (given before the option that fails, as upstream).
__attribute__((format(printf, 2, 3))) void cli_error(const Cli &cli, const char *fmt, ...)
{
    if (cli.quiet)
        return;
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
}

void cli_perror(const Cli &cli)
{
    if (!cli.quiet)
        uci_perror(cli.ctx, cli.appname);
}

int fail_with(const Cli &cli, int err)
{
    cli.ctx->err = err;
    cli_perror(cli);
    return 1;
}

std::string quoted(const char *value)
{
    std::string out = "'";
    for (const char *c = value; *c; ++c) {
        if (*c == '\'')
            out += "'\\''";
        else
            out += *c;
    }
    return out + "'";
}

// show: every value quoted; get: strings raw, list items quoted only when
// they hold blanks, so the output splits back into the items.
void print_value(const Cli &cli, uci_option *o, bool quote)
{
    if (o->type == UCI_TYPE_STRING) {
        if (quote)
            fputs(quoted(o->v.string).c_str(), stdout);
        else
            fputs(o->v.string, stdout);
    } else {
        bool first = true;
        uci_element *e;
        uci_foreach_element(&o->v.list, e) {
            if (!first)
                fputs(cli.delimiter, stdout);
            first = false;
            if (quote || strpbrk(e->name, " \t\r\n"))
                fputs(quoted(e->name).c_str(), stdout);
            else
                fputs(e->name, stdout);
        }
    }
    fputc('\n', stdout);
}

void show_option(const Cli &cli, uci_option *o, const std::string &section_ref)
{
    printf("%s.%s.%s=", o->section->package->e.name, section_ref.c_str(), o->e.name);
    print_value(cli, o, true);
}

void show_section(const Cli &cli, uci_section *s, const std::string &ref)
{
    printf("%s.%s=%s\n", s->package->e.name, ref.c_str(), s->type);
    uci_element *e;
    uci_foreach_element(&s->options, e)
        show_option(cli, uci_to_option(e), ref);
}

// Anonymous sections show as @type[n], n counted per type in file order.
void show_package(const Cli &cli, uci_package *p)
{
    std::map<std::string, int> seen;
    uci_element *e;
    uci_foreach_element(&p->sections, e) {
        uci_section *s = uci_to_section(e);
        int idx = seen[s->type]++;
        std::string ref = s->e.name;
        if (s->anonymous && !cli.real_names)
            ref = "@" + std::string(s->type) + "[" + std::to_string(idx) + "]";
        show_section(cli, s, ref);
    }
}

void print_changes(uci_package *p, uci_list *deltas)
{
    uci_element *e;
    uci_foreach_element(deltas, e) {
        uci_delta *d = uci_to_delta(e);
        const char *prefix = d->cmd == UCI_CMD_REMOVE ? "-" : "";
        const char *op = d->cmd == UCI_CMD_LIST_ADD   ? "+="
                         : d->cmd == UCI_CMD_LIST_DEL ? "-="
                                                      : "=";
        printf("%s%s.%s", prefix, p->e.name, d->section);
        if (d->e.name)
            printf(".%s", d->e.name);
        if (d->cmd != UCI_CMD_REMOVE || d->value)
            printf("%s%s", op, quoted(d->value ? d->value : "").c_str());
        fputc('\n', stdout);
    }
}

// show, export, changes and commit of one package (or part of one).
int package_cmd(const Cli &cli, Cmd cmd, char *arg)
{
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    if (uci_lookup_ptr(cli.ctx, &ptr, arg, true) != UCI_OK) {
        cli_perror(cli);
        return 1;
    }
    switch (cmd) {
    case Cmd::Changes:
        print_changes(ptr.p, &ptr.p->saved_delta);
        print_changes(ptr.p, &ptr.p->delta);
        return 0;
    case Cmd::Commit:
        if (cli.no_commit)
            return 0;
        if (uci_commit(cli.ctx, &ptr.p, false) != UCI_OK) {
            cli_perror(cli);
            return 1;
        }
        return 0;
    case Cmd::Export:
        if (uci_export(cli.ctx, stdout, ptr.p, true) != UCI_OK) {
            cli_perror(cli);
            return 1;
        }
        return 0;
    default:
        break;
    }
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return fail_with(cli, UCI_ERR_NOTFOUND);
    switch (ptr.last->type) {
    case UCI_TYPE_PACKAGE:
        show_package(cli, ptr.p);
        break;
    case UCI_TYPE_SECTION:
        show_section(cli, ptr.s, ptr.s->e.name);
        break;
    case UCI_TYPE_OPTION:
        show_option(cli, ptr.o, ptr.s->e.name);
        break;
    default:
        break;
    }
    return 0;
}

// Without an argument: every package of the configuration directory; errors
// of single packages are printed but do not change the exit status.
int all_packages_cmd(const Cli &cli, Cmd cmd)
{
    if (cmd == Cmd::Commit && cli.no_commit)
        return 0;
    char **configs = nullptr;
    if (uci_list_configs(cli.ctx, &configs) != UCI_OK) {
        cli_perror(cli);
        return 1;
    }
    std::unique_ptr<char *, decltype(&free)> hold(configs, free);
    for (char **c = configs; *c; ++c) {
        std::vector<char> name(*c, *c + strlen(*c) + 1);
        package_cmd(cli, cmd, name.data());
    }
    return 0;
}

// The commands that name one element: get and the changes saved as deltas.
int section_cmd(const Cli &cli, Cmd cmd, char *arg)
{
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    if (uci_lookup_ptr(cli.ctx, &ptr, arg, true) != UCI_OK) {
        cli_perror(cli);
        return 1;
    }
    if (ptr.value && (cmd == Cmd::Get || cmd == Cmd::Revert))
        return 1;

    int rc = UCI_OK;
    switch (cmd) {
    case Cmd::Get:
        if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
            return fail_with(cli, UCI_ERR_NOTFOUND);
        if (ptr.last->type == UCI_TYPE_SECTION)
            printf("%s\n", ptr.s->type);
        else if (ptr.last->type == UCI_TYPE_OPTION)
            print_value(cli, ptr.o, false);
        return 0;
    case Cmd::Revert:
        uci_revert(cli.ctx, &ptr);  // a package that loaded counts as reverted
        return 0;
    case Cmd::Set:
        rc = uci_set(cli.ctx, &ptr);
        break;
    case Cmd::AddList:
        rc = uci_add_list(cli.ctx, &ptr);
        break;
    case Cmd::DelList:
        rc = uci_del_list(cli.ctx, &ptr);
        break;
    case Cmd::Rename:
        rc = uci_rename(cli.ctx, &ptr);
        break;
    case Cmd::Reorder:
        if (!ptr.s || !ptr.value)
            return fail_with(cli, UCI_ERR_NOTFOUND);
        rc = uci_reorder_section(cli.ctx, ptr.s, static_cast<int>(strtoul(ptr.value, nullptr, 10)));
        break;
    case Cmd::Delete: {
        int index;
        if (ptr.value && sscanf(ptr.value, "%d", &index) == 0)
            return 1;
        rc = uci_delete(cli.ctx, &ptr);
        break;
    }
    default:
        return 1;
    }
    if (rc != UCI_OK || uci_save(cli.ctx, ptr.p) != UCI_OK) {
        cli_perror(cli);
        return 1;
    }
    return 0;
}

// add <package> <type>: prints the new section's name; exits with the UCI code.
int add_cmd(const Cli &cli, const char *package, const char *type)
{
    uci_package *p = nullptr;
    uci_section *s = nullptr;
    int rc = uci_load(cli.ctx, package, &p);
    if (rc == UCI_OK)
        rc = uci_add_section(cli.ctx, p, type, &s);
    if (rc == UCI_OK)
        rc = uci_save(cli.ctx, p);
    if (rc != UCI_OK) {
        cli_perror(cli);
        return rc;
    }
    printf("%s\n", s->e.name);
    return 0;
}

bool find_command(const char *name, Cmd &cmd)
{
    for (const CommandName &c : kCommands) {
        if (strcasecmp(c.name, name) == 0) {
            cmd = c.cmd;
            return true;
        }
    }
    return false;
}

int dispatch(Cli &cli, int argc, char **argv);

// import [<config>]: packages from the input. Without -m every package read is written
// over its file; with -m (a package must be named) the input becomes changes to it.
int import_cmd(Cli &cli, int nargs, char **argv)
{
    if (nargs > 1)
        return kUsageExit;
    const char *name = nargs == 1 ? argv[1] : nullptr;
    if (cli.merge && !name)
        return kUsageExit;
    uci_package *package = nullptr;
    bool merge = false;
    if (cli.merge) {
        if (uci_load(cli.ctx, name, &package) != UCI_OK)
            package = nullptr;
        else
            merge = true;
    }
    int rc = uci_import(cli.ctx, cli.input, name, &package, name != nullptr);
    if (rc == UCI_OK) {
        if (merge) {
            rc = uci_save(cli.ctx, package);
        } else {
            uci_element *e, *tmp;
            uci_foreach_element_safe(&cli.ctx->root, tmp, e) {
                uci_package *p = uci_to_package(e);
                rc = uci_commit(cli.ctx, &p, true);
            }
        }
    }
    if (rc != UCI_OK) {
        cli_perror(cli);
        return 1;
    }
    return 0;
}

// batch: one command a line from the input, words as in a package file, until the end or
// "exit". Each line's packages are unloaded after it, so the next line sees saved changes.
int batch_cmd(Cli &cli)
{
    cli.in_batch = true;
    while (!feof(cli.input)) {
        std::vector<std::string> kept;
        char *str = nullptr;
        bool too_many = false;
        for (;;) {
            if (static_cast<int>(kept.size()) == kBatchArgs) {
                too_many = true;
                break;
            }
            char *word = nullptr;
            if (uci_parse_argument(cli.ctx, cli.input, &str, &word) != UCI_OK) {
                cli_perror(cli);
                kept.clear();
                break;
            }
            if (!*word)
                break;
            kept.emplace_back(word);
        }
        if (too_many) {
            cli_error(cli, "Too many arguments\n");
            continue;
        }
        if (kept.empty())
            continue;
        if (strcasecmp(kept[0].c_str(), "exit") == 0)
            break;
        std::vector<char *> words;
        for (std::string &w : kept)
            words.push_back(&w[0]);
        int rc = dispatch(cli, static_cast<int>(words.size()), words.data());
        if (rc == kUsageExit)
            cli_error(cli, "Unknown command\n");
        fflush(stdout);
        uci_element *e, *tmp;
        uci_foreach_element_safe(&cli.ctx->root, tmp, e) uci_unload(cli.ctx, uci_to_package(e));
    }
    cli.in_batch = false;
    return 0;
}

// One command with its arguments (argv[0] is the command). kUsageExit for an unknown
// command or a wrong number of arguments, printed by the caller.
int dispatch(Cli &cli, int argc, char **argv)
{
    Cmd cmd;
    if (!find_command(argv[0], cmd))
        return kUsageExit;
    int nargs = argc - 1;
    switch (cmd) {
    case Cmd::Batch:
        if (cli.in_batch)
            return kUsageExit;
        return batch_cmd(cli);
    case Cmd::Import:
        return import_cmd(cli, nargs, argv);
    case Cmd::Show:
    case Cmd::Export:
    case Cmd::Changes:
    case Cmd::Commit:
        if (nargs > 1)
            break;
        return nargs == 0 ? all_packages_cmd(cli, cmd) : package_cmd(cli, cmd, argv[1]);
    case Cmd::Add:
        if (nargs != 2)
            break;
        return add_cmd(cli, argv[1], argv[2]);
    default:
        if (nargs != 1)
            break;
        return section_cmd(cli, cmd, argv[1]);
    }
    return kUsageExit;
}

int run(Cli &cli, int argc, char **argv)
{
    // '+': options end at the first command word, as on the device's libc.
    int opt;
    while ((opt = getopt(argc, argv, "+c:C:d:f:mnNp:P:qsSt:X")) != -1) {
        uci_context *ctx = cli.ctx;
        switch (opt) {
        case 'c':
            uci_set_confdir(ctx, optarg);
            break;
        case 'C':
            uci_set_conf2dir(ctx, optarg);
            break;
        case 'd':
            cli.delimiter = optarg;
            break;
        case 'f':
            if (cli.input != stdin) {
                fclose(cli.input);
                cli.input = stdin;
                cli_error(cli, "Too many input files.\n");
                return 1;
            }
            cli.input = fopen(optarg, "r");
            if (!cli.input) {
                cli.input = stdin;
                cli_error(cli, "uci: %s", strerror(errno));
                return 1;
            }
            break;
        case 'm':
            cli.merge = true;
            break;
        case 'n':
            ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
            break;
        case 'N':
            ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_EXPORT_NAME);
            break;
        case 'p':
            uci_add_delta_path(ctx, optarg);
            break;
        case 'P':
            uci_add_delta_path(ctx, ctx->savedir);
            uci_set_savedir(ctx, optarg);
            cli.no_commit = true;
            break;
        case 'q':
            cli.quiet = true;
            break;
        case 's':
            ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_STRICT);
            break;
        case 'S':
            ctx->flags = static_cast<uci_flags>((ctx->flags & ~UCI_FLAG_STRICT) | UCI_FLAG_PERROR);
            break;
        case 't':
            uci_set_savedir(ctx, optarg);
            break;
        case 'X':
            cli.real_names = true;
            break;
        default:
            usage(cli.appname);
            return 0;
        }
    }
    argc -= optind;
    argv += optind;
    if (argc < 1) {
        usage(cli.appname);
        return 0;
    }
    int rc = dispatch(cli, argc, argv);
    if (rc == kUsageExit)
        usage(cli.appname);
    return rc;
}

}  // namespace

int main(int argc, char **argv)
{
    UciPtr ctx(uci_alloc_context());
    if (!ctx) {
        fprintf(stderr, "Out of memory\n");
        return 1;
    }
    Cli cli;
    cli.ctx = ctx.get();
    if (argc > 0 && argv[0])
        cli.appname = argv[0];
    int rc = run(cli, argc, argv);
    if (cli.input != stdin)
        fclose(cli.input);
    if (fflush(stdout) != 0 && rc == 0)
        rc = 1;
    return rc;
}
