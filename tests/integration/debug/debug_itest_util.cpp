// debug_itest_util.cpp - see debug_itest_util.h.
#include "debug_itest_util.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "itest.h"

namespace dbgtest {

void install_testd()
{
    std::string bin = UDBG_TESTD;
    itest::run("cp " + bin + " " + bin + "_symbol_fun " + bin + "_symbol_obj /usr/bin/");
}

bool start_testd(const std::string &mode, const std::string &out_file)
{
    install_testd();
    itest::run(std::string(kSanitizerEnv) + "/usr/bin/udbg_testd " + mode + " > " + out_file +
               " 2>&1 &");
    return itest::wait_until([] { return itest::file_exists("/tmp/jcs.service.srv.udbg_testd"); });
}

namespace {
sockaddr_un address(const std::string &path, socklen_t *len)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    *len = static_cast<socklen_t>(sizeof a.sun_family + strlen(a.sun_path));
    return a;
}
}  // namespace

DgramClient::DgramClient(const std::string &path) : fd_(socket(AF_UNIX, SOCK_DGRAM, 0)), path_(path)
{
    unlink(path.c_str());
    socklen_t len;
    sockaddr_un a = address(path, &len);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&a), len) != 0) {
        close(fd_);
        fd_ = -1;
    }
    int big = 1 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
}

DgramClient::~DgramClient()
{
    if (fd_ >= 0)
        close(fd_);
    unlink(path_.c_str());
}

bool DgramClient::send_to(const std::string &server, const std::string &text)
{
    socklen_t len;
    sockaddr_un a = address(server, &len);
    return sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&a), len) ==
           static_cast<ssize_t>(text.size());
}

bool DgramClient::receive(std::string *text, int timeout_ms)
{
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return false;
    std::vector<char> buf(1 << 18);
    ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
    if (n < 0)
        return false;
    text->assign(buf.data(), static_cast<size_t>(n));
    return true;
}

}  // namespace dbgtest
