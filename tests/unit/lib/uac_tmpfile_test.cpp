// uac_tmpfile_test.cpp - files in a folder everybody may write: links are never followed,
// a file or folder that is not the daemon's is never used, and removing one never leaves
// its tree.
#include "uac_tmpfile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace {

class TmpFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/uac_tmpfile_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        outside_ = dir_ + "/outside";
        ASSERT_EQ(mkdir(outside_.c_str(), 0700), 0);
        victim_ = outside_ + "/victim";
        write(victim_, "keep\n", 0600);
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

    static void write(const std::string &path, const std::string &text, mode_t mode)
    {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        fchmod(fd, mode);  // past the umask
        close(fd);
    }
    static std::string read(const std::string &path)
    {
        std::string out;
        int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0)
            return "<none>";
        char buf[256];
        ssize_t n;
        while ((n = ::read(fd, buf, sizeof buf)) > 0)
            out.append(buf, static_cast<size_t>(n));
        close(fd);
        return out;
    }
    static bool is_link(const std::string &path)
    {
        struct stat st;
        return lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
    }
    std::string path(const char *name) const { return dir_ + "/" + name; }

    std::string dir_, outside_, victim_;
};

TEST_F(TmpFile, CreateReplacesALinkOrAStrangersFileAndNeverWritesThroughIt)
{
    const std::string link = path("sym");
    ASSERT_EQ(symlink(victim_.c_str(), link.c_str()), 0);
    int fd = uac_tmp_create(link.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::write(fd, "x", 1), 1);
    EXPECT_TRUE(uac_tmp_is_ours(fd, link.c_str()));
    close(fd);
    EXPECT_FALSE(is_link(link));
    EXPECT_EQ(read(victim_), "keep\n");
    struct stat st;
    ASSERT_EQ(stat(link.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);

    // A folder under the name is not removed: that is not a stale scratch file.
    ASSERT_EQ(mkdir(path("d").c_str(), 0700), 0);
    EXPECT_EQ(uac_tmp_create(path("d").c_str()), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(TmpFile, IsOursRefusesOpenFilesSecondNamesAndASwappedPath)
{
    const std::string f = path("f");
    int fd = uac_tmp_create(f.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(uac_tmp_is_ours(fd, f.c_str()));
    EXPECT_TRUE(uac_tmp_is_ours(fd, nullptr));

    fchmod(fd, 0622);  // others may write
    EXPECT_FALSE(uac_tmp_is_ours(fd, nullptr));
    fchmod(fd, 0600);

    ASSERT_EQ(link(f.c_str(), path("second").c_str()), 0);  // a name somebody else holds
    EXPECT_FALSE(uac_tmp_is_ours(fd, nullptr));
    unlink(path("second").c_str());

    // What a shell command wrote to the path is not fd's file once the name was replaced.
    unlink(f.c_str());
    write(f, "41414141\n", 0600);
    EXPECT_FALSE(uac_tmp_is_ours(fd, f.c_str()));
    close(fd);
}

TEST_F(TmpFile, OpenAppendKeepsItsOwnFileAndRemakesAnythingElse)
{
    const std::string f = path("capture");
    int replaced = -1;

    SCOPED_TRACE("missing: made, when asked to");
    EXPECT_EQ(uac_tmp_open_append(f.c_str(), 0, &replaced), -1);
    int fd = uac_tmp_open_append(f.c_str(), 1, &replaced);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(replaced, 0);
    EXPECT_EQ(::write(fd, "one\n", 4), 4);
    close(fd);

    SCOPED_TRACE("its own file: appended to");
    fd = uac_tmp_open_append(f.c_str(), 0, &replaced);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::write(fd, "two\n", 4), 4);
    close(fd);
    EXPECT_EQ(read(f), "one\ntwo\n");
    EXPECT_EQ(replaced, 0);

    SCOPED_TRACE("a file others may write: refused, or made anew");
    chmod(f.c_str(), 0666);
    EXPECT_EQ(uac_tmp_open_append(f.c_str(), 0, &replaced), -1);
    EXPECT_EQ(errno, EPERM);
    fd = uac_tmp_open_append(f.c_str(), 1, &replaced);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(replaced, 1);
    close(fd);
    EXPECT_EQ(read(f), "");

    SCOPED_TRACE("a link: never followed");
    unlink(f.c_str());
    ASSERT_EQ(symlink(victim_.c_str(), f.c_str()), 0);
    EXPECT_EQ(uac_tmp_open_append(f.c_str(), 0, &replaced), -1);
    EXPECT_EQ(errno, ELOOP);
    fd = uac_tmp_open_append(f.c_str(), 1, &replaced);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(::write(fd, "x", 1), 1);
    close(fd);
    EXPECT_EQ(replaced, 1);
    EXPECT_FALSE(is_link(f));
    EXPECT_EQ(read(victim_), "keep\n");

    SCOPED_TRACE("a fifo: no hang on the open");
    unlink(f.c_str());
    ASSERT_EQ(mkfifo(f.c_str(), 0600), 0);
    fd = uac_tmp_open_append(f.c_str(), 1, &replaced);
    ASSERT_GE(fd, 0);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    close(fd);
}

TEST_F(TmpFile, DirClaimKeepsItsOwnFolderAndRemovesOthersWithoutLeavingTheTree)
{
    const std::string d = path("cfg");
    EXPECT_EQ(uac_tmp_dir_claim(d.c_str()), 0);  // nothing there

    ASSERT_EQ(mkdir(d.c_str(), 0755), 0);
    write(d + "/pkg", "config x\n", 0644);
    EXPECT_EQ(uac_tmp_dir_claim(d.c_str()), 0);
    EXPECT_EQ(read(d + "/pkg"), "config x\n");

    SCOPED_TRACE("open to others: removed with what it holds, links inside not followed");
    chmod(d.c_str(), 0777);
    ASSERT_EQ(mkdir((d + "/sub").c_str(), 0755), 0);
    ASSERT_EQ(symlink(outside_.c_str(), (d + "/sub/out").c_str()), 0);
    ASSERT_EQ(symlink(victim_.c_str(), (d + "/v").c_str()), 0);
    EXPECT_EQ(uac_tmp_dir_claim(d.c_str()), 1);
    struct stat st;
    EXPECT_NE(lstat(d.c_str(), &st), 0);
    EXPECT_EQ(read(victim_), "keep\n");

    SCOPED_TRACE("a link or a file under the name: removed, the target kept");
    ASSERT_EQ(symlink(outside_.c_str(), d.c_str()), 0);
    EXPECT_EQ(uac_tmp_dir_claim(d.c_str()), 1);
    EXPECT_NE(lstat(d.c_str(), &st), 0);
    EXPECT_EQ(read(victim_), "keep\n");
    write(d, "", 0644);
    EXPECT_EQ(uac_tmp_dir_claim(d.c_str()), 1);
    EXPECT_NE(lstat(d.c_str(), &st), 0);
}

}  // namespace
