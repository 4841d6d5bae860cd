// Termination handling on Windows: a console control handler that removes
// the unreported files and then lets the default handler end the process.
// Windows runs the handler on a thread of its own, not in a signal context.
#include <windows.h>

#include "lib/file/unreported-files.h"
#include "lib/file/unreported-files-platform.h"

namespace tessera {
namespace file {
namespace platform {

bool IsPathSeparator(char c) { return c == '/' || c == '\\'; }

void DeleteOnTermination(const char* path) {
  // A fixed buffer: the registry's paths are at most this long.
  wchar_t wide[kMaxUnreportedPathBytes + 1];
  const int length =
      MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, wide, static_cast<int>(kMaxUnreportedPathBytes + 1));
  if (length <= 0) return;
  for (wchar_t* c = wide; *c != L'\0'; ++c) {
    if (*c == L'/') *c = L'\\';
  }
  // Deletes a symbolic link itself, never its target.
  DeleteFileW(wide);
}

void PauseBriefly() { Sleep(1); }

}  // namespace platform

namespace {

BOOL WINAPI OnConsoleControl(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT:
    case CTRL_LOGOFF_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      RemoveUnreportedFiles();
      break;
    default:
      break;
  }
  // Not handled here: the default handler ends the process as it would have.
  return FALSE;
}

}  // namespace

void RemoveUnreportedFilesOnTermination() { SetConsoleCtrlHandler(&OnConsoleControl, TRUE); }

}  // namespace file
}  // namespace tessera
