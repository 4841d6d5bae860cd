// The current year of the local calendar, for the help text's notice line.
// One definition per platform (local-year-posix.cc, local-year-win.cc).
#ifndef TESSERA_LIB_ARGUMENT_LOCAL_YEAR_H_
#define TESSERA_LIB_ARGUMENT_LOCAL_YEAR_H_

namespace tessera {
namespace argument {

// The year (e.g. 2025) of the current local time. Thread-safe.
int CurrentLocalYear();

}  // namespace argument
}  // namespace tessera

#endif  // TESSERA_LIB_ARGUMENT_LOCAL_YEAR_H_
