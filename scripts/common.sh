# Shared by the scripts in this folder (sourced, not run).

ZP_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
ZP_JOBS=$(nproc 2>/dev/null || echo 2)

# Each module opens a queue 200 messages deep; the kernel's default limit is 10.
zp_raise_queue_depth() {
  local want=256 have
  have=$(cat /proc/sys/fs/mqueue/msg_max 2>/dev/null || echo 0)
  [ "$have" -ge "$want" ] && return 0
  if [ -w /proc/sys/fs/mqueue/msg_max ]; then
    echo "$want" > /proc/sys/fs/mqueue/msg_max
  elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
    echo "$want" | sudo tee /proc/sys/fs/mqueue/msg_max >/dev/null
  else
    echo "warning: /proc/sys/fs/mqueue/msg_max is $have; modules need 200 (run as root:" \
         "echo $want > /proc/sys/fs/mqueue/msg_max)" >&2
  fi
}

# zp_build NAME SANITIZER [TARGET...]: configures and builds into build/NAME
# (every target unless some are named).
zp_build() {
  local dir=$ZP_ROOT/build/$1 sanitizer=$2
  shift 2
  cmake -S "$ZP_ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZP_WERROR=ON -DZP_SANITIZER="$sanitizer" >/dev/null
  if [ $# -gt 0 ]; then
    cmake --build "$dir" -j "$ZP_JOBS" --target "$@"
  else
    cmake --build "$dir" -j "$ZP_JOBS"
  fi
}
