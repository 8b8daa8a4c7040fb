// libuci_test.cpp - the configuration library through its public functions:
// file syntax, value round trips, lists, deltas and commit, lookups, errors,
// malformed files and concurrent committers.
#include <uci.h>

#include "uci_store.h"  // the parse context, opaque in the public header
#include "uci_test_dir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <list>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct UciFree {
    void operator()(uci_context *c) const noexcept { uci_free_context(c); }
};
using UciPtr = std::unique_ptr<uci_context, UciFree>;

// Package names carry a prefix: the default save directory stays on the
// delta search path, and these names are sure not to be found there.
constexpr const char *kPkg = "ut_pkg";

UciPtr open_ctx(const TestDir &dir)
{
    UciPtr c(uci_alloc_context());
    EXPECT_EQ(uci_set_confdir(c.get(), dir.conf().c_str()), UCI_OK);
    EXPECT_EQ(uci_set_savedir(c.get(), dir.save().c_str()), UCI_OK);
    return c;
}

// "v" for a string, "[a|b]" for a list, "<none>" when absent.
std::string value_of(uci_context *ctx, uci_package *p, const char *sec, const char *opt)
{
    uci_section *s = uci_lookup_section(ctx, p, sec);
    uci_option *o = s ? uci_lookup_option(ctx, s, opt) : nullptr;
    if (!o)
        return "<none>";
    if (o->type == UCI_TYPE_STRING)
        return o->v.string;
    std::string out = "[";
    uci_element *e;
    bool first = true;
    uci_foreach_element(&o->v.list, e) {
        out += (first ? "" : "|") + std::string(e->name);
        first = false;
    }
    return out + "]";
}

std::vector<std::string> section_names(uci_package *p)
{
    std::vector<std::string> out;
    uci_element *e;
    uci_foreach_element(&p->sections, e)
        out.push_back(e->name);
    return out;
}

class Uci : public ::testing::Test {
protected:
    // Looks str up; the buffer it is split into lives as long as the test.
    int lookup(uci_context *ctx, uci_ptr &ptr, const std::string &str, bool extended = true)
    {
        bufs_.emplace_back(str.begin(), str.end());
        bufs_.back().push_back('\0');
        memset(&ptr, 0, sizeof ptr);
        return uci_lookup_ptr(ctx, &ptr, bufs_.back().data(), extended);
    }

    // One change through the extended lookup, then save.
    void set_and_save(uci_context *ctx, const std::string &str)
    {
        uci_ptr ptr;
        ASSERT_EQ(lookup(ctx, ptr, str), UCI_OK) << str;
        ASSERT_EQ(uci_set(ctx, &ptr), UCI_OK) << str;
        ASSERT_EQ(uci_save(ctx, ptr.p), UCI_OK) << str;
    }

    uci_package *load(uci_context *ctx, const char *name = kPkg)
    {
        uci_package *p = nullptr;
        EXPECT_EQ(uci_load(ctx, name, &p), UCI_OK);
        return p;
    }

    std::string errorstr(uci_context *ctx, const char *prefix)
    {
        char *s = nullptr;
        uci_get_errorstr(ctx, &s, prefix);
        std::string out = s ? s : "<null>";
        free(s);
        return out;
    }

    TestDir dir;
    std::list<std::vector<char>> bufs_;
};

TEST_F(Uci, ParsesQuotesEscapesCommentsAndAbbreviations)
{
    write_file(dir.conf_file(kPkg),
               "# a comment line\n"
               "config 'iface' lan   # trailing comment\n"
               "\toption plain word\n"
               "\toption single 'a # b ; c'\n"
               "\toption dq \"say \\\"hi\\\" \\\\ \\n\"\n"
               "\toption joined a'b c'\"d\"\n"
               "\toption multi 'first\n"
               "second'\n"
               "\toption cont long\\\n"
               "tail\n"
               "\tlist l one\n"
               "\tlist l ''\n"
               "  o g x; o h y\r\n"
               "c rule\n"
               "\toption name anon\n"
               "config rule ''\n"
               "\toption empty ''\n"
               "\toption missing\n");
    UciPtr ctx = open_ctx(dir);
    uci_package *p = load(ctx.get());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "plain"), "word");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "single"), "a # b ; c");
    // Inside double quotes a backslash takes the next character as it is.
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "dq"), "say \"hi\" \\ n");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "joined"), "ab cd");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "multi"), "first\nsecond");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "cont"), "longtail");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "l"), "[one|]");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "g"), "x");
    EXPECT_EQ(value_of(ctx.get(), p, "lan", "h"), "y");

    std::vector<std::string> names = section_names(p);
    ASSERT_EQ(names.size(), 3u);
    const std::regex anon("cfg[0-9a-f]{6}");
    for (size_t i = 1; i < 3; ++i) {
        SCOPED_TRACE(names[i]);
        uci_section *s = uci_lookup_section(ctx.get(), p, names[i].c_str());
        EXPECT_TRUE(s->anonymous);
        EXPECT_STREQ(s->type, "rule");
        EXPECT_TRUE(std::regex_match(names[i], anon));
    }
    EXPECT_NE(names[1], names[2]);
    // Empty and missing option values are not kept.
    EXPECT_TRUE(uci_list_empty(&uci_lookup_section(ctx.get(), p, names[2].c_str())->options));

    // The same file gives the same generated names on every load.
    UciPtr again = open_ctx(dir);
    EXPECT_EQ(section_names(load(again.get())), names);
}

TEST_F(Uci, RepeatedOptionsListsReopenedSectionsAndEmptyFiles)
{
    write_file(dir.conf_file(kPkg),
               "config t s\n"
               "\toption x 1\n"
               "\toption y a\n"
               "\toption x 2\n"
               "\tlist y b\n"
               "config t other\n"
               "config t s\n"
               "\toption z 3\n");
    UciPtr ctx = open_ctx(dir);
    uci_package *p = load(ctx.get());
    ASSERT_NE(p, nullptr);
    uci_section *s = uci_lookup_section(ctx.get(), p, "s");
    // A repeated option replaces the earlier one and moves to the end; a list
    // line turns the earlier string into the list's first item.
    std::vector<std::string> order;
    uci_element *e;
    uci_foreach_element(&s->options, e)
        order.push_back(e->name);
    EXPECT_EQ(order, (std::vector<std::string>{"y", "x", "z"}));
    EXPECT_EQ(value_of(ctx.get(), p, "s", "x"), "2");
    EXPECT_EQ(value_of(ctx.get(), p, "s", "y"), "[a|b]");
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"s", "other"}));

    SCOPED_TRACE("empty package file");
    write_file(dir.conf_file("ut_empty"), "");
    uci_package *empty = load(ctx.get(), "ut_empty");
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(uci_list_empty(&empty->sections));
    EXPECT_EQ(uci_lookup_section(ctx.get(), empty, "anything"), nullptr);

    SCOPED_TRACE("loaded twice, missing, not a regular file");
    EXPECT_EQ(uci_load(ctx.get(), kPkg, &p), UCI_ERR_DUPLICATE);
    EXPECT_EQ(uci_load(ctx.get(), "ut_missing", &p), UCI_ERR_NOTFOUND);
    std::filesystem::create_directory(dir.conf_file("ut_dir"));
    EXPECT_EQ(uci_load(ctx.get(), "ut_dir", &p), UCI_ERR_NOTFOUND);
}

// Values with every character the file and delta syntax treat specially
// come back unchanged: from the delta file, and from the committed file.
TEST_F(Uci, ValuesRoundTripThroughDeltasAndCommit)
{
    const std::vector<std::string> values = {
        "with  blanks\tand tab", "it's 'single'", "double \"quotes\"", "back\\slash\\",
        "two\nlines\n",          "#hash ;semi",    "=eq.dot=",           " lead",
        "'",                     "\\'",             "cr\r\nlf",
    };
    write_file(dir.conf_file(kPkg), "config t s\n");
    {
        UciPtr ctx = open_ctx(dir);
        for (size_t i = 0; i < values.size(); ++i) {
            set_and_save(ctx.get(), std::string(kPkg) + ".s.o" + std::to_string(i) + "=" + values[i]);
            uci_ptr ptr;
            ASSERT_EQ(lookup(ctx.get(), ptr, std::string(kPkg) + ".s.l=" + values[i]), UCI_OK);
            ASSERT_EQ(uci_add_list(ctx.get(), &ptr), UCI_OK);
            ASSERT_EQ(uci_save(ctx.get(), ptr.p), UCI_OK);
        }
    }
    std::string expect_list = "[";
    for (size_t i = 0; i < values.size(); ++i)
        expect_list += (i ? "|" : "") + values[i];
    expect_list += "]";

    auto check = [&](const char *stage) {
        SCOPED_TRACE(stage);
        UciPtr ctx = open_ctx(dir);
        uci_package *p = load(ctx.get());
        ASSERT_NE(p, nullptr);
        for (size_t i = 0; i < values.size(); ++i)
            EXPECT_EQ(value_of(ctx.get(), p, "s", ("o" + std::to_string(i)).c_str()), values[i]);
        EXPECT_EQ(value_of(ctx.get(), p, "s", "l"), expect_list);
    };
    check("replayed from the delta file");
    {
        UciPtr ctx = open_ctx(dir);
        uci_package *p = load(ctx.get());
        ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    }
    EXPECT_EQ(read_file(dir.save_file(kPkg)), "");
    check("read from the committed file");
}

// A package in the override directory hides the confdir's one and takes its commits; without
// one, or with the override directory switched off, the confdir's is read.
TEST_F(Uci, OverrideDirectoryHidesTheConfdirsPackage)
{
    const std::string over = dir.root() + "/over";
    ASSERT_EQ(mkdir(over.c_str(), 0700), 0);
    write_file(dir.conf_file(kPkg), "config t s\n\toption o 'base'\n");
    {
        UciPtr ctx = open_ctx(dir);
        EXPECT_STREQ(ctx->conf2dir, UCI_CONF2DIR);
        ASSERT_EQ(uci_set_conf2dir(ctx.get(), over.c_str()), UCI_OK);
        uci_package *p = load(ctx.get());
        ASSERT_NE(p, nullptr);
        EXPECT_FALSE(p->uses_conf2);
        EXPECT_EQ(value_of(ctx.get(), p, "s", "o"), "base");
    }
    write_file(over + "/" + kPkg, "config t s\n\toption o 'over'\n");
    {
        UciPtr ctx = open_ctx(dir);
        ASSERT_EQ(uci_set_conf2dir(ctx.get(), over.c_str()), UCI_OK);
        set_and_save(ctx.get(), std::string(kPkg) + ".s.n=new");
        uci_package *p = uci_lookup_package(ctx.get(), kPkg);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(p->uses_conf2);
        EXPECT_EQ(value_of(ctx.get(), p, "s", "o"), "over");
        ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    }
    EXPECT_NE(read_file(over + "/" + kPkg).find("option n 'new'"), std::string::npos);
    EXPECT_EQ(read_file(dir.conf_file(kPkg)), "config t s\n\toption o 'base'\n");
    {
        UciPtr ctx = open_ctx(dir);
        ASSERT_EQ(uci_set_conf2dir(ctx.get(), nullptr), UCI_OK);
        EXPECT_EQ(ctx->conf2dir, nullptr);
        uci_package *p = load(ctx.get());
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(value_of(ctx.get(), p, "s", "o"), "base");
    }
}

TEST_F(Uci, ListAndStringOptions)
{
    write_file(dir.conf_file(kPkg),
               "config t s\n\toption str one\n\tlist lst a\n\tlist lst b\n\tlist lst a\n");
    UciPtr ctx = open_ctx(dir);
    uci_package *p = load(ctx.get());
    uci_section *s = uci_lookup_section(ctx.get(), p, "s");
    EXPECT_STREQ(uci_lookup_option_string(ctx.get(), s, "str"), "one");
    EXPECT_EQ(uci_lookup_option_string(ctx.get(), s, "lst"), nullptr);
    EXPECT_EQ(uci_lookup_option(ctx.get(), s, "lst")->type, UCI_TYPE_LIST);

    uci_ptr ptr;
    SCOPED_TRACE("add_list on a string makes a list, old value first");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.str=two"), UCI_OK);
    ASSERT_EQ(uci_add_list(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "str"), "[one|two]");

    SCOPED_TRACE("del_list removes every equal item; absent option is no error");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.lst=a"), UCI_OK);
    ASSERT_EQ(uci_del_list(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "lst"), "[b]");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.nope=a"), UCI_OK);
    EXPECT_EQ(uci_del_list(ctx.get(), &ptr), UCI_OK);

    SCOPED_TRACE("delete with an index removes one item");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.str=0"), UCI_OK);
    ASSERT_EQ(uci_delete(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "str"), "[two]");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.str=5"), UCI_OK);
    EXPECT_EQ(uci_delete(ctx.get(), &ptr), UCI_ERR_NOTFOUND);

    SCOPED_TRACE("set on a list makes a string");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.str=plain"), UCI_OK);
    ASSERT_EQ(uci_set(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "str"), "plain");

    SCOPED_TRACE("uci_parse_section matches name and type");
    const uci_parse_option opts[] = {{"str", UCI_TYPE_STRING}, {"lst", UCI_TYPE_STRING},
                                     {"lst", UCI_TYPE_LIST}};
    uci_option *tb[3];
    uci_parse_section(s, opts, 3, tb);
    EXPECT_NE(tb[0], nullptr);
    EXPECT_EQ(tb[1], nullptr);
    EXPECT_NE(tb[2], nullptr);
}

TEST_F(Uci, SetCreatesChangesAndDeletes)
{
    write_file(dir.conf_file(kPkg), "config t s\n\toption a 1\n");
    UciPtr ctx = open_ctx(dir);
    uci_ptr ptr;
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.a=1"), UCI_OK);
    ASSERT_EQ(uci_set(ctx.get(), &ptr), UCI_OK);
    EXPECT_TRUE(uci_list_empty(&ptr.p->delta)) << "same value: no change recorded";

    struct Case {
        const char *str;
        int rc;
    } cases[] = {
        {"ut_pkg.new=type", UCI_OK},         // named section
        {"ut_pkg.new=other", UCI_OK},        // type change
        {"ut_pkg.new.b=x", UCI_OK},          // new option
        {"ut_pkg.gone.b=x", UCI_ERR_INVAL},  // section missing
        {"ut_pkg.s2=bad type", UCI_ERR_INVAL},
        {"ut_pkg.s.a=", UCI_OK},             // empty value deletes
        {"ut_pkg.s.zz=", UCI_OK},            // deleting nothing is fine
        {"ut_pkg.s.a=ctl\x01", UCI_ERR_PARSE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.str);
        int rc = lookup(ctx.get(), ptr, c.str);
        if (rc == UCI_OK)
            rc = uci_set(ctx.get(), &ptr);
        EXPECT_EQ(rc, c.rc);
    }
    uci_package *p = uci_lookup_package(ctx.get(), kPkg);
    EXPECT_STREQ(uci_lookup_section(ctx.get(), p, "new")->type, "other");
    EXPECT_EQ(value_of(ctx.get(), p, "new", "b"), "x");
    EXPECT_EQ(value_of(ctx.get(), p, "s", "a"), "<none>");

    SCOPED_TRACE("a hand-filled ptr is looked up by plain names");
    uci_ptr hand;
    memset(&hand, 0, sizeof hand);
    hand.package = kPkg;
    hand.section = "s";
    hand.option = "c";
    hand.value = "v";
    ASSERT_EQ(uci_set(ctx.get(), &hand), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "c"), "v");

    SCOPED_TRACE("rename and reorder");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.new=renamed"), UCI_OK);
    ASSERT_EQ(uci_rename(ctx.get(), &ptr), UCI_OK);
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s=x"), UCI_OK);
    ASSERT_EQ(uci_rename(ctx.get(), &ptr), UCI_OK);
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.x=renamed"), UCI_OK);
    EXPECT_EQ(uci_rename(ctx.get(), &ptr), UCI_ERR_DUPLICATE);
    ASSERT_EQ(uci_reorder_section(ctx.get(), uci_lookup_section(ctx.get(), p, "renamed"), 0),
              UCI_OK);
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"renamed", "x"}));
    ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);

    SCOPED_TRACE("the saved changes replay to the same state");
    UciPtr fresh = open_ctx(dir);
    uci_package *q = load(fresh.get());
    EXPECT_EQ(section_names(q), (std::vector<std::string>{"renamed", "x"}));
    EXPECT_EQ(value_of(fresh.get(), q, "renamed", "b"), "x");
    EXPECT_EQ(value_of(fresh.get(), q, "x", "c"), "v");
    EXPECT_EQ(value_of(fresh.get(), q, "x", "a"), "<none>");
}

TEST_F(Uci, SaveWritesDeltasAndCommitFoldsThemIn)
{
    const std::string original = "config t s\n\toption a 1\n";
    write_file(dir.conf_file(kPkg), original);
    {
        UciPtr ctx = open_ctx(dir);
        set_and_save(ctx.get(), "ut_pkg.s.a=it's");
        uci_package *p = uci_lookup_package(ctx.get(), kPkg);
        uci_section *added = nullptr;
        ASSERT_EQ(uci_add_section(ctx.get(), p, "rule", &added), UCI_OK);
        EXPECT_TRUE(added->anonymous);
        uci_ptr ptr;
        ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.@rule[-1].l=x"), UCI_OK);
        ASSERT_EQ(uci_add_list(ctx.get(), &ptr), UCI_OK);
        ASSERT_EQ(uci_save(ctx.get(), p), UCI_OK);
        const std::string name = added->e.name;
        EXPECT_EQ(read_file(dir.save_file(kPkg)),
                  "ut_pkg.s.a='it'\\''s'\n+ut_pkg." + name + "='rule'\n|ut_pkg." + name +
                      ".l='x'\n");
    }
    EXPECT_EQ(read_file(dir.conf_file(kPkg)), original) << "save leaves the package file alone";

    SCOPED_TRACE("a fresh load lists the saved changes");
    UciPtr ctx = open_ctx(dir);
    uci_package *p = load(ctx.get());
    int n = 0;
    uci_element *e;
    uci_foreach_element(&p->saved_delta, e)
        ++n;
    EXPECT_EQ(n, 3);

    SCOPED_TRACE("commit writes the file, empties the delta file, replaces *p");
    ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(uci_lookup_package(ctx.get(), kPkg), p);
    EXPECT_EQ(read_file(dir.conf_file(kPkg)),
              "\nconfig t 's'\n\toption a 'it'\\''s'\n\nconfig rule\n\tlist l 'x'\n\n");
    EXPECT_TRUE(file_exists(dir.save_file(kPkg)));
    EXPECT_EQ(read_file(dir.save_file(kPkg)), "");

    SCOPED_TRACE("nothing saved: commit writes nothing");
    ino_t before = inode_of(dir.conf_file(kPkg));
    ASSERT_EQ(uci_commit(ctx.get(), &p, false), UCI_OK);
    EXPECT_EQ(inode_of(dir.conf_file(kPkg)), before);

    SCOPED_TRACE("anonymous names exported only on request");
    ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
    char *buf = nullptr;
    size_t len = 0;
    FILE *mem = open_memstream(&buf, &len);
    ASSERT_EQ(uci_export(ctx.get(), mem, p, true), UCI_OK);
    fclose(mem);
    EXPECT_TRUE(std::regex_match(std::string(buf, len),
                                 std::regex("package ut_pkg\n\nconfig t 's'\n\toption a 'it'\\\\''s'\n\n"
                                            "config rule 'cfg[0-9a-f]{6}'\n\tlist l 'x'\n\n")))
        << buf;
    free(buf);

    SCOPED_TRACE("an empty package commits as one newline");
    write_file(dir.conf_file("ut_empty"), "");
    UciPtr c2 = open_ctx(dir);
    set_and_save(c2.get(), "ut_empty.s=t");
    set_and_save(c2.get(), "ut_empty.s=");
    uci_package *ep = uci_lookup_package(c2.get(), "ut_empty");
    ASSERT_EQ(uci_commit(c2.get(), &ep, false), UCI_OK);
    EXPECT_EQ(read_file(dir.conf_file("ut_empty")), "\n");
}

TEST_F(Uci, ReplaySkipsForeignBrokenAndFailingLines)
{
    write_file(dir.conf_file(kPkg), "config t s\n\tlist l a\n\tlist l b\nconfig t s2\n");
    std::filesystem::create_directory(dir.save());
    std::filesystem::create_directory(dir.root() + "/extra");
    // A read-only search directory is replayed before the save directory.
    write_file(dir.root() + "/extra/" + kPkg, "ut_pkg.s.o='from extra'\nut_pkg.s.p='extra'\n");
    write_file(dir.save_file(kPkg),
               "other.s.o='foreign'\n"
               "ut_pkg.@t[0].o='index syntax'\n"
               "ut_pkg.s.o\n"
               "ut_pkg.nosec.o='no section'\n"
               "garbage line here\n"
               "ut_pkg.s.o='from save'\n"
               "-ut_pkg.s.l='0'\n"
               "^ut_pkg.s2='0'\n"
               "@ut_pkg.s.p='q'\n"
               "~ut_pkg.s.l='zz'\n"
               "ut_pkg.s.x='unterminated\n");
    UciPtr ctx = open_ctx(dir);
    ASSERT_EQ(uci_add_delta_path(ctx.get(), (dir.root() + "/extra").c_str()), UCI_OK);
    EXPECT_EQ(uci_add_delta_path(ctx.get(), dir.save().c_str()), UCI_ERR_DUPLICATE);
    uci_package *p = load(ctx.get());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "o"), "from save");
    EXPECT_EQ(value_of(ctx.get(), p, "s", "l"), "[b]");
    EXPECT_EQ(value_of(ctx.get(), p, "s", "q"), "extra");
    EXPECT_EQ(value_of(ctx.get(), p, "s", "x"), "<none>");
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"s2", "s"}));
}

TEST_F(Uci, RevertDropsSavedChanges)
{
    write_file(dir.conf_file(kPkg), "config t s\n\toption a 1\nconfig t k\n");
    UciPtr ctx = open_ctx(dir);
    set_and_save(ctx.get(), "ut_pkg.s.a=2");
    set_and_save(ctx.get(), "ut_pkg.s.b=3");
    set_and_save(ctx.get(), "ut_pkg.k.c=it's");
    uci_ptr ptr;
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.a"), UCI_OK);
    ASSERT_EQ(uci_revert(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(value_of(ctx.get(), ptr.p, "s", "a"), "1");
    EXPECT_EQ(value_of(ctx.get(), ptr.p, "s", "b"), "3");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s"), UCI_OK);
    ASSERT_EQ(uci_revert(ctx.get(), &ptr), UCI_OK);
    EXPECT_EQ(read_file(dir.save_file(kPkg)), "ut_pkg.k.c='it'\\''s'\n");
}

TEST_F(Uci, LookupSyntax)
{
    write_file(dir.conf_file(kPkg),
               "config a one\n\toption o 1\nconfig b\n\toption o 2\nconfig a\n\toption o 3\n");
    UciPtr ctx = open_ctx(dir);
    uci_package *loaded = load(ctx.get());
    uci_ptr ptr;

    struct Case {
        const char *str;
        int rc;
        const char *value;  // of the option found, or null when incomplete
    } cases[] = {
        {"ut_pkg.@a[0].o", UCI_OK, "1"},
        {"ut_pkg.@a[1].o", UCI_OK, "3"},
        {"ut_pkg.@a[-1].o", UCI_OK, "3"},
        {"ut_pkg.@[1].o", UCI_OK, "2"},
        {"ut_pkg.@a[2].o", UCI_OK, nullptr},
        {"ut_pkg.one.nope", UCI_OK, nullptr},
        {"ut_pkg.none.o", UCI_OK, nullptr},
        {"ut_pkg.bad-name", UCI_ERR_INVAL, nullptr},
        {"ut_pkg.@", UCI_ERR_INVAL, nullptr},
        {"ut_pkg.@a[x]", UCI_ERR_INVAL, nullptr},
        {"a.b.c.d", UCI_ERR_PARSE, nullptr},
        {"ut_pkg.one.bad-opt", UCI_ERR_PARSE, nullptr},
        {"ut_pkg..o", UCI_ERR_INVAL, nullptr},
        {"ut_missing.s.o", UCI_ERR_NOTFOUND, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.str);
        ASSERT_EQ(lookup(ctx.get(), ptr, c.str), c.rc);
        if (c.rc != UCI_OK)
            continue;
        EXPECT_TRUE(ptr.flags & uci_ptr::UCI_LOOKUP_DONE);
        EXPECT_EQ(ptr.p, loaded) << "an already loaded package is reused";
        EXPECT_EQ(ptr.target, UCI_TYPE_OPTION);
        if (c.value) {
            EXPECT_TRUE(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE);
            ASSERT_NE(ptr.o, nullptr);
            EXPECT_STREQ(ptr.o->v.string, c.value);
            EXPECT_EQ(ptr.last, &ptr.o->e);
            EXPECT_STREQ(ptr.section, ptr.s->e.name) << "index syntax gives the real name";
        } else {
            EXPECT_FALSE(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE);
            EXPECT_EQ(ptr.o, nullptr);
        }
    }
    SCOPED_TRACE("split at the first '=' only; index syntax needs extended");
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg.one.o=a=b.c"), UCI_OK);
    EXPECT_STREQ(ptr.value, "a=b.c");
    EXPECT_EQ(ptr.target, UCI_TYPE_OPTION);
    EXPECT_EQ(lookup(ctx.get(), ptr, "ut_pkg.@a[0]", false), UCI_ERR_INVAL);
    ASSERT_EQ(lookup(ctx.get(), ptr, "ut_pkg"), UCI_OK);
    EXPECT_EQ(ptr.target, UCI_TYPE_PACKAGE);
    EXPECT_EQ(ptr.last, &loaded->e);
}

TEST_F(Uci, ErrorTexts)
{
    UciPtr ctx = open_ctx(dir);
    uci_package *p = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), "ut_missing", &p), UCI_ERR_NOTFOUND);
    EXPECT_EQ(errorstr(ctx.get(), "uci"), "uci: Entry not found");
    EXPECT_EQ(errorstr(ctx.get(), nullptr), "Entry not found");
    testing::internal::CaptureStderr();
    uci_perror(ctx.get(), "x");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "x: Entry not found\n");

    const char *texts[] = {"Success", "Out of memory", "Invalid argument", "Entry not found",
                           "I/O error", "Parse error", "Duplicate entry", "Unknown error",
                           "Unknown error"};
    for (int code = 0; code <= UCI_ERR_LAST; ++code) {
        ctx->err = code;
        EXPECT_EQ(errorstr(ctx.get(), nullptr), texts[code]);
    }

    SCOPED_TRACE("parse details belong to the parse error only");
    write_file(dir.conf_file(kPkg), "config a\nfoo bar\n");
    ASSERT_EQ(uci_load(ctx.get(), kPkg, &p), UCI_ERR_PARSE);
    EXPECT_EQ(errorstr(ctx.get(), "uci"), "uci: Parse error (invalid command) at line 2, byte 7");
    uci_ptr ptr;
    ASSERT_EQ(lookup(ctx.get(), ptr, "a.b.c.d"), UCI_ERR_PARSE);
    EXPECT_EQ(errorstr(ctx.get(), "uci"), "uci: Parse error");
}

// Each malformed file fails to load with its reason and line, adds no
// package, and is left byte for byte as it was. Lenient mode skips the line.
TEST_F(Uci, MalformedFilesFailAndStayUnchanged)
{
    struct Case {
        const char *text;
        const char *reason;
        int line;
    } cases[] = {
        {"bogus line\n", "invalid command", 1},
        {"\x01\x02 binary\n", "invalid command", 1},
        {"config\n", "insufficient arguments", 1},
        {"config a b c\n", "too many arguments", 1},
        {"option x y\n", "option/list command found before the first section", 1},
        {"config s\n\toption bad-name v\n", "invalid character in name field", 2},
        {"config s\n\toption x y z\n", "too many arguments", 2},
        {"config 'a b'\n", "invalid character in type field", 1},
        {"config t 'n.x'\n", "invalid character in name field", 1},
        {"config a\n\toption x 'open\n\n", "EOF with unterminated '", 2},
        {"config a\n\toption x \"open\n", "EOF with unterminated \"", 2},
        {"config a x\nconfig b x\n", "section of different type overwrites prior section with same name", 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        write_file(dir.conf_file(kPkg), c.text);
        UciPtr ctx = open_ctx(dir);
        uci_package *p = nullptr;
        ASSERT_EQ(uci_load(ctx.get(), kPkg, &p), UCI_ERR_PARSE);
        EXPECT_EQ(p, nullptr);
        EXPECT_TRUE(uci_list_empty(&ctx->root));
        ASSERT_NE(ctx->pctx, nullptr);
        EXPECT_STREQ(ctx->pctx->reason, c.reason);
        EXPECT_EQ(ctx->pctx->line, c.line);

        // A change aimed at the broken package fails and writes nothing.
        uci_ptr ptr;
        EXPECT_EQ(lookup(ctx.get(), ptr, "ut_pkg.s.o=v"), UCI_ERR_PARSE);
        EXPECT_EQ(read_file(dir.conf_file(kPkg)), c.text);
        EXPECT_FALSE(file_exists(dir.save_file(kPkg)));
    }

    SCOPED_TRACE("lenient parsing skips bad lines");
    write_file(dir.conf_file(kPkg), "config t s\nbogus\n\toption a 1\n");
    UciPtr ctx = open_ctx(dir);
    ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_STRICT);
    uci_package *p = load(ctx.get());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(value_of(ctx.get(), p, "s", "a"), "1");
}

// The daemon's write: fresh context, load, set, save, commit.
int write_once(const TestDir &dir, const std::string &opt, const std::string &value)
{
    UciPtr ctx = open_ctx(dir);
    uci_package *p = nullptr;
    if (uci_load(ctx.get(), kPkg, &p) != UCI_OK)
        return 1;
    std::string str = std::string(kPkg) + ".s." + opt + "=" + value;
    std::vector<char> buf(str.begin(), str.end());
    buf.push_back('\0');
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    if (uci_lookup_ptr(ctx.get(), &ptr, buf.data(), true) != UCI_OK ||
        uci_set(ctx.get(), &ptr) != UCI_OK || uci_save(ctx.get(), ptr.p) != UCI_OK ||
        uci_commit(ctx.get(), &ptr.p, false) != UCI_OK)
        return 2;
    return 0;
}

// Every write of every writer is in the final file, which always parses.
void expect_all_writes(const TestDir &dir, int writers, int rounds, const std::string &value)
{
    UciPtr ctx = open_ctx(dir);
    uci_package *p = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), kPkg, &p), UCI_OK);
    for (int w = 0; w < writers; ++w) {
        for (int r = 0; r < rounds; ++r) {
            std::string opt = "w" + std::to_string(w) + "_" + std::to_string(r);
            ASSERT_EQ(value_of(ctx.get(), p, "s", opt.c_str()), value) << opt;
        }
    }
    for (const auto &entry : std::filesystem::directory_iterator(dir.conf()))
        EXPECT_EQ(entry.path().filename(), kPkg) << "no temporary file left behind";
    EXPECT_EQ(read_file(dir.save_file(kPkg)), "");
}

#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

TEST_F(Uci, ConcurrentProcessesCommitWithoutTearingOrLosingChanges)
{
    if (kThreadSanitizer)
        GTEST_SKIP() << "forked writers share no memory; the thread test covers the race checker";
    constexpr int kWriters = 2, kRounds = 25;
    // Long values make each commit write well past one page.
    const std::string value(3000, 'v');
    write_file(dir.conf_file(kPkg), "config t s\n");
    std::vector<pid_t> pids;
    for (int w = 0; w < kWriters; ++w) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int r = 0; r < kRounds; ++r) {
                int rc = write_once(dir, "w" + std::to_string(w) + "_" + std::to_string(r), value);
                if (rc != 0)
                    _exit(rc);
            }
            _exit(0);
        }
        pids.push_back(pid);
    }
    // A reader beside them must never see a partly written file.
    pid_t reader = fork();
    ASSERT_GE(reader, 0);
    if (reader == 0) {
        for (int i = 0; i < 100; ++i) {
            UciPtr ctx = open_ctx(dir);
            uci_package *p = nullptr;
            if (uci_load(ctx.get(), kPkg, &p) != UCI_OK)
                _exit(3);
        }
        _exit(0);
    }
    pids.push_back(reader);
    for (pid_t pid : pids) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
    expect_all_writes(dir, kWriters, kRounds, value);
}

// Threads of one process, each with its own context, as the daemon's are.
TEST_F(Uci, ConcurrentThreadsWithOwnContextsCommitSafely)
{
    constexpr int kWriters = 3, kRounds = 10;
    write_file(dir.conf_file(kPkg), "config t s\n");
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, w] {
            for (int r = 0; r < kRounds; ++r) {
                if (write_once(dir, "w" + std::to_string(w) + "_" + std::to_string(r), "x") != 0)
                    failures.fetch_add(1, std::memory_order_relaxed);
            }
        });
    }
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(failures.load(std::memory_order_relaxed), 0);
    expect_all_writes(dir, kWriters, kRounds, "x");
}

}  // namespace
