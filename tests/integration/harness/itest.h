// itest.h - helpers for integration tests that run inside scripts/sandbox.
//
// The binary's main() re-executes itself inside a fresh sandbox for every run
// that is not a listing, so a test body sees the device paths (/tmp, /etc/config,
// /var/run/ubus.sock, the message queues) of its own private device.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace itest {

struct Result {
    int status;          // exit status of the command, 128+signal when killed
    std::string output;  // standard output and standard error, interleaved
};

// Runs a shell command and collects what it prints.
Result run(const std::string &cmd);

// Whole content of a file; empty when it cannot be read.
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);
bool file_exists(const std::string &path);

// Polls pred every 50 ms until it holds or the time is up; true when it held. Under an
// emulator (emulated()) the time given is stretched by emulation_factor(): it only bounds
// how long a test waits for what must happen, and qemu-user runs a device's code several
// times slower than this host's.
bool wait_until(const std::function<bool()> &pred,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

// The qemu-user the sandbox's programs run under (NMS_TEST_EMULATOR), or null on this host.
const char *emulated();
int emulation_factor();

// What the sandbox's processes printed on /dev/console so far.
std::string console();

// The sandbox's scratch folder (logs of the services it started).
const char *sandbox_dir();

// Points the reporting library at url (its settings, read on every send): tests move the cloud
// while the daemon runs. The daemon must run without INFO_REPORT_URL, which wins over them.
void set_cloud_url(const std::string &url);

// Puts a `ubus` first on this process's PATH (in /tmp/standin) that answers the two
// identity queries the daemon's reports make, as the device's services would:
// `varnServer getInfo` with mac, `cloudclient get_site_id` with site_id; anything
// else fails with status 4 (not found).
void install_identity_stand_in(const std::string &mac, const std::string &site_id);

}  // namespace itest
