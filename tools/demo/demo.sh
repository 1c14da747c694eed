#!/usr/bin/env bash
# The story behind `make demo`: the real tolvarind against ventrald-sim, in a
# private user + mount + network namespace where /tmp, /opt, /home and
# /usr/share/applications are fresh tmpfs mounts. Nothing on the host changes.
#
# Usage: tools/demo/demo.sh [BUILD_DIR]    (default: build)
# Needs tolvarind and ventrald-sim built in BUILD_DIR (or named by the
# environment variables TOLVARIND and VENTRALD_SIM), util-linux's unshare,
# iproute2, and unprivileged user namespaces. Exit status 0 when the story ran
# as it should and the daemon ended with status 0 after SIGTERM.
set -eEuo pipefail
trap 'die "line $LINENO: a command failed"' ERR

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

if [ "${1:-}" != "--inside" ]; then
  build=$(cd "${1:-$src/build}" 2>/dev/null && pwd) || { echo "demo: no build directory ${1:-$src/build}" >&2; exit 1; }
  export TOLVARIND=${TOLVARIND:-$build/src/main/tolvarind} VENTRALD_SIM=${VENTRALD_SIM:-$build/tools/ventrald-sim}
  for bin in "$TOLVARIND" "$VENTRALD_SIM"; do
    [ -x "$bin" ] || { echo "demo: $bin is missing; build it first (make demo does)" >&2; exit 1; }
  done
  [ -d /usr/share/applications ] || { echo "demo: /usr/share/applications is missing; run tools/bootstrap.sh" >&2; exit 1; }
  command -v unshare >/dev/null || { echo "demo: unshare (util-linux) is missing; run tools/bootstrap.sh" >&2; exit 1; }
  exec unshare --user --map-root-user --mount --net -- "$0" --inside "$build"
fi
build=$2
# A simulator that died must not kill this script silently on the next write to
# its input: the write fails instead, and the ERR trap says what happened.
trap '' PIPE
# Whatever happens, the processes this script started do not outlive it.
started=()
trap 'trap - ERR; for p in "${started[@]}"; do kill -KILL "$p" 2>/dev/null || true; done' EXIT

# ---------------------------------------------------------------- helpers

if [ -t 1 ]; then bold=$'\e[1m' dim=$'\e[2m' off=$'\e[0m'; else bold='' dim='' off=''; fi
t0=$(date +%s.%N)
elapsed() { awk -v a="$t0" -v b="$(date +%s.%N)" 'BEGIN { printf "%5.1fs", b - a }'; }
section() { printf '\n%s== %s%s  %s(%s)%s\n' "$bold" "$*" "$off" "$dim" "$(elapsed)" "$off"; }
say() { printf '   %s\n' "$*"; }
die() {
  trap - ERR
  set +e
  printf '\ndemo: FAILED: %s\n' "$*" >&2
  for f in "${DEMO:-/nonexistent}"/sim.out "${DEMO:-/nonexistent}"/daemon.out "$(info_log)"; do
    [ -s "$f" ] && { echo "--- last lines of $f" >&2; tail -n 20 "$f" >&2; }
  done
  exit 1
}
indent() { sed "s/^/   $1/"; }

# The daemon's fixed paths, read from the one header that defines them.
sdp_path() {
  local v
  v=$(sed -n "s/.*constexpr char $1\[\] = \"\(.*\)\";.*/\1/p" "$src/sdpcommon/include/sdp_paths.h")
  [ -n "$v" ] || die "sdp_paths.h has no $1"
  printf '%s' "$v"
}
CFS=$(sdp_path kCfsDir)
SOCK=$(sdp_path kDaemonSocket)
SAFESPACE=$(sdp_path kSafespaceIni)
USERINFO=$(sdp_path kUserinfoIni)
RESOURCE=$(sdp_path kResourceJson)
POLICY=$(sdp_path kPolicyJson)
SYSCFG=$(sdp_path kSyscfgIni)
WHITELIST=$(sdp_path kWhitelistClientConf)
RECORD=$(sdp_path kRecordOldAppNames)
CLIENT_APPS=$(sdp_path kClientApplicationsDir)
POPUP=$(sdp_path kPopupScript)
SSO=$(sdp_path kSsoScript)
AUM=$(sdp_path kAumScript)
LOGDIR=$(sdp_path kLogDir)
APPS=$(sdp_path kSystemApplicationsDir)
HOMES=$(sdp_path kHomeDir)

DEMO=/tmp/demo                 # the demo's own files (inside the namespace)
RAN=$DEMO/ran.log              # every stand-in appends what it was asked here
STANDINS=/opt/demo/bin         # put first on the daemon's PATH
USER_NAME=alice
SANDBOX_ID=demo-box-7
DESKTOP=$HOMES$USER_NAME/Desktop

# Polls `cmd...` every 0.1 s until it succeeds or `secs` pass.
wait_until() {
  local secs=$1 what=$2; shift 2
  local end=$((SECONDS + secs))
  until "$@"; do
    [ $SECONDS -lt $end ] || die "waited ${secs}s for $what"
    sleep 0.1
  done
}
lines() { [ -f "$1" ] && wc -l <"$1" || echo 0; }
# Lines of a file after line $2.
after() { tail -n +"$(($2 + 1))" "$1" 2>/dev/null || true; }
has_after() { after "$1" "$2" | grep -qF -- "$3"; }
at_least() { [ "$(grep -cF -- "$3" "$2" 2>/dev/null)" -ge "$1" ]; }

info_log() { { ls "$LOGDIR"/tolvarind.info.* 2>/dev/null || true; } | head -1; }
error_log() { { ls "$LOGDIR"/tolvarind.error.* 2>/dev/null || true; } | head -1; }
# glog lines without the date, time and thread id: "I tolvarind.cpp:123] text".
glog_short() { sed -E 's/^([IWEF])[0-9]{8} [0-9:.]+ +[0-9]+ /\1 /'; }

# ---------------------------------------------------------------- 1. sandbox

keep=()
for k in "$src" "$build" "$(dirname "$TOLVARIND")" "$(dirname "$VENTRALD_SIM")"; do keep+=("$(realpath "$k")"); done
fds=()
for k in "${keep[@]}"; do exec {fd}<"$k"; fds+=("$fd"); done
for dir in /tmp /opt /home /usr/share/applications; do
  mode=0755; [ "$dir" = /tmp ] && mode=1777
  mount -t tmpfs -o "mode=$mode,nosuid,nodev" tmpfs "$dir"
  # A checkout or build tree under a hidden directory is bound back in place.
  for i in "${!keep[@]}"; do
    case "${keep[$i]}/" in
      "$dir"/*)
        if ! mountpoint -q "${keep[$i]}" && [ -z "$(ls -A "${keep[$i]}" 2>/dev/null)" ]; then
          mkdir -p "${keep[$i]}"
          mount --no-canonicalize --rbind "/proc/self/fd/${fds[$i]}" "${keep[$i]}"
        fi ;;
    esac
  done
done
for fd in "${fds[@]}"; do exec {fd}<&-; done
ip link set lo up
ip link add demo0 type veth peer name demo1
ip addr add 10.0.0.5/24 dev demo0
ip link set demo0 up
ip link set demo1 up
ip route add default via 10.0.0.1 dev demo0 onlink

section "A private namespace: fresh /tmp, /opt, /home, /usr/share/applications; interface demo0 10.0.0.5"
say "host directories are untouched; everything below vanishes when the demo ends"

# ---------------------------------------------------------------- 2. configuration

mkdir -p "$DEMO" "$CFS" "$(dirname "$SYSCFG")" "$(dirname "$WHITELIST")" "$CLIENT_APPS" "$LOGDIR" \
         "$STANDINS" "$DESKTOP"

cat >"$SAFESPACE" <<EOF
[SafeWorkSpace]
SandboxID=$SANDBOX_ID
EOF
cat >"$USERINFO" <<EOF
[UserInfo]
SysUserName=$USER_NAME

[Aum]
wiki=https://wiki.corp.example/
crm=https://crm.corp.example/

[CustomJumpPolicy]
JumpBrowser=vrek-browser
EOF
cat >"$RESOURCE" <<'EOF'
{
  "GatewayConfig": [
    { "AppName": "Corporate Wiki", "source": "wiki", "isCreateIconInSandbox": 1 },
    { "AppName": "CRM", "source": "crm", "isCreateIconInSandbox": 1 }
  ]
}
EOF
cat >"$POLICY" <<EOF
{
  "policy": {
    "PolicySandBox": [
      {
        "policyname": "Demo office policy",
        "policyid": "$SANDBOX_ID",
        "sandBox": {
          "boxAllowProcess": [
            { "id": "1", "name": "Text editor", "type": 1, "value": "/usr/bin/demo-editor" },
            { "id": "2", "name": "Draw", "type": 1, "value": "deepin-draw" }
          ]
        }
      }
    ]
  }
}
EOF
cat >"$SYSCFG" <<'EOF'
[ventrald]
protocol=2
version=1
EOF
cat >"$WHITELIST" <<'EOF'
enabled=1
demo-terminal
EOF

# Desktop entries of the whitelisted applications, where the system keeps them.
for app in demo-editor:"Text Editor" demo-terminal:"Terminal"; do
  cat >"$APPS${app%%:*}.desktop" <<EOF
[Desktop Entry]
Name=${app#*:}
Exec=/usr/bin/${app%%:*}
Type=Application
EOF
done
# The client's own launchers: all placed except the browser's, which never is.
cat >"$CLIENT_APPS/vpn-status.desktop" <<'EOF'
[Desktop Entry]
Name=VPN status
Exec=/opt/apps/morvasta/vpn-status
Type=Application
EOF
cp "$CLIENT_APPS/vpn-status.desktop" "$CLIENT_APPS/com.vrek.browser.desktop"

# A launcher left by an earlier run, and the record that names it.
echo "[Desktop Entry]" >"$DESKTOP/old-resource.desktop"
echo "$DESKTOP/old-resource.desktop" >"$RECORD"

# Stand-ins for the installation's scripts and for notify-send: each records
# its name and arguments (one [bracket] per argument) and prints a line.
standin() {
  cat >"$1" <<EOF
#!/bin/sh
{ printf '%s' "\$(basename "\$0")"; for a in "\$@"; do printf ' [%s]' "\$a"; done; echo; } >>$RAN
echo "\$(basename "\$0"): done"
EOF
  chmod 755 "$1"
}
for s in "$POPUP" "$SSO" "$AUM" "$STANDINS/notify-send" "$STANDINS/demo-calculator"; do standin "$s"; done

section "Sample configuration"
for f in "$SAFESPACE" "$USERINFO" "$SYSCFG" "$WHITELIST"; do
  say "$f"; indent "  | " <"$f"
done
say "$RESOURCE: 2 resources (wiki, crm) marked for a desktop icon"
say "$POLICY: policy for sandbox $SANDBOX_ID allowing /usr/bin/demo-editor and deepin-draw"
say "$APPS: demo-editor.desktop, demo-terminal.desktop"
say "$CLIENT_APPS: vpn-status.desktop, com.vrek.browser.desktop"
say "$RECORD: names $DESKTOP/old-resource.desktop from an earlier run"
say "stand-ins: $POPUP, $SSO, $AUM, notify-send, demo-calculator (they log to $RAN)"

# ---------------------------------------------------------------- 3. start

mkfifo "$DEMO/sim.in"
(trap - PIPE; exec "$VENTRALD_SIM" --socket "$SOCK" <"$DEMO/sim.in" >"$DEMO/sim.out" 2>&1) &
sim_pid=$!
started+=("$sim_pid")
exec {sim}>"$DEMO/sim.in"
wait_until 5 "ventrald-sim to listen" test -S "$SOCK"

(trap - PIPE; cd / && PATH="$STANDINS:$PATH" exec "$TOLVARIND" >"$DEMO/daemon.out" 2>&1) &
daemon_pid=$!
started+=("$daemon_pid")
section "Started ventrald-sim on $SOCK and tolvarind (pid $daemon_pid)"
say "tolvarind waits 3 s before its first start-up attempt"

sim_seen=0
show_sim() {
  local n; n=$(lines "$DEMO/sim.out")
  after "$DEMO/sim.out" "$sim_seen" | head -n $((n - sim_seen)) | indent "ventrald-sim "
  sim_seen=$n
}

section "Registration and heartbeats"
wait_until 10 "the registration" grep -qF "register (0x1005)" "$DEMO/sim.out"
wait_until 10 "two heartbeats" at_least 2 "$DEMO/sim.out" "heartbeat (0x1111)"
show_sim
grep -qF "sandbox id \"$SANDBOX_ID\", ipv4 10.0.0.5" "$DEMO/sim.out" || die "heartbeat without the sandbox's address"

# ---------------------------------------------------------------- 4. commands

log_seen=0
# Sends one command line to the simulator, waits for `pattern` in `file`, then
# shows what the simulator sent, what the stand-ins recorded and the daemon's
# log lines about it.
step() {
  local line=$1 file=$2 pattern=$3
  local ran_mark; ran_mark=$(lines "$RAN")
  local file_mark; file_mark=$(lines "$file")
  printf '\n   %s> %s%s\n' "$bold" "$line" "$off"
  echo "$line" >&$sim
  wait_until 10 "'$pattern' after: $line" has_after "$file" "$file_mark" "$pattern"
  show_sim
  after "$RAN" "$ran_mark" | indent "ran          "
  local log; log=$(info_log); local n; n=$(lines "$log")
  after "$log" "$log_seen" | head -n $((n - log_seen)) | { grep -v -e "send heart beat" || true; } \
    | glog_short | indent "tolvarind    "
  log_seen=$n
}

have_info_log() { [ -n "$(info_log)" ]; }
wait_until 10 "the daemon's log" have_info_log
wait_until 10 "the start-up launchers" grep -qF "deal user resource size:" "$(info_log)"
section "The daemon's start-up, from its log"
{ grep -E "Read sandbox id is|init finish|rm file:|appWhiteList size|_addDefaultDesktop:|don't add|deal user resource size|new desktop name" \
  "$(info_log)" || true; } | glog_short | indent "tolvarind    "
log_seen=$(lines "$(info_log)")

section "Commands from the peer, and what the daemon did with each"

step "open-app demo-calculator --mode=scientific" "$RAN" "demo-calculator"
step "portal https://portal.corp.example/sso?user=$USER_NAME" "$RAN" "dravinSSO.sh"
step "illegal /usr/bin/gimp" "$RAN" "notify-send"
step "popup --title Notice --text Policy-updated" "$RAN" "sdpPopup.sh"
step "heartbeat" "$(info_log)" "got heatbeat message from server"
step "open-sandbox" "$(info_log)" "got SDP_PROTO_OPEN_SANDBOX message"
step "raw 2 0x4242 an unknown code" "$(info_log)" "cmd 0x:4242"
# m_cmd 1 is the client's own direction: the daemon must ignore the frame.
step "raw 1 0x301 demo-calculator --must-not-run" "$DEMO/sim.out" "-> #1 raw"
step "response" "$(info_log)" "got SANDBOX_S2B_RESPONSE message"
! grep -qF -- "--must-not-run" "$RAN" || die "a frame with m_cmd 1 was run"
say "(the m_cmd 1 frame was ignored, as it must be: nothing ran for it)"

# ---------------------------------------------------------------- 5. launchers

section "Launchers on the sandbox desktop $DESKTOP"
ls -l "$DESKTOP" | tail -n +2 | indent ""
for want in wiki.desktop crm.desktop demo-editor.desktop demo-terminal.desktop vpn-status.desktop; do
  [ -f "$DESKTOP/$want" ] || die "launcher $want missing from the desktop"
done
[ ! -e "$DESKTOP/old-resource.desktop" ] || die "the earlier run's launcher was not removed"
[ ! -e "$DESKTOP/com.vrek.browser.desktop" ] || die "the browser launcher was placed"
[ ! -e "$DESKTOP/deepin-draw.desktop" ] || die "deepin-draw was placed"
say "gone: old-resource.desktop (recorded by the earlier run); never placed: com.vrek.browser.desktop"
say ""
say "$DESKTOP/wiki.desktop:"
indent "  | " <"$DESKTOP/wiki.desktop"
say ""
say "$APPS: $(cd "$APPS" && echo *.desktop)"
say "$RECORD (removed again at the next start):"
indent "  | " <"$RECORD"

# ---------------------------------------------------------------- 6. logs

section "The daemon's logs ($LOGDIR)"
say "$(basename "$(info_log)"), last lines:"
{ grep -v "send heart beat" "$(info_log)" || true; } | tail -n 8 | glog_short | indent "  | "
say "$(basename "$(error_log)"), the lines operators read:"
tail -n 6 "$(error_log)" | glog_short | indent "  | "

# ---------------------------------------------------------------- 7. stop

section "SIGTERM"
echo quit >&$sim
exec {sim}>&-
kill -TERM "$daemon_pid"
status=0
wait "$daemon_pid" || status=$?
wait "$sim_pid" || true
grep -F "Daemon Child Recv Signal:" "$(info_log)" | tail -1 | glog_short | indent "tolvarind    "
say "tolvarind exit status: $status"
[ "$status" -eq 0 ] || die "tolvarind ended with status $status"
printf '\n%sDemo finished in %s.%s\n' "$bold" "$(elapsed)" "$off"
