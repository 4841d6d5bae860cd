#!/bin/sh
# Runs a Windows program under Wine, headless and quiet: CTest's emulator for
# the cross-built test executables, and the tool runner of the Windows checks.
# A test scratch directory given as a Unix path is handed over as the same
# folder on Wine's Z: drive, which maps the Unix root.
export WINEDEBUG="${WINEDEBUG:--all}"
export LANG="${LANG:-C.UTF-8}"
unset DISPLAY WAYLAND_DISPLAY
case "${TESSERA_TEST_TMPDIR:-}" in
  /*) TESSERA_TEST_TMPDIR="Z:$TESSERA_TEST_TMPDIR"; export TESSERA_TEST_TMPDIR ;;
esac
if command -v wine64 >/dev/null 2>&1; then
  exec wine64 "$@"
elif [ -x /usr/lib/wine/wine64 ]; then
  exec /usr/lib/wine/wine64 "$@"
else
  exec wine "$@"
fi
