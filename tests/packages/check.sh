#!/bin/sh
# check.sh WHAT BUILD_DIR SOURCE_DIR: check the Debian packages, installed by dpkg into a folder with its own database.
set -eu
packages=$3/build/packages
work=$2/packages-tests
root=$work/root
database=$root/var/lib/dpkg
libraries=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
PATH=$PATH:/usr/sbin:/sbin # dpkg looks for ldconfig there

install_packages() { # PACKAGE...
    for package in "$@"; do
        set -- "$@" "$packages/${package}"_*.deb
        shift
    done
    dpkg --root="$root" --log="$work/dpkg.log" --force-not-root --install "$@" > "$work/log" 2>&1
}

# answers PROGRAM: it must print 127.0.0.1, the address that it looks up, possibly with other text.
answers() {
    LD_LIBRARY_PATH=$libraries "$1" 127.0.0.1 | grep -q '^127\.0\.0\.1'
}

case $1 in
install)
    # dpkg refuses each package before its dependencies are installed.
    rm -rf "$work"
    mkdir -p "$database/info"
    touch "$database/status"
    while read -r package other; do
        if install_packages "$package" || ! grep -q "^ ${package}[:a-z0-9]* depends on $other\\b" "$work/log"; then
            echo "$package does not need $other"
            exit 1
        fi
    done << 'EOF'
libdnscache0 libc6
libdnscache0 libglib2.0-0
libdnscache-dev libdnscache0
libdnscache-dev libglib2.0-dev
dnscache-tools libdnscache0
dnscache-tools libjson-glib-1.0-0
EOF
    dpkg-query -s libc6 libglib2.0-0 libglib2.0-dev libjson-glib-1.0-0 > "$work/system"
    (echo && cat "$work/system") >> "$database/status"
    install_packages libdnscache0 libdnscache-dev dnscache-tools || { cat "$work/log"; exit 1; }
    ;;
symbols)
    # The package build fails on unlisted symbols, but not on symbols that are listed as new and missing.
    sed -n 's/^ \(.*\)@Base.*/\1/p' "$database"/info/libdnscache0:*.symbols | sort > "$work/listed"
    nm -D --defined-only "$libraries"/*.so | awk 'NF == 3 { print $3 }' | sort > "$work/exported"
    [ -s "$work/exported" ]
    diff -u "$work/listed" "$work/exported"
    ;;
program)
    answers "$root/usr/bin/dnscache-lookup"
    said=$(LD_LIBRARY_PATH=$libraries "$root/usr/bin/dnscache-lookup" --version)
    installed=$(dpkg-query --admindir="$database" -W -f '${Version}' dnscache-tools)
    [ "$said" = "dnscache-lookup $installed" ]
    ;;
host)
    flags=$(PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs dnscache dnscache-linux)
    # shellcheck disable=SC2086 # several words
    $CC -Wall -Wextra -Werror "$3/tests/install/host.c" -o "$work/host" $flags
    answers "$work/host"
    for example in "$root"/usr/share/doc/libdnscache-dev/examples/*.c; do
        # shellcheck disable=SC2086 # several words
        $CC -Wall -Wextra -Werror "$example" -o "$work/example" $flags
    done
    ;;
hardening)
    for file in "$root/usr/bin/dnscache-lookup" "$libraries/libdnscache.so.0" "$libraries/libdnscache-linux.so.0"; do
        case $file in
        */bin/*) kind='NOW PIE' ;;
        *) kind=NOW ;;
        esac
        readelf -dlW --dyn-syms "$file" > "$work/readelf"
        for sign in "FLAGS_1.* $kind\$" GNU_RELRO __stack_chk_fail@ _chk@; do
            grep -q -e "$sign" "$work/readelf" || { echo "$file: no $sign"; exit 1; }
        done
        ! grep -E 'R(UN)?PATH' "$work/readelf" || exit 1
    done
    ;;
lintian)
    TMPDIR=$work lintian --fail-on error,warning "$packages"/*.changes # lintian leaves files in TMPDIR
    ;;
esac
