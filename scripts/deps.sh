# Sourced by scripts/test.sh and scripts/demo.sh: makes sure the build's
# tools and libraries are present. Installs nothing when everything is there;
# otherwise installs the missing Debian packages with apt-get when running as
# root, or prints the apt-get line to run and exits 1.

# Debian package -> a command it provides ("" when the package is a library
# checked with dpkg only).
KV_DEPS=(
  "cmake:cmake"
  "ninja-build:ninja"
  "g++:g++"
  "pkg-config:pkg-config"
  "g++-mingw-w64-x86-64:x86_64-w64-mingw32-g++"
  "mingw-w64-x86-64-dev:"
  "libgtest-dev:"
  "libgmock-dev:"
  "libbenchmark-dev:"
  "libjpeg-dev:"
  "libpng-dev:"
  "zlib1g-dev:"
  "libyuv-dev:"
  "nlohmann-json3-dev:"
  "ffmpeg:ffprobe"
  "opencv-data:"
  "libopencv-dev:"
)

kv_missing_packages() {
  local entry pkg cmd
  for entry in "${KV_DEPS[@]}"; do
    pkg=${entry%%:*}
    cmd=${entry#*:}
    if [ -n "$cmd" ] && ! command -v "$cmd" >/dev/null 2>&1; then
      echo "$pkg"
    elif command -v dpkg >/dev/null 2>&1 && ! dpkg -s "$pkg" >/dev/null 2>&1; then
      echo "$pkg"
    fi
  done
}

kv_ensure_deps() {
  local missing
  missing=$(kv_missing_packages | tr '\n' ' ')
  if [ -z "${missing// /}" ]; then
    return 0
  fi
  if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null 2>&1; then
    echo "Installing missing packages: $missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update
    # shellcheck disable=SC2086
    apt-get install -y --no-install-recommends $missing
  else
    echo "Missing packages: $missing" >&2
    echo "Install them with:" >&2
    echo "  sudo apt-get install -y --no-install-recommends $missing" >&2
    exit 1
  fi
}
