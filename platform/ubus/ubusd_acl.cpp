// ubusd_acl.cpp - the broker's access rules (see ubusd_acl.h).
#include "ubusd_acl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <libubox/blobmsg.h>
extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace ubusd_acl {

namespace {

// The primary and extra groups of pid, as its status file lists them.
std::vector<gid_t> extra_groups(pid_t pid)
{
    std::vector<gid_t> gids;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/status", static_cast<int>(pid));
    FILE *f = fopen(path, "re");
    if (!f)
        return gids;
    char line[512];
    while (fgets(line, sizeof line, f)) {
        if (strncmp(line, "Groups:", 7) != 0)
            continue;
        char *p = line + 7;
        for (;;) {
            char *end = nullptr;
            unsigned long g = strtoul(p, &end, 10);
            if (end == p)
                break;
            gids.push_back(static_cast<gid_t>(g));
            p = end;
        }
        break;
    }
    fclose(f);
    return gids;
}

// Length of the common start of a and b; true when they are equal.
bool match_len(const char *a, const char *b, size_t *len)
{
    for (*len = 0; a[*len] == b[*len]; ++*len)
        if (!a[*len])
            return true;
    return false;
}

}  // namespace

bool peer_cred(int fd, Cred *out)
{
    struct ucred uc = {};
    socklen_t len = sizeof uc;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &uc, &len) != 0) {
        perror("ubusd: getsockopt(SO_PEERCRED)");
        return false;
    }
    const passwd *pw = getpwuid(uc.uid);
    if (!pw) {
        fprintf(stderr, "ubusd: client uid %u has no user name, refusing it\n",
                static_cast<unsigned>(uc.uid));
        return false;
    }
    out->user = pw->pw_name;
    const group *gr = getgrgid(uc.gid);
    if (!gr) {
        fprintf(stderr, "ubusd: client gid %u has no group name, refusing it\n",
                static_cast<unsigned>(uc.gid));
        return false;
    }
    out->group = gr->gr_name;
    out->uid = uc.uid;
    out->gid = uc.gid;
    out->extra_gids = extra_groups(uc.pid);
    return true;
}

void Rules::load(const std::string &dir)
{
    entries_.clear();
    std::string pattern = dir + "/*.json";
    glob_t gl = {};
    if (glob(pattern.c_str(), GLOB_NOESCAPE | GLOB_MARK, nullptr, &gl) != 0)
        return;
    for (size_t i = 0; i < gl.gl_pathc; i++) {
        const char *path = gl.gl_pathv[i];
        struct stat st;
        if (stat(path, &st) != 0 || !S_ISREG(st.st_mode))
            continue;
        // Anyone who may change a rule file could grant themselves the bus.
        if (st.st_uid != 0 || st.st_gid != 0) {
            fprintf(stderr, "ubusd: %s has wrong owner\n", path);
            continue;
        }
        if (st.st_mode & (S_IWOTH | S_IWGRP | S_IXOTH)) {
            fprintf(stderr, "ubusd: %s has wrong permissions\n", path);
            continue;
        }
        add_file(path);
    }
    globfree(&gl);
}

void Rules::add_file(const std::string &path)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (!blobmsg_add_json_from_file(&b, path.c_str())) {
        fprintf(stderr, "ubusd: failed to parse %s\n", path.c_str());
        blob_buf_free(&b);
        return;
    }
    enum { USER, GROUP, ACCESS, PUBLISH, SUBSCRIBE, INHERIT, LISTEN, SEND, MAX };
    static const blobmsg_policy policy[MAX] = {
        {"user", BLOBMSG_TYPE_STRING},     {"group", BLOBMSG_TYPE_STRING},
        {"access", BLOBMSG_TYPE_TABLE},    {"publish", BLOBMSG_TYPE_ARRAY},
        {"subscribe", BLOBMSG_TYPE_ARRAY}, {"inherit", BLOBMSG_TYPE_ARRAY},
        {"listen", BLOBMSG_TYPE_ARRAY},    {"send", BLOBMSG_TYPE_ARRAY},
    };
    blob_attr *tb[MAX];
    blobmsg_parse(policy, MAX, tb, blob_data(b.head), blob_len(b.head));

    // A user name wins over a group. A name the system does not know becomes id 0, which
    // no rule is ever asked about for a user (root passes without one), as on a device.
    Entry proto;
    if (tb[USER]) {
        const passwd *pw = getpwnam(blobmsg_get_string(tb[USER]));
        proto.uid = pw ? static_cast<long>(pw->pw_uid) : 0;
    } else if (tb[GROUP]) {
        const group *gr = getgrnam(blobmsg_get_string(tb[GROUP]));
        proto.gid = gr ? static_cast<long>(gr->gr_gid) : 0;
    } else {
        blob_buf_free(&b);
        return;
    }
    fprintf(stderr, "ubusd: loading %s\n", path.c_str());

    // One entry a grant, keyed by the object name without a final '*'.
    auto add = [&](const char *name, const Entry &grant) {
        size_t len = strlen(name);
        if (!len)
            return;
        Entry e = grant;
        e.uid = proto.uid;
        e.gid = proto.gid;
        e.partial = name[len - 1] == '*';
        entries_.emplace(std::string(name, e.partial ? len - 1 : len), std::move(e));
    };
    blob_attr *cur;
    size_t rem;
    if (tb[ACCESS]) {
        blobmsg_for_each_attr(cur, tb[ACCESS], rem) {
            enum { METHODS, TAGS, PRIV, AMAX };
            static const blobmsg_policy apolicy[AMAX] = {
                {"methods", BLOBMSG_TYPE_ARRAY},
                {"tags", BLOBMSG_TYPE_ARRAY},
                {"acl", BLOBMSG_TYPE_TABLE},
            };
            blob_attr *at[AMAX];
            blobmsg_parse(apolicy, AMAX, at, blobmsg_data(cur), blobmsg_data_len(cur));
            if (!at[METHODS] && !at[TAGS] && !at[PRIV])
                continue;
            Entry grant;
            grant.has_access = true;
            if (at[METHODS]) {
                blob_attr *m;
                size_t mrem;
                blobmsg_for_each_attr(m, at[METHODS], mrem) {
                    if (blobmsg_type(m) == BLOBMSG_TYPE_STRING)
                        grant.methods.emplace_back(blobmsg_get_string(m));
                }
            }
            add(blobmsg_name(cur), grant);
        }
    }
    const struct {
        int slot;
        bool Entry::*flag;
    } lists[] = {{SUBSCRIBE, &Entry::subscribe},
                 {PUBLISH, &Entry::publish},
                 {LISTEN, &Entry::listen},
                 {SEND, &Entry::send}};
    for (const auto &l : lists) {
        if (!tb[l.slot])
            continue;
        blobmsg_for_each_attr(cur, tb[l.slot], rem) {
            if (blobmsg_type(cur) != BLOBMSG_TYPE_STRING)
                continue;
            Entry grant;
            grant.*l.flag = true;
            add(blobmsg_get_string(cur), grant);
        }
    }
    blob_buf_free(&b);
}

bool Rules::allows(const Cred &cred, const std::string &obj, const char *method, Kind kind) const
{
    if (cred.uid == 0)
        return true;
    // The names are sorted, so the matching ones come while the common start with the
    // object's path does not shrink.
    size_t longest = 0;
    for (const auto &kv : entries_) {
        const std::string &key = kv.first;
        const Entry &e = kv.second;
        size_t len = 0;
        bool full = match_len(obj.c_str(), key.c_str(), &len);
        if (len < longest)
            break;
        longest = len;
        if (!full && (!e.partial || len != key.size()))
            continue;
        bool mine = e.uid != -1 && static_cast<long>(cred.uid) == e.uid;
        if (!mine && e.gid != -1) {
            mine = static_cast<long>(cred.gid) == e.gid;
            for (gid_t g : cred.extra_gids)
                mine = mine || static_cast<long>(g) == e.gid;
        }
        if (!mine)
            continue;
        switch (kind) {
        case Kind::Publish:
            if (e.publish)
                return true;
            break;
        case Kind::Subscribe:
            if (e.subscribe)
                return true;
            break;
        case Kind::Listen:
            if (e.listen)
                return true;
            break;
        case Kind::Send:
            if (e.send)
                return true;
            break;
        case Kind::Access:
            for (const auto &m : e.methods) {
                if (m == "*" || (method && m == method))
                    return true;
            }
            break;
        }
    }
    return false;
}

}  // namespace ubusd_acl
