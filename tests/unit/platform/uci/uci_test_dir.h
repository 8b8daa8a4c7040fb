// uci_test_dir.h - scratch directories and whole-file helpers for the uci tests.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>

// A fresh directory under the build tree with conf/ and save/ inside,
// removed again when the test ends.
class TestDir {
public:
    TestDir()
    {
        std::string tmpl = std::string(UCI_TEST_ROOT) + "/t.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (!mkdtemp(buf.data()))
            abort();
        root_ = buf.data();
        std::filesystem::create_directory(conf());
    }
    ~TestDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TestDir(const TestDir &) = delete;
    TestDir &operator=(const TestDir &) = delete;

    const std::string &root() const { return root_; }
    std::string conf() const { return root_ + "/conf"; }
    std::string save() const { return root_ + "/save"; }
    std::string conf_file(const std::string &pkg) const { return conf() + "/" + pkg; }
    std::string save_file(const std::string &pkg) const { return save() + "/" + pkg; }

private:
    std::string root_;
};

inline void write_file(const std::string &path, const std::string &text)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

inline ino_t inode_of(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}
