#!/usr/bin/env bash
# Installs the Debian 12 packages Ondril needs to build, run and test. Does nothing when all are
# present. Uses sudo when not run as root. `--fuzz` installs what `make fuzz` needs instead.
set -euo pipefail

packages=(
    # build
    cmake ninja-build g++ pkg-config clang-format
    qt6-base-dev qt6-declarative-dev libgl-dev libpulse-dev libbenchmark-dev
    # Qt Quick loads these at run time without declaring them
    qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtquick-controls
    qml6-module-qtquick-templates qml6-module-qtquick-layouts qml6-module-qtqml-workerscript
    qml6-module-qttest
    # the icon theme Ondril falls back to, and the SVG icon engine that draws it
    adwaita-icon-theme libqt6svg6
    # sound servers and their tools: the program talks to either; the tests start both privately
    pulseaudio pulseaudio-utils pipewire pipewire-pulse wireplumber
    # headless desktop for the tests
    xvfb xauth xdotool dbus fonts-dejavu-core
    # a compositing manager, so that the screenshots show the panel's translucent margin
    xcompmgr
)

if [[ "${1:-}" == --fuzz ]]; then
    # clang and its libFuzzer runtime, only for the fuzz targets
    packages=(clang libclang-rt-14-dev)
fi

missing=()
for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
    [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}"
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
