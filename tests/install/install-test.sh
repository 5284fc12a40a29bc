#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs the build tree twice, as `make install` does (into a staging folder, prefix
# /usr/local) and as the .deb (unpacked, prefix /usr), and checks what a user gets from each:
# every file in place, a valid desktop entry and units naming the installed programs, manual
# pages that render without warnings and cover every option of --help, programs that tell the
# project's version, the licence and the changelog; then that the install manifest uninstalls
# everything, and that lintian finds nothing to say of the .deb.
# Usage: install-test.sh BUILD_DIR VERSION
set -euo pipefail
build=$1 version=$2
programs=(ferrybox ferrybox-notes ferrybox-json)
tmp=$(mktemp -d)
# Installing rewrites the build tree's install manifest; the one of a real `make install` stays.
manifest=$build/install_manifest.txt
[ ! -e "$manifest" ] || cp -p "$manifest" "$tmp/manifest"
restore() {
    rm -f "$manifest"
    [ ! -e "$tmp/manifest" ] || cp -p "$tmp/manifest" "$manifest"
    rm -rf "$tmp"
}
trap restore EXIT
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
# quiet WHAT COMMAND...: COMMAND must succeed without a word on standard output or error.
quiet() {
    local what=$1 output
    shift
    output=$("$@" 2>&1) && [ -z "$output" ] || fail "$what: $output"
}

# check_install ROOT PREFIX: the files installed under ROOT for programs that run from PREFIX.
check_install() {
    local root=$1 prefix=$2 file size line
    local -A lines=(
        [share/applications/ferrybox.desktop]="Exec=$prefix/bin/ferrybox"
        [lib/systemd/user/ferrybox-notes.service]="ExecStart=$prefix/bin/ferrybox-notes serve"
        [lib/systemd/user/ferrybox-headless.service]="ExecStart=$prefix/bin/ferrybox --headless"
        [share/icons/hicolor/scalable/apps/ferrybox.svg]="<svg"
        [share/doc/ferrybox/README.md]="# Ferrybox"
        [share/doc/ferrybox/copyright]="License: GPL-3+"
    )
    for size in 16 32 48 64 128 256; do
        lines[share/icons/hicolor/${size}x$size/apps/ferrybox.png]=${size}x$size
    done
    for file in "${programs[@]}"; do
        lines[bin/$file]="$file $version"
        lines[share/man/man1/$file.1.gz]="Ferrybox $version"
    done
    for file in "${!lines[@]}"; do
        line=${lines[$file]}
        if [ ! -s "$root$prefix/$file" ]; then
            fail "$prefix/$file is not installed"
        elif [[ $file == bin/* ]]; then
            [ "$("$root$prefix/$file" --version)" = "$line" ] ||
                fail "$file --version is not '$line'"
        elif [[ $file == *.png ]]; then
            # The width and height of the PNG header, big-endian.
            [ "$(od -An -tu1 -j16 -N8 "$root$prefix/$file" |
                awk '{ print $4 + 256 * $3 "x" $8 + 256 * $7 }')" = "$line" ] ||
                fail "$file is not $line pixels"
        elif [[ $file == */man1/* ]]; then
            MANWIDTH=80 man -l "$root$prefix/$file" 2>/dev/null | grep -qF "$line" ||
                fail "$file lacks '$line'"
        else
            grep -q "^$line" "$root$prefix/$file" || fail "$file lacks the line '$line'"
        fi
    done

    zcat "$root$prefix/share/doc/ferrybox/changelog.gz" 2>/dev/null | grep -q "^ferrybox ($version)" ||
        fail "the changelog's newest entry is not for $version"
    quiet desktop-file-validate \
        desktop-file-validate "$root$prefix/share/applications/ferrybox.desktop"
    local warnings
    for file in "${programs[@]}"; do
        local page="$root$prefix/share/man/man1/$file.1.gz" option
        warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
        [ -z "$warnings" ] || fail "man $file.1: $warnings"
        for option in $("$root$prefix/bin/$file" --help | grep -o -- '--[a-z][a-z-]*' | sort -u); do
            MANWIDTH=200 man -l "$page" 2>/dev/null | grep -q -- "$option" ||
                fail "$file.1 does not tell of $option"
        done
    done
    # systemd checks a unit's programs on this machine's paths: give it copies naming the
    # staged ones.
    if command -v systemd-analyze >/dev/null; then
        mkdir -p "$tmp/units" "$tmp/run"
        chmod 700 "$tmp/run"
        for file in "$root$prefix"/lib/systemd/user/*.service; do
            sed "s|=$prefix/bin/|=$root$prefix/bin/|" "$file" >"$tmp/units/${file##*/}"
        done
        quiet "systemd-analyze verify" env XDG_RUNTIME_DIR="$tmp/run" \
            systemd-analyze verify --user --man=no "$tmp"/units/*.service
    fi
}

DESTDIR=$tmp/staged cmake --install "$build" --prefix /usr/local >/dev/null
check_install "$tmp/staged" /usr/local
# Everything installed is in the manifest, so removing what it lists leaves no file behind.
sed "s|^|$tmp/staged|" "$manifest" | xargs -d '\n' rm -- ||
    fail "the install manifest lists files that were not installed"
left=$(find "$tmp/staged" -type f)
[ -z "$left" ] || fail "the install manifest leaves behind: $left"

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$tmp/deb" >"$tmp/cpack.log" 2>&1 ||
    { cat "$tmp/cpack.log" >&2; exit 1; }
deb=$(echo "$tmp"/deb/ferrybox_*.deb)
for field in Package=ferrybox Version="$version" Recommends=yt-dlp; do
    [ "$(dpkg-deb -f "$deb" "${field%%=*}")" = "${field#*=}" ] ||
        fail "the .deb's ${field%%=*} is not ${field#*=}"
done
[ -n "$(dpkg-deb -f "$deb" Depends)" ] || fail "the .deb depends on nothing"
dpkg-deb -x "$deb" "$tmp/deb-root"
check_install "$tmp/deb-root" /usr
# Debian's own checks of a package: no error, no warning. (As root it says so, and nothing else.)
lintian_output=$(lintian --fail-on error,warning "$deb" 2>&1) ||
    fail "lintian: $lintian_output"
lintian_output=$(grep -v 'running with root privileges' <<<"$lintian_output" || true)
[ -z "$lintian_output" ] || fail "lintian: $lintian_output"

[ "$failures" = 0 ] || exit 1
echo "installed files, desktop entry, units, manual pages, versions and the .deb are right"
