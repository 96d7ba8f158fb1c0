#!/usr/bin/env bash
# Renders the panel on the simulated audio service, in light and in dark, to
# docs/screenshots/panel-light.png and panel-dark.png: a group open, several outputs, two inputs and
# three apps (one boosted, one muted, one playing at a level), on Xvfb with xcompmgr compositing
# the panel's translucent margin over a plain backdrop. The screen is tall enough for the panel.
# Usage: scripts/screenshots.sh [build-dir]   (default: build; builds the renderer first)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
cmake --build "$build" --target panel_screenshot
for scheme in light dark; do
    ONDRIL_APPEARANCE=$scheme ONDRIL_TEST_SCREEN=1280x1024x24 ONDRIL_SCREENSHOT_DIR="$root/docs/screenshots" \
        "$root/scripts/test-env.sh" "$build/tools/panel_screenshot"
done
ls -l "$root/docs/screenshots"
