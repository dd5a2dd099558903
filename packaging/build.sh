#!/bin/sh
# Installs what is missing, builds the Debian packages for amd64 and armhf into build/packages, and tests them. From
# any folder, as root or as a user with sudo.
#
#   packaging/build.sh             everything
#   packaging/build.sh amd64       one architecture only (the machine's own, or armhf)
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
output=$top/build/packages
native=$(dpkg --print-architecture)
architectures=${*:-$native armhf}

say() {
    printf '\n== %s\n' "$*"
}

fail() {
    echo "build.sh: $1" >&2
    exit 1
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Runs its arguments; their output is shown when they fail.
quietly() {
    log=$output/$1.log
    shift
    "$@" >"$log" 2>&1 || {
        tail -n 60 "$log" >&2
        fail "this failed (all of it is in $log): $*"
    }
}

# --- Packages ---------------------------------------------------------------------------------------------------

# The tree as it is, changes that are not committed included, without what a build left in it.
stage() {
    rm -rf "$1"
    mkdir -p "$1"
    if [ -e .git ]; then
        git ls-files -z --cached --others --exclude-standard
    else
        find . -path ./build -prune -o -type f -print0
    fi | tar -c --null -T - --ignore-failed-read --warning=no-failed-read | tar -x -C "$1"
    cp -r packaging/debian "$1/debian"
}

# The build dependencies of another architecture are not installed, so they are not looked for (-d).
build_options() {
    if [ "$1" = "$native" ]; then
        echo "-us -uc"
    else
        echo "-us -uc -b -d -a$1"
    fi
}

build() {
    say "Packages for $1"
    version=$(dpkg-parsechangelog -l packaging/debian/changelog -S Version)
    rm -rf "${output:?}/$1"
    stage "$output/$1/keywardd-$version"
    sysroot=
    if [ "$1" = armhf ] && [ "$native" != armhf ]; then
        sysroot=$top/build/armhf-sysroot
    fi
    launcher=
    if command -v ccache >/dev/null 2>&1; then
        launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
    # shellcheck disable=SC2046 # into words
    quietly "build-$1" env -C "$output/$1/keywardd-$version" KEYWARD_SYSROOT="$sysroot" \
        KEYWARD_CMAKE_OPTIONS="$launcher" CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}" \
        DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
        dpkg-buildpackage $(build_options "$1")
    rm -rf "$output/$1/keywardd-$version"
    ls "$output/$1"
}

# A warning is told, an error ends the build.
check_with_lintian() {
    say "lintian, $1"
    lintian --allow-root --fail-on error --tag-display-limit 0 "$output/$1"/*.changes
}

# --- Tests ------------------------------------------------------------------------------------------------------

# Prints the one file that the pattern means.
package_file() {
    for file in "$output/$1/$2"_*_"$1".deb; do
        [ -f "$file" ] || fail "there is no package $2 for $1"
        echo "$file"
    done
}

# The example of the -dev package, built as its reader would, against the package's files in a folder.
build_plugin() {
    say "The example plug-in, built against keywardd-dev for $1"
    rm -rf "$output/plugin"
    mkdir "$output/plugin"
    dpkg-deb -x "$(package_file "$1" keywardd-dev)" "$output/plugin/root"
    pkgconfig=$(echo "$output"/plugin/root/usr/lib/*/pkgconfig)
    quietly plugin-configure env PKG_CONFIG_PATH="$pkgconfig" PKG_CONFIG_SYSROOT_DIR="$output/plugin/root" \
        cmake -S "$output/plugin/root/usr/share/doc/keywardd-dev/examples/plugin" -B "$output/plugin/build"
    quietly plugin-build cmake --build "$output/plugin/build"
    ls "$output/plugin/build/events.so"
}

# A Debian with nothing in it but what is essential, kept for the next time.
make_clean_root() {
    [ ! -s build/clean-root.tar ] || return 0
    say "A clean Debian 12"
    quietly clean-root as_root mmdebstrap --variant=minbase --quiet bookworm "$top/build/clean-root.new.tar"
    mv build/clean-root.new.tar build/clean-root.tar
}

test_native() {
    build_plugin "$native"
    make_clean_root
    say "Install, use, remove and purge in the clean Debian"
    as_root unshare --mount --pid --fork --kill-child \
        "$top/packaging/tests/clean_root.sh" "$top/build/clean-root.tar" "$output/plugin/build/events.so" \
        "$(package_file "$native" keywardd)" "$(package_file "$native" keywardctl)"
}

test_armhf() {
    make_clean_root
    say "The armhf packages under qemu-arm"
    as_root unshare --mount --pid --fork --kill-child \
        "$top/packaging/tests/emulated.sh" "$top/build/clean-root.tar" "$top/build/armhf-sysroot" \
        "$(package_file armhf keywardd)" "$(package_file armhf keywardctl)" "$(package_file armhf keywardd-dev)"
}

# ----------------------------------------------------------------------------------------------------------------

"$top/tools/setup.sh" build package
mkdir -p "$output"
for architecture in $architectures; do
    case $architecture in
        "$native") ;;
        armhf) "$top/tools/armhf.sh" sysroot ;;
        *) fail "no architecture '$architecture'; there are $native and armhf" ;;
    esac
    build "$architecture"
    check_with_lintian "$architecture"
done
for architecture in $architectures; do
    if [ "$architecture" = "$native" ]; then
        test_native
    else
        test_armhf
    fi
done

say "Yocto and Buildroot"
"$top/packaging/tests/recipes.sh"

say "Built and tested"
for architecture in $architectures; do
    for package in "$output/$architecture"/*.deb; do
        printf '%8d kB  %s\n' "$(($(stat -c %s "$package") / 1024))" "${package#"$top"/}"
    done
done
