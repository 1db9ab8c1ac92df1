#!/usr/bin/env bash
# Types what README.md and docs/operations.md let a person type, their blocks marked "sh", in a fresh clone of HEAD: as an
# ordinary user (whom root makes), then as root when root runs it; at last each benchmark for a moment. A block marked
# "sh root" or "sh user" is for one of the two. Places, ports and the user "somebody" are exchanged for the test's own.
set -euo pipefail
tree=$(cd "$(dirname "$0")/../.." && pwd)
place=$(mktemp -d "${TMPDIR:-/tmp}/qx-typed-XXXXXX")
chmod 755 "$place"
clone=$place/clone
made_user=
clean_up() {
  local pid
  for pid in $(cat "$place"/*/etc/agent.pid 2>/dev/null); do kill -TERM "$pid" 2>/dev/null || true; done
  [ -z "$made_user" ] || userdel -f -r "$made_user" >/dev/null 2>&1 || true
  rm -rf "$place"
}
trap clean_up EXIT
say() { echo "== $((SECONDS))s $*"; }
fail() {
  echo "typed: $*" >&2
  exit 1
}

free_ports() {
  /usr/bin/python3 -c '
import socket
places = [socket.socket() for _ in range(2)]
for place in places: place.bind(("127.0.0.1", 0))
print(*(place.getsockname()[1] for place in places))'
}

# The commands of a page for a role. A person waits until the server is there; the test does so, too.
commands() {
  local page=$1 role=$2 somebody=$3 here=$place/$2 server listener
  read -r server listener < <(free_ports)
  awk -v role="$role" '
    /^```/ { inside = !inside && ($0 == "```sh" || $0 == "```sh " role); next }
    inside && !/^scripts\/test/' "$clone/$page" |
    sed -e "s|2217|$server|g; s|2300|$listener|g; s|somebody|$somebody|g" \
        -e "s|/tmp/|$here/tmp/|g; s|/opt/qx7|$here/opt|g; s|/etc/systemd/system|$here/etc|g" \
        -e "/qxcp serve .*&\$/ s|\$| until [ -S $here/tmp/qxcp/control.sock ]; do sleep 0.1; done|"
}

# Start and stop of a unit without systemd: its command line, and the signal of KillMode=process.
write_systemctl() {
  cat >"$1/stub/systemctl" <<SYSTEMCTL
#!/usr/bin/env bash
cd $1/etc
log=$1/opt/agent/temp/QXXJxxx.l00
case \$* in
  "enable --now qxxjlnx")
    ! command -v systemd-analyze >/dev/null || systemd-analyze verify --man=no ./qxxjlnx.service || exit
    rm -f \$log  # of the start by hand before: it says all that is waited for
    setsid \$(sed -n 's/^ExecStart=//p' qxxjlnx.service) >agent.out 2>&1 &
    echo \$! >agent.pid
    for _ in {1..300}; do ! grep -qs U02000072 \$log || exit 0; sleep 0.1; done ;;  # it looks for its server
  "stop qxxjlnx")
    kill -TERM \$(cat agent.pid)
    for _ in {1..600}; do ! tail -n 1 \$log | grep -q U02000001 || exit 0; sleep 0.1; done ;;
esac
echo "systemctl \$*: failed" >&2
cat agent.out
exit 1
SYSTEMCTL
  chmod 755 "$1/stub/systemctl"
}

# What a page starts in the background must end well, too.
type_page() {
  local page=$1 role=$2 user=$3 here=$place/$2 as=()
  [ "$user" = "$(id -un)" ] || as=(setpriv "--reuid=$user" "--regid=$user" --init-groups)
  say "$page as $user"
  {
    echo 'trap "kill \$(jobs -p) 2>/dev/null || true" EXIT'
    echo 'set -ex'
    commands "$page" "$role" "$4"
    echo 'for job in $(jobs -p); do wait "$job" || { echo "process $job ended with $?"; jobs -l; exit 1; }; done'
  } >"$here/script"
  (cd "$clone" && env -i "PATH=$here/stub:$PATH" "HOME=$here" "TMPDIR=$here/tmp" LANG=C.UTF-8 \
    "${as[@]}" bash "$here/script") >"$here/output" 2>&1 </dev/null ||
    { cat "$here/output"; fail "$page as $user ended with a fault"; }
  expect "$here/output" "^Hello from $4\$"
}

expect() {
  grep -qE -e "$2" "$1" || { cat "$1"; fail "no line like '$2'"; }
}

# The table of libraries against what the programs ask the loader for.
check_libraries() {
  local program libraries
  grep -E '^\| `qx[a-z]*` \| lib' "$clone/docs/operations.md" | tr -d '`|,' >"$place/libraries"
  [ "$(wc -l <"$place/libraries")" -eq "$(find "$1/bin" -type f | wc -l)" ] || fail "the table of libraries lacks a program"
  while read -r program libraries; do
    [ "$(tr ' ' '\n' <<<"$libraries" | sort)" = \
      "$(readelf -d "$1/bin/$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)" ] ||
      fail "$program needs other libraries than docs/operations.md says: $(readelf -d "$1/bin/$program" | grep NEEDED)"
  done <"$place/libraries"
}

type_all() {
  local role=$1 user=$2 somebody=$3 here=$place/$1
  mkdir -p "$here/tmp" "$here/etc" "$here/stub"
  chmod 1777 "$here/tmp"
  write_systemctl "$here"
  echo secret >"$here/tmp/password"
  [ "$(id -u)" -ne 0 ] || chown -R "$user:" "$here" "$clone"
  type_page README.md "$role" "$user" "$somebody"
  expect "$here/output" '^\[ *[0-9]+%|^ninja: no work to do'  # how far the build is
  expect "$here/output" '^== done'                             # of the demo
  type_page docs/operations.md "$role" "$user" "$somebody"
  check_libraries "$here/opt"
}

git -C "$tree" rev-parse -q --verify HEAD >/dev/null || { echo "typed: no git repository to clone"; exit 77; }
[ -z "$(git -C "$tree" status --porcelain)" ] || echo "typed: uncommitted changes of $tree are not in the clone"
git clone -q "$tree" "$clone"
if [ -n "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ]; then  # such as ccache, which serves its own user alone
  say "build with $CMAKE_CXX_COMPILER_LAUNCHER"
  (cd "$clone" && cmake --preset release >/dev/null && cmake --build --preset release >/dev/null)
fi
if [ "$(id -u)" -eq 0 ]; then
  made_user=qxtyped$$
  useradd -m -d "$place/home" -s /bin/sh -p "$(openssl passwd -6 secret)" "$made_user"
  type_all user "$made_user" "$made_user"
  type_all root root "$made_user"
else
  type_all user "$(id -un)" "$(id -un)"
fi
! grep -q -e -Werror "$clone/build/release/build.ninja" || fail "warnings are errors for an installation"
say "scripts/bench --quick"
(cd "$clone" && scripts/bench --quick) >"$place/bench" 2>&1 || { cat "$place/bench"; fail "scripts/bench ended with a fault"; }
for source in "$clone"/bench/*.cpp "$clone"/bench/road/*.cpp; do
  expect "$place/bench" "^== bench_$(basename "$source" .cpp)\$"
done
say "all typed"
