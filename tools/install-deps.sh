#!/usr/bin/env bash
# Installs the build and test tools this project needs, when missing, and
# gnuplot for the PNG output of mhboost-plot (optional: a failure to install
# it is reported but does not stop the build).
set -euo pipefail
need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v make >/dev/null 2>&1 || need+=(make)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
command -v python3 >/dev/null 2>&1 || need+=(python3)
optional=()
command -v gnuplot >/dev/null 2>&1 || optional+=(gnuplot-nox)
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
if [ ${#need[@]} -gt 0 ]; then
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y "${need[@]}"
fi
if [ ${#optional[@]} -gt 0 ]; then
  { [ ${#need[@]} -gt 0 ] || $SUDO apt-get update; } &&
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${optional[@]}" ||
    echo "install-deps: could not install ${optional[*]}; mhboost-plot will write SVG only" >&2
fi
