#!/bin/sh
# What can be seen of the Yocto and Buildroot definitions without either: that the makefile can be read and gives the
# options that are wanted, that checksums and version are those of this tree.
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/../.." && pwd)
cd "$top/packaging"

fail() {
    echo "recipes.sh: $1" >&2
    exit 1
}

version=$(sed -n 's/^project(keyward VERSION \([0-9.]*\).*/\1/p' "$top/CMakeLists.txt")
[ -n "$version" ] || fail "CMakeLists.txt has no version"

# --- Buildroot --------------------------------------------------------------------------------------------------

# Stands in for what Buildroot defines; the last line shows what it would be told.
read_makefile() {
    # shellcheck disable=SC2016 # for make
    printf '%s\n' 'qstrip = $(strip $(subst ",,$(1)))' \
        'cmake-package = all: ; @echo $(KEYWARDD_VERSION) $(KEYWARDD_CONF_OPTS) $(KEYWARDD_DEPENDENCIES)' \
        'include $(BR2_EXTERNAL_KEYWARDD_PATH)/external.mk' |
        make --warn-undefined-variables -s -f - BR2_EXTERNAL_KEYWARDD_PATH="$PWD/buildroot" BR2_INIT_SYSTEMD="$1" \
            BR2_PACKAGE_KEYWARDD_SITE='"."' BR2_PACKAGE_KEYWARDD_CTL="$2" 2>&1
}

for systemd in y n; do
    for client in y n; do
        seen=$(read_makefile "$systemd" "$client")
        case $client:$seen in
            y:"$version "*-DKEYWARD_CTL=ON*cxxtools*cli11 | n:"$version "*-DKEYWARD_CTL=OFF*cxxtools*) ;;
            *) fail "the makefile for Buildroot gives: $seen" ;;
        esac
    done
done
grep -q "^sha256  $(sha256sum "$top/LICENSE" | cut -d' ' -f1)  LICENSE$" buildroot/package/keywardd/keywardd.hash ||
    fail "the checksum of LICENSE in keywardd.hash is another"

# --- Yocto ------------------------------------------------------------------------------------------------------

recipe=yocto/recipes-core/keywardd/keywardd_$version.bb
[ -f "$recipe" ] || fail "there is no $recipe"
grep -q "md5=$(md5sum "$top/LICENSE" | cut -d' ' -f1)" "$recipe" || fail "the checksum of LICENSE in the recipe is another"
# The Python in it, and that every bracket and quote of a shell function is closed.
sed -n '/^do_install:append() {$/,/^}$/p' "$recipe" | sed 's/^do_install:append/do_install_append/; s/\${@[^}]*}/true/' |
    sh -n || fail "do_install of the recipe is no shell"
sed -n 's/.*\${@\([^}]*\)}.*/\1/p' "$recipe" |
    python3 -c 'import ast, sys; [ast.parse(line.strip()) for line in sys.stdin]' || fail "the recipe's Python is none"

# Both make the accounts that sysusers.d makes.
# shellcheck disable=SC2013 # a name a line
for group in $(sed -n 's/^g \([^ ]*\).*/\1/p' "$top/platform/sysusers.d/keywardd.conf"); do
    grep -q "^GROUPADD_PARAM.*$group" "$recipe" || fail "the recipe does not make the group $group"
    grep -q "^	- -1 $group " buildroot/package/keywardd/keywardd.mk || fail "keywardd.mk does not make the group $group"
done
echo "recipes for version $version: read without a finding"
