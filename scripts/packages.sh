# Sourced by the scripts: install_missing SCRIPT PACKAGE... installs the
# packages with apt-get when run as root; otherwise names them and exits 3,
# so that nothing but installing packages ever needs root.
install_missing() {
  local script=$1; shift
  [ $# -gt 0 ] || return 0
  if [ "$(id -u)" != 0 ]; then
    echo "$script: missing packages; install them as root first:" >&2
    echo "  apt-get install --no-install-recommends $*" >&2
    exit 3
  fi
  echo "== installing: $*"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "$@" >/dev/null
}
