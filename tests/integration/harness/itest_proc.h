// itest_proc.h - what a test reads of a process of the sandbox from /proc: whether it still
// runs, its processor time, a field of its status, its descriptors.
#pragma once

#include "itest.h"

#include <dirent.h>
#include <sys/types.h>

#include <cstring>
#include <sstream>
#include <string>

namespace itest {

// Running, and not a zombie waiting to be reaped.
inline bool alive(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z' &&
           stat[paren + 2] != 'X';
}

// User and system time so far, in clock ticks; -1 when the process is gone.
inline long cpu_ticks(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos)
        return -1;
    std::istringstream in(stat.substr(paren + 2));
    std::string field;
    long total = 0;
    for (int i = 3; i <= 15 && in >> field; i++)
        if (i == 14 || i == 15)
            total += std::stol(field);
    return total;
}

// The number of a field of /proc/<pid>/status ("VmRSS" in kB, "Threads"); -1 when absent.
inline long status_field(pid_t pid, const char *name)
{
    std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/status"));
    const size_t n = strlen(name);
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, n, name) == 0 && line.size() > n && line[n] == ':')
            return std::stol(line.substr(n + 1));
    return -1;
}

// Open descriptors; -1 when the process is gone.
inline int open_fds(pid_t pid)
{
    DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!d)
        return -1;
    int n = 0;
    while (dirent *e = readdir(d))
        n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

}  // namespace itest
