#!/usr/bin/env bash
# package.sh <folder of the built tool> <package folder>
#
# Copies thumbnail-tool.exe and the module DLLs beside it into
# <package folder>/thumbnail-tool/ and zips that folder as
# <package folder>/thumbnail-tool-windows.zip. Fails when any of them imports
# a DLL that is not part of Windows itself.
set -euo pipefail
from=$1
to=$2
objdump=x86_64-w64-mingw32-objdump

# The system DLLs the tool and its modules may import (lower case).
system_dlls=(kernel32.dll user32.dll gdi32.dll advapi32.dll shell32.dll ole32.dll oleaut32.dll shlwapi.dll
  msvcrt.dll ucrtbase.dll bcrypt.dll ws2_32.dll secur32.dll crypt32.dll gdiplus.dll propsys.dll mfplat.dll
  mfreadwrite.dll mf.dll evr.dll windowscodecs.dll userenv.dll ntdll.dll version.dll)

rm -rf "$to/thumbnail-tool" "$to/thumbnail-tool-windows.zip"
mkdir -p "$to/thumbnail-tool"
cp "$from/thumbnail-tool.exe" "$to/thumbnail-tool/"
shopt -s nullglob
for dll in "$from"/tessera-*.dll; do cp "$dll" "$to/thumbnail-tool/"; done

status=0
for binary in "$to"/thumbnail-tool/*; do
  while read -r dll; do
    name=$(echo "$dll" | tr '[:upper:]' '[:lower:]')
    case "$name" in
      api-ms-win-*) continue ;;
    esac
    if [[ " ${system_dlls[*]} " != *" $name "* ]]; then
      echo "package: $(basename "$binary") imports $dll, which Windows does not ship" >&2
      status=1
    fi
  done < <("$objdump" -p "$binary" | sed -n 's/^[[:space:]]*DLL Name: //p')
done
[ $status = 0 ] || exit 1

(cd "$to" && cmake -E tar cf thumbnail-tool-windows.zip --format=zip thumbnail-tool)
echo "package: $to/thumbnail-tool ($(ls "$to/thumbnail-tool" | tr '\n' ' ')) and thumbnail-tool-windows.zip" >&2
