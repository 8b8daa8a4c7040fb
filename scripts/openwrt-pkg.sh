# openwrt-pkg.sh - what scripts/ipk and scripts/apk share: the device build of one OpenWrt
# target for one release, the files of each package, and their dependencies by the release's
# package names. Sourced; sets variables for the caller.
#
#   nms_pkg_setup TOOL ARCH FORMAT   checks ARCH, picks the release whose packages are FORMAT
#                                    (packaging/openwrt/releases) and the recipe's fields
#   nms_pkg_build DIR                the device build, linked against the release's sonames,
#                                    installed into DIR/install
#   nms_pkg_roots                    DIR/root-nms_report, DIR/root-libinfo-report-http and
#                                    DIR/root-$collector: the packages' files, stripped;
#                                    $deps_nms_report, $deps_libinfo and $deps_collector
#                                    (OpenWrt's package names, libc first)
# shellcheck source=cross-arch.sh
. "$here/scripts/cross-arch.sh"

nms_pkg_setup() {
    tool=$1 arch=$2
    local format=$3 row
    nms_cross_arch "$arch" || exit 2
    [ "$CROSS_LIBC" = musl ] ||
        { echo "$tool: $arch is a glibc target; OpenWrt packages are for its musl targets: $NMS_CROSS_MUSL" >&2; exit 2; }
    sysroot=$(nms_sysroots_dir)/$arch
    bin=$(nms_musl_dir)/bin
    [ -x "$bin/$arch-c++" ] ||
        { echo "$tool: the $arch compiler $bin/$arch-c++ is missing: run scripts/install-deps --cross $arch" >&2; exit 2; }
    [ -f "$sysroot/.packages" ] ||
        { echo "$tool: the $arch sysroot $sysroot is missing: run scripts/install-deps --cross $arch" >&2; exit 2; }
    readelf=$bin/llvm-readelf
    strip=$bin/llvm-strip
    row=$(awk -v f="$format" '!/^#/ && $2 == f { print; exit }' "$here/packaging/openwrt/releases")
    read -r release _ abi_ubox abi_ubus abi_uci abi_jsonc <<<"$row"
    [ -n "${abi_jsonc:-}" ] ||
        { echo "$tool: packaging/openwrt/releases names no release whose packages are .$format" >&2; exit 2; }
    recipe=$here/packaging/openwrt/Makefile
    pkg_version=$(nms_pkg_field PKG_VERSION)
    pkg_release=$(nms_pkg_field PKG_RELEASE)
    maintainer=$(nms_pkg_field PKG_MAINTAINER)
    license=$(nms_pkg_field PKG_LICENSE)
    provides_libinfo=$(sed -n 's/^ *PROVIDES:=//p' "$recipe" | head -n 1)
}

nms_pkg_field() { sed -n "s/^$1:=//p" "$recipe" | head -n 1; }

nms_pkg_build() {
    dir=$1
    local gen=() cross_args
    mkdir -p "$dir"
    command -v ninja >/dev/null && gen=(-G Ninja)
    mapfile -t cross_args < <(nms_cross_cmake_args)
    cmake -S "$here" -B "$dir/build" "${gen[@]}" -DCMAKE_BUILD_TYPE=MinSizeRel "${cross_args[@]}" \
        -DNMS_DEVICE_BUILD=ON -DNMS_HTTP_REPORTING=ON -DNMS_LIBUBOX_ABI="$abi_ubox" \
        -DNMS_LIBUBUS_ABI="$abi_ubus" -DNMS_LIBUCI_ABI="$abi_uci" >"$dir.configure.log" 2>&1 ||
        { cat "$dir.configure.log" >&2; echo "$tool: configuring the $arch device build failed" >&2; exit 1; }
    cmake --build "$dir/build" -j"$(nproc)" >"$dir.build.log" 2>&1 ||
        { tail -n 40 "$dir.build.log" >&2; echo "$tool: building for $arch failed" >&2; exit 1; }
    rm -rf "$dir/install"
    DESTDIR="$dir/install" cmake --install "$dir/build" --prefix /usr >/dev/null
    inst=$dir/install/usr
}

# The OpenWrt package of the release that provides each shared library a program needs.
# libc's own (libc.so and the program interpreter) are libc's; the event library comes with
# the daemon. A soname the release has no package for stops the packing: a package whose
# dependencies no image or feed provides would not install.
nms_pkg_package_of() {
    case "$1" in
    libc.so|ld-musl-*.so.1) echo libc ;;
    libgcc_s.so.1) echo libgcc1 ;;
    libstdc++.so.6) echo libstdcpp6 ;;
    libatomic.so.1) echo libatomic1 ;;
    "libjson-c.so.$abi_jsonc") echo "libjson-c$abi_jsonc" ;;
    libcurl.so.4) echo libcurl4 ;;
    "libubox.so.$abi_ubox") echo "libubox$abi_ubox" ;;
    "libblobmsg_json.so.$abi_ubox") echo "libblobmsg-json$abi_ubox" ;;
    "libubus.so.$abi_ubus") echo "libubus$abi_ubus" ;;
    "libuci.so.$abi_uci") echo "libuci$abi_uci" ;;
    libInfo_report.so) echo libInfo_report ;;
    libnms_event_send.so.*) ;;   # in the same package
    *) echo "$tool: no package of OpenWrt $release provides $1, which $2 needs" >&2; return 1 ;;
    esac
}

nms_pkg_depends_of() {  # FILE...: the packages these programs and libraries need, libc first
    local f lib
    for f in "$@"; do
        "$readelf" -d "$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >"$dir/needed" || return 1
        while read -r lib; do nms_pkg_package_of "$lib" "${f##*/}" || return 1; done <"$dir/needed"
    done >"$dir/depends"
    { grep -x libc "$dir/depends"; grep -vx libc "$dir/depends" | sort -u; } | uniq
}

nms_pkg_roots() {
    local root lib
    # The daemon's package.
    root=$dir/root-nms_report
    rm -rf "$root"
    install -d -m 0755 "$root/usr/sbin" "$root/usr/bin" "$root/usr/lib/lua/nms_report" \
        "$root/etc/nms_report" "$root/etc/init.d" "$root/etc/config" "$root/usr/share/acl.d"
    install -m 0755 "$inst/sbin/nms_report" "$root/usr/sbin/"
    install -m 0644 "$inst/sbin/nms_report_symbol_fun" "$inst/sbin/nms_report_symbol_obj" "$root/usr/sbin/"
    install -m 0755 "$inst/bin/nms_event_send" "$inst/bin/nms_dbg" "$root/usr/bin/"
    install -m 0755 "$inst"/lib/libnms_event_send.so.*.* "$root/usr/lib/"
    lib=$(cd "$inst/lib" && ls libnms_event_send.so.*.*)
    ln -s "$lib" "$root/usr/lib/${lib%.*}"   # the soname, libnms_event_send.so.0
    install -m 0644 "$inst"/lib/lua/nms_report/*.lua "$root/usr/lib/lua/nms_report/"
    install -m 0644 "$inst"/share/nms_report/defaults/* "$root/etc/nms_report/"
    install -m 0755 "$here/packaging/openwrt/files/nms_report.init" "$root/etc/init.d/nms_report"
    install -m 0644 "$here/packaging/openwrt/files/nms_report.config" "$root/etc/config/nms_report"
    install -m 0644 "$here/packaging/openwrt/files/nms_report_monitor.json.example" \
        "$root/usr/share/acl.d/"
    # The symbol lists name addresses in the unstripped daemon; stripping keeps them valid.
    "$strip" --strip-unneeded "$root/usr/sbin/nms_report" "$root/usr/bin/nms_event_send" \
        "$root/usr/bin/nms_dbg" "$root/usr/lib/$lib"
    # Then the commands the daemon and its scripts run: ubus, uci and lua.
    deps_nms_report=$(nms_pkg_depends_of "$root/usr/sbin/nms_report" "$root/usr/bin/nms_event_send" \
                      "$root/usr/bin/nms_dbg" "$root/usr/lib/$lib") || exit 1
    deps_nms_report+=$'\nubus\nuci\nlua'

    # The reporting library over HTTP, and its settings.
    root=$dir/root-libinfo-report-http
    rm -rf "$root"
    install -d -m 0755 "$root/usr/lib" "$root/etc/config"
    install -m 0755 "$inst/lib/libInfo_report.so" "$root/usr/lib/"
    install -m 0644 "$here/packaging/openwrt/files/info_report.config" "$root/etc/config/info_report"
    "$strip" --strip-unneeded "$root/usr/lib/libInfo_report.so"
    deps_libinfo=$(nms_pkg_depends_of "$root/usr/lib/libInfo_report.so") || exit 1

    # The exporter's collector: a Lua file for every architecture, run by the exporter, which
    # reads the daemon's object with the ubus command.
    root=$dir/root-$collector
    rm -rf "$root"
    install -d -m 0755 "$root/usr/lib/lua/prometheus-collectors"
    install -m 0644 "$inst/lib/lua/prometheus-collectors/nms_report.lua" \
        "$root/usr/lib/lua/prometheus-collectors/"
    deps_collector=$'prometheus-node-exporter-lua\nnms_report\nubus'
}

collector=prometheus-node-exporter-lua-nms_report
desc_collector="Prometheus node exporter collector of nms_report: what became of every event, statistics commands, bus and cloud link"
desc_nms_report="Event and statistics reporting to the cloud management service (bus object nms_report_cache)"
desc_libinfo="libInfo_report over HTTP (POST to the base URL in UCI), for devices without the vendor's library"

# The maintainer scripts of the package with the init script: what OpenWrt's generated ones
# do for it (default_postinst and default_prerm of /lib/functions.sh), written out so that
# they need nothing of the device's. In an image being assembled ($IPKG_INSTROOT) the service
# is enabled or disabled in that root through its rc.common and nothing runs; on a live device
# it is enabled on a first install only (an upgrade keeps what the user chose), then started,
# and stopped before removal, disabled unless an upgrade follows.
nms_pkg_postinst() {
    printf '%s\n' '#!/bin/sh' \
        '[ "${IPKG_NO_SCRIPT}" = "1" ] && exit 0' \
        'if [ -n "${IPKG_INSTROOT}" ]; then' \
        '	/bin/sh "${IPKG_INSTROOT}/etc/rc.common" "${IPKG_INSTROOT}/etc/init.d/nms_report" enable' \
        '	exit 0' \
        'fi' \
        '[ "${PKG_UPGRADE}" = "1" ] || /etc/init.d/nms_report enable' \
        '/etc/init.d/nms_report start' \
        'exit 0'
}
nms_pkg_prerm() {
    printf '%s\n' '#!/bin/sh' \
        'if [ -n "${IPKG_INSTROOT}" ]; then' \
        '	/bin/sh "${IPKG_INSTROOT}/etc/rc.common" "${IPKG_INSTROOT}/etc/init.d/nms_report" disable' \
        '	exit 0' \
        'fi' \
        '[ "${PKG_UPGRADE}" = "1" ] || /etc/init.d/nms_report disable' \
        '/etc/init.d/nms_report stop' \
        'exit 0'
}

# Settings are conffiles: every file under /etc but the init scripts.
nms_pkg_conffiles() {  # ROOT: their paths, one a line
    [ -d "$1/etc" ] || return 0
    (cd "$1" && find etc -type f ! -path 'etc/init.d/*' | sort | sed 's|^|/|')
}
