# Installs the Debian packages the project needs, when any is missing.
# Sourced by demo.sh and test.sh.
NTI_PACKAGES=(
  build-essential cmake ninja-build pkg-config git
  clang libclang-rt-14-dev clang-format clang-tidy
  libmnl-dev libboost-dev libcli11-dev libsqlite3-dev libcbor-dev libsystemd-dev
  nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev libnetfilter-queue-dev libnftables-dev
  libfixbuf-dev nfdump systemd
  iptables nftables iproute2 iputils-ping conntrack kmod libcap2-bin sqlite3 file
  debootstrap lintian systemd-container
)

nti_install_deps() {
  local missing=()
  local p
  for p in "${NTI_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    return 0
  fi
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
  fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
