// itest.cpp - sandbox re-execution and small helpers for integration tests.
#include "itest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace itest {

Result run(const std::string &cmd)
{
    Result r{-1, {}};
    std::string full = "( " + cmd + " ) 2>&1";
    FILE *p = popen(full.c_str(), "r");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        r.output.append(buf, n);
    int st = pclose(p);
    if (WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    else if (WIFSIGNALED(st))
        r.status = 128 + WTERMSIG(st);
    return r;
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

const char *emulated()
{
    const char *e = getenv("NMS_TEST_EMULATOR");
    return e && *e ? e : nullptr;
}

int emulation_factor()
{
    return emulated() ? 6 : 1;
}

bool wait_until(const std::function<bool()> &pred, std::chrono::milliseconds limit)
{
    auto end = std::chrono::steady_clock::now() + limit * emulation_factor();
    for (;;) {
        if (pred())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

const char *sandbox_dir()
{
    const char *d = getenv("NMS_SANDBOX_DIR");
    return d ? d : "/run/sandbox";
}

void set_cloud_url(const std::string &url)
{
    write_file("/etc/config/info_report", "\nconfig cloud 'cloud'\n\toption url '" + url + "'\n");
}

void install_identity_stand_in(const std::string &mac, const std::string &site_id)
{
    mkdir("/tmp/standin", 0755);
    write_file("/tmp/standin/ubus",
               "#!/bin/sh\n"
               "while [ $# -gt 0 ] && [ \"$1\" != call ]; do shift; done\n"   // options first
               "case \"$2 $3\" in\n"
               "'varnServer getInfo') echo '{\"mac\":\"" + mac + "\"}' ;;\n"
               "'cloudclient get_site_id') echo '{\"site_id\":\"" + site_id + "\"}' ;;\n"
               "*) exit 4 ;;\n"
               "esac\n");
    chmod("/tmp/standin/ubus", 0755);
    setenv("PATH", ("/tmp/standin:" + std::string(getenv("PATH"))).c_str(), 1);
}

std::string console()
{
    return read_file(std::string(sandbox_dir()) + "/console");
}

}  // namespace itest

static bool is_listing(int argc, char **argv)
{
    for (int i = 1; i < argc; i++)
        if (strcmp(argv[i], "--gtest_list_tests") == 0)
            return true;
    return false;
}

int main(int argc, char **argv)
{
    if (!getenv("NMS_IN_SANDBOX") && !is_listing(argc, argv)) {
        // Not yet on a private device: run this very binary again inside one.
        std::vector<char *> args;
        std::string sandbox = NMS_SOURCE_DIR "/scripts/sandbox";
        args.push_back(const_cast<char *>(sandbox.c_str()));
        char self[4096];
        ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        if (n <= 0) {
            perror("readlink /proc/self/exe");
            return 2;
        }
        self[n] = '\0';
        args.push_back(self);
        for (int i = 1; i < argc; i++)
            args.push_back(argv[i]);
        args.push_back(nullptr);
        if (!getenv("NMS_STAGE"))
            setenv("NMS_STAGE", NMS_BINARY_DIR "/stage/usr", 1);
        execv(sandbox.c_str(), args.data());
        perror("exec scripts/sandbox");
        return 2;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
