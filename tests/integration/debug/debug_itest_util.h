// debug_itest_util.h - shared steps of the debug facility sandbox tests: installing
// and starting the test process, and a raw datagram client for the command socket.
#pragma once

#include <string>

namespace dbgtest {

// Environment for processes whose crash handlers are under test: the address
// sanitizer (when built with it) must leave SIGSEGV and SIGBUS to the program and
// not report the process's deliberate leaks at exit.
constexpr const char *kSanitizerEnv =
    "ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:allow_user_segv_handler=1:detect_leaks=0 ";

// Copies udbg_testd and its symbol lists to /usr/bin (the sandbox's own layer).
void install_testd();

// Starts "udbg_testd <mode>" in the background, output into out_file, and waits
// until its service socket exists. False when it did not come up.
bool start_testd(const std::string &mode, const std::string &out_file);

// A Unix datagram socket of its own, bound at path, for talking to a server raw.
class DgramClient {
public:
    explicit DgramClient(const std::string &path);
    ~DgramClient();
    DgramClient(const DgramClient &) = delete;
    DgramClient &operator=(const DgramClient &) = delete;
    bool send_to(const std::string &server, const std::string &text);
    // The next datagram, or false when none came within timeout_ms.
    bool receive(std::string *text, int timeout_ms);
    const std::string &path() const { return path_; }

private:
    int fd_;
    std::string path_;
};

}  // namespace dbgtest
