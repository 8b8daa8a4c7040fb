// ubusd_acl.h - who may do what on the bus, read from the JSON files of the ACL folder.
//
// The rules are the device broker's: root may do everything; any other user only what a
// file grants its user name or group (its primary group or one of its extra groups):
// "access" to the methods of an object, "publish" of an object, "subscribe", "listen" and
// "send" for notifications and events. An object name ending in '*' grants every object
// whose path starts with the rest. A file is read only when it is a regular file owned by
// root:root that neither group nor others may write and others may not execute; the
// others are skipped with a line on standard error, as the device broker logs them.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace ubusd_acl {

enum class Kind { Access, Publish, Subscribe, Listen, Send };

// The peer of one connection, as the kernel saw it connect.
struct Cred {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> extra_gids;  // from /proc/<pid>/status ("Groups:")
    std::string user, group;
};

// The credentials of the process at the other end of a Unix socket; false (and a line on
// standard error) when the kernel does not say, or the user or group has no name: the
// device broker refuses such a client.
bool peer_cred(int fd, Cred *out);

class Rules {
public:
    // Reads every "*.json" of dir again, replacing what was read before.
    void load(const std::string &dir);

    // Whether cred may do kind on object path obj (method: the method called, for Access).
    bool allows(const Cred &cred, const std::string &obj, const char *method, Kind kind) const;

    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        bool partial = false;  // the name ended in '*'
        long uid = -1, gid = -1;
        std::vector<std::string> methods;  // "access" grants; "*" is every method
        bool has_access = false;
        bool publish = false, subscribe = false, listen = false, send = false;
    };
    void add_file(const std::string &path);

    // Sorted by object name (without the '*'), byte order, several per name.
    std::multimap<std::string, Entry> entries_;
};

}  // namespace ubusd_acl
