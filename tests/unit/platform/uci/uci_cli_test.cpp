// uci_cli_test.cpp - the uci tool run as a program: outputs, error texts and
// exit codes, the change/commit cycle, show and export formats.
#include "uci_test_dir.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct CliRun {
    int status;
    std::string out;
    std::string err;
};

std::ostream &operator<<(std::ostream &os, const CliRun &r)
{
    return os << "status " << r.status << "\nstdout:\n" << r.out << "\nstderr:\n" << r.err;
}

const char *const kConfig =
    "config iface lan\n"
    "\toption proto static\n"
    "\tlist dns 1.1.1.1\n"
    "\tlist dns 'has blank'\n"
    "\toption multi 'a\nb'\n"
    "config rule\n"
    "\toption name r0\n"
    "config rule\n"
    "\toption name r1\n";

class UciCli : public ::testing::Test {
protected:
    UciCli() { write_file(dir.conf_file("ut"), kConfig); }

    // Runs the tool as "uci" with exactly these arguments.
    CliRun raw(const std::vector<std::string> &args)
    {
        const std::string out = dir.root() + "/stdout", err = dir.root() + "/stderr";
        pid_t pid = fork();
        if (pid == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int in = open("/dev/null", O_RDONLY);
            if (o < 0 || e < 0 || in < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 || dup2(in, 0) < 0)
                _exit(126);
            std::vector<char *> argv{const_cast<char *>("uci")};
            for (const std::string &a : args)
                argv.push_back(const_cast<char *>(a.c_str()));
            argv.push_back(nullptr);
            execv(UCI_BIN, argv.data());
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out), read_file(err)};
    }

    // Runs the tool on this test's configuration and save directories.
    CliRun uci(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"-c", dir.conf(), "-t", dir.save()});
        return raw(args);
    }

    void expect(const std::vector<std::string> &args, const std::string &out,
                const std::string &err = "", int status = 0)
    {
        CliRun r = uci(args);
        EXPECT_EQ(r.status, status) << r;
        EXPECT_EQ(r.out, out) << r;
        EXPECT_EQ(r.err, err) << r;
    }

    TestDir dir;
};

TEST_F(UciCli, GetPrintsTypesValuesAndLists)
{
    expect({"get", "ut.lan"}, "iface\n");
    expect({"get", "ut.lan.proto"}, "static\n");
    // List items with blanks are quoted so the output splits back into items.
    expect({"get", "ut.lan.dns"}, "1.1.1.1 'has blank'\n");
    expect({"-d", ",", "get", "ut.lan.dns"}, "1.1.1.1,'has blank'\n");
    expect({"get", "ut.lan.multi"}, "a\nb\n");
    expect({"get", "ut.@rule[1].name"}, "r1\n");
    expect({"get", "ut.@rule[-1]"}, "rule\n");
    expect({"GET", "ut.@[0].proto"}, "static\n");
}

TEST_F(UciCli, ErrorsAndExitCodes)
{
    const std::string notfound = "uci: Entry not found\n", inval = "uci: Invalid argument\n";
    write_file(dir.conf_file("ut_bad"), "config a\nfoo bar\n");
    struct Case {
        std::vector<std::string> args;
        std::string err;
        int status;
    } cases[] = {
        {{"get", "ut.lan.none"}, notfound, 1},
        {{"get", "ut.@rule[5].name"}, notfound, 1},
        {{"show", "ut.none"}, notfound, 1},
        {{"set", "ut_missing.s.o=v"}, notfound, 1},
        {{"delete", "ut.lan.none"}, notfound, 1},
        {{"rename", "ut.none=x"}, notfound, 1},
        {{"add", "ut_missing", "t"}, notfound, 3},
        {{"get", "ut.bad-name"}, inval, 1},
        {{"get", "ut..proto"}, inval, 1},
        {{"set", "ut.nosec.opt=v"}, inval, 1},
        {{"get", "a.b.c.d"}, "uci: Parse error\n", 1},
        {{"get", "ut_bad.a"}, "uci: Parse error (invalid command) at line 2, byte 7\n", 1},
        {{"set", "ut_bad.a.b=c"}, "uci: Parse error (invalid command) at line 2, byte 7\n", 1},
        {{"get", "ut.lan.proto=x"}, "", 1},
        {{"delete", "ut.lan.dns=abc"}, "", 1},
        {{"-q", "add", "ut_missing", "t"}, "", 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.args[1]);
        expect(c.args, "", c.err, c.status);
    }
    EXPECT_EQ(read_file(dir.conf_file("ut")), kConfig);
    EXPECT_EQ(read_file(dir.conf_file("ut_bad")), "config a\nfoo bar\n");
    EXPECT_FALSE(file_exists(dir.save_file("ut")));

    SCOPED_TRACE("usage");
    struct Usage {
        std::vector<std::string> args;
        int status;
    } usages[] = {
        {{"get"}, 255}, {{"bogus", "x"}, 255}, {{"get", "a", "b"}, 255}, {{}, 0}, {{"-Z"}, 0},
    };
    for (const Usage &u : usages) {
        CliRun r = uci(u.args);
        EXPECT_EQ(r.status, u.status) << r;
        EXPECT_NE(r.err.find("Usage: uci "), std::string::npos) << r;
    }

    SCOPED_TRACE("all packages: a broken one is reported, the others shown");
    CliRun r = uci({"show"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "uci: Parse error (invalid command) at line 2, byte 7\n");
    EXPECT_NE(r.out.find("ut.lan.proto='static'\n"), std::string::npos) << r;

    SCOPED_TRACE("a configuration directory that does not exist");
    r = raw({"-c", dir.root() + "/missing", "show"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, notfound);
}

TEST_F(UciCli, BatchAndImportReadTheInputFile)
{
    const std::string in = dir.root() + "/input";
    SCOPED_TRACE("batch: one command a line until exit; bad lines are reported and skipped");
    write_file(in, "set ut.lan.proto=dhcp\n"
                   "add_list ut.lan.dns='9.9.9.9'\n"
                   "get ut.lan.proto\n"
                   "bogus x\n"
                   "set a b c d e\n"
                   "set a b c\n"  // four words are already too many
                   "exit\n"
                   "set ut.lan.proto=never\n");
    CliRun r = uci({"-f", in, "batch"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(r.out, "dhcp\n");
    EXPECT_EQ(r.err, "Unknown command\nToo many arguments\nToo many arguments\n");
    expect({"changes", "ut"}, "ut.lan.proto='dhcp'\nut.lan.dns+='9.9.9.9'\n");

    SCOPED_TRACE("import: each package of the input written over its file");
    write_file(in, "package sys\nconfig system\n\toption hostname 'ap'\n"
                   "package net\nconfig iface 'wan'\n\tlist dns '8.8.8.8'\n");
    expect({"-f", in, "import"}, "");
    EXPECT_EQ(read_file(dir.conf_file("net")), "\nconfig iface 'wan'\n\tlist dns '8.8.8.8'\n\n");
    expect({"get", "sys.@system[0].hostname"}, "ap\n");

    SCOPED_TRACE("import -m: the input becomes changes to the named package");
    write_file(in, "config iface 'lan'\n\toption mtu '1400'\nconfig rule\n\toption name 'r2'\n");
    expect({"-m", "-f", in, "import", "ut"}, "");
    r = uci({"changes", "ut"});
    EXPECT_NE(r.out.find("ut.lan.mtu='1400'\n"), std::string::npos) << r;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("ut.cfg[0-9a-f]{6}='rule'\nut.cfg[0-9a-f]{6}.name='r2'\n")))
        << r;
    EXPECT_EQ(read_file(dir.conf_file("ut")), kConfig);

    SCOPED_TRACE("bad input");
    EXPECT_EQ(uci({"-m", "import"}).status, 255);  // nothing to merge into
    r = uci({"-f", dir.root() + "/none", "import"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "uci: No such file or directory");
    r = uci({"-q", "-f", dir.root() + "/none", "-f", in, "import"});  // -q silences the tool too
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "");
    r = uci({"-f", in, "-f", in, "import"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "Too many input files.\n");
    write_file(in, "config iface 'x'\n\tbogus word\n");
    r = uci({"-f", in, "import", "ut2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "uci: Parse error (invalid command) at line 2, byte 11\n");
    EXPECT_FALSE(file_exists(dir.conf_file("ut2")));
}

TEST_F(UciCli, ChangesThenCommitThenShowAndExport)
{
    expect({"set", "ut.lan.proto=dhcp"}, "");
    expect({"add_list", "ut.lan.dns=9.9.9.9"}, "");
    expect({"del_list", "ut.lan.dns=1.1.1.1"}, "");
    expect({"delete", "ut.@rule[0]"}, "");
    CliRun add = uci({"add", "ut", "rule"});
    ASSERT_EQ(add.status, 0) << add;
    std::smatch m;
    ASSERT_TRUE(std::regex_match(add.out, m, std::regex("(cfg[0-9a-f]{6})\n"))) << add;
    const std::string added = m[1];
    expect({"set", "ut.new=iface"}, "");
    expect({"rename", "ut.new=newer"}, "");
    expect({"set", "ut.newer.quote=it's"}, "");

    CliRun changes = uci({"changes"});
    EXPECT_EQ(changes.status, 0);
    EXPECT_TRUE(std::regex_match(changes.out,
                                 std::regex("ut.lan.proto='dhcp'\n"
                                            "ut.lan.dns\\+='9.9.9.9'\n"
                                            "ut.lan.dns-='1.1.1.1'\n"
                                            "-ut.cfg[0-9a-f]{6}\n"
                                            "ut." + added + "='rule'\n"
                                            "ut.new='iface'\n"
                                            "ut.new='newer'\n"
                                            "ut.newer.quote='it'\\\\''s'\n")))
        << changes;
    EXPECT_EQ(read_file(dir.conf_file("ut")), kConfig) << "nothing is written before commit";

    expect({"commit", "ut"}, "");
    expect({"changes", "ut"}, "");
    const std::string body =
        "\n"
        "config iface 'lan'\n"
        "\toption proto 'dhcp'\n"
        "\tlist dns 'has blank'\n"
        "\tlist dns '9.9.9.9'\n"
        "\toption multi 'a\nb'\n"
        "\n"
        "config rule\n"
        "\toption name 'r1'\n"
        "\n"
        "config rule\n"
        "\n"
        "config iface 'newer'\n"
        "\toption quote 'it'\\''s'\n"
        "\n";
    EXPECT_EQ(read_file(dir.conf_file("ut")), body);
    expect({"export", "ut"}, "package ut\n" + body);

    expect({"show", "ut"},
           "ut.lan=iface\n"
           "ut.lan.proto='dhcp'\n"
           "ut.lan.dns='has blank' '9.9.9.9'\n"
           "ut.lan.multi='a\nb'\n"
           "ut.@rule[0]=rule\n"
           "ut.@rule[0].name='r1'\n"
           "ut.@rule[1]=rule\n"
           "ut.newer=iface\n"
           "ut.newer.quote='it'\\''s'\n");
    // A single section or option is shown under its real name. The file
    // holds no names for anonymous sections, so loading names them afresh.
    CliRun one = uci({"show", "ut.@rule[1]"});
    ASSERT_TRUE(std::regex_match(one.out, m, std::regex("ut\\.(cfg[0-9a-f]{6})=rule\n"))) << one;
    const std::string loaded = m[1];
    expect({"show", "ut.lan.dns"}, "ut.lan.dns='has blank' '9.9.9.9'\n");
    CliRun named = uci({"-X", "show", "ut"});
    EXPECT_NE(named.out.find("ut." + loaded + "=rule\n"), std::string::npos) << named;
    CliRun exported = uci({"-n", "export", "ut"});
    EXPECT_NE(exported.out.find("config rule '" + loaded + "'\n"), std::string::npos) << exported;
}

TEST_F(UciCli, ValuesRoundTripThroughSetGetAndCommit)
{
    const std::string value = "it's \"q\" \\ #; x=y\n\tsecond line";
    expect({"set", "ut.lan.v=" + value}, "");
    expect({"get", "ut.lan.v"}, value + "\n");
    expect({"commit"}, "");
    expect({"get", "ut.lan.v"}, value + "\n");
    expect({"set", "ut.lan.v="}, "");  // an empty value deletes
    expect({"get", "ut.lan.v"}, "", "uci: Entry not found\n", 1);
}

TEST_F(UciCli, SaveDirOptionKeepsChangesAndCommitDoesNothing)
{
    const std::string pdir = dir.root() + "/pending";
    CliRun r = raw({"-c", dir.conf(), "-P", pdir, "set", "ut.lan.proto=pppoe"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(read_file(pdir + "/ut"), "ut.lan.proto='pppoe'\n");
    r = raw({"-c", dir.conf(), "-P", pdir, "commit", "ut"});
    EXPECT_EQ(r.status, 0) << r;
    EXPECT_EQ(read_file(dir.conf_file("ut")), kConfig);
    r = raw({"-c", dir.conf(), "-P", pdir, "get", "ut.lan.proto"});
    EXPECT_EQ(r.out, "pppoe\n") << r;
    expect({"get", "ut.lan.proto"}, "static\n");
}

TEST_F(UciCli, RevertDropsChanges)
{
    expect({"set", "ut.lan.proto=dhcp"}, "");
    expect({"revert", "ut"}, "");
    expect({"changes"}, "");
}

}  // namespace
