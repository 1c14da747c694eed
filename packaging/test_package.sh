#!/usr/bin/env bash
# Package test: builds the .deb from a configured build tree into a scratch
# directory, runs lintian on it, unpacks it into a throwaway root with dpkg -x,
# and checks what an operator would get. Nothing outside the scratch directory
# is written. With KEEP_DEB=DIR the checked package is copied into DIR.
#
# Usage: test_package.sh BUILD_DIR DAEMON_BINARY INSTALL_PREFIX UNIT_DIR TMPFILES_DIR LOG_DIR CFS_DIR
set -euo pipefail

build=$1 daemon=$2 prefix=$3 unitdir=$4 tmpfilesdir=$5 logdir=$6 cfsdir=$7
src=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
pass() { echo "ok: $*"; }

if ! cpack --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1; then
  cat "$work/cpack.log" >&2
  echo "FAIL: cpack" >&2
  exit 1
fi
debs=("$work"/out/*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || { echo "FAIL: expected one .deb, got: ${debs[*]}" >&2; exit 1; }
deb=${debs[0]}
root=$work/root
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"
echo "package: $(basename "$deb")"

bin=$prefix/bin/tolvarind
unit=$prefix/$unitdir/tolvarind.service
tmpfiles=$prefix/$tmpfilesdir/tolvarind.conf
docdir=$prefix/share/doc/tolvarind
man=$prefix/share/man/man8/tolvarind.8.gz

# Exactly these files, nothing else (no test or tool binaries, no stray docs).
{
  echo "$bin"
  echo "$unit"
  echo "$tmpfiles"
  echo "$docdir/README.md"
  echo "$docdir/copyright"
  echo "$docdir/changelog.Debian.gz"
  echo "$man"
  echo "$prefix/share/lintian/overrides/tolvarind"
  for d in "$src"/docs/*.md; do [ -e "$d" ] && echo "$docdir/$(basename "$d")"; done
} | sort >"$work/want"
(cd "$root" && find . \( -type f -o -type l \) | sed 's|^\.||' | sort) >"$work/got"
if diff -u "$work/want" "$work/got" >"$work/files.diff"; then
  pass "file list ($(wc -l <"$work/got") files)"
else
  fail "file list differs (- expected, + in package):"; cat "$work/files.diff" >&2
fi

# Lintian (Debian 12): no error and no warning; the overrides it needs are
# in the package, each with its reason. Information tags are shown too, and
# a hardening one fails the test as well.
if command -v lintian >/dev/null; then
  if lintian --info --fail-on error,warning "$deb" \
       >"$work/lintian.log" 2>&1 && ! grep -q 'hardening-' "$work/lintian.log"; then
    pass "lintian: no error, no warning, no hardening tag"
  else
    fail "lintian:"; cat "$work/lintian.log" >&2
  fi
else
  fail "lintian is not installed (tools/bootstrap.sh installs it)"
fi

# The daemon: an executable ELF file, stripped of its debug sections, and built
# with Debian's hardening: PIE, relocations read-only and bound at start,
# stack protector, fortified calls.
if [ -x "$root$bin" ] && [ "$(head -c 4 "$root$bin" | od -An -tx1 | tr -d ' ')" = 7f454c46 ]; then
  pass "$bin is an executable ELF file"
else
  fail "$bin is not an executable ELF file"
fi
if readelf -S "$root$bin" 2>/dev/null | grep -q '\.debug_info'; then fail "$bin still has debug info"; fi
readelf -hldW "$root$bin" >"$work/elf" 2>/dev/null || true
nm -D "$root$bin" >"$work/syms" 2>/dev/null || true
harden() { if grep -Eq -- "$2" "$work/$3"; then pass "hardening: $1"; else fail "hardening: no $1"; fi; }
harden PIE 'FLAGS_1.*PIE' elf
harden RELRO 'GNU_RELRO' elf
harden BIND_NOW '\(FLAGS\).*BIND_NOW' elf
harden "stack protector" ' __stack_chk_fail' syms
harden "fortified calls" ' __[a-z]+_chk(@|$)' syms

# The manual page: renders without a warning, and has the sections an
# operator looks for.
if [ -f "$root$man" ]; then
  if MANWIDTH=80 man --warnings -l "$root$man" >"$work/man.txt" 2>"$work/man.err" && [ ! -s "$work/man.err" ]; then
    pass "man -l renders tolvarind(8) without warnings"
  else
    fail "man -l tolvarind(8):"; cat "$work/man.err" >&2
  fi
  for section in NAME SYNOPSIS OPTIONS FILES LOGS SIGNALS SECURITY "EXIT STATUS" "SEE ALSO"; do
    grep -qx "$section" "$work/man.txt" || fail "tolvarind(8) has no section $section"
  done
fi

# The log directory glog writes into (the daemon does not create it).
if [ -d "$root$logdir" ] && [ "$(stat -c %a "$root$logdir")" = 755 ]; then
  pass "log directory $logdir, mode 755"
else
  fail "log directory $logdir missing or not mode 755"
fi

# The tmpfiles.d entries: the log directory, aged out after 30 days, and the
# peer's directory, root's before any user can take the name in /tmp.
for line in "d $logdir 0755 root root 30d" "d $cfsdir 0755 root root -"; do
  if grep -qx -- "$line" "$root$tmpfiles" 2>/dev/null; then
    pass "tmpfiles.d: $line"
  else
    fail "$tmpfiles lacks the line: $line"
  fi
done
if command -v systemd-tmpfiles >/dev/null; then
  # --root creates the directories inside the scratch root only.
  mkdir -p "$work/tmproot"
  if systemd-tmpfiles --root="$work/tmproot" --create "$root$tmpfiles" >"$work/tmpfiles.log" 2>&1 \
     && [ ! -s "$work/tmpfiles.log" ] && [ -d "$work/tmproot$logdir" ] \
     && [ "$(stat -c '%U %a' "$work/tmproot$cfsdir")" = "root 755" ]; then
    pass "systemd-tmpfiles --create makes $logdir and $cfsdir (root, 755)"
  else
    fail "systemd-tmpfiles --create:"; cat "$work/tmpfiles.log" >&2
  fi
else
  fail "systemd-tmpfiles is not installed (tools/bootstrap.sh installs systemd)"
fi

# The docs are the checkout's own.
cmp -s "$root$docdir/README.md" "$src/README.md" && pass "README.md installed" || fail "README.md differs"

# The unit starts the packaged binary as root, restarts it, and keeps /tmp, /home
# and the launcher directory where the daemon can reach them.
unitfile=$root$unit
want_line() {
  if grep -qx -- "$1" "$unitfile"; then pass "unit has $1"; else fail "unit lacks the line: $1"; fi
}
refuse_line() {
  if grep -q -- "^$1" "$unitfile"; then fail "unit must not set $1 (see docs/packaging.md)"; fi
}
if [ -f "$unitfile" ]; then
  want_line "ExecStart=$bin"
  want_line "Type=notify"
  want_line "NotifyAccess=main"
  want_line "User=root"
  want_line "Restart=always"
  # The capabilities the daemon cannot work without.
  caps=$(sed -n 's/^CapabilityBoundingSet=//p' "$unitfile")
  for cap in CAP_SETUID CAP_SETGID CAP_CHOWN CAP_FOWNER CAP_DAC_OVERRIDE CAP_KILL; do
    [[ " $caps " == *" $cap "* ]] || fail "CapabilityBoundingSet lacks $cap"
  done
  want_line "ReadWritePaths=-/usr/share/applications"
  want_line "WantedBy=multi-user.target"
  for opt in PrivateTmp=yes ProtectHome=yes ProtectHome=read-only ProtectSystem=strict \
             NoNewPrivileges=yes PrivateNetwork=yes DynamicUser=yes; do
    refuse_line "$opt"
  done
  if command -v systemd-analyze >/dev/null; then
    # verify wants the binary at its real path; point it at the unpacked one,
    # and find man:tolvarind(8) in the unpacked root. It exits 0 on unknown
    # keys, so any message at all is a failure.
    mkdir "$work/verify"
    sed "s|^ExecStart=.*|ExecStart=$root$bin|" "$unitfile" >"$work/verify/tolvarind.service"
    if MANPATH="$root$prefix/share/man" systemd-analyze verify "$work/verify/tolvarind.service" \
         >"$work/verify.log" 2>&1 && [ ! -s "$work/verify.log" ]; then
      pass "systemd-analyze verify: no complaints"
    else
      fail "systemd-analyze verify:"; cat "$work/verify.log" >&2
    fi
    exposure=$(systemd-analyze security --offline=true "$work/verify/tolvarind.service" 2>/dev/null \
               | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
    if [ -n "$exposure" ] && awk -v e="$exposure" 'BEGIN { exit !(e < 5) }'; then
      pass "systemd-analyze security: exposure $exposure"
    else
      fail "systemd-analyze security: exposure '$exposure', must be below 5"
    fi
  else
    fail "systemd-analyze is not installed (tools/bootstrap.sh installs systemd)"
  fi
else
  fail "no unit file at $unit"
fi

# Control data: name, architecture, maintainer scripts.
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = tolvarind ] && pass "Package: tolvarind" || fail "Package is '$(field Package)'"
[ "$(field Architecture)" = "$(dpkg --print-architecture)" ] && pass "Architecture: $(field Architecture)" \
  || fail "Architecture is '$(field Architecture)'"
for s in postinst prerm postrm; do
  if [ -x "$work/control/$s" ] && sh -n "$work/control/$s"; then pass "$s present"; else fail "$s missing or broken"; fi
done
# debhelper's steps: tmpfiles, enable, start or restart; stop on removal;
# forget on purge.
for want in "postinst:systemd-tmpfiles .*--create tolvarind.conf" "postinst:deb-systemd-helper enable" \
            "postinst:deb-systemd-invoke \$_dh_action" "prerm:deb-systemd-invoke stop" \
            "postrm:deb-systemd-helper purge"; do
  grep -q -- "${want#*:}" "$work/control/${want%%:*}" || fail "${want%%:*} lacks ${want#*:}"
done

# Runtime dependencies: every shared library the daemon links must come from a
# package that Depends names. The owners are found with dpkg -S, independently
# of how CPack computed the field.
depends=$(field Depends)
echo "Depends: $depends"
depnames=$(echo "$depends" | tr ',' '\n' | sed 's/^ *//; s/[ (].*//')
owner_of() {
  local p=$1 c
  for c in "$p" "$(readlink -f "$p")" "/usr${p#/usr}" "${p#/usr}"; do
    dpkg -S "$c" 2>/dev/null | head -1 | cut -d: -f1 && return 0
  done
  return 1
}
while read -r soname path; do
  [ -n "$path" ] || { fail "cannot resolve $soname"; continue; }
  pkg=$(owner_of "$path") || { fail "no package owns $path"; continue; }
  if echo "$depnames" | grep -qx "$pkg"; then
    pass "$soname -> $pkg"
  else
    fail "$soname comes from $pkg, which Depends does not name"
  fi
done < <(
  # Only the libraries the binary names itself (NEEDED), located as the loader would.
  # The loader's line has no "=>": its soname is the last part of its path.
  ldd "$daemon" | awk '/=> \// { print $1, $3 } $1 ~ /^\// { n = $1; sub(/.*\//, "", n); print n, $1 }' \
    >"$work/ldd"
  readelf -d "$daemon" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | while read -r so; do
    echo "$so $(awk -v so="$so" '$1 == so { print $2 }' "$work/ldd")"
  done
)

if [ $failures -ne 0 ]; then
  echo "$failures check(s) failed" >&2
  exit 1
fi
if [ -n "${KEEP_DEB:-}" ]; then
  cp "$deb" "$KEEP_DEB/" && echo "package: $KEEP_DEB/$(basename "$deb")"
fi
echo "all package checks passed"
