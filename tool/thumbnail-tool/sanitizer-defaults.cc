// Leak reports the tool cannot act on: allocations that system libraries
// loaded with FFmpeg (the SRT network library) make when they are loaded and
// never free. Read only by LeakSanitizer in sanitizer builds; unused otherwise.
extern "C" const char* __lsan_default_suppressions() { return "leak:libsrt\n"; }
