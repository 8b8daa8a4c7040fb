# pkg-test.sh - what scripts/ipk-test and scripts/apk-test share: refusals and checks, and the
# maintainer scripts run in an image root and on a sandboxed device. Sourced after $here is
# set; each target's loop sets $arch and $work (the folder of its scratch files) and zeroes
# $passed and $failed.

status=0

# Refusals: one line naming what is wrong, a non-zero exit.
refused() {  # EXPECTED-TEXT COMMAND...
    local text=$1 out rc=0
    shift
    out=$("$@" 2>&1) || rc=$?
    if [ "$rc" -eq 0 ] || [ "$(wc -l <<<"$out")" -ne 1 ] || ! grep -qF -- "$text" <<<"$out"; then
        echo "FAILED: '$*' should refuse with '$text', got (exit $rc): $out" >&2
        status=1
    fi
}

check() {  # DESCRIPTION COMMAND...: one check
    local what=$1
    shift
    if "$@" >"$work.out" 2>&1; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAILED ($arch): $what" >&2
        sed 's/^/    /' "$work.out" >&2
    fi
}

same() { [ "$1" = "$2" ] || { echo "expected: $2"; echo "got:      $1"; return 1; }; }

# A maintainer script in an image being assembled: the service is enabled or disabled through
# that root's rc.common (here one that records what it is asked), nothing runs.
in_image() {  # SCRIPT [FILES]: what rc.common was asked; FILES (a folder) are in the image
    local img=$work/image
    rm -rf "$img" && mkdir -p "$img/etc"
    [ -z "${2:-}" ] || cp -a "$2/." "$img/"
    printf '#!/bin/sh\necho "$*" >> "%s/rc.log"\n' "$img" >"$img/etc/rc.common"
    IPKG_INSTROOT=$img sh "$1" || return 1
    sed "s|$img|ROOT|g" "$img/rc.log"
}

# Maintainer scripts on a live device (the sandbox, with an init script that records what it
# is asked): one line per command, what the init script was asked while it ran.
on_device() {  # "[VAR=VALUE...] sh SCRIPT"...
    mkdir -p "$work/stage/usr"
    env NMS_STAGE="$work/stage/usr" NMS_SANDBOX_SERVICES= "$here/scripts/sandbox" sh -c '
        mkdir -p /etc/init.d
        printf "#!/bin/sh\necho \"\$1\" >> /tmp/init.log\n" >/etc/init.d/nms_report
        chmod 755 /etc/init.d/nms_report
        for c; do
            rm -f /tmp/init.log; env $c >/dev/null || echo failed; paste -sd" " /tmp/init.log
        done' _ "$@"
}
