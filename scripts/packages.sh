# shellcheck shell=bash disable=SC2034
# Debian packages by purpose, and how to get the missing ones. Sourced by ./run and ./test.

# To build the daemon, the client and the platform tree.
build_packages=(
  cmake g++ libarchive-dev libasio-dev libblkid-dev libcli11-dev libdrm-dev libpng-dev libpugixml-dev
  libsystemd-dev libxcb-randr0-dev libxcb1-dev ninja-build pkg-config python3-minimal
)
# Host tools that make more of the plan's rows yield something. None is required.
collecting_packages=(
  attr cryptsetup-bin dmidecode drm-info e2fsprogs edid-decode efibootmgr elfutils fdisk kmod lsof
  mokutil pciutils procps smartmontools tpm2-tools util-linux zstd
)
# What else is used where it is there, and is not worth installing for a look around: openvt (kbd)
# gives the front end of a kernel event a virtual terminal, and the splash of plymouth is hidden so
# that the end of a session can be seen.
# To test: the second compiler, the checkers, and foreign readers and clients.
testing_packages=(
  bsdutils btrfs-progs ccache clang clang-format clang-tidy dbus-bin dosfstools dpkg-dev e2fsprogs
  fdisk git libarchive-tools libclang-rt-14-dev libglib2.0-bin libgtest-dev libgmock-dev lintian
  logrotate python3 rsyslog shellcheck systemd systemd-journal-remote tar gzip udev util-linux
  x11-xserver-utils xauth xfsprogs xserver-xorg-core xserver-xorg-video-dummy xvfb zlib1g-dev
)

missing_packages() {
  local package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      printf '%s\n' "$package"
  done
}

# install_packages required|optional PACKAGE...
install_packages() {
  local need=$1
  shift
  local missing
  mapfile -t missing < <(missing_packages "$@")
  [ "${#missing[@]}" -gt 0 ] || return 0

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
      as_root=(sudo -n)
    elif [ "$need" = optional ]; then
      echo "Not installed, so some results will be missing: ${missing[*]}"
      return 0
    else
      echo "These packages are needed, and only root can install them:" >&2
      echo "  apt-get install ${missing[*]}" >&2
      return 1
    fi
  fi
  echo "Installing packages: ${missing[*]}"
  local log
  log=$(mktemp)
  if "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive sh -c '
      apt-get update && apt-get install -y --no-install-recommends "$@"' sh "${missing[@]}" \
      >"$log" 2>&1 </dev/null; then
    rm -f "$log"
  elif [ "$need" = optional ]; then
    echo "Could not install them all; some results will be missing:"
    grep '^E:' "$log" || tail -n 3 "$log"
    rm -f "$log"
  else
    tail -n 20 "$log" >&2
    rm -f "$log"
    return 1
  fi
}
